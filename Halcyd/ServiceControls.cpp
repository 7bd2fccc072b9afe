#include "Halcyd/ServiceControls.h"

#include <wtsapi32.h>

#include "NetUtilities/Trace.h"

namespace
{
// Power events that the platform's headers know under older names only.
constexpr DWORD QuerySuspend = 0;
constexpr DWORD QuerySuspendFailed = 2;

constexpr BYTE BatteryCritical = 4;
} // namespace

std::optional<PowerEvent> DescribePowerEvent(DWORD eventType) noexcept
{
    switch (eventType)
    {
    case QuerySuspend:
        return PowerEvent{L"Request for permission to suspend.", PowerAction::None};
    case QuerySuspendFailed:
        return PowerEvent{L"Suspension request denied.", PowerAction::None};
    case PBT_APMSUSPEND:
        return PowerEvent{L"#### ENTER SUSPEND POWER MODE ####", PowerAction::ResetWiFiList};
    case PBT_APMRESUMECRITICAL:
        return PowerEvent{L"Operation resuming after critical suspension.", PowerAction::None};
    case PBT_APMRESUMESUSPEND:
        return PowerEvent{L"Operation resuming after suspension.", PowerAction::None};
    case PBT_APMBATTERYLOW:
        return PowerEvent{L"Battery power is low.", PowerAction::None};
    case PBT_APMPOWERSTATUSCHANGE:
        return PowerEvent{L"Power status has changed.", PowerAction::ReadPowerStatus};
    case PBT_APMOEMEVENT:
        return PowerEvent{L"OEM-defined event occurred.", PowerAction::None};
    case PBT_APMRESUMEAUTOMATIC:
        return PowerEvent{L"#### RESUME, EXIT SUSPEND POWER MODE ####", PowerAction::None};
    default:
        return std::nullopt;
    }
}

std::vector<std::wstring> DescribePowerStatus(BYTE acLineStatus, BYTE batteryFlag)
{
    const unsigned line = acLineStatus;
    const unsigned battery = batteryFlag;
    switch (acLineStatus)
    {
    case 0:
    {
        std::vector<std::wstring> lines{TraceFormat(0, L"AC offline, Battery status {:#x}", battery)};
        if (batteryFlag == BatteryCritical)
        {
            lines.emplace_back(L"#### BATTERY LEVEL CRITICAL, ENTERING SUSPEND POWER MODE ####");
        }
        return lines;
    }
    case 1:
        return {L"AC on-line"};
    default:
        return {TraceFormat(0, L"#### Unknown ACLineStatus {}, battery flag = {:#x}", line, battery)};
    }
}

std::optional<SessionEvent> DescribeSessionEvent(DWORD eventType) noexcept
{
    switch (eventType)
    {
    case WTS_CONSOLE_CONNECT:
        return SessionEvent{L"WTS_CONSOLE_CONNECT event received", false, false};
    case WTS_CONSOLE_DISCONNECT:
        return SessionEvent{L"WTS_CONSOLE_DISCONNECT event received", false, true};
    case WTS_REMOTE_CONNECT:
        return SessionEvent{L"WTS_REMOTE_CONNECT event received", true, false};
    case WTS_REMOTE_DISCONNECT:
        return SessionEvent{L"WTS_REMOTE_DISCONNECT event received", true, false};
    case WTS_SESSION_LOGON:
        return SessionEvent{L"WTS_SESSION_LOGON event received", false, false};
    case WTS_SESSION_LOGOFF:
        return SessionEvent{L"WTS_SESSION_LOGOFF event received", false, false};
    case WTS_SESSION_LOCK:
        return SessionEvent{L"WTS_SESSION_LOCK event received", false, false};
    case WTS_SESSION_UNLOCK:
        return SessionEvent{L"WTS_SESSION_UNLOCK event received", false, false};
    case WTS_SESSION_REMOTE_CONTROL:
        return SessionEvent{L"WTS_REMOTE_CONTROL event received", false, false};
    default:
        return std::nullopt;
    }
}
