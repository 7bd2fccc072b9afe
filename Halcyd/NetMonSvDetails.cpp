// What the list knows about an adapter: filled from its WMI configuration object, its driver and the device tree.

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "Halcyd/WinsServers.h"
#include "NetUtilities/BstrText.h"
#include "NetUtilities/TracedMutexLock.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <mstcpip.h>

#include <array>

namespace
{
constexpr long deviceReady = -1;
constexpr long mediaDisconnected = 1;
constexpr wchar_t allAdapters[] = L"SELECT * FROM Win32_NetworkAdapter";

bool HasText(BSTR field) noexcept
{
    return SysStringLen(field) > 0;
}

// The properties of a configuration object that an update looks at; a property that cannot be read is empty.
struct ConfigurationValues
{
    explicit ConfigurationValues(IWbemClassObject* object)
    {
        WmiValues::Read(object, L"Index", index);
        WmiValues::Read(object, L"SettingID", settingId);
        WmiValues::Read(object, L"Description", description);
        WmiValues::Read(object, L"ServiceName", serviceName);
        WmiValues::Read(object, L"Caption", caption);
        WmiValues::Read(object, L"MACAddress", macAddress);
        WmiValues::Read(object, L"IPAddress", ipAddress);
        WmiValues::Read(object, L"IPSubnet", ipSubnet);
        WmiValues::Read(object, L"DefaultIPGateway", defaultGateway);
        WmiValues::Read(object, L"DNSServerSearchOrder", dnsServers);
        WmiValues::Read(object, L"DNSDomainSuffixSearchOrder", dnsSuffixes);
        WmiValues::Read(object, L"WINSPrimaryServer", winsPrimary);
        WmiValues::Read(object, L"WINSSecondaryServer", winsSecondary);
        WmiValues::Read(object, L"IPEnabled", ipEnabled); // read with the rest and used for nothing
    }

    _variant_t index, settingId, description, serviceName, caption, macAddress, ipAddress, ipSubnet, defaultGateway,
        dnsServers, dnsSuffixes, winsPrimary, winsSecondary, ipEnabled;
};

// A server address as the WINS rule reads it: a value that was never read is not empty but this literal.
std::wstring WinsText(const VARIANT& value)
{
    return value.vt == VT_EMPTY ? std::wstring(L"<NULL|EMPTY>") : WmiValues::Text(value);
}

void StoreIpInfo(_IP_INFO_NETCFG& info, const ConfigurationValues& values)
{
    MonitorTrace::Note(L"media is connected, set the IP address info");
    // WMI lists the IPv4 address before the IPv6 ones, so the first entry is the IPv4 one. An array that WMI does not
    // have gives an empty string, not a null one.
    CNetMonSv::UpdateBstrField(&info.IpAddress, JoinStrings(values.ipAddress, L",", 1).c_str());
    CNetMonSv::UpdateBstrField(&info.IpSubnet, JoinStrings(values.ipSubnet, L",", 1).c_str());
    CNetMonSv::UpdateBstrField(&info.IpGateway, JoinStrings(values.defaultGateway, L",", 1).c_str());
    CNetMonSv::UpdateBstrField(&info.IpDnsServerList, JoinStrings(values.dnsServers, L",", 0).c_str());
    CNetMonSv::UpdateBstrField(&info.IpDnsSuffixServerList, JoinStrings(values.dnsSuffixes, L",", 0).c_str());
    const std::wstring wins = JoinWinsServers(WinsText(values.winsPrimary), WinsText(values.winsSecondary));
    CNetMonSv::UpdateBstrField(&info.IpWinsServerList, wins.empty() ? nullptr : wins.c_str());
}

void ClearIpInfo(_IP_INFO_NETCFG& info)
{
    MonitorTrace::Note(L"media is disconnected, clear all the IP address info");
    for (BSTR* field : {&info.IpAddress, &info.IpSubnet, &info.IpGateway, &info.IpDnsServerList, &info.IpWinsServerList,
                        &info.IpDnsSuffixServerList})
    {
        CNetMonSv::UpdateBstrField(field, nullptr);
    }
}

void TraceIpInfo(const _DEVICE_ELEMENT& node)
{
    const _IP_INFO_NETCFG& info = node.IpInfo;
    MonitorTrace::Note(L"IP v4 address info: {}\nAddress   : {}\nSubnet    : {}\nGateway   : {}\nDns Server: "
                       L"{}\nSuffix    : {}\nWINS      : "
                       L"{}\nStatus    : {}",
                       TextOrEmpty(node.Description), TextOrEmpty(info.IpAddress), TextOrEmpty(info.IpSubnet),
                       TextOrEmpty(info.IpGateway), TextOrEmpty(info.IpDnsServerList),
                       TextOrEmpty(info.IpDnsSuffixServerList), TextOrEmpty(info.IpWinsServerList),
                       node.DeviceStatus != 0 ? L"Enabled" : L"Disabled");
}

// An IPv4 address in network byte order, from strict dotted text; all ones for anything else.
std::uint32_t ParseIpv4(const wchar_t* text) noexcept
{
    LPWSTR end = nullptr;
    IN_ADDR address{};
    return RtlIpv4StringToAddressW(text, TRUE, &end, &address) == 0 ? address.S_un.S_addr : INADDR_NONE;
}
} // namespace

