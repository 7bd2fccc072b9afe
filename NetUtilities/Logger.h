#pragma once

#include <windows.h>
#include <comdef.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "NetUtilities/Mutex.h"
#include "NetUtilities/Singleton.h"
#include "NetUtilities/Trace.h"
#include "NetUtilities/TraceLogManager.h"

_COM_SMARTPTR_TYPEDEF(ITraceLogManager, __uuidof(ITraceLogManager));

// One queued message. The text carries its stamp already; source and level travel beside it.
struct TraceLine
{
    std::uint16_t source;
    std::uint16_t level;
    std::wstring text;
};

// The client side of the trace service. Any thread logs; one background thread, started by the first message that
// is not empty, hands the lines to TraceLogManager and learns the levels from it. Code logs through the functions of
// Trace.h, not through this class.
//
// Life: made on first use, running until Stop, which is one-way: after it, messages are queued and nobody reads
// them. The tear-down of singletons destroys it last.
//
// A running process needs the trace service: where TraceLogManager cannot be created, the logger thread raises a
// COM error (E_POINTER) at its first line and at its end, nobody catches it, and the process ends. That is required.
class Logger : public Singleton<Logger>
{
public:
    Logger();
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // The process's logger; null in the instant in which another thread is still making it.
    [[nodiscard]] static std::shared_ptr<Logger> Instance();

    // Stamps and queues a message if its level passes. An empty text is dropped. `source` must be below
    // Log::SourceCount for its level to mean anything; a value out of range is told to the file logger on delivery.
    void Write(std::uint16_t source, std::uint16_t level, std::wstring_view text) EXCLUDES(queueLock);
    void WriteDefault(std::uint16_t level, std::wstring_view text) EXCLUDES(queueLock);

    // Whether Write would keep a line of this source and level. Before the first line, when the levels are not read
    // yet, every line is wanted.
    [[nodiscard]] bool Wants(std::uint16_t source, std::uint16_t level) const noexcept;

    // Starts the logger thread if it is not running. False if that failed; the next message tries again.
    bool Initialize() EXCLUDES(queueLock);
    // Delivers what is queued and ends the thread. Harmless when it is not running.
    void Stop() EXCLUDES(queueLock);

    void SetDefaultSource(std::uint16_t source) noexcept { defaultSource.store(source, std::memory_order_relaxed); }
    // "<executable> -> <module> Logger_<0..99>": tells apart two loggers of one process.
    [[nodiscard]] const std::wstring& Identity() const noexcept { return identity; }

private:
    void LoggerThread();
    void RunLoop();
    void InitializeLogManager();
    void RefreshLevels(std::uint16_t& levelCopy);
    void Deliver(const TraceLine& line);
    [[nodiscard]] bool Passes(std::uint16_t source, std::uint16_t level) const noexcept;

    ITraceLogManagerPtr manager; // touched by the logger thread only
    std::atomic<bool> initialized{false};
    std::atomic<bool> stop{false};
    std::atomic<std::uint16_t> globalLevel{4};
    std::array<std::atomic<std::uint16_t>, Log::SourceCount> sourceLevels{};
    std::int64_t lastRefresh = 0; // steady nanoseconds
    PlainMutex queueLock;
    std::deque<TraceLine> queue GUARDED_BY(queueLock);
    ConditionVariable wakeUp;
    bool asleep GUARDED_BY(queueLock) = false; // the thread waits and nobody has signalled it yet
    std::thread thread;
    std::atomic<std::uint16_t> defaultSource{static_cast<std::uint16_t>(Log::Source::General)};
    std::wstring identity;
};
