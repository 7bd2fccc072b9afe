// The adapter settings of the running service: what WMI's methods answer, and adapters that are not as they should be.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <functional>
#include <string>
#include <vector>

#include "AdapterSettingsFixture.h"
#include "tests/support/StringArrays.h"

namespace
{
constexpr wchar_t EthernetLower[] = L"{4a1c7e07-3b52-4d0f-9e61-0c5d8a2b7007}";

// A string that the service may replace.
class Slot
{
public:
    explicit Slot(const wchar_t* before = L"kept") : text(SysAllocString(before)) {}
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    ~Slot() { SysFreeString(text); }
    BSTR* operator&() noexcept { return &text; }
    [[nodiscard]] std::wstring Text() const { return text != nullptr ? text : L"(null)"; }

private:
    BSTR text;
};

class AdapterSettingsResults : public AdapterSettingsFixture
{
protected:
    static std::wstring InterfaceKey()
    {
        return std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\") + Ethernet;
    }

    struct Setter
    {
        const wchar_t* method; // of WMI
        std::function<HRESULT()> call;
    };
    std::vector<Setter> Setters()
    {
        const auto array = [this](HRESULT (STDMETHODCALLTYPE IDNS::*method)(BSTR, VARIANT*), const wchar_t* text)
        {
            _variant_t values = TextArray({text});
            return (dns.GetInterfacePtr()->*method)(guid, &values);
        };
        return {{L"SetDNSServerSearchOrder", [=] { return array(&IDNS::SetDNS, L"192.0.2.60"); }},
                {L"SetWINSServer", [this] { return dns->SetWINS(guid, _bstr_t(L"192.0.2.8"), _bstr_t(L"")); }},
                {L"SetDNSSuffixSearchOrder", [=] { return array(&IDNS::SetDNSSuffixSearchOrder, L"a.example"); }},
                {L"SetDNSDomain", [this] { return dns->SetDNSDomain(guid, _bstr_t(L"b.example")); }},
                {L"EnableDHCP", [this] { return dns->EnableDHCP(guid); }},
                {L"ReleaseDHCPLease", [this] { return dns->ReleaseDHCPLease(guid); }},
                {L"RenewDHCPLease", [this] { return dns->RenewDHCPLease(guid); }},
                {L"EnableStatic", [this]
                 {
                     _variant_t addresses = TextArray({L"192.0.2.99"});
                     _variant_t masks = TextArray({L"255.255.255.0"});
                     return dns->EnableStatic(guid, &addresses, &masks);
                 }}};
    }
};

// 1: done, a restart is needed. 84: IP is not enabled. Others as the class documents them.
TEST_F(AdapterSettingsResults, EveryResultOfEveryMethodComesBackAsItIs)
{
    Connect();
    for (const Setter& setter : Setters())
    {
        for (const int value : {1, 84, 91})
        {
            Lab(std::wstring(L"set methods.") + setter.method + L" " + std::to_wstring(value));
            EXPECT_EQ(value, setter.call()) << setter.method;
        }
        Lab(std::wstring(L"set methods.") + setter.method + L" 0");
        EXPECT_EQ(S_OK, setter.call()) << setter.method;
    }
}

TEST_F(AdapterSettingsResults, AdapterWithIpDisabledAnswers84)
{
    Connect();
    Lab(L"set adapters.eth0.ipEnabled false");
    EXPECT_EQ(84, dns->SetDNSDomain(guid, _bstr_t(L"b.example")));
    EXPECT_EQ(84, dns->EnableDHCP(guid));
    // The machine's list hangs on no adapter.
    _variant_t suffixes = TextArray({L"a.example"});
    EXPECT_EQ(S_OK, dns->SetDNSSuffixSearchOrder(guid, &suffixes));
}

TEST_F(AdapterSettingsResults, TwoAdaptersWithOneIdFailTheCheckAndTheFirstIsUsed)
{
    Lab(std::wstring(L"set adapters.wlan0.guid ") + Ethernet);
    EXPECT_EQ(NotFound, dns->ConnectNetCfg(guid));
    Slot address;
    EXPECT_EQ(S_OK, dns->GetIpAddress(guid, &address));
    EXPECT_EQ(L"192.0.2.23", address.Text());
    EXPECT_EQ(S_OK, dns->DisconnectNetCfg());
    // The first one is in the table of the process by now.
    EXPECT_EQ(S_OK, dns->ConnectNetCfg(guid));
}

TEST_F(AdapterSettingsResults, IdInLowerCaseMatchesNoAdapter)
{
    EXPECT_EQ(NotFound, dns->ConnectNetCfg(_bstr_t(EthernetLower)));
    EXPECT_EQ(S_OK, dns->DisconnectNetCfg());
}

TEST_F(AdapterSettingsResults, PathThatWasFoundOnceStaysInUseForAllObjects)
{
    Connect();
    Lab(L"set adapters.eth0.index 77");
    IDNSPtr other = ActivateLocal<IDNSPtr>(CLSID_DNS);
    EXPECT_EQ(S_OK, other->ConnectNetCfg(guid));
    EXPECT_TRUE(FAILED(other->EnableDHCP(guid)));
}

TEST_F(AdapterSettingsResults, GetDnsTellsServersOfTheRegistryFromThoseOfDhcp)
{
    Connect();
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"NameServer");
    _variant_t servers;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, dns->GetDNS(guid, &servers));
    ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"NameServer", REG_SZ, L"", 2));
    EXPECT_EQ(S_OK, dns->GetDNS(guid, &servers));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, servers.vt);
    ASSERT_NE(nullptr, servers.parray);
    EXPECT_EQ(0u, servers.parray->rgsabound[0].cElements);
}

