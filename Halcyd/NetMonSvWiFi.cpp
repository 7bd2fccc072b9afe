// Wi-Fi adapters: their extension, the networks in view, and what is told about them.

#include "Halcyd/ClientLookup.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "Halcyd/SignalRule.h"
#include "Halcyd/WiFiText.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/TracedMutexLock.h"
#include "WiFiWrap/wifiwraplib.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <new>

namespace
{
constexpr long mediaConnected = 0;
constexpr long mediaDisconnected = 1;
constexpr long deviceReady = -1;
constexpr DWORD timerDue = 10000;                    // milliseconds
constexpr DWORD timerPeriod = 15000;                 // milliseconds
constexpr std::int32_t neverSurveyed = -60000;       // value of LastSurveyTime that makes the next refresh due
constexpr std::int32_t legacySurveyInterval = 60000; // milliseconds
constexpr std::int32_t networkLifetime = 2500;       // milliseconds: seen in the enumeration just made
constexpr std::int32_t mostForcedSurveys = 2;
constexpr std::int64_t forcedSurveyPause = 10'000'000'000; // nanoseconds

std::atomic<bool> firstSurveyDone{false}; // one survey in the life of the process

std::int32_t ClockNow() noexcept
{
    return static_cast<std::int32_t>(std::clock()); // milliseconds since the process started
}

class WiFiHandle
{
public:
    enum class GoesBack
    {
        IfValid,
        Always
    };

    explicit WiFiHandle(GoesBack goesBack = GoesBack::IfValid) : handle(WiFiOpen()), closing(goesBack) {}
    ~WiFiHandle()
    {
        if (!IsValid() && closing == GoesBack::IfValid)
        {
            return;
        }
        try
        {
            WiFiClose(handle);
        }
        catch (const std::bad_alloc&)
        {
            handle = INVALID_HANDLE_VALUE; // lost: raised from here it would end the process
        }
    }
    WiFiHandle(const WiFiHandle&) = delete;
    WiFiHandle& operator=(const WiFiHandle&) = delete;
    [[nodiscard]] bool IsValid() const noexcept { return handle != INVALID_HANDLE_VALUE; }
    [[nodiscard]] HANDLE Get() const noexcept { return handle; }

private:
    HANDLE handle;
    GoesBack closing;
};

const wchar_t* MediaStateText(long state) noexcept
{
    switch (state)
    {
    case mediaConnected:
        return L"NdisMediaStateConnected";
    case mediaDisconnected:
        return L"NdisMediaStateDisconnected";
    default:
        return L"media state unknown";
    }
}

void ClearAssociation(_WIFI_ADAPTER& extension)
{
    CNetMonSv::UpdateBstrField(&extension.BssidMacAddress, nullptr);
    CNetMonSv::UpdateBstrField(&extension.Ssid, nullptr);
}
} // namespace

HRESULT CNetMonSv::GetWiFiAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Failure(L"pNode == NULL");
        return E_FAIL;
    }
    if (node->DeviceStatus != deviceReady)
    {
        MonitorTrace::Note(L"device {} does not have ip enabled...deleting device extension",
                           TextOrEmpty(node->DeviceId));
        return DeleteWiFiDeviceExtension(node);
    }
    if (node->u.pWiFiAdapter == nullptr)
    {
        if (const HRESULT result = CreateWiFiExtension(node); FAILED(result))
        {
            return result;
        }
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    extension.LastSurveyTime = neverSurveyed;
    _variant_t macAddress;
    WmiValues::Read(object, L"MacAddress", macAddress);
    UpdateBstrFromVariant(&extension.AdapterMacAddress, &macAddress);
    MonitorTrace::Note(L"setting the mac for the wifi device to '{}'", TextOrEmpty(extension.AdapterMacAddress));
    ReadWiFiDriver(node);
    ReadAssociation(node);
    GetWiFiDetails(node);
    return S_OK;
}

