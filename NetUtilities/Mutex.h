#pragma once
// The mutex types of the process and their scoped locks. All carry lock annotations for clang.
//
// Lock order. A mutex that takes part in the order is made with its rank; in debug builds every lock of such a
// mutex checks the ranks that the thread holds already and ends the process if the order is broken. Release
// builds check nothing.

#include <windows.h>

#include <atomic>
#include <cstdint>

#include "NetUtilities/ThreadSafety.h"

// Place of a mutex in the lock order; a thread takes them in rising order only. WmiEventQueue stands alone:
// nothing ranked is held when it is taken, and nothing ranked is taken under it.
enum class LockRank
{
    Unranked = 0,
    SerializeOpenClose = 1,
    DeviceInfoList = 2,
    WiFiRefresh = 3,
    WmiEventQueue = 100,
};

namespace LockOrder
{
#ifndef NDEBUG
inline constexpr bool Checked = true;
#else
inline constexpr bool Checked = false;
#endif

// True if a thread that holds a lock of rank `held` may wait for one of rank `wanted`.
[[nodiscard]] constexpr bool MayFollow(LockRank held, LockRank wanted) noexcept
{
    if (held == LockRank::Unranked || wanted == LockRank::Unranked)
    {
        return true;
    }
    if (held == LockRank::WmiEventQueue || wanted == LockRank::WmiEventQueue)
    {
        return false;
    }
    return held < wanted;
}

// Called by the mutexes in debug builds: BeforeLock ends the process when the order is broken. A try-lock cannot
// deadlock, so it is noted as held but not checked.
void BeforeLock(LockRank wanted) noexcept;
void Locked(LockRank rank) noexcept;
void Unlocked(LockRank rank) noexcept;
} // namespace LockOrder

// An abstract lock. Implementations say whether one thread may take it twice.
class CAPABILITY("mutex") ILock
{
public:
    virtual void Lock() ACQUIRE() = 0;
    virtual void Unlock() RELEASE() = 0;
    virtual ~ILock() = default;
};

// A critical section: one thread may lock it several times and unlocks it as often.
class CAPABILITY("mutex") SimpleMutex : public ILock
{
public:
    SimpleMutex() noexcept { InitializeCriticalSection(&section); }
    ~SimpleMutex() override { DeleteCriticalSection(&section); }
    SimpleMutex(const SimpleMutex&) = delete;
    SimpleMutex& operator=(const SimpleMutex&) = delete;

    void Lock() noexcept ACQUIRE() override { EnterCriticalSection(&section); }
    [[nodiscard]] bool TryLock() noexcept TRY_ACQUIRE(true) { return TryEnterCriticalSection(&section) != FALSE; }
    void Unlock() noexcept RELEASE() override { LeaveCriticalSection(&section); }

private:
    CRITICAL_SECTION section;
};

// Holds an ILock from construction to destruction. The pointer must not be null at construction.
class SCOPED_CAPABILITY LockGuard
{
public:
    enum Ownership
    {
        Locked // by this thread already: only to be unlocked
    };

    explicit LockGuard(ILock* guarded) ACQUIRE(guarded) : lock(guarded) { lock->Lock(); }
    LockGuard(ILock* guarded, Ownership) REQUIRES(guarded) : lock(guarded) {}
    ~LockGuard() RELEASE()
    {
        if (lock != nullptr)
        {
            lock->Unlock();
        }
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    ILock* lock;
};

// A mutex that its owner may not take again: a second Lock on the owning thread raises std::system_error with
// resource_deadlock_would_occur instead of waiting for ever, and a second TryLock fails.
class CAPABILITY("mutex") PlainMutex
{
public:
    explicit PlainMutex(LockRank lockRank = LockRank::Unranked) noexcept : rank(lockRank) {}
    PlainMutex(const PlainMutex&) = delete;
    PlainMutex& operator=(const PlainMutex&) = delete;

    void Lock() ACQUIRE();
    [[nodiscard]] bool TryLock() noexcept TRY_ACQUIRE(true);
    void Unlock() noexcept RELEASE();

    // Tells the lock analysis that this thread owns the mutex (after TracedMutexTryLock). Asserted in debug builds.
    void AssertHeld() const noexcept ASSERT_CAPABILITY(this);

private:
    friend class ConditionVariable;
    SRWLOCK lock = SRWLOCK_INIT;
    std::atomic<DWORD> owner{0};
    LockRank rank;
};

// A mutex that its owner may take again; it counts how often.
class CAPABILITY("mutex") RecursiveMutex
{
public:
    static constexpr std::uint32_t MaximumOwnerCount = 0x7FFFFFFF;

    explicit RecursiveMutex(LockRank lockRank = LockRank::Unranked) noexcept : rank(lockRank) {}
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    // Raises std::system_error with resource_unavailable_try_again at MaximumOwnerCount.
    void Lock() ACQUIRE();
    // False if another thread owns the mutex, or at MaximumOwnerCount.
    [[nodiscard]] bool TryLock() noexcept TRY_ACQUIRE(true);
    void Unlock() noexcept RELEASE();
    void AssertHeld() const noexcept ASSERT_CAPABILITY(this);

protected:
    std::uint32_t ownerCount = 0; // written by the owner only

private:
    SRWLOCK lock = SRWLOCK_INIT;
    std::atomic<DWORD> owner{0};
    LockRank rank;
};

// Holds a PlainMutex or RecursiveMutex from construction to destruction, without a word in the trace.
template <class Mutex>
class SCOPED_CAPABILITY MutexLock
{
public:
    enum Ownership
    {
        Locked // by this thread already: only to be unlocked
    };

    explicit MutexLock(Mutex& guarded) ACQUIRE(guarded) : mutex(guarded) { mutex.Lock(); }
    MutexLock(Mutex& guarded, Ownership) REQUIRES(guarded) : mutex(guarded) {}
    ~MutexLock() RELEASE() { mutex.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex;
};

// Condition variable for a PlainMutex. A wait may end without a cause: test the condition in a loop.
class ConditionVariable
{
public:
    ConditionVariable() noexcept = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    // Releases the mutex, waits for a wake-up, takes the mutex again.
    void Wait(PlainMutex& mutex) noexcept REQUIRES(mutex);
    // The same with a limit in milliseconds (INFINITE for none); false once the limit has passed.
    bool WaitFor(PlainMutex& mutex, DWORD milliseconds) noexcept REQUIRES(mutex);
    void WakeOne() noexcept { WakeConditionVariable(&condition); }
    void WakeAll() noexcept { WakeAllConditionVariable(&condition); }

private:
    CONDITION_VARIABLE condition = CONDITION_VARIABLE_INIT;
};
