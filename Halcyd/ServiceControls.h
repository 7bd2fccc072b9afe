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

// The trace lines of a power status. "Critical" is told for a battery flag of exactly 4 and off the line only; 12,
// which is critical and charging, is not told. That is required.
[[nodiscard]] std::vector<std::wstring> DescribePowerStatus(BYTE acLineStatus, BYTE batteryFlag);

struct SessionEvent
{
    std::wstring_view text;
    bool remoteAfterwards;  // the remote session flag once the event is handled
    bool consoleDisconnect; // tell the client application, unless the flag was set before
};

// The trace text and effect of a WTS_ value; nothing for one that is not known. Both remote changes set the flag, the
// disconnect too: it is about the kind of the latest change and tells nothing of who is connected. That is required.
[[nodiscard]] std::optional<SessionEvent> DescribeSessionEvent(DWORD eventType) noexcept;
