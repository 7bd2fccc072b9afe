#include "WmiFixture.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

namespace lab::test
{
namespace
{

class WmiMethods : public WmiTest
{
protected:
    static constexpr wchar_t className[] = L"Win32_NetWorkAdapterConfiguration";
    static constexpr wchar_t path[] = L"Win32_NetWorkAdapterConfiguration.Index='7'";

    static IWbemClassObjectPtr Class()
    {
        IWbemClassObjectPtr type;
        EXPECT_EQ(Connect()->GetObject(_bstr_t{className}, 0, nullptr, &type, nullptr), S_OK);
        return type;
    }
    // An instance of the method's input, null if it has none.
    static IWbemClassObjectPtr Input(const wchar_t* method)
    {
        IWbemClassObjectPtr signature;
        EXPECT_EQ(Class()->GetMethod(method, 0, &signature, nullptr), S_OK);
        IWbemClassObjectPtr input;
        if (signature != nullptr)
        {
            EXPECT_EQ(signature->SpawnInstance(0, &input), S_OK);
        }
        return input;
    }
    static void Put(const IWbemClassObjectPtr& object, const wchar_t* name, _variant_t value)
    {
        EXPECT_EQ(object->Put(name, 0, &value, 0), S_OK) << name;
    }
    static long Run(const wchar_t* target, const wchar_t* method, IWbemClassObject* input, HRESULT expected = S_OK)
    {
        IWbemClassObjectPtr output;
        EXPECT_EQ(Connect()->ExecMethod(_bstr_t{target}, _bstr_t{method}, 0, nullptr, input, &output, nullptr),
                  expected);
        return output == nullptr ? -1 : Get(output, L"ReturnValue").lVal;
    }
    static Json Adapter() { return *FindAdapter(*TheMachine().Snapshot(), "eth0"); }
    static std::string Registry(const wchar_t* name)
    {
        wchar_t text[256] = {};
        DWORD size = sizeof text;
        const std::wstring key =
            L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\" + Wide(firstSettingId);
        return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size) == ERROR_SUCCESS
                   ? Utf8(text)
                   : "<none>";
    }
};

TEST_F(WmiMethods, SignaturesHaveTheDocumentedParameters)
{
    IWbemClassObjectPtr in;
    IWbemClassObjectPtr out;
    ASSERT_EQ(Class()->GetMethod(L"SetDNSServerSearchOrder", 0, &in, &out), S_OK);
    CIMTYPE type = 0;
    EXPECT_EQ(in->Get(L"DNSServerSearchOrder", 0, nullptr, &type, nullptr), S_OK);
    EXPECT_EQ(type, CIM_STRING | CIM_FLAG_ARRAY);
    EXPECT_EQ(out->Get(L"ReturnValue", 0, nullptr, &type, nullptr), S_OK);
    EXPECT_EQ(type, CIM_UINT32);
    in = nullptr;
    EXPECT_EQ(Class()->GetMethod(L"EnableDHCP", 0, &in, nullptr), S_OK);
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(Class()->GetMethod(L"NoSuchMethod", 0, &in, nullptr), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(Configuration()->GetMethod(L"EnableDHCP", 0, &in, nullptr),
              static_cast<HRESULT>(WBEM_E_ILLEGAL_OPERATION));
}

TEST_F(WmiMethods, DnsServersGoIntoObjectStateAndRegistry)
{
    const auto input = Input(L"SetDNSServerSearchOrder");
    Put(input, L"DNSServerSearchOrder", TextArray({L"192.0.2.100", L"192.0.2.101"}));
    EXPECT_EQ(Run(path, L"SetDNSServerSearchOrder", input), 0);
    EXPECT_EQ(Texts(Get(Configuration(), L"DNSServerSearchOrder")),
              (std::vector<std::wstring>{L"192.0.2.100", L"192.0.2.101"}));
    EXPECT_EQ(Registry(L"NameServer"), "192.0.2.100,192.0.2.101");
    Put(input, L"DNSServerSearchOrder", TextArray({}));
    EXPECT_EQ(Run(path, L"SetDNSServerSearchOrder", input), 0);
    EXPECT_EQ(Registry(L"NameServer"), "");
    EXPECT_EQ(Texts(Get(Configuration(), L"DNSServerSearchOrder")),
              (std::vector<std::wstring>{L"192.0.2.53"})); // DHCP's again
}

TEST_F(WmiMethods, BadDnsServerIsRefusedAndChangesNothing)
{
    const auto input = Input(L"SetDNSServerSearchOrder");
    Put(input, L"DNSServerSearchOrder", TextArray({L"192.0.2.300"}));
    EXPECT_EQ(Run(path, L"SetDNSServerSearchOrder", input), 70);
    EXPECT_TRUE(Adapter()["dnsStatic"].empty());
}

TEST_F(WmiMethods, WinsServersMayBeEmpty)
{
    const auto input = Input(L"SetWINSServer");
    Put(input, L"WINSPrimaryServer", L"192.0.2.60");
    Put(input, L"WINSSecondaryServer", L"");
    EXPECT_EQ(Run(path, L"SetWINSServer", input), 0);
    EXPECT_EQ(_bstr_t{Get(Configuration(), L"WINSPrimaryServer")}, _bstr_t{L"192.0.2.60"});
    EXPECT_EQ(Get(Configuration(), L"WINSSecondaryServer").vt, VT_NULL);
}

TEST_F(WmiMethods, SuffixesAreTheMachinesAndTheMethodIsStatic)
{
    const auto input = Input(L"SetDNSSuffixSearchOrder");
    Put(input, L"DNSDomainSuffixSearchOrder", TextArray({L"a.example", L"b.example"}));
    EXPECT_EQ(Run(className, L"SetDNSSuffixSearchOrder", input), 0);
    for (const wchar_t* which : {L"Index=7", L"Index=9"})
    {
        EXPECT_EQ(Texts(Get(Configuration(which), L"DNSDomainSuffixSearchOrder")),
                  (std::vector<std::wstring>{L"a.example", L"b.example"}));
    }
}

TEST_F(WmiMethods, InstanceMethodOnTheClassIsRefused)
{
    Run(className, L"EnableDHCP", nullptr, static_cast<HRESULT>(WBEM_E_INVALID_METHOD_PARAMETERS));
    Run(path, L"NoSuchMethod", nullptr, static_cast<HRESULT>(WBEM_E_INVALID_METHOD));
    Run(path, L"SetDNSDomain", nullptr, static_cast<HRESULT>(WBEM_E_INVALID_METHOD_PARAMETERS));
    Run(L"Win32_NetWorkAdapterConfiguration.Index='99'", L"EnableDHCP", nullptr,
        static_cast<HRESULT>(WBEM_E_NOT_FOUND));
}

TEST_F(WmiMethods, DomainOfAnAdapterWithoutIpGives84)
{
    const auto input = Input(L"SetDNSDomain");
    Put(input, L"DNSDomain", L"new.example");
    EXPECT_EQ(Run(path, L"SetDNSDomain", input), 0);
    EXPECT_EQ(_bstr_t{Get(Configuration(), L"DNSDomain")}, _bstr_t{L"new.example"});
    Set("/adapters/0/ipEnabled", false);
    EXPECT_EQ(Run(path, L"SetDNSDomain", input), 84);
}

TEST_F(WmiMethods, StaticAddressReplacesTheLeaseAndTellsOfIt)
{
    EventCursor cursor = TheMachine().Listen();
    const auto input = Input(L"EnableStatic");
    Put(input, L"IPAddress", TextArray({L"203.0.113.5"}));
    Put(input, L"SubnetMask", TextArray({L"255.255.255.240"}));
    EXPECT_EQ(Run(path, L"EnableStatic", input), 0);
    EXPECT_EQ(Adapter()["addresses"], Json::parse(R"([{"address":"203.0.113.5","prefix":28}])"));
    EXPECT_EQ(Get(Configuration(), L"DHCPEnabled").boolVal, VARIANT_FALSE);
    EXPECT_EQ(cursor.Next(0).size(), 3U); // two went, one came
    Put(input, L"SubnetMask", TextArray({L"255.0.255.0"}));
    EXPECT_EQ(Run(path, L"EnableStatic", input), 66);
    Put(input, L"SubnetMask", TextArray({}));
    EXPECT_EQ(Run(path, L"EnableStatic", input), 68);
    EXPECT_EQ(Run(path, L"EnableDHCP", nullptr), 0);
    EXPECT_EQ(Adapter()["dhcp"]["enabled"], true);
}

TEST_F(WmiMethods, LeaseIsReleasedAndRenewedOnlyWithDhcp)
{
    EXPECT_EQ(Run(path, L"ReleaseDHCPLease", nullptr), 0);
    EXPECT_TRUE(Adapter()["addresses"].empty());
    EXPECT_EQ(Run(path, L"RenewDHCPLease", nullptr), 0);
    EXPECT_EQ(Adapter()["gateways"], Json::array({"192.0.2.1"}));
    EXPECT_EQ(Run(L"Win32_NetWorkAdapterConfiguration.Index='9'", L"ReleaseDHCPLease", nullptr), 100);
}

TEST_F(WmiMethods, ReturnValueCanBeSet)
{
    const auto input = Input(L"SetDNSDomain");
    Put(input, L"DNSDomain", L"new.example");
    Set("/methods", {{"SetDNSDomain", 91}});
    EXPECT_EQ(Run(path, L"SetDNSDomain", input), 91);
    EXPECT_TRUE(Adapter()["dnsDomain"].is_null());
    Set("/methods", {{"SetDNSDomain", 1}}); // "reboot needed" is done all the same
    EXPECT_EQ(Run(path, L"SetDNSDomain", input), 1);
    EXPECT_EQ(Adapter()["dnsDomain"], "new.example");
}

TEST_F(WmiMethods, TwoAdaptersMayReportOneSettingId)
{
    Set("/adapters/1/wmi", {{"SettingID", firstSettingId}});
    EXPECT_EQ(
        All(L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID='{11111111-0000-4000-8000-000000000001}'")
            .size(),
        2U);
}

} // namespace
} // namespace lab::test
