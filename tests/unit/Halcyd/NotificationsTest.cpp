// Notifications of WMI, media changes and address changes, against a machine of values.

#include "tests/unit/Halcyd/NotificationsFixture.h"

namespace
{
using Notifications = NotificationsFixture;

TEST_F(Notifications, ArrivalMakesAnElementAndKnownOneIsToldAgain)
{
    Notify(arrival);
    ASSERT_NE(monitor->Head(), nullptr);
    EXPECT_STREQ(monitor->Head()->DeviceId, id);
    Notify(arrival);
    EXPECT_EQ(monitor->Head()->pNext, nullptr);
    EXPECT_EQ(Told(), (std::vector<int>{1, 1}));
    EXPECT_EQ(sink.Events()[0].deviceId, id);
}

TEST_F(Notifications, RemovalTakesTheElementOutAndSavesItsId)
{
    Notify(arrival);
    Notify(removal);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(Told(), (std::vector<int>{1, 2}));
    EXPECT_EQ(sink.Events()[1].deviceId, id);
    EXPECT_EQ(sink.Events()[1].adjacentMac, L"");
}

TEST_F(Notifications, RemovalOfAnUnknownAdapterIsIgnored)
{
    Notify(removal);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_TRUE(Told().empty());
    EXPECT_TRUE(trace.Has(L"Ignoring WMI adapter removal event, the node has already been removed"));
}

TEST_F(Notifications, RemovalWithoutAWmiObjectLeavesTheElement)
{
    Notify(arrival);
    configuration.clear();
    Notify(removal);
    EXPECT_NE(monitor->Head(), nullptr);
    EXPECT_EQ(Told(), (std::vector<int>{1}));
    EXPECT_TRUE(trace.Has(L"could not find WMI object for event MSNdis_NotifyAdapterRemoval"));
}

TEST_F(Notifications, EventWithoutNamesFindsNothing)
{
    Notify(mediaConnect, nullptr);
    EXPECT_TRUE(trace.Has(L"WMI network event without 'SettingID' or 'InstanceName'"));
    EXPECT_TRUE(trace.Has(L"could not find device element node for event MSNdis_StatusMediaConnect"));
    EXPECT_TRUE(trace.Has(L"could not find WMI object for event MSNdis_StatusMediaConnect"));
    EXPECT_TRUE(trace.Has(L"Error could not get notification DeviceName source"));
}

TEST_F(Notifications, IgnoredServiceWithoutAnElementEndsThere)
{
    configuration[L"ServiceName"] = L"tunnel";
    Notify(arrival);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_TRUE(trace.Has(std::wstring(L"'") + id + L"' should be ignored ('tunnel')"));
    EXPECT_TRUE(trace.Has(L"could not find device element node for event MSNdis_NotifyAdapterArrival"));
}

TEST_F(Notifications, IgnoredServiceWithAnElementIsActedOn)
{
    monitor->Add(id, L"Brevik Ethernet");
    configuration[L"ServiceName"] = L"tunnel";
    Notify(arrival);
    EXPECT_EQ(Told(), (std::vector<int>{1}));
}

TEST_F(Notifications, VirtualAdapterIsRefused)
{
    RegistryKey key;
    ASSERT_EQ(key.Open(HKEY_LOCAL_MACHINE, classKey, KEY_WRITE), 0u);
    ASSERT_EQ(key.WriteDword(L"Characteristics", 0x85), 0u);
    Notify(arrival);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_TRUE(trace.Has(std::wstring(L"'") + id + L"' is marked as virtual/invalid ('brv')"));
    ASSERT_EQ(key.DeleteValue(L"Characteristics"), 0u);
    EXPECT_EQ(monitor->IsValidAdapter(id), 0);
    EXPECT_EQ(monitor->IsValidAdapter(L"{4a1c7e07-3B52-4D0F-9E61-0C5D8A2B7007}"), 0); // another letter case is no match
    EXPECT_EQ(monitor->IsValidAdapter(L""), 0);
    EXPECT_TRUE(trace.Has(L"passed in a empty string for the GUID"));
}

TEST_F(Notifications, InstanceNameWithASuffixIsFoundThroughTheSettingId)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    Notify(mediaDisconnect, nullptr, L"Brevik Ethernet #2");
    EXPECT_TRUE(trace.Has(std::wstring(L"the node '") + id + L"' matches"));
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_EQ(Told(), (std::vector<int>{4}));
}

