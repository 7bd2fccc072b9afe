// The control handler as the service control manager calls it. Controls that can be sent under every platform are
// tested against the running service as well; these tests reach all of them.

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
constexpr wchar_t NotifyKey[] = L"Software\\QRLS\\Sorvane\\Notify";

class ControlHandler : public ::testing::Test
{
protected:
    void SetUp() override
    {
        SetDefaultLogSource(Log::Source::ConfigServer);
        RegistryKey key(false);
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, NotifyKey, KEY_ALL_ACCESS), ERROR_SUCCESS);
        key.DeleteValue(L"Notification");
        SendSession(WTS_SESSION_LOGON); // the flag is off
        TraceLines::Clear();
    }
    void TearDown() override
    {
        RegistryKey parent(false);
        if (parent.Open(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_ALL_ACCESS) == ERROR_SUCCESS)
        {
            parent.DeleteTree(L"Notify");
        }
    }

    static void Send(DWORD control, DWORD type = 0)
    {
        EXPECT_EQ(CServiceModule::_HandlerEx(control, type, nullptr, nullptr), 0u);
    }
    static void SendSession(DWORD type) { Send(SERVICE_CONTROL_SESSIONCHANGE, type); }

    // What the client would read, and forget again; 0 when nothing was written.
    static std::uint32_t TakeNotification()
    {
        RegistryKey key(false);
        EXPECT_EQ(key.Open(HKEY_LOCAL_MACHINE, NotifyKey, KEY_ALL_ACCESS), ERROR_SUCCESS);
        std::uint32_t number = 0;
        (void)key.ReadDword(L"Notification", number, 0);
        key.DeleteValue(L"Notification");
        return number;
    }

    const ComApartment apartment;
};
} // namespace

TEST_F(ControlHandler, PlainControlsAreOnlyTracedAtLevelSix)
{
    Send(SERVICE_CONTROL_PAUSE);
    Send(SERVICE_CONTROL_CONTINUE);
    Send(SERVICE_CONTROL_INTERROGATE);
    Send(SERVICE_CONTROL_SHUTDOWN);
    Send(SERVICE_CONTROL_DEVICEEVENT);
    TraceRecorder& trace = TraceRecorder::Get();
    EXPECT_TRUE(trace.Has(10, 6, L"got the service control pause control"));
    EXPECT_TRUE(trace.Has(10, 6, L"got the service control continue control"));
    EXPECT_TRUE(trace.Has(10, 6, L"got the service control interrogate control"));
    EXPECT_TRUE(trace.Has(10, 6, L"got the service control shutdown control"));
    EXPECT_TRUE(trace.Has(10, 4, L"*** service control device event"));
    EXPECT_TRUE(trace.Has(10, 6, L"service control device event"));
}

TEST_F(ControlHandler, UnknownControlIsTracedWithItsNumber)
{
    Send(200);
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"Unknown service request (Opcode = 0x0000c8)"));
}

TEST_F(ControlHandler, UnknownPowerAndSessionEventsAreSilent)
{
    Send(SERVICE_CONTROL_POWEREVENT, 99);
    SendSession(99);
    for (const RecordedLine& line : TraceRecorder::Get().Lines())
    {
        // Reading the trace flags may tell of missing keys under another source.
        EXPECT_NE(line.source, 10) << "unexpected line";
    }
}

TEST_F(ControlHandler, ConsoleDisconnectWithoutARemoteEventBeforeItWrites100)
{
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 100u);
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"WTS_CONSOLE_DISCONNECT event received"));
}

TEST_F(ControlHandler, ConsoleDisconnectAfterARemoteConnectWritesNothingAndClearsTheFlag)
{
    SendSession(WTS_REMOTE_CONNECT);
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 0u);
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 100u);
}

TEST_F(ControlHandler, LogonClearsWhatARemoteDisconnectSet)
{
    SendSession(WTS_REMOTE_DISCONNECT);
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 0u);
    SendSession(WTS_REMOTE_DISCONNECT);
    SendSession(WTS_SESSION_LOGON);
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 100u);
}

TEST_F(ControlHandler, UnknownSessionEventLeavesTheFlagAlone)
{
    SendSession(WTS_REMOTE_CONNECT);
    SendSession(99);
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(TakeNotification(), 0u);
}

TEST_F(ControlHandler, MissingNotifyKeyIsAnErrorInTheTraceOnly)
{
    TearDown();
    SendSession(WTS_CONSOLE_DISCONNECT);
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(L"could not open Notification registry subkey Error 2 (0x2)"));
}

TEST_F(ControlHandler, SuspendWithoutAMonitorIsAnErrorThatNamesTheOtherDirection)
{
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND);
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"#### ENTER SUSPEND POWER MODE ####"));
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(L"resuming from suspend, could not create com object Error "));
}

TEST_F(ControlHandler, PowerStatusChangeReadsTheLine)
{
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMPOWERSTATUSCHANGE);
    const auto messages = TraceRecorder::Get().Messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[0], L"Power status has changed.");
    EXPECT_TRUE(messages[1].starts_with(L"AC ") || messages[1].starts_with(L"#### Unknown ACLineStatus "))
        << messages.size();
}

TEST_F(ControlHandler, StopGoesOnWithoutAMonitor)
{
    Send(SERVICE_CONTROL_STOP);
    TraceRecorder& trace = TraceRecorder::Get();
    EXPECT_TRUE(trace.Has(10, 4, L"SERVICE_CONTROL_STOP received"));
    EXPECT_TRUE(trace.HasMessageStarting(L"could not get netmon object during service stop command Error "));
    EXPECT_TRUE(trace.Has(10, 4, L"setting stop event"));
    EXPECT_EQ(_Module.m_status.dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
}

TEST_F(ControlHandler, SuspendResetsTheMonitorsWiFiListAndResumeDoesNothing)
{
    const FakeMonitorRegistration monitor;
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND);
    EXPECT_EQ(FakeMonitor::reset, 1);
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"entering suspend need to reset Wi-Fi list"));
    Send(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMEAUTOMATIC);
    EXPECT_EQ(FakeMonitor::reset, 1);
    EXPECT_EQ(FakeMonitor::closed, 0);
}

TEST_F(ControlHandler, StopClosesTheMonitorBeforeItSignalsTheEvent)
{
    const FakeMonitorRegistration monitor;
    // At the moment of the close the stop event is not signalled yet.
    FakeMonitor::onClose = [] { EXPECT_FALSE(TraceRecorder::Get().HasMessage(L"setting stop event")); };
    Send(SERVICE_CONTROL_STOP);
    EXPECT_EQ(FakeMonitor::closed, 1);
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"closing netmon because stop message was sent to halcyd"));
    EXPECT_TRUE(TraceRecorder::Get().Has(10, 4, L"setting stop event"));
}
