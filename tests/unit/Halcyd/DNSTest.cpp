#include <gtest/gtest.h>

#include <comdef.h>

#include <functional>
#include <string>
#include <vector>

#include "Halcyd/DNS.h"
#include "Halcyd/WmiAdapterSession.h"
#include "NetUtilities/Format.h"
#include "lab/state/Machine.h"
#include "lab/state/Text.h"
#include "lab/wmi/Factory.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/Halcyd/VariantTypes.h"

namespace
{
constexpr HRESULT NotFound = static_cast<HRESULT>(0x80041017);
constexpr HRESULT Unexpected = static_cast<HRESULT>(0x8000FFFF);
constexpr const wchar_t* NoGuid = L"{00000000-0000-0000-0000-00000000DEAD}";

// Before anything asks for the machine: one of this process's own.
const bool ownMachine = []
{
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    return SetEnvironmentVariableW(L"HALCYD_LAB",
                                   (std::wstring(folder) + L"unit" + std::to_wstring(GetCurrentProcessId())).c_str());
}();

// The lab's WMI under WbemLocator's class id, for this process.
void RegisterLabWmi()
{
    static DWORD cookie = 0;
    if (cookie == 0)
    {
        ASSERT_EQ(S_OK, CoRegisterClassObject(lab::wmi::locatorClass, lab::wmi::MakeFactory(), CLSCTX_INPROC_SERVER,
                                              REGCLS_MULTIPLEUSE, &cookie));
    }
}

_variant_t TextArray(const std::vector<const wchar_t*>& texts)
{
    _variant_t array;
    array.parray = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    array.vt = VT_ARRAY | VT_BSTR;
    for (LONG index = 0; index < static_cast<LONG>(texts.size()); ++index)
    {
        SafeArrayPutElement(array.parray, &index, _bstr_t(texts[static_cast<std::size_t>(index)]).GetBSTR());
    }
    return array;
}

std::vector<std::wstring> Texts(const VARIANT& array)
{
    std::vector<std::wstring> texts;
    if (array.vt == (VT_ARRAY | VT_BSTR) && array.parray != nullptr)
    {
        for (ULONG index = 0; index < array.parray->rgsabound[0].cElements; ++index)
        {
            texts.emplace_back(static_cast<BSTR*>(array.parray->pvData)[index]);
        }
    }
    return texts;
}

class DNSTest : public testing::Test
{
protected:
    // Paths are kept for the life of the process, so each test has adapters of its own.
    DNSTest() : object(MakeTestObject<CDNS>())
    {
        RegisterLabWmi();
        static int number = 0;
        guid = FormatText(L"{{4A1C7E07-3B52-4D0F-9E61-{:012X}}}", ++number);
        otherGuid = FormatText(L"{{5B1C7E07-3B52-4D0F-9E61-{:012X}}}", number);
        machine.ClearFaults();
        machine.Update(
            [this](lab::Json& state, lab::Events&)
            {
                state = {{"adapters", {Adapter(guid, 7), Adapter(otherGuid, 9)}}, {"suffixSearchOrder", {"a.example"}}};
            });
        machine.ClearJournal();
    }
    ~DNSTest() override
    {
        machine.ClearFaults();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str());
    }

    static lab::Json Adapter(const std::wstring& id, int index)
    {
        return {{"name", "eth" + std::to_string(index)},
                {"guid", lab::Utf8(id)},
                {"index", index},
                {"media", "connected"},
                {"ipEnabled", true},
                {"dhcp", {{"enabled", true}, {"lease", {{"addresses", lab::Json::array()}}}}},
                {"addresses", {{{"address", "192.0.2.7"}, {"prefix", 24}}}},
                {"gateways", {"192.0.2.1"}},
                {"dns", {"192.0.2.53"}},
                {"dnsStatic", lab::Json::array()},
                {"dnsDomain", "office.example"},
                {"wins", {{"primary", "192.0.2.8"}, {"secondary", nullptr}}}};
    }
    void Change(const std::function<void(lab::Json& adapter, lab::Json& state)>& change)
    {
        machine.Update([&](lab::Json& state, lab::Events&) { change(state["adapters"][0], state); });
    }
    // The lease methods want an adapter that uses DHCP, whatever ran before.
    void UseDhcp()
    {
        Change([](lab::Json& adapter, lab::Json&) { adapter["dhcp"]["enabled"] = true; });
    }
    // A WMI property of the first adapter, in the place of the derived one.
    void Property(const char* name, const lab::Json& value)
    {
        Change([&](lab::Json& adapter, lab::Json&) { adapter["wmi"][name] = value; });
    }
    lab::Json First() { return (*machine.Snapshot())["adapters"][0]; }

