#pragma once

#include <windows.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"
#include "NetUtilities/Singleton.h"

// The fall-back channel of the trace: what the Logger must say about its own service goes here.
//
// It never writes a file: the switch is off from the start, and the thread throws away what it takes from the queue.
// That is required; do not add a way to turn the switch on.
class FileLogger : public Singleton<FileLogger>
{
public:
    FileLogger();
    ~FileLogger();
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;

    // The process's file logger; null in the instant in which another thread is still making it.
    [[nodiscard]] static std::shared_ptr<FileLogger> Instance();

    // Queues one finished line. Any thread. The first call starts the writer thread.
    void Write(std::wstring_view text) EXCLUDES(queueLock);

protected:
    void Start();
    void DailyCheck() EXCLUDES(queueLock);
    void WriterThread();
    void WriteLine(const std::wstring& line);
    void AppendToFile(const std::wstring& line);
    void Push(std::wstring text) EXCLUDES(queueLock);

    std::wstring logFolder;
    std::wstring currentPath;
    std::wstring baseName;
    std::wstring moduleName;
    std::uint16_t day = 0;
    std::atomic<bool> threadStarted{false};
    bool writingEnabled = false;
    bool stop GUARDED_BY(queueLock) = false;
    UniqueHandle fileMutex; // named: keeps the processes of the product apart
    PlainMutex queueLock;
    ConditionVariable wakeUp;
    std::deque<std::wstring> queue GUARDED_BY(queueLock);
    std::unique_ptr<std::thread> thread;
};

// Adds the header ("[name        ] " and the stamp) to a text that carries its prefix ("Error: ", "Debug: " or
// "Info:  ") and queues the line.
void WriteToFileLog(std::wstring_view text);

namespace FileLogText
{
// The name in a line's header: exactly 12 characters, cut or filled up with blanks.
[[nodiscard]] std::wstring HeaderName(std::wstring_view baseName);
// "[name] stamp text" and a line feed unless the text ends in one.
[[nodiscard]] std::wstring Line(std::wstring_view baseName, std::wstring_view stamp, std::wstring_view text);
// "<base>_YYYY-MM-DD.log"
[[nodiscard]] std::wstring FileName(std::wstring_view baseName, const SYSTEMTIME& date);
// The text of an errno value from a fixed table; the number for an unknown one.
[[nodiscard]] std::wstring ErrnoText(int error);
} // namespace FileLogText
