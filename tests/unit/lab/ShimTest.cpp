// The shims as a program sees them that has them beside itself: ARP, address notifications, device tree, hooked calls.
#include "tests/unit/lab/LabMachineFixture.h"
#include "tests/unit/lab/ProbeProcess.h"

#include "lab/shims/ShimInstall.h"

#include <algorithm>

namespace
{

using Lines = std::vector<std::string>;

constexpr wchar_t probeFolder[] = L"C:\\LabShimTest";
constexpr char dockId[] = "USB\\VID_F1D3&PID_0817&MI_00\\7&1&0&0000";

class LabShimTest : public LabMachineTest
{
protected:
    static void SetUpTestSuite()
    {
        CreateDirectoryW(probeFolder, nullptr);
        const auto program = std::filesystem::path{probeFolder} / L"ShimProbe.exe";
        ASSERT_TRUE(
            CopyFileW((BuildFolder() / L"tests" / L"probes" / L"ShimProbe.exe").c_str(), program.c_str(), FALSE));
        lab::InstallShims(program, BuildFolder() / L"lab" / L"shims");
    }

    void SetUp() override
    {
        LabMachineTest::SetUp();
        Change(
            [](lab::Json& state)
            {
                state["adapters"] = {{{"name", "eth0"},
                                      {"guid", "{11111111-AAAA-4BBB-8CCC-000000000001}"},
                                      {"index", 7},
                                      {"interfaceIndex", 11},
                                      {"description", "Dock"},
                                      {"service", "tmd"},
                                      {"manufacturer", "Tamarind"},
                                      {"pnpDeviceId", dockId},
                                      {"hardwareIds", {"USB\\VID_F1D3&PID_0817&REV_1", "USB\\VID_F1D3&PID_0817"}},
                                      {"parent", "USB\\VID_F1D3&PID_0817\\0001"},
                                      {"addresses", {{{"address", "192.0.2.7"}, {"prefix", 24}}}}}};
                state["devices"] = {
                    {{"id", "USB\\HUB\\1"}, {"class", "USB"}},
                    {{"id", "USB\\VID_F1D3&PID_0817\\0001"}, {"parent", "USB\\HUB\\1"}, {"class", "USB"}}};
                state["arp"] = {{{"address", "192.0.2.1"}, {"mac", "02:00:5E:00:53:FE"}},
                                {{"address", "192.0.2.2"}, {"error", 31}}};
            });
        machine.ClearJournal();
    }

    void Change(const std::function<void(lab::Json& state)>& change)
    {
        machine.Update([&](lab::Json& state, lab::Events&) { change(state); });
    }

    static ProbeProcess Start(const std::wstring& words)
    {
        return ProbeProcess{std::wstring{probeFolder} + L"\\ShimProbe.exe " + words};
    }
    static Lines Run(const std::wstring& words) { return Start(words).Rest(); }
};

// ---- SendARP ----

TEST_F(LabShimTest, SendArpGivesTheTablesAddress)
{
    EXPECT_EQ(Run(L"arp 192.0.2.1 192.0.2.7"), Lines{"0 02:00:5e:00:53:fe 6"});
    const auto lines = Journalled("SendARP");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["args"].value("destination", ""), "192.0.2.1");
    EXPECT_EQ(lines[0]["out"].value("mac", ""), "02:00:5e:00:53:fe");
}

TEST_F(LabShimTest, SendArpWithoutSourceWorks)
{
    EXPECT_EQ(Run(L"arp 192.0.2.1 0.0.0.0"), Lines{"0 02:00:5e:00:53:fe 6"});
}

TEST_F(LabShimTest, SendArpToNobodyIsABadNetName)
{
    EXPECT_EQ(Run(L"arp 192.0.2.99 192.0.2.7"), Lines{"67 00:00:00:00:00:00 6"});
}

TEST_F(LabShimTest, SendArpFromAForeignAddressIsNotFound)
{
    EXPECT_EQ(Run(L"arp 192.0.2.1 198.51.100.1"), Lines{"1168 00:00:00:00:00:00 6"});
}

TEST_F(LabShimTest, SendArpGivesTheEntrysError)
{
    EXPECT_EQ(Run(L"arp 192.0.2.2 192.0.2.7"), Lines{"31 00:00:00:00:00:00 6"});
}

TEST_F(LabShimTest, SendArpWithTooLittleRoomOverflows)
{
    EXPECT_EQ(Run(L"arp 192.0.2.1 192.0.2.7 4"), Lines{"111 00:00:00:00:00:00 4"});
}

