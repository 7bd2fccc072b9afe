// The adapter settings of the running service, on the lab's adapters.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <string>
#include <vector>

#include "AdapterSettingsFixture.h"
#include "tests/support/StringArrays.h"

namespace
{
constexpr wchar_t Unknown[] = L"{00000000-0000-0000-0000-00000000DEAD}";
constexpr HRESULT NoSession = static_cast<HRESULT>(0x8007139F);

class AdapterSettings : public AdapterSettingsFixture
{
};

TEST_F(AdapterSettings, AddressGatewayAndDomainAreRead)
{
    Connect();
    BSTR text = nullptr;
    EXPECT_EQ(S_OK, dns->GetIpAddress(guid, &text));
    EXPECT_STREQ(L"192.0.2.23", text);
    SysFreeString(text);
    text = SysAllocString(L"");
    EXPECT_EQ(S_OK, dns->GetDefaultGateway(guid, &text));
    EXPECT_STREQ(L"192.0.2.1", text);
    EXPECT_EQ(S_OK, dns->GetDNSDomain(guid, &text));
    EXPECT_STREQ(L"office.example", text);
    SysFreeString(text);
    EXPECT_EQ(S_OK, dns->DisconnectNetCfg());
}

TEST_F(AdapterSettings, StaticServersAreSetAndToldAndGivenBackToDhcp)
{
    Connect();
    _variant_t servers = TextArray({L"192.0.2.60", L"192.0.2.61"});
    EXPECT_EQ(S_OK, dns->SetDNS(guid, &servers));
    _variant_t read;
    EXPECT_EQ(S_OK, dns->GetDNS(guid, &read));
    EXPECT_EQ((std::vector<std::wstring>{L"192.0.2.60", L"192.0.2.61"}), Texts(read));
    _variant_t none = TextArray({});
    EXPECT_EQ(S_OK, dns->SetDNS(guid, &none));
    EXPECT_EQ(S_OK, dns->GetDNS(guid, &read));
    EXPECT_EQ(VT_ARRAY | VT_BSTR, read.vt);
    EXPECT_TRUE(Texts(read).empty());
}

TEST_F(AdapterSettings, WinsSuffixesAndDomainComeBackAsSet)
{
    Connect();
    EXPECT_EQ(S_OK, dns->SetWINS(guid, _bstr_t(L"192.0.2.8"), _bstr_t(L"")));
    BSTR primary = SysAllocString(L"old");
    BSTR secondary = SysAllocString(L"old");
    EXPECT_EQ(S_OK, dns->GetWINS(guid, &primary, &secondary));
    EXPECT_STREQ(L"192.0.2.8", primary);
    EXPECT_STREQ(L"old", secondary);
    EXPECT_EQ(E_INVALIDARG, dns->SetWINS(guid, nullptr, _bstr_t(L"")));
    _variant_t suffixes = TextArray({L"one.example", L"two.example"});
    EXPECT_EQ(S_OK, dns->SetDNSSuffixSearchOrder(guid, &suffixes));
    _variant_t read;
    EXPECT_EQ(S_OK, dns->GetDNSSuffixSearchOrder(guid, &read));
    EXPECT_EQ((std::vector<std::wstring>{L"one.example", L"two.example"}), Texts(read));
    EXPECT_EQ(S_OK, dns->SetDNSDomain(guid, _bstr_t(L"new.example")));
    EXPECT_EQ(S_OK, dns->GetDNSDomain(guid, &primary));
    EXPECT_STREQ(L"new.example", primary);
    SysFreeString(primary);
    SysFreeString(secondary);
}

TEST_F(AdapterSettings, StaticAddressReplacesTheLeaseAndDhcpBringsItBack)
{
    Connect();
    _variant_t addresses = TextArray({L"192.0.2.99"});
    _variant_t masks = TextArray({L"255.255.255.0"});
    EXPECT_EQ(S_OK, dns->EnableStatic(guid, &addresses, &masks));
    BSTR text = nullptr;
    EXPECT_EQ(S_OK, dns->GetIpAddress(guid, &text));
    EXPECT_STREQ(L"192.0.2.99", text);
    SysFreeString(text);
    // The method's own positive result: the adapter does not use DHCP.
    EXPECT_EQ(100, dns->ReleaseDHCPLease(guid));
    EXPECT_EQ(S_OK, dns->EnableDHCP(guid));
    EXPECT_EQ(S_OK, dns->ReleaseDHCPLease(guid));
    EXPECT_EQ(S_OK, dns->RenewDHCPLease(guid));
}

TEST_F(AdapterSettings, WithoutASessionEveryMethodFails)
{
    _variant_t array = TextArray({L"192.0.2.1"});
    BSTR text = nullptr;
    BSTR other = nullptr;
    EXPECT_EQ(NoSession, dns->SetDNS(guid, &array));
    EXPECT_EQ(NoSession, dns->GetDNS(guid, &array));
    EXPECT_EQ(NoSession, dns->SetWINS(guid, _bstr_t(L""), _bstr_t(L"")));
    EXPECT_EQ(NoSession, dns->GetWINS(guid, &text, &other));
    EXPECT_EQ(NoSession, dns->SetDNSSuffixSearchOrder(guid, &array));
    EXPECT_EQ(NoSession, dns->GetDNSSuffixSearchOrder(guid, &array));
    EXPECT_EQ(NoSession, dns->SetDNSDomain(guid, _bstr_t(L"x")));
    EXPECT_EQ(NoSession, dns->GetDNSDomain(guid, &text));
    EXPECT_EQ(NoSession, dns->EnableDHCP(guid));
    EXPECT_EQ(E_UNEXPECTED, dns->SetGateways(guid, &array, &array));
    EXPECT_EQ(NoSession, dns->EnableStatic(guid, &array, &array));
    EXPECT_EQ(NoSession, dns->ReleaseDHCPLease(guid));
    EXPECT_EQ(NoSession, dns->RenewDHCPLease(guid));
    EXPECT_EQ(NoSession, dns->GetDefaultGateway(guid, &text));
    EXPECT_EQ(NoSession, dns->GetIpAddress(guid, &text));
    EXPECT_EQ(S_OK, dns->DisconnectNetCfg());
}

TEST_F(AdapterSettings, UnknownAdapterIsNotFoundAndTheSessionCanBeClosed)
{
    EXPECT_EQ(NotFound, dns->ConnectNetCfg(_bstr_t(Unknown)));
    EXPECT_EQ(NotFound, dns->EnableDHCP(_bstr_t(Unknown)));
    EXPECT_EQ(S_OK, dns->DisconnectNetCfg());
}

TEST_F(AdapterSettings, FailingWmiCallsAreReturnedAndTheNextCallWorks)
{
    Connect();
    for (const wchar_t* call : {L"IWbemClassObject::GetMethod", L"IWbemServices::ExecMethod"})
    {
        Lab(std::wstring(L"fail ") + call + L" --nth 1 --code 0x80041003");
        EXPECT_EQ(static_cast<HRESULT>(0x80041003), dns->EnableDHCP(guid)) << call;
        EXPECT_EQ(S_OK, dns->EnableDHCP(guid)) << call;
    }
}

TEST_F(AdapterSettings, EveryVariantTypeInEveryArgumentIsRefusedOrFailsOnTheWay)
{
    Connect();
    for (int type = 0; type < 0x50; ++type)
    {
        for (const int flags : {0, 0x2000})
        {
            VARIANT odd{};
            odd.vt = static_cast<VARTYPE>(type | flags);
            if (odd.vt == (VT_ARRAY | VT_BSTR))
            {
                continue;
            }
            EXPECT_TRUE(FAILED(dns->SetDNS(guid, &odd))) << odd.vt;
            EXPECT_TRUE(FAILED(dns->SetDNSSuffixSearchOrder(guid, &odd))) << odd.vt;
            EXPECT_TRUE(FAILED(dns->EnableStatic(guid, &odd, &odd))) << odd.vt;
            EXPECT_TRUE(FAILED(dns->SetGateways(guid, &odd, &odd))) << odd.vt;
        }
    }
    BSTR text = nullptr;
    EXPECT_EQ(S_OK, dns->GetIpAddress(guid, &text));
    SysFreeString(text);
}
} // namespace
