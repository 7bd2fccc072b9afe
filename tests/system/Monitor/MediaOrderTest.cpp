// What a client sees of media changes, situation by situation: at once or after the wait for a gateway, in which order,
// and what becomes of a connect when something comes in between.

#include "Host/HostSupport.h"
#include "Monitor/LiveMonitor.h"

namespace
{
constexpr wchar_t kPollText[] = L"WaitForIpDefaultGateway: no current default gateway, waiting...";
constexpr int kPolls = 20;                           // of a wait that no gateway ends
constexpr std::uint64_t kNearlyTheWholeWait = 9'000; // of the ten seconds that twenty polls take

// What needs no long wait runs in the machine's own time.
using MediaOrder = LiveMonitorTest;
using Fast10_MediaOrder = LiveMonitorTest;

// Waits until so many waits poll for a gateway at once: each has a thread of its own.
bool WaitForPollingThreads(std::size_t count)
{
    return HostSupport::WaitUntil([&] { return HostSupport::ThreadsInTrace(kPollText).size() >= count; });
}

TEST_F(MediaOrder, WiredConnectWithAGatewayAllAlongIsToldWithoutAPoll)
{
    Lab(L"event MSNdis_StatusMediaConnect eth0");
    const auto told = WaitFor(enumEventMediaConnect, kEthernet);
    ASSERT_TRUE(told.has_value());
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(told->adjacentMac, adapter->gatewayMac);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"WaitForIpDefaultGateway: current default gateway: 192.0.2.1"));
    EXPECT_EQ(HostSupport::CountInTrace(kPollText), 0);
}

TEST_F(MediaOrder, WiredConnectIsToldWhenTheGatewayComes)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"cable in eth0 --lease-after 2");
    const auto told = WaitFor(enumEventMediaConnect, kEthernet);
    ASSERT_TRUE(told.has_value());
    EXPECT_TRUE(HostSupport::WaitForTrace(L"WaitForDefaultGatewayThread: exiting thread"));
    EXPECT_EQ(HostSupport::CountInTrace(L"got default GW"), 1);
    EXPECT_EQ(HostSupport::CountInTrace(L"WaitForIpDefaultGateway: current default gateway: "), 1);
    EXPECT_GE(HostSupport::CountInTrace(kPollText), 1);
    EXPECT_LT(HostSupport::CountInTrace(kPollText), kPolls);
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->ipGateway, L"192.0.2.1");
    EXPECT_TRUE(told->adjacentMac.has_value() && !told->adjacentMac->empty());
    EXPECT_EQ(told->adjacentMac, adapter->gatewayMac);
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 1);
}

TEST_F(MediaOrder, MonitorThatClosesDuringTheWaitDropsTheConnect)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"cable in eth0 --no-lease");
    ASSERT_TRUE(HostSupport::WaitForTrace(kPollText));
    EXPECT_EQ(monitor->Close(), S_OK); // ends the wait, and waits for its thread
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"the WMI cleanup has started--exiting DHCP wait thread"));
    EXPECT_EQ(monitor->Open(), S_OK);
}

TEST_F(MediaOrder, ElementIsDisconnectedAfterADisconnectWhateverTheMachineSays)
{
    // The cable is in: WMI and the driver go on saying so.
    Lab(L"event MSNdis_StatusMediaDisconnect eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 1);
    // One that is disconnected already is told again.
    Lab(L"event MSNdis_StatusMediaDisconnect eth0");
    EXPECT_TRUE(WaitForMany(2, enumEventMediaDisconnect, kEthernet));
}

TEST_F(MediaOrder, ElementIsConnectedAfterAConnectWhateverTheMachineSays)
{
    Lab(L"cable out wlan0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kWiFi).has_value());
    Lab(L"event MSNdis_StatusMediaConnect wlan0"); // the link stays down
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kWiFi).has_value());
    const auto adapter = Adapter(kWiFi);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 0);
}

TEST_F(MediaOrder, WiFiConnectIsToldByTheNotificationThreadWhileEveryPoolThreadWaits)
{
    Lab(L"cable out eth0");
    Lab(L"cable out wlan0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kWiFi).has_value());
    // Neither has a gateway now; the wired ones come first, and leave the pool no thread.
    Lab(L"set adapters.wlan0.dhcp.lease.gateways []");
    Lab(L"event MSNdis_StatusMediaConnect eth0 --copies 3");
    ASSERT_TRUE(WaitForPollingThreads(3));
    Lab(L"cable in wlan0");
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kWiFi).has_value());
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
    const std::wstring fired = std::wstring(L"EVENT: Fire_AdapterChange '") + kWiFi;
    ASSERT_TRUE(
        HostSupport::WaitUntil([&] { return !HostSupport::ThreadsInTrace(fired, L"enumEventMediaConnect").empty(); }));
    EXPECT_EQ(HostSupport::ThreadsInTrace(fired, L"enumEventMediaConnect"),
              HostSupport::ThreadsInTrace(L"processing wmi event queue item "));
}