    void Fail(const std::string& call, std::uint32_t nth = 1, std::uint32_t code = 0x80041001)
    {
        machine.ClearFaults();
        lab::FaultRule rule;
        rule.call = call;
        rule.nth = nth;
        rule.code = code;
        machine.AddFault(rule);
    }
    std::vector<lab::Json> Journalled(const std::string& call)
    {
        lab::JournalPosition position;
        std::vector<lab::Json> lines;
        for (lab::Json& line : machine.ReadJournal(position))
        {
            if (line.value("call", "") == call)
            {
                lines.push_back(std::move(line));
            }
        }
        return lines;
    }
    std::wstring InterfaceKey() const
    {
        return L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\" + guid;
    }
    void SetNameServer(const wchar_t* text) const
    {
        ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"NameServer", REG_SZ, text,
                                     static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t))));
    }
    void Connect() { ASSERT_EQ(S_OK, object->ConnectNetCfg(_bstr_t(guid.c_str()))); }
    [[nodiscard]] _bstr_t Guid() const { return guid.c_str(); }

    HookScope hooks;
    TraceLines trace;
    lab::Machine& machine = lab::Machine::Attach();
    TestObject<CDNS> object;
    std::wstring guid;
    std::wstring otherGuid;
};

// --- Session ---

TEST_F(DNSTest, ConnectOpensTheNamespaceAndFindsTheAdapter)
{
    EXPECT_EQ(S_OK, object->ConnectNetCfg(Guid()));
    ASSERT_EQ(1u, Journalled("IWbemLocator::ConnectServer").size());
    EXPECT_EQ(2u, Journalled("IClientSecurity::SetBlanket").size());
    const lab::Json blanket = Journalled("IClientSecurity::SetBlanket")[0]["args"];
    EXPECT_TRUE(trace.Has(L"That adapter matches"));
    EXPECT_TRUE(trace.Has(L"Just looking for duplicates"));
    EXPECT_TRUE(trace.Has(L"Found one matching GUID match so far"));
    EXPECT_TRUE(trace.Has(L"path is 'Win32_NetWorkAdapterConfiguration.Index='7''"));
    EXPECT_TRUE(trace.Has(L"Added to global device table: " + guid + L", Win32_NetWorkAdapterConfiguration.Index='7'"));
    EXPECT_EQ(S_OK, object->DisconnectNetCfg());
}

TEST_F(DNSTest, UnknownGuidReturnsNotFoundAndLeavesTheSessionOpen)
{
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(NoGuid)));
    EXPECT_TRUE(trace.Has(L"could not find a matching adapter '" + std::wstring(NoGuid) + L"'"));
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
    EXPECT_EQ(S_OK, object->DisconnectNetCfg());
    EXPECT_EQ(NotFound, object->ConnectNetCfg(nullptr));
}

TEST_F(DNSTest, SecondConnectFindsTheTableEntryWithoutEnumerationOnANewConnection)
{
    Connect();
    machine.ClearJournal();
    TestObject<CDNS> second = MakeTestObject<CDNS>();
    EXPECT_EQ(S_OK, second->ConnectNetCfg(Guid()));
    EXPECT_TRUE(trace.Has(L"found match in global device table (" + guid + L")"));
    EXPECT_EQ(1u, Journalled("WbemLocator::CreateInstance").size());
    EXPECT_EQ(1u, Journalled("IWbemLocator::ConnectServer").size());
    EXPECT_EQ(0u, Journalled("IWbemServices::CreateInstanceEnum").size());
}

TEST_F(DNSTest, GuidInLowerCaseDoesNotMatch)
{
    std::wstring lower = guid;
    for (wchar_t& character : lower)
    {
        character = static_cast<wchar_t>(towlower(character));
    }
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(lower.c_str())));
}

TEST_F(DNSTest, TwoAdaptersWithOneGuidFailTheCheckWhileACallWithAPathTakesTheFirst)
{
    machine.Update([&](lab::Json& state, lab::Events&) { state["adapters"][1]["guid"] = lab::Utf8(guid); });
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(NoGuid)));
    const std::uint32_t known = GlobalDeviceTable().Count();
    BSTR path = nullptr;
    EXPECT_EQ(S_OK, object->GetInstancePathByGuid(guid.c_str(), &path));
    EXPECT_STREQ(L"Win32_NetWorkAdapterConfiguration.Index='7'", path);
    SysFreeString(path);
    EXPECT_EQ(known + 1, GlobalDeviceTable().Count());
    EXPECT_TRUE(trace.Has(L"Found match"));
}

TEST_F(DNSTest, TwoAdaptersWithOneGuidFailConnect)
{
    machine.Update([&](lab::Json& state, lab::Events&) { state["adapters"][1]["guid"] = lab::Utf8(guid); });
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_TRUE(trace.Has(L"Found more than one matching GUID match, ERROR"));
    EXPECT_FALSE(trace.Has(L"could not find a matching adapter"));
}

