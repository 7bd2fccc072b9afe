#include "tests/support/AdapterRecords.h"

#include <cstdio>
#include <cwchar>

namespace
{

// Each Take gives the text and frees the BSTR: the copy belongs to the caller of the method.
OptionalText Take(BSTR text)
{
    if (text == nullptr)
        return std::nullopt;
    std::wstring copy(text, SysStringLen(text));
    SysFreeString(text);
    return copy;
}

WiFiNetworkRecord TakeNetwork(_WIFI_DETAILS* details)
{
    WiFiNetworkRecord record;
    record.ssid = details->Ssid;
    record.profileName = details->ProfileName;
    wchar_t mac[18] = {};
    const auto* m = details->MacAddress;
    std::swprintf(mac, 18, L"%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    record.macAddress = mac;
    record.signalStrength = details->SignalStrength;
    CoTaskMemFree(details);
    return record;
}

void TakeEthernet(_ETHERNET_ADAPTER* extension, AdapterRecord& record)
{
    record.hasExtension = true;
    record.extensionSize = extension->Size;
    record.macAddress = Take(extension->AdapterMacAddress);
    record.linkSpeed = extension->LinkSpeed;
    record.driverInfo = Take(extension->DriverInfo);
    record.gatewayMac = Take(extension->GatewayMacAddress);
    CoTaskMemFree(extension);
}

void TakeWiFi(_WIFI_ADAPTER* extension, AdapterRecord& record)
{
    record.hasExtension = true;
    record.extensionSize = extension->Size;
    record.macAddress = Take(extension->AdapterMacAddress);
    record.linkSpeed = extension->LinkSpeed;
    record.driverInfo = Take(extension->DriverInfo);
    record.bssid = Take(extension->BssidMacAddress);
    record.ssid = Take(extension->Ssid);
    for (_WIFI_DETAILS* details = extension->pDetails; details != nullptr;)
    {
        _WIFI_DETAILS* const next = details->pNext;
        record.networks.push_back(TakeNetwork(details));
        details = next;
    }
    CoTaskMemFree(extension);
}

AdapterRecord TakeElement(_DEVICE_ELEMENT* element)
{
    AdapterRecord record;
    record.size = element->Size;
    record.deviceIndex = element->DeviceIndex;
    record.deviceId = Take(element->DeviceId);
    record.deviceInstanceId = Take(element->DeviceInstanceID);
    record.description = Take(element->Description);
    record.serviceName = Take(element->ServiceName);
    record.caption = Take(element->Caption);
    record.commPort = Take(element->CommPort);
    record.deviceStatus = element->DeviceStatus;
    record.connectStatus = element->ConnectStatus;
    record.adapterType = static_cast<std::uint32_t>(element->AdapterType);
    record.ipAddress = Take(element->IpInfo.IpAddress);
    record.ipSubnet = Take(element->IpInfo.IpSubnet);
    record.ipGateway = Take(element->IpInfo.IpGateway);
    record.dnsServers = Take(element->IpInfo.IpDnsServerList);
    record.winsServers = Take(element->IpInfo.IpWinsServerList);
    record.dnsSuffixes = Take(element->IpInfo.IpDnsSuffixServerList);
    if (element->AdapterType == enumEthernet && element->u.pEthernetAdapter != nullptr)
    {
        TakeEthernet(element->u.pEthernetAdapter, record);
    }
    else if (element->AdapterType == enumWiFi && element->u.pWiFiAdapter != nullptr)
    {
        TakeWiFi(element->u.pWiFiAdapter, record);
    }
    CoTaskMemFree(element);
    return record;
}

} // namespace

std::vector<AdapterRecord> ReadAdapterList(INetMonSv* monitor, HRESULT* result)
{
    _DEVICE_ELEMENT* head = nullptr;
    const HRESULT got = monitor->GetDeviceInfoList(&head);
    if (result != nullptr)
        *result = got;
    std::vector<AdapterRecord> list;
    while (head != nullptr)
    {
        _DEVICE_ELEMENT* const next = head->pNext;
        list.push_back(TakeElement(head));
        head = next;
    }
    return list;
}

const AdapterRecord* FindAdapter(const std::vector<AdapterRecord>& list, std::wstring_view deviceId)
{
    const std::wstring wanted(deviceId);
    for (const AdapterRecord& record : list)
    {
        if (record.deviceId && _wcsicmp(record.deviceId->c_str(), wanted.c_str()) == 0)
            return &record;
    }
    return nullptr;
}
