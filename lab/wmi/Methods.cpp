#include "lab/wmi/Methods.h"

#include "lab/state/Changes.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"
#include "lab/wmi/Instances.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace lab::wmi
{

namespace
{

// One run of a method: where it works, on what, with which input.
struct Run
{
    Json& state;
    Json* adapter; // null in a static method
    const ClassObject* in;
    Events& events;

    [[nodiscard]] Json Input(const wchar_t* name) const
    {
        return in == nullptr ? Json(nullptr) : ToJson(in->Read(name));
    }
    [[nodiscard]] bool UsesDhcp() const { return FlagField(Member(*adapter, "dhcp"), "enabled", false); }
};

// RtlIpv4StringToAddressW and its IPv6 sister, found at run time: not every import library has them.
template <class Address>
bool Parses(const char* function, const std::wstring& text)
{
    using Parser4 = LONG(NTAPI*)(PCWSTR, BOOLEAN, PCWSTR*, Address*);
    using Parser6 = LONG(NTAPI*)(PCWSTR, PCWSTR*, Address*);
    const FARPROC procedure = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), function);
    PCWSTR end = nullptr;
    Address address{};
    LONG status = -1;
    if constexpr (sizeof(Address) == sizeof(IN_ADDR))
    {
        status = reinterpret_cast<Parser4>(reinterpret_cast<void*>(procedure))(text.c_str(), TRUE, &end, &address);
    }
    else
    {
        status = reinterpret_cast<Parser6>(reinterpret_cast<void*>(procedure))(text.c_str(), &end, &address);
    }
    return status == 0 && end != nullptr && *end == 0;
}

bool IsAddress(const std::string& text)
{
    const std::wstring wide = Wide(text);
    return Parses<IN_ADDR>("RtlIpv4StringToAddressW", wide) || Parses<IN6_ADDR>("RtlIpv6StringToAddressW", wide);
}

bool AreAddresses(const Json& list)
{
    for (const Json& entry : list)
    {
        if (!IsAddress(entry.get<std::string>()))
        {
            return false;
        }
    }
    return true;
}

std::string Joined(const Json& list)
{
    std::string text;
    for (const Json& entry : list)
    {
        text += (text.empty() ? "" : ",") + entry.get<std::string>();
    }
    return text;
}

// The stack keeps its settings in the registry as well, where other programs read them.
void WriteSetting(const Json* adapter, const wchar_t* name, DWORD type, const void* data, std::size_t size)
{
    std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters";
    if (adapter != nullptr)
    {
        key += L"\\Interfaces\\" + Wide(TextField(*adapter, "guid"));
    }
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, type, data, static_cast<DWORD>(size));
}

