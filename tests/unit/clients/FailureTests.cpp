#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/MonitorClient.h"

#include <gtest/gtest.h>

namespace
{
InstallationFacts Healthy()
{
    InstallationFacts facts;
    facts.service = ServiceCondition::Running;
    facts.classesRegistered = true;
    facts.startedAsService = true;
    facts.proxiesRegistered = true;
    facts.traceServiceRegistered = true;
    return facts;
}

ExitCode Obstacle(const InstallationFacts& facts, bool mayStart = false)
{
    Failure failure;
    if (!FindObstacle(facts, mayStart, failure))
    {
        return ExitCode::Success;
    }
    EXPECT_FALSE(failure.reason.empty());
    EXPECT_FALSE(failure.cure.empty());
    return failure.exitCode;
}
} // namespace

TEST(ClientObstacles, HealthyInstallationHasNone)
{
    EXPECT_EQ(Obstacle(Healthy()), ExitCode::Success);
}

TEST(ClientObstacles, NotInstalled)
{
    InstallationFacts facts;
    EXPECT_EQ(Obstacle(facts), ExitCode::NotInstalled);
    facts = Healthy();
    facts.classesRegistered = false;
    EXPECT_EQ(Obstacle(facts), ExitCode::NotInstalled);
    facts = Healthy();
    facts.service = ServiceCondition::NotInstalled;
    EXPECT_EQ(Obstacle(facts), ExitCode::NotInstalled);
}

TEST(ClientObstacles, MissingOrClaimedProxies)
{
    InstallationFacts facts = Healthy();
    facts.proxiesRegistered = false;
    EXPECT_EQ(Obstacle(facts), ExitCode::ProxiesMissing);
    facts.proxiesClaimedByTypeLibrary = true;
    Failure failure;
    ASSERT_TRUE(FindObstacle(facts, false, failure));
    EXPECT_NE(failure.reason.find(L"generic marshaler"), std::wstring::npos);
    EXPECT_NE(failure.cure.find(L"regsvr32 HalcydPS.dll"), std::wstring::npos);
}

TEST(ClientObstacles, StoppedServiceUnlessItMayBeStarted)
{
    for (const ServiceCondition condition : {ServiceCondition::Stopped, ServiceCondition::Stopping})
    {
        InstallationFacts facts = Healthy();
        facts.service = condition;
        EXPECT_EQ(Obstacle(facts), ExitCode::NotRunning);
        EXPECT_EQ(Obstacle(facts, true), ExitCode::Success);
        facts.traceServiceRegistered = false;
        EXPECT_EQ(Obstacle(facts), ExitCode::TraceServiceMissing);
        EXPECT_EQ(Obstacle(facts, true), ExitCode::TraceServiceMissing);
    }
}

TEST(ClientObstacles, PlainServerNeedsNoService)
{
    InstallationFacts facts = Healthy();
    facts.startedAsService = false;
    facts.service = ServiceCondition::NotInstalled;
    EXPECT_EQ(Obstacle(facts), ExitCode::Success);
}

TEST(ClientObstacles, StartingOrUnknownServiceIsTried)
{
    for (const ServiceCondition condition : {ServiceCondition::Starting, ServiceCondition::Unknown})
    {
        InstallationFacts facts = Healthy();
        facts.service = condition;
        EXPECT_EQ(Obstacle(facts), ExitCode::Success);
    }
}

TEST(ClientErrors, EachResultHasItsExitCodeAndACure)
{
    struct Row
    {
        HRESULT result;
        ExitCode exitCode;
    };
    for (const Row& row :
         {Row{E_ACCESSDENIED, ExitCode::AccessDenied}, Row{E_NOINTERFACE, ExitCode::ProxiesMissing},
          Row{static_cast<HRESULT>(0x80040155), ExitCode::ProxiesMissing},
          Row{REGDB_E_CLASSNOTREG, ExitCode::NotInstalled}, Row{static_cast<HRESULT>(0x80070422), ExitCode::NotRunning},
          Row{CO_E_SERVER_EXEC_FAILURE, ExitCode::NotRunning},
          Row{static_cast<HRESULT>(0x800706BA), ExitCode::ServiceLost},
          Row{static_cast<HRESULT>(0x800706BE), ExitCode::ServiceLost}, Row{RPC_E_DISCONNECTED, ExitCode::ServiceLost},
          Row{RPC_E_SERVER_DIED, ExitCode::ServiceLost}, Row{E_FAIL, ExitCode::Failed}})
    {
        const Failure failure = Explain(L"Trying", row.result, Healthy());
        EXPECT_EQ(failure.exitCode, row.exitCode) << std::hex << row.result;
        EXPECT_EQ(failure.code, static_cast<std::uint32_t>(row.result));
        EXPECT_EQ(failure.action, L"Trying");
        EXPECT_FALSE(failure.reason.empty());
        EXPECT_FALSE(failure.cure.empty());
    }
}

TEST(ClientErrors, ServerThatEndsAtOnceWithoutATraceServiceIsExplainedByIt)
{
    InstallationFacts facts = Healthy();
    facts.traceServiceRegistered = false;
    EXPECT_EQ(Explain(L"", CO_E_SERVER_EXEC_FAILURE, facts).exitCode, ExitCode::TraceServiceMissing);
}

TEST(ClientErrors, MissingInterfaceOfAServiceThatDidNotComeUpIsNotBlamedOnTheProxies)
{
    InstallationFacts facts = Healthy();
    facts.service = ServiceCondition::Starting;
    EXPECT_EQ(Explain(L"", E_NOINTERFACE, facts).exitCode, ExitCode::NotRunning);
    facts.proxiesRegistered = false;
    EXPECT_EQ(Explain(L"", E_NOINTERFACE, facts).exitCode, ExitCode::ProxiesMissing);
}

TEST(ClientErrors, OpensPositiveShortageOfMemoryIsAnErrorToo)
{
    EXPECT_NO_THROW(CheckOpened(S_OK));
    for (const HRESULT result : {static_cast<HRESULT>(14), E_FAIL})
    {
        try
        {
            CheckOpened(result);
            ADD_FAILURE() << result;
        }
        catch (const Failure& failure)
        {
            EXPECT_EQ(failure.action, L"Opening the monitor");
            EXPECT_EQ(failure.code, static_cast<std::uint32_t>(result));
        }
    }
}

TEST(ClientErrors, WindowsErrorNumbersInAnHresultsPlace)
{
    EXPECT_EQ(ExplainStatus(L"Writing", ERROR_ACCESS_DENIED).exitCode, ExitCode::AccessDenied);
    EXPECT_EQ(ExplainStatus(L"Writing", ERROR_FILE_NOT_FOUND).exitCode, ExitCode::Failed);
    EXPECT_EQ(ExplainStatus(L"Writing", 2).code, 2u);
}
