// A full copy of a registry branch as plain data, and the difference of two copies in words.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

struct RegistryData
{
    DWORD type = 0;
    std::vector<BYTE> bytes;
    bool operator==(const RegistryData&) const = default;
};

// Key path below the exported branch (empty for the branch itself) -> value name -> data. Every key is present,
// also one without values.
using RegistryExport = std::map<std::wstring, std::map<std::wstring, RegistryData>>;

[[nodiscard]] RegistryExport ExportRegistry(HKEY root, const std::wstring& subkey);

// One line per difference: "+ key", "- key", "+ key [value] = text", "- ...", "* key [value] = old -> new".
[[nodiscard]] std::vector<std::wstring> DifferRegistry(const RegistryExport& before, const RegistryExport& after);

// A REG_SZ value of the export, or nothing.
[[nodiscard]] std::wstring TextOfValue(const RegistryExport& data, const std::wstring& key, const std::wstring& value);