void CNetMonSv::UpdateBstrField(BSTR* field, const wchar_t* value)
{
    if (value == nullptr)
    {
        SysFreeString(*field);
        *field = nullptr;
    }
    else if (*field == nullptr || std::wstring_view(*field, SysStringLen(*field)) != value)
    {
        SysFreeString(*field);
        *field = SysAllocString(value);
    }
}

void CNetMonSv::UpdateBstrFromVariant(BSTR* field, VARIANT* value)
{
    if (WmiValues::IsNull(*value))
    {
        UpdateBstrField(field, nullptr);
    }
    else
    {
        UpdateBstrField(field, WmiValues::Text(*value).c_str());
    }
}

HRESULT CNetMonSv::UpdateNodeFromNetworkAdapterObject(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                                      IEnumWbemClassObject* adapters)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Failure(L"pNode == NULL");
        return E_FAIL;
    }
    MonitorTrace::Note(L"getting the common ndis adapter info");
    GetCommonAdapterInfo(node, object, adapters);
    if (node->AdapterType == enumEthernet)
    {
        MonitorTrace::Note(L"getting Ethernet adapter info");
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        GetEthernetAdapterInfo(node, object);
    }
    else if (node->AdapterType == enumWiFi)
    {
        MonitorTrace::Note(L"getting WiFi adapter info");
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        GetWiFiAdapterInfo(node, object);
    }
    else
    {
        MonitorTrace::Note(L"the device type is not known was GetDeviceType() called?");
    }
    return S_OK;
}

HRESULT CNetMonSv::GetCommonAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object, IEnumWbemClassObject* adapters)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Failure(L"pNode == NULL");
        return E_FAIL;
    }
    ConfigurationValues values(object);
    node->DeviceIndex = WmiValues::Number(values.index);
    UpdateIdentity(node, object, adapters, values.settingId, values.description, values.serviceName);
    UpdateBstrFromVariant(&node->Caption, &values.caption);
    MonitorTrace::Note(L"node description is '{}'", TextOrEmpty(node->Description));

    if (WmiValues::IsNull(values.macAddress))
    {
        MonitorTrace::Doubt(L"### why is the mac address null right now '{}'", TextOrEmpty(node->Description));
    }
    else if (WmiValues::Text(values.macAddress).empty())
    {
        MonitorTrace::Doubt(L"#### why is the mac address null right now {}", TextOrEmpty(node->Description));
    }
    else
    {
        node->DeviceStatus = deviceReady;
    }
    if (static_cast<int>(node->AdapterType) < 2)
    {
        MonitorTrace::Note(L"adapter type is not known...trying to determine type");
        node->AdapterType = GetDeviceType(object);
    }
    // The state is that of the last update: the extension's step refreshes it afterwards. An element's first update
    // thus sees "connected" and takes the addresses in, even with the cable out; the next one clears them.
    if (node->ConnectStatus != mediaDisconnected)
    {
        StoreIpInfo(node->IpInfo, values);
    }
    else
    {
        ClearIpInfo(node->IpInfo);
    }
    TraceIpInfo(*node);
    return S_OK;
}