TEST_F(DNSTest, AdapterWithoutSettingIdIsPassedOver)
{
    Property("SettingID", nullptr);
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_EQ(S_OK, object->ConnectNetCfg(_bstr_t(otherGuid.c_str())));
}

TEST_F(DNSTest, PropertyThatCannotBeReadPassesOverItsObjectOnly)
{
    for (const char* call : {"IWbemClassObject::Get(Index)", "IWbemClassObject::Get(SettingID)"})
    {
        Fail(call);
        EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid())) << call;
        EXPECT_TRUE(trace.Has(L"Could not get the property for current instance"));
    }
    Fail("IWbemClassObject::Get(Index)");
    EXPECT_EQ(S_OK, object->ConnectNetCfg(_bstr_t(otherGuid.c_str())));
}

TEST_F(DNSTest, EachFailingStepOfConnectReturnsItsResult)
{
    const struct
    {
        const char* call;
        const wchar_t* line;
    } rows[] = {{"WbemLocator::CreateInstance", L"could not an instance of WbemLocator"},
                {"IWbemLocator::ConnectServer", L"could not connect to WMI"},
                {"IClientSecurity::SetBlanket", L"could not set the proxy blanket"},
                {"IWbemServices::GetObject", L"could not get the object class"}};
    for (const auto& row : rows)
    {
        trace.Clear();
        Fail(row.call, 1, 0x80041003);
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->ConnectNetCfg(Guid())) << row.call;
        EXPECT_TRUE(trace.Has(row.line)) << row.call;
        EXPECT_EQ(S_OK, object->DisconnectNetCfg());
        EXPECT_EQ(S_OK, object->ConnectNetCfg(Guid())) << row.call;
        object->DisconnectNetCfg();
    }
}

TEST_F(DNSTest, FailingEnumerationMeansThatNoAdapterIsFound)
{
    Fail("IWbemServices::CreateInstanceEnum");
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_TRUE(trace.Has(L"Could not create the enumerator"));
    Fail("IEnumWbemClassObject::Next");
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    Fail("IClientSecurity::SetBlanket", 2);
    EXPECT_EQ(S_OK, object->ConnectNetCfg(Guid()));
    EXPECT_TRUE(trace.Has(L"Could not set the proxy blanket"));
}

TEST_F(DNSTest, EnumerationIsForwardOnlyAndReturnsImmediately)
{
    Connect();
    ASSERT_EQ(1u, Journalled("IWbemServices::CreateInstanceEnum").size());
    EXPECT_NE(std::string::npos, Journalled("IWbemServices::CreateInstanceEnum")[0].dump().find("48"));
}

TEST_F(DNSTest, CachedPathIsHandedOutAsANewString)
{
    Connect();
    BSTR path = nullptr;
    EXPECT_EQ(S_OK, object->GetInstancePathByGuid(guid.c_str(), &path));
    EXPECT_STREQ(L"Win32_NetWorkAdapterConfiguration.Index='7'", path);
    SysFreeString(path);
    EXPECT_TRUE(trace.Has(L"allocated bstr 'Win32_NetWorkAdapterConfiguration.Index='7'' (0x"));
}

// --- No session ---

TEST_F(DNSTest, WithoutASessionEveryMethodFailsAndLeavesItsOutputs)
{
    _variant_t array = TextArray({L"192.0.2.1"});
    const _bstr_t text(L"x");
    BSTR first = SysAllocString(L"kept");
    BSTR second = SysAllocString(L"kept");
    const auto check = [&]
    {
        EXPECT_EQ(CDNS::NoSession, object->SetDNS(Guid(), &array));
        EXPECT_EQ(CDNS::NoSession, object->GetDNS(Guid(), &array));
        EXPECT_EQ(CDNS::NoSession, object->SetWINS(Guid(), text, text));
        EXPECT_EQ(CDNS::NoSession, object->GetWINS(Guid(), &first, &second));
        EXPECT_EQ(CDNS::NoSession, object->SetDNSSuffixSearchOrder(Guid(), &array));
        EXPECT_EQ(CDNS::NoSession, object->GetDNSSuffixSearchOrder(Guid(), &array));
        EXPECT_EQ(CDNS::NoSession, object->SetDNSDomain(Guid(), text));
        EXPECT_EQ(CDNS::NoSession, object->GetDNSDomain(Guid(), &first));
        EXPECT_EQ(CDNS::NoSession, object->EnableDHCP(Guid()));
        EXPECT_EQ(Unexpected, object->SetGateways(Guid(), &array, &array));
        EXPECT_EQ(CDNS::NoSession, object->EnableStatic(Guid(), &array, &array));
        EXPECT_EQ(CDNS::NoSession, object->ReleaseDHCPLease(Guid()));
        EXPECT_EQ(CDNS::NoSession, object->GetDefaultGateway(Guid(), &first));
        EXPECT_EQ(CDNS::NoSession, object->RenewDHCPLease(Guid()));
        EXPECT_EQ(CDNS::NoSession, object->GetIpAddress(Guid(), &first));
        EXPECT_EQ(S_OK, object->DisconnectNetCfg());
    };
    check();
    // Known to the table of the process, but the session is closed.
    Connect();
    object->DisconnectNetCfg();
    check();
    EXPECT_STREQ(L"kept", first);
    EXPECT_STREQ(L"kept", second);
    EXPECT_EQ(1u, Texts(array).size());
    SysFreeString(first);
    SysFreeString(second);
}

