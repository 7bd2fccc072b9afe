#include "lab/labctl/StatePath.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <stdexcept>

namespace lab::ctl
{

namespace
{

std::vector<std::string> Split(const std::string& path)
{
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (const char c : path)
    {
        if (c == '"')
        {
            quoted = !quoted;
        }
        else if (c == '.' && !quoted)
        {
            parts.emplace_back();
        }
        else
        {
            parts.back() += c;
        }
    }
    return parts;
}

// The element of a list that a part of a path names; its size if there is none.
std::size_t Find(const Json& list, const std::string& part)
{
    for (std::size_t i = 0; i < list.size(); ++i)
    {
        for (const char* field : {"name", "guid", "id", "ssid"})
        {
            if (list[i].is_object() && list[i].contains(field) && EqualNoCase(TextField(list[i], field), part))
            {
                return i;
            }
        }
    }
    const auto number = ParseNumber(part);
    return number && *number < list.size() ? *number : list.size();
}

const Json* Child(const Json& parent, const std::string& part)
{
    if (parent.is_array())
    {
        const std::size_t index = Find(parent, part);
        return index < parent.size() ? &parent[index] : nullptr;
    }
    const auto member = parent.is_object() ? parent.find(part) : parent.end();
    return parent.is_object() && member != parent.end() ? &*member : nullptr;
}

[[noreturn]] void NotThere(const std::string& path, const std::string& part)
{
    throw std::runtime_error("nothing at '" + path + "': '" + part + "' is not there");
}

// The value at all parts but the last, with missing members made if `make`.
Json& Parent(Json& state, const std::vector<std::string>& parts, const std::string& path, bool make)
{
    Json* value = &state;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i)
    {
        const Json* child = Child(*value, parts[i]);
        if (child == nullptr && make && (value->is_object() || value->is_null()))
        {
            child = &((*value)[parts[i]] = Json::object());
        }
        if (child == nullptr)
        {
            NotThere(path, parts[i]);
        }
        value = const_cast<Json*>(child); // inside `state`, which may be changed
    }
    return *value;
}

} // namespace

const Json& GetValue(const Json& state, const std::string& path)
{
    const Json* value = &state;
    for (const std::string& part : Split(path))
    {
        value = Child(*value, part);
        if (value == nullptr)
        {
            NotThere(path, part);
        }
    }
    return *value;
}

void SetValue(Json& state, const std::string& path, const Json& value)
{
    const auto parts = Split(path);
    Json& parent = Parent(state, parts, path, true);
    if (parent.is_array())
    {
        const std::size_t index = Find(parent, parts.back());
        if (index < parent.size())
        {
            parent[index] = value;
        }
        else if (parts.back() == "-")
        {
            parent.push_back(value);
        }
        else
        {
            NotThere(path, parts.back());
        }
    }
    else if (parent.is_object() || parent.is_null())
    {
        parent[parts.back()] = value;
    }
    else
    {
        throw std::runtime_error("nothing can be set at '" + path + "': its parent is a plain value");
    }
}

void RemoveValue(Json& state, const std::string& path)
{
    const auto parts = Split(path);
    Json& parent = Parent(state, parts, path, false);
    if (Child(parent, parts.back()) == nullptr)
    {
        NotThere(path, parts.back());
    }
    if (parent.is_array())
    {
        parent.erase(Find(parent, parts.back()));
    }
    else
    {
        parent.erase(parts.back());
    }
}

} // namespace lab::ctl
