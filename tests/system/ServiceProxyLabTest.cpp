// The service proxy of the running service on services that really start and stop, that depend on one another, are
// slow, refuse, or keep it out. Names of services are fixed in the product; what runs under them is the lab's.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>
#include <winsvc.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "NetUtilities/Handles.h"
#include "tests/support/LabControl.h"
#include "tests/support/Processes.h"
#include "tests/support/RunningService.h"

namespace
{
constexpr long Stop = 1;
constexpr long Pause = 2;
constexpr long Continue = 3;
constexpr long Start = 4;
constexpr long NoChange = -1; // SERVICE_NO_CHANGE
using Lines = std::vector<std::string>;

class ServiceProxyLab : public RunningServiceTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
        Lab(L"load laptop");
        Activate(CLSID_ServiceControlEx, services);
    }
    static std::string State(const std::wstring& path) { return RunProcess(kLabControl + (L"get " + path)).output; }
    // What the lab says of a service that Wine's manager cannot hold. `json` as the state has it.
    static void Describe(const wchar_t* name, std::wstring json)
    {
        for (std::size_t at = json.find(L'"'); at != std::wstring::npos; at = json.find(L'"', at + 2))
        {
            json.insert(at, 1, L'\\');
        }
        Lab(std::wstring(L"set services.") + name + L" \"" + json + L"\"");
    }
    static void Install(const wchar_t* name, const std::wstring& behaviour = {}, bool running = true)
    {
        const std::wstring command =
            std::wstring(L"\"C:\\Program Files\\HalcydLab\\FakeService.exe\" ") + name + L" " + behaviour;
        ASSERT_EQ(0u, InstallService(name, command));
        ASSERT_TRUE(!running || ServiceControl(name).StartAndWait());
    }
    // What the services were asked, in order.
    static Lines Log()
    {
        std::ifstream file("C:\\ProgramData\\HalcydLab\\services.log");
        Lines lines;
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(line);
        }
        return lines;
    }
    static void ForgetLog() { DeleteFileW(L"C:\\ProgramData\\HalcydLab\\services.log"); }
    HRESULT Set(const wchar_t* name, long mode, long startType = NoChange)
    {
        return services->SetServiceMode(_bstr_t(name), mode, startType);
    }
    static DWORD StateOf(const wchar_t* name) { return ServiceControl(name).State().value_or(0); }

    IServiceControlExPtr services;
};

TEST_F(ServiceProxyLab, EachServiceOfTheListsIsStoppedAndStartedAgain)
{
    for (const wchar_t* name : {L"PolicyAgent", L"IkeExt", L"WZCSVC"})
    {
        Install(name);
        EXPECT_EQ(0, Set(name, Stop)) << name;
        EXPECT_TRUE(ServiceControl(name).WaitForState(SERVICE_STOPPED)) << name;
        EXPECT_EQ(0, Set(name, name[0] == L'I' ? 16 : Start)) << name;
        EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(name)) << name;
    }
}

TEST_F(ServiceProxyLab, NameIsTakenInAnyCaseBecauseTheSystemsOwnSpellingIsLookedAt)
{
    Install(L"PolicyAgent");
    EXPECT_EQ(0, Set(L"policyAGENT", Stop));
    EXPECT_TRUE(ServiceControl(L"PolicyAgent").WaitForState(SERVICE_STOPPED));
}

TEST_F(ServiceProxyLab, DependentsStopInTheEnumerationsOrderAndTheMainServiceLast)
{
    Install(L"First");
    Install(L"Second");
    Install(L"Asleep", {}, false);
    Install(L"PolicyAgent");
    Describe(L"PolicyAgent", LR"({"dependents": ["Second", "Asleep", "First"]})");
    ForgetLog();
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop));
    EXPECT_TRUE(ServiceControl(L"PolicyAgent").WaitForState(SERVICE_STOPPED));
    EXPECT_EQ((Lines{"stop Second", "stop First", "stop PolicyAgent"}), Log());
}

// The stop gives the names back and keeps their number.
TEST_F(ServiceProxyLab, RestartAfterAStopWithDependentsStartsTheMainServiceAlone)
{
    for (const wchar_t* name : {L"PolicyAgent", L"WZCSVC"})
    {
        const std::wstring dependent = std::wstring(L"Needs") + name;
        Install(dependent.c_str());
        Install(name);
        Describe(name, LR"({"dependents": [")" + dependent + LR"("]})");
        EXPECT_EQ(0, Set(name, Stop)) << name;
        ForgetLog();
        EXPECT_EQ(0, Set(name, Start)) << name;
        EXPECT_EQ(0, Set(name, Start)) << name; // runs already: refused by the manager, and no error
        EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(name)) << name;
        EXPECT_EQ(DWORD{SERVICE_STOPPED}, StateOf(dependent.c_str())) << name;
        EXPECT_EQ(1u, Log().size()) << name;
    }
}

TEST_F(ServiceProxyLab, SlowStopReturnsZeroWhileTheServiceIsStillStopping)
{
    Install(L"PolicyAgent", L"--stop-ms 60000");
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop));
    EXPECT_EQ(DWORD{SERVICE_STOP_PENDING}, StateOf(L"PolicyAgent"));
}