// --- Setters ---

struct SetterCase
{
    const char* method; // of WMI
    std::function<HRESULT(CDNS&, BSTR)> call;
    const wchar_t* noMethod;
    const wchar_t* noInstance; // null: the method takes no input
    std::vector<std::pair<const char*, const wchar_t*>> inputs;
    const wchar_t* noPath;
    const wchar_t* noExecute;
    const char* signatureOf = nullptr;
    bool onClass = false;
};

std::vector<SetterCase> SetterCases()
{
    return {
        {"SetDNSServerSearchOrder",
         [](CDNS& dns, BSTR guid)
         {
             _variant_t array = TextArray({L"192.0.2.60", L"192.0.2.61"});
             return dns.SetDNS(guid, &array);
         },
         L"could not get SetDNSServerSearchOrder method",
         L"could not create new instance of the WMI set DNS method",
         {{"DNSServerSearchOrder", L"could not setup parameter for set DNS call"}},
         L"could not get instance path",
         L"could not execute set DNS method"},
        {"SetWINSServer",
         [](CDNS& dns, BSTR guid) { return dns.SetWINS(guid, _bstr_t(L"192.0.2.70"), _bstr_t(L"")); },
         L"could not get SetWINSServer method",
         L"could not create new instance of the WMI set WINS method",
         {{"WINSPrimaryServer", L"could not setup parameter for primary wins server"},
          {"WINSSecondaryServer", L"could not setup parameter for secondary wins server"}},
         L"could not get instance path",
         L"could not execute set WINS method"},
        {"SetDNSSuffixSearchOrder",
         [](CDNS& dns, BSTR guid)
         {
             _variant_t array = TextArray({L"one.example", L"two.example"});
             return dns.SetDNSSuffixSearchOrder(guid, &array);
         },
         L"Could not get SetDNSSuffixSearchOrder method",
         L"Could not create new instance of the WMI SetDNSSuffixSearchOrder method",
         {{"DNSDomainSuffixSearchOrder", L"Could not setup parameter for SetDNSSuffixSearchOrder"}},
         L"Could not get instance path, to execute method anyway",
         L"Could not execute SetDNSSuffixSearchOrder method",
         nullptr,
         true},
        {"SetDNSDomain",
         [](CDNS& dns, BSTR guid) { return dns.SetDNSDomain(guid, _bstr_t(L"new.example")); },
         L"Could not get SetDNSDomain method",
         L"Could not create new instance of the WMI set WINS method",
         {{"DNSDomain", L"Could not setup parameter for the DNS suffix of 'new.example'"}},
         L"Could not get instance path",
         L"Could not execute SetDNSDomain method"},
        {"EnableDHCP",
         [](CDNS& dns, BSTR guid) { return dns.EnableDHCP(guid); },
         L"Could not get EnableDHCP method",
         nullptr,
         {},
         L"Could not get instance path",
         L"Could not execute EnableDHCP"},
        {"EnableStatic",
         [](CDNS& dns, BSTR guid)
         {
             _variant_t addresses = TextArray({L"192.0.2.99"});
             _variant_t masks = TextArray({L"255.255.255.0"});
             return dns.EnableStatic(guid, &addresses, &masks);
         },
         L"Could not get Enable Static method",
         L"Could not create new instance of the WMI set EnableStatic method",
         {{"IPAddress", L"Could not setup IP Address parameter for EnableStatic call"},
          {"SubnetMask", L"Could not setup Subnet parameter for EnableStatic call"}},
         L"Could not get instance path",
         L"Could not execute EnableStatic method"},
        {"ReleaseDHCPLease",
         [](CDNS& dns, BSTR guid) { return dns.ReleaseDHCPLease(guid); },
         L"Could not get ReleaseDHCPLease method",
         nullptr,
         {},
         L"Could not get adapter instance path",
         L"Could not execute method"},
        {"RenewDHCPLease",
         [](CDNS& dns, BSTR guid) { return dns.RenewDHCPLease(guid); },
         L"Could not get ReleaseDHCPLease method",
         nullptr,
         {},
         L"Could not get adapter instance path",
         L"Could not execute method",
         "ReleaseDHCPLease"},
    };
}

