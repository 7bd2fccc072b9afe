// What keeps the Wi-Fi adapters current: a timer for each, and a thread that waits for the Wi-Fi library's signal. Also
// the end of an adapter's extension, which the timer has a say in.

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "Halcyd/SignalRule.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/GlobalObjectName.h"
#include "NetUtilities/TracedMutexLock.h"

#include <ctime>
#include <system_error>

namespace
{
constexpr DWORD timerDeletionLimit = 5000; // milliseconds
// 100 ms more than the timer's period: a tick that follows a refresh by one period is skipped, so that with networks in
// view the list is refreshed at every second tick.
constexpr std::int32_t timerRefreshInterval = 15100;
constexpr std::int32_t eventRefreshInterval = 101; // milliseconds
constexpr int pendingTicks = 10;

std::atomic<int> ticksWithoutMonitor{0};

std::int32_t ClockNow() noexcept
{
    return static_cast<std::int32_t>(std::clock());
}

// The client's identity on this thread, given up at the end at the latest: what comes behind must not run as the
// client, whichever way the work in between ends.
class ClientIdentity
{
public:
    ClientIdentity() = default;
    ~ClientIdentity()
    {
        if (assumed)
        {
            RevertToSelf();
        }
    }
    ClientIdentity(const ClientIdentity&) = delete;
    ClientIdentity& operator=(const ClientIdentity&) = delete;

    // Both return false with the platform's last error.
    [[nodiscard]] bool Assume(HANDLE token) noexcept
    {
        assumed = ImpersonateLoggedOnUser(token) != FALSE;
        return assumed;
    }
    // Reverts whether or not an identity was assumed.
    [[nodiscard]] bool Drop() noexcept
    {
        assumed = false;
        return RevertToSelf() != FALSE;
    }

private:
    bool assumed = false;
};

void HashBanner(const std::wstring& text)
{
    MonitorTrace::Banner(text, L'#', 71);
}
} // namespace

void CALLBACK CNetMonSv::WiFiTimerCallback(void* node, unsigned char /*timerFired*/)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    CNetMonSv* const monitor = m_instance;
    if (monitor == nullptr)
    {
        MonitorTrace::Doubt(L"pointer to our COM object's class instance was NULL");
        const int misses = ++ticksWithoutMonitor;
        if (misses < pendingTicks)
        {
            MonitorTrace::Doubt(L"must be pending timers that could not be canceled ({})", misses);
        }
        else
        {
            MonitorTrace::Doubt(L"now the timer has popped 10 times in a row when our object's instance was NULL ({})",
                                misses);
        }
        return;
    }
    // Never waits for the lock: DeleteWiFiDeviceExtension holds it while it waits for this callback to end.
    auto* const element = static_cast<_DEVICE_ELEMENT*>(node);
    const TracedMutexTryLock lock(monitor->deviceInfoListMutex, L"deviceInfoListMutex");
    if (!lock)
    {
        MonitorTrace::Note(L"# device list is in use...skipping timer update for '{}'", MonitorTrace::Address(node));
        return;
    }
    monitor->deviceInfoListMutex.AssertHeld();
    MonitorTrace::Note(L"updating wifi information for node '{}'",
                       TextOrEmpty(element != nullptr ? element->DeviceId : nullptr));
    monitor->WiFiUpdateDetailsFromTimer(element);
    ticksWithoutMonitor = 0;
}

