// Corners of the service proxy: dependents that do not open on the way up, the privilege after a refusal.

#include <gtest/gtest.h>

#include <comdef.h>

#include "Halcyd/ServiceControlEx.h"
#include "Halcyd/ServiceModeRules.h"
#include "NetUtilities/Handles.h"
#include "tests/unit/Halcyd/FakeServices.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
class ServiceControlCorners : public testing::Test
{
protected:
    TraceLines trace;
    SleepClock clock;
    FakeServices services{clock};
    TestObject<CServiceControlEx> object = MakeTestObject<CServiceControlEx>();
};

TEST_F(ServiceControlCorners, DependentThatDoesNotOpenIsPassedOverOnTheWayUp)
{
    services.Add(L"PolicyAgent").dependents = {L"First", L"Second"};
    services.Add(L"First");
    services.Add(L"Second").opens = false;
    services[L"Second"].sddl = L"D:(D;;CC;;;SY)"; // which no repair helps
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    const UniqueServiceHandle service(OpenServiceW(manager.get(), L"PolicyAgent", SERVICE_ALL_ACCESS));
    ServiceList list;
    DWORD count = 0;
    ASSERT_EQ(0u, CServiceControlEx::MyEnumDependentServices(manager.get(), service.get(), list, count));
    ASSERT_EQ(2u, count);
    services.journal.clear();
    EXPECT_EQ(0u, CServiceControlEx::MyRestartServices(manager.get(), service.get(), list, count));
    EXPECT_TRUE(trace.Has(L"trying to open 'Second' (handle = 0x0)"));
    EXPECT_TRUE(trace.Has(L"could not open service (handle = 0x0)"));
    std::vector<std::wstring> started;
    for (const std::wstring& line : services.journal)
    {
        if (line.starts_with(L"start "))
        {
            started.push_back(line);
        }
    }
    EXPECT_EQ((std::vector<std::wstring>{L"start PolicyAgent", L"start First"}), started);
}

TEST_F(ServiceControlCorners, PrivilegeIsOffAgainAfterARefusedAmendment)
{
    FakeService& service = services.Add(L"PolicyAgent");
    service.opens = false;
    service.sddl = L"D:(A;;CC;;;BA)";
    PlatformHooks::FailCall("SetServiceObjectSecurity", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(ERROR_ACCESS_DENIED, object->SetServiceMode(_bstr_t(L"PolicyAgent"), 1, -1));
    EXPECT_FALSE(services.privilege); // off again although the amendment failed
    EXPECT_EQ(L"D:(A;;CC;;;BA)", service.sddl);
    EXPECT_EQ(0, services.OpenHandles());
}

TEST(ServiceModeRules, DescriptorGetsTheFourEntriesWordForWord)
{
    EXPECT_EQ(L"(A;;CCLCSWLORC;;;AU)(A;;CCLCSWRPLOCRRC;;;PU)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
              L"(A;;CCLCSWRPWPDTLOCRRC;;;SY)",
              ServiceModeRules::DescriptorAddition);
}
} // namespace