TEST_F(LabShimTest, SendArpFailsByRule)
{
    machine.AddFault({.call = "SendARP", .code = 87});
    EXPECT_EQ(Run(L"arp 192.0.2.1 192.0.2.7"), Lines{"87 00:00:00:00:00:00 6"});
}

// ---- address notifications ----

TEST_F(LabShimTest, AddressEventsReachTheCallbackUntilItIsCancelled)
{
    ProbeProcess probe = Start(L"watch 2");
    ASSERT_EQ(probe.Line(), "registered 0");
    machine.Raise({{{"channel", "wmi"}, {"type", "other"}}});
    machine.Raise(
        {{{"channel", "address"}, {"type", "add"}, {"address", "192.0.2.9"}, {"prefix", 24}, {"interfaceIndex", 11}}});
    machine.Raise(
        {{{"channel", "address"}, {"type", "delete"}, {"address", "fe80::1"}, {"prefix", 64}, {"interfaceIndex", 11}}});
    EXPECT_EQ(probe.Rest(), (Lines{"add 1 family 2 prefix 24 interface 11", "delete 2 family 23 prefix 64 interface 11",
                                   "cancelled 0"}));
    EXPECT_EQ(Journalled("UnicastIpAddressChangeCallback").size(), 2U);
}

TEST_F(LabShimTest, AnAddressRegistrationForOneFamilyGetsThatFamily)
{
    ProbeProcess probe = Start(L"watch 1 v6");
    ASSERT_EQ(probe.Line(), "registered 0");
    machine.Raise(
        {{{"channel", "address"}, {"type", "add"}, {"address", "192.0.2.9"}, {"prefix", 24}, {"interfaceIndex", 11}}});
    machine.Raise(
        {{{"channel", "address"}, {"type", "add"}, {"address", "fe80::1"}, {"prefix", 64}, {"interfaceIndex", 11}}});
    EXPECT_EQ(probe.Rest(), (Lines{"add 1 family 23 prefix 64 interface 11", "cancelled 0"}));
}

TEST_F(LabShimTest, AnInitialNotificationComesWithoutARow)
{
    Lines lines = Run(L"watch 1 initial"); // the callback may come before the registration returns
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (Lines{"cancelled 0", "initial 3", "registered 0"}));
}

TEST_F(LabShimTest, RegistrationAndCancellingFailByRule)
{
    machine.AddFault({.call = "NotifyUnicastIpAddressChange", .code = 8});
    EXPECT_EQ(Run(L"watch 1"), Lines{"registered 8"});
    machine.AddFault({.call = "CancelMibChangeNotify2", .code = 5});
    EXPECT_EQ(Run(L"watch 0"), (Lines{"registered 0", "cancelled 5"}));
}

// ---- device tree ----

TEST_F(LabShimTest, TheTreeHoldsDevicesAndAdaptersBelowTheirParents)
{
    EXPECT_EQ(Run(L"tree"), (Lines{"parent 13 ", "HTREE\\ROOT\\0", " USB\\HUB\\1", "  USB\\VID_F1D3&PID_0817\\0001",
                                   std::string("   ") + dockId}));
}

TEST_F(LabShimTest, ADeviceIsFoundInAnyLetterCaseAndKnowsItsParent)
{
    EXPECT_EQ(Run(L"tree usb\\vid_f1d3&pid_0817\\0001"),
              (Lines{"parent 0 USB\\HUB\\1", "USB\\VID_F1D3&PID_0817\\0001", std::string(" ") + dockId}));
}

TEST_F(LabShimTest, AnUnknownAbsentOrMalformedDeviceIsNotLocated)
{
    EXPECT_EQ(Run(L"tree PCI\\NONE\\0"), Lines{"locate 13"});
    EXPECT_EQ(Run(L"tree nonsense"), Lines{"locate 30"});
    Change([](lab::Json& state) { state["adapters"][0]["present"] = false; });
    EXPECT_EQ(Run(L"tree USB\\VID_F1D3&PID_0817&MI_00\\7&1&0&0000"), Lines{"locate 13"});
}

