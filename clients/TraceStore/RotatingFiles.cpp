#include "clients/TraceStore/RotatingFiles.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <utility>

#include "clients/TraceStore/LineFormat.h"

namespace TraceFile
{
namespace
{
constexpr std::wstring_view Prefix = L"Trace-";
constexpr std::wstring_view Suffix = L".log";
constexpr int AttemptsToBeginFile = 16; // other writers may take numbers at the same time

// The note at the head of each file. The lines themselves carry no year.
std::string FileHeader(std::uint32_t number)
{
    SYSTEMTIME now{};
    GetLocalTime(&now);
    char text[96];
    const int length = std::snprintf(
        text, sizeof text, "# Trace file %u, begun %04u-%02u-%02u %02u:%02u:%02u local time\n",
        static_cast<unsigned>(number), static_cast<unsigned>(now.wYear), static_cast<unsigned>(now.wMonth),
        static_cast<unsigned>(now.wDay), static_cast<unsigned>(now.wHour), static_cast<unsigned>(now.wMinute),
        static_cast<unsigned>(now.wSecond));
    return std::string(text, static_cast<std::size_t>(length));
}
} // namespace

std::uint32_t NumberOfName(std::wstring_view fileName)
{
    if (fileName.size() < Prefix.size() + Suffix.size() + 6 || fileName.size() > Prefix.size() + Suffix.size() + 9 ||
        !fileName.starts_with(Prefix) || !fileName.ends_with(Suffix))
    {
        return 0;
    }
    std::uint32_t number = 0;
    for (const wchar_t character : fileName.substr(Prefix.size(), fileName.size() - Prefix.size() - Suffix.size()))
    {
        if (character < L'0' || character > L'9')
        {
            return 0;
        }
        number = number * 10 + static_cast<std::uint32_t>(character - L'0');
    }
    return number;
}

std::wstring NameOfNumber(std::uint32_t number)
{
    std::wstring digits = std::to_wstring(number);
    if (digits.size() < 6)
    {
        digits.insert(0, 6 - digits.size(), L'0');
    }
    return std::wstring(Prefix) + digits + std::wstring(Suffix);
}

bool MustRotate(std::uint64_t used, std::uint64_t more, std::uint64_t limit)
{
    return used != 0 && (used >= limit || more > limit - used);
}

std::vector<NumberedFile> ListFiles(const std::filesystem::path& folder)
{
    std::vector<NumberedFile> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    {
        const std::uint32_t number = NumberOfName(entry->path().filename().wstring());
        if (number != 0)
        {
            std::error_code sizeError;
            const std::uintmax_t bytes = entry->file_size(sizeError);
            files.push_back({number, entry->path(), sizeError ? 0 : static_cast<std::uint64_t>(bytes)});
        }
    }
    std::ranges::sort(files, {}, &NumberedFile::number);
    return files;
}

RotatingFiles::RotatingFiles(std::filesystem::path traceFolder, FileLimits fileLimits)
    : folder(std::move(traceFolder)), limits(fileLimits)
{
}

std::size_t RotatingFiles::Write(std::string_view bytes, const std::vector<std::size_t>& ends)
{
    std::size_t done = 0;
    while (done < ends.size())
    {
        if (!file && !OpenLast())
        {
            return done;
        }
        const std::size_t begin = done == 0 ? 0 : ends[done - 1];
        if (MustRotate(currentBytes, ends[done] - begin, limits.maximumFileBytes))
        {
            if (!OpenNext())
            {
                return done;
            }
        }
        // As many records as the current file still takes; the first one always goes.
        std::size_t last = done;
        while (last + 1 < ends.size() && !MustRotate(currentBytes, ends[last + 1] - begin, limits.maximumFileBytes))
        {
            ++last;
        }
        if (!WriteBytes(bytes.substr(begin, ends[last] - begin)))
        {
            return done;
        }
        done = last + 1;
    }
    return done;
}

bool RotatingFiles::OpenLast()
{
    std::error_code error;
    std::filesystem::create_directories(folder, error); // the open below reports what stays wrong
    const std::vector<NumberedFile> files = ListFiles(folder);
    if (!files.empty() && files.back().bytes < limits.maximumFileBytes &&
        OpenNumber(files.back().number, OPEN_EXISTING))
    {
        return true;
    }
    currentNumber = files.empty() ? 0 : files.back().number;
    return OpenNext();
}

bool RotatingFiles::OpenNumber(std::uint32_t number, DWORD disposition)
{
    // One writer per file: others may read and delete, a second writer is refused and begins a file of its own.
    UniqueHandle opened(CreateFileW(
        (folder / NameOfNumber(number)).c_str(), FILE_APPEND_DATA | FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size{};
    if (!opened || !GetFileSizeEx(opened.get(), &size))
    {
        lastError = GetLastError();
        return false;
    }
    file = std::move(opened);
    currentNumber = number;
    currentBytes = static_cast<std::uint64_t>(size.QuadPart);
    return currentBytes == 0 || EndTornRecord();
}

bool RotatingFiles::EndTornRecord()
{
    LARGE_INTEGER lastByte{};
    lastByte.QuadPart = -1;
    char last = '\n';
    DWORD read = 0;
    if (SetFilePointerEx(file.get(), lastByte, nullptr, FILE_END) && ReadFile(file.get(), &last, 1, &read, nullptr) &&
        read == 1 && last != '\n')
    {
        return WriteBytes("\n");
    }
    return true;
}

bool RotatingFiles::OpenNext()
{
    file.reset();
    for (int attempt = 0; attempt < AttemptsToBeginFile; ++attempt)
    {
        const std::uint32_t next = currentNumber + 1;
        if (OpenNumber(next, CREATE_NEW))
        {
            const std::string header = FileHeader(next);
            if (!WriteBytes(header))
            {
                return false;
            }
            DropOldFiles();
            return true;
        }
        if (lastError != ERROR_FILE_EXISTS && lastError != ERROR_SHARING_VIOLATION)
        {
            return false;
        }
        currentNumber = next;
    }
    return false;
}

bool RotatingFiles::WriteBytes(std::string_view bytes)
{
    while (!bytes.empty())
    {
        const DWORD piece = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 0x1000000));
        DWORD written = 0;
        if (!WriteFile(file.get(), bytes.data(), piece, &written, nullptr) || written == 0)
        {
            lastError = GetLastError();
            file.reset(); // the next attempt opens anew: the folder may have been removed, the disk may have room again
            return false;
        }
        currentBytes += written;
        bytes.remove_prefix(written);
    }
    return true;
}

void RotatingFiles::DropOldFiles()
{
    const std::vector<NumberedFile> files = ListFiles(folder);
    const std::size_t keep = std::max<std::uint32_t>(limits.maximumFiles, 1);
    for (std::size_t index = 0; index + keep < files.size(); ++index)
    {
        if (files[index].number != currentNumber)
        {
            // A file that a reader holds without sharing its deletion stays until the next rotation.
            DeleteFileW(files[index].path.c_str());
        }
    }
}
} // namespace TraceFile
