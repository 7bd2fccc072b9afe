#pragma once
// The one road to time: what it is, and waiting for it to pass. Unit tests put a clock of their own in place
// and let hours pass at once; the service runs on SystemClock from start to end.

#include <windows.h>

#include <cstdint>
#include <span>

class Clock
{
public:
    virtual ~Clock() = default;

    // Time since an arbitrary fixed point, never going back.
    [[nodiscard]] virtual std::int64_t SteadyNanoseconds() noexcept = 0;
    // Local wall clock time, as GetLocalTime gives it.
    virtual void LocalTime(SYSTEMTIME& time) noexcept = 0;
    // Milliseconds since the system started, as GetTickCount64 gives them.
    [[nodiscard]] virtual std::uint64_t TickCount() noexcept = 0;
    virtual void Sleep(DWORD milliseconds) noexcept = 0;
    // WaitForSingleObject's and WaitForMultipleObjects' (any of) results. The last error is the platform's.
    [[nodiscard]] virtual DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept = 0;
    [[nodiscard]] virtual DWORD WaitAny(std::span<const HANDLE> handles, DWORD milliseconds) noexcept = 0;

    // The clock in use. Any thread.
    [[nodiscard]] static Clock& Current() noexcept;

    // Puts `clock` in use and returns the one before; null brings the system's back. The caller keeps both alive.
    static Clock* Exchange(Clock* clock) noexcept;
};

// The platform's own time.
class SystemClock : public Clock
{
public:
    [[nodiscard]] std::int64_t SteadyNanoseconds() noexcept override;
    void LocalTime(SYSTEMTIME& time) noexcept override;
    [[nodiscard]] std::uint64_t TickCount() noexcept override;
    void Sleep(DWORD milliseconds) noexcept override;
    [[nodiscard]] DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override;
    [[nodiscard]] DWORD WaitAny(std::span<const HANDLE> handles, DWORD milliseconds) noexcept override;
};

// Waits on any of several handles; see Clock::WaitAny.
template <class... Handles>
[[nodiscard]] DWORD WaitForAny(DWORD milliseconds, Handles... handles) noexcept
{
    const HANDLE list[] = {handles...};
    return Clock::Current().WaitAny(list, milliseconds);
}
