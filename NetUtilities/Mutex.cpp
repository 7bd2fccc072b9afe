#include "NetUtilities/Mutex.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <vector>

namespace LockOrder
{
namespace
{
std::vector<LockRank>& HeldByThisThread() noexcept
{
    thread_local std::vector<LockRank> held;
    return held;
}
} // namespace

void BeforeLock(LockRank wanted) noexcept
{
    for (const LockRank held : HeldByThisThread())
    {
        if (!MayFollow(held, wanted))
        {
            (void)std::fprintf(stderr, "lock order broken: rank %d wanted while rank %d is held\n",
                               static_cast<int>(wanted), static_cast<int>(held));
            std::abort();
        }
    }
}

void Locked(LockRank rank) noexcept
{
    if (rank != LockRank::Unranked)
    {
        HeldByThisThread().push_back(rank);
    }
}

void Unlocked(LockRank rank) noexcept
{
    if (rank != LockRank::Unranked)
    {
        auto& held = HeldByThisThread();
        const auto newest = std::find(held.rbegin(), held.rend(), rank);
        if (newest != held.rend())
        {
            held.erase(std::next(newest).base());
        }
    }
}
} // namespace LockOrder

namespace
{
// A broken promise to the lock analysis: only debug builds look.
[[noreturn, maybe_unused]] void NotHeld() noexcept
{
    (void)std::fputs("a mutex is not held by the thread that says so\n", stderr);
    std::abort();
}
} // namespace

void PlainMutex::Lock()
{
    const DWORD self = GetCurrentThreadId();
    if (owner.load(std::memory_order_relaxed) == self)
    {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    if constexpr (LockOrder::Checked)
    {
        LockOrder::BeforeLock(rank);
    }
    AcquireSRWLockExclusive(&lock);
    owner.store(self, std::memory_order_relaxed);
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Locked(rank);
    }
}

bool PlainMutex::TryLock() noexcept
{
    if (TryAcquireSRWLockExclusive(&lock) == FALSE)
    {
        return false;
    }
    owner.store(GetCurrentThreadId(), std::memory_order_relaxed);
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Locked(rank);
    }
    return true;
}

void PlainMutex::Unlock() noexcept
{
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Unlocked(rank);
    }
    owner.store(0, std::memory_order_relaxed);
    ReleaseSRWLockExclusive(&lock);
}

void PlainMutex::AssertHeld() const noexcept
{
    if constexpr (LockOrder::Checked)
    {
        if (owner.load(std::memory_order_relaxed) != GetCurrentThreadId())
        {
            NotHeld();
        }
    }
}

void RecursiveMutex::Lock()
{
    const DWORD self = GetCurrentThreadId();
    if (owner.load(std::memory_order_relaxed) == self)
    {
        if (ownerCount == MaximumOwnerCount)
        {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        ++ownerCount;
        return;
    }
    if constexpr (LockOrder::Checked)
    {
        LockOrder::BeforeLock(rank);
    }
    AcquireSRWLockExclusive(&lock);
    owner.store(self, std::memory_order_relaxed);
    ownerCount = 1;
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Locked(rank);
    }
}

bool RecursiveMutex::TryLock() noexcept
{
    const DWORD self = GetCurrentThreadId();
    if (owner.load(std::memory_order_relaxed) == self)
    {
        if (ownerCount == MaximumOwnerCount)
        {
            return false;
        }
        ++ownerCount;
        return true;
    }
    if (TryAcquireSRWLockExclusive(&lock) == FALSE)
    {
        return false;
    }
    owner.store(self, std::memory_order_relaxed);
    ownerCount = 1;
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Locked(rank);
    }
    return true;
}

void RecursiveMutex::Unlock() noexcept
{
    if (--ownerCount != 0)
    {
        return;
    }
    if constexpr (LockOrder::Checked)
    {
        LockOrder::Unlocked(rank);
    }
    owner.store(0, std::memory_order_relaxed);
    ReleaseSRWLockExclusive(&lock);
}

void RecursiveMutex::AssertHeld() const noexcept
{
    if constexpr (LockOrder::Checked)
    {
        if (owner.load(std::memory_order_relaxed) != GetCurrentThreadId())
        {
            NotHeld();
        }
    }
}

void ConditionVariable::Wait(PlainMutex& mutex) noexcept
{
    WaitFor(mutex, INFINITE);
}

bool ConditionVariable::WaitFor(PlainMutex& mutex, DWORD milliseconds) noexcept
{
    // The owner mark goes away for as long as the platform holds the lock released.
    mutex.owner.store(0, std::memory_order_relaxed);
    const bool woken = SleepConditionVariableSRW(&condition, &mutex.lock, milliseconds, 0) != FALSE;
    mutex.owner.store(GetCurrentThreadId(), std::memory_order_relaxed);
    return woken;
}
