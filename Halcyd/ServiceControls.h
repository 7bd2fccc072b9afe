#pragma once
// What the control handler makes of power and session events: decisions only, no platform calls.

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class PowerAction
{
    None,
    ResetWiFiList,   // the machine goes to sleep
    ReadPowerStatus, // line or battery changed
};

struct PowerEvent
{
    std::wstring_view text;
    PowerAction action;
};

// The trace text and action of a PBT_ value; nothing for one that is not known.
[[nodiscard]] std::optional<PowerEvent> DescribePowerEvent(DWORD eventType) noexcept;

// The trace lines of a power status. "Critical" is told only for the critical flag alone, off the line: a critical flag
// with another bit (charging, for instance) does not count. That is required.
[[nodiscard]] std::vector<std::wstring> DescribePowerStatus(BYTE acLineStatus, BYTE batteryFlag);

struct SessionEvent
{
    std::wstring_view text;
    bool remoteAfterwards;  // the remote session flag once the event is handled
    bool consoleDisconnect; // tell the client application, unless the flag was set before
};

// The trace text and effect of a WTS_ value; nothing for one that is not known. The flag means that the last change was
// a remote one, not that somebody is connected: a remote disconnect sets it just as a remote connect does. That is
// required.
[[nodiscard]] std::optional<SessionEvent> DescribeSessionEvent(DWORD eventType) noexcept;
