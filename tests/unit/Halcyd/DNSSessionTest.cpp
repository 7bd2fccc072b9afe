#include "tests/unit/Halcyd/DNSFixture.h"

namespace
{
using namespace DNSTests;

class DNSSession : public DNSFixture
{
};

TEST_F(DNSSession, ConnectOpensTheNamespaceAndFindsTheAdapter)
{
    EXPECT_EQ(S_OK, object->ConnectNetCfg(Guid()));
    ASSERT_EQ(1u, Journalled("IWbemLocator::ConnectServer").size());
    EXPECT_TRUE(trace.Has(L"That adapter matches"));
    EXPECT_TRUE(trace.Has(L"Just looking for duplicates"));
    EXPECT_TRUE(trace.Has(L"Found one matching GUID match so far"));
    EXPECT_TRUE(trace.Has(L"path is 'Win32_NetWorkAdapterConfiguration.Index='7''"));
    EXPECT_TRUE(trace.Has(L"Added to global device table: " + guid + L", Win32_NetWorkAdapterConfiguration.Index='7'"));
    EXPECT_EQ(S_OK, object->DisconnectNetCfg());
}

TEST_F(DNSSession, BlanketOfServicesAndEnumeratorIsNtlmAtCallLevelWithImpersonation)
{
    Connect();
    const std::vector<lab::Json> blankets = Journalled("IClientSecurity::SetBlanket");
    ASSERT_EQ(2u, blankets.size());
    for (const lab::Json& blanket : blankets)
    {
        EXPECT_EQ((lab::Json{{"authentication", 10}, {"authorisation", 0}, {"level", 3}, {"impersonation", 3}}),
                  blanket["args"]);
    }
}

TEST_F(DNSSession, SecondConnectWithoutADisconnectReplacesTheSession)
{
    Connect();
    machine.ClearJournal();
    Connect();
    EXPECT_EQ(1u, Journalled("IWbemLocator::ConnectServer").size());
    EXPECT_EQ(1u, Journalled("IWbemServices::GetObject").size());
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
    EXPECT_EQ(S_OK, object->DisconnectNetCfg());
    EXPECT_EQ(CDNS::NoSession, object->EnableDHCP(Guid()));
}

TEST_F(DNSSession, FailingSecondConnectLeavesNothingOfTheFirstSession)
{
    for (const char* call : {"IWbemLocator::ConnectServer", "IWbemServices::GetObject"})
    {
        Connect();
        Fail(call, 1, 0x80041003);
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), object->ConnectNetCfg(Guid())) << call;
        EXPECT_EQ(CDNS::NoSession, object->EnableDHCP(Guid())) << call;
        EXPECT_EQ(S_OK, object->DisconnectNetCfg());
    }
}

TEST_F(DNSSession, PathThatGoesStaleStaysInUse)
{
    Connect();
    Change([](lab::Json& adapter, lab::Json&) { adapter["index"] = 31; });
    BSTR path = nullptr;
    EXPECT_EQ(S_OK, object->GetInstancePathByGuid(guid.c_str(), &path));
    EXPECT_STREQ(L"Win32_NetWorkAdapterConfiguration.Index='7'", path);
    SysFreeString(path);
    EXPECT_TRUE(FAILED(object->EnableDHCP(Guid())));
}

TEST_F(DNSSession, DisconnectKeepsTheTable)
{
    Connect();
    object->DisconnectNetCfg();
    EXPECT_EQ(1u, GlobalDeviceTable().Count());
    EXPECT_TRUE(GlobalDeviceTable().Find(guid).has_value());
}

TEST_F(DNSSession, FiftiethAdapterIsFoundEachTimeAnewAndNotKept)
{
    for (int number = 0; number < 49; ++number)
    {
        GlobalDeviceTable().Add(L"{" + std::to_wstring(number) + L"}", L"path");
    }
    Connect();
    EXPECT_FALSE(trace.Has(L"Added to global device table"));
    EXPECT_FALSE(trace.Has(L"found match in global device table"));
    machine.ClearJournal();
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
    EXPECT_EQ(1u, Journalled("IWbemServices::CreateInstanceEnum").size());
    EXPECT_EQ(51u, GlobalDeviceTable().Count());
}

