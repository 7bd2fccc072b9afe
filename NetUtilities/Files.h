#pragma once
// The few questions about files that the service asks, put to the platform directly: the standard library's file
// system brings its whole locale machinery with it, which is larger than the service itself.

#include <windows.h>

#include <string>
#include <system_error>

enum class FilePresence
{
    Missing,
    Present,
    Unknown, // the platform could not tell
};

[[nodiscard]] inline FilePresence FindFilePresence(const std::wstring& path) noexcept
{
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
    {
        return FilePresence::Present;
    }
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_INVALID_NAME
               ? FilePresence::Missing
               : FilePresence::Unknown;
}

[[nodiscard]] inline bool FileExists(const std::wstring& path) noexcept
{
    return FindFilePresence(path) == FilePresence::Present;
}

// The last write in 100 ns units since 1601. Raises std::system_error "last_write_time" if it cannot be read.
[[nodiscard]] inline std::int64_t LastWriteTime(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) == FALSE)
    {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "last_write_time");
    }
    return (static_cast<std::int64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) | data.ftLastWriteTime.dwLowDateTime;
}
