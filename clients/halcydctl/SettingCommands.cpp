// dns, dns-suffix, dns-domain, wins, dhcp, ip: one adapter's settings through the service.

#include "clients/halcydctl/Automation.h"
#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/MonitorClient.h"
#include "clients/halcydctl/SettingText.h"
#include "clients/halcydctl/Text.h"

namespace
{
// One WMI session of the service, closed at the end.
class AdapterSession
{
public:
    explicit AdapterSession(const Options& options)
        : dns(ActivateService<IDNSPtr>(CLSID_DNS, options.start)), guid(Automation::String(options.guid))
    {
        Test(dns->ConnectNetCfg(guid), L"Finding the adapter");
        connected = true;
    }
    AdapterSession(const AdapterSession&) = delete;
    AdapterSession& operator=(const AdapterSession&) = delete;
    ~AdapterSession()
    {
        if (connected)
        {
            dns->DisconnectNetCfg();
        }
    }

    static Failure Explained(HRESULT result, const wchar_t* action)
    {
        Failure failure = Explain(action, result, ReadInstallation());
        if (const std::wstring words = SettingResultWords(static_cast<std::uint32_t>(result)); !words.empty())
        {
            failure.exitCode = ExitCode::Failed;
            failure.reason = words;
            failure.cure = SettingResultCure(static_cast<std::uint32_t>(result));
        }
        return failure;
    }

    // These methods answer with HRESULTs and with small positive numbers: everything but 0 is an error.
    static void Test(HRESULT result, const wchar_t* action)
    {
        if (result == S_OK)
        {
            return;
        }
        throw Explained(result, action);
    }

    IDNS* operator->() const noexcept { return dns.GetInterfacePtr(); }
    [[nodiscard]] BSTR Guid() const noexcept { return guid; }

private:
    IDNSPtr dns;
    _bstr_t guid;
    bool connected = false;
};

// A string that the service may replace: it goes in initialised and comes back owned.
class StringSlot
{
public:
    StringSlot() = default;
    StringSlot(const StringSlot&) = delete;
    StringSlot& operator=(const StringSlot&) = delete;
    ~StringSlot() { SysFreeString(text); }
    BSTR* operator&() noexcept { return &text; }
    [[nodiscard]] std::wstring Get() const { return std::wstring(Text::View(text)); }

private:
    BSTR text = nullptr;
};

void PrintValues(const Session& session, const char* name, const std::vector<std::wstring>& values)
{
    if (session.options.json)
    {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const std::wstring& value : values)
        {
            list.push_back(Text::ToUtf8(value));
        }
        session.Print({{"id", session.options.guid}, {name, list}});
        return;
    }
    for (const std::wstring& value : values)
    {
        session.console.Line(Text::Printable(value));
    }
    if (values.empty())
    {
        session.console.Line(L"None set.");
    }
}

void PrintDone(const Session& session)
{
    if (session.options.json)
    {
        session.Print({{"id", session.options.guid}, {"done", true}});
    }
    else
    {
        session.console.Line(L"Done.");
    }
}

std::vector<std::wstring> ReadValues(const AdapterSession& adapter, Verb verb)
{
    _variant_t array;
    StringSlot first;
    StringSlot second;
    switch (verb)
    {
    case Verb::DnsGet:
        AdapterSession::Test(adapter->GetDNS(adapter.Guid(), &array), L"Reading the DNS servers");
        return Automation::Strings(array);
    case Verb::DnsSuffixGet:
        AdapterSession::Test(adapter->GetDNSSuffixSearchOrder(adapter.Guid(), &array), L"Reading the DNS suffixes");
        return Automation::Strings(array);
    case Verb::DnsDomainGet:
        AdapterSession::Test(adapter->GetDNSDomain(adapter.Guid(), &first), L"Reading the DNS domain");
        break;
    case Verb::WinsGet:
        AdapterSession::Test(adapter->GetWINS(adapter.Guid(), &first, &second), L"Reading the WINS servers");
        break;
    default:
        break;
    }
    std::vector<std::wstring> values;
    for (const std::wstring& text : {first.Get(), second.Get()})
    {
        if (!text.empty())
        {
            values.push_back(text);
        }
    }
    return values;
}