TEST_F(DNSTest, EachSetterRunsItsMethodOnTheAdaptersInstance)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        UseDhcp();
        machine.ClearJournal();
        EXPECT_EQ(S_OK, row.call(*object.Get(), Guid())) << row.method;
        const std::vector<lab::Json> calls = Journalled("IWbemServices::ExecMethod");
        ASSERT_EQ(1u, calls.size()) << row.method;
        const std::string text = calls[0].dump();
        EXPECT_NE(std::string::npos, text.find(row.method)) << text;
        const char* path =
            row.onClass ? "\"Win32_NetWorkAdapterConfiguration\"" : "\"Win32_NetWorkAdapterConfiguration.Index='7'\"";
        EXPECT_NE(std::string::npos, text.find(path)) << text;
    }
}

TEST_F(DNSTest, SettersChangeTheMachine)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        if (row.method != std::string("ReleaseDHCPLease") && row.method != std::string("RenewDHCPLease"))
        {
            EXPECT_EQ(S_OK, row.call(*object.Get(), Guid())) << row.method;
        }
    }
    const lab::Json adapter = First();
    EXPECT_EQ((lab::Json{"192.0.2.60", "192.0.2.61"}), adapter["dnsStatic"]);
    EXPECT_EQ("192.0.2.70", adapter["wins"]["primary"]);
    EXPECT_EQ("new.example", adapter["dnsDomain"]);
    EXPECT_EQ("192.0.2.99", adapter["addresses"][0]["address"]);
    EXPECT_EQ((lab::Json{"one.example", "two.example"}), (*machine.Snapshot())["suffixSearchOrder"]);
}

TEST_F(DNSTest, EachFailingStepOfEachSetterReturnsItsResult)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        UseDhcp();
        const auto step = [&](const std::string& call, const wchar_t* line)
        {
            trace.Clear();
            Fail(call, 1, 0x80041003);
            EXPECT_EQ(static_cast<HRESULT>(0x80041003), row.call(*object.Get(), Guid())) << row.method << call;
            EXPECT_TRUE(trace.Has(line)) << row.method << call;
            machine.ClearFaults();
        };
        const char* signature = row.signatureOf != nullptr ? row.signatureOf : row.method;
        step("IWbemClassObject::GetMethod(" + std::string(signature) + ")", row.noMethod);
        if (row.noInstance != nullptr)
        {
            step("IWbemClassObject::SpawnInstance", row.noInstance);
        }
        for (const auto& [property, line] : row.inputs)
        {
            step("IWbemClassObject::Put(" + std::string(property) + ")", line);
        }
        step("IWbemServices::ExecMethod(" + std::string(row.method) + ")", row.noExecute);
        UseDhcp();
        EXPECT_EQ(S_OK, row.call(*object.Get(), Guid())) << row.method;
    }
}

TEST_F(DNSTest, UnknownAdapterStopsEverySetterButTheOneOfTheClass)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        trace.Clear();
        EXPECT_EQ(row.onClass ? S_OK : NotFound, row.call(*object.Get(), _bstr_t(NoGuid))) << row.method;
        EXPECT_TRUE(trace.Has(row.noPath)) << row.method;
    }
}

TEST_F(DNSTest, PositiveResultsOfTheWmiMethodsArePassedOn)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        for (const int value : {1, 84, 91})
        {
            UseDhcp();
            Change([&](lab::Json&, lab::Json& state) { state["methods"][row.method] = value; });
            trace.Clear();
            EXPECT_EQ(value, row.call(*object.Get(), Guid())) << row.method;
            EXPECT_TRUE(trace.Has(L"Bad return value from last method call"));
            EXPECT_TRUE(trace.Has(L"WMI error after " + lab::Wide(row.method) + L" method see ")) << row.method;
        }
        Change([&](lab::Json&, lab::Json& state) { state["methods"].erase(row.method); });
    }
}

TEST_F(DNSTest, UnreadableReturnValueCountsAsSuccess)
{
    Connect();
    Change([&](lab::Json&, lab::Json& state) { state["methods"]["EnableDHCP"] = 91; });
    Fail("IWbemClassObject::Get(ReturnValue)");
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
}

