// The lab's share in the service's process, taken away and given back: which DLLs Windows gives it is decided at each
// start of the service. Without the lab the platform's own DLLs are loaded, and there is no network configuration
// engine (Wine's cannot be shared between threads), so that a start finds nothing to restore.
#pragma once

#include <string>
#include <vector>

class LabSwitch
{
public:
    // Remembers how the lab is registered.
    LabSwitch();
    ~LabSwitch() { On(); }
    LabSwitch(const LabSwitch&) = delete;
    LabSwitch& operator=(const LabSwitch&) = delete;

    // Both hold for the next start. Calling one twice is harmless.
    void Off();
    void On();

private:
    std::vector<std::wstring> m_shims;
    std::wstring m_engine;
};