HRESULT CNetMonSv::CreateWiFiExtension(_DEVICE_ELEMENT* node)
{
    MonitorTrace::Note(L"creating new device extension for '{}'", TextOrEmpty(node->DeviceId));
    auto* const extension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
    if (extension == nullptr)
    {
        MonitorTrace::FailureResult(E_OUTOFMEMORY, L"Error could not allocate memory for device extension");
        return E_OUTOFMEMORY;
    }
    *extension = {};
    node->u.pWiFiAdapter = extension;
    HANDLE timer = nullptr;
    // Without a queue of the monitor's own there is no timer: a null handle means the process's default queue, whose
    // timers outlive the list.
    SetLastError(ERROR_INVALID_HANDLE);
    if (timerQueue != nullptr && CreateTimerQueueTimer(&timer, timerQueue, &CNetMonSv::WiFiTimerCallback, node,
                                                       timerDue, timerPeriod, WT_EXECUTELONGFUNCTION) != FALSE)
    {
        extension->hTimer = static_cast<long*>(timer);
        MonitorTrace::Note(L"created wifi timer ({}, {})", MonitorTrace::Address(node), MonitorTrace::Address(timer));
    }
    else
    {
        // The adapter does without: its other roads of refreshing remain.
        MonitorTrace::FailureCode(GetLastError(), L"could not create wifi timer");
    }
    return S_OK;
}

void CNetMonSv::ReadWiFiDriver(_DEVICE_ELEMENT* node)
{
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    void* handle = nullptr;
    if (OpenMiniportDriver(node->DeviceId, &handle) != ERROR_SUCCESS)
    {
        MonitorTrace::Failure(L"could not open driver for '{}'", TextOrEmpty(node->DeviceId));
        return;
    }
    extension.LinkSpeed = GetLinkSpeedMbps(handle);
    MonitorTrace::Note(L"setting the link speed to '{}'", extension.LinkSpeed);
    std::array<wchar_t, 261> driverInfo{}; // one more than offered, so that it always ends
    GetDriverInfo(handle, driverInfo.data(), static_cast<unsigned long>(driverInfo.size() - 1));
    UpdateBstrField(&extension.DriverInfo, driverInfo.data());
    MonitorTrace::Note(L"setting the driver info string to '{}'", TextOrEmpty(driverInfo.data()));
    GetMediaConnectStatus(handle, &node->ConnectStatus);
    // The driver's line serves the media state too.
    MonitorTrace::Note(L"setting the driver info string to '{}'", MediaStateText(node->ConnectStatus));
    if (CloseMiniportDriver(handle) != 1)
    {
        MonitorTrace::MiniportClosingProblem();
    }
}

void CNetMonSv::ReadAssociation(_DEVICE_ELEMENT* node)
{
    const WiFiHandle wifi;
    if (!wifi.IsValid())
    {
        MonitorTrace::Note(L"could not open the wifi device handle");
        return;
    }
    if (node->DeviceId == nullptr)
    {
        return;
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    const std::wstring name = WiFiDeviceName(node->DeviceId);
    if (node->ConnectStatus == mediaDisconnected)
    {
        ClearAssociation(extension);
        MonitorTrace::Note(L"since the media is disconnected set the SSID and the associated MAC address to NULL");
        return;
    }
    std::array<std::uint8_t, 6> accessPoint{};
    if (const DWORD error = WiFiGetMacAddressOfAssociatedAP(wifi.Get(), name, accessPoint); error != ERROR_SUCCESS)
    {
        ClearAssociation(extension);
        node->ConnectStatus = mediaDisconnected;
        MonitorTrace::Note(L"not associated to any hotspot");
        return;
    }
    std::wstring ssid;
    if (const DWORD error = WiFiGetSsid(wifi.Get(), name, ssid); error != ERROR_SUCCESS)
    {
        ClearAssociation(extension);
        node->ConnectStatus = mediaDisconnected;
        MonitorTrace::Note(L"could not get SSID for associate adapter");
        return;
    }
    const std::wstring mac = MacAddressText(accessPoint);
    UpdateBstrField(&extension.BssidMacAddress, mac.c_str());
    UpdateBstrField(&extension.Ssid, ssid.c_str());
    node->ConnectStatus = mediaConnected;
    MonitorTrace::Note(L"associated to {}", mac);
    MonitorTrace::Note(L"determined that we are associated with with an SSID '{}'", ssid);
}

HRESULT CNetMonSv::GetWiFiDetails(_DEVICE_ELEMENT* node)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Failure(L"pNode == NULL");
        return E_FAIL;
    }
    bool added = false;
    {
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        if (node->u.pWiFiAdapter == nullptr)
        {
            MonitorTrace::Note(L"there is not a wifi device extension");
        }
        else
        {
            RefreshNetworks(node, added);
            HideTemporaryProfiles(node);
        }
    }
    if (added)
    {
        CWorkItem* const item = new (std::nothrow) NetUtilities::WorkItemMember1<CNetMonSv, AsyncEventContext>(
            this, &CNetMonSv::FireEventAsync, AsyncEventContext(enumEventWiFiAddedSSIDs));
        if (!AddToPool(item))
        {
            MonitorTrace::Failure(L"Failed to enqueue added wifi adapter event");
        }
    }
    return S_OK;
}

