// Open and Close of the monitor: what is started in which order, and taken down again.

#include "Halcyd/ClientLookup.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/ModuleDirectory.h"
#include "Halcyd/MonitorReport.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/BstrText.h"
#include "NetUtilities/TracedMutexLock.h"
#include "WiFiWrap/wifiwraplib.h"

#include <new>
#include <system_error>

namespace
{
constexpr DWORD poolStopLimit = 20000;        // milliseconds for each thread
constexpr DWORD ipChangeStopLimit = 5000;     // milliseconds
constexpr HRESULT noMemoryForSink = 14;       // a positive number, not an HRESULT: a client's success test lets it pass
constexpr std::int32_t forcedSurveysDone = 2; // no survey is forced after an Open

// A failure of Open is told to the machine's event log as well.
template <class... Args>
void ReportFailure(HRESULT result, std::wstring_view format, const Args&... arguments)
{
    ReportMonitorEvent(2, TraceFormat(static_cast<std::uint32_t>(result), format, arguments...));
}
} // namespace

STDMETHODIMP CNetMonSv::Open() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            TracedMutexLock lock(serializeOpenCloseMutex, L"serializeOpenCloseMutex", here);
            return OpenLocked();
        });
}

// Each failure returns at once and undoes nothing: the monitor then counts as open, and Close takes down what there is.
HRESULT CNetMonSv::OpenLocked()
{
    closingFlag = false;
    closedFlag = false;
    MonitorTrace::Note(L"Working from {}", GetModuleDirectory());
    RefreshClientToken();
    if (openReferenceCount != 0)
    {
        MonitorTrace::Note(L"object is already open");
        MonitorTrace::Note(L"version 6.7 uses singleton so this is okay");
        ++openReferenceCount;
        MonitorTrace::Note(L"incremented reference counter to {}", openReferenceCount);
        return S_OK;
    }
    ++openReferenceCount;
    MonitorTrace::Note(L"incremented reference counter to {}", openReferenceCount);
    {
        MutexLock refresh(wifiRefreshMutex);
        forcedSurveyCount = forcedSurveysDone;
        lastForcedSurvey = 0;
    }
    wmiCleanupEvent.Reset();
    sdkSwitchEvent.Reset();
    threadPool.Start();
    {
        MutexLock flags(ipChangeMutex);
        ipChangePending = false;
        ipChangeQueued = false;
    }
    if (const HRESULT result = StartIpChangeQueue(); FAILED(result))
    {
        return result;
    }
    if (timerQueue.load() != nullptr)
    {
        MonitorTrace::Doubt(L"something is wrong, there is already a timer queue in the netmonsv singleton '{}'",
                            MonitorTrace::Address(timerQueue));
    }
    else
    {
        timerQueue = CreateTimerQueue(); // without one there are no Wi-Fi timers, and that is all
        MonitorTrace::Note(L"created a timer queue '{}'", MonitorTrace::Address(timerQueue));
    }
    if (const HRESULT result = CreateDeviceInfoList(); FAILED(result))
    {
        ReportFailure(result, L"open failed");
        return result;
    }
    if (const HRESULT result = ConnectToWmi(); FAILED(result))
    {
        return result;
    }
    if (const HRESULT result = CreateEventSink(); result != S_OK)
    {
        return result;
    }
    return StartMonitoring();
}

// The second half of Open: the list is complete, and its events fired, before the first notification can arrive, and
// the thread that handles notifications runs before they are asked for.
HRESULT CNetMonSv::StartMonitoring()
{
    LoadWiFiLibraries();
    if (const HRESULT result = AddNetworkCardsToList(); FAILED(result))
    {
        ReportFailure(result, L"Error could not add all network adapters to the list");
        return E_FAIL;
    }
    if (NativeWifiMonitorThread != nullptr)
    {
        MonitorTrace::Doubt(L"Error the NativeWifiMonitorThread is not NULL in CNetMonSv::Open()) ({})",
                            MonitorTrace::Address(NativeWifiMonitorThread.get()));
    }
    else
    {
        StartNativeWifiEventMonitorThread();
    }
    MonitorTrace::Note(L"Loading IP Helper DLL");
    ipHelperModule.reset(LoadLibraryW(L"IPHLPAPI.DLL"));
    RegisterForIpChangeEvents(); // without the library it only says so, and the monitor goes on without
    if (WmiEventThread != nullptr)
    {
        MonitorTrace::Doubt(L"Error the WmiEventThread is not NULL in CNetMonSv::Open()) ({})",
                            MonitorTrace::Address(WmiEventThread.get()));
    }
    else
    {
        MonitorTrace::Note(L"StartWmiEventMonitorThread");
        StartWmiEventMonitorThread();
    }
    MonitorTrace::Note(L"Register for notifications");
    if (const HRESULT result = RegisterForNotifications(); FAILED(result))
    {
        ReportFailure(result, L"Error failed to register for a notifications");
    }
    MonitorTrace::Note(L"Go to go <==");
    return S_OK;
}