TEST_F(Notifications, InstanceNameMatchNeedsADriverAndAMac)
{
    EXPECT_NE(IWbemClassObjectPtr(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), false), nullptr);
    configuration[L"MACAddress"] = WmiNull();
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    EXPECT_TRUE(trace.Has(L"that match did not have a MAC address"));
    miniports.adapters.clear();
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    EXPECT_TRUE(trace.Has(L"that match did not have a driver we could open"));
}

TEST_F(Notifications, DeviceIdLookupAnswersBadText)
{
    EXPECT_EQ(monitor->GetWmiObjInstanceByDeviceId(nullptr), nullptr);
    EXPECT_EQ(monitor->GetWmiObjInstanceByDeviceId(L""), nullptr);
    EXPECT_EQ(trace.Count(L"GetWmiObjInstanceByDeviceId: Invalid device ID (setting ID)"), 2);
    EXPECT_EQ(monitor->GetWmiObjInstanceByDeviceId(L"no brace"), nullptr); // the whole text is asked for
    EXPECT_TRUE(trace.Has(L"there was a problem with the query (no results): SELECT * FROM "
                          L"Win32_NetworkAdapterConfiguration WHERE SettingID='no brace' (0x000001)"));
    queryResult = static_cast<HRESULT>(WBEM_E_FAILED);
    EXPECT_EQ(monitor->GetWmiObjInstanceByDeviceId(id), nullptr);
    EXPECT_TRUE(trace.Has(L"could not execute the query"));
}

TEST_F(Notifications, BindAndUnknownClassesAreNotToldToClients)
{
    monitor->Add(id, L"Brevik Ethernet");
    Notify(L"MSNdis_StatusProtocolBind");
    Notify(L"MSNdis_StatusProtocolUnbind");
    EXPECT_TRUE(Told().empty());
    EXPECT_TRUE(trace.Has(L"MSNdis_StatusProtocolBind notification was received"));
}

TEST_F(Notifications, SixSubscriptionsInOrderEndAtTheFirstFailure)
{
    EXPECT_EQ(monitor->RegisterForNotifications(), E_INVALIDARG);
    FakeWmiNamespace& wmi = monitor->UseWmi();
    EXPECT_EQ(monitor->RegisterForNotifications(), S_OK);
    ASSERT_EQ(wmi.notificationQueries.size(), 6u);
    EXPECT_EQ(wmi.notificationQueries.front(), L"select * from MSNdis_NotifyAdapterArrival");
    EXPECT_EQ(wmi.notificationQueries.back(), L"select * from MSNdis_StatusProtocolUnbind");
    EXPECT_EQ(wmi.queryFlags.front(), WBEM_FLAG_SEND_STATUS);
    wmi.notificationQueries.clear();
    wmi.failNotificationQuery = 3;
    EXPECT_EQ(monitor->RegisterForNotifications(), static_cast<HRESULT>(WBEM_E_FAILED));
    EXPECT_EQ(wmi.notificationQueries.size(), 3u);
}

// --- media ---

TEST_F(Notifications, DisconnectWinsOverADriverThatLags)
{
    Notify(arrival);
    Notify(mediaDisconnect);
    EXPECT_EQ(monitor->Head()->ConnectStatus, 1); // the driver still says connected
    EXPECT_TRUE(trace.Has(
        L"after updating the device it was marked as connected on media disconnect, NdisMediaStateDisconnected"));
    EXPECT_EQ(Told(), (std::vector<int>{1, 4}));
    EXPECT_EQ(sink.Events()[1].adjacentMac, L"");
}

