#pragma once
// Scoped locks that leave a line in the trace (source 11, level 5) before they wait for their mutex and another once
// they have given it back. Who waits for whom can be read off the lines of several threads.

#include <source_location>
#include <string>
#include <string_view>

#include "NetUtilities/Mutex.h"

namespace TracedLockDetail
{
// "{}: {}" of the location's short function name and the text with the mutex's name, to the trace.
void Write(std::wstring_view format, const std::wstring& mutexName, const std::source_location& location);
void WriteLock(const std::wstring& mutexName, const std::source_location& location);
// Without memory for it the line is lost: both come when the mutex has changed hands already.
void WriteIfPossible(std::wstring_view format, const std::wstring& mutexName,
                     const std::source_location& location) noexcept;
void WriteUnlock(const std::wstring& mutexName, const std::source_location& location) noexcept;
void WriteTryLock(const std::wstring& mutexName, const std::source_location& location) noexcept;
} // namespace TracedLockDetail

// `Mutex` is PlainMutex or RecursiveMutex. Locking raises what the mutex raises.
template <class Mutex>
class SCOPED_CAPABILITY TracedMutexLock
{
public:
    TracedMutexLock(Mutex& guarded, std::wstring_view mutexName,
                    std::source_location where = std::source_location::current()) ACQUIRE(guarded)
        : mutex(&guarded), name(mutexName), location(where)
    {
        TracedLockDetail::WriteLock(name, location);
        mutex->Lock();
        owned = true;
    }
    ~TracedMutexLock() RELEASE()
    {
        if (owned)
        {
            mutex->Unlock();
            TracedLockDetail::WriteUnlock(name, location);
        }
    }
    TracedMutexLock(const TracedMutexLock&) = delete;
    TracedMutexLock& operator=(const TracedMutexLock&) = delete;

private:
    Mutex* mutex;
    std::wstring name;
    std::source_location location;
    bool owned = false;
};

// Tries once, without waiting. After a true Owned() call the mutex's AssertHeld() to tell the lock analysis.
template <class Mutex>
class TracedMutexTryLock
{
public:
    TracedMutexTryLock(Mutex& guarded, std::wstring_view mutexName,
                       std::source_location where = std::source_location::current()) NO_THREAD_SAFETY_ANALYSIS
        : mutex(&guarded),
          name(mutexName),
          location(where)
    {
        if (mutex->TryLock())
        {
            TracedLockDetail::WriteTryLock(name, location);
            owned = true;
        }
    }
    ~TracedMutexTryLock() NO_THREAD_SAFETY_ANALYSIS
    {
        if (owned)
        {
            mutex->Unlock();
            TracedLockDetail::WriteUnlock(name, location);
        }
    }
    TracedMutexTryLock(const TracedMutexTryLock&) = delete;
    TracedMutexTryLock& operator=(const TracedMutexTryLock&) = delete;

    [[nodiscard]] bool Owned() const noexcept { return owned; }
    [[nodiscard]] explicit operator bool() const noexcept { return owned; }

private:
    Mutex* mutex;
    std::wstring name;
    std::source_location location;
    bool owned = false;
};
