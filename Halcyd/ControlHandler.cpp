// What the service control manager tells the service: stop, power, session changes.

#include "Halcyd/ServiceModule.h"

#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
// The client application waits for this value; a reader re-arms it himself. It stays in the registry.
constexpr wchar_t NotifyKey[] = L"Software\\QRLS\\Sorvane\\Notify";
constexpr wchar_t NotificationValue[] = L"Notification";
constexpr std::uint32_t ConsoleDisconnected = 100;

std::uint32_t Code(HRESULT result) noexcept
{
    return static_cast<std::uint32_t>(result);
}
} // namespace

unsigned long WINAPI CServiceModule::_HandlerEx(DWORD dwControl, DWORD dwEventType, LPVOID /*lpEventData*/,
                                                LPVOID /*lpContext*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    switch (dwControl)
    {
    case SERVICE_CONTROL_DEVICEEVENT:
        LogMessageDefault(4, L"*** service control device event");
        _Module.Handler(dwControl);
        break;
    case SERVICE_CONTROL_POWEREVENT:
        _Module.HandlePowerEvent(dwEventType);
        break;
    case SERVICE_CONTROL_SESSIONCHANGE:
        _Module.HandleSessionChange(dwEventType);
        break;
    default:
        _Module.Handler(dwControl);
        break;
    }
    return 0;
}

// Only the stop does anything, and that is required: an interrogation is answered by the manager from what it knows,
// and a shutdown is never sent to a service that does not ask for it.
void CServiceModule::Handler(DWORD dwOpcode)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    switch (dwOpcode)
    {
    case SERVICE_CONTROL_STOP:
        Stop();
        break;
    case SERVICE_CONTROL_PAUSE:
        LogMessage(Log::Source::ConfigServer, 6, L"got the service control pause control");
        break;
    case SERVICE_CONTROL_CONTINUE:
        LogMessage(Log::Source::ConfigServer, 6, L"got the service control continue control");
        break;
    case SERVICE_CONTROL_INTERROGATE:
        LogMessage(Log::Source::ConfigServer, 6, L"got the service control interrogate control");
        break;
    case SERVICE_CONTROL_SHUTDOWN:
        LogMessage(Log::Source::ConfigServer, 6, L"got the service control shutdown control");
        break;
    case SERVICE_CONTROL_DEVICEEVENT:
        LogMessage(Log::Source::ConfigServer, 6, L"service control device event");
        break;
    default:
        LogFormatDefault(4, L"Unknown service request (Opcode = {:#08x})", dwOpcode);
        break;
    }
}

// The monitor is closed first, while clients still reach their objects; Run goes on only then.
void CServiceModule::Stop()
{
    SetServiceStatus(SERVICE_STOP_PENDING);
    LogMessageDefault(4, L"SERVICE_CONTROL_STOP received");

    INetMonSvPtr monitor;
    const HRESULT created = ActivateMonitor(monitor);
    if (FAILED(created))
    {
        LogError(Code(created), L"could not get netmon object during service stop command");
    }
    else
    {
        LogMessageDefault(4, L"closing netmon because stop message was sent to halcyd");
        monitor->Close();
        monitor = nullptr;
    }

    LogMessageDefault(4, L"setting stop event");
    m_stopEvent.Set();
}

void CServiceModule::HandlePowerEvent(DWORD eventType)
{
    const auto event = DescribePowerEvent(eventType);
    if (!event)
    {
        return;
    }
    LogMessageDefault(4, event->text);
    switch (event->action)
    {
    case PowerAction::ResetWiFiList:
        ResetWiFiListForSuspend();
        break;
    case PowerAction::ReadPowerStatus:
        TracePowerStatus();
        break;
    case PowerAction::None:
        break;
    }
}

void CServiceModule::ResetWiFiListForSuspend()
{
    INetMonSvPtr monitor;
    const HRESULT created = ActivateMonitor(monitor);
    if (FAILED(created))
    {
        // The text names the wrong direction; trace readers look for it as it is.
        LogError(Code(created), L"resuming from suspend, could not create com object");
        return;
    }
    LogMessageDefault(4, L"entering suspend need to reset Wi-Fi list");
    monitor->ResetSsidList();
}

void CServiceModule::TracePowerStatus()
{
    SYSTEM_POWER_STATUS status{};
    if (!GetSystemPowerStatus(&status))
    {
        LogError(GetLastError(), L"Could not get system power status");
        return;
    }
    for (const std::wstring& line : DescribePowerStatus(status.ACLineStatus, status.BatteryFlag))
    {
        LogMessageDefault(4, line);
    }
}

void CServiceModule::HandleSessionChange(DWORD eventType)
{
    const auto event = DescribeSessionEvent(eventType);
    if (!event)
    {
        return;
    }
    LogMessageDefault(4, event->text);
    // With the flag still set the console session went to a remote one, or came back from it: the client must not
    // react.
    if (event->consoleDisconnect && !m_remoteSession)
    {
        NotifyConsoleDisconnect();
    }
    m_remoteSession = event->remoteAfterwards;
}

void CServiceModule::NotifyConsoleDisconnect()
{
    RegistryKey key; // the key belongs to the client application and is not made here
    DWORD result = key.Open(HKEY_LOCAL_MACHINE, NotifyKey, KEY_WRITE);
    if (result != ERROR_SUCCESS)
    {
        LogError(result, L"could not open Notification registry subkey");
        return;
    }
    result = key.WriteDword(NotificationValue, ConsoleDisconnected);
    if (result != ERROR_SUCCESS)
    {
        LogError(result, L"could not set Notification value");
    }
    key.Close();
}
