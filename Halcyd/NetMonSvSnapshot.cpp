// The deep copy of the list that a client gets. Nothing of it is kept here.

#include "Halcyd/LinkSpeed.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "Halcyd/SignalPercent.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/TracedMutexLock.h"
#include "WiFiWrap/wifiwraplib.h"

#include <algorithm>
#include <cstring>

namespace
{
constexpr wchar_t settingsKey[] = L"SOFTWARE\\QRLS\\Sorvane\\Settings";

// A zeroed block for the client, or null.
template <class Record>
Record* AllocateRecord() noexcept
{
    auto* const record = static_cast<Record*>(CoTaskMemAlloc(sizeof(Record)));
    if (record != nullptr)
    {
        *record = {};
    }
    return record;
}

// A null string stays null.
BSTR CopyString(BSTR text) noexcept
{
    return text != nullptr ? SysAllocStringLen(text, SysStringLen(text)) : nullptr;
}

// Everything but the extension. Caption, CommPort and the link to the next element stay zero.
void CopyCommonPart(const _DEVICE_ELEMENT& from, _DEVICE_ELEMENT& to) noexcept
{
    to.Size = from.Size;
    to.DeviceIndex = from.DeviceIndex;
    to.DeviceId = CopyString(from.DeviceId);
    to.DeviceInstanceID = CopyString(from.DeviceInstanceID);
    to.Description = CopyString(from.Description);
    to.ServiceName = CopyString(from.ServiceName);
    to.DeviceStatus = from.DeviceStatus;
    to.ConnectStatus = from.ConnectStatus;
    to.AdapterType = from.AdapterType;
    to.IpInfo.IpAddress = CopyString(from.IpInfo.IpAddress);
    to.IpInfo.IpSubnet = CopyString(from.IpInfo.IpSubnet);
    to.IpInfo.IpGateway = CopyString(from.IpInfo.IpGateway);
    to.IpInfo.IpDnsServerList = CopyString(from.IpInfo.IpDnsServerList);
    to.IpInfo.IpWinsServerList = CopyString(from.IpInfo.IpWinsServerList);
    to.IpInfo.IpDnsSuffixServerList = CopyString(from.IpInfo.IpDnsSuffixServerList);
}

_ETHERNET_ADAPTER* CopyEthernet(const _ETHERNET_ADAPTER& from) noexcept
{
    auto* const to = AllocateRecord<_ETHERNET_ADAPTER>();
    if (to != nullptr)
    {
        to->AdapterMacAddress = CopyString(from.AdapterMacAddress);
        to->LinkSpeed = LinkSpeedForClient(from.LinkSpeed);
        to->DriverInfo = CopyString(from.DriverInfo);
        to->GatewayMacAddress = CopyString(from.GatewayMacAddress);
    }
    return to;
}

// Copy number `number` of a network; the first, number 0, keeps the name. Empty when memory is short.
UniqueCoTaskMem<_WIFI_DETAILS> CopyNetwork(const _WIFI_DETAILS& from, std::uint32_t number)
{
    MonitorTrace::Detail(L"GetDeviceInfoList: Copy wifi details");
    UniqueCoTaskMem<_WIFI_DETAILS> copy(AllocateRecord<_WIFI_DETAILS>());
    _WIFI_DETAILS* const to = copy.get();
    if (to == nullptr)
    {
        return copy;
    }
    std::memcpy(to->DeviceName, from.DeviceName, sizeof to->DeviceName);
    std::memcpy(to->DeviceDesc, from.DeviceDesc, sizeof to->DeviceDesc);
    if (number == 0)
    {
        std::memcpy(to->Ssid, from.Ssid, sizeof to->Ssid);
    }
    else
    {
        // One character is kept back for the end of the text: a name of full length loses part of its ending.
        _snwprintf(to->Ssid, std::size(to->Ssid) - 1, L"%s_%lu", from.Ssid, static_cast<unsigned long>(number));
        MonitorTrace::Detail(L"adding a fake ssid '{}'", TextOrEmpty(to->Ssid));
    }
    std::memcpy(to->MacAddress, from.MacAddress, sizeof to->MacAddress);
    std::memcpy(to->ProfileName, from.ProfileName, sizeof to->ProfileName);
    to->SignalStrength =
        WiFiIsNativeApiInUse() ? from.SignalStrength : SignalPercent(static_cast<std::int32_t>(from.SignalStrength));
    to->Privacy = from.Privacy;
    to->NetworkType = from.NetworkType;
    to->Timestamp = from.Timestamp;
    to->InfrastructureMode = from.InfrastructureMode;
    to->MaxRate = from.MaxRate;
    return copy;
}

// How many copies of each network are handed out; a setting for tests of clients.
std::uint32_t ReadWifiFactor()
{
    std::uint32_t factor = 0;
    RegistryKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, settingsKey, KEY_READ) == ERROR_SUCCESS)
    {
        key.ReadDword(L"wifiFactor", factor);
        MonitorTrace::Detail(L"adding '{}' copies of each ssid", factor);
    }
    return factor;
}

