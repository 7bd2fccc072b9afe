// Media connect and disconnect. A client that hears "connected" starts to dial, so a wired connect is kept back on the
// pool while DHCP is at work, ten seconds at most; nothing else waits.

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/BstrText.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/TracedMutexLock.h"

#include <new>

namespace
{
constexpr long mediaConnected = 0;    // NdisMediaStateConnected
constexpr long mediaDisconnected = 1; // NdisMediaStateDisconnected
constexpr long deviceReady = -1;
constexpr int gatewayAttempts = 20;
constexpr DWORD gatewayPause = 500; // milliseconds

constexpr wchar_t forcingText[] =
    L"after updating the device it was marked as disconnected on media connect, forcing NdisMediaStateConnected";
} // namespace

void CNetMonSv::ProcessDeviceConnectedEvent(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                            std::list<FireAdapterChangeEventData>& events)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    if (node == nullptr || object == nullptr)
    {
        MonitorTrace::Failure(L"Invalid parameters");
        return;
    }
    // WMI and the driver may lag behind the event; the event wins, before the update and after it.
    if (node->ConnectStatus != mediaConnected)
    {
        MonitorTrace::Note(forcingText);
        node->ConnectStatus = mediaConnected;
    }
    UpdateNodeFromNetworkAdapterObject(node, object, nullptr);
    if (node->ConnectStatus != mediaConnected)
    {
        MonitorTrace::Note(forcingText);
        node->ConnectStatus = mediaConnected;
    }
    if ((node->AdapterType & enumWiFi) != 0)
    {
        MonitorTrace::Note(L"not waiting for IP configuration for 802.11 adapters");
        MonitorTrace::Note(L"firing media connect on a wifi adapter");
        events.emplace_back(node->DeviceId, GetAdjacentMac(node), enumEventMediaConnect);
        return;
    }
    WAIT_FOR_DCHP_EVENT context{TextOrEmpty(node->DeviceId), {}};
    if (const HRESULT result = object->Clone(&context.object); FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Error clone failed!"); // this connect is lost to the clients
        return;
    }
    CWorkItem* const item = new (std::nothrow) NetUtilities::WorkItemMember1<CNetMonSv, WAIT_FOR_DCHP_EVENT>(
        this, &CNetMonSv::WaitForDefaultGatewayThread, std::move(context));
    if (!AddToPool(item))
    {
        MonitorTrace::Failure(L"Failed to start thread to wait for default gateway");
    }
}

void CNetMonSv::ProcessDeviceDisconnectedEvent(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                               std::list<FireAdapterChangeEventData>& events)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    if (node == nullptr || object == nullptr)
    {
        MonitorTrace::Failure(L"Invalid parameters");
        return;
    }
    if (node->DeviceStatus != deviceReady)
    {
        MonitorTrace::Doubt(L"received a media disconnect for a device that is not ready or been removed");
    }
    if (node->ConnectStatus != mediaDisconnected)
    {
        MonitorTrace::Note(forcingText); // the text of a connect, here too
        node->ConnectStatus = mediaDisconnected;
    }
    UpdateNodeFromNetworkAdapterObject(node, object, nullptr);
    if (node->ConnectStatus != mediaDisconnected)
    {
        MonitorTrace::Note(
            L"after updating the device it was marked as connected on media disconnect, NdisMediaStateDisconnected");
        node->ConnectStatus = mediaDisconnected;
    }
    events.emplace_back(node->DeviceId, nullptr, enumEventMediaDisconnect);
}

