#pragma once
// Settings of the trace service, read once when it starts. Key "Software\QRLS\Sorvane\TraceStore" under
// HKEY_LOCAL_MACHINE:
//
//   Folder          REG_SZ   where the files are; default "QRLS\Sorvane\Data\Trace" in the machine's program data
//   folder MaximumFileSize REG_DWORD bytes per file, at least 64 KB; default 4 MB MaximumFiles    REG_DWORD files kept,
//   at least 2; default 8 LingerSeconds   REG_DWORD how long the process stays after its last client let go, at most
//   3600; default 5

#include <filesystem>

#include "clients/TraceStore/RotatingFiles.h"

struct StoreSettings
{
    static constexpr const wchar_t* ProductKey = L"Software\\QRLS\\Sorvane";
    static constexpr const wchar_t* Key = L"Software\\QRLS\\Sorvane\\TraceStore";
    static constexpr const wchar_t* LevelsKey = L"Software\\QRLS\\Sorvane\\TraceStore\\Levels";

    std::filesystem::path folder;
    TraceFile::FileLimits limits;
    DWORD lingerMilliseconds = 5000;

    [[nodiscard]] static StoreSettings Read();
    // Empty if the platform does not know its program data folder.
    [[nodiscard]] static std::filesystem::path DefaultFolder();
};
