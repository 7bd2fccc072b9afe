// Open and Close from clients of the running service.

#include "Monitor/MonitorMachine.h"

namespace
{
bool IsOpen(INetMonSv* monitor)
{
    VARIANT_BOOL open = 0x55;
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_TRUE(open == VARIANT_TRUE || open == VARIANT_FALSE);
    return open == VARIANT_TRUE;
}

using OpenClose = MonitorTest;

TEST_F(OpenClose, OpenListsTheAdaptersThatPassTheGatesAndTellsEachInWmiOrder)
{
    const INetMonSvPtr monitor = Monitor();
    const EventConnection sink(monitor);
    ASSERT_EQ(sink.Result(), S_OK);
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
    ASSERT_FALSE(list.empty());
    ASSERT_TRUE(sink->WaitForCount(list.size()));
    const std::vector<RecordedEvent> events = sink->Events();
    ASSERT_EQ(events.size(), list.size());
    for (std::size_t index = 0; index < list.size(); ++index)
    {
        EXPECT_EQ(events[index].event, enumEventAdapterAdd);
        EXPECT_EQ(events[index].eventType, VT_INT);
        EXPECT_EQ(events[index].deviceId, list[index].deviceId);
    }
    const AdapterRecord* const ethernet = FindAdapter(list, kEthernet);
    ASSERT_NE(ethernet, nullptr);
    EXPECT_EQ(ethernet->adapterType, static_cast<std::uint32_t>(enumEthernet));
    EXPECT_EQ(ethernet->description, L"Brevik GX210 Gigabit Ethernet");
    EXPECT_EQ(ethernet->ipAddress, L"192.0.2.23");
    EXPECT_EQ(ethernet->ipGateway, L"192.0.2.1");
    EXPECT_EQ(ethernet->dnsServers, L"192.0.2.53,192.0.2.54");
    EXPECT_EQ(ethernet->macAddress, L"02:00:5E:00:53:07");
    EXPECT_EQ(ethernet->linkSpeed, 1'000'000'000u);
    EXPECT_EQ(ethernet->driverInfo, L"0000B17A : 000C0013 : Brevik GX210 Gigabit Ethernet");
    EXPECT_EQ(ethernet->deviceStatus, -1);
    EXPECT_EQ(ethernet->connectStatus, 0);
    EXPECT_EQ(ethernet->caption, std::nullopt);
    const AdapterRecord* const wifi = FindAdapter(list, kWiFi);
    ASSERT_NE(wifi, nullptr);
    EXPECT_EQ(wifi->adapterType, static_cast<std::uint32_t>(enumWiFi));
    EXPECT_TRUE(wifi->hasExtension);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(ReadAdapterList(monitor).empty());
}

TEST_F(OpenClose, OnlyTheSecondCloseOfTwoOpensTakesTheMonitorDown)
{
    const INetMonSvPtr monitor = Monitor();
    const INetMonSvPtr other = Monitor();
    EXPECT_FALSE(IsOpen(monitor));
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(other->Open(), S_OK);
    EXPECT_TRUE(IsOpen(monitor));
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(IsOpen(monitor));
    EXPECT_FALSE(ReadAdapterList(other).empty());
    EXPECT_EQ(other->Close(), S_OK);
    EXPECT_FALSE(IsOpen(monitor));
    EXPECT_TRUE(ReadAdapterList(other).empty());
}

TEST_F(OpenClose, CloseWithoutOpenSucceeds)
{
    const INetMonSvPtr monitor = Monitor();
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_FALSE(IsOpen(monitor));
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(IsOpen(monitor));
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(OpenClose, ReopenedMonitorHasAFreshList)
{
    const INetMonSvPtr monitor = Monitor();
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::size_t before = ReadAdapterList(monitor).size();
    ASSERT_EQ(monitor->Close(), S_OK);
    Lab(L"adapter remove eth0");
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
    EXPECT_EQ(list.size(), before - 1);
    EXPECT_EQ(FindAdapter(list, kEthernet), nullptr);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(OpenClose, FilterMaskKeepsWhatIsWrittenAndFiltersNothing)
{
    const INetMonSvPtr monitor = Monitor();
    long mask = -1;
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, 0);
    EXPECT_EQ(monitor->put_FilterMask(0x7FFFFFFF), S_OK);
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, 0x7FFFFFFF);
    const EventConnection sink(monitor);
    ASSERT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(sink->WaitForEvent(enumEventAdapterAdd).has_value());
    EXPECT_EQ(monitor->Close(), S_OK);
}
} // namespace
