#pragma once

#include <atomic>
#include <mutex>

#include "NetUtilities/Clock.h"

// Time that a test moves by hand. Steady time and ticks run on from the system's by what was added, and do not fall
// back from one test to the next, since the code under test remembers times; Sleep adds instead of sleeping; the wall
// clock stands where it was set, or is the system's. Waits on handles are the system's. In use from construction to
// destruction.
class VirtualClock : public SystemClock
{
public:
    VirtualClock() : previous(Clock::Exchange(this)) {}
    ~VirtualClock() override { Clock::Exchange(previous); }
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    void AdvanceMilliseconds(std::int64_t milliseconds) { added += milliseconds * 1'000'000; }
    void AdvanceSeconds(std::int64_t seconds) { AdvanceMilliseconds(seconds * 1000); }
    void AdvanceNanoseconds(std::int64_t nanoseconds) { added += nanoseconds; }
    // Stops steady time at this value for the rest of the clock's life; Advance still adds to it.
    void FreezeSteady(std::int64_t nanoseconds)
    {
        frozenAt = nanoseconds - added;
        frozen = true;
    }
    void SetLocalTime(const SYSTEMTIME& time)
    {
        const std::lock_guard guard(lock);
        wallClock = time;
        wallClockSet = true;
    }
    // How long was slept in all.
    [[nodiscard]] std::int64_t SleptMilliseconds() const { return slept; }

    [[nodiscard]] std::int64_t SteadyNanoseconds() noexcept override
    {
        return (frozen ? frozenAt.load() : SystemClock::SteadyNanoseconds()) + added;
    }
    [[nodiscard]] std::uint64_t TickCount() noexcept override
    {
        return SystemClock::TickCount() + static_cast<std::uint64_t>(added / 1'000'000);
    }
    void LocalTime(SYSTEMTIME& time) noexcept override
    {
        const std::lock_guard guard(lock);
        if (wallClockSet)
        {
            time = wallClock;
        }
        else
        {
            SystemClock::LocalTime(time);
        }
    }
    void Sleep(DWORD milliseconds) noexcept override
    {
        slept += milliseconds;
        AdvanceMilliseconds(milliseconds);
    }

private:
    Clock* previous;
    static inline std::atomic<std::int64_t> added{0};
    std::atomic<std::int64_t> slept{0};
    std::atomic<std::int64_t> frozenAt{0};
    std::atomic<bool> frozen{false};
    std::mutex lock;
    SYSTEMTIME wallClock{};
    bool wallClockSet = false;
};