TEST_F(ServiceProxyLab, SlowDependentDoesNotKeepTheOthersFromBeingStopped)
{
    Install(L"Slow", L"--stop-ms 60000");
    Install(L"Quick");
    Install(L"PolicyAgent");
    Describe(L"PolicyAgent", LR"({"dependents": ["Slow", "Quick"]})");
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop));
    EXPECT_EQ(DWORD{SERVICE_STOP_PENDING}, StateOf(L"Slow"));
    EXPECT_TRUE(ServiceControl(L"Quick").WaitForState(SERVICE_STOPPED));
    EXPECT_TRUE(ServiceControl(L"PolicyAgent").WaitForState(SERVICE_STOPPED));
}

TEST_F(ServiceProxyLab, StartIsGivenUpWhileTheServiceIsStillStarting)
{
    Install(L"PolicyAgent", L"--start-ms 60000", false);
    static_cast<void>(Set(L"PolicyAgent", Start)); // the thread's last error, whatever that is
    EXPECT_EQ(DWORD{SERVICE_START_PENDING}, StateOf(L"PolicyAgent"));
}

TEST_F(ServiceProxyLab, RefusedStopReturnsZeroAndTheServiceRunsOn)
{
    Install(L"WZCSVC", L"--refuse-stop");
    EXPECT_EQ(0, Set(L"WZCSVC", Stop));
    EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(L"WZCSVC"));
}

TEST_F(ServiceProxyLab, AnyServiceIsPausedAndContinuedAndARefusalIsReturned)
{
    Install(L"Anything");
    EXPECT_EQ(0, Set(L"Anything", Pause));
    EXPECT_TRUE(ServiceControl(L"Anything").WaitForState(SERVICE_PAUSED));
    EXPECT_EQ(0, Set(L"Anything", Continue));
    EXPECT_TRUE(ServiceControl(L"Anything").WaitForState(SERVICE_RUNNING));
    Install(L"Stubborn", L"--refuse-pause");
    EXPECT_EQ(ERROR_INVALID_SERVICE_CONTROL, Set(L"Stubborn", Pause));
    EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(L"Stubborn"));
}

TEST_F(ServiceProxyLab, DescriptorThatKeepsTheServiceOutIsAmendedOnce)
{
    Install(L"PolicyAgent");
    Describe(L"PolicyAgent", LR"json({"sddl": "D:(A;;CCLC;;;BA)"})json");
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop));
    EXPECT_TRUE(ServiceControl(L"PolicyAgent").WaitForState(SERVICE_STOPPED));
    const std::string sddl = State(L"services.PolicyAgent.sddl");
    EXPECT_NE(std::string::npos, sddl.find("D:(A;;CCLC;;;BA)")) << sddl;
    for (const char* entity : {";;;AU)", ";;;PU)", ";;;SY)"})
    {
        EXPECT_NE(std::string::npos, sddl.find(entity)) << sddl;
    }
    EXPECT_EQ(0, Set(L"PolicyAgent", Start));
    EXPECT_TRUE(State(L"services.PolicyAgent.amended").starts_with("1")) << State(L"services.PolicyAgent.amended");
}

TEST_F(ServiceProxyLab, DescriptorThatNamesTheAccountIsLeftAndTheOpenFails)
{
    Install(L"PolicyAgent");
    Describe(L"PolicyAgent", LR"json({"sddl": "D:(D;;CCLC;;;SY)"})json");
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"PolicyAgent", Stop));
    EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(L"PolicyAgent"));
    EXPECT_NE(std::string::npos, State(L"services.PolicyAgent.sddl").find("D:(D;;CCLC;;;SY)"));
}

TEST_F(ServiceProxyLab, QueryTellsTheStateAndRepairsADescriptorAsWell)
{
    Install(L"Anything");
    Describe(L"Anything", LR"json({"sddl": "D:(A;;CCLC;;;BA)"})json");
    _variant_t mode(0L);
    _variant_t startType(0L);
    EXPECT_EQ(0, services->QueryServiceMode(_bstr_t(L"Anything"), &mode, &startType));
    EXPECT_EQ(SERVICE_RUNNING, mode.lVal);
    EXPECT_EQ(SERVICE_DEMAND_START, startType.lVal);
    Describe(L"Anything", LR"json({"sddl": "D:(D;;CCLC;;;SY)"})json");
    EXPECT_EQ(ERROR_ACCESS_DENIED, services->QueryServiceMode(_bstr_t(L"Anything"), &mode, &startType));
    EXPECT_EQ(0, mode.lVal);
    EXPECT_EQ(0, startType.lVal);
}

TEST_F(ServiceProxyLab, StartTypeIsChangedTogetherWithTheStop)
{
    Install(L"IkeExt");
    EXPECT_EQ(0, Set(L"IkeExt", Stop, SERVICE_DISABLED));
    EXPECT_TRUE(ServiceControl(L"IkeExt").WaitForState(SERVICE_STOPPED));
    _variant_t mode(0L);
    _variant_t startType(0L);
    EXPECT_EQ(0, services->QueryServiceMode(_bstr_t(L"IkeExt"), &mode, &startType));
    EXPECT_EQ(SERVICE_DISABLED, startType.lVal);
    // A disabled service does not start, which is traced and no error.
    EXPECT_EQ(0, Set(L"IkeExt", Start));
    EXPECT_EQ(DWORD{SERVICE_STOPPED}, StateOf(L"IkeExt"));
    EXPECT_EQ(0, Set(L"IkeExt", Start, SERVICE_DEMAND_START));
    EXPECT_EQ(DWORD{SERVICE_RUNNING}, StateOf(L"IkeExt"));
}
} // namespace
