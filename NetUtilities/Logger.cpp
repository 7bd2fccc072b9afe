#include "NetUtilities/Logger.h"

#include <comdef.h>
#include <ntsecapi.h>
#include <ole2.h>

#include <source_location>
#include <system_error>
#include <utility>

#include "NetUtilities/Clock.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/FileLogger.h"
#include "NetUtilities/FunctionName.h"
#include "NetUtilities/ModuleHandle.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/TraceStamp.h"

namespace
{
constexpr unsigned DebugLinesFlag = 16;
constexpr std::uint16_t FirstRefreshedSource = 1;

void WriteError(std::wstring_view text)
{
    WriteToFileLog(L"Error: " + std::wstring(text));
}

void WriteDebug(std::wstring_view text)
{
    if (IsTraceFlagSet(DebugLinesFlag))
    {
        WriteToFileLog(L"Debug: " + std::wstring(text));
    }
}

std::wstring FileNameOf(HMODULE module)
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    return PathText::FileName(std::wstring(path, length));
}

// The system's own random device. That of the C++ library opens a cryptographic provider: four DLLs, loaded and thrown
// away again for one number.
std::uint32_t RandomNumber()
{
    std::uint32_t number = 0;
    RtlGenRandom(&number, sizeof number);
    return number;
}

std::wstring MakeIdentity(const std::source_location& constructor)
{
    const std::wstring name = ShortFunctionName(constructor.function_name());
    const std::wstring tag = FormatText(L"{}_{}", ClassPartOf(name), RandomNumber() % 100);
    return FormatText(L"{} -> {} {}", FileNameOf(nullptr), FileNameOf(ThisModule()), tag);
}
} // namespace

Logger::Logger() : identity(MakeIdentity(std::source_location::current())) {}

Logger::~Logger()
{
    Stop();
}

std::shared_ptr<Logger> Logger::Instance()
{
    return Get([] { return new Logger; });
}

bool Logger::Passes(std::uint16_t source, std::uint16_t level) const noexcept
{
    // A source out of range has no slot and goes by the global level; delivery tells of it.
    const std::uint16_t own =
        source < sourceLevels.size() ? sourceLevels[source].load(std::memory_order_relaxed) : std::uint16_t{0};
    return level <= (own != 0 ? own : globalLevel.load(std::memory_order_relaxed));
}

bool Logger::Wants(std::uint16_t source, std::uint16_t level) const noexcept
{
    return !initialized.load(std::memory_order_acquire) || Passes(source, level);
}

void Logger::Write(std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    if (text.empty())
    {
        return;
    }
    if (!initialized.load(std::memory_order_acquire))
    {
        Initialize();
    }
    if (!Passes(source, level))
    {
        return;
    }
    TraceLine line{source, level, {}};
    line.text.reserve(text.size() + TraceStamp::MaximumLength);
    TraceStamp::AppendNow(line.text);
    line.text += text;
    bool wake = false;
    {
        const MutexLock lock(queueLock);
        queue.push_back(std::move(line));
        wake = std::exchange(asleep, false);
    }
    if (wake)
    {
        wakeUp.WakeOne(); // a signal that nobody waits for costs the caller as much as the rest
    }
}

void Logger::WriteDefault(std::uint16_t level, std::wstring_view text)
{
    Write(defaultSource.load(std::memory_order_relaxed), level, text);
}

bool Logger::Initialize()
{
    const ScopeTrace scope(LogOutput::Debugger, AlwaysOnTraceFlag, 0, identity);
    std::wstring failure;
    {
        const MutexLock lock(queueLock);
        if (!initialized.load(std::memory_order_relaxed))
        {
            globalLevel.store(ReadTraceLevel(), std::memory_order_relaxed);
            lastRefresh = 0;
            try
            {
                thread = std::thread(&Logger::LoggerThread, this);
                std::this_thread::yield();
                initialized.store(true, std::memory_order_release);
            }
            catch (const std::system_error& error)
            {
                const DWORD code = GetLastError();
                const std::string what = error.what();
                failure =
                    TraceFormat(code, L"Unable to create Logger thread - '{}'", std::wstring(what.begin(), what.end()));
            }
        }
    }
    if (!failure.empty())
    {
        WriteError(failure); // outside the lock: the file logger may trace
    }
    return initialized.load(std::memory_order_relaxed);
}

