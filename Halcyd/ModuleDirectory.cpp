#include "Halcyd/ModuleDirectory.h"

#include <windows.h>

#include <algorithm>
#include <array>

namespace
{
constexpr std::size_t directorySize = 260;

std::array<wchar_t, directorySize> FindModuleDirectory() noexcept
{
    std::array<wchar_t, directorySize> directory{};
    std::array<wchar_t, directorySize> path{};
    const DWORD length =
        GetModuleFileNameW(GetModuleHandleW(L"SorvaneDll.dll"), path.data(), static_cast<DWORD>(path.size()));
    const std::wstring_view folder = FolderOfModulePath({path.data(), std::min<std::size_t>(length, path.size() - 1)});
    std::copy(folder.begin(), folder.end(), directory.begin());
    return directory;
}
} // namespace

std::wstring_view FolderOfModulePath(std::wstring_view path) noexcept
{
    if (!path.empty() && path.front() == L'"')
    {
        path.remove_prefix(1);
    }
    const auto backslash = path.rfind(L'\\');
    return backslash == std::wstring_view::npos ? path : path.substr(0, backslash + 1);
}

const wchar_t* GetModuleDirectory()
{
    static const std::array<wchar_t, directorySize> directory = FindModuleDirectory();
    return directory.data();
}
