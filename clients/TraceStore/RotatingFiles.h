#pragma once
// Trace files of limited size: "Trace-000001.log", "Trace-000002.log", ... in one folder. Writing goes to the file with
// the highest number; when that would pass the size limit the next one is begun and the oldest beyond the limit of
// files goes. A file that another process writes is left alone, and a new one begun.
//
// Not safe for use from several threads at once: the writer thread of LineStore owns it, other threads only call the
// static helpers and the functions marked so.

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "NetUtilities/Handles.h"

namespace TraceFile
{
struct FileLimits
{
    std::uint64_t maximumFileBytes = std::uint64_t{4} * 1024 * 1024;
    std::uint32_t maximumFiles = 8;
};

struct NumberedFile
{
    std::uint32_t number = 0;
    std::filesystem::path path;
    std::uint64_t bytes = 0;
};

// Number of a trace file's name, 0 if it is none. Pure.
[[nodiscard]] std::uint32_t NumberOfName(std::wstring_view fileName);
[[nodiscard]] std::wstring NameOfNumber(std::uint32_t number);

// True if a file that holds `used` bytes must not take `more` bytes. An empty file takes anything, so that a record
// larger than the limit still gets a place. Pure.
[[nodiscard]] bool MustRotate(std::uint64_t used, std::uint64_t more, std::uint64_t limit);

// The trace files of a folder, lowest number first. Safe from any thread. An unreadable folder gives none.
[[nodiscard]] std::vector<NumberedFile> ListFiles(const std::filesystem::path& folder);

class RotatingFiles
{
public:
    RotatingFiles(std::filesystem::path traceFolder, FileLimits fileLimits);

    // Appends whole records to the current file, one WriteFile for as many as fit. Rotation happens between records
    // only: `ends` holds the offset behind each record. Returns how many records are in a file; less than all of them
    // after a failure, whose Win32 code is then in LastError().
    [[nodiscard]] std::size_t Write(std::string_view bytes, const std::vector<std::size_t>& ends);

    [[nodiscard]] DWORD LastError() const noexcept { return lastError; }
    // Safe from any thread.
    [[nodiscard]] const std::filesystem::path& Folder() const noexcept { return folder; }

private:
    [[nodiscard]] bool OpenLast();
    [[nodiscard]] bool OpenNumber(std::uint32_t number, DWORD disposition);
    [[nodiscard]] bool OpenNext();
    // A writer that was ended in the middle of a record left no line break; what comes next must begin on its own line.
    [[nodiscard]] bool EndTornRecord();
    [[nodiscard]] bool WriteBytes(std::string_view bytes);
    void DropOldFiles();

    std::filesystem::path folder;
    FileLimits limits;
    UniqueHandle file;
    std::uint32_t currentNumber = 0;
    std::uint64_t currentBytes = 0;
    DWORD lastError = ERROR_SUCCESS;
};
} // namespace TraceFile