void Logger::Stop()
{
    const ScopeTrace scope(LogOutput::Debugger, AlwaysOnTraceFlag, 0, identity);
    if (!initialized.load(std::memory_order_acquire))
    {
        return;
    }
    {
        // Under the lock, so that it cannot fall between the thread's look at the queue and its wait.
        const MutexLock lock(queueLock);
        if (stop.exchange(true))
        {
            return;
        }
    }
    wakeUp.WakeAll();
    if (thread.joinable())
    {
        thread.join();
    }
}

void Logger::InitializeLogManager()
{
    const ScopeTrace scope(LogOutput::Debugger, AlwaysOnTraceFlag, 0, identity);
    manager = nullptr;
    _com_ptr_t<_com_IIID<IUnknown, &IID_IUnknown>> unknown;
    HRESULT result = CoCreateInstance(CLSID_TraceLogManager, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown,
                                      reinterpret_cast<void**>(&unknown));
    if (SUCCEEDED(result))
    {
        result = OleRun(unknown);
    }
    if (SUCCEEDED(result))
    {
        result = unknown->QueryInterface(IID_ITraceLogManager, reinterpret_cast<void**>(&manager));
    }
    if (FAILED(result))
    {
        manager = nullptr;
        WriteDebugger(
            TraceFormat(static_cast<std::uint32_t>(result), L"Unable to Create Instance of TraceLogManager!"));
    }
}

void Logger::LoggerThread()
{
    const ScopeTrace scope(LogOutput::Debugger, AlwaysOnTraceFlag, 0, identity);
    const ComApartment apartment(COINIT_MULTITHREADED);
    if (FAILED(apartment.Result()))
    {
        WriteError(TraceFormat(static_cast<std::uint32_t>(apartment.Result()),
                               L"Unable to initialize COM for the TraceLogManager!"));
        return; // messages stay in the queue
    }
    InitializeLogManager();
    RunLoop();
    if (manager == nullptr)
    {
        _com_issue_error(E_POINTER); // required: see the class comment
    }
    manager = nullptr;
}

void Logger::RunLoop()
{
    std::deque<TraceLine> local;
    for (;;)
    {
        {
            const MutexLock lock(queueLock);
            if (stop.load() && queue.empty())
            {
                return;
            }
        }
        std::uint16_t levelCopy = globalLevel.load(std::memory_order_relaxed);
        constexpr std::int64_t nanosecondsInSecond = 1'000'000'000;
        const std::int64_t now = Clock::Current().SteadyNanoseconds();
        if (!stop.load() && (now - lastRefresh) / nanosecondsInSecond > 60)
        {
            lastRefresh = now;
            if (manager != nullptr)
            {
                RefreshLevels(levelCopy);
            }
        }
        globalLevel.exchange(levelCopy);
        local.clear();
        {
            // No time limit: levels are refreshed only when messages flow.
            const MutexLock lock(queueLock);
            while (queue.empty() && !stop.load())
            {
                asleep = true;
                wakeUp.Wait(queueLock);
            }
            asleep = false;
            queue.swap(local);
        }
        for (const TraceLine& line : local)
        {
            Deliver(line);
        }
    }
}

void Logger::RefreshLevels(std::uint16_t& levelCopy)
{
    WriteDebug(L"Updating Global log levels from service.");
    unsigned short level = 0;
    HRESULT result = manager->GetGlobalLevel(&level);
    if (FAILED(result))
    {
        WriteError(
            TraceFormat(static_cast<std::uint32_t>(result), L"Unable to get current log level from TraceLogManager!"));
        level = ReadTraceLevel();
    }
    levelCopy = level;
    WriteDebug(L"Updating Source log levels from service.");
    for (std::uint16_t source = FirstRefreshedSource; source < Log::SourceCount; ++source)
    {
        if (SUCCEEDED(manager->GetSourceLevel(source, &level)))
        {
            sourceLevels[source].exchange(level);
        }
    }
    WriteDebug(L"Done updating from service.");
}

void Logger::Deliver(const TraceLine& line)
{
    if (line.source >= Log::SourceCount)
    {
        WriteToFileLog(FormatText(L"Info:  ********** Logging source {} out of range! **********", line.source));
        WriteToFileLog(L"Info:  " + line.text);
        return;
    }
    if (manager == nullptr)
    {
        _com_issue_error(E_POINTER); // required: see the class comment
    }
    const _bstr_t text(SysAllocStringLen(line.text.data(), static_cast<UINT>(line.text.size())), false);
    const HRESULT result = manager->WriteLine(line.source, line.level, text);
    if (FAILED(result))
    {
        WriteError(TraceFormat(static_cast<std::uint32_t>(result), L"Unable to send log message!"));
    }
}
