#pragma once
// Time that passes only when somebody sleeps, and then at once.

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "NetUtilities/Clock.h"

class SleepClock : public SystemClock
{
public:
    SleepClock() : previous(Clock::Exchange(this)) {}
    ~SleepClock() override { Clock::Exchange(previous); }

    void Sleep(DWORD milliseconds) noexcept override
    {
        std::function<void()> hook;
        {
            const std::lock_guard guard(mutex);
            sleeps.push_back(milliseconds);
            now += milliseconds;
            hook = onSleep;
        }
        if (hook)
        {
            hook();
        }
    }

    // Milliseconds slept so far.
    [[nodiscard]] std::uint64_t Now()
    {
        const std::lock_guard guard(mutex);
        return now;
    }
    [[nodiscard]] std::vector<DWORD> Sleeps()
    {
        const std::lock_guard guard(mutex);
        return sleeps;
    }
    // Called behind each sleep, without a lock.
    void OnSleep(std::function<void()> hook)
    {
        const std::lock_guard guard(mutex);
        onSleep = std::move(hook);
    }

private:
    Clock* previous;
    std::mutex mutex;
    std::vector<DWORD> sleeps;
    std::uint64_t now = 0;
    std::function<void()> onSleep;
};
