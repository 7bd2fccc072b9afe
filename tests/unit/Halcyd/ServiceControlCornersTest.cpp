// Corners of the service proxy: dependents that do not open on the way up, the privilege after a refusal, short memory.

#include <gtest/gtest.h>

#include <comdef.h>

#include "Halcyd/ServiceControlEx.h"
#include "Halcyd/ServiceModeRules.h"
#include "NetUtilities/Format.h"
#include "NetUtilities/Handles.h"
#include "tests/unit/Halcyd/FakeServices.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
class ServiceControlCorners : public testing::Test
{
protected:
    // What the service manager asks for when the service's configuration is read.
    static std::size_t ConfigurationSize(const wchar_t* name)
    {
        const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        const UniqueServiceHandle service(OpenServiceW(manager.get(), name, SERVICE_QUERY_CONFIG));
        DWORD needed = 0;
        EXPECT_FALSE(QueryServiceConfigW(service.get(), nullptr, 0, &needed));
        return needed;
    }

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

TEST_F(ServiceControlCorners, NoMemoryForTheConfigurationEndsTheChange)
{
    services.Add(L"PolicyAgent");
    const std::size_t size = ConfigurationSize(L"PolicyAgent");
    const NothrowNewFails shortage(size);
    EXPECT_EQ(E_OUTOFMEMORY, object->SetServiceMode(_bstr_t(L"PolicyAgent"), 1, SERVICE_DISABLED));
    EXPECT_TRUE(NothrowNewFails::Happened());
    EXPECT_TRUE(trace.Has(FormatText(L"could not allocate '{}' byte needed for QueryServiceConfig", size)));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DEMAND_START), services[L"PolicyAgent"].startType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"PolicyAgent"].state);
    EXPECT_EQ(0, services.OpenHandles());
}

TEST_F(ServiceControlCorners, NoMemoryForTheDependentsStopsNothing)
{
    services.Add(L"PolicyAgent").dependents = {L"First"};
    services.Add(L"First");
    PlatformHooks::FailCall("LocalAlloc", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(E_OUTOFMEMORY, object->SetServiceMode(_bstr_t(L"PolicyAgent"), 1, -1));
    EXPECT_TRUE(trace.Has(L"return, could not allocate '"));
    EXPECT_TRUE(trace.Has(L"failed to call stop service list"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"First"].state);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"PolicyAgent"].state);
    EXPECT_EQ(0, services.OpenHandles());
}

TEST_F(ServiceControlCorners, NoMemoryForAQueryIsToldAndBothNumbersAreWritten)
{
    services.Add(L"PolicyAgent");
    const std::size_t configuration = ConfigurationSize(L"PolicyAgent");
    const struct
    {
        std::size_t size;
        std::wstring line;
        LONG mode;
    } rows[] = {{sizeof(SERVICE_STATUS_PROCESS),
                 FormatText(L"not enough memory to allocate '{}' bytes for QueryServiceStatusEx call",
                            sizeof(SERVICE_STATUS_PROCESS)),
                 0},
                {configuration,
                 FormatText(L"not enough memory to allocate '{}' bytes for QueryServiceConfig call", configuration),
                 SERVICE_RUNNING}};
    for (const auto& row : rows)
    {
        VARIANT mode;
        VARIANT startType;
        mode.vt = startType.vt = VT_I4;
        mode.lVal = startType.lVal = 99;
        trace.Clear();
        const NothrowNewFails shortage(row.size);
        EXPECT_EQ(E_OUTOFMEMORY, object->QueryServiceMode(_bstr_t(L"PolicyAgent"), &mode, &startType));
        EXPECT_TRUE(NothrowNewFails::Happened()) << row.size;
        EXPECT_TRUE(trace.Has(row.line)) << row.size;
        EXPECT_EQ(row.mode, mode.lVal) << row.size;
        EXPECT_EQ(0, startType.lVal) << row.size;
        EXPECT_EQ(0, services.OpenHandles());
    }
}

TEST(ServiceModeRules, DescriptorGetsTheFourEntriesWordForWord)
{
    EXPECT_EQ(L"(A;;CCLCSWLORC;;;AU)(A;;CCLCSWRPLOCRRC;;;PU)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
              L"(A;;CCLCSWRPWPDTLOCRRC;;;SY)",
              ServiceModeRules::DescriptorAddition);
}
} // namespace
