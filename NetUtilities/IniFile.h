#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "NetUtilities/Singleton.h"

// Test overrides from a text file, by default "Testing.ini" in the data folder. On a normal machine there is no
// such file and every look-up gives its default, with no trace. A file is read again whenever its time has changed.
// One thread at a time.
class IniFile : public Singleton<IniFile>
{
public:
    [[nodiscard]] static std::shared_ptr<IniFile> Instance();

    // The value of a key (no regard to case) in a section (exact), or the default. Raises
    // std::system_error "last_write_time" if the file is there and its time cannot be read.
    [[nodiscard]] std::wstring GetString(const std::wstring& section, const std::wstring& key,
                                         const std::wstring& defaultValue, const std::wstring& file = {});
    // The value as an unsigned decimal, or the default if there is none. Raises std::invalid_argument for a text
    // without digits and std::out_of_range for one too large.
    [[nodiscard]] std::uint64_t GetNumber(const std::wstring& section, const std::wstring& key,
                                          std::uint64_t defaultValue);

protected:
    struct File
    {
        std::wstring path;
        std::int64_t modified = 0; // of the file system's clock
        bool exists = false;
        std::vector<std::wstring> lines;
    };

    File& Refresh(const std::wstring& path);

    std::map<std::wstring, File> files;
};
