#include "lab/shims/ShimInstall.h"

#include <windows.h>

#include <stdexcept>
#include <string>

namespace lab
{

namespace
{

std::wstring OverridesKey(const std::filesystem::path& program)
{
    return L"Software\\Wine\\AppDefaults\\" + program.filename().wstring() + L"\\DllOverrides";
}

} // namespace

const std::vector<std::wstring>& ShimNames()
{
    static const std::vector<std::wstring> names{L"iphlpapi", L"setupapi", L"cfgmgr32"};
    return names;
}

void InstallShims(const std::filesystem::path& program, const std::filesystem::path& folder)
{
    for (const std::wstring& name : ShimNames())
    {
        const std::filesystem::path source = folder / (name + L".dll");
        const std::filesystem::path target = program.parent_path() / (name + L".dll");
        if (!std::filesystem::exists(source) || source == target)
            continue;
        // The file may be a hard link that other prefixes share: a new one, never new content in the old one.
        DeleteFileW(target.c_str());
        if (!CopyFileW(source.c_str(), target.c_str(), FALSE))
            throw std::runtime_error("cannot put a shim beside the program (error " + std::to_string(GetLastError()) +
                                     ")");
        constexpr wchar_t order[] = L"native,builtin";
        if (RegSetKeyValueW(HKEY_CURRENT_USER, OverridesKey(program).c_str(), name.c_str(), REG_SZ, order,
                            sizeof order) != ERROR_SUCCESS)
            throw std::runtime_error("cannot switch on a shim in the registry");
    }
}

void RemoveShims(const std::filesystem::path& program)
{
    for (const std::wstring& name : ShimNames())
    {
        RegDeleteKeyValueW(HKEY_CURRENT_USER, OverridesKey(program).c_str(), name.c_str());
        std::error_code inUse;
        std::filesystem::remove(program.parent_path() / (name + L".dll"), inUse);
    }
}

} // namespace lab
