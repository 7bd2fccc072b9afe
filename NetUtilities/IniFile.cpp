#include "NetUtilities/IniFile.h"

#include "NetUtilities/Files.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/IniText.h"
#include "NetUtilities/PathData.h"

namespace
{
// All bytes of the file, in pieces of 1024; what could be read if it cannot be read to its end.
std::string ReadBytes(const std::wstring& path)
{
    std::string bytes;
    const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
    {
        return bytes;
    }
    char piece[1024];
    DWORD read = 0;
    while (ReadFile(file.get(), piece, sizeof(piece), &read, nullptr) != FALSE && read != 0)
    {
        bytes.append(piece, read);
    }
    return bytes;
}
} // namespace

std::shared_ptr<IniFile> IniFile::Instance()
{
    return Get([] { return new IniFile; });
}

IniFile::File& IniFile::Refresh(const std::wstring& path)
{
    File& file = files[path];
    file.path = path;
    if (FileExists(path))
    {
        file.exists = true;
        const std::int64_t stamp = LastWriteTime(path);
        if (stamp != file.modified)
        {
            file.modified = stamp;
            file.lines = IniText::Lines(ReadBytes(path));
        }
    }
    return file;
}

std::wstring IniFile::GetString(const std::wstring& section, const std::wstring& key, const std::wstring& defaultValue,
                                const std::wstring& file)
{
    const std::wstring path = file.empty() ? GetDataFolder() + L"\\Testing.ini" : file;
    const File& record = Refresh(path);
    return IniText::Find(record.lines, section, key).value_or(defaultValue);
}

std::uint64_t IniFile::GetNumber(const std::wstring& section, const std::wstring& key, std::uint64_t defaultValue)
{
    const std::wstring text = GetString(section, key, L"");
    return text.empty() ? defaultValue : IniText::ToNumber(text);
}