HRESULT CNetMonSv::WiFiUpdateDetailsFromTimer(_DEVICE_ELEMENT* node)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Doubt(L"WiFiUpdateDetailsFromTimer: node data is null, cannot process this request");
        return E_FAIL;
    }
    if (node->u.pWiFiAdapter == nullptr)
    {
        MonitorTrace::Doubt(L"WiFiUpdateDetailsFromTimer: the wifi device extension is NULL");
        return E_FAIL;
    }
    if (timerQueue.load() == nullptr)
    {
        MonitorTrace::Doubt(
            L"WiFiUpdateDetailsFromTimer: timer queue is now null, indicates that there was a problem deleting it");
        return E_FAIL;
    }
    if (ClockDifference(ClockNow(), node->u.pWiFiAdapter->LastSurveyTime) < timerRefreshInterval)
    {
        MonitorTrace::Note(L"WiFiUpdateDetailsFromTimer: recently updated the bssid list...skipping timer update");
        return E_FAIL;
    }
    MonitorTrace::Note(L"WiFiUpdateDetailsFromTimer: handling the timer '{}'", TextOrEmpty(node->DeviceId));
    const HRESULT result = GetWiFiDetails(node);
    if (FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"there was a problem getting the wifi details");
    }
    else
    {
        SendWifiRssiNotificationIfNeeded(node); // a second time in this update, which finds nothing to tell
    }
    return result;
}

HRESULT CNetMonSv::DeleteWiFiDeviceExtension(_DEVICE_ELEMENT* element)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    if (element == nullptr || element->u.pWiFiAdapter == nullptr)
    {
        MonitorTrace::Note(L"there is no wifi device extension to delete for node: {}",
                           TextOrEmpty(element != nullptr ? element->DeviceId : nullptr));
        return S_OK;
    }
    _WIFI_ADAPTER& extension = *element->u.pWiFiAdapter;
    if (timerQueue.load() == nullptr)
    {
        MonitorTrace::Note(L"handle to timer queue is NULL therefore all timers have been canceled");
        extension.hTimer = nullptr;
        MonitorTrace::Note(L"reset timer handle");
    }
    else if (extension.hTimer != nullptr)
    {
        DeleteWiFiTimer(element);
    }
    if (extension.hTimer != nullptr)
    {
        // A timer that may yet fire has the element as its parameter.
        MonitorTrace::Doubt(L"*** timer is not cancelled, we must not deleted this node");
        return S_OK;
    }
    if (const HRESULT result = DeleteWiFiAccessPointList(element); FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"there was an issue deleting the bssid list, memory leak will result");
    }
    else
    {
        MonitorTrace::Note(L"deleted the bssid list for 802.11 adapter");
    }
    UpdateBstrField(&extension.AdapterMacAddress, nullptr);
    UpdateBstrField(&extension.DriverInfo, nullptr);
    UpdateBstrField(&extension.Ssid, nullptr);
    UpdateBstrField(&extension.BssidMacAddress, nullptr);
    extension = {};
    CoTaskMemFree(element->u.pWiFiAdapter);
    element->u.pWiFiAdapter = nullptr;
    return S_OK;
}

// Clears hTimer when the timer is gone, and leaves it when that could not be had in time.
void CNetMonSv::DeleteWiFiTimer(_DEVICE_ELEMENT* element)
{
    _WIFI_ADAPTER& extension = *element->u.pWiFiAdapter;
    const std::wstring id = TextOrEmpty(element->DeviceId);
    const HANDLE timer = extension.hTimer;
    MonitorTrace::Note(L"deleting the timer for node '{}' (timer = {})", id, MonitorTrace::Address(timer));
    const UniqueHandle gone(CreateEventW(nullptr, TRUE, FALSE, L"DeleteTimerEvent"));
    if (gone)
    {
        ResetEvent(gone.get()); // the name may have led to an event that is signalled already
    }
    if (DeleteTimerQueueTimer(timerQueue, timer, gone.get()))
    {
        MonitorTrace::Note(L"deleted wifi update timer for wifi node '{}'", id);
    }
    else if (const DWORD error = GetLastError(); error == ERROR_IO_PENDING)
    {
        // A callback is running: the normal case.
        HashBanner(FormatText(L"# TIMER DELETE PENDING '{}->{}", id, MonitorTrace::Address(timer)));
    }
    else
    {
        HashBanner(
            TraceFormat(error, L"# ERROR DELETING THE TIMER (NOT PENDING) '{}->{}", id, MonitorTrace::Address(timer)));
    }
    if (gone)
    {
        if (const DWORD waited = Clock::Current().Wait(gone.get(), timerDeletionLimit); waited == WAIT_TIMEOUT)
        {
            HashBanner(FormatText(L"# TIMEOUT WAITING FOR THE TIMER TO BE DELELETED ({})", waited));
            return;
        }
        MonitorTrace::Note(L"deleted the timer ({})", MonitorTrace::Address(timer));
    }
    extension.hTimer = nullptr;
}