void CNetMonSv::RefreshClientToken()
{
    if (clientTokenHandle)
    {
        MonitorTrace::Note(L"closing sorvane.exe or client test token handle");
        clientTokenHandle.reset();
    }
    clientTokenHandle.reset(GetSorvaneTokenHandle());
    MonitorTrace::Note(L"client token handle is {:#08x}", MonitorTrace::Address(clientTokenHandle.get()));
}

HRESULT CNetMonSv::StartIpChangeQueue()
{
    bool started = false;
    try
    {
        started = ipChangeWorkItemQueue.Start();
    }
    catch (const std::system_error&)
    {
        started = false;
    }
    if (!started)
    {
        MonitorTrace::Failure(L"Could not start IP change work item queue");
        return E_FAIL;
    }
    ipChangeQueueStarted = true;
    CWorkItem* const item = new (std::nothrow) NetUtilities::WorkItemMember<CNetMonSv>(this, &CNetMonSv::InitCOM);
    if (item == nullptr || !ipChangeWorkItemQueue.Add(item))
    {
        MonitorTrace::Failure(L"Failed to enqueue InitCOM in ip change work item queue");
        return E_FAIL;
    }
    return S_OK;
}

HRESULT CNetMonSv::ConnectToWmi()
{
    if (wmiNamespace == nullptr)
    {
        if (const HRESULT result = ConnectWMINameSpace(&wmiNamespace, L"root\\wmi"); FAILED(result))
        {
            ReportFailure(result, L"Error could not connect to wmi");
            return E_FAIL;
        }
        if (wmiNamespace == nullptr)
        {
            ReportFailure(E_POINTER, L"Error namespace pointer is NULL");
            return E_FAIL;
        }
    }
    if (cimv2Namespace == nullptr)
    {
        if (const HRESULT result = ConnectWMINameSpace(&cimv2Namespace, L"root\\cimv2"); FAILED(result))
        {
            ReportFailure(result, L"Error could not connect to cimv2");
            return E_FAIL;
        }
        if (cimv2Namespace == nullptr)
        {
            ReportFailure(E_POINTER, L"Error cimv2 pointer is NULL");
            return E_FAIL;
        }
    }
    return S_OK;
}

HRESULT CNetMonSv::ConnectWMINameSpace(IWbemServices** ppServices, const wchar_t* name)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (wbemLocator != nullptr)
    {
        MonitorTrace::Note(L"wbem locator is already set");
    }
    else
    {
        const HRESULT created = wbemLocator.CreateInstance(__uuidof(WbemLocator), nullptr, CLSCTX_INPROC_SERVER);
        if (FAILED(created))
        {
            MonitorTrace::FailureResult(created, L"could not create an instance of WbemLocator");
            return created;
        }
        MonitorTrace::Note(L"created wbem locator object");
    }
    const _bstr_t resource = CopyToBstr(name);
    const HRESULT connected = resource.length() == 0 ? E_OUTOFMEMORY
                                                     : wbemLocator->ConnectServer(resource, nullptr, nullptr, nullptr,
                                                                                  0, nullptr, nullptr, ppServices);
    if (FAILED(connected))
    {
        MonitorTrace::FailureResult(connected, L"Error could not connect to WMI namespace '{}'", name);
        return connected;
    }
    MonitorTrace::Note(L"connected to WMI namespace '{}'", name);
    if (*ppServices == nullptr)
    {
        return S_OK; // the caller has words of its own for that
    }
    const HRESULT secured = CoSetProxyBlanket(*ppServices, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                              RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
    if (FAILED(secured))
    {
        MonitorTrace::FailureResult(secured, L"Error could not set the proxy blanket");
        return secured;
    }
    MonitorTrace::Note(L"set the proxy blanket");
    return S_OK;
}

HRESULT CNetMonSv::CreateEventSink()
{
    EventSink* const sink = new (std::nothrow) EventSink;
    MutexLock lock(eventSinkMutex);
    eventSink = sink;
    MonitorTrace::Note(L"create new event sync at {:#08x}", MonitorTrace::Address(sink));
    if (sink == nullptr)
    {
        MonitorTrace::FailureCode(ERROR_NOT_ENOUGH_MEMORY, L"Error could not create QuerySink object");
        return noMemoryForSink;
    }
    MonitorTrace::Note(L"created the QuerySink notification object");
    return S_OK;
}

CNetMonSv::EventSinkPtr CNetMonSv::CurrentEventSink()
{
    MutexLock lock(eventSinkMutex);
    return eventSink;
}

STDMETHODIMP CNetMonSv::Close() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            AnnounceClose();
            TracedMutexLock lock(serializeOpenCloseMutex, L"serializeOpenCloseMutex", here);
            return CloseLocked();
        });
}

void CNetMonSv::AnnounceClose()
{
    MonitorTrace::Note(L"Close() is going to wait on SDK switching to complete");
    sdkSwitchEvent.Set(); // in spite of the words nothing is waited for
}

