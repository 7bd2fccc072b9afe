// Notifications that do not fit: without names, twice, late, of adapters that are unknown, ignored or gone.

#include "Host/HostSupport.h"
#include "Monitor/LiveMonitor.h"

namespace
{
class NotificationRoad : public LiveMonitorTest
{
protected:
    // Notifications are handled one after the other: when this one has been told, all before it have been handled.
    void HandleAllSoFar()
    {
        ++markers;
        Lab(L"event MSNdis_StatusMediaDisconnect bt0");
        ASSERT_TRUE(WaitForMany(markers, enumEventMediaDisconnect, kBluetooth));
    }
    [[nodiscard]] std::size_t EventsBesideMarkers()
    {
        return sink->Recorder().Events().size() - static_cast<std::size_t>(markers);
    }

    int markers = 0;
};

TEST_F(NotificationRoad, EventWithoutAnyNameIsSaidToFindNothing)
{
    Lab(L"event MSNdis_StatusMediaConnect");
    HandleAllSoFar();
    EXPECT_EQ(EventsBesideMarkers(), 0u);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"WMI network event without 'SettingID' or 'InstanceName'"));
    EXPECT_TRUE(HostSupport::WaitForTrace(L"could not find device element node for event MSNdis_StatusMediaConnect"));
    EXPECT_TRUE(HostSupport::WaitForTrace(L"could not find WMI object for event MSNdis_StatusMediaConnect"));
}

TEST_F(NotificationRoad, NameWithASuffixFindsItsAdapter)
{
    Lab(L"event MSNdis_StatusMediaDisconnect eth0 --suffix \" #2\"");
    EXPECT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    EXPECT_TRUE(HostSupport::WaitForTrace(std::wstring(L"the node '") + kEthernet + L"' matches"));
}

TEST_F(NotificationRoad, ArrivalOfAKnownAdapterIsToldAgain)
{
    Lab(L"event MSNdis_NotifyAdapterArrival eth0");
    EXPECT_TRUE(WaitFor(enumEventAdapterAdd, kEthernet).has_value());
    EXPECT_EQ(std::ranges::count_if(ReadAdapterList(monitor),
                                    [](const AdapterRecord& adapter) { return adapter.deviceId == kEthernet; }),
              1);
}

TEST_F(NotificationRoad, DuplicateIsHandledTwiceAndALateOneLetsOthersPass)
{
    Lab(L"event MSNdis_StatusMediaDisconnect eth0 --copies 2");
    ASSERT_TRUE(WaitForMany(2, enumEventMediaDisconnect, kEthernet));
    Lab(L"event MSNdis_StatusMediaConnect wlan0 --delay 3000");
    Lab(L"event MSNdis_StatusMediaDisconnect wlan0");
    ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, kWiFi).has_value());
    EXPECT_EQ(Count(enumEventMediaConnect, kWiFi), 0);
    EXPECT_TRUE(WaitFor(enumEventMediaConnect, kWiFi).has_value());
}

TEST_F(NotificationRoad, RemovalWithoutAConfigurationObjectLeavesTheElementAndIsNotTold)
{
    Lab(L"adapter remove eth0 --vanish");
    HandleAllSoFar();
    EXPECT_EQ(Count(enumEventAdapterRemove, kEthernet), 0);
    EXPECT_TRUE(Adapter(kEthernet).has_value());
    EXPECT_TRUE(HostSupport::WaitForTrace(L"could not find WMI object for event MSNdis_NotifyAdapterRemoval"));
}

TEST_F(NotificationRoad, SecondRemovalIsIgnoredAndMakesNoElement)
{
    Lab(L"adapter remove eth0");
    ASSERT_TRUE(WaitFor(enumEventAdapterRemove, kEthernet).has_value());
    Lab(L"event MSNdis_NotifyAdapterRemoval eth0");
    HandleAllSoFar();
    EXPECT_EQ(Count(enumEventAdapterRemove, kEthernet), 1);
    EXPECT_FALSE(Adapter(kEthernet).has_value());
    EXPECT_TRUE(HostSupport::WaitForTrace(L"Ignoring WMI adapter removal event, the node has already been removed"));
}

TEST_F(NotificationRoad, MediaConnectOfAnUnknownAdapterBringsItInWithoutAnAddEvent)
{
    Lab(L"adapter remove wlan0");
    ASSERT_TRUE(WaitFor(enumEventAdapterRemove, kWiFi).has_value());
    Lab(L"set adapters.wlan0.present true"); // back without a word
    Lab(L"event MSNdis_StatusMediaConnect wlan0");
    ASSERT_TRUE(WaitFor(enumEventMediaConnect, kWiFi).has_value());
    EXPECT_EQ(Count(enumEventAdapterAdd, kWiFi), 0);
    const auto adapter = Adapter(kWiFi);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_EQ(adapter->description, L"Larkspur Wireless AX-7");
}

TEST_F(NotificationRoad, IgnoredAdapterCountsOnlyWhileItHasAnElement)
{
    Lab(L"event MSNdis_NotifyAdapterArrival tun0");
    HandleAllSoFar();
    EXPECT_EQ(EventsBesideMarkers(), 0u);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"could not find device element node for event MSNdis_NotifyAdapterArrival"));
    // The ignore list is asked after the lookup, and does not undo it.
    Lab(L"set adapters.eth0.service tunnel");
    Lab(L"event MSNdis_StatusMediaDisconnect eth0");
    EXPECT_TRUE(WaitFor(enumEventMediaDisconnect, kEthernet).has_value());
    EXPECT_TRUE(HostSupport::WaitForTrace(std::wstring(L"'") + kEthernet + L"' should be ignored ('tunnel')"));
}

TEST_F(NotificationRoad, BindAndUnbindAreNotTold)
{
    Lab(L"event MSNdis_StatusProtocolBind eth0");
    Lab(L"event MSNdis_StatusProtocolUnbind eth0");
    HandleAllSoFar();
    EXPECT_EQ(EventsBesideMarkers(), 0u);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"MSNdis_StatusProtocolBind notification was received"));
}

TEST_F(NotificationRoad, SixQueriesGoToOneSinkInTheirOrderAndOneCancelEndsThem)
{
    EXPECT_EQ(monitor->Close(), S_OK);
    Lab(L"journal --clear");
    EXPECT_EQ(monitor->Open(), S_OK);
    const std::string queries = Lab(L"journal --json --call IWbemServices::ExecNotificationQueryAsync");
    std::size_t place = 0;
    for (const char* name : {"NotifyAdapterArrival", "NotifyAdapterRemoval", "StatusMediaConnect",
                             "StatusMediaDisconnect", "StatusProtocolBind", "StatusProtocolUnbind"})
    {
        place = queries.find(std::string("select * from MSNdis_") + name, place);
        ASSERT_NE(place, std::string::npos) << name << "\n" << queries;
    }
    EXPECT_EQ(std::ranges::count(queries, '\n'), 6);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(Lab(L"journal --count --call IWbemServices::CancelAsyncCall").substr(0, 1), "1");
    EXPECT_TRUE(
        HostSupport::WaitForTrace(L"EventSink::SetStatus: current status WBEM_STATUS_COMPLETE (0x80041032)", 6));
    EXPECT_EQ(monitor->Open(), S_OK);
}
} // namespace
