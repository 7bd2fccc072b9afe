#include <gtest/gtest.h>

#include <comdef.h>

#include <algorithm>
#include <set>

#include "Halcyd/ServiceControlEx.h"
#include "tests/unit/Halcyd/FakeServices.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/Halcyd/VariantTypes.h"

namespace
{
constexpr LONG Stop = 1;
constexpr LONG Start = 4;
constexpr LONG NoChange = -1; // SERVICE_NO_CHANGE

class ServiceControlExTest : public testing::Test
{
protected:
    ServiceControlExTest() : object(MakeTestObject<CServiceControlEx>()) {}
    ~ServiceControlExTest() override
    {
        EXPECT_EQ(0, services.OpenHandles());
        // The lists are the process's: a stop of each group without dependents leaves both empty.
        for (const wchar_t* name : {L"PolicyAgent", L"WZCSVC"})
        {
            services.Add(name);
            object->SetServiceMode(_bstr_t(name), Stop, NoChange);
        }
    }

    HRESULT Set(const wchar_t* name, LONG mode, LONG startType)
    {
        return object->SetServiceMode(_bstr_t(name), mode, startType);
    }
    HRESULT Query(const wchar_t* name, VARIANT& mode, VARIANT& startType)
    {
        return object->QueryServiceMode(_bstr_t(name), &mode, &startType);
    }
    // Entries of the services' journal that begin with one of `kinds`.
    std::vector<std::wstring> Journal(std::initializer_list<std::wstring> kinds)
    {
        std::vector<std::wstring> result;
        for (const std::wstring& line : services.journal)
        {
            if (std::any_of(kinds.begin(), kinds.end(), [&](const auto& kind) { return line.starts_with(kind); }))
            {
                result.push_back(line);
            }
        }
        return result;
    }
    void AddPolicyAgentWithDependents()
    {
        services.Add(L"PolicyAgent").dependents = {L"Second", L"First"};
        services.Add(L"First");
        services.Add(L"Second");
    }

    TraceLines trace;
    SleepClock clock;
    FakeServices services{clock};
    TestObject<CServiceControlEx> object;
};

using Lines = std::vector<std::wstring>;

TEST_F(ServiceControlExTest, StartTypeZeroReturns122AndChangesNothing)
{
    services.Add(L"PolicyAgent");
    EXPECT_EQ(122, Set(L"PolicyAgent", Stop, 0));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"PolicyAgent"].state);
    EXPECT_EQ(Lines{}, Journal({L"change", L"control"}));
}

TEST_F(ServiceControlExTest, StopWithoutStartTypeChangeStopsTheService)
{
    services.Add(L"PolicyAgent").startType = SERVICE_AUTO_START;
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"PolicyAgent"].state);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), services[L"PolicyAgent"].startType);
    EXPECT_TRUE(trace.Has(L"updating service 'PolicyAgent'"));
    EXPECT_TRUE(trace.Has(L"caller specified valid startup state '4294967295', calling ChangeServiceConfig"));
    EXPECT_TRUE(trace.Has(L"attempting to stop 'PolicyAgent'"));
    EXPECT_TRUE(
        trace.Has(L"attempt to stop the native IPSEC service to free the IKE ports, creating stop list for it"));
    EXPECT_TRUE(trace.Has(L"there are not dependent services (handle="));
    EXPECT_TRUE(trace.Has(L"stopping main service Antecedent Service"));
    EXPECT_TRUE(trace.Has(L"finished stopping operation last_state=1)"));
    EXPECT_TRUE(trace.Has(L"successfully called stop service list (rc=0)"));
    EXPECT_TRUE(clock.Sleeps().empty());
}

TEST_F(ServiceControlExTest, ManagerAndServiceAreOpenedWithAllAccess)
{
    services.Add(L"PolicyAgent");
    Set(L"PolicyAgent", 5, NoChange);
    EXPECT_EQ((Lines{L"manager 0xf003f", L"open PolicyAgent 0xf01ff"}), Journal({L"manager", L"open"}));
}

TEST_F(ServiceControlExTest, StopOfAServiceOutsideTheListChangesTheStartTypeAndReturnsMinusOne)
{
    services.Add(L"Dnscache");
    EXPECT_EQ(-1, Set(L"Dnscache", Stop, SERVICE_DISABLED));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DISABLED), services[L"Dnscache"].startType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"Dnscache"].state);
    EXPECT_TRUE(trace.Has(L"stopping of 'Dnscache' is not supported, returning (rc=-1)"));
}

