// The monitor's object: construction, destruction and the small properties.

#include "Halcyd/NetMonSv.h"

#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorReport.h"
#include "Halcyd/MonitorTrace.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/TracedMutexLock.h"

namespace
{
constexpr wchar_t runCountKey[] = L"SOFTWARE\\QRLS\\Sorvane\\ProcMon\\Halcyd.exe";
constexpr int closeLockTries = 11;
constexpr DWORD closeLockPause = 1000; // milliseconds
} // namespace

CNetMonSv::CNetMonSv() = default;

// No lock: no other thread knows the object yet.
HRESULT CNetMonSv::FinalConstruct() NO_THREAD_SAFETY_ANALYSIS
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    m_instance = this;
    MonitorTrace::Note(L"m_instance = {:#08x}", MonitorTrace::Address(this));

    restoreFinishedEvent.reset();
    clientTokenHandle.reset();
    wmiEventAvailable.Close();
    WmiEventThread.reset();
    wmiEventThreadStop.Close();
    nativeWifiEvent.reset();
    NativeWifiMonitorThread.reset();
    nativeWifiStopEvent.Close();
    ipChangeNotification = nullptr;
    ipHelperModule.reset();
    secondLibrary.reset();
    timerQueue = nullptr;
    deviceInfoListHead = nullptr;
    deviceInfoListTail = nullptr;
    eventSink = nullptr;
    wmiNamespace = nullptr;
    cimv2Namespace = nullptr;
    wbemLocator = nullptr;

    MonitorReport::Start();
    closedFlag = true;
    closingFlag = false;
    IncrementRunCount();
    MonitorTrace::Note(L"completed netmon object construction");
    return S_OK;
}

void CNetMonSv::IncrementRunCount()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    RegistryKey key;
    std::uint32_t count = 0;
    if (key.Open(HKEY_LOCAL_MACHINE, runCountKey, KEY_READ | KEY_WRITE) == ERROR_SUCCESS &&
        key.ReadDword(L"runcount", count) == ERROR_SUCCESS)
    {
        key.WriteDword(L"runcount", count + 1);
    }
}

// The lock is tried for, not waited for, and is released in another branch than it is taken in.
void CNetMonSv::FinalRelease() NO_THREAD_SAFETY_ANALYSIS
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    MonitorTrace::Note(L"try_lock the serializeOpenCloseMutex lock");
    bool locked = serializeOpenCloseMutex.TryLock();
    for (int tries = 1; !locked && tries < closeLockTries; ++tries)
    {
        Clock::Current().Sleep(closeLockPause);
        locked = serializeOpenCloseMutex.TryLock();
    }
    if (!locked)
    {
        MonitorTrace::Failure(L"Failed to acquire lock to call Close, destroying object without Close call completing");
    }
    else
    {
        if (!closedFlag)
        {
            // One Close is to take everything down, however many users there were. The lock is held here and is not
            // recursive, so it is the body of Close that runs, not Close itself.
            if (openReferenceCount > 1)
            {
                openReferenceCount = 1;
            }
            AnnounceClose();
            CloseLocked();
        }
        serializeOpenCloseMutex.Unlock();
        MonitorTrace::Note(L"UnLock <== serializeOpenCloseMutex lock");
    }

    MyDeleteTimerQueue();
    UnloadWiFiLibraries();
    secondLibrary.reset();
    CleanupWmiResources();
    MonitorReport::Stop();
    DeleteDeviceInfoList();
    m_instance = nullptr;
}

STDMETHODIMP CNetMonSv::IsOpen(VARIANT_BOOL* pIsOpen) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            if (pIsOpen == nullptr)
            {
                return E_POINTER;
            }
            *pIsOpen = closedFlag ? VARIANT_FALSE : VARIANT_TRUE;
            return S_OK;
        });
}

STDMETHODIMP CNetMonSv::get_FilterMask(long* pVal) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            if (pVal == nullptr)
            {
                return E_POINTER;
            }
            *pVal = FilterMask;
            return S_OK;
        });
}

STDMETHODIMP CNetMonSv::put_FilterMask(long newVal) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            FilterMask = newVal; // kept for the client, and read by no event path: all clients get all events
            return S_OK;
        });
}