// Everything of a refresh that needs a handle of the Wi-Fi library.
void CNetMonSv::RefreshNetworks(_DEVICE_ELEMENT* node, bool& added)
{
    const WiFiHandle wifi;
    if (!wifi.IsValid())
    {
        return;
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    std::wstring name;
    if (node->DeviceId != nullptr)
    {
        name = WiFiDeviceName(node->DeviceId);
        const bool forced = TakeForcedSurvey();
        if (!firstSurveyDone || forced)
        {
            if (WiFiIsNativeApiInUse())
            {
                MonitorTrace::Note(L"performing a wifi survey");
                WiFiSurveyEx(wifi.Get(), name, nullptr);
                MonitorTrace::Note(L"finished kicking of survey thread");
            }
            firstSurveyDone = true;
        }
        EnumerateNetworks(node, wifi.Get(), name, added);
    }
    MonitorTrace::Detail(L"deleting the list of wifi SSIDs");
    DeleteOldWiFiNetworks(node);
    if (!WiFiIsNativeApiInUse() && ClockDifference(ClockNow(), extension.LastSurveyTime) >= legacySurveyInterval)
    {
        UniqueHandle thread;
        WiFiSurveyEx(nullptr, name, thread.put());
        extension.LastSurveyTime = ClockNow();
    }
}

// After the machine slept, a survey is due at once and once more 10 s later. Open sets the count so that none is.
bool CNetMonSv::TakeForcedSurvey()
{
    MutexLock lock(wifiRefreshMutex);
    const std::int64_t now = Clock::Current().SteadyNanoseconds();
    if (forcedSurveyCount >= mostForcedSurveys ||
        (forcedSurveyCount != 0 && now - lastForcedSurvey < forcedSurveyPause))
    {
        return false;
    }
    lastForcedSurvey = now;
    ++forcedSurveyCount;
    MonitorTrace::Note(L"Could perform WiFi survey due to resuming from sleep");
    return true;
}

void CNetMonSv::EnumerateNetworks(_DEVICE_ELEMENT* node, HANDLE wifi, const std::wstring& name, bool& added)
{
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    std::uint32_t index = 0;
    DWORD status = ERROR_SUCCESS;
    for (;; ++index)
    {
        _WIFI_DETAILS record{};
        status = WiFiEnumBssidsEx(wifi, name, index, &record);
        if (status != ERROR_SUCCESS)
        {
            break;
        }
        extension.LastSurveyTime = ClockNow();
        StoreNetwork(extension, record, added);
    }
    if (status != ERROR_NO_MORE_ITEMS)
    {
        MonitorTrace::FailureCode(status, L"enumerating hotspot list");
    }
    MonitorTrace::Detail(L"reached the end of the bssid enumeration");
    if (index > 0 || status != ERROR_NO_MORE_ITEMS)
    {
        SendWifiRssiNotificationIfNeeded(node);
    }
    else if (extension.pDetails != nullptr)
    {
        TellWiFiGone(node);
    }
}

// With one entry per name, the last access point enumerated for a name wins.
void CNetMonSv::StoreNetwork(_WIFI_ADAPTER& extension, const _WIFI_DETAILS& record, bool& added)
{
    _WIFI_DETAILS** end = &extension.pDetails;
    for (; *end != nullptr; end = &(*end)->pNext)
    {
        _WIFI_DETAILS& known = **end;
        if (wcsncmp(known.Ssid, record.Ssid, std::size(known.Ssid)) == 0)
        {
            std::copy(std::begin(record.ProfileName), std::end(record.ProfileName), known.ProfileName);
            known.MaxRate = record.MaxRate;
            known.NetworkType = record.NetworkType;
            known.Privacy = record.Privacy;
            known.SignalStrength = record.SignalStrength;
            known.Timestamp = static_cast<std::uint32_t>(ClockNow());
            return;
        }
    }
    auto* const network = static_cast<_WIFI_DETAILS*>(CoTaskMemAlloc(sizeof(_WIFI_DETAILS)));
    if (network == nullptr)
    {
        MonitorTrace::FailureCode(ERROR_NOT_ENOUGH_MEMORY, L"could not allocate the needed memory");
        return;
    }
    MonitorTrace::Note(L"allocated a new WIFI_DETAILS structure '{}'",
                       std::wstring_view(record.Ssid, wcsnlen(record.Ssid, std::size(record.Ssid))));
    *network = record;
    network->Timestamp = static_cast<std::uint32_t>(ClockNow());
    network->pNext = nullptr;
    *end = network;
    added = true;
}

// No network in view, and some in the list: Wi-Fi was turned off. Fired under the list lock, unlike all other events.
void CNetMonSv::TellWiFiGone(_DEVICE_ELEMENT* node)
{
    MonitorTrace::Note(L"wifi device still has ssids mapped to it when there are none detected...forcing a delete");
    if (FAILED(DeleteWiFiAccessPointList(node)))
    {
        MonitorTrace::Failure(L"there was an issue deleting the bssid list, memory leak will result");
    }
    MonitorTrace::Note(L"firing RSSI event so the client will know that wifi was turned off");
    Fire_AdapterChange(node->DeviceId, static_cast<BSTR>(nullptr), enumEventWiFiSignalStrength);
    MonitorTrace::Note(L"firing network change event so the client will know that wifi was turned off");
    Fire_AdapterChange(node->DeviceId, static_cast<BSTR>(nullptr), enumEventNetworkChange);
}

// The networks of temporary profiles stay in the list; the clients only see no profile name for them.
void CNetMonSv::HideTemporaryProfiles(_DEVICE_ELEMENT* node)
{
    std::array<wchar_t, 1000> sid{};
    GetSorvaneUserSid(sid.data(), static_cast<DWORD>(sid.size()));
    for (const std::wstring& profile : SplitAtCommas(GetTempProfileList(sid.data())))
    {
        if (profile.empty())
        {
            continue;
        }
        for (_WIFI_DETAILS* network = node->u.pWiFiAdapter->pDetails; network != nullptr; network = network->pNext)
        {
            if (WidenProfileName(network->ProfileName) == profile)
            {
                MonitorTrace::Note(L"DeleteOldWiFiNetworks: remove the temp profile '{}'", profile);
                std::fill(std::begin(network->ProfileName), std::end(network->ProfileName), '\0');
            }
        }
    }
}

void CNetMonSv::DeleteOldWiFiNetworks(_DEVICE_ELEMENT* node)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr || node->u.pWiFiAdapter == nullptr)
    {
        MonitorTrace::Doubt(L"DeleteOldWiFiNetworks: problem with device element");
        return;
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    const std::int32_t now = ClockNow();
    _WIFI_DETAILS** link = &extension.pDetails;
    while (*link != nullptr)
    {
        _WIFI_DETAILS* const network = *link;
        if (ClockDifference(now, static_cast<std::int32_t>(network->Timestamp)) <= networkLifetime)
        {
            link = &network->pNext;
            continue;
        }
        const std::wstring_view ssid(network->Ssid, wcsnlen(network->Ssid, std::size(network->Ssid)));
        if (node->ConnectStatus == mediaDisconnected && ssid == TextOrEmpty(extension.Ssid))
        {
            MonitorTrace::Note(L"DeleteOldWiFiNetworks: the ssid we were associated with has been disconnected");
        }
        if (link == &extension.pDetails)
        {
            MonitorTrace::Note(L"DeleteOldWiFiNetworks: deleting the first node '{}'", ssid);
        }
        else
        {
            MonitorTrace::Note(L"DeleteOldWiFiNetworks: deleting the node '{}'", ssid);
        }
        *link = network->pNext;
        *network = {};
        CoTaskMemFree(network);
    }
}