TEST_F(DNSTest, SetDnsDomainOnAnAdapterWithIpDisabledReturns84AndSaysSo)
{
    Connect();
    Change([](lab::Json&, lab::Json& state) { state["methods"]["SetDNSDomain"] = 84; });
    EXPECT_EQ(84, object->SetDNSDomain(Guid(), _bstr_t(L"x.example")));
    EXPECT_TRUE(trace.Has(L"IP was not enabled on the adapter when the SetDNSDomain WMI method was called"));
}

TEST_F(DNSTest, SetDnsDomainPrintsANullDomainInItsFailure)
{
    Connect();
    Fail("IWbemClassObject::Put(DNSDomain)");
    EXPECT_TRUE(FAILED(object->SetDNSDomain(Guid(), nullptr)));
    EXPECT_TRUE(trace.Has(L"Could not setup parameter for the DNS suffix of '<NULL|EMPTY>'"));
}

TEST_F(DNSTest, SetWinsRefusesNullAndTakesEmptyTexts)
{
    Connect();
    const _bstr_t text(L"192.0.2.8");
    EXPECT_EQ(E_INVALIDARG, object->SetWINS(Guid(), nullptr, text));
    EXPECT_EQ(E_INVALIDARG, object->SetWINS(Guid(), text, nullptr));
    EXPECT_EQ(2, trace.Count(L"can't pass NULL for primary or secondary WINS server"));
    EXPECT_EQ(0u, Journalled("IWbemServices::ExecMethod").size());
    EXPECT_EQ(S_OK, object->SetWINS(Guid(), text, _bstr_t(L"")));
    ASSERT_EQ(1u, Journalled("IWbemServices::ExecMethod").size());
}

TEST_F(DNSTest, RenewFailsWhenTheReleaseMethodIsNotThere)
{
    Connect();
    Fail("IWbemClassObject::GetMethod(ReleaseDHCPLease)", 1, 0x80041002);
    EXPECT_EQ(static_cast<HRESULT>(0x80041002), object->RenewDHCPLease(Guid()));
    EXPECT_TRUE(trace.Has(L"Could not get ReleaseDHCPLease method"));
    EXPECT_EQ(0u, Journalled("IWbemServices::ExecMethod").size());
}

TEST_F(DNSTest, ArraysOfAnyOtherTypeAreRefusedWithoutEffectAndWithoutBeingFollowed)
{
    Connect();
    machine.ClearJournal();
    _variant_t good = TextArray({L"192.0.2.1"});
    for (const int type : AllVariantTypes())
    {
        if (type == (VT_ARRAY | VT_BSTR))
        {
            continue;
        }
        VARIANT value;
        value.vt = static_cast<VARTYPE>(type);
        value.llVal = 0x0123456789ABCDEF;
        ASSERT_EQ(Unexpected, object->SetDNS(Guid(), &value)) << type;
        ASSERT_EQ(Unexpected, object->SetDNSSuffixSearchOrder(Guid(), &value)) << type;
        ASSERT_EQ(Unexpected, object->EnableStatic(Guid(), &value, &good)) << type;
        ASSERT_EQ(Unexpected, object->EnableStatic(Guid(), &good, &value)) << type;
        ASSERT_EQ(Unexpected, object->SetGateways(Guid(), &value, &value)) << type;
    }
    EXPECT_EQ(Unexpected, object->SetDNS(Guid(), nullptr));
    EXPECT_EQ(Unexpected, object->SetDNSSuffixSearchOrder(Guid(), nullptr));
    EXPECT_EQ(Unexpected, object->EnableStatic(Guid(), nullptr, nullptr));
    EXPECT_EQ(0u, Journalled("IWbemServices::ExecMethod").size());
    EXPECT_TRUE(trace.Has(L"pass string array by reference to SetDNS"));
    EXPECT_TRUE(trace.Has(L"Pass string array by reference to SetDNSSuffixSearchOrder"));
    EXPECT_TRUE(trace.Has(L"Pass IP array by reference to EnableStatic"));
}

TEST_F(DNSTest, ArraysAreShownAndOddOnesDoNotStopTheMethod)
{
    Connect();
    _variant_t array = TextArray({L"192.0.2.60", L"192.0.2.61"});
    EXPECT_EQ(S_OK, object->SetDNS(Guid(), &array));
    EXPECT_TRUE(trace.Has(L"array[0]\t:192.0.2.60"));
    EXPECT_TRUE(trace.Has(L"array[1]\t:192.0.2.61"));

    VARIANT none;
    none.vt = VT_ARRAY | VT_BSTR;
    none.parray = nullptr;
    machine.ClearJournal();
    static_cast<void>(object->SetDNS(Guid(), &none));
    EXPECT_TRUE(trace.Has(L"empty safearray was passed in"));

    SAFEARRAYBOUND bounds[] = {{1, 0}, {1, 0}};
    VARIANT square;
    square.vt = VT_ARRAY | VT_BSTR;
    square.parray = SafeArrayCreate(VT_BSTR, 2, bounds);
    static_cast<void>(object->SetDNS(Guid(), &square));
    static_cast<void>(object->SetDNSSuffixSearchOrder(Guid(), &square));
    EXPECT_TRUE(trace.Has(L"Pass a one - dimensional DNS safearray"));
    EXPECT_TRUE(trace.Has(L"could not display DNS search order array"));
    EXPECT_TRUE(trace.Has(L"Could not display DNS array"));
    SafeArrayDestroy(square.parray);
}

