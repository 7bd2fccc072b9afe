// Notifications of the machine on their way to a client, in the order that clients rely on. The waits for a gateway are
// long, so these run in accelerated time.

#include "Host/HostSupport.h"
#include "Monitor/LiveMonitor.h"

#include <atomic>

namespace
{
using Fast10_LiveEvents = LiveMonitorTest;

TEST_F(Fast10_LiveEvents, WiredDisconnectIsToldAtOnceWithoutMacAndClearsTheAddresses)
{
    Lab(L"cable out eth0");
    const auto told = WaitFor(enumEventMediaDisconnect, kEthernet);
    ASSERT_TRUE(told.has_value());
    EXPECT_EQ(told->secondType, VT_BSTR);
    EXPECT_EQ(told->adjacentMac, L""); // empty, not null
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 1);
    EXPECT_EQ(adapter->ipAddress, std::nullopt);
    EXPECT_EQ(adapter->dnsServers, std::nullopt);
}

TEST_F(Fast10_LiveEvents, WiredConnectIsToldWithTheGatewaysMacWhenThereIsAGateway)
{
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"cable in eth0");
    const auto told = WaitFor(enumEventMediaConnect, kEthernet);
    ASSERT_TRUE(told.has_value());
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->connectStatus, 0);
    EXPECT_EQ(adapter->ipGateway, L"192.0.2.1");
    EXPECT_EQ(told->adjacentMac, adapter->gatewayMac);
}

TEST_F(Fast10_LiveEvents, AdapterThatComesBackIsToldAsAddedWithItsDataReadAnew)
{
    Lab(L"adapter remove eth0");
    ASSERT_TRUE(WaitFor(enumEventAdapterRemove, kEthernet).has_value());
    Lab(L"adapter add eth0");
    ASSERT_TRUE(WaitFor(enumEventAdapterAdd, kEthernet).has_value());
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->description, L"Brevik GX210 Gigabit Ethernet");
    EXPECT_EQ(adapter->macAddress, L"02:00:5E:00:53:07");
}

TEST_F(Fast10_LiveEvents, WithoutStartNotificationProcessingNothingIsTold)
{
    ASSERT_EQ(monitor->StopNotificationProcessing(), S_OK);
    Lab(L"cable out eth0");
    ASSERT_EQ(monitor->StartNotificationProcessing(), S_OK);
    Lab(L"cable out dock0");
    ASSERT_TRUE(sink->Recorder().WaitForEvent(enumEventMediaDisconnect, 60'000).has_value());
    EXPECT_EQ(Count(enumEventMediaDisconnect, kEthernet), 0);
}

TEST_F(Fast10_LiveEvents, SinkMayCallBackIntoTheMonitorFromTheEvent)
{
    std::atomic<std::size_t> seen{0};
    sink->Recorder().OnEvent(
        [&](const RecordedEvent&)
        {
            seen = ReadAdapterList(monitor).size();
            return S_OK;
        });
    Lab(L"cable out eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    Lab(L"cable in eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kEthernet).has_value());
    EXPECT_GT(seen.load(), 0u);
}

TEST_F(Fast10_LiveEvents, FailingSinkKeepsGettingEventsAndTheOtherSinkTheSame)
{
    sink->Recorder().OnEvent([](const RecordedEvent&) { return E_FAIL; });
    const EventConnection other(monitor);
    ASSERT_EQ(other.Result(), S_OK);
    Lab(L"cable out eth0");
    Lab(L"cable in eth0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kEthernet).has_value());
    EXPECT_TRUE(other->WaitForEvent(enumEventMediaDisconnect).has_value());
    EXPECT_TRUE(other->WaitForEvent(enumEventMediaConnect).has_value());
}

using Fast10_OpenNotStarted = MonitorTest;

TEST_F(Fast10_OpenNotStarted, NotificationsAreDroppedAndNoneIsToldLater)
{
    const INetMonSvPtr monitor = Monitor();
    ASSERT_EQ(monitor->Open(), S_OK);
    const EventConnection sink(monitor);
    ASSERT_EQ(sink.Result(), S_OK);
    Lab(L"event MSNdis_StatusMediaDisconnect eth0");
    Lab(L"event MSNdis_NotifyAdapterArrival eth0");
    ASSERT_TRUE(HostSupport::WaitForTrace(L"no processing handler for object 0", 2, 60'000));
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    Lab(L"event MSNdis_StatusMediaDisconnect dock0");
    EXPECT_TRUE(sink->WaitForEvent(enumEventMediaDisconnect, 60'000).has_value());
    const std::vector<RecordedEvent> told = sink->Events();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].deviceId, kDock);
    ASSERT_TRUE(HostSupport::WaitForTrace(L"queued wmi event ", 1, 60'000));
    EXPECT_EQ(HostSupport::CountInTrace(L"queued wmi event "), 1);
    EXPECT_EQ(monitor->Close(), S_OK);
}
} // namespace
