#pragma once

#include <windows.h>
#include <comdef.h>

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"
#include "Halcyd/ServiceControls.h"
#include "NetUtilities/Event.h"

_COM_SMARTPTR_TYPEDEF(INetMonSv, __uuidof(INetMonSv));

// The AppID under which the six classes are registered, and the one value below it that makes the process a service.
inline constexpr wchar_t AppIdGuid[] = L"{5FC2628B-D382-48C0-8B04-3A80AC9CF8AB}";

// The process as a whole, in its three roles: registrar, Windows service, plain COM server.
//
// Life: the global _Module, from static construction to process end. wWinMain calls Init, then either one of the
// registration operations or Start, then Term. The members are plain: each is written before the control handler is
// registered, or by the one thread that owns the phase. The stop event is the only hand-over between threads.
class CServiceModule : public CComModule
{
public:
    // Main thread. Stores map and library, loads both names from the string resources, sets up the status.
    void Init(CComObjectMapEntry* objectMap, HINSTANCE instance, UINT serviceNameId, const GUID* libraryId);
    // Main thread. Blocks in the dispatcher for the life of the service, or runs the plain server; returns at its end.
    void Start();

    // The dispatcher's service thread.
    static void WINAPI _ServiceMain(DWORD argc, LPWSTR* argv);
    void ServiceMain(DWORD argc, LPWSTR* argv);
    // The sequence between start and stop. Service thread, or the main thread of a plain server.
    void Run();

    // The dispatcher's control thread, one control at a time. Always 0.
    static unsigned long WINAPI _HandlerEx(DWORD dwControl, DWORD dwEventType, LPVOID lpEventData, LPVOID lpContext);
    void Handler(DWORD dwOpcode);

    // Any thread. In a plain server the count's way to 0 ends the process; a service outlives its clients.
    LONG Unlock() noexcept override;

    // Reports a state to the service control manager. The platform's result is not looked at.
    void SetServiceStatus(DWORD state);

    // Registration: main thread of a process that does nothing else. An HRESULT, or in two cases a plain registry
    // error.
    long RegisterServer(int bRegTypeLib, int bService);
    long UnregisterServer(); // always S_OK
    // TRUE or FALSE.
    int Install();
    int Uninstall();
    int IsInstalled();

    // True for a service, false for a plain server.
    BOOL m_bService = FALSE;
    SERVICE_STATUS m_status{};

private:
    // Reaches the one monitor as a COM client of this very process; it is made if nobody has made it yet.
    static HRESULT ActivateMonitor(INetMonSvPtr& monitor);

    void RestoreBindingsAtStart();
    void CleanUpVnicState();

    void Stop();
    void HandlePowerEvent(DWORD eventType);
    void HandleSessionChange(DWORD eventType);
    static void ResetWiFiListForSuspend();
    static void TracePowerStatus();
    static void NotifyConsoleDisconnect();

    Event m_stopEvent; // manual reset; signalled by the stop control, and by Unlock when not a service
    wchar_t m_szServiceName[256]{};
    wchar_t m_szDisplayName[256]{};
    SERVICE_STATUS_HANDLE m_serviceStatusHandle = nullptr;
    DWORD m_serviceThreadId = 0;
    bool m_remoteSession = false; // the control thread's alone
};

extern CServiceModule _Module;

// The six classes, in the order in which their class objects are registered and revoked.
extern CComObjectMapEntry ObjectMap[];
