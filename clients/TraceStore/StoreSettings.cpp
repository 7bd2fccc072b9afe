#include "clients/TraceStore/StoreSettings.h"

#include <initguid.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <algorithm>

namespace
{
DWORD ReadNumber(const wchar_t* value, DWORD otherwise)
{
    DWORD number = 0;
    DWORD size = sizeof number;
    const LSTATUS status =
        RegGetValueW(HKEY_LOCAL_MACHINE, StoreSettings::Key, value, RRF_RT_REG_DWORD, nullptr, &number, &size);
    return status == ERROR_SUCCESS ? number : otherwise;
}
} // namespace

std::filesystem::path StoreSettings::DefaultFolder()
{
    UniqueCoTaskMem<wchar_t> programData;
    if (FAILED(SHGetKnownFolderPath(FOLDERID_ProgramData, KF_FLAG_CREATE, nullptr, programData.put())) || !programData)
    {
        return {};
    }
    return std::filesystem::path(programData.get()) / L"QRLS" / L"Sorvane" / L"Data" / L"Trace";
}

StoreSettings StoreSettings::Read()
{
    StoreSettings settings;
    wchar_t folder[MAX_PATH] = L"";
    DWORD size = sizeof folder;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, Key, L"Folder", RRF_RT_REG_SZ, nullptr, folder, &size) == ERROR_SUCCESS &&
        folder[0])
    {
        settings.folder = folder;
    }
    else
    {
        settings.folder = DefaultFolder();
    }
    constexpr DWORD SmallestFile = 64 * 1024;
    settings.limits.maximumFileBytes =
        std::max(ReadNumber(L"MaximumFileSize", static_cast<DWORD>(settings.limits.maximumFileBytes)), SmallestFile);
    settings.limits.maximumFiles = std::max<DWORD>(ReadNumber(L"MaximumFiles", settings.limits.maximumFiles), 2);
    settings.lingerMilliseconds = std::min<DWORD>(ReadNumber(L"LingerSeconds", 5), 3600) * 1000;
    return settings;
}