// Runs on a pool thread, without the list lock but for the update at its end.
void CNetMonSv::WaitForDefaultGatewayThread(WAIT_FOR_DCHP_EVENT context)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const ComApartment apartment;
    if (FAILED(apartment.Result()))
    {
        MonitorTrace::FailureResult(apartment.Result(), L"WaitForDefaultGatewayThread: COM initialization failed");
    }
    // The object goes before the apartment does.
    IWbemClassObjectPtr object = context.object;
    context.object = nullptr;
    if (object == nullptr)
    {
        MonitorTrace::Failure(L"WaitForDefaultGatewayThread: Invalid argument");
        return;
    }
    // The result is for the trace only: a connect is told with or without a gateway.
    IWbemClassObject* current = object.Detach();
    const int gateway = WaitForIpDefaultGateway(&current, gatewayAttempts);
    object.Attach(current);
    MonitorTrace::Note(gateway != 0 ? L"got default GW" : L"did not get default GW");
    if (wmiCleanupEvent.Wait(0))
    {
        MonitorTrace::Note(L"the WMI cleanup has started--exiting DHCP wait thread");
        return;
    }
    _bstr_t deviceId;
    _bstr_t adjacentMac;
    if (UpdateAfterGatewayWait(context.deviceId, object, deviceId, adjacentMac))
    {
        MonitorTrace::Note(L"WaitForDefaultGatewayThread: firing media connect event from WaitForDefaultGatewayThread");
        Fire_AdapterChange(deviceId.GetBSTR(), adjacentMac.GetBSTR(), enumEventMediaConnect);
    }
    else
    {
        MonitorTrace::Note(
            L"WaitForDefaultGatewayThread: NOT firing media connect event from WaitForDefaultGatewayThread");
    }
    object = nullptr;
    MonitorTrace::Note(L"WaitForDefaultGatewayThread: exiting thread");
}

// False if the adapter left in the meantime. An object that could not be fetched again leaves the element as it is; the
// event goes all the same.
bool CNetMonSv::UpdateAfterGatewayWait(const std::wstring& id, IWbemClassObject* object, _bstr_t& deviceId,
                                       _bstr_t& adjacentMac)
{
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    _DEVICE_ELEMENT* element = deviceInfoListHead;
    while (element != nullptr && (element->DeviceId == nullptr || id != element->DeviceId))
    {
        element = element->pNext;
    }
    if (element == nullptr)
    {
        return false;
    }
    if (element->DeviceStatus != deviceReady)
    {
        MonitorTrace::Doubt(L"WaitForDefaultGatewayThread: just got a connect event on a device that is not ready "
                            L"(forcing it to be ready)");
        element->DeviceStatus = deviceReady;
    }
    if (object != nullptr)
    {
        UpdateNodeFromNetworkAdapterObject(element, object, nullptr);
    }
    deviceId = CopyToBstr(element->DeviceId);
    adjacentMac = CopyToBstr(GetAdjacentMac(element));
    return true;
}

int CNetMonSv::WaitForIpDefaultGateway(IWbemClassObject** object, int attempts)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    _variant_t settingId;
    WmiValues::Read(*object, L"SettingID", settingId);
    if (WmiValues::IsNull(settingId))
    {
        MonitorTrace::Failure(L"WaitForIpDefaultGateway: device name is invalid");
        return 0;
    }
    const std::wstring deviceName = WmiValues::Text(settingId);
    MonitorTrace::Note(L"WaitForIpDefaultGateway: device name is {}", deviceName);
    for (int attempt = 0; attempt < attempts; ++attempt)
    {
        if (wmiCleanupEvent.Wait(0))
        {
            MonitorTrace::Note(
                L"WaitForIpDefaultGateway: cancel WaitForIpDefaultGateway because we are shutting WMI down");
            return 0;
        }
        if (*object == nullptr)
        {
            continue; // the attempt is used up, without a pause
        }
        _variant_t gateways;
        WmiValues::Read(*object, L"DefaultIPGateway", gateways);
        if (const std::vector<std::wstring> entries = WmiValues::Strings(gateways); !entries.empty())
        {
            // An empty string counts.
            MonitorTrace::Note(L"WaitForIpDefaultGateway: current default gateway: {}", WmiValues::Join(entries, L","));
            return 1;
        }
        MonitorTrace::Note(L"WaitForIpDefaultGateway: no current default gateway, waiting...");
        (*object)->Release();
        *object = nullptr;
        Clock::Current().Sleep(gatewayPause);
        *object = GetWmiObjInstanceByDeviceId(deviceName.c_str());
    }
    return 0;
}