HRESULT CNetMonSv::CloseLocked()
{
    MonitorTrace::Note(L"close called with reference counter at {}", openReferenceCount);
    if (openReferenceCount == 0)
    {
        MonitorTrace::Note(L"closed called without a previous open");
        return S_OK;
    }
    --openReferenceCount;
    try
    {
        if (openReferenceCount >= 1)
        {
            MonitorTrace::Note(L"netmon reference counter is {}, not closing everything down yet", openReferenceCount);
            return S_OK;
        }
        return TakeDown();
    }
    catch (...)
    {
        // Memory ran out on the way. The caller hears of it, so the Close did not count and can be made again.
        ++openReferenceCount;
        throw;
    }
}

// The producers of work end first, then the thread that handles WMI events, then WMI and the list, which all of them
// use. No step's failure stops the ones behind it.
HRESULT CNetMonSv::TakeDown()
{
    HRESULT result = S_OK;
    closingFlag = true;
    wmiCleanupEvent.Set();
    StopWorkQueues(result);
    MyDeleteTimerQueue();
    StopNativeWifiEventMonitorThread();
    if (ipChangeNotification != nullptr && ipHelperModule)
    {
        DeregisterForIpChangeEvents();
        ipChangeNotification = nullptr;
    }
    ipHelperModule.reset();
    StopWmiEventMonitorThread();
    UnloadWiFiLibraries();
    CleanupWmiResources();
    {
        MutexLock lock(eventSinkMutex);
        eventSink = nullptr;
    }
    secondLibrary.reset();
    MonitorTrace::Note(L"deleting device info list");
    DeleteDeviceInfoList();
    MonitorTrace::Note(L"deleting device info map entries");
    DeleteDeviceInfoMapEntries();
    clientTokenHandle.reset();
    closedFlag = true;
    return result;
}

void CNetMonSv::StopWorkQueues(HRESULT& result)
{
    MonitorTrace::Note(L"Stop thread pool");
    if (!threadPool.Stop(poolStopLimit))
    {
        MonitorTrace::Failure(L"Stopping thread pool failed");
        result = E_FAIL;
    }
    MonitorTrace::Note(L"Stop IP change work item queue");
    // A queue that was never started would not take its last item over.
    CWorkItem* const lastItem =
        ipChangeQueueStarted ? new (std::nothrow) NetUtilities::WorkItemMember<CNetMonSv>(this, &CNetMonSv::UninitCOM)
                             : nullptr;
    ipChangeQueueStarted = false;
    if (!ipChangeWorkItemQueue.StopAfterDrain(ipChangeStopLimit, lastItem))
    {
        MonitorTrace::Failure(L"Stopping IP change work item queue failed");
        result = E_FAIL;
    }
}

void CNetMonSv::MyDeleteTimerQueue()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const HANDLE queue = timerQueue;
    if (queue == nullptr)
    {
        return;
    }
    const bool deleted = DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE) != FALSE; // waits for running callbacks
    const DWORD error = GetLastError();
    timerQueue = nullptr; // whatever came of it, and whether or not there is memory for the lines below
    if (deleted)
    {
        MonitorTrace::Note(L"deleting the timer queue");
    }
    else if (error == ERROR_IO_PENDING)
    {
        MonitorTrace::Doubt(L"i/o to delete timer queue pending ({:#08x})", error);
    }
    else
    {
        MonitorTrace::Failure(L"could not delete timer queue ({:#08x})", error);
    }
    MonitorTrace::Note(L"timer queue is now deleted");
}

void CNetMonSv::CleanupWmiResources()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    MonitorTrace::Note(L"telling async wmi threads to end");
    MonitorTrace::Note(L"Starting WMI cleanup");
    {
        // Keeps this out while a handler is inside a WMI call.
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        const EventSinkPtr sink = CurrentEventSink();
        HRESULT cancelled = S_OK;
        if (wmiNamespace != nullptr)
        {
            MonitorTrace::Note(L"canceling notifications using wmi namespace");
            cancelled = wmiNamespace->CancelAsyncCall(sink.GetInterfacePtr());
        }
        else if (cimv2Namespace != nullptr)
        {
            MonitorTrace::Note(L"canceling notifications using cimV2 namespace");
            cancelled = cimv2Namespace->CancelAsyncCall(sink.GetInterfacePtr());
        }
        if (FAILED(cancelled))
        {
            MonitorTrace::FailureResult(cancelled, L"Error there was a problem canceling notifications");
        }
        wmiNamespace = nullptr;
        cimv2Namespace = nullptr;
        wbemLocator = nullptr;
    }
    MonitorTrace::Note(L"Finished WMI cleanup");
}

void CNetMonSv::InitCOM()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    // The balance is UninitCOM, the last item of the same thread.
    if (const HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED); FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"CNetMonSv::InitCOM: CoInitializeEx failed");
    }
}

void CNetMonSv::UninitCOM()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    CoUninitialize();
}

void CNetMonSv::LoadWiFiLibraries()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    WiFiOpenApi(true, false);
}

void CNetMonSv::UnloadWiFiLibraries()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    WiFiCloseApi();
}