TEST_F(ServiceControlExTest, StartOfAServiceOutsideTheListReturnsMinusOne)
{
    services.Add(L"Dnscache");
    EXPECT_EQ(-1, Set(L"Dnscache", 16, SERVICE_AUTO_START));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), services[L"Dnscache"].startType);
    EXPECT_TRUE(trace.Has(L"restarting of 'Dnscache' is not supported (rc=-1)"));
}

TEST_F(ServiceControlExTest, NameTestsLookAtTheKeyNameOfTheSystemsConfiguration)
{
    services.Add(L"PolicyAgent");
    EXPECT_EQ(0, Set(L"pOLICYaGENT", Stop, NoChange));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"PolicyAgent"].state);
}

TEST_F(ServiceControlExTest, KeyNameOfOtherCaseIsOutsideTheListExceptForIkeExt)
{
    services.Add(L"policyagent");
    services.Add(L"wzcsvc");
    services.Add(L"IKEEXT");
    EXPECT_EQ(-1, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(-1, Set(L"WZCSVC", Stop, NoChange));
    EXPECT_EQ(0, Set(L"IkeExt", Stop, NoChange));
}

TEST_F(ServiceControlExTest, UnsupportedModeReturnsZeroAfterTheStartTypeChange)
{
    services.Add(L"Dnscache");
    EXPECT_EQ(0, Set(L"Dnscache", 5, SERVICE_DISABLED));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DISABLED), services[L"Dnscache"].startType);
    EXPECT_TRUE(trace.Has(L"unsupported request (request=5)"));
}

TEST_F(ServiceControlExTest, ModesTwoAndThreeAreSentAsControlsToAnyService)
{
    services.Add(L"Dnscache");
    EXPECT_EQ(0, Set(L"Dnscache", 2, NoChange));
    EXPECT_EQ(0, Set(L"Dnscache", 3, NoChange));
    EXPECT_EQ((std::vector<DWORD>{2, 3}), services[L"Dnscache"].controls);
    EXPECT_TRUE(trace.Has(L"attempting to pause or continue 'Dnscache'"));
}

TEST_F(ServiceControlExTest, RefusedPauseReturnsTheError)
{
    services.Add(L"Dnscache").refuseControl = ERROR_INVALID_SERVICE_CONTROL;
    EXPECT_EQ(ERROR_INVALID_SERVICE_CONTROL, Set(L"Dnscache", 2, NoChange));
    EXPECT_TRUE(trace.Has(L"ControlService failed"));
}

TEST_F(ServiceControlExTest, DependentsStopFirstInTheEnumerationsOrderAndTheMainServiceLast)
{
    AddPolicyAgentWithDependents();
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ((Lines{L"control Second 1", L"control First 1", L"control PolicyAgent 1"}), Journal({L"control"}));
    EXPECT_EQ(2, trace.Count(L"stopping dependent service"));
    EXPECT_EQ((Lines{L"open PolicyAgent 0xf01ff", L"open Second 0xf01ff", L"open First 0xf01ff"}), Journal({L"open"}));
}

TEST_F(ServiceControlExTest, SlowStopIsLookedAtOnceAfterHalfASecondAndStillReturnsZero)
{
    services.Add(L"PolicyAgent").stopMilliseconds = 2000;
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(std::vector<DWORD>{500}, clock.Sleeps());
    EXPECT_TRUE(trace.Has(L"the state of the service after stop command is '3'"));
    EXPECT_TRUE(trace.Has(L"service is not stopped yet (state=3)"));
    EXPECT_TRUE(trace.Has(L"timed out waiting for stop to complete"));
    EXPECT_FALSE(trace.Has(L"waiting for service to stop"));
    EXPECT_TRUE(trace.Has(L"finished stopping operation last_state=3)"));
    EXPECT_TRUE(trace.Has(L"successfully called stop service list (rc=0)"));
}

TEST_F(ServiceControlExTest, StopWithinHalfASecondIsSeen)
{
    services.Add(L"PolicyAgent").stopMilliseconds = 500;
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"service is now stopped"));
    EXPECT_FALSE(trace.Has(L"timed out waiting for stop to complete"));
}

