#include "Halcyd/ServiceModule.h"

#include <atomic>
#include <string_view>

#include "Halcyd/ResourceIds.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/CrashGuard.h"
#include "NetUtilities/Logger.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Singleton.h"
#include "NetUtilities/Trace.h"
#include "Tunvex/vpnlib/vpnlib.h"

namespace
{
_COM_SMARTPTR_TYPEDEF(IUnknown, __uuidof(IUnknown));

constexpr DWORD LoggerDrainTime = 100; // milliseconds that let the logger thread deliver what is queued

// Set while the dispatcher's thread is inside _ServiceMain.
std::atomic<bool> serviceMainRunning{false};

class ServiceMainMark
{
public:
    ServiceMainMark() noexcept { serviceMainRunning = true; }
    ~ServiceMainMark()
    {
        serviceMainRunning = false;
        serviceMainRunning.notify_all();
    }
    ServiceMainMark(const ServiceMainMark&) = delete;
    ServiceMainMark& operator=(const ServiceMainMark&) = delete;
};

std::uint32_t Code(HRESULT result) noexcept
{
    return static_cast<std::uint32_t>(result);
}
} // namespace

void CServiceModule::Init(CComObjectMapEntry* objectMap, HINSTANCE instance, UINT serviceNameId, const GUID* libraryId)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    CComModule::Init(objectMap, instance, libraryId);

    m_bService = TRUE;
    LogFormatDefault(4, L"m_bService = {}", m_bService);
    LoadStringW(instance, serviceNameId, m_szServiceName, ARRAYSIZE(m_szServiceName));
    LogFormatDefault(4, L"m_szServiceName = {}", std::wstring_view(m_szServiceName));
    LoadStringW(instance, IDS_DISPLAYNAME, m_szDisplayName, ARRAYSIZE(m_szDisplayName));
    LogFormatDefault(4, L"m_szDisplayName = {}", std::wstring_view(m_szDisplayName));

    m_serviceStatusHandle = nullptr;
    m_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    m_status.dwCurrentState = SERVICE_STOPPED;
    // Stop, power events, session changes and nothing else: no sequence exists for shutdown, pause and continue.
    m_status.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_POWEREVENT | SERVICE_ACCEPT_SESSIONCHANGE;
    m_status.dwWin32ExitCode = 0;
    m_status.dwServiceSpecificExitCode = 0;
    m_status.dwCheckPoint = 0;
    m_status.dwWaitHint = 0;
    LogMessageDefault(4, L"Setup the control codes the service accepts and processes in its handler function");
}

void CServiceModule::Start()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    LogFormatDefault(4, L"service flag is {}", m_bService ? L"True" : L"False");

    const SERVICE_TABLE_ENTRYW dispatchTable[] = {{m_szServiceName, _ServiceMain}, {nullptr, nullptr}};
    if (m_bService)
    {
        LogMessageDefault(5, L"calling StartServiceCtrlDispatcher()");
        const BOOL bResult = StartServiceCtrlDispatcherW(dispatchTable);
        const DWORD error = GetLastError();
        // The dispatcher comes back as soon as the stopped state is reported, while the service thread still takes the
        // trace down. Nothing of the module may be taken away under it.
        serviceMainRunning.wait(true);
        LogFormatDefault(5, L"StartServiceCtrlDispatcher returned {}", bResult);
        if (bResult)
        {
            LogMessageDefault(
                4, L"StartServiceCtrlDispatcher connected the main thread of the this service process to the SCM");
        }
        else
        {
            LogError(error, L"StartServiceCtrlDispatcher failed to connect main thread to the SCM");
            LogMessageDefault(4, L"bResult is 0 - setting m_bService to FALSE");
            m_bService = FALSE;
        }
    }
    if (!m_bService)
    {
        LogMessageDefault(4, L"not running as a service");
        Run();
    }
}

// The thread makes no apartment of its own: it works in the multithreaded one that the main thread holds open.
void WINAPI CServiceModule::_ServiceMain(DWORD argc, LPWSTR* argv)
{
    const ServiceMainMark running;
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    const CrashGuard crashGuard;
    SetDefaultLogSource(Log::Source::ConfigServer);
    LogBanner(4, L"Service Halcyd Starting");
    _Module.ServiceMain(argc, argv);
    LogBanner(4, L"Service Halcyd Stopped");
    Clock::Current().Sleep(LoggerDrainTime);
    if (const auto logger = Logger::Instance())
    {
        logger->Stop();
    }
    DestroyAllSingletons();
}

void CServiceModule::ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    m_status.dwCurrentState = SERVICE_START_PENDING;
    m_serviceStatusHandle = RegisterServiceCtrlHandlerExW(m_szServiceName, _HandlerEx, nullptr);
    if (m_serviceStatusHandle == nullptr)
    {
        LogError(GetLastError(), L"Handler not installed");
        return;
    }
    LogMessageDefault(4, L"setting the service status to start pending");
    SetServiceStatus(SERVICE_START_PENDING);

    m_status.dwWin32ExitCode = 0;
    m_status.dwCheckPoint = 0;
    m_status.dwWaitHint = 0;

    LogMessageDefault(4, L"calling Run() from ServiceMain()");
    Run();

    LogMessageDefault(4, L"setting the service status stopped");
    SetServiceStatus(SERVICE_STOPPED);
}