void CNetMonSv::SendWifiRssiNotificationIfNeeded(_DEVICE_ELEMENT* node)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr || node->u.pWiFiAdapter == nullptr || node->u.pWiFiAdapter->pDetails == nullptr)
    {
        return;
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    long best = -999;
    for (const _WIFI_DETAILS* network = extension.pDetails; network != nullptr; network = network->pNext)
    {
        best = std::max(best, network->SignalStrength);
    }
    if (!SignalIsWorthTelling(extension.LastSignalStrength, best))
    {
        MonitorTrace::Detail(L"last = {}; current = {}", extension.LastSignalStrength, best);
        MonitorTrace::Detail(L"not firing wifi signal strength change");
        return;
    }
    extension.LastSignalStrength = best;
    MonitorTrace::Note(L"firing wifi signal strength update event");
    CWorkItem* const item = new (std::nothrow) NetUtilities::WorkItemMember1<CNetMonSv, AsyncEventContext>(
        this, &CNetMonSv::FireEventAsync, AsyncEventContext(node, enumEventWiFiSignalStrength));
    if (!AddToPool(item))
    {
        MonitorTrace::Failure(L"Failed to enqueue wifi signal strength event"); // and is not told again
    }
}

HRESULT CNetMonSv::DeleteWiFiAccessPointList(_DEVICE_ELEMENT* node)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr || node->u.pWiFiAdapter == nullptr)
    {
        MonitorTrace::Note(L"DeleteWiFiAccessPointList: node is not ready (node={})", MonitorTrace::Address(node));
        return S_OK;
    }
    _WIFI_ADAPTER& extension = *node->u.pWiFiAdapter;
    if (extension.pDetails == nullptr)
    {
        MonitorTrace::Note(L"DeleteWiFiAccessPointList: linked list of hotspots is NULL");
        return S_OK;
    }
    for (_WIFI_DETAILS* network = extension.pDetails; network != nullptr;)
    {
        _WIFI_DETAILS* const next = network->pNext;
        *network = {};
        CoTaskMemFree(network);
        network = next;
    }
    extension.LastSignalStrength = 0;
    extension.pDetails = nullptr;
    return S_OK;
}

