#pragma once

#include <windows.h>

#include <cstdint>

#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"

// A live debug switch: the DWORD "debug2" of the product's machine key, watched through the named event
// "RegistryWatcher". Nothing in the system reads the switch; it is kept up to date all the same.
class RegistryWatcher
{
public:
    RegistryWatcher() = default;
    RegistryWatcher(const RegistryWatcher&) = delete;
    RegistryWatcher& operator=(const RegistryWatcher&) = delete;

    // Opens the key (query and notify only); if that works, makes the event and reads the switch.
    void Start();
    // Takes a change in, if one was signalled since the last call. Does not wait.
    void Poll();
    // Closes the key and the event.
    void Stop() noexcept;

    [[nodiscard]] bool Enabled() const noexcept { return enabled; }
    [[nodiscard]] HANDLE EventHandle() const noexcept { return changed.get(); }

private:
    void ReadSwitch();

    RegistryKey key;
    UniqueHandle changed;
    bool enabled = false;
};
