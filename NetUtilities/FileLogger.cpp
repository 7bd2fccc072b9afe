#include "NetUtilities/FileLogger.h"

#include <fcntl.h>
#include <io.h>
#include <share.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "NetUtilities/Clock.h"
#include "NetUtilities/Files.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/Trace.h"
#include "NetUtilities/TraceStamp.h"

namespace
{
constexpr std::size_t HeaderNameLength = 12;
constexpr int AppendUtf8Text = 0x44109; // _O_WRONLY | _O_APPEND | _O_CREAT | _O_TEXT | _O_U8TEXT
constexpr int DenyWrite = 0x20;
constexpr int ReadAndWrite = 384;

// One line to the shared file, held by the named mutex for as long as the object lives.
class FileMutexLock
{
public:
    explicit FileMutexLock(HANDLE namedMutex) noexcept : handle(namedMutex)
    {
        (void)Clock::Current().Wait(handle, INFINITE); // abandoned counts as taken
    }
    ~FileMutexLock() { ReleaseMutex(handle); }
    FileMutexLock(const FileMutexLock&) = delete;
    FileMutexLock& operator=(const FileMutexLock&) = delete;

private:
    HANDLE handle;
};
} // namespace

// --- Text ---

std::wstring FileLogText::HeaderName(std::wstring_view baseName)
{
    std::wstring name(baseName.substr(0, HeaderNameLength));
    name.resize(HeaderNameLength, L' ');
    return name;
}

std::wstring FileLogText::Line(std::wstring_view baseName, std::wstring_view stamp, std::wstring_view text)
{
    std::wstring line = L"[" + HeaderName(baseName) + L"] ";
    line += stamp;
    line += text;
    if (!text.ends_with(L'\n'))
    {
        line += L'\n';
    }
    return line;
}

std::wstring FileLogText::FileName(std::wstring_view baseName, const SYSTEMTIME& date)
{
    return std::wstring(baseName) + FormatText(L"_{:04}-{:02}-{:02}.log", date.wYear, date.wMonth, date.wDay);
}

std::wstring FileLogText::ErrnoText(int error)
{
    struct Entry
    {
        int error;
        const wchar_t* text;
    };
    static constexpr Entry table[] = {
        {EPERM, L"Operation not permitted"},
        {ENOENT, L"No such file or directory"},
        {EINTR, L"Interrupted function call"},
        {EIO, L"Input/output error"},
        {EBADF, L"Bad file descriptor"},
        {EAGAIN, L"Resource temporarily unavailable"},
        {ENOMEM, L"Not enough space"},
        {EACCES, L"Permission denied"},
        {EFAULT, L"Bad address"},
        {EBUSY, L"Resource device"},
        {EEXIST, L"File exists"},
        {EXDEV, L"Improper link"},
        {ENODEV, L"No such device"},
        {ENOTDIR, L"Not a directory"},
        {EISDIR, L"Is a directory"},
        {EINVAL, L"Invalid argument"},
        {ENFILE, L"Too many open files in system"},
        {EMFILE, L"Too many open files"},
        {EFBIG, L"File too large"},
        {ENOSPC, L"No space left on device"},
        {ESPIPE, L"Invalid seek"},
        {EROFS, L"Read-only file system"},
        {EMLINK, L"Too many links"},
        {EPIPE, L"Broken pipe"},
        {ERANGE, L"Result too large"},
        {ENAMETOOLONG, L"Filename too long"},
        {EILSEQ, L"Illegal byte sequence"},
    };
    const auto found =
        std::find_if(std::begin(table), std::end(table), [=](const Entry& each) { return each.error == error; });
    return found != std::end(table) ? std::wstring(found->text) : std::to_wstring(error);
}

void WriteToFileLog(std::wstring_view text)
{
    std::wstring stamp;
    TraceStamp::AppendNow(stamp);
    const std::wstring line = FileLogText::Line(PathText::BaseName(GetModulePath()), stamp, text);
    if (const auto logger = FileLogger::Instance())
    {
        logger->Write(line);
    }
}

