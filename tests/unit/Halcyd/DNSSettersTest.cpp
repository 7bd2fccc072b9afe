#include "tests/unit/Halcyd/DNSFixture.h"
#include "tests/unit/Halcyd/VariantTypes.h"

namespace
{
using namespace DNSTests;

class DNSSetters : public DNSFixture
{
};

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

TEST_F(DNSSetters, EachSetterRunsItsMethodOnTheAdaptersInstance)
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

TEST_F(DNSSetters, SettersChangeTheMachine)
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

TEST_F(DNSSetters, EachFailingStepOfEachSetterReturnsItsResult)
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

TEST_F(DNSSetters, UnknownAdapterStopsEverySetterButTheOneOfTheClass)
{
    Connect();
    for (const SetterCase& row : SetterCases())
    {
        trace.Clear();
        EXPECT_EQ(row.onClass ? S_OK : NotFound, row.call(*object.Get(), _bstr_t(NoGuid))) << row.method;
        EXPECT_TRUE(trace.Has(row.noPath)) << row.method;
    }
}

TEST_F(DNSSetters, PositiveResultsOfTheWmiMethodsArePassedOn)
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

TEST_F(DNSSetters, UnreadableReturnValueCountsAsSuccess)
{
    Connect();
    Change([&](lab::Json&, lab::Json& state) { state["methods"]["EnableDHCP"] = 91; });
    Fail("IWbemClassObject::Get(ReturnValue)");
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
}

// An object whose property cannot be read and that leaves a number behind in the caller's variant all the same.
class UnreadableOutput : public FakeClassObject
{
public:
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR, long, VARIANT* value, CIMTYPE*, long*) override
    {
        value->lVal = 91;
        return result;
    }
    HRESULT result = static_cast<HRESULT>(WBEM_E_NOT_FOUND);
};

TEST_F(DNSSetters, NumberBesideAnUnreadableReturnValueIsNotLookedAt)
{
    const IWbemClassObjectPtr unreadable(new UnreadableOutput);
    EXPECT_EQ(S_OK, CDNS::CheckWMIReturnCode(unreadable));
    static_cast<UnreadableOutput*>(unreadable.GetInterfacePtr())->result = S_OK; // a value without a type
    EXPECT_EQ(S_OK, CDNS::CheckWMIReturnCode(unreadable));
    EXPECT_EQ(S_OK, CDNS::CheckWMIReturnCode(nullptr));
    EXPECT_FALSE(trace.Has(L"Bad return value from last method call"));
}

TEST_F(DNSSetters, SetDnsDomainOnAnAdapterWithIpDisabledReturns84AndSaysSo)
{
    Connect();
    Change([](lab::Json&, lab::Json& state) { state["methods"]["SetDNSDomain"] = 84; });
    EXPECT_EQ(84, object->SetDNSDomain(Guid(), _bstr_t(L"x.example")));
    EXPECT_TRUE(trace.Has(L"IP was not enabled on the adapter when the SetDNSDomain WMI method was called"));
}

TEST_F(DNSSetters, SetDnsDomainPrintsANullDomainInItsFailure)
{
    Connect();
    Fail("IWbemClassObject::Put(DNSDomain)");
    EXPECT_TRUE(FAILED(object->SetDNSDomain(Guid(), nullptr)));
    EXPECT_TRUE(trace.Has(L"Could not setup parameter for the DNS suffix of '<NULL|EMPTY>'"));
}

TEST_F(DNSSetters, SetDnsDomainPrintsADomainWithBracesAsItStands)
{
    Connect();
    Fail("IWbemClassObject::Put(DNSDomain)", 1, 0x80041003);
    EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->SetDNSDomain(Guid(), _bstr_t(L"{}.{name}")));
    EXPECT_TRUE(trace.Has(L"Could not setup parameter for the DNS suffix of '{}.{name}'"));
}

TEST_F(DNSSetters, SetWinsRefusesNullAndTakesEmptyTexts)
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

TEST_F(DNSSetters, RenewFailsWhenTheReleaseMethodIsNotThere)
{
    Connect();
    Fail("IWbemClassObject::GetMethod(ReleaseDHCPLease)", 1, 0x80041002);
    EXPECT_EQ(static_cast<HRESULT>(0x80041002), object->RenewDHCPLease(Guid()));
    EXPECT_TRUE(trace.Has(L"Could not get ReleaseDHCPLease method"));
    EXPECT_EQ(0u, Journalled("IWbemServices::ExecMethod").size());
}

TEST_F(DNSSetters, ArraysOfAnyOtherTypeAreRefusedWithoutEffectAndWithoutBeingFollowed)
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

TEST_F(DNSSetters, ArraysAreShownAndOddOnesDoNotStopTheMethod)
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
    EXPECT_EQ(1u, Journalled("IWbemClassObject::Put").size()); // went on

    SAFEARRAYBOUND bounds[] = {{1, 0}, {1, 0}};
    VARIANT square;
    square.vt = VT_ARRAY | VT_BSTR;
    square.parray = SafeArrayCreate(VT_BSTR, 2, bounds);
    static_cast<void>(object->SetDNS(Guid(), &square));
    static_cast<void>(object->SetDNSSuffixSearchOrder(Guid(), &square));
    EXPECT_EQ(3u, Journalled("IWbemClassObject::Put").size());
    EXPECT_TRUE(trace.Has(L"Pass a one - dimensional DNS safearray"));
    EXPECT_TRUE(trace.Has(L"could not display DNS search order array"));
    EXPECT_TRUE(trace.Has(L"Could not display DNS array"));
    SafeArrayDestroy(square.parray);
}
} // namespace