TEST_F(ServiceControlExTest, RefusedStopGoesOnWithTheNextService)
{
    AddPolicyAgentWithDependents();
    services[L"Second"].refuseControl = ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"error sending stop control"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"First"].state);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"PolicyAgent"].state);
}

TEST_F(ServiceControlExTest, DependentThatDoesNotOpenIsPassedOver)
{
    AddPolicyAgentWithDependents();
    services[L"Second"].opens = false;
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"invalid service handle"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"Second"].state);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"PolicyAgent"].state);
}

TEST_F(ServiceControlExTest, RestartAfterAStopWithDependentsStartsTheMainServiceAlone)
{
    AddPolicyAgentWithDependents();
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(0, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_EQ(Lines{L"start PolicyAgent"}, Journal({L"start"}));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), services[L"First"].state);
    EXPECT_TRUE(trace.Has(L"attempting start service 'PolicyAgent'"));
    EXPECT_TRUE(trace.Has(L"attempting restart native IPSEC services"));
    EXPECT_TRUE(trace.Has(L"starting the antecedent service (handle = 0x"));
    EXPECT_TRUE(trace.Has(L"started 0x"));
}

TEST_F(ServiceControlExTest, RestartOfWzcAfterAStopWithDependentsStartsTheMainServiceAlone)
{
    services.Add(L"WZCSVC").dependents = {L"Dependent"};
    services.Add(L"Dependent");
    EXPECT_EQ(0, Set(L"WZCSVC", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"attempt to stop the WZC service for direct 802.11 control, creating the stop list"));
    EXPECT_EQ(0, Set(L"WZCSVC", 16, NoChange));
    EXPECT_EQ(0, Set(L"WZCSVC", 16, NoChange));
    EXPECT_EQ((Lines{L"start WZCSVC", L"start WZCSVC"}), Journal({L"start"}));
    EXPECT_TRUE(trace.Has(L"attempting restart native WZC service"));
}

TEST_F(ServiceControlExTest, RestartWithAValidListStartsDependentsInTheReverseOfTheStop)
{
    AddPolicyAgentWithDependents();
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = OpenServiceW(manager, L"PolicyAgent", SERVICE_ALL_ACCESS);
    ServiceList list;
    DWORD count = 0;
    EXPECT_EQ(0u, CServiceControlEx::MyEnumDependentServices(manager, service, list, count));
    ASSERT_EQ(2u, count);
    EXPECT_EQ(0u, CServiceControlEx::MyRestartServices(manager, service, list, count));
    EXPECT_EQ((Lines{L"start PolicyAgent", L"start First", L"start Second"}), Journal({L"start"}));
    EXPECT_TRUE(trace.Has(L"trying to open 'First' (handle = 0x"));
    EXPECT_EQ(2, trace.Count(L"closing the service"));
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

TEST_F(ServiceControlExTest, StartThatTakesLongerThanFiveAndAHalfSecondsTimesOut)
{
    services.Add(L"PolicyAgent").startMilliseconds = 60000;
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = OpenServiceW(manager, L"PolicyAgent", SERVICE_ALL_ACCESS);
    EXPECT_EQ(static_cast<DWORD>(ERROR_TIMEOUT), CServiceControlEx::MyRestartServices(manager, service, {}, 0));
    EXPECT_EQ((std::vector<DWORD>{500, 1000, 1000, 1000, 1000, 1000}), clock.Sleeps());
    EXPECT_EQ(5, trace.Count(L"waiting for 0x"));
    EXPECT_TRUE(trace.Has(L"timed out wait for 0x"));
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

TEST_F(ServiceControlExTest, StartWithinFiveAndAHalfSecondsSucceeds)
{
    services.Add(L"PolicyAgent").startMilliseconds = 5500;
    EXPECT_EQ(0, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_EQ(5500u, clock.Now());
}

TEST_F(ServiceControlExTest, TimedOutRestartReturnsTheLastErrorOfTheThread)
{
    services.Add(L"PolicyAgent").startMilliseconds = 60000;
    clock.OnSleep([] { SetLastError(4711); });
    EXPECT_EQ(4711, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_TRUE(trace.Has(L"IPSEC restart failed"));
    services.Add(L"WZCSVC").startMilliseconds = 60000;
    EXPECT_EQ(4711, Set(L"WZCSVC", Start, NoChange));
    EXPECT_TRUE(trace.Has(L"failed to restart services (rc=4711)"));
}

TEST_F(ServiceControlExTest, RefusedStartIsTracedAndReturnsZero)
{
    services.Add(L"PolicyAgent").refuseStart = ERROR_SERVICE_DISABLED;
    EXPECT_EQ(0, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_TRUE(trace.Has(L"could not start service (handle = 0x%x) Error 1058"));
}

TEST_F(ServiceControlExTest, UnknownServiceReturnsTheErrorOfTheOpen)
{
    EXPECT_EQ(ERROR_SERVICE_DOES_NOT_EXIST, Set(L"NoSuch", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"could not open NoSuch"));
    EXPECT_TRUE(trace.Has(L"failed to open service 'NoSuch'"));
    EXPECT_EQ(ERROR_SERVICE_DOES_NOT_EXIST, object->SetServiceMode(nullptr, Stop, NoChange));
}

TEST_F(ServiceControlExTest, LinesBearTheConfigurationsSourceAndFailuresLevelTwo)
{
    EXPECT_EQ(ERROR_SERVICE_DOES_NOT_EXIST, Set(L"NoSuch", Stop, NoChange));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"could not open NoSuch Error 1060"));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"failed to open service 'NoSuch' Error 1060"));
    services.Add(L"PolicyAgent");
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 4, L"updating service 'PolicyAgent'"));
}

