#pragma once

#include <windows.h>

#include "NetUtilities/Clock.h"
#include "NetUtilities/Handles.h"

// A nameless event object: created on request, closed with its owner. Set, Reset and Wait may be called from
// any thread while nobody creates or closes it.
class Event
{
public:
    Event() noexcept = default;
    Event(bool manualReset, bool initialState) noexcept { Create(manualReset, initialState); }

    // Makes the event; an older one is closed first. False, with the platform's last error, if that failed.
    bool Create(bool manualReset, bool initialState) noexcept
    {
        handle.reset(CreateEventW(nullptr, manualReset, initialState, nullptr));
        return static_cast<bool>(handle);
    }
    // Closes the event if there is one.
    void Close() noexcept { handle.reset(); }

    bool Set() const noexcept { return SetEvent(handle.get()) != FALSE; }
    bool Reset() const noexcept { return ResetEvent(handle.get()) != FALSE; }

    // True only if the event was signalled within `milliseconds` (INFINITE for no limit). The raw result of the
    // wait goes to `rawResult` if that is given.
    bool Wait(DWORD milliseconds, DWORD* rawResult = nullptr) const noexcept
    {
        const DWORD result = Clock::Current().Wait(handle.get(), milliseconds);
        if (rawResult != nullptr)
        {
            *rawResult = result;
        }
        return result == WAIT_OBJECT_0;
    }

    // Still owned by the event; null when there is none.
    [[nodiscard]] HANDLE Handle() const noexcept { return handle.get(); }
    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(handle); }

private:
    UniqueHandle handle;
};
