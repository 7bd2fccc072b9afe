#include "tests/unit/Halcyd/DNSFixture.h"

namespace
{
using namespace DNSTests;

class DNSGetters : public DNSFixture
{
};

TEST_F(DNSGetters, GetDnsOfAnAdapterWithDhcpServersGivesAnEmptyArray)
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

TEST_F(DNSGetters, GetDnsTellsStaticServersFromWmi)
{
    Connect();
    SetNameServer(L"192.0.2.60");
    Change([](lab::Json& adapter, lab::Json&) { adapter["dnsStatic"] = {"192.0.2.60", "192.0.2.61"}; });
    _variant_t array;
    EXPECT_EQ(S_OK, object->GetDNS(Guid(), &array));
    EXPECT_EQ((std::vector<std::wstring>{L"192.0.2.60", L"192.0.2.61"}), Texts(array));
    EXPECT_TRUE(trace.Has(L"static DNS servers, using WMI to fetch DNS servers"));
}

TEST_F(DNSGetters, GetDnsWithoutTheKeyOrTheValueReturnsTwo)
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

TEST_F(DNSGetters, GetDnsLooksInAKeyOfItsOwnWhenTheSettingIdIsMissing)
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

TEST_F(DNSGetters, GetDnsReturnsEachFailureAndKeepsTheOutput)
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

TEST_F(DNSGetters, AdapterOrObjectThatIsNotThereEndsEachOtherGetterInItsOwnWords)
{
    Connect();
    BSTR text = SysAllocString(L"kept");
    BSTR other = SysAllocString(L"kept");
    const struct
    {
        std::function<HRESULT(BSTR)> call;
        const wchar_t* noPath;
        const wchar_t* noObject;
    } rows[] = {{[&](BSTR id) { return object->GetWINS(id, &text, &other); }, L"could not get instance path",
                 L"could not get class instance object"},
                {[&](BSTR id) { return object->GetDNSDomain(id, &text); }, L"Could not get instance path",
                 L"Could not get class instance object"},
                {[&](BSTR id) { return object->GetDefaultGateway(id, &text); }, L"could not get instance path",
                 L"could not get class instance object"},
                {[&](BSTR id) { return object->GetIpAddress(id, &text); }, L"could not get instance path",
                 L"could not get class instance object"}};
    for (const auto& row : rows)
    {
        trace.Clear();
        EXPECT_EQ(NotFound, row.call(_bstr_t(NoGuid)));
        EXPECT_TRUE(trace.Has(row.noPath));
        EXPECT_FALSE(trace.Has(row.noObject));
        Fail("IWbemServices::GetObject", 1, 0x80041003);
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), row.call(Guid()));
        Fail("IWbemServices::GetObject", 1, 0); // succeeds, and gives no object
        EXPECT_TRUE(FAILED(row.call(Guid())));
        EXPECT_EQ(2, trace.Count(row.noObject));
    }
    EXPECT_STREQ(L"kept", text);
    EXPECT_STREQ(L"kept", other);
    SysFreeString(text);
    SysFreeString(other);
}

TEST_F(DNSGetters, GetWinsReplacesWhatIsSetAndKeepsTheRest)
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

TEST_F(DNSGetters, GetDnsSuffixSearchOrderReturnsZeroWhateverHappens)
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

TEST_F(DNSGetters, GetDnsDomainKeepsTheOutputWithoutAValue)
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

TEST_F(DNSGetters, GetDefaultGatewayAndGetIpAddressGiveTheFirstEntry)
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

TEST_F(DNSGetters, NoGatewayReturnsZeroAndLeavesTheOutput)
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

TEST_F(DNSGetters, GatewayOrAddressWithoutAValueReturnsZeroAndLeavesTheOutput)
{
    Connect();
    BSTR text = SysAllocString(L"kept");
    Fail("IWbemClassObject::Get(DefaultIPGateway)", 1, 0); // succeeds, and leaves the variant empty
    EXPECT_EQ(S_OK, object->GetDefaultGateway(Guid(), &text));
    Fail("IWbemClassObject::Get(IPAddress)", 1, 0);
    EXPECT_EQ(S_OK, object->GetIpAddress(Guid(), &text));
    EXPECT_EQ(2, trace.Count(L"variant returned was VT_EMPTY"));
    EXPECT_STREQ(L"kept", text);
    SysFreeString(text);
}

TEST_F(DNSGetters, ListOfGatewaysOrAddressesWithoutAnEntryIsAFailure)
{
    Connect();
    Property("DefaultIPGateway", lab::Json::array());
    Property("IPAddress", lab::Json::array());
    BSTR text = SysAllocString(L"kept");
    EXPECT_EQ(DISP_E_BADINDEX, object->GetDefaultGateway(Guid(), &text));
    EXPECT_EQ(DISP_E_BADINDEX, object->GetIpAddress(Guid(), &text));
    EXPECT_EQ(2, trace.Count(L"Could not access safearray"));
    EXPECT_STREQ(L"kept", text);
    SysFreeString(text);
}

TEST_F(DNSGetters, FailingPropertyOfGatewayOrAddressIsReturned)
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