void WriteText(const Json* adapter, const wchar_t* name, const std::string& text)
{
    const std::wstring wide = Wide(text);
    WriteSetting(adapter, name, REG_SZ, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
}

void WriteDhcp(const Json* adapter, bool enabled)
{
    const DWORD value = enabled ? 1 : 0;
    WriteSetting(adapter, L"EnableDHCP", REG_DWORD, &value, sizeof value);
}

MethodResult SetDnsServers(const Run& run)
{
    const Json servers = run.Input(L"DNSServerSearchOrder");
    if (!AreAddresses(servers))
    {
        return MethodResult::InvalidIpAddress;
    }
    // Nothing, or an empty list, gives the servers back to DHCP.
    (*run.adapter)["dnsStatic"] = servers.is_array() ? servers : Json::array();
    if (servers.empty())
    {
        (*run.adapter)["dns"] =
            run.UsesDhcp() ? Member(Member(Member(*run.adapter, "dhcp"), "lease"), "dns") : Json::array();
    }
    WriteText(run.adapter, L"NameServer", Joined(servers));
    return MethodResult::Done;
}

MethodResult SetWins(const Run& run)
{
    const Json primary = run.Input(L"WINSPrimaryServer");
    const Json secondary = run.Input(L"WINSSecondaryServer");
    for (const Json& server : {primary, secondary})
    {
        if (server.is_string() && !server.get_ref<const std::string&>().empty() &&
            !IsAddress(server.get<std::string>()))
        {
            return MethodResult::InvalidIpAddress;
        }
    }
    (*run.adapter)["wins"] = {{"primary", primary == "" ? Json(nullptr) : primary},
                              {"secondary", secondary == "" ? Json(nullptr) : secondary}};
    return MethodResult::Done;
}

MethodResult SetSuffixes(const Run& run)
{
    const Json suffixes = run.Input(L"DNSDomainSuffixSearchOrder");
    run.state["suffixSearchOrder"] = suffixes.is_array() ? suffixes : Json::array();
    WriteText(nullptr, L"SearchList", Joined(suffixes));
    return MethodResult::Done;
}

MethodResult SetDomain(const Run& run)
{
    const Json domain = run.Input(L"DNSDomain");
    (*run.adapter)["dnsDomain"] = domain;
    WriteText(run.adapter, L"Domain", domain.is_string() ? domain.get<std::string>() : "");
    return MethodResult::Done;
}

MethodResult EnableDhcp(const Run& run)
{
    (*run.adapter)["dhcp"]["enabled"] = true;
    WriteDhcp(run.adapter, true);
    ApplyLease(*run.adapter, run.events);
    return MethodResult::Done;
}

MethodResult EnableStatic(const Run& run)
{
    const Json addresses = run.Input(L"IPAddress");
    const Json masks = run.Input(L"SubnetMask");
    if (!addresses.is_array() || !masks.is_array() || addresses.empty() || addresses.size() != masks.size())
    {
        return MethodResult::InvalidInput;
    }
    if (!AreAddresses(addresses))
    {
        return MethodResult::InvalidIpAddress;
    }
    Json list = Json::array();
    for (std::size_t i = 0; i < addresses.size(); ++i)
    {
        const auto prefix = PrefixOf(masks[i].get<std::string>());
        if (!prefix)
        {
            return MethodResult::InvalidSubnetMask;
        }
        list.push_back({{"address", addresses[i]}, {"prefix", *prefix}});
    }
    if (run.UsesDhcp())
    {
        DropLease(*run.adapter, run.events);
    }
    (*run.adapter)["dhcp"]["enabled"] = false;
    WriteDhcp(run.adapter, false);
    WriteText(run.adapter, L"IPAddress", Joined(addresses));
    WriteText(run.adapter, L"SubnetMask", Joined(masks));
    SetAddresses(*run.adapter, run.events, list);
    return MethodResult::Done;
}

MethodResult ReleaseLease(const Run& run)
{
    if (!run.UsesDhcp())
    {
        return MethodResult::DhcpNotEnabled;
    }
    DropLease(*run.adapter, run.events);
    return MethodResult::Done;
}

MethodResult RenewLease(const Run& run)
{
    if (!run.UsesDhcp())
    {
        return MethodResult::DhcpNotEnabled;
    }
    if (!Member(Member(*run.adapter, "dhcp"), "lease").is_object())
    {
        return MethodResult::CannotRenewLease; // no server answers
    }
    ApplyLease(*run.adapter, run.events);
    return MethodResult::Done;
}

struct Entry
{
    const wchar_t* name;
    MethodResult (*run)(const Run&);
};
constexpr Entry entries[] = {
    {L"SetDNSServerSearchOrder", SetDnsServers},
    {L"SetWINSServer", SetWins},
    {L"SetDNSSuffixSearchOrder", SetSuffixes},
    {L"SetDNSDomain", SetDomain},
    {L"EnableDHCP", EnableDhcp},
    {L"EnableStatic", EnableStatic},
    {L"ReleaseDHCPLease", ReleaseLease},
    {L"RenewDHCPLease", RenewLease},
};

bool HasIp(const Json& adapter)
{
    return IsPresent(adapter) && IsConnected(adapter) && FlagField(adapter, "ipEnabled", true);
}

} // namespace

HRESULT RunMethod(const MethodType& method, std::wstring_view key, const ClassObject* in, std::int32_t& returnValue)
{
    HRESULT result = Status(WBEM_E_NOT_FOUND);
    const auto run = [&](Json& state, Events& events)
    {
        const ClassPointer type = FindClass(Namespace::Cimv2, L"Win32_NetworkAdapterConfiguration");
        Json* const adapter = key.empty() ? nullptr : const_cast<Json*>(FindByKey(*type, state, key));
        if (adapter == nullptr && !method.isStatic)
        {
            return;
        }
        result = S_OK;
        const Json& told = Member(Member(state, "methods"), Utf8(method.name).c_str());
        if (told.is_number_integer() && told != 0 && told != static_cast<int>(MethodResult::RebootNeeded))
        {
            returnValue = told.get<std::int32_t>();
            return;
        }
        if (!method.isStatic && !HasIp(*adapter))
        {
            returnValue = static_cast<std::int32_t>(MethodResult::IpNotEnabled);
            return;
        }
        for (const Entry& entry : entries)
        {
            if (EqualNoCase(entry.name, method.name))
            {
                returnValue = static_cast<std::int32_t>(entry.run({state, adapter, in, events}));
            }
        }
        if (returnValue == 0 && told.is_number_integer())
        {
            returnValue = told.get<std::int32_t>();
        }
    };
    Machine::Attach().Update(run);
    return result;
}

} // namespace lab::wmi