// The fields that are set once in an element's life.
void CNetMonSv::UpdateIdentity(_DEVICE_ELEMENT* node, IWbemClassObject* object, IEnumWbemClassObject* adapters,
                               VARIANT& settingId, VARIANT& description, VARIANT& serviceName)
{
    if (HasText(node->DeviceId))
    {
        MonitorTrace::Detail(L"DeviceID has already been updated with {} id.", TextOrEmpty(node->DeviceId));
    }
    else
    {
        UpdateBstrFromVariant(&node->DeviceId, &settingId);
    }
    if (!HasText(node->DeviceInstanceID))
    {
        NetUtilities::DeviceInfo info;
        if (GetDeviceInfoFromNetworkAdapterConfiguration(object, info, adapters) && !info.Nodes.empty())
        {
            UpdateBstrField(&node->DeviceInstanceID, info.Nodes.front().DeviceId.c_str());
        }
        else
        {
            MonitorTrace::Note(L"Could not get device instance ID for node, using setting ID instead");
            UpdateBstrFromVariant(&node->DeviceInstanceID, &settingId);
        }
    }
    if (HasText(node->Description))
    {
        MonitorTrace::Detail(L"Description has already been updated with {}", TextOrEmpty(node->Description));
    }
    else
    {
        UpdateBstrFromVariant(&node->Description, &description);
    }
    if (HasText(node->ServiceName))
    {
        MonitorTrace::Detail(L"Service name has already been updated with {}", TextOrEmpty(node->ServiceName));
    }
    else
    {
        UpdateBstrFromVariant(&node->ServiceName, &serviceName);
    }
}

bool CNetMonSv::GetDeviceInfoFromNetworkAdapterConfiguration(IWbemClassObject* object, NetUtilities::DeviceInfo& info,
                                                             IEnumWbemClassObject* adapters)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (cimv2Namespace == nullptr)
    {
        MonitorTrace::Failure(L"Namespace not ready");
        return false;
    }
    _variant_t index;
    if (const HRESULT result = WmiValues::Read(object, L"Index", index); FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Failed to get Index from NAC");
        return false;
    }
    const long wanted = WmiValues::Number(index);
    MonitorTrace::Note(L"Attempting to get device info from index '{}'", wanted);
    IEnumWbemClassObjectPtr search;
    if (adapters != nullptr)
    {
        if (const HRESULT result = adapters->Reset(); FAILED(result))
        {
            MonitorTrace::FailureResult(result, L"Could not reset pNetworkAdapterEnum");
            return false;
        }
        search = adapters;
    }
    else if (const HRESULT result = WmiValues::Query(cimv2Namespace, allAdapters, WBEM_FLAG_FORWARD_ONLY, search);
             FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Failed exec query {}", allAdapters);
        return false;
    }
    const std::wstring id = FindPnpDeviceId(search, wanted);
    if (id.empty())
    {
        MonitorTrace::Failure(L"Error corresponding network adapter PNP ID not found!");
        return false;
    }
    NetUtilities::DeviceInfoHelper helper(Log::Source::NetMon);
    return helper.GetDeviceInfo(id, info, false);
}

std::wstring CNetMonSv::FindPnpDeviceId(IEnumWbemClassObject* adapters, long wanted)
{
    for (;;)
    {
        IWbemClassObjectPtr adapter;
        ULONG count = 0;
        if (adapters->Next(WmiValues::NoTimeLimit, 1, &adapter, &count) != WBEM_S_NO_ERROR || adapter == nullptr)
        {
            return {};
        }
        _variant_t index;
        if (FAILED(WmiValues::Read(adapter, L"Index", index)) || WmiValues::Number(index) != wanted)
        {
            continue;
        }
        _variant_t id;
        if (const HRESULT result = WmiValues::Read(adapter, L"PNPDeviceID", id); FAILED(result))
        {
            MonitorTrace::FailureResult(result, L"Failed to get PNPDeviceID");
        }
        return WmiValues::Text(id);
    }
}