TEST_F(Notifications, WiFiConnectIsToldAtOnce)
{
    miniports.adapters[id].Set(OID_GEN_PHYSICAL_MEDIUM, 9u);
    miniports.adapters[id].Set(OID_GEN_MEDIA_CONNECT_STATUS, 1u);
    Notify(mediaConnect); // enough to bring the adapter into the list, without an add event
    ASSERT_NE(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Head()->ConnectStatus, 0);
    EXPECT_EQ(Told(), (std::vector<int>{3}));
    EXPECT_TRUE(trace.Has(L"firing media connect on a wifi adapter"));
}

TEST_F(Notifications, WiredConnectWithAGatewayIsToldWithoutASleep)
{
    monitor->StartPool();
    Notify(mediaConnect);
    ASSERT_TRUE(sink.WaitForCount(1));
    EXPECT_EQ(Told(), (std::vector<int>{3}));
    EXPECT_EQ(sink.Events()[0].deviceId, id);
    EXPECT_TRUE(clock.Sleeps().empty());
    EXPECT_TRUE(trace.Has(L"WaitForIpDefaultGateway: current default gateway: 192.0.2.1"));
}

TEST_F(Notifications, WiredConnectWithoutAGatewayIsToldAfterTwentyPolls)
{
    configuration[L"DefaultIPGateway"] = WmiNull();
    monitor->StartPool();
    Notify(mediaConnect);
    ASSERT_TRUE(sink.WaitForCount(1));
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(20, 500));
    EXPECT_TRUE(trace.Has(L"did not get default GW"));
}

TEST_F(Notifications, EmptyGatewayEntryCountsAsAGateway)
{
    configuration[L"DefaultIPGateway"] = TextArray({L""});
    IWbemClassObject* object = MakeObject(configuration).Detach();
    EXPECT_EQ(monitor->WaitForIpDefaultGateway(&object, 20), 1);
    EXPECT_TRUE(clock.Sleeps().empty());
    object->Release();
}

TEST_F(Notifications, FailedFetchUsesUpTheAttemptsAndTheEventStillGoes)
{
    configuration[L"DefaultIPGateway"] = WmiNull();
    Notify(arrival);
    monitor->Head()->DeviceIndex = 4711; // what an update would overwrite
    WAIT_FOR_DCHP_EVENT context{id, MakeObject(configuration)};
    configuration.clear();
    monitor->WaitForDefaultGatewayThread(context);
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(1, 500));
    EXPECT_EQ(monitor->Head()->DeviceIndex, 4711);
    EXPECT_EQ(Told(), (std::vector<int>{1, 3}));
}

TEST_F(Notifications, AdapterThatLeftDuringTheWaitIsNotTold)
{
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_TRUE(Told().empty());
    EXPECT_TRUE(trace.Has(L"WaitForDefaultGatewayThread: NOT firing media connect event"));
}

TEST_F(Notifications, CleanupEndsTheWaitWithoutAnEvent)
{
    configuration[L"DefaultIPGateway"] = WmiNull();
    Notify(arrival);
    monitor->wmiCleanupEvent.Set();
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_EQ(Told(), (std::vector<int>{1}));
    EXPECT_TRUE(clock.Sleeps().empty());
    EXPECT_TRUE(trace.Has(L"the WMI cleanup has started--exiting DHCP wait thread"));
    monitor->wmiCleanupEvent.Reset();
}

TEST_F(Notifications, ConnectOnAnElementThatIsNotReadyForcesItReady)
{
    monitor->Add(id, L"Brevik Ethernet");
    configuration[L"MACAddress"] = WmiNull();
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_EQ(monitor->Head()->DeviceStatus, -1);
    EXPECT_EQ(Told(), (std::vector<int>{3}));
}

TEST_F(Notifications, FailedCloneLosesTheConnect)
{
    monitor->StartPool();
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    element->ConnectStatus = 1;
    auto* const object = new FakeClassObject;
    const IWbemClassObjectPtr owner(object);
    object->values = configuration;
    object->cloneResult = E_OUTOFMEMORY;
    std::list<FireAdapterChangeEventData> events;
    monitor->ProcessDeviceConnectedEvent(element, object, events);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_TRUE(trace.Has(L"Error clone failed!"));
    monitor->ProcessDeviceConnectedEvent(nullptr, object, events);
    monitor->ProcessDeviceDisconnectedEvent(element, nullptr, events);
    EXPECT_EQ(trace.Count(L"Invalid parameters"), 2);
}

