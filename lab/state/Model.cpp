#include "lab/state/Model.h"

#include "lab/state/Text.h"

#include <cstdio>
#include <stdexcept>

namespace lab
{

namespace
{

const Json nothing;

} // namespace

const Json& Member(const Json& object, const char* key)
{
    if (!object.is_object())
    {
        return nothing;
    }
    const auto found = object.find(key);
    return found == object.end() ? nothing : *found;
}

std::string TextField(const Json& object, const char* key, const std::string& otherwise)
{
    const Json& value = Member(object, key);
    return value.is_string() ? value.get<std::string>() : otherwise;
}

bool FlagField(const Json& object, const char* key, bool otherwise)
{
    const Json& value = Member(object, key);
    return value.is_boolean() ? value.get<bool>() : otherwise;
}

std::int64_t NumberField(const Json& object, const char* key, std::int64_t otherwise)
{
    const Json& value = Member(object, key);
    if (value.is_string())
    {
        const auto number = ParseNumber(value.get_ref<const std::string&>());
        return number ? std::int64_t{*number} : otherwise;
    }
    return value.is_number_integer() ? value.get<std::int64_t>() : otherwise;
}

const Json* FindAdapter(const Json& state, std::string_view key)
{
    for (const char* field : {"name", "guid", "alias", "description"})
    {
        for (const Json& adapter : Member(state, "adapters"))
        {
            if (EqualNoCase(TextField(adapter, field), key))
            {
                return &adapter;
            }
        }
    }
    return nullptr;
}

Json* FindAdapter(Json& state, std::string_view key)
{
    return const_cast<Json*>(FindAdapter(static_cast<const Json&>(state), key)); // the state itself is not constant
}

Json& RequireAdapter(Json& state, std::string_view key)
{
    if (Json* adapter = FindAdapter(state, key))
    {
        return *adapter;
    }
    std::string names;
    for (const Json& adapter : Member(state, "adapters"))
    {
        names += (names.empty() ? "" : ", ") + TextField(adapter, "name");
    }
    throw std::runtime_error("no adapter '" + std::string{key} + "'; there are: " + (names.empty() ? "none" : names));
}

bool IsPresent(const Json& adapter)
{
    return FlagField(adapter, "present", true);
}

bool IsConnected(const Json& adapter)
{
    return TextField(adapter, "media", "connected") == "connected";
}

std::string CaptionOf(const Json& adapter)
{
    char number[16];
    std::snprintf(number, sizeof number, "[%08d] ", static_cast<int>(NumberField(adapter, "index", 0)));
    return TextField(adapter, "caption", number + TextField(adapter, "description"));
}

std::string SubnetMask(int prefix)
{
    const std::uint32_t mask = prefix <= 0 ? 0 : prefix >= 32 ? 0xFFFFFFFFU : ~(0xFFFFFFFFU >> prefix);
    char text[20];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", mask >> 24, mask >> 16 & 255, mask >> 8 & 255, mask & 255);
    return text;
}

std::optional<int> PrefixOf(std::string_view mask)
{
    for (int prefix = 0; prefix <= 32; ++prefix)
    {
        if (SubnetMask(prefix) == mask)
        {
            return prefix;
        }
    }
    return std::nullopt;
}

bool IsIpv6(std::string_view address)
{
    return address.find(':') != std::string_view::npos;
}

} // namespace lab
