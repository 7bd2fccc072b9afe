#include "Halcyd/InstallErrors.h"
#include "Halcyd/ServiceControls.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

TEST(PowerEvents, EachKnownEventHasItsTextAndOnlySuspendAndStatusChangeAct)
{
    const std::map<DWORD, std::wstring_view> texts{
        {0, L"Request for permission to suspend."},
        {2, L"Suspension request denied."},
        {4, L"#### ENTER SUSPEND POWER MODE ####"},
        {6, L"Operation resuming after critical suspension."},
        {7, L"Operation resuming after suspension."},
        {9, L"Battery power is low."},
        {10, L"Power status has changed."},
        {11, L"OEM-defined event occurred."},
        {18, L"#### RESUME, EXIT SUSPEND POWER MODE ####"},
    };
    for (DWORD type = 0; type < 64; ++type)
    {
        const auto event = DescribePowerEvent(type);
        const auto known = texts.find(type);
        ASSERT_EQ(event.has_value(), known != texts.end()) << type;
        if (event)
        {
            EXPECT_EQ(event->text, known->second);
            EXPECT_EQ(event->action, type == 4    ? PowerAction::ResetWiFiList
                                     : type == 10 ? PowerAction::ReadPowerStatus
                                                  : PowerAction::None);
        }
    }
    EXPECT_FALSE(DescribePowerEvent(0x8013));
}

TEST(PowerStatus, CriticalFlagAloneOffTheLineIsTold)
{
    EXPECT_EQ(DescribePowerStatus(0, 4),
              (std::vector<std::wstring>{L"AC offline, Battery status 0x4",
                                         L"#### BATTERY LEVEL CRITICAL, ENTERING SUSPEND POWER MODE ####"}));
}

TEST(PowerStatus, CriticalFlagWithAnotherBitIsNotTold)
{
    EXPECT_EQ(DescribePowerStatus(0, 12), (std::vector<std::wstring>{L"AC offline, Battery status 0xc"}));
}

TEST(PowerStatus, OnTheLineTheBatteryDoesNotMatter)
{
    EXPECT_EQ(DescribePowerStatus(1, 4), (std::vector<std::wstring>{L"AC on-line"}));
}

TEST(PowerStatus, UnknownLineStatusIsToldWithItsNumber)
{
    EXPECT_EQ(DescribePowerStatus(255, 128),
              (std::vector<std::wstring>{L"#### Unknown ACLineStatus 255, battery flag = 0x80"}));
}

TEST(SessionEvents, EachKnownEventHasItsTextAndOnlyRemoteOnesSetTheFlag)
{
    const std::wstring_view texts[] = {
        L"WTS_CONSOLE_CONNECT event received", L"WTS_CONSOLE_DISCONNECT event received",
        L"WTS_REMOTE_CONNECT event received",  L"WTS_REMOTE_DISCONNECT event received",
        L"WTS_SESSION_LOGON event received",   L"WTS_SESSION_LOGOFF event received",
        L"WTS_SESSION_LOCK event received",    L"WTS_SESSION_UNLOCK event received",
        L"WTS_REMOTE_CONTROL event received",
    };
    for (DWORD type = 1; type <= 9; ++type)
    {
        const auto event = DescribeSessionEvent(type);
        ASSERT_TRUE(event) << type;
        EXPECT_EQ(event->text, texts[type - 1]);
        EXPECT_EQ(event->remoteAfterwards, type == 3 || type == 4);
        EXPECT_EQ(event->consoleDisconnect, type == 2);
    }
    EXPECT_FALSE(DescribeSessionEvent(0));
    EXPECT_FALSE(DescribeSessionEvent(10));
}

TEST(InstallErrors, EachListedCodeHasItsWordsAndOthersHaveNone)
{
    for (const DWORD code : {5u, 6u, 87u, 123u, 1057u, 1059u, 1073u, 1078u})
    {
        EXPECT_TRUE(DescribeCreateServiceError(code)) << code;
    }
    EXPECT_EQ(*DescribeCreateServiceError(1073), L"The specified service already exists in this database");
    EXPECT_FALSE(DescribeCreateServiceError(1072)); // marked for deletion has no words of its own
    EXPECT_FALSE(DescribeCreateServiceError(0));
}