// --- Getters ---

TEST_F(DNSTest, GetDnsOfAnAdapterWithDhcpServersGivesAnEmptyArray)
{
    Connect();
    SetNameServer(L"");
    _variant_t array = L"something";
    EXPECT_EQ(S_OK, object->GetDNS(Guid(), &array));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, array.vt);
    ASSERT_NE(nullptr, array.parray);
    EXPECT_EQ(0u, array.parray->rgsabound[0].cElements);
    EXPECT_TRUE(trace.Has(L"no bytes read from registry, using DHCP, returning NULL array"));
}

TEST_F(DNSTest, GetDnsTellsStaticServersFromWmi)
{
    Connect();
    SetNameServer(L"192.0.2.60");
    Change([](lab::Json& adapter, lab::Json&) { adapter["dnsStatic"] = {"192.0.2.60", "192.0.2.61"}; });
    _variant_t array;
    EXPECT_EQ(S_OK, object->GetDNS(Guid(), &array));
    EXPECT_EQ((std::vector<std::wstring>{L"192.0.2.60", L"192.0.2.61"}), Texts(array));
    EXPECT_TRUE(trace.Has(L"static DNS servers, using WMI to fetch DNS servers"));
}

TEST_F(DNSTest, GetDnsWithoutTheKeyOrTheValueReturnsTwo)
{
    Connect();
    _variant_t array = L"kept";
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, object->GetDNS(Guid(), &array));
    EXPECT_TRUE(trace.Has(L"could not open subkey Error 2"));
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"Other", REG_SZ, L"", 2);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, object->GetDNS(Guid(), &array));
    EXPECT_TRUE(trace.Has(L"could not read value Error 2"));
    EXPECT_EQ(VT_BSTR, array.vt);
}

TEST_F(DNSTest, GetDnsLooksInAKeyOfItsOwnWhenTheSettingIdIsMissing)
{
    Connect();
    Property("SettingID", nullptr);
    std::wstring opened;
    RegOpenKeyExWHook::Replace(
        [&opened](HKEY root, LPCWSTR name, DWORD options, REGSAM access, PHKEY key)
        {
            opened = name;
            return RegOpenKeyExWHook::Real(root, name, options, access, key);
        });
    _variant_t array;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, object->GetDNS(Guid(), &array));
    EXPECT_EQ(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\<NULL|EMPTY>", opened);
}

TEST_F(DNSTest, GetDnsReturnsEachFailureAndKeepsTheOutput)
{
    Connect();
    SetNameServer(L"192.0.2.60");
    const struct
    {
        const char* call;
        const wchar_t* line;
    } rows[] = {{"IWbemServices::GetObject", L"could not get class instance object"},
                {"IWbemClassObject::Get(SettingID)", L"could not get object property from SettingID"},
                {"IWbemClassObject::Get(DNSServerSearchOrder)", L"could not get object property"}};
    for (const auto& row : rows)
    {
        Fail(row.call, 1, 0x80041003);
        _variant_t array = L"kept";
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->GetDNS(Guid(), &array)) << row.call;
        EXPECT_TRUE(trace.Has(row.line)) << row.call;
        EXPECT_EQ(VT_BSTR, array.vt);
    }
    _variant_t array;
    EXPECT_EQ(NotFound, object->GetDNS(_bstr_t(NoGuid), &array));
    EXPECT_TRUE(trace.Has(L"could not get instance path"));
    EXPECT_EQ(E_POINTER, object->GetDNS(Guid(), nullptr));
}

TEST_F(DNSTest, GetWinsReplacesWhatIsSetAndKeepsTheRest)
{
    Connect();
    BSTR primary = SysAllocString(L"old");
    BSTR secondary = SysAllocString(L"old");
    EXPECT_EQ(S_OK, object->GetWINS(Guid(), &primary, &secondary));
    EXPECT_STREQ(L"192.0.2.8", primary);
    EXPECT_STREQ(L"old", secondary);
    EXPECT_EQ(S_OK, object->GetWINS(Guid(), nullptr, nullptr));
    for (const auto& [call, line] :
         {std::pair{"IWbemClassObject::Get(WINSPrimaryServer)", L"could not get primary WINS server property"},
          std::pair{"IWbemClassObject::Get(WINSSecondaryServer)", L"could not get secondary WINS server property"}})
    {
        Fail(call, 1, 0x80041003);
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->GetWINS(Guid(), &primary, &secondary));
        EXPECT_TRUE(trace.Has(line));
    }
    SysFreeString(primary);
    SysFreeString(secondary);
}