TEST_F(ServiceControlExTest, LockedOutServiceGetsItsDescriptorAmendedOnceAndOpens)
{
    FakeService& service = services.Add(L"PolicyAgent");
    service.opens = false;
    service.sddl = L"D:(A;;CC;;;BA)";
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(Lines{L"amend PolicyAgent"}, Journal({L"amend"}));
    EXPECT_NE(std::wstring::npos, service.sddl.find(L";;;SY)"));
    EXPECT_NE(std::wstring::npos, service.sddl.find(L";;;AU)"));
    EXPECT_NE(std::wstring::npos, service.sddl.find(L";;;PU)"));
    EXPECT_EQ((Lines{L"token 0x20", L"lookup true SeTakeOwnershipPrivilege", L"privilege on", L"amend PolicyAgent",
                     L"lookup true SeTakeOwnershipPrivilege", L"privilege off"}),
              Journal({L"token", L"lookup", L"privilege", L"amend"}));
    EXPECT_TRUE(trace.Has(L"we need to add 'SY'"));
    EXPECT_TRUE(trace.Has(L"Converted security descriptor"));
    EXPECT_TRUE(trace.Has(L"updated the security descriptor"));
}

TEST_F(ServiceControlExTest, DescriptorThatNamesTheAccountIsLeftAsItIsAndTheOpenFails)
{
    FakeService& service = services.Add(L"PolicyAgent");
    service.opens = false;
    service.sddl = L"D:(D;;CC;;;SY)";
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_EQ(Lines{}, Journal({L"amend", L"token"}));
    EXPECT_EQ(L"D:(D;;CC;;;SY)", service.sddl);
    EXPECT_TRUE(trace.Has(L"security permissions are okay"));
}

TEST_F(ServiceControlExTest, EachFailureOfTheRepairLeavesTheOpensOwnError)
{
    const struct
    {
        const char* call;
        int nth;
        const wchar_t* line;
    } rows[] = {
        {"OpenServiceW", 2, L"could not open PolicyAgent to get security descriptor"},
        {"QueryServiceObjectSecurity", 1, L"QueryServiceObjectSecurity failed"},
        {"ConvertSecurityDescriptorToStringSecurityDescriptorW", 1, L"problem converting descriptor to a string"},
        {"OpenProcessToken", 1, L"OpenProcessToken failed"},
        {"LookupPrivilegeValueW", 1, L"LookupPrivilegeValue"},
        {"AdjustTokenPrivileges", 1, L"AdjustTokenPrivileges"},
        {"AdjustTokenPrivileges", 1, L"could not set the SE_TAKE_OWNERSHIP_NAME privilege"},
        {"OpenServiceW", 3, L"could not open the service WRITE_DAC rights"},
        {"QueryServiceObjectSecurity", 2, L"QueryServiceObjectSecurity failed"},
        {"SetServiceObjectSecurity", 1, L"could not set the amended security descriptor"}};
    for (const auto& row : rows)
    {
        FakeService& service = services.Add(L"PolicyAgent");
        service.opens = false;
        service.sddl = L"D:(A;;CC;;;BA)";
        trace.Clear();
        PlatformHooks::FailCall(row.call, row.nth, 1234);
        EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"PolicyAgent", Stop, NoChange)) << row.call << row.nth;
        EXPECT_TRUE(trace.Has(row.line)) << row.call << row.nth;
        EXPECT_EQ(0, services.OpenHandles()) << row.call << row.nth;
        EXPECT_FALSE(services.privilege) << row.call << row.nth;
    }
}

