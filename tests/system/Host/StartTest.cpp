// Starts of the shipped service that do not go by the book: platform calls that fail before anything runs, and clients
// that come while it still starts.

#include <windows.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Host/HostSupport.h"
#include "Monitor/MonitorMachine.h"
#include "tests/support/ComPointers.h"

using namespace HostSupport;

namespace
{
class ServiceStart : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        ASSERT_TRUE(StopService());
        Lab(L"hooks on");
    }
    // A rule that nothing met would prove nothing.
    static void ExpectRulesMet()
    {
        const std::string rules = Lab(L"fail list --json");
        EXPECT_EQ(rules.find("\"hits\":0"), std::string::npos) << rules;
        Lab(L"fail clear");
    }
    // Lines of the process that runs the service now.
    bool Traced(const std::wstring& text) const
    {
        return WaitUntil([&] { return CountInTraceOf(service.ProcessId(), text) > 0; });
    }
};

TEST_F(ServiceStart, SecurityThatCannotBeSetIsToldAndTheStartGoesOn)
{
    Lab(L"fail CoInitializeSecurity --code 0x80010119");
    ASSERT_TRUE(service.StartAndWait());
    EXPECT_TRUE(Traced(L"CoInitializeSecurity failed!"));
    EXPECT_TRUE(Traced(L"waiting indefinitely for the service stop event"));
    // Told with the host's own source at level 2, without the code: the default source is not set by then.
    std::wistringstream lines(TraceText());
    bool told = false;
    for (std::wstring line; std::getline(lines, line);)
    {
        told = told || (line.starts_with(L"10 2 ") && line.ends_with(L": CoInitializeSecurity failed!"));
    }
    EXPECT_TRUE(told);
    ExpectRulesMet();
    EXPECT_TRUE(ActivateMonitor());
}

TEST_F(ServiceStart, ApartmentThatCannotBeEnteredIsNotToldAndTheStartGoesOn)
{
    Lab(L"fail CoInitializeEx --nth 1 --code 0x80010106");
    ASSERT_TRUE(service.StartAndWait());
    EXPECT_TRUE(Traced(L"waiting indefinitely for the service stop event"));
    ExpectRulesMet();
    EXPECT_TRUE(ActivateMonitor());
    EXPECT_TRUE(StopService());
}

TEST_F(ServiceStart, TokenThatCannotBeReadLeavesTheDescriptorEmptyAndTheStartGoesOn)
{
    Lab(L"fail OpenProcessToken --nth 1 --code 5");
    ASSERT_TRUE(service.StartAndWait());
    EXPECT_TRUE(Traced(L"set the halcyd service state to running"));
    ExpectRulesMet();
    EXPECT_TRUE(ActivateMonitor());
}

TEST_F(ServiceStart, ClientIsServedWhileTheRestoreOfTheStartStillRuns)
{
    Lab(L"slow INetCfg::Initialize --ms 15000 --times 1");
    const int before = CountInTrace(L"restoring IP bindings on service startup (synchronously)");
    ASSERT_EQ(service.Start(), 0u);
    ASSERT_TRUE(WaitForTrace(L"restoring IP bindings on service startup (synchronously)", before + 1));
    HRESULT result = E_FAIL;
    const INetRegistryPtr object = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry, &result);
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_START_PENDING));
    EXPECT_EQ(CountInTraceOf(service.ProcessId(), L"releasing NetMonSv object"), 0);
    EXPECT_TRUE(service.WaitForState(SERVICE_RUNNING));
    EXPECT_TRUE(Traced(L"releasing NetMonSv object"));
}
} // namespace