// The copy is in its place before it is filled: it belongs to the client even if the rest cannot be had.
void CopyWiFi(const _WIFI_ADAPTER& from, _WIFI_ADAPTER*& place)
{
    place = AllocateRecord<_WIFI_ADAPTER>();
    _WIFI_ADAPTER* const to = place;
    if (to == nullptr)
    {
        return;
    }
    to->AdapterMacAddress = CopyString(from.AdapterMacAddress);
    to->LinkSpeed = LinkSpeedForClient(from.LinkSpeed);
    to->DriverInfo = CopyString(from.DriverInfo);
    to->BssidMacAddress = CopyString(from.BssidMacAddress);
    to->Ssid = CopyString(from.Ssid);
    to->Rssi = from.Rssi;
    to->BssidCount = from.BssidCount;
    const std::uint32_t copies = std::max<std::uint32_t>(ReadWifiFactor(), 1);
    _WIFI_DETAILS** end = &to->pDetails;
    for (const _WIFI_DETAILS* network = from.pDetails; network != nullptr; network = network->pNext)
    {
        for (std::uint32_t number = 0; number < copies; ++number)
        {
            if (UniqueCoTaskMem<_WIFI_DETAILS> copy = CopyNetwork(*network, number))
            {
                *end = copy.release();
                end = &(*end)->pNext;
            }
        }
    }
}

void CopyExtension(const _DEVICE_ELEMENT& from, _DEVICE_ELEMENT& to)
{
    if (from.AdapterType == enumEthernet)
    {
        if (from.u.pEthernetAdapter != nullptr)
        {
            MonitorTrace::Detail(L"GetDeviceInfoList: copy Ethernet");
            to.u.pEthernetAdapter = CopyEthernet(*from.u.pEthernetAdapter);
        }
        else
        {
            MonitorTrace::Note(L"ethernet device does not have a device extension");
        }
    }
    else if (from.AdapterType == enumWiFi && from.u.pWiFiAdapter != nullptr)
    {
        MonitorTrace::Detail(L"GetDeviceInfoList: copy WiFi");
        CopyWiFi(*from.u.pWiFiAdapter, to.u.pWiFiAdapter);
    }
}
} // namespace

STDMETHODIMP CNetMonSv::GetDeviceInfoList(_DEVICE_ELEMENT** ppList) noexcept
{
    if (ppList != nullptr)
    {
        *ppList = nullptr;
    }
    // Success in every case. The copy grows where the client looks for it: a shortage of memory, wherever it comes,
    // leaves what there is of it as the result.
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            if (ppList == nullptr)
            {
                return S_OK; // a copy made now could never be freed
            }
            CopyDeviceInfoList(ppList, here);
            if (*ppList == nullptr)
            {
                MonitorTrace::Note(L"NetMon returning NULL device info list");
            }
            return S_OK;
        }));
    return S_OK;
}

void CNetMonSv::CopyDeviceInfoList(_DEVICE_ELEMENT** end, const std::source_location& here)
{
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex", here);
    for (const _DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
    {
        MonitorTrace::Detail(L"GetDeviceInfoList: copying device list element {} ({} bytes)", element->DeviceIndex,
                             element->Size);
        auto* const copy = AllocateRecord<_DEVICE_ELEMENT>();
        if (copy == nullptr)
        {
            MonitorTrace::FailureCode(ERROR_NOT_ENOUGH_MEMORY, L"memory allocation failed");
            break;
        }
        *end = copy;
        end = &copy->pNext;
        MonitorTrace::Detail(L"GetDeviceInfoList: make copy of the common parts of the structure");
        CopyCommonPart(*element, *copy);
        CopyExtension(*element, *copy);
    }
    MonitorTrace::Detail(L"GetDeviceInfoList: Copy Done!");
}