TEST_F(LabShimTest, TreeCallsFailByRule)
{
    machine.AddFault({.call = "CM_Locate_DevNodeW", .code = 13});
    EXPECT_EQ(Run(L"tree"), Lines{"locate 13"});
    machine.ClearFaults();
    machine.AddFault({.call = "CM_Get_Child", .nth = 2, .times = 1, .code = 0x13});
    EXPECT_EQ(Run(L"tree"), (Lines{"parent 13 ", "HTREE\\ROOT\\0", " USB\\HUB\\1"}));
}

TEST_F(LabShimTest, ADisabledDeviceHasItsProblem)
{
    Change([](lab::Json& state) { state["adapters"][0]["problem"] = 22; });
    const Lines lines = Run(L"node USB\\VID_F1D3&PID_0817&MI_00\\7&1&0&0000");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "status 0 0x1802400 22");
}

TEST_F(LabShimTest, PropertiesOfANodeThroughTheConfigurationManager)
{
    const Lines lines = Run(L"node USB\\VID_F1D3&PID_0817&MI_00\\7&1&0&0000");
    ASSERT_GE(lines.size(), 8U);
    EXPECT_EQ(lines[1], "cm 1 0 type 1 'Dock'");
    EXPECT_EQ(lines[2], "cm 2 0 type 7 'USB\\VID_F1D3&PID_0817&REV_1' 'USB\\VID_F1D3&PID_0817'");
    EXPECT_EQ(lines[3], "cm 5 0 type 1 'tmd'");
    EXPECT_EQ(lines[4], "cm 8 0 type 1 'Net'");
    EXPECT_EQ(lines[5], "cm 10 0 type 1 '{4D36E972-E325-11CE-BFC1-08002BE10318}\\0007'");
    EXPECT_EQ(lines[6], "cm 12 0 type 1 'Tamarind'");
}

TEST_F(LabShimTest, AMissingPropertyIsNoSuchValue)
{
    const Lines lines = Run(L"node USB\\HUB\\1");
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[3], "cm 5 37 type 0");
}

// ---- hooked calls ----

TEST_F(LabShimTest, WithoutTheSwitchPlatformCallsAreLeftAlone)
{
    machine.AddFault({.call = "CreateEventW", .times = 0, .code = 8});
    const Lines lines = Run(L"calls");
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0], "CreateEventW 1 0");
    EXPECT_TRUE(Journalled("CreateEventW").empty());
}

TEST_F(LabShimTest, WithTheSwitchEveryPlatformCallFailsInItsOwnWay)
{
    Change([](lab::Json& state) { state["hooks"] = true; });
    machine.AddFault({.call = "CreateEventW", .code = 8});
    machine.AddFault({.call = "CreateFileW", .code = 5});
    machine.AddFault({.call = "RegOpenKeyExW(Software\\Microsoft)", .code = 2});
    machine.AddFault({.call = "CoInitializeEx", .code = 0x80010106});
    machine.AddFault({.call = "CoTaskMemAlloc", .code = 8});
    machine.AddFault({.call = "LoadLibraryW", .code = 126});
    EXPECT_EQ(Run(L"calls"), (Lines{"CreateEventW 0 8", "CreateFileW 0 5", "RegOpenKeyExW 2",
                                    "CoInitializeEx 0x80010106", "CoTaskMemAlloc 0", "LoadLibraryW 0 126"}));
}

TEST_F(LabShimTest, AProcessKilledAtItsThirdCallHasMadeTwo)
{
    Change([](lab::Json& state) { state["hooks"] = true; });
    lab::FaultRule rule;
    rule.call = "*";
    rule.nth = 3;
    rule.kill = true;
    machine.AddFault(rule);
    static_cast<void>(Run(L"calls"));
    EXPECT_EQ(Journalled("CreateEventW").size(), 1U);
    EXPECT_EQ(Journalled("CreateFileW").size(), 1U);
    const auto last = Journalled("RegOpenKeyExW");
    ASSERT_EQ(last.size(), 1U);
    EXPECT_EQ(last[0].value("result", ""), "0x0000DEAD");
    EXPECT_TRUE(Journalled("CoInitializeEx").empty());
}

TEST_F(LabShimTest, WithTheSwitchAndNoRuleCallsSucceedAndAreJournalled)
{
    Change([](lab::Json& state) { state["hooks"] = true; });
    EXPECT_EQ(Run(L"calls"), (Lines{"CreateEventW 1 0", "CreateFileW 1 0", "RegOpenKeyExW 0", "CoInitializeEx 0",
                                    "CoTaskMemAlloc 1", "LoadLibraryW 1 0"}));
    EXPECT_EQ(Journalled("CreateFileW").size(), 1U);
    ASSERT_EQ(Journalled("RegOpenKeyExW").size(), 1U);
    EXPECT_EQ(Journalled("RegOpenKeyExW")[0]["args"].value("2", ""), "Software\\Microsoft");
}

