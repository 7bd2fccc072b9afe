#include "tests/support/RegistryExport.h"

#include "NetUtilities/Handles.h"

namespace
{

constexpr DWORD kLongestName = 16384;

void ExportKey(HKEY key, const std::wstring& path, RegistryExport& out)
{
    auto& values = out[path];
    std::vector<wchar_t> name(kLongestName);
    for (DWORD index = 0;; ++index)
    {
        DWORD nameLength = kLongestName;
        DWORD size = 0;
        RegistryData data;
        LSTATUS status = RegEnumValueW(key, index, name.data(), &nameLength, nullptr, &data.type, nullptr, &size);
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA)
            break;
        data.bytes.resize(size);
        nameLength = kLongestName;
        status = RegEnumValueW(key, index, name.data(), &nameLength, nullptr, &data.type, data.bytes.data(), &size);
        if (status != ERROR_SUCCESS)
            break;
        values.emplace(std::wstring(name.data(), nameLength), std::move(data));
    }
    for (DWORD index = 0;; ++index)
    {
        DWORD nameLength = kLongestName;
        if (RegEnumKeyExW(key, index, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        const std::wstring child(name.data(), nameLength);
        HKEY opened = nullptr;
        if (RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS)
            continue;
        const UniqueRegistryHandle owner{opened};
        ExportKey(opened, path.empty() ? child : path + L"\\" + child, out);
    }
}

std::wstring Show(const RegistryData& data)
{
    switch (data.type)
    {
    case REG_SZ:
    case REG_EXPAND_SZ:
    {
        std::wstring text(reinterpret_cast<const wchar_t*>(data.bytes.data()), data.bytes.size() / sizeof(wchar_t));
        while (!text.empty() && text.back() == L'\0')
            text.pop_back();
        return L"'" + text + L"'";
    }
    case REG_DWORD:
        if (data.bytes.size() == sizeof(DWORD))
            return std::to_wstring(*reinterpret_cast<const DWORD*>(data.bytes.data()));
        break;
    default:
        break;
    }
    return L"(type " + std::to_wstring(data.type) + L", " + std::to_wstring(data.bytes.size()) + L" bytes)";
}

} // namespace

RegistryExport ExportRegistry(HKEY root, const std::wstring& subkey)
{
    RegistryExport out;
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return out;
    const UniqueRegistryHandle owner{opened};
    ExportKey(opened, L"", out);
    return out;
}

std::vector<std::wstring> DifferRegistry(const RegistryExport& before, const RegistryExport& after)
{
    std::vector<std::wstring> lines;
    for (const auto& [key, values] : before)
    {
        const auto other = after.find(key);
        if (other == after.end())
        {
            lines.push_back(L"- " + key);
            continue;
        }
        for (const auto& [name, data] : values)
        {
            const auto match = other->second.find(name);
            if (match == other->second.end())
                lines.push_back(L"- " + key + L" [" + name + L"] = " + Show(data));
            else if (!(match->second == data))
            {
                lines.push_back(L"* " + key + L" [" + name + L"] = " + Show(data) + L" -> " + Show(match->second));
            }
        }
    }
    for (const auto& [key, values] : after)
    {
        const auto other = before.find(key);
        if (other == before.end())
            lines.push_back(L"+ " + key);
        for (const auto& [name, data] : values)
        {
            if (other == before.end() || !other->second.contains(name))
            {
                lines.push_back(L"+ " + key + L" [" + name + L"] = " + Show(data));
            }
        }
    }
    return lines;
}

std::wstring TextOfValue(const RegistryExport& data, const std::wstring& key, const std::wstring& value)
{
    const auto found = data.find(key);
    if (found == data.end())
        return {};
    const auto entry = found->second.find(value);
    if (entry == found->second.end())
        return {};
    std::wstring text(reinterpret_cast<const wchar_t*>(entry->second.bytes.data()),
                      entry->second.bytes.size() / sizeof(wchar_t));
    while (!text.empty() && text.back() == L'\0')
        text.pop_back();
    return text;
}