void CNetMonSv::StartNativeWifiEventMonitorThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    // The event belongs to the client, so that the client's own programs may open it.
    ClientIdentity identity;
    if (clientTokenHandle)
    {
        if (identity.Assume(clientTokenHandle.get()))
        {
            MonitorTrace::Note(L"Impersonating the client with token {:#08x}",
                               MonitorTrace::Address(clientTokenHandle.get()));
        }
        else
        {
            MonitorTrace::FailureCode(GetLastError(), L"Problem impersonating the client with token {:#08x}",
                                      MonitorTrace::Address(clientTokenHandle.get()));
        }
    }
    nativeWifiEvent.reset(CreateEventW(nullptr, TRUE, FALSE, GlobalObjectName(L"NetCfgWifiEvent")));
    if (identity.Drop())
    {
        MonitorTrace::Note(L"Reverting to self");
    }
    else
    {
        MonitorTrace::FailureCode(GetLastError(), L"Error reverting to self!");
    }
    nativeWifiStopEvent.Create(true, false);
    if (!nativeWifiEvent || !nativeWifiStopEvent)
    {
        MonitorTrace::FailureCode(GetLastError(), L"Could not create events");
        return;
    }
    try
    {
        NativeWifiMonitorThread = std::make_unique<std::thread>(&CNetMonSv::ProcessNativeWifiEventsThread, this);
    }
    catch (const std::system_error& error)
    {
        // As without its events: the timers alone keep the Wi-Fi adapters current.
        MonitorTrace::Failure(L"Could not create thread ({})", error.code().value());
        return;
    }
    MonitorTrace::Note(L"Creating thread to listen for special wifi events");
}

void CNetMonSv::ProcessNativeWifiEventsThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const ComApartment apartment;
    if (FAILED(apartment.Result()))
    {
        MonitorTrace::FailureResult(apartment.Result(), L"Com initialization failed");
    }
    for (;;)
    {
        if (WaitForAny(INFINITE, nativeWifiEvent.get(), nativeWifiStopEvent.Handle()) != WAIT_OBJECT_0)
        {
            MonitorTrace::Note(L"ProcessNativeWifiEventsThread: time to end the ProcessNativeWifiEventsThread thread");
            return;
        }
        MonitorTrace::Note(L"ProcessNativeWifiEventsThread: event was set to update all wifi adapters");
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
        {
            if ((element->AdapterType & enumWiFi) == 0 || element->u.pWiFiAdapter == nullptr)
            {
                continue;
            }
            const std::wstring id = TextOrEmpty(element->DeviceId);
            if (ClockDifference(ClockNow(), element->u.pWiFiAdapter->LastSurveyTime) < eventRefreshInterval)
            {
                MonitorTrace::Note(L"ProcessNativeWifiEventsThread: just updated wifi node '{}'...skipping", id);
                continue;
            }
            MonitorTrace::Note(L"ProcessNativeWifiEventsThread: updating wifi node '{}'", id);
            GetWiFiDetails(element);
        }
        ResetEvent(nativeWifiEvent.get());
    }
}

void CNetMonSv::StopNativeWifiEventMonitorThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (NativeWifiMonitorThread != nullptr)
    {
        nativeWifiStopEvent.Set();
        if (NativeWifiMonitorThread->joinable())
        {
            NativeWifiMonitorThread->join();
        }
        NativeWifiMonitorThread.reset();
    }
    nativeWifiStopEvent.Close();
    nativeWifiEvent.reset();
}