TEST_F(DNSSession, ConnectAfterAFailedCheckForDuplicatesFindsTheFirstInTheTable)
{
    machine.Update([&](lab::Json& state, lab::Events&) { state["adapters"][1]["guid"] = lab::Utf8(guid); });
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_EQ(S_OK, object->ConnectNetCfg(Guid()));
}

TEST_F(DNSSession, UnknownGuidReturnsNotFoundAndLeavesTheSessionOpen)
{
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(NoGuid)));
    EXPECT_TRUE(trace.Has(L"could not find a matching adapter '" + std::wstring(NoGuid) + L"'"));
    EXPECT_EQ(S_OK, object->EnableDHCP(Guid()));
    EXPECT_EQ(S_OK, object->DisconnectNetCfg());
    EXPECT_EQ(NotFound, object->ConnectNetCfg(nullptr));
}

TEST_F(DNSSession, SecondConnectFindsTheTableEntryWithoutEnumerationOnANewConnection)
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

TEST_F(DNSSession, GuidInLowerCaseDoesNotMatch)
{
    std::wstring lower = guid;
    for (wchar_t& character : lower)
    {
        character = static_cast<wchar_t>(towlower(character));
    }
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(lower.c_str())));
}

TEST_F(DNSSession, TwoAdaptersWithOneGuidFailTheCheckWhileACallWithAPathTakesTheFirst)
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

TEST_F(DNSSession, TwoAdaptersWithOneGuidFailConnect)
{
    machine.Update([&](lab::Json& state, lab::Events&) { state["adapters"][1]["guid"] = lab::Utf8(guid); });
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_TRUE(trace.Has(L"Found more than one matching GUID match, ERROR"));
    EXPECT_FALSE(trace.Has(L"could not find a matching adapter"));
}

TEST_F(DNSSession, AdapterWithoutSettingIdIsPassedOver)
{
    Property("SettingID", nullptr);
    EXPECT_EQ(NotFound, object->ConnectNetCfg(Guid()));
    EXPECT_EQ(S_OK, object->ConnectNetCfg(_bstr_t(otherGuid.c_str())));
}

TEST_F(DNSSession, PropertyThatCannotBeReadPassesOverItsObjectOnly)
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

TEST_F(DNSSession, EachFailingStepOfConnectReturnsItsResult)
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

TEST_F(DNSSession, LinesBearTheConfigurationsSourceAndFailuresLevelTwo)
{
    Connect();
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 4, L"That adapter matches"));
    EXPECT_EQ(NotFound, object->ConnectNetCfg(_bstr_t(NoGuid)));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"could not find a matching adapter '"));
    Fail("IWbemLocator::ConnectServer");
    EXPECT_TRUE(FAILED(object->ConnectNetCfg(Guid())));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"could not connect to WMI Error 2147749889 (0x80041001)"));
}

TEST_F(DNSSession, FailingEnumerationMeansThatNoAdapterIsFound)
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

TEST_F(DNSSession, EnumerationIsForwardOnlyAndReturnsImmediately)
{
    Connect();
    ASSERT_EQ(1u, Journalled("IWbemServices::CreateInstanceEnum").size());
    EXPECT_NE(std::string::npos, Journalled("IWbemServices::CreateInstanceEnum")[0].dump().find("48"));
}

TEST_F(DNSSession, CachedPathIsHandedOutAsANewString)
{
    Connect();
    BSTR path = nullptr;
    EXPECT_EQ(S_OK, object->GetInstancePathByGuid(guid.c_str(), &path));
    EXPECT_STREQ(L"Win32_NetWorkAdapterConfiguration.Index='7'", path);
    SysFreeString(path);
    EXPECT_TRUE(trace.Has(L"allocated bstr 'Win32_NetWorkAdapterConfiguration.Index='7'' (0x"));
}

// --- No session ---

TEST_F(DNSSession, WithoutASessionEveryMethodFailsAndLeavesItsOutputs)
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
} // namespace