TEST_F(ServiceControlExTest, PrivilegeThatCannotBeRemovedIsTracedOnly)
{
    FakeService& service = services.Add(L"PolicyAgent");
    service.opens = false;
    service.sddl = L"D:(A;;CC;;;BA)";
    PlatformHooks::FailCall("AdjustTokenPrivileges", 2, 1300);
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"could not remove the SE_TAKE_OWNERSHIP_NAME privilege"));
}

TEST_F(ServiceControlExTest, EachFailingCallOfTheUpdateReturnsItsErrorAndLeavesTheNextCallClean)
{
    const struct
    {
        const char* call;
        int nth;
        LONG mode;
        const wchar_t* line;
    } rows[] = {{"OpenSCManagerW", 1, Stop, L"could not open the SCM"},
                {"OpenServiceW", 1, Stop, L"failed to open service 'PolicyAgent'"},
                {"QueryServiceConfigW", 1, Stop, L"QueryServiceConfig error"},
                {"QueryServiceConfigW", 2, Stop, L"QueryServiceConfig with buffer error"},
                {"GetServiceKeyNameW", 1, Stop, L"GetServiceKeyName error"},
                {"ChangeServiceConfigW", 1, Stop, L"error calling ChangeServiceConfig"},
                {"EnumDependentServicesW", 1, Stop, L"returning, enumeration failed"},
                {"EnumDependentServicesW", 2, Stop, L"returning, enumeration failed"},
                {"EnumDependentServicesW", 2, Stop, L"failed to call stop service list"},
                {"ControlService", 1, 2, L"ControlService failed"}};
    AddPolicyAgentWithDependents();
    for (const auto& row : rows)
    {
        for (const wchar_t* name : {L"First", L"Second", L"PolicyAgent"})
        {
            services[name].state = SERVICE_RUNNING;
            services[name].changesTo = 0;
        }
        trace.Clear();
        PlatformHooks::FailCall(row.call, row.nth, 1234);
        EXPECT_EQ(1234, Set(L"PolicyAgent", row.mode, NoChange)) << row.call << row.nth;
        EXPECT_TRUE(trace.Has(row.line)) << row.call << row.nth;
        EXPECT_EQ(0, services.OpenHandles()) << row.call << row.nth;
        EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange)) << row.call << row.nth;
    }
}

TEST_F(ServiceControlExTest, SizeQueryThatSucceedsIsAnError)
{
    services.Add(L"PolicyAgent");
    QueryServiceConfigWHook::Replace(
        [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD needed) -> BOOL
        {
            *needed = 0;
            SetLastError(77);
            return TRUE;
        });
    EXPECT_EQ(77, Set(L"PolicyAgent", Stop, NoChange));
    EXPECT_TRUE(trace.Has(L"error QueryServiceConfig (rc=77)"));
}

TEST_F(ServiceControlExTest, FailuresOfStatusAndStartCallsInTheLoopsArePassedOver)
{
    AddPolicyAgentWithDependents();
    services[L"Second"].stopMilliseconds = 100;
    PlatformHooks::FailCall("QueryServiceStatus", 1, 5);
    EXPECT_EQ(0, Set(L"PolicyAgent", Stop, NoChange));
    PlatformHooks::FailCall("StartServiceW", 1, 5);
    EXPECT_EQ(0, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_EQ(0, Set(L"PolicyAgent", Start, NoChange));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), services[L"PolicyAgent"].state);
}