// --- addresses ---

TEST_F(Notifications, OneChangeGivesOneEventThatNamesNoNode)
{
    Notify(arrival);
    monitor->NetMonHandleUnicastIpChangeEventImpl();
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].event, enumEventIpChange);
    EXPECT_EQ(events[1].deviceId, L"no node");
    EXPECT_EQ(events[1].adjacentMac, std::nullopt);
    EXPECT_TRUE(trace.Has(L"updating 'Brevik Ethernet' because of unicast IP change event"));
}

TEST_F(Notifications, ChangesDuringAnUpdateBecomeOneMore)
{
    ASSERT_TRUE(monitor->ipChangeWorkItemQueue.Start());
    for (int change = 0; change < 10; ++change)
    {
        monitor->NetMonHandleUnicastIpChangeEvent();
    }
    EXPECT_TRUE(monitor->ipChangeQueued);
    EXPECT_TRUE(monitor->ipChangePending);
    ASSERT_TRUE(sink.WaitForCount(2));
    EXPECT_TRUE(monitor->ipChangeWorkItemQueue.StopAfterDrain(20000, nullptr));
    EXPECT_EQ(Told(), (std::vector<int>{7, 7}));
    EXPECT_FALSE(monitor->ipChangeQueued);
    EXPECT_FALSE(monitor->ipChangePending);
    EXPECT_EQ(trace.Count(L"Set IP change event pending and return"), 9);
}

TEST_F(Notifications, ClosingEndsTheWalkTheEventAndTheSpacing)
{
    Notify(arrival);
    monitor->wmiCleanupEvent.Set();
    monitor->ipChangeQueued = true;
    monitor->NetMonHandleUnicastIpChangeEventImpl();
    EXPECT_EQ(Told(), (std::vector<int>{1}));
    EXPECT_TRUE(monitor->ipChangeQueued); // left as it is
    EXPECT_TRUE(trace.Has(L"WMI Cleanup event set, exiting early from handle UnicastIPChange"));
    monitor->wmiCleanupEvent.Reset();
}

// --- the object ---

TEST_F(Notifications, SinkDropsEventsUntilProcessingIsSwitchedOn)
{
    EventSink* const wmiSink = new EventSink;
    wmiSink->AddRef();
    const IWbemClassObjectPtr object = MakeObject({{L"__CLASS", arrival}});
    IWbemClassObject* objects[] = {object};
    EXPECT_EQ(wmiSink->Indicate(1, objects), S_OK);
    EXPECT_TRUE(trace.Has(L"no processing handler for object 0"));
    EXPECT_EQ(wmiSink->SetProcessingInstance(monitor.Get()), S_OK);
    monitor->StartWmiEventMonitorThread();
    EXPECT_EQ(wmiSink->Indicate(1, objects), S_OK);
    EXPECT_TRUE(trace.Has(L"processing object 0"));
    monitor->StopWmiEventMonitorThread();
    EXPECT_EQ(wmiSink->SetStatus(0, S_OK, nullptr, nullptr), S_OK);
    EXPECT_TRUE(trace.Has(L"EventSink::SetStatus: current status WBEM_STATUS_COMPLETE (0x0)"));
    EXPECT_EQ(wmiSink->SetStatus(9, E_FAIL, nullptr, nullptr), S_OK);
    EXPECT_TRUE(trace.Has(L"EventSink::SetStatus: current status unknown (0x80004005)"));
    void* other = &other;
    EXPECT_EQ(wmiSink->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(wmiSink->Release(), 0u);
}

TEST_F(Notifications, CloseWithoutOpenAndIsOpenWithNull)
{
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(trace.Has(L"closed called without a previous open"));
    EXPECT_EQ(monitor->IsOpen(nullptr), E_POINTER);
    VARIANT_BOOL open = VARIANT_TRUE;
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_FALSE);
    EXPECT_EQ(monitor->get_FilterMask(nullptr), E_POINTER);
}
} // namespace
