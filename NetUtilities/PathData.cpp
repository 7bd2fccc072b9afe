#include "NetUtilities/PathData.h"

#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <algorithm>
#include <cwctype>

#include "NetUtilities/Files.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/ModuleHandle.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
// {62AB5D82-FDC1-4DC3-A9DD-070D1D495D97} and {1AC14E77-02E7-4E5D-B744-2EB1AE5198B7}
constexpr GUID ProgramDataFolder = {0x62AB5D82, 0xFDC1, 0x4DC3, {0xA9, 0xDD, 0x07, 0x0D, 0x1D, 0x49, 0x5D, 0x97}};
constexpr GUID SystemFolder = {0x1AC14E77, 0x02E7, 0x4E5D, {0xB7, 0x44, 0x2E, 0xB1, 0xAE, 0x51, 0x98, 0xB7}};
constexpr DWORD CreateFolder = 0x8000; // KF_FLAG_CREATE

// Empty after a failure, which is traced with `failureText`.
std::wstring KnownFolder(const GUID& id, DWORD flags, std::wstring_view failureText)
{
    UniqueCoTaskMem<wchar_t> path; // to be freed after a failure too
    const HRESULT result = SHGetKnownFolderPath(id, flags, nullptr, path.put());
    if (FAILED(result))
    {
        LogErrorSource(Log::Source::General, static_cast<std::uint32_t>(result), failureText);
    }
    return TextOrEmpty(path.get());
}

// Makes the folder if it is not there, or if that cannot be told. A failure shows when the folder is used.
void EnsureFolder(const std::wstring& path)
{
    if (FindFilePresence(path) != FilePresence::Present)
    {
        CreateDirectoryW(path.c_str(), nullptr);
    }
}

std::wstring ModulePath(HMODULE module)
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    return std::wstring(path, length);
}

std::wstring LowerCase(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
    return text;
}
} // namespace

std::wstring PathText::ParentFolder(const std::wstring& path)
{
    const auto separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? std::wstring() : path.substr(0, separator);
}

std::wstring PathText::FileName(const std::wstring& path)
{
    const auto separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? path : path.substr(separator + 1);
}

std::wstring PathText::BaseName(const std::wstring& path)
{
    const std::wstring name = FileName(path);
    const auto dot = name.rfind(L'.');
    return dot == std::wstring::npos ? name : name.substr(0, dot);
}

bool PathText::RunsFromSystemFolder(const std::wstring& executableFolder, const std::wstring& systemFolder)
{
    // An unknown system folder is no folder that anything runs from.
    return !systemFolder.empty() && LowerCase(executableFolder).find(LowerCase(systemFolder)) != std::wstring::npos;
}

std::shared_ptr<PathData> PathData::Instance()
{
    return Get([] { return new PathData; });
}

std::wstring PathData::GetInstallFolder()
{
    const MutexLock guard(lock);
    if (installFolder.empty())
    {
        std::wstring folder = PathText::ParentFolder(GetExecutablePath());
        if (PathText::RunsFromSystemFolder(folder, GetSystemFolder()))
        {
            folder = ReadHklmString(L"Software\\QRLS\\Sorvane\\CurrentInstall", L"Path", L"");
        }
        installFolder = folder;
    }
    return installFolder;
}

std::wstring PathData::GetDataFolder()
{
    const MutexLock guard(lock);
    if (dataFolder.empty())
    {
        std::wstring folder = KnownFolder(ProgramDataFolder, CreateFolder, L"Failed to get Program Data folder");
        if (!folder.empty())
        {
            folder += L"\\QRLS";
            EnsureFolder(folder);
            folder += L"\\Sorvane";
            EnsureFolder(folder);
            EnsureFolder(folder + L"\\Data"); // made here, but no part of the result
        }
        dataFolder = folder;
    }
    return dataFolder;
}

std::wstring PathData::GetSystemFolder()
{
    const MutexLock guard(lock);
    if (systemFolder.empty())
    {
        systemFolder = KnownFolder(SystemFolder, 0, L"Failed to get System folder");
    }
    return systemFolder;
}

std::wstring PathData::GetExecutablePath()
{
    const MutexLock guard(lock);
    if (executablePath.empty())
    {
        executablePath = ModulePath(nullptr);
    }
    return executablePath;
}

std::wstring PathData::GetModulePath()
{
    const MutexLock guard(lock);
    if (modulePath.empty())
    {
        modulePath = ModulePath(ThisModule());
    }
    return modulePath;
}

std::wstring GetInstallFolder()
{
    const auto paths = PathData::Instance();
    return paths ? paths->GetInstallFolder() : std::wstring();
}

std::wstring GetDataFolder()
{
    const auto paths = PathData::Instance();
    return paths ? paths->GetDataFolder() : std::wstring();
}

std::wstring GetSystemFolder()
{
    const auto paths = PathData::Instance();
    return paths ? paths->GetSystemFolder() : std::wstring();
}

std::wstring GetExecutablePath()
{
    const auto paths = PathData::Instance();
    return paths ? paths->GetExecutablePath() : std::wstring();
}

std::wstring GetModulePath()
{
    const auto paths = PathData::Instance();
    return paths ? paths->GetModulePath() : std::wstring();
}