TEST_F(ServiceControlExTest, QueryWritesTheNumbersAndLeavesTheTypes)
{
    services.Add(L"PolicyAgent").startType = SERVICE_AUTO_START;
    VARIANT mode;
    VARIANT startType;
    mode.vt = VT_I4;
    startType.vt = VT_UI4;
    EXPECT_EQ(0, Query(L"PolicyAgent", mode, startType));
    EXPECT_EQ(VT_I4, mode.vt);
    EXPECT_EQ(VT_UI4, startType.vt);
    EXPECT_EQ(SERVICE_RUNNING, mode.lVal);
    EXPECT_EQ(SERVICE_AUTO_START, startType.lVal);
    EXPECT_TRUE(trace.Has(L"trying to open 'PolicyAgent'"));
    EXPECT_TRUE(trace.Has(L"query service 'PolicyAgent' (mode=4, startup=2, rc=0)"));
    EXPECT_EQ((Lines{L"manager 0xf003f", L"open PolicyAgent 0x80000000"}), Journal({L"manager", L"open"}));
}

TEST_F(ServiceControlExTest, QueryWritesZeroesAfterEachFailure)
{
    const struct
    {
        const char* call;
        int nth;
        const wchar_t* line;
        LONG mode;
    } rows[] = {{"OpenSCManagerW", 1, L"could not get handle to SCM", 0},
                {"OpenServiceW", 1, L"could not open 'PolicyAgent'", 0},
                {"QueryServiceStatusEx", 1, L"problem calling QueryServiceStatusEx to get the size", 0},
                {"QueryServiceStatusEx", 2, L"could not get the actual current service status", 0},
                {"QueryServiceConfigW", 1, L"problem calling QueryServiceConfig to get the size", SERVICE_RUNNING},
                {"QueryServiceConfigW", 2, L"could not get the actual current service configuration", SERVICE_RUNNING}};
    services.Add(L"PolicyAgent");
    for (const auto& row : rows)
    {
        VARIANT mode;
        VARIANT startType;
        mode.lVal = startType.lVal = 99;
        mode.vt = startType.vt = VT_I4;
        trace.Clear();
        PlatformHooks::FailCall(row.call, row.nth, 1234);
        EXPECT_EQ(1234, Query(L"PolicyAgent", mode, startType)) << row.call << row.nth;
        EXPECT_TRUE(trace.Has(row.line)) << row.call << row.nth;
        EXPECT_EQ(row.mode, mode.lVal) << row.call << row.nth;
        EXPECT_EQ(0, startType.lVal) << row.call << row.nth;
        EXPECT_EQ(0, services.OpenHandles());
    }
}

TEST_F(ServiceControlExTest, QueryRefusesNullVariants)
{
    services.Add(L"PolicyAgent");
    VARIANT value;
    value.vt = VT_I4;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, object->QueryServiceMode(_bstr_t(L"PolicyAgent"), nullptr, &value));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, object->QueryServiceMode(_bstr_t(L"PolicyAgent"), &value, nullptr));
}

TEST_F(ServiceControlExTest, QueryTouchesNoVariantTypeAndRefusesVariantsThatHoldPointers)
{
    services.Add(L"PolicyAgent");
    const std::set<int> plain{VT_EMPTY, VT_NULL, VT_I1, VT_UI1, VT_I2, VT_UI2,  VT_I4,   VT_UI4,   VT_INT,    VT_UINT,
                              VT_I8,    VT_UI8,  VT_R4, VT_R8,  VT_CY, VT_DATE, VT_BOOL, VT_ERROR, VT_DECIMAL};
    constexpr LONGLONG untouched = 0x0123456789ABCDEF;
    for (const int type : AllVariantTypes())
    {
        VARIANT odd;
        VARIANT good;
        const auto reset = [&]
        {
            odd.vt = static_cast<VARTYPE>(type);
            good.vt = VT_I4;
            odd.llVal = good.llVal = untouched;
        };
        const bool taken = plain.contains(type);
        for (const bool first : {true, false})
        {
            reset();
            ASSERT_EQ(taken ? 0 : ERROR_INVALID_PARAMETER,
                      first ? Query(L"PolicyAgent", odd, good) : Query(L"PolicyAgent", good, odd))
                << type;
            ASSERT_EQ(type, odd.vt);
            if (taken)
            {
                ASSERT_EQ(first ? SERVICE_RUNNING : SERVICE_DEMAND_START, odd.lVal);
            }
            else
            {
                ASSERT_EQ(untouched, odd.llVal) << type;
                ASSERT_EQ(untouched, good.llVal) << type;
            }
        }
    }
}
} // namespace
