#include "lab/wmi/Schema.h"

namespace lab::wmi
{

namespace
{

constexpr CIMTYPE text = CIM_STRING;
constexpr CIMTYPE texts = CIM_STRING | CIM_FLAG_ARRAY;
constexpr CIMTYPE flag = CIM_BOOLEAN;
constexpr CIMTYPE u8 = CIM_UINT8;
constexpr CIMTYPE u16 = CIM_UINT16;
constexpr CIMTYPE u16s = CIM_UINT16 | CIM_FLAG_ARRAY;
constexpr CIMTYPE u32 = CIM_UINT32;
constexpr CIMTYPE u32s = CIM_UINT32 | CIM_FLAG_ARRAY;
constexpr CIMTYPE u64 = CIM_UINT64;
constexpr CIMTYPE when = CIM_DATETIME;

ClassPointer MakeConfiguration()
{
    ClassType type;
    type.name = L"Win32_NetworkAdapterConfiguration";
    type.superclass = L"CIM_Setting";
    type.ancestors = {L"CIM_Setting"};
    type.properties = {
        {L"Caption", text},
        {L"Description", text},
        {L"SettingID", text},
        {L"ArpAlwaysSourceRoute", flag},
        {L"ArpUseEtherSNAP", flag},
        {L"DatabasePath", text},
        {L"DeadGWDetectEnabled", flag},
        {L"DefaultIPGateway", texts},
        {L"DefaultTOS", u8},
        {L"DefaultTTL", u8},
        {L"DHCPEnabled", flag},
        {L"DHCPLeaseExpires", when},
        {L"DHCPLeaseObtained", when},
        {L"DHCPServer", text},
        {L"DNSDomain", text},
        {L"DNSDomainSuffixSearchOrder", texts},
        {L"DNSEnabledForWINSResolution", flag},
        {L"DNSHostName", text},
        {L"DNSServerSearchOrder", texts},
        {L"DomainDNSRegistrationEnabled", flag},
        {L"ForwardBufferMemory", u32},
        {L"FullDNSRegistrationEnabled", flag},
        {L"GatewayCostMetric", u16s},
        {L"IGMPLevel", u8},
        {L"Index", u32, true},
        {L"InterfaceIndex", u32},
        {L"IPAddress", texts},
        {L"IPConnectionMetric", u32},
        {L"IPEnabled", flag},
        {L"IPFilterSecurityEnabled", flag},
        {L"IPPortSecurityEnabled", flag},
        {L"IPSecPermitIPProtocols", texts},
        {L"IPSecPermitTCPPorts", texts},
        {L"IPSecPermitUDPPorts", texts},
        {L"IPSubnet", texts},
        {L"IPUseZeroBroadcast", flag},
        {L"IPXAddress", text},
        {L"IPXEnabled", flag},
        {L"IPXFrameType", u32s},
        {L"IPXMediaType", u32},
        {L"IPXNetworkNumber", texts},
        {L"IPXVirtualNetNumber", text},
        {L"KeepAliveInterval", u32},
        {L"KeepAliveTime", u32},
        {L"MACAddress", text},
        {L"MTU", u32},
        {L"NumForwardPackets", u32},
        {L"PMTUBHDetectEnabled", flag},
        {L"PMTUDiscoveryEnabled", flag},
        {L"ServiceName", text},
        {L"TcpipNetbiosOptions", u32},
        {L"TcpMaxConnectRetransmissions", u32},
        {L"TcpMaxDataRetransmissions", u32},
        {L"TcpNumConnections", u32},
        {L"TcpUseRFC1122UrgentPointer", flag},
        {L"TcpWindowSize", u16},
        {L"WINSEnableLMHostsLookup", flag},
        {L"WINSHostLookupFile", text},
        {L"WINSPrimaryServer", text},
        {L"WINSScopeID", text},
        {L"WINSSecondaryServer", text},
    };
    type.methods = {
        {L"EnableDHCP", false, {}},
        {L"RenewDHCPLease", false, {}},
        {L"ReleaseDHCPLease", false, {}},
        {L"EnableStatic", false, {{L"IPAddress", texts}, {L"SubnetMask", texts}}},
        {L"SetDNSServerSearchOrder", false, {{L"DNSServerSearchOrder", texts}}},
        {L"SetWINSServer", false, {{L"WINSPrimaryServer", text}, {L"WINSSecondaryServer", text}}},
        {L"SetDNSDomain", false, {{L"DNSDomain", text}}},
        {L"SetDNSSuffixSearchOrder", true, {{L"DNSDomainSuffixSearchOrder", texts}}},
    };
    return std::make_shared<const ClassType>(std::move(type));
}

ClassPointer MakeAdapter()
{
    ClassType type;
    type.name = L"Win32_NetworkAdapter";
    type.superclass = L"CIM_NetworkAdapter";
    type.ancestors = {L"CIM_NetworkAdapter", L"CIM_LogicalDevice", L"CIM_LogicalElement", L"CIM_ManagedSystemElement"};
    type.properties = {
        {L"Caption", text},
        {L"Description", text},
        {L"InstallDate", when},
        {L"Name", text},
        {L"Status", text},
        {L"Availability", u16},
        {L"ConfigManagerErrorCode", u32},
        {L"ConfigManagerUserConfig", flag},
        {L"CreationClassName", text},
        {L"DeviceID", text, true},
        {L"ErrorCleared", flag},
        {L"ErrorDescription", text},
        {L"LastErrorCode", u32},
        {L"PNPDeviceID", text},
        {L"PowerManagementCapabilities", u16s},
        {L"PowerManagementSupported", flag},
        {L"StatusInfo", u16},
        {L"SystemCreationClassName", text},
        {L"SystemName", text},
        {L"AutoSense", flag},
        {L"MaxSpeed", u64},
        {L"NetworkAddresses", texts},
        {L"PermanentAddress", text},
        {L"Speed", u64},
        {L"AdapterType", text},
        {L"AdapterTypeID", u16},
        {L"GUID", text},
        {L"Index", u32},
        {L"Installed", flag},
        {L"InterfaceIndex", u32},
        {L"MACAddress", text},
        {L"Manufacturer", text},
        {L"MaxNumberControlled", u32},
        {L"NetConnectionID", text},
        {L"NetConnectionStatus", u16},
        {L"NetEnabled", flag},
        {L"PhysicalAdapter", flag},
        {L"ProductName", text},
        {L"ServiceName", text},
        {L"TimeOfLastReset", when},
    };
    return std::make_shared<const ClassType>(std::move(type));
}

ClassPointer MakeEvent(const wchar_t* name, bool withDevice)
{
    ClassType type;
    type.name = name;
    type.superclass = L"WMIEvent";
    type.ancestors = {L"WMIEvent", L"__ExtrinsicEvent", L"__Event", L"__IndicationRelated", L"__SystemClass"};
    type.properties = {{L"TIME_CREATED", u64}, {L"Active", flag}, {L"InstanceName", text}};
    if (withDevice)
    {
        type.properties.push_back({L"DeviceName", text});
    }
    return std::make_shared<const ClassType>(std::move(type));
}

const std::vector<ClassPointer>& Classes(Namespace space)
{
    static const std::vector<ClassPointer> cimv2{MakeAdapter(), MakeConfiguration()};
    static const std::vector<ClassPointer> wmi{
        MakeEvent(L"MSNdis_NotifyAdapterArrival", true),   MakeEvent(L"MSNdis_NotifyAdapterRemoval", true),
        MakeEvent(L"MSNdis_StatusMediaConnect", false),    MakeEvent(L"MSNdis_StatusMediaDisconnect", false),
        MakeEvent(L"MSNdis_StatusProtocolBind", false),    MakeEvent(L"MSNdis_StatusProtocolUnbind", false),
        MakeEvent(L"MSNdis_StatusLinkSpeedChange", false), MakeEvent(L"MSNdis_StatusResetEnd", false),
    };
    return space == Namespace::Cimv2 ? cimv2 : wmi;
}

wchar_t Lower(wchar_t c) noexcept
{
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

} // namespace

bool EqualNoCase(std::wstring_view a, std::wstring_view b) noexcept
{
    if (a.size() != b.size())
    {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        if (Lower(a[i]) != Lower(b[i]))
        {
            return false;
        }
    }
    return true;
}

std::wstring_view NamespaceName(Namespace space) noexcept
{
    return space == Namespace::Cimv2 ? L"ROOT\\CIMV2" : L"ROOT\\WMI";
}

std::size_t ClassType::Find(std::wstring_view property) const noexcept
{
    for (std::size_t i = 0; i < properties.size(); ++i)
    {
        if (EqualNoCase(properties[i].name, property))
        {
            return i;
        }
    }
    return npos;
}

const MethodType* ClassType::FindMethod(std::wstring_view method) const noexcept
{
    for (const MethodType& candidate : methods)
    {
        if (EqualNoCase(candidate.name, method))
        {
            return &candidate;
        }
    }
    return nullptr;
}

ClassPointer FindClass(Namespace space, std::wstring_view name)
{
    for (const ClassPointer& type : Classes(space))
    {
        if (EqualNoCase(type->name, name))
        {
            return type;
        }
    }
    return nullptr;
}

ClassPointer InputClass(const MethodType& method)
{
    auto type = std::make_shared<ClassType>();
    type->name = L"__PARAMETERS";
    type->properties = method.in;
    return type;
}

ClassPointer OutputClass()
{
    static const ClassPointer output = []
    {
        auto type = std::make_shared<ClassType>();
        type->name = L"__PARAMETERS";
        type->properties = {{L"ReturnValue", u32}};
        return type;
    }();
    return output;
}

} // namespace lab::wmi