TEST_F(LabShimTest, PowerStatusComesFromTheStateAndFailsByRule)
{
    Change([](lab::Json& state) { state["power"] = {{"acLine", 0}, {"batteryFlag", 4}, {"batteryPercent", 3}}; });
    EXPECT_EQ(Run(L"power"), Lines{"line 0 flag 4 percent 3"});
    machine.AddFault({.call = "GetSystemPowerStatus", .code = 50});
    EXPECT_EQ(Run(L"power"), Lines{"error 50"});
}

// ---- service controls ----

class LabControlTest : public LabShimTest
{
protected:
    void SetUp() override
    {
        LabShimTest::SetUp();
        DeleteFileW(outFile);
        m_manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        m_service =
            CreateServiceW(m_manager, L"ShimProbe", L"ShimProbe", SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                           SERVICE_DEMAND_START, 0, L"C:\\LabShimTest\\ShimProbe.exe service C:\\LabShimTest\\out.txt",
                           nullptr, nullptr, nullptr, nullptr, nullptr);
        ASSERT_NE(m_service, nullptr) << GetLastError();
        ASSERT_TRUE(StartServiceW(m_service, 0, nullptr)) << GetLastError();
        WaitForState(SERVICE_RUNNING);
    }

    void TearDown() override
    {
        SERVICE_STATUS status{};
        ControlService(m_service, SERVICE_CONTROL_STOP, &status);
        WaitForState(SERVICE_STOPPED);
        DeleteService(m_service);
        CloseServiceHandle(m_service);
        CloseServiceHandle(m_manager);
        LabShimTest::TearDown();
    }

    void WaitForState(DWORD state) const
    {
        SERVICE_STATUS status{};
        while (QueryServiceStatus(m_service, &status) && status.dwCurrentState != state)
            Sleep(5);
    }

    // Sends and waits for the handler's return; gives its result.
    std::int64_t Send(unsigned code, unsigned type, const std::string& data = {})
    {
        lab::EventCursor cursor = machine.Listen();
        machine.Raise({{{"channel", "control"},
                        {"type", "send"},
                        {"id", ++m_request},
                        {"code", code},
                        {"eventType", type},
                        {"data", data}}});
        for (;;)
        {
            const lab::Events events = cursor.Next(20000);
            if (events.empty())
                return -1;
            for (const lab::Json& event : events)
            {
                if (event.value("channel", "") == "control" && event.value("type", "") == "done" &&
                    event.value("id", 0U) == m_request)
                    return event.value("result", -1LL);
            }
        }
    }

    static Lines Handled()
    {
        ProbeProcess type{L"cmd /c type C:\\LabShimTest\\out.txt"};
        return type.Rest();
    }

    static constexpr wchar_t outFile[] = L"C:\\LabShimTest\\out.txt";
    SC_HANDLE m_manager = nullptr;
    SC_HANDLE m_service = nullptr;
    unsigned m_request = 0;
};

TEST_F(LabControlTest, ControlsThatWineCannotSendReachTheRegisteredHandlerWithItsContext)
{
    EXPECT_EQ(Send(5, 0), 0);
    EXPECT_EQ(Send(13, 10), 0);
    EXPECT_EQ(Send(14, 2), 0);
    EXPECT_EQ(Send(11, 0x8000, "2A000000"), 0);
    EXPECT_EQ(Handled(), (Lines{"control 5 type 0 data -1 context 1", "control 13 type 10 data -1 context 1",
                                "control 14 type 2 data 8 context 1", "control 11 type 32768 data 42 context 1"}));
}

TEST_F(LabControlTest, TheHandlersResultComesBack)
{
    EXPECT_EQ(Send(200, 0), 1234);
}

TEST_F(LabControlTest, ControlsOfTheManagerGoThroughToo)
{
    SERVICE_STATUS status{};
    ASSERT_TRUE(ControlService(m_service, SERVICE_CONTROL_STOP, &status));
    WaitForState(SERVICE_STOPPED);
    EXPECT_EQ(Handled(), Lines{"control 1 type 0 data -1 context 1"});
    EXPECT_EQ(Journalled("ServiceControl").size(), 1U);
}

} // namespace