HRESULT CNetMonSv::GetEthernetAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (node == nullptr)
    {
        MonitorTrace::Failure(L"pNode == NULL");
        return E_FAIL;
    }
    const std::wstring id = TextOrEmpty(node->DeviceId);
    if (node->DeviceStatus == deviceReady && node->u.pEthernetAdapter == nullptr)
    {
        MonitorTrace::Note(L"GetEthernetAdapterInfo: creating new device extension for '{}'", id);
        node->u.pEthernetAdapter = static_cast<_ETHERNET_ADAPTER*>(CoTaskMemAlloc(sizeof(_ETHERNET_ADAPTER)));
        if (node->u.pEthernetAdapter == nullptr)
        {
            MonitorTrace::FailureResult(E_OUTOFMEMORY, L"could not allocate memory for device extension for '{}'", id);
            return E_OUTOFMEMORY;
        }
        *node->u.pEthernetAdapter = {};
        MonitorTrace::Note(L"created new device extension for '{}'", id);
    }
    if (node->DeviceStatus != deviceReady)
    {
        MonitorTrace::Note(L"device does not have ethernet enabled...deleting device extension");
        DeleteEthernetDeviceExtension(node);
    }
    if (node->u.pEthernetAdapter == nullptr)
    {
        return S_OK;
    }
    MonitorTrace::Note(L"updating node for '{}'", id);
    _ETHERNET_ADAPTER& extension = *node->u.pEthernetAdapter;
    _variant_t macAddress;
    WmiValues::Read(object, L"MacAddress", macAddress);
    UpdateBstrFromVariant(&extension.AdapterMacAddress, &macAddress);
    // Blocks for an ARP exchange, with the list locked. Without an answer the field is empty, not null.
    _bstr_t gatewayMac;
    GetGatewayMacAddress(CopyToBstr(node->IpInfo.IpAddress), CopyToBstr(node->IpInfo.IpGateway), gatewayMac);
    UpdateBstrField(&extension.GatewayMacAddress, gatewayMac);

    void* handle = nullptr;
    if (OpenMiniportDriver(node->DeviceId, &handle) != ERROR_SUCCESS)
    {
        MonitorTrace::Failure(L"could not open driver for '{}'", id);
        return S_OK; // link data and media state keep their values
    }
    MonitorTrace::Note(L"getting the ethernet adapter info from device object '{}'", id);
    extension.LinkSpeed = GetLinkSpeedMbps(handle);
    std::array<wchar_t, 261> driverInfo{}; // one more than offered, so that it always ends
    GetDriverInfo(handle, driverInfo.data(), static_cast<unsigned long>(driverInfo.size() - 1));
    UpdateBstrField(&extension.DriverInfo, driverInfo.data());
    GetMediaConnectStatus(handle, &node->ConnectStatus);
    if (CloseMiniportDriver(handle) != 1)
    {
        MonitorTrace::MiniportClosingProblem();
    }
    return S_OK;
}

const wchar_t* CNetMonSv::GetGatewayMacAddress(const _bstr_t& source, const _bstr_t& gateway, _bstr_t& mac)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    mac = CopyToBstr(L"");
    if (source.length() == 0)
    {
        MonitorTrace::Note(L"The source IP is empty, can't do a send ARP with that address");
        return nullptr;
    }
    if (gateway.length() == 0)
    {
        MonitorTrace::Note(L"The gateway IP is empty, can't do a send ARP with that address");
        return nullptr;
    }
    std::array<BYTE, 8> physical; // room for what SendARP may take for granted; six bytes are asked for
    physical.fill(0xFF);
    ULONG length = 6;
    const wchar_t* const sourceText = source;
    const wchar_t* const gatewayText = gateway;
    MonitorTrace::Note(L"MySendArp: source address  {} {}", sourceText, source.length());
    MonitorTrace::Note(L"MySendArp: gateway address {} {}", gatewayText, gateway.length());
    const std::uint32_t sourceAddress = ParseIpv4(sourceText);
    const std::uint32_t gatewayAddress = ParseIpv4(gatewayText);
    if (sourceAddress == INADDR_NONE)
    {
        MonitorTrace::Failure(L"invalid source address for ARP call (val={})", sourceAddress);
        return nullptr;
    }
    if (gatewayAddress == INADDR_NONE)
    {
        MonitorTrace::Failure(L"invalid destination gateway address for ARP call (val={})", gatewayAddress);
        return nullptr;
    }
    MonitorTrace::Note(L"converted '{}' to '{}' for ARP source address", sourceText, sourceAddress);
    MonitorTrace::Note(L"converted '{}' to '{}' for ARP destination address", gatewayText, gatewayAddress);
    if (const DWORD error = SendARP(gatewayAddress, sourceAddress, physical.data(), &length); error != NO_ERROR)
    {
        MonitorTrace::Failure(L"SendARP failed ({:#08x})", error);
        return nullptr;
    }
    MonitorTrace::Note(L"SendARP successful and length of result is '{}'", length);
    // All six bytes, whatever the length says.
    const std::wstring text = FormatText(L"{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", physical[0], physical[1],
                                         physical[2], physical[3], physical[4], physical[5]);
    MonitorTrace::Note(L"SendARP: physical length is '{}'", text);
    mac = CopyToBstr(text.c_str());
    return mac;
}
