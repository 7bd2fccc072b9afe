#pragma once
// The channels behind the trace service, made visible: a file logger that keeps its lines, and what a debugger would
// see.

#include <windows.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/FileLogger.h"
#include "NetUtilities/Logger.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

inline constexpr wchar_t CurrentInstall[] = L"Software\\QRLS\\Sorvane\\CurrentInstall";

// Stands in for the process's file logger and never starts its thread: what is queued stays to be looked at.
class KeepingFileLogger : public FileLogger
{
public:
    KeepingFileLogger() { threadStarted = true; }
    ~KeepingFileLogger() { threadStarted = false; }

    // The queued texts without header and stamp.
    std::vector<std::wstring> Texts()
    {
        const MutexLock lock(queueLock);
        std::vector<std::wstring> texts;
        for (const std::wstring& line : queue)
        {
            const auto header = line.find(L"] ");
            const auto stampEnd = line.find(L": ", header + 2 + 24);
            texts.push_back(line.substr(stampEnd + 2, line.size() - stampEnd - 3));
        }
        return texts;
    }
    std::vector<std::wstring> Lines()
    {
        const MutexLock lock(queueLock);
        return {queue.begin(), queue.end()};
    }
};

class FallbackTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
        SetUserFlags(0);
        clock.AdvanceSeconds(1000);
        auto* const made = new KeepingFileLogger;
        fileLogger = FileLogger::Get([made]() -> FileLogger* { return made; });
        keeping = made;
    }
    void TearDown() override
    {
        SetUserFlags(0);
        recorder.Reset();
        fileLogger.reset();
        RestartTrace();
        clock.AdvanceSeconds(1000);
    }
    static void SetUserFlags(std::uint32_t flags)
    {
        RegistryKey key;
        ASSERT_EQ(0U, key.Create(HKEY_CURRENT_USER, CurrentInstall, KEY_WRITE));
        ASSERT_EQ(0U, key.WriteDword(L"TraceFlags", flags));
    }
    bool FileLogHas(const std::wstring& text)
    {
        const auto texts = keeping->Texts();
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

    VirtualClock clock;
    TraceRecorder& recorder = TraceRecorder::Get();
    std::shared_ptr<FileLogger> fileLogger;
    KeepingFileLogger* keeping = nullptr;
};

// --- The debugger channel ---

inline std::mutex debuggerLock;
inline std::vector<std::wstring> debuggerTexts;

// OutputDebugStringW tells a debugger by an exception of its own, which is seen here first: with a wide text on
// Windows, with a narrow one on Wine.
inline LONG CALLBACK CatchDebuggerText(EXCEPTION_POINTERS* pointers)
{
    constexpr DWORD narrowText = 0x40010006;
    constexpr DWORD wideText = 0x4001000A;
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    if (record.NumberParameters < 2 || (record.ExceptionCode != wideText && record.ExceptionCode != narrowText))
    {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    const std::lock_guard guard(debuggerLock);
    const std::size_t length = record.ExceptionInformation[0] - 1; // without the terminator
    if (record.ExceptionCode == wideText)
    {
        debuggerTexts.emplace_back(reinterpret_cast<const wchar_t*>(record.ExceptionInformation[1]), length);
    }
    else
    {
        const auto* const text = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
        debuggerTexts.emplace_back(text, text + length);
    }
    return EXCEPTION_CONTINUE_EXECUTION;
}

class DebuggerChannelTest : public FallbackTest
{
protected:
    void SetUp() override
    {
        FallbackTest::SetUp();
        SetDebugOutput(1);
        const std::lock_guard guard(debuggerLock);
        debuggerTexts.clear();
        handler = AddVectoredExceptionHandler(1, &CatchDebuggerText);
    }
    void TearDown() override
    {
        RemoveVectoredExceptionHandler(handler);
        SetDebugOutput(0);
        (void)IsDebugOutputEnabled();
        FallbackTest::TearDown();
    }
    void SetDebugOutput(std::uint32_t value)
    {
        RegistryKey key;
        ASSERT_EQ(0U, key.Create(HKEY_LOCAL_MACHINE, CurrentInstall, KEY_WRITE));
        ASSERT_EQ(0U, key.WriteDword(L"DebugOutput", value));
        clock.AdvanceSeconds(11);
    }
    static std::vector<std::wstring> Texts()
    {
        const std::lock_guard guard(debuggerLock);
        return debuggerTexts;
    }
    void* handler = nullptr;
};