// --- The logger ---

FileLogger::FileLogger() : logFolder(GetDataFolder()), moduleName(PathText::FileName(GetModulePath()))
{
    fileMutex.reset(CreateMutexW(nullptr, FALSE, L"QrlcFileLogger"));
    if (!fileMutex)
    {
        WriteDebugger(TraceFormat(GetLastError(), L"LoggerBase::LoggerBase() OpenMutex"));
    }
}

FileLogger::~FileLogger()
{
    if (threadStarted.load())
    {
        Push(FormatText(L"End Log - {}\n", moduleName));
    }
    if (thread)
    {
        {
            const MutexLock lock(queueLock);
            stop = true;
        }
        wakeUp.WakeAll();
        thread->join();
        thread.reset();
    }
}

std::shared_ptr<FileLogger> FileLogger::Instance()
{
    return Get([] { return new FileLogger; });
}

void FileLogger::Write(std::wstring_view text)
{
    if (!threadStarted.exchange(true))
    {
        Start();
    }
    Push(std::wstring(text));
    wakeUp.WakeOne();
}

void FileLogger::Push(std::wstring text)
{
    const MutexLock lock(queueLock);
    queue.push_back(std::move(text));
}

void FileLogger::Start()
{
    if (baseName.empty())
    {
        baseName = PathText::BaseName(GetModulePath());
    }
    DailyCheck();
    try
    {
        thread = std::make_unique<std::thread>(&FileLogger::WriterThread, this);
    }
    catch (const std::exception& failure)
    {
        const DWORD code = GetLastError();
        const std::string what = failure.what();
        WriteDebugger(
            TraceFormat(code, L"Unable to create FileLogger thread '{}'", std::wstring(what.begin(), what.end())));
    }
}

void FileLogger::DailyCheck()
{
    SYSTEMTIME now;
    Clock::Current().LocalTime(now);
    if (now.wDay == day)
    {
        return; // required: the day of the month alone is compared
    }
    day = now.wDay;
    if (FileExists(currentPath))
    {
        Push(FormatText(L"End Log - {}\n", moduleName));
    }
    currentPath = logFolder + L"\\" + FileLogText::FileName(baseName, now);
    if (FileExists(currentPath))
    {
        Push(L"\n");
    }
    Push(FormatText(L"Begin Log - {}\n", moduleName));
}

void FileLogger::WriterThread()
{
    std::deque<std::wstring> local;
    bool stopping = false;
    {
        const MutexLock lock(queueLock);
        if (stop)
        {
            return; // no work at all then
        }
    }
    while (!stopping)
    {
        {
            const MutexLock lock(queueLock);
            while (queue.empty() && !stop)
            {
                wakeUp.Wait(queueLock);
            }
            queue.swap(local);
            stopping = stop;
        }
        for (const std::wstring& line : local)
        {
            WriteLine(line);
        }
        local.clear();
    }
}

void FileLogger::WriteLine(const std::wstring& line)
{
    if (!writingEnabled)
    {
        return;
    }
    const FileMutexLock lock(fileMutex.get());
    if (IsDebugOutputEnabled())
    {
        OutputDebugStringW(line.c_str());
    }
    DailyCheck();
    AppendToFile(line);
}

void FileLogger::AppendToFile(const std::wstring& line)
{
    // Opened anew for each line: the file is shared by all processes of the product.
    int file = -1;
    const errno_t failure = _wsopen_s(&file, currentPath.c_str(), AppendUtf8Text, DenyWrite, ReadAndWrite);
    if (failure != 0)
    {
        WriteDebugger(FormatText(L"Error opening log file: {} - {}", currentPath, FileLogText::ErrnoText(failure)));
        return;
    }
    _write(file, line.data(), static_cast<unsigned>(line.size() * sizeof(wchar_t)));
    _close(file);
}