void ShowAddress(const Session& session, const AdapterSession& adapter)
{
    StringSlot address;
    StringSlot gateway;
    AdapterSession::Test(adapter->GetIpAddress(adapter.Guid(), &address), L"Reading the address");
    AdapterSession::Test(adapter->GetDefaultGateway(adapter.Guid(), &gateway), L"Reading the default gateway");
    if (session.options.json)
    {
        session.Print({{"id", session.options.guid},
                       {"address", Text::ToUtf8(address.Get())},
                       {"gateway", Text::ToUtf8(gateway.Get())}});
        return;
    }
    const auto shown = [](const std::wstring& text)
    { return text.empty() ? std::wstring(L"-") : Text::Printable(text); };
    session.console.Line(L"Address  " + shown(address.Get()));
    session.console.Line(L"Gateway  " + shown(gateway.Get()));
}

void SetAddresses(const AdapterSession& adapter, const std::vector<std::string>& texts)
{
    std::vector<std::string> addresses;
    std::vector<std::string> masks;
    for (const std::string& text : texts)
    {
        const std::optional<AddressAndMask> parts = SplitAddress(text);
        if (!parts)
        {
            Failure failure;
            failure.exitCode = ExitCode::Usage;
            failure.reason = L"'" + Text::FromUtf8(text) + L"' is no address with its mask.";
            failure.cure = L"Write 10.0.0.5/255.255.255.0 or 10.0.0.5/24.";
            throw failure;
        }
        addresses.push_back(parts->address);
        masks.push_back(parts->mask);
    }
    _variant_t addressArray = Automation::StringArray(addresses);
    _variant_t maskArray = Automation::StringArray(masks);
    AdapterSession::Test(adapter->EnableStatic(adapter.Guid(), &addressArray, &maskArray), L"Setting the addresses");
}

void Change(const AdapterSession& adapter, const Options& options)
{
    _variant_t array = Automation::StringArray(options.values);
    const _bstr_t first = Automation::String(!options.values.empty() ? options.values[0] : std::string());
    const _bstr_t second = Automation::String(options.values.size() > 1 ? options.values[1] : std::string());
    switch (options.verb)
    {
    case Verb::DnsSet:
        return AdapterSession::Test(adapter->SetDNS(adapter.Guid(), &array), L"Setting the DNS servers");
    case Verb::DnsSuffixSet:
        return AdapterSession::Test(adapter->SetDNSSuffixSearchOrder(adapter.Guid(), &array),
                                    L"Setting the DNS suffixes");
    case Verb::DnsDomainSet:
        return AdapterSession::Test(adapter->SetDNSDomain(adapter.Guid(), first), L"Setting the DNS domain");
    case Verb::WinsSet:
        return AdapterSession::Test(adapter->SetWINS(adapter.Guid(), first, second), L"Setting the WINS servers");
    case Verb::DhcpEnable:
        return AdapterSession::Test(adapter->EnableDHCP(adapter.Guid()), L"Switching to DHCP");
    case Verb::DhcpRelease:
        return AdapterSession::Test(adapter->ReleaseDHCPLease(adapter.Guid()), L"Giving the DHCP lease back");
    case Verb::DhcpRenew:
        return AdapterSession::Test(adapter->RenewDHCPLease(adapter.Guid()), L"Renewing the DHCP lease");
    default:
        return SetAddresses(adapter, options.values);
    }
}
} // namespace

ExitCode Commands::AdapterSetting(const Session& session)
{
    const AdapterSession adapter(session.options);
    switch (session.options.verb)
    {
    case Verb::DnsGet:
        PrintValues(session, "dnsServers", ReadValues(adapter, session.options.verb));
        break;
    case Verb::DnsSuffixGet:
        PrintValues(session, "dnsSuffixes", ReadValues(adapter, session.options.verb));
        break;
    case Verb::DnsDomainGet:
        PrintValues(session, "dnsDomain", ReadValues(adapter, session.options.verb));
        break;
    case Verb::WinsGet:
        PrintValues(session, "winsServers", ReadValues(adapter, session.options.verb));
        break;
    case Verb::IpGet:
        ShowAddress(session, adapter);
        break;
    default:
        Change(adapter, session.options);
        PrintDone(session);
        break;
    }
    return ExitCode::Success;
}
