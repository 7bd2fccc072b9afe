// What the control handler says when the platform lets it down, and what it reads from the power status.

#include <windows.h>
#include <wtsapi32.h>

#include <gtest/gtest.h>

#include "FakeMonitor.h"
#include "Halcyd/ServiceModule.h"
#include "HostHooks.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "TraceLines.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
class ControlHandlerFailures : public ::testing::Test
{
protected:
    void SetUp() override
    {
        EnsureTestModule();
        SetDefaultLogSource(Log::Source::ConfigServer);
        CServiceModule::_HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, nullptr, nullptr); // flag off
        TraceLines::Clear();
    }
    static void Send(DWORD control, DWORD type = 0)
    {
        EXPECT_EQ(CServiceModule::_HandlerEx(control, type, nullptr, nullptr), 0u);
    }
    static void AnswerPower(BYTE line, BYTE battery)
    {
        GetSystemPowerStatusHook::Replace(
            [=](LPSYSTEM_POWER_STATUS status)
            {
                *status = {};
                status->ACLineStatus = line;
                status->BatteryFlag = battery;
                return TRUE;
            });
    }
    // The messages of the host's source, with their levels in front.
    static std::vector<std::wstring> HostLines()
    {
        std::vector<std::wstring> texts;
        for (const RecordedLine& line : TraceRecorder::Get().Lines())
        {
            if (line.source == 10)
            {
                texts.push_back(std::to_wstring(line.level) + L" " + line.Message());
            }
        }
        return texts;
    }

    const ComApartment apartment;
    HookScope hooks;
};
using Texts = std::vector<std::wstring>;
} // namespace

TEST_F(ControlHandlerFailures, PowerStatusThatCannotBeReadIsAnError)
{
    PlatformHooks::FailCall("GetSystemPowerStatus", 1, ERROR_NOT_SUPPORTED);
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    const Texts lines = HostLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], L"4 Power status has changed.");
    EXPECT_TRUE(lines[1].starts_with(L"2 Could not get system power status Error 50 (0x32)"));
}

TEST_F(ControlHandlerFailures, CriticalBatteryOffTheLineGivesBothLines)
{
    AnswerPower(0, 4);
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    EXPECT_EQ(HostLines(), (Texts{L"4 Power status has changed.", L"4 AC offline, Battery status 0x4",
                                  L"4 #### BATTERY LEVEL CRITICAL, ENTERING SUSPEND POWER MODE ####"}));
    EXPECT_EQ(PlatformHooks::Calls("CoCreateInstance"), 0); // nothing is entered: the line is only a line
}

TEST_F(ControlHandlerFailures, ChargingCriticalBatteryAndPowerOnTheLineAreNotCritical)
{
    AnswerPower(0, 12);
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    AnswerPower(1, 4);
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    AnswerPower(255, 128);
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    EXPECT_EQ(HostLines(), (Texts{L"4 Power status has changed.", L"4 AC offline, Battery status 0xc",
                                  L"4 Power status has changed.", L"4 AC on-line", L"4 Power status has changed.",
                                  L"4 #### Unknown ACLineStatus 255, battery flag = 0x80"}));
}

TEST_F(ControlHandlerFailures, OnlyTheStatusChangeReadsThePowerStatus)
{
    for (DWORD type = 0; type <= 18; ++type)
    {
        if (type != PBT_APMPOWERSTATUSCHANGE && type != PBT_APMSUSPEND)
        {
            Send(SERVICE_CONTROL_POWEREVENT, type);
        }
    }
    EXPECT_EQ(PlatformHooks::Calls("GetSystemPowerStatus"), 0);
    EXPECT_EQ(PlatformHooks::Calls("CoCreateInstance"), 0); // nor is the monitor looked for
}

TEST_F(ControlHandlerFailures, NotificationThatCannotBeWrittenIsAnErrorAndTheFlagIsClearedAllTheSame)
{
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane\\Notify", KEY_WRITE), ERROR_SUCCESS);
    }
    REGSAM access = 0;
    RegOpenKeyExWHook::Replace(
        [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM wanted, PHKEY key)
        {
            if (std::wstring_view(TextOrEmpty(subkey)).ends_with(L"\\Notify"))
            {
                access = wanted;
            }
            return RegOpenKeyExWHook::Real(root, subkey, options, wanted, key);
        });
    PlatformHooks::FailCall("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    Send(SERVICE_CONTROL_SESSIONCHANGE, WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(access, 0x20006u); // KEY_WRITE and no more
    const Texts lines = HostLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), L"4 WTS_CONSOLE_DISCONNECT event received");
    EXPECT_TRUE(lines.back().starts_with(L"2 could not set Notification value Error 5 (0x5)"));
    RegistryKey product(false);
    if (product.Open(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_ALL_ACCESS) == ERROR_SUCCESS)
    {
        product.DeleteTree(L"Notify");
    }
}

TEST_F(ControlHandlerFailures, StopReportsStopPendingBeforeAnythingElse)
{
    std::vector<DWORD> states;
    SetServiceStatusHook::Replace(
        [&](SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status)
        {
            EXPECT_EQ(PlatformHooks::Calls("CoCreateInstance"), 0); // before the monitor is looked for
            states.push_back(status->dwCurrentState);
            EXPECT_EQ(status->dwWaitHint, 0u);
            return TRUE;
        });
    PlatformHooks::FailCall("CoCreateInstance", 1, static_cast<DWORD>(CO_E_SERVER_EXEC_FAILURE));
    Send(SERVICE_CONTROL_STOP);
    EXPECT_EQ(states, (std::vector<DWORD>{SERVICE_STOP_PENDING}));
    const Texts lines = HostLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[0].starts_with(L"5 set the service '0x"));
    EXPECT_TRUE(lines[0].ends_with(L"' to '3'"));
    EXPECT_EQ(lines[1], L"4 SERVICE_CONTROL_STOP received");
    EXPECT_TRUE(lines[2].starts_with(
        L"2 could not get netmon object during service stop command Error 2148007941 (0x80080005)"));
    EXPECT_EQ(lines[3], L"4 setting stop event");
}

TEST_F(ControlHandlerFailures, ControlsThatAreOnlyTracedReportNothingAndAskNobody)
{
    constexpr DWORD controls[] = {SERVICE_CONTROL_PAUSE,    SERVICE_CONTROL_CONTINUE,    SERVICE_CONTROL_INTERROGATE,
                                  SERVICE_CONTROL_SHUTDOWN, SERVICE_CONTROL_DEVICEEVENT, 200};
    for (const DWORD control : controls)
    {
        Send(control);
    }
    EXPECT_EQ(HostLines(),
              (Texts{L"6 got the service control pause control", L"6 got the service control continue control",
                     L"6 got the service control interrogate control", L"6 got the service control shutdown control",
                     L"4 *** service control device event", L"6 service control device event",
                     L"4 Unknown service request (Opcode = 0x0000c8)"}));
    EXPECT_EQ(PlatformHooks::Calls("SetServiceStatus"), 0);
    EXPECT_EQ(PlatformHooks::Calls("CoCreateInstance"), 0);
}
