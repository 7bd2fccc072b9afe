#pragma once
// Notices the end of client processes. A client that is killed cannot release its object; COM finds out by itself only
// after minutes, or never. An object reports the process that first called it, and when that process ends the object is
// disconnected, which drops the references held by it. Lines that the client delivered before are kept.

#include <windows.h>

#include <cstdint>
#include <map>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"

// An object that can be cut off from its clients.
class IWatchedObject
{
public:
    // Takes a reference unless the last one is already gone. Called under the watch's lock: must not block.
    [[nodiscard]] virtual bool TryAddRef() noexcept = 0;
    // Drops what remote clients hold, then the reference that TryAddRef took. The object may be gone afterwards.
    virtual void DisconnectAndRelease() noexcept = 0;

protected:
    ~IWatchedObject() = default;
};

// All functions are safe from any thread.
class ClientWatch
{
public:
    ClientWatch(const ClientWatch&) = delete;
    ClientWatch& operator=(const ClientWatch&) = delete;
    ~ClientWatch() = default; // no object may be watched any more

    // The process on whose behalf this thread serves a call, 0 if that is not known.
    [[nodiscard]] static DWORD CallingProcess() noexcept;

    // Watches `process` for `object`, which must call Forget with the result before it goes. 0 if the process cannot be
    // watched (no right to open it); then COM's own housekeeping has to do.
    [[nodiscard]] std::uintptr_t Watch(DWORD process, IWatchedObject* object);
    void Forget(std::uintptr_t key) noexcept;

    // Number of different processes that are watched.
    [[nodiscard]] unsigned long ProcessCount();

private:
    friend ClientWatch& TheClientWatch();
    ClientWatch() noexcept = default;

    struct Entry
    {
        DWORD process = 0;
        IWatchedObject* object = nullptr;
        UniqueHandle processHandle;
        HANDLE wait = nullptr; // unregistered by Forget
    };

    static void CALLBACK ProcessEnded(void* key, BOOLEAN timedOut);

    PlainMutex mutex;
    std::map<std::uintptr_t, Entry> entries GUARDED_BY(mutex);
    std::uintptr_t lastKey GUARDED_BY(mutex) = 0;
};

// The watch of this process.
[[nodiscard]] ClientWatch& TheClientWatch();
