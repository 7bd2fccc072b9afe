// The scope lines of COM methods bear the method's name, though its body runs inside a guard.

#include <gtest/gtest.h>

#include <algorithm>

#include "Halcyd/ComPointer.h"
#include "Halcyd/DNS.h"
#include "Halcyd/EventSink.h"
#include "Halcyd/NetRegistry.h"
#include "Halcyd/ServiceControlEx.h"
#include "Halcyd/VNIC.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/ScopesTraced.h"

namespace
{
class MethodScopes : public ScopesTraced<testing::Test>
{
protected:
    // One entry and one exit for each method, and none for a lambda.
    static void ExpectOnceEach(const std::wstring& className, std::initializer_list<const wchar_t*> methods)
    {
        for (const wchar_t* const method : methods)
        {
            for (const wchar_t* const direction : {L"Enter ==> ", L"Exit  <== "})
            {
                const std::wstring start = direction + className + L"::" + method + L" pid ";
                EXPECT_EQ(TraceLines::Count(start), 1) << std::string(start.begin(), start.end());
            }
        }
        const std::vector<std::wstring> lines = TraceLines::All();
        EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const std::wstring& line)
                                 { return line.find(L"<lambda>") != std::wstring::npos; }));
    }

    HookScope hooks;
};

TEST_F(MethodScopes, OfTheMonitor)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    VARIANT_BOOL open = VARIANT_FALSE;
    long mask = 0;
    _DEVICE_ELEMENT* list = nullptr;
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(monitor->put_FilterMask(mask), S_OK);
    EXPECT_EQ(monitor->GetDeviceInfoList(&list), S_OK);
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    EXPECT_EQ(monitor->StopNotificationProcessing(), S_OK);
    EXPECT_EQ(monitor->WiFiSurvey(), S_OK);
    EXPECT_EQ(monitor->ResetSsidList(), S_OK);
    static_cast<void>(monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    ExpectOnceEach(L"CNetMonSv", {L"Close", L"IsOpen", L"get_FilterMask", L"put_FilterMask", L"GetDeviceInfoList",
                                  L"StartNotificationProcessing", L"StopNotificationProcessing", L"WiFiSurvey",
                                  L"ResetSsidList", L"ChangeMultiHomingPreferenceIfAllowed"});
    EXPECT_TRUE(TraceLines::Has(L"CNetMonSv::ResetSsidList:     Lock ==>> deviceInfoListMutex"));
    EXPECT_TRUE(TraceLines::Has(L"CNetMonSv::GetDeviceInfoList:     Lock ==>> deviceInfoListMutex"));
}

TEST_F(MethodScopes, OfTheEventSink)
{
    const ComPointer<IWbemObjectSink> sink(new EventSink);
    EXPECT_EQ(sink->Indicate(0, nullptr), S_OK);
    EXPECT_EQ(sink->SetStatus(0, S_OK, nullptr, nullptr), S_OK);
    ExpectOnceEach(L"EventSink", {L"Indicate", L"SetStatus"});
}

TEST_F(MethodScopes, OfTheRegistryProxy)
{
    VerifyVersionInfoWHook::Replace([](LPOSVERSIONINFOEXW, DWORD, DWORDLONG) { return TRUE; });
    const TestObject<CNetRegistry> registry = MakeTestObject<CNetRegistry>();
    const VARIANT nothing{};
    EXPECT_NE(registry->QueryRegistry(nullptr, nullptr, nullptr, nullptr), S_OK);
    EXPECT_NE(registry->SetRegistry(nullptr, nullptr, nothing, nothing), S_OK);
    EXPECT_NE(registry->DeleteRegistry(nullptr, nullptr), S_OK);
    EXPECT_NE(registry->DeleteRegistryNode(nullptr), S_OK);
    EXPECT_EQ(registry->RefreshDNSCache(), S_OK);
    ExpectOnceEach(L"CNetRegistry",
                   {L"QueryRegistry", L"SetRegistry", L"DeleteRegistry", L"DeleteRegistryNode", L"RefreshDNSCache"});
}

TEST_F(MethodScopes, OfTheServiceProxy)
{
    OpenSCManagerWHook::Replace([](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { return nullptr; });
    const TestObject<CServiceControlEx> services = MakeTestObject<CServiceControlEx>();
    static_cast<void>(services->SetServiceMode(nullptr, 0, 0));
    static_cast<void>(services->QueryServiceMode(nullptr, nullptr, nullptr));
    ExpectOnceEach(L"CServiceControlEx", {L"SetServiceMode", L"QueryServiceMode"});
}

TEST_F(MethodScopes, OfTheAdapterSettings)
{
    const TestObject<CDNS> settings = MakeTestObject<CDNS>();
    EXPECT_EQ(settings->DisconnectNetCfg(), S_OK);
    EXPECT_NE(settings->SetGateways(nullptr, nullptr, nullptr), S_OK);
    EXPECT_NE(settings->SetWINS(nullptr, nullptr, nullptr), S_OK);
    EXPECT_EQ(settings->GetDNS(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(settings->GetDNSDomain(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(settings->GetDefaultGateway(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(settings->GetIpAddress(nullptr, nullptr), E_POINTER);
    ExpectOnceEach(L"CDNS", {L"DisconnectNetCfg", L"SetGateways", L"SetWINS", L"GetDNS", L"GetDNSDomain",
                             L"GetDefaultGateway", L"GetIpAddress"});
}

TEST_F(MethodScopes, OfTheVirtualAdapter)
{
    const TestObject<CVNIC> adapter = MakeTestObject<CVNIC>();
    EXPECT_EQ(adapter->EnableVNICAdapter(), E_NOTIMPL);
    EXPECT_EQ(adapter->GetVNICStatus(), E_NOTIMPL);
    EXPECT_EQ(adapter->RouteCommand(nullptr), E_NOTIMPL);
    ExpectOnceEach(L"CVNIC", {L"EnableVNICAdapter", L"GetVNICStatus", L"RouteCommand"});
}
} // namespace