STDMETHODIMP CNetMonSv::ResetSsidList() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex", here);
            _DEVICE_ELEMENT* element = deviceInfoListHead;
            while (element != nullptr && (element->AdapterType & enumWiFi) == 0)
            {
                element = element->pNext;
            }
            if (element == nullptr)
            {
                return S_OK;
            }
            // The first Wi-Fi adapter only; a second one keeps its list.
            const HRESULT result = DeleteWiFiAccessPointList(element);
            if (FAILED(result))
            {
                MonitorTrace::FailureResult(result,
                                            L"there was an issue deleting the BSSID list, memory leak will result");
            }
            else
            {
                MonitorTrace::Note(L"deleted the BSSID list for 802.11 adapter");
            }
            return result;
        });
}

// Walks the list without its lock, as it always has: a survey blocks for long, and the lock would hold up everything
// else.
STDMETHODIMP CNetMonSv::WiFiSurvey() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here) NO_THREAD_SAFETY_ANALYSIS
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            // No result matters, not even that of the opening: whatever it gave is used, and goes back.
            const WiFiHandle wifi(WiFiHandle::GoesBack::Always);
            for (const _DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
            {
                if ((element->AdapterType & enumWiFi) != 0)
                {
                    WiFiSurveyEx2(wifi.Get(), element->DeviceId, 0);
                }
            }
            return S_OK;
        });
}