TEST_F(DNSTest, GetDnsSuffixSearchOrderReturnsZeroWhateverHappens)
{
    Connect();
    _variant_t array = L"old";
    EXPECT_EQ(S_OK, object->GetDNSSuffixSearchOrder(Guid(), &array));
    EXPECT_EQ(std::vector<std::wstring>{L"a.example"}, Texts(array));
    const struct
    {
        const char* call;
        const wchar_t* line;
    } rows[] = {{"IWbemServices::GetObject", L"Could not get class instance object"},
                {"IWbemClassObject::Get(DNSDomainSuffixSearchOrder)", L"Could not get object property"}};
    for (const auto& row : rows)
    {
        Fail(row.call);
        EXPECT_EQ(S_OK, object->GetDNSSuffixSearchOrder(Guid(), &array)) << row.call;
        EXPECT_TRUE(trace.Has(row.line)) << row.call;
    }
    EXPECT_EQ(S_OK, object->GetDNSSuffixSearchOrder(_bstr_t(NoGuid), &array));
    EXPECT_TRUE(trace.Has(L"Could not get instance path"));
    EXPECT_EQ(S_OK, object->GetDNSSuffixSearchOrder(Guid(), nullptr));
    EXPECT_EQ(std::vector<std::wstring>{L"a.example"}, Texts(array));
}

TEST_F(DNSTest, GetDnsDomainKeepsTheOutputWithoutAValue)
{
    Connect();
    BSTR domain = SysAllocString(L"old");
    EXPECT_EQ(S_OK, object->GetDNSDomain(Guid(), &domain));
    EXPECT_STREQ(L"office.example", domain);
    Property("DNSDomain", nullptr);
    EXPECT_EQ(S_OK, object->GetDNSDomain(Guid(), &domain));
    EXPECT_STREQ(L"office.example", domain);
    Fail("IWbemClassObject::Get(DNSDomain)", 1, 0x80041003);
    EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->GetDNSDomain(Guid(), &domain));
    EXPECT_TRUE(trace.Has(L"Could not get object property"));
    EXPECT_EQ(E_POINTER, object->GetDNSDomain(Guid(), nullptr));
    SysFreeString(domain);
}

TEST_F(DNSTest, GetDefaultGatewayAndGetIpAddressGiveTheFirstEntry)
{
    Connect();
    Change([](lab::Json& adapter, lab::Json&) { adapter["gateways"] = {"192.0.2.1", "192.0.2.2"}; });
    BSTR text = SysAllocString(L"old");
    EXPECT_EQ(S_OK, object->GetDefaultGateway(Guid(), &text));
    EXPECT_STREQ(L"192.0.2.1", text);
    SysFreeString(text);
    text = nullptr;
    EXPECT_EQ(S_OK, object->GetIpAddress(Guid(), &text));
    EXPECT_STREQ(L"192.0.2.7", text);
    SysFreeString(text);
    EXPECT_EQ(E_POINTER, object->GetDefaultGateway(Guid(), nullptr));
    EXPECT_EQ(E_POINTER, object->GetIpAddress(Guid(), nullptr));
}

TEST_F(DNSTest, NoGatewayReturnsZeroAndLeavesTheOutput)
{
    Connect();
    BSTR text = SysAllocString(L"kept");
    for (const char* property : {"DefaultIPGateway", "IPAddress"})
    {
        Property(property, nullptr);
    }
    EXPECT_EQ(S_OK, object->GetDefaultGateway(Guid(), &text));
    EXPECT_EQ(S_OK, object->GetIpAddress(Guid(), &text));
    EXPECT_EQ(2, trace.Count(L"variant returned was VT_NULL"));
    EXPECT_STREQ(L"kept", text);
    SysFreeString(text);
}

TEST_F(DNSTest, FailingPropertyOfGatewayOrAddressIsReturned)
{
    Connect();
    BSTR text = nullptr;
    Fail("IWbemClassObject::Get(DefaultIPGateway)", 1, 0x80041003);
    EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->GetDefaultGateway(Guid(), &text));
    Fail("IWbemClassObject::Get(IPAddress)", 1, 0x80041003);
    EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->GetIpAddress(Guid(), &text));
    EXPECT_EQ(2, trace.Count(L"could not get property"));
    EXPECT_EQ(nullptr, text);
}
} // namespace