void CServiceModule::Run()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    m_serviceThreadId = GetCurrentThreadId();
    LogFormatDefault(4, L"service running on thread {:#08x}", m_serviceThreadId);

    m_stopEvent.Create(true, false);
    LogFormatDefault(4, L"created service stop event {:#08x}", reinterpret_cast<std::uintptr_t>(m_stopEvent.Handle()));

    const HRESULT registered =
        RegisterClassObjects(CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER, REGCLS_MULTIPLEUSE | REGCLS_SUSPENDED);
    LogFormatDefault(4, L"registered all the COM class objects housed in the service (rc = {:#08x})", Code(registered));

    // From here on clients reach the objects, while a service still reports that it is starting.
    const HRESULT resumed = ResumeClassObjects();
    if (FAILED(resumed))
    {
        LogError(Code(resumed), L"Error resume COM objects housed in the service");
    }
    else
    {
        LogMessageDefault(4, L"resume COM objects housed in the service");
    }

    LogMessageDefault(4, L"starting server");
    if (!m_bService)
    {
        LogMessageDefault(4, L"not running as a service");
    }
    else
    {
        LogMessageDefault(4, L"running as a service");
        RestoreBindingsAtStart();
        LogMessageDefault(4, L"set the halcyd service state to running");
        SetServiceStatus(SERVICE_RUNNING);
        CleanUpVnicState();
    }

    if (m_stopEvent)
    {
        LogMessageDefault(4, L"waiting indefinitely for the service stop event");
        m_stopEvent.Wait(INFINITE);
        LogMessageDefault(4, L"service stop event was received");
        m_stopEvent.Close();
    }

    const HRESULT suspended = SuspendClassObjects();
    if (FAILED(suspended))
    {
        LogError(Code(suspended), L"CoSuspendClassObjects Failed!");
    }
    RevokeClassObjects();
    LogBanner(4, L"Stopping Halcyd Service");
    Clock::Current().Sleep(LoggerDrainTime);
}

// Heals what a crashed run left disabled. The line about a configuration names no condition: nothing is read.
void CServiceModule::RestoreBindingsAtStart()
{
    LogMessageDefault(4, L"the halcyd service is configured to restore the IP bindings on startup using netmon");
    INetMonSvPtr monitor;
    const HRESULT created = ActivateMonitor(monitor);
    LogFormatDefault(4, L"created instance of the netmon object (rc = {:#08x})", Code(created));
    if (FAILED(created))
    {
        LogError(Code(created), L"could not get netmon object during service startup");
        return;
    }
    LogMessageDefault(4, L"restoring IP bindings on service startup (synchronously)");
    monitor->RestoreIpBindingsSync();
    // The factory keeps the one monitor, so this does not end it.
    LogMessageDefault(4, L"releasing NetMonSv object");
    monitor = nullptr;
}

void CServiceModule::CleanUpVnicState()
{
    LogMessageDefault(4, L"Clean up the VNIC state if necessary");
    // A missing tunnel component is no error, so the key reports none.
    RegistryKey key(false);
    DWORD dwResult = key.Open(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane\\Tunvex", KEY_READ);
    if (dwResult != ERROR_SUCCESS)
    {
        LogFormatDefault(4, L"could not open VNIC state registry subkey, maybe VPN not installed (dwResult = {:#08x})",
                         dwResult);
    }
    else
    {
        std::uint32_t vnicState = 0;
        dwResult = key.ReadDword(L"VnicState", vnicState, 0);
        if (dwResult != ERROR_SUCCESS)
        {
            LogFormatDefault(4, L"could not read VnicState value (dwResult = {:#08x})", dwResult);
        }
        else
        {
            // The value is told and not tested: the reset is asked for whatever it is, zero included. That is required.
            LogFormatDefault(4, L"Attempting to reset VNIC adapter.  Current registry state is {}", vnicState);
            VPNResetVnicAsynch();
        }
    }
    LogMessageDefault(4, L"completed steps to clean up the VNIC state");
}

HRESULT CServiceModule::ActivateMonitor(INetMonSvPtr& monitor)
{
    monitor = nullptr;
    IUnknownPtr unknown;
    HRESULT result = CoCreateInstance(CLSID_NetMonSv, nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                                      reinterpret_cast<void**>(&unknown));
    if (FAILED(result))
    {
        return result;
    }
    result = OleRun(unknown);
    if (FAILED(result))
    {
        return result;
    }
    return unknown->QueryInterface(__uuidof(INetMonSv), reinterpret_cast<void**>(&monitor));
}

LONG CServiceModule::Unlock() noexcept
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    const LONG count = CComModule::Unlock();
    if (count == 0 && !m_bService)
    {
        LogMessageDefault(4, L"the lock count is 0 and this is not a service so set the event to exit");
        m_stopEvent.Set();
    }
    return count;
}

void CServiceModule::SetServiceStatus(DWORD state)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    m_status.dwCurrentState = state;
    ::SetServiceStatus(m_serviceStatusHandle, &m_status);
    LogFormatDefault(5, L"set the service '{:#0x}' to '{}'", reinterpret_cast<std::uintptr_t>(m_serviceStatusHandle),
                     state);
}
