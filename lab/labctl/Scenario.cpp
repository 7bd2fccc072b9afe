#include "lab/labctl/Scenario.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

std::filesystem::path ProgramFolder()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path{path}.parent_path();
}

[[noreturn]] void Reject(std::size_t number, const Json& adapter, const std::string& why)
{
    throw std::runtime_error("adapter " + std::to_string(number + 1) + " (" +
                             TextField(adapter, "name", "without name") + "): " + why);
}

bool IsGuid(const std::string& text)
{
    static constexpr std::string_view form = "{00000000-0000-0000-0000-000000000000}";
    return text.size() == form.size() &&
           std::equal(text.begin(), text.end(), form.begin(), [](char c, char f)
                      { return f == '0' ? std::isxdigit(static_cast<unsigned char>(c)) != 0 : c == f; });
}

} // namespace

std::filesystem::path FindScenario(const std::string& name)
{
    const std::filesystem::path given{Wide(name)};
    const std::filesystem::path beside = ProgramFolder() / L"scenarios" / given;
    std::string looked;
    for (std::filesystem::path candidate : {given, beside})
    {
        for (const wchar_t* extension : {L"", L".json"})
        {
            std::filesystem::path full = candidate;
            full += extension;
            std::error_code error;
            if (std::filesystem::is_regular_file(full, error))
            {
                return full;
            }
            looked += "\n  " + Utf8(full.wstring());
        }
    }
    throw std::runtime_error("no scenario '" + name + "'; looked for:" + looked);
}

Json ReadScenario(const std::filesystem::path& path)
{
    std::ifstream file{path, std::ios::binary};
    if (!file)
    {
        throw std::runtime_error("cannot read " + Utf8(path.wstring()));
    }
    try
    {
        Json state = Json::parse(file);
        if (!state.is_object())
        {
            throw std::runtime_error("not an object");
        }
        Complete(state);
        return state;
    }
    catch (const std::exception& error)
    {
        throw std::runtime_error(Utf8(path.wstring()) + ": " + error.what());
    }
}

std::string GuidFor(const std::string& name)
{
    std::uint64_t halves[2] = {14695981039346656037U, 1099511628211U};
    for (std::uint64_t& half : halves)
    {
        for (const char c : "halcyd-lab:" + name)
        {
            half = (half ^ static_cast<unsigned char>(c)) * 1099511628211U;
        }
        half ^= half >> 29;
    }
    char text[40];
    std::snprintf(text, sizeof text, "{%08X-%04X-4%03X-A%03X-%012llX}", static_cast<unsigned>(halves[0] >> 32),
                  static_cast<unsigned>(halves[0] >> 16 & 0xFFFF), static_cast<unsigned>(halves[0] & 0xFFF),
                  static_cast<unsigned>(halves[1] >> 48 & 0xFFF),
                  static_cast<unsigned long long>(halves[1] & 0xFFFFFFFFFFFFU));
    return text;
}

void Complete(Json& state)
{
    Json& adapters = state["adapters"];
    if (adapters.is_null())
    {
        adapters = Json::array();
    }
    if (!adapters.is_array())
    {
        throw std::runtime_error("\"adapters\" is no list");
    }
    std::int64_t highest = 0;
    for (const Json& adapter : adapters)
    {
        highest = std::max(highest, NumberField(adapter, "index", 0));
    }
    std::set<std::string> names;
    std::set<std::string> guids;
    std::set<std::int64_t> indices;
    for (std::size_t i = 0; i < adapters.size(); ++i)
    {
        Json& adapter = adapters[i];
        const std::string name = TextField(adapter, "name");
        if (name.empty())
        {
            Reject(i, adapter, "needs a \"name\"");
        }
        if (!adapter.contains("guid"))
        {
            adapter["guid"] = GuidFor(name);
        }
        if (!adapter.contains("index"))
        {
            adapter["index"] = ++highest;
        }
        if (!adapter.contains("interfaceIndex"))
        {
            adapter["interfaceIndex"] = NumberField(adapter, "index", 0) + 10;
        }
        if (!adapter.contains("description"))
        {
            adapter["description"] = name;
        }
        if (!IsGuid(TextField(adapter, "guid")))
        {
            Reject(i, adapter, "its \"guid\" is no GUID in braces");
        }
        if (!names.insert(Lower(name)).second)
        {
            Reject(i, adapter, "another adapter has this name");
        }
        if (!guids.insert(Lower(TextField(adapter, "guid"))).second)
        {
            Reject(i, adapter, "another adapter has this GUID (a double SettingID is made with \"wmi\")");
        }
        if (!indices.insert(NumberField(adapter, "index", 0)).second)
        {
            Reject(i, adapter, "another adapter has this index");
        }
    }
}

} // namespace lab::ctl
