// Controls that Wine's service control manager cannot send, delivered to the handler that the shipped service
// registered, and what the service does about each.

#include "Monitor/MonitorMachine.h"

#include <optional>

namespace
{
constexpr wchar_t kNotifyKey[] = L"Software\\QRLS\\Sorvane\\Notify";

class ServiceControls : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kNotifyKey, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr), 0);
        RegDeleteValueW(key, L"Notification");
        RegCloseKey(key);
    }

    // Returns what the handler returned.
    static std::string Control(const std::wstring& words) { return Lab(L"control " + words); }

    static std::optional<DWORD> Notification()
    {
        DWORD value = 0;
        DWORD size = sizeof value;
        const LSTATUS error =
            RegGetValueW(HKEY_LOCAL_MACHINE, kNotifyKey, L"Notification", RRF_RT_REG_DWORD, nullptr, &value, &size);
        return error == ERROR_SUCCESS ? std::optional(value) : std::nullopt;
    }

    // The trace reaches its store by a thread of the service's own.
    static bool Traced(const std::string& text)
    {
        for (const ULONGLONG end = GetTickCount64() + 20'000; GetTickCount64() < end; Sleep(100))
        {
            const FinishedProcess trace = RunProcess(L"\"" + ProductFolder() + L"halcydctl.exe\" trace --lines 5000");
            if (trace.output.find(text) != std::string::npos)
            {
                return true;
            }
        }
        return false;
    }
};

TEST_F(ServiceControls, ConsoleDisconnectWithNoRemoteEventBeforeWrites100)
{
    EXPECT_EQ(Control(L"session 2"), "the handler returned 0\r\n");
    EXPECT_EQ(Notification(), 100u);
    EXPECT_TRUE(Traced("WTS_CONSOLE_DISCONNECT event received"));
}

TEST_F(ServiceControls, ConsoleDisconnectAfterRemoteConnectWritesNothingAndTheSecondOneWrites100)
{
    Control(L"session 3");
    Control(L"session 2");
    EXPECT_EQ(Notification(), std::nullopt);
    Control(L"session 2");
    EXPECT_EQ(Notification(), 100u);
}

TEST_F(ServiceControls, ALogonBetweenRemoteDisconnectAndConsoleDisconnectClearsTheFlag)
{
    Control(L"session 4");
    Control(L"session 5");
    Control(L"session 2");
    EXPECT_EQ(Notification(), 100u);
}

TEST_F(ServiceControls, AnUnknownSessionEventLeavesTheRemoteFlag)
{
    Control(L"session 3");
    EXPECT_EQ(Control(L"session 77"), "the handler returned 0\r\n");
    Control(L"session 2");
    EXPECT_EQ(Notification(), std::nullopt);
}

TEST_F(ServiceControls, SuspendOfANeverOpenedMonitorStillAsksForTheResetOfTheWifiList)
{
    EXPECT_EQ(Control(L"power 4"), "the handler returned 0\r\n");
    EXPECT_TRUE(Traced("#### ENTER SUSPEND POWER MODE ####"));
    EXPECT_TRUE(Traced("entering suspend need to reset Wi-Fi list"));
}

TEST_F(ServiceControls, CriticalBatteryOffTheLineIsToldAndWithAnotherBitItIsNot)
{
    Lab(L"power --line 0 --battery 12");
    Control(L"power 10");
    EXPECT_TRUE(Traced("AC offline, Battery status 0xc"));
    const FinishedProcess trace = RunProcess(L"\"" + ProductFolder() + L"halcydctl.exe\" trace --lines 5000");
    EXPECT_EQ(trace.output.find("BATTERY LEVEL CRITICAL"), std::string::npos);
    Lab(L"power --line 0 --battery 4");
    Control(L"power 10");
    EXPECT_TRUE(Traced("#### BATTERY LEVEL CRITICAL, ENTERING SUSPEND POWER MODE ####"));
}

TEST_F(ServiceControls, AFailedPowerQueryIsAnError)
{
    Lab(L"fail GetSystemPowerStatus --code 50");
    EXPECT_EQ(Control(L"power 10"), "the handler returned 0\r\n");
    EXPECT_TRUE(Traced("Could not get system power status"));
}

TEST_F(ServiceControls, AnUnknownControlIsTracedAndAnswered)
{
    EXPECT_EQ(Control(L"200"), "the handler returned 0\r\n");
    EXPECT_TRUE(Traced("Unknown service request (Opcode = 0x0000c8)"));
}

TEST_F(ServiceControls, DeviceEventIsTraced)
{
    EXPECT_EQ(Control(L"device 32768"), "the handler returned 0\r\n");
    EXPECT_TRUE(Traced("*** service control device event"));
}

TEST_F(ServiceControls, ShutdownDoesNotStopTheService)
{
    EXPECT_EQ(Control(L"shutdown"), "the handler returned 0\r\n");
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
}
} // namespace
