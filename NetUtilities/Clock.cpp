#include "NetUtilities/Clock.h"

#include <atomic>
#include <chrono>

namespace
{
std::atomic<Clock*> replacement{nullptr};

Clock& System() noexcept
{
    // Never destroyed: threads may still ask for the time while the process ends.
    static SystemClock& clock = *new SystemClock;
    return clock;
}
} // namespace

Clock& Clock::Current() noexcept
{
    Clock* const other = replacement.load(std::memory_order_acquire);
    return other != nullptr ? *other : System();
}

Clock* Clock::Exchange(Clock* clock) noexcept
{
    return replacement.exchange(clock, std::memory_order_acq_rel);
}

std::int64_t SystemClock::SteadyNanoseconds() noexcept
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

void SystemClock::LocalTime(SYSTEMTIME& time) noexcept
{
    GetLocalTime(&time);
}

std::uint64_t SystemClock::TickCount() noexcept
{
    return GetTickCount64();
}

void SystemClock::Sleep(DWORD milliseconds) noexcept
{
    ::Sleep(milliseconds);
}

DWORD SystemClock::Wait(HANDLE handle, DWORD milliseconds) noexcept
{
    return WaitForSingleObject(handle, milliseconds);
}

DWORD SystemClock::WaitAny(std::span<const HANDLE> handles, DWORD milliseconds) noexcept
{
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, milliseconds);
}