TEST_F(AdapterSettingsResults, WhatTheAdapterDoesNotHaveLeavesTheOutputs)
{
    Connect();
    for (const wchar_t* property :
         {L"DefaultIPGateway", L"IPAddress", L"DNSDomain", L"WINSPrimaryServer", L"WINSSecondaryServer"})
    {
        Lab(std::wstring(L"set adapters.eth0.wmi.") + property + L" null");
    }
    Slot gateway;
    Slot domain;
    Slot primary;
    Slot secondary;
    EXPECT_EQ(S_OK, dns->GetDefaultGateway(guid, &gateway));
    EXPECT_EQ(S_OK, dns->GetDNSDomain(guid, &domain));
    EXPECT_EQ(S_OK, dns->GetWINS(guid, &primary, &secondary));
    EXPECT_EQ(L"kept", gateway.Text());
    EXPECT_EQ(L"kept", domain.Text());
    EXPECT_EQ(L"kept", primary.Text());
    EXPECT_EQ(L"kept", secondary.Text());
    BSTR address = nullptr;
    EXPECT_EQ(S_OK, dns->GetIpAddress(guid, &address));
    EXPECT_EQ(nullptr, address);
}

TEST_F(AdapterSettingsResults, EmptySecondaryWinsServerIsPassedOn)
{
    Connect();
    EXPECT_EQ(S_OK, dns->SetWINS(guid, _bstr_t(L"192.0.2.8"), _bstr_t(L"192.0.2.9")));
    EXPECT_EQ(S_OK, dns->SetWINS(guid, _bstr_t(L"192.0.2.8"), _bstr_t(L"")));
    Slot primary;
    Slot secondary;
    EXPECT_EQ(S_OK, dns->GetWINS(guid, &primary, &secondary));
    EXPECT_EQ(L"192.0.2.8", primary.Text());
    EXPECT_EQ(L"kept", secondary.Text());
}

TEST_F(AdapterSettingsResults, RenewLooksForTheReleaseMethod)
{
    Connect();
    Lab(L"fail \"IWbemClassObject::GetMethod(ReleaseDHCPLease)\" --nth 1 --code 0x80041002");
    EXPECT_EQ(static_cast<HRESULT>(0x80041002), dns->RenewDHCPLease(guid));
    EXPECT_EQ(S_OK, dns->RenewDHCPLease(guid));
}
} // namespace