TEST_F(MediaOrder, DisconnectIsToldWhileEveryPoolThreadWaits)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"event MSNdis_StatusMediaConnect eth0 --copies 3");
    ASSERT_TRUE(WaitForPollingThreads(3));
    Lab(L"event MSNdis_StatusMediaDisconnect dock0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kDock).has_value());
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
}

TEST_F(MediaOrder, DisconnectWithinTheWaitComesFirstAndTheConnectStillFollowsWithTheElementAsTheMachineIs)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    // The two addresses that went with the cable are two updates of the list; a later one would read the element anew.
    ASSERT_TRUE(WaitForMany(2, enumEventIpChange, L"no node"));
    Lab(L"cable in eth0 --no-lease"); // waits: there is no gateway
    ASSERT_TRUE(WaitForPollingThreads(1));
    Lab(L"event MSNdis_StatusMediaDisconnect eth0"); // the cable stays in
    ASSERT_TRUE(WaitForMany(2, enumEventMediaDisconnect, kEthernet));
    auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 1);
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kEthernet).has_value());
    adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 0); // nothing cancels the wait, and its end reads the machine again
}

TEST_F(MediaOrder, AdapterRemovedDuringTheWaitIsToldAsRemovedOnly)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"event MSNdis_StatusMediaConnect eth0");
    Lab(L"adapter remove eth0");
    const auto told = WaitFor(enumEventAdapterRemove, kEthernet);
    ASSERT_TRUE(told.has_value());
    EXPECT_EQ(told->adjacentMac, L"");
    EXPECT_FALSE(Adapter(kEthernet).has_value());
    Lab(L"set adapters.eth0.inWmi false"); // the next poll finds no object, which ends the wait
    EXPECT_TRUE(HostSupport::WaitForTrace(
        L"WaitForDefaultGatewayThread: NOT firing media connect event from WaitForDefaultGatewayThread"));
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
}

TEST_F(MediaOrder, PollThatFindsNoObjectEndsTheWaitAndTheConnectIsToldWithTheElementAsItWas)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    // The two addresses that went with the cable are two updates of the list; a later one would read the element anew.
    ASSERT_TRUE(WaitForMany(2, enumEventIpChange, L"no node"));
    Lab(L"event MSNdis_StatusMediaConnect eth0");
    ASSERT_TRUE(HostSupport::WaitForTrace(kPollText));
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
    Lab(L"set adapters.eth0.inWmi false");
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kEthernet).has_value());
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 0); // as the connect left it: there was nothing to read
}

TEST_F(Fast10_MediaOrder, WiredConnectWithoutAGatewayIsToldAfterTheWaitAndALaterGatewayComesAsAnAddressChange)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    const std::uint64_t start = GetTickCount64();
    Lab(L"cable in eth0 --no-lease");
    const auto told = WaitFor(enumEventMediaConnect, kEthernet);
    ASSERT_TRUE(told.has_value());
    EXPECT_GE(told->tick - start, kNearlyTheWholeWait);
    auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 0);
    EXPECT_EQ(adapter->ipGateway.value_or(L""), L"");
    EXPECT_EQ(told->adjacentMac.value_or(L""), L"");

    sink->Recorder().Clear();
    Lab(L"dhcp lease eth0");
    ASSERT_TRUE(sink->Recorder().WaitForEvent(enumEventIpChange, 60'000).has_value());
    adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->ipGateway, L"192.0.2.1");
    EXPECT_EQ(Count(enumEventMediaConnect, kEthernet), 0);
}

TEST_F(Fast10_MediaOrder, FourthConnectWaitsForAThreadAndIsToldLikeTheOthers)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"event MSNdis_StatusMediaConnect eth0 --copies 4");
    // Each connect has a wait of its own and is told.
    ASSERT_TRUE(WaitForMany(4, enumEventMediaConnect, kEthernet));
    const auto told = Told(enumEventMediaConnect, kEthernet);
    // Three at once, and the fourth behind one of them.
    EXPECT_LT(told[2].tick - told[0].tick, kNearlyTheWholeWait);
    EXPECT_GE(told[3].tick - told[0].tick, kNearlyTheWholeWait);
    ASSERT_TRUE(HostSupport::WaitForTrace(kPollText, 4 * kPolls));
    EXPECT_EQ(HostSupport::ThreadsInTrace(kPollText).size(), 3u);
}
} // namespace
