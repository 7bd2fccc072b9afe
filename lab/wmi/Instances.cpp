#include "lab/wmi/Instances.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>

namespace lab::wmi
{

namespace
{

// Everything that a property may depend on.
struct Source
{
    const Json& state;
    const Json& adapter;
};
using Getter = Json (*)(const Source&);
struct Rule
{
    const char* property;
    Getter get;
};

bool HasIp(const Source& s)
{
    return IsPresent(s.adapter) && IsConnected(s.adapter) && FlagField(s.adapter, "ipEnabled", true);
}

// A list, or nothing: WMI shows an empty list of the adapter as NULL.
Json ListOf(const Json& list)
{
    return list.is_array() && !list.empty() ? list : Json(nullptr);
}

Json Dns(const Source& s)
{
    const Json fixed = ListOf(Member(s.adapter, "dnsStatic"));
    return fixed.is_null() ? ListOf(Member(s.adapter, "dns")) : fixed;
}

Json Suffixes(const Source& s)
{
    const Json own = ListOf(Member(s.adapter, "suffixes"));
    return own.is_null() ? ListOf(Member(s.state, "suffixSearchOrder")) : own;
}

Json AddressList(const Source& s, bool masks)
{
    Json list = Json::array();
    for (const Json& entry : Member(s.adapter, "addresses"))
    {
        const std::string address = TextField(entry, "address");
        const int prefix = static_cast<int>(NumberField(entry, "prefix", 0));
        // WMI writes an IPv4 mask with dots and an IPv6 one as the length of its prefix.
        list.push_back(!masks ? address : IsIpv6(address) ? std::to_string(prefix) : SubnetMask(prefix));
    }
    return ListOf(list);
}

template <Getter get>
Json WithIp(const Source& s)
{
    return HasIp(s) ? get(s) : Json(nullptr);
}

const Json& Dhcp(const Source& s)
{
    return Member(s.adapter, "dhcp");
}

Json Mac(const Source& s)
{
    return IsPresent(s.adapter) ? Member(s.adapter, "mac") : Json(nullptr);
}

bool IsPhysical(const Source& s)
{
    return (NumberField(s.adapter, "characteristics", 0) & 0x4) != 0; // NCF_PHYSICAL
}

Json ConnectionStatus(const Source& s)
{
    if (!s.adapter.contains("alias"))
    {
        return nullptr;
    }
    return !IsPresent(s.adapter) ? 4 : IsConnected(s.adapter) ? 2 : 7; // not present, connected, media disconnected
}

Json Field(const Source& s, const char* key)
{
    return Member(s.adapter, key);
}

#define FIELD(KEY) [](const Source& s) { return Field(s, KEY); }
#define CONSTANT(VALUE) [](const Source&) { return Json(VALUE); }
#define WITH_IP(EXPRESSION) [](const Source& s) { return HasIp(s) ? Json(EXPRESSION) : Json(nullptr); }

// Properties that stand in no rule are NULL, as they are on most machines.
constexpr Rule configurationRules[] = {
    {"Caption", [](const Source& s) { return Json(CaptionOf(s.adapter)); }},
    {"Description", FIELD("description")},
    {"SettingID", FIELD("guid")},
    {"DatabasePath", WITH_IP("%SystemRoot%\\System32\\drivers\\etc")},
    {"DefaultIPGateway", WITH_IP(ListOf(Member(s.adapter, "gateways")))},
    {"DHCPEnabled", [](const Source& s) { return Json(FlagField(Dhcp(s), "enabled", false)); }},
    {"DHCPLeaseExpires", WITH_IP(Member(Dhcp(s), "expires"))},
    {"DHCPLeaseObtained", WITH_IP(Member(Dhcp(s), "obtained"))},
    {"DHCPServer", WITH_IP(Member(Dhcp(s), "server"))},
    {"DNSDomain", WITH_IP(Field(s, "dnsDomain"))},
    {"DNSDomainSuffixSearchOrder", WITH_IP(Suffixes(s))},
    {"DNSEnabledForWINSResolution", WITH_IP(false)},
    {"DNSHostName", WITH_IP(Member(s.state, "hostName"))},
    {"DNSServerSearchOrder", WITH_IP(Dns(s))},
    {"DomainDNSRegistrationEnabled", WITH_IP(false)},
    {"FullDNSRegistrationEnabled", WITH_IP(true)},
    {"GatewayCostMetric",
     [](const Source& s)
     {
         const Json gateways = HasIp(s) ? ListOf(Member(s.adapter, "gateways")) : Json(nullptr);
         return gateways.is_null() ? gateways : Json(std::vector<int>(gateways.size(), 0));
     }},
    {"Index", FIELD("index")},
    {"InterfaceIndex", FIELD("interfaceIndex")},
    {"IPAddress", WITH_IP(AddressList(s, false))},
    {"IPConnectionMetric", WITH_IP(NumberField(s.adapter, "metric", 25))},
    {"IPEnabled", [](const Source& s) { return Json(HasIp(s)); }},
    {"IPFilterSecurityEnabled", WITH_IP(false)},
    {"IPSubnet", WITH_IP(AddressList(s, true))},
    {"MACAddress", Mac},
    {"ServiceName", FIELD("service")},
    {"TcpipNetbiosOptions", WITH_IP(0)},
    {"WINSEnableLMHostsLookup", WITH_IP(true)},
    {"WINSPrimaryServer", WITH_IP(Member(Member(s.adapter, "wins"), "primary"))},
    {"WINSScopeID", WITH_IP("")},
    {"WINSSecondaryServer", WITH_IP(Member(Member(s.adapter, "wins"), "secondary"))},
};

constexpr Rule adapterRules[] = {
    {"Caption", [](const Source& s) { return Json(CaptionOf(s.adapter)); }},
    {"Description", FIELD("description")},
    {"Name", FIELD("description")},
    {"ProductName", FIELD("description")},
    {"Availability", CONSTANT(3)}, // running or full power
    {"ConfigManagerErrorCode", [](const Source& s) { return Json(IsPresent(s.adapter) ? 0 : 45); }},
    {"ConfigManagerUserConfig", CONSTANT(false)},
    {"CreationClassName", CONSTANT("Win32_NetworkAdapter")},
    {"DeviceID", [](const Source& s) { return Json(std::to_string(NumberField(s.adapter, "index", 0))); }},
    {"PNPDeviceID", FIELD("pnpDeviceId")},
    {"PowerManagementSupported", CONSTANT(false)},
    {"SystemCreationClassName", CONSTANT("Win32_ComputerSystem")},
    {"SystemName", [](const Source& s) { return Member(s.state, "hostName"); }},
    {"Speed", WITH_IP(Member(Member(s.adapter, "driver"), "linkSpeed"))},
    {"AdapterType", [](const Source& s) { return Mac(s).is_null() ? Json(nullptr) : Json("Ethernet 802.3"); }},
    {"AdapterTypeID", [](const Source& s) { return Mac(s).is_null() ? Json(nullptr) : Json(0); }},
    {"GUID", [](const Source& s) { return IsPresent(s.adapter) ? Field(s, "guid") : Json(nullptr); }},
    {"Index", FIELD("index")},
    {"Installed", CONSTANT(true)},
    {"InterfaceIndex", FIELD("interfaceIndex")},
    {"MACAddress", Mac},
    {"Manufacturer", FIELD("manufacturer")},
    {"MaxNumberControlled", CONSTANT(0)},
    {"NetConnectionID", FIELD("alias")},
    {"NetConnectionStatus", ConnectionStatus},
    {"NetEnabled", [](const Source& s)
     { return s.adapter.contains("alias") ? Json(IsPresent(s.adapter) && IsConnected(s.adapter)) : Json(nullptr); }},
    {"PhysicalAdapter", [](const Source& s) { return Json(IsPhysical(s)); }},
    {"ServiceName", FIELD("service")},
};

bool IsConfiguration(const ClassType& type)
{
    return EqualNoCase(type.name, L"Win32_NetworkAdapterConfiguration");
}

// For each property of the class its rule, or null.
std::vector<Getter> Getters(const ClassType& type)
{
    std::vector<Getter> getters(type.properties.size());
    const auto enter = [&](const Rule& rule)
    {
        if (const std::size_t index = type.Find(Wide(rule.property)); index != ClassType::npos)
        {
            getters[index] = rule.get;
        }
    };
    if (IsConfiguration(type))
    {
        std::for_each(std::begin(configurationRules), std::end(configurationRules), enter);
    }
    else
    {
        std::for_each(std::begin(adapterRules), std::end(adapterRules), enter);
    }
    return getters;
}

const std::vector<Getter>& CachedGetters(const ClassType& type)
{
    static const std::vector<Getter> configuration =
        Getters(*FindClass(Namespace::Cimv2, L"Win32_NetworkAdapterConfiguration"));
    static const std::vector<Getter> adapter = Getters(*FindClass(Namespace::Cimv2, L"Win32_NetworkAdapter"));
    return IsConfiguration(type) ? configuration : adapter;
}

const Json& Overrides(const ClassType& type, const Json& adapter)
{
    return Member(adapter, IsConfiguration(type) ? "wmi" : "wmiAdapter");
}

bool IsMissing(const Json& override)
{
    return override.is_object() && FlagField(override, "missing", false);
}

const Json* FindOverride(const Json& overrides, const std::wstring& property)
{
    if (!overrides.is_object() || overrides.empty())
    {
        return nullptr;
    }
    const std::string name = Utf8(property);
    for (auto entry = overrides.begin(); entry != overrides.end(); ++entry)
    {
        if (lab::EqualNoCase(entry.key(), name))
        {
            return &*entry;
        }
    }
    return nullptr;
}

Value ValueOf(const ClassType& type, const Source& source, std::size_t index)
{
    const PropertyType& property = type.properties[index];
    if (const Json* override = FindOverride(Overrides(type, source.adapter), property.name))
    {
        return IsMissing(*override) ? Value{} : FromJson(*override, property.type);
    }
    const Getter get = CachedGetters(type)[index];
    return get == nullptr ? Value{} : FromJson(get(source), property.type);
}

bool IsListed(const ClassType& type, const Json& adapter)
{
    return FlagField(adapter, "inWmi", true) && (IsConfiguration(type) || FlagField(adapter, "inAdapterClass", true));
}

} // namespace

std::vector<Reference<ClassObject>> Instances(Namespace space, const ClassPointer& type, const Json& state,
                                              const Condition* where)
{
    std::vector<Reference<ClassObject>> objects;
    if (space != Namespace::Cimv2)
    {
        return objects; // event classes have no instances
    }
    for (const Json& adapter : Member(state, "adapters"))
    {
        const Source source{state, adapter};
        const auto read = [&](std::wstring_view property)
        {
            const std::size_t index = type->Find(property);
            return index == ClassType::npos ? Value{} : ValueOf(*type, source, index);
        };
        if (!IsListed(*type, adapter) || !Meets(where, read))
        {
            continue;
        }
        std::vector<Value> values(type->properties.size());
        std::vector<bool> hidden(type->properties.size());
        for (std::size_t i = 0; i < values.size(); ++i)
        {
            values[i] = ValueOf(*type, source, i);
            const Json* override = FindOverride(Overrides(*type, adapter), type->properties[i].name);
            hidden[i] = override != nullptr && IsMissing(*override);
        }
        objects.push_back(MakeInstance(space, type, std::move(values), std::move(hidden)));
    }
    return objects;
}

const Json* FindByKey(const ClassType& type, const Json& state, std::wstring_view key)
{
    for (const Json& adapter : Member(state, "adapters"))
    {
        if (IsListed(type, adapter) && std::to_wstring(NumberField(adapter, "index", -1)) == key)
        {
            return &adapter;
        }
    }
    return nullptr;
}

} // namespace lab::wmi
