// The road of a notification step by step: subscriptions, sink, queue and thread, and the decision about the adapter
// with its account in the trace.

#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/NotificationsFixture.h"

namespace
{
using NotificationSteps = NotificationsFixture;

// --- subscriptions ---

TEST_F(NotificationSteps, EachQueryIsAnnouncedMadeAndConfirmedBeforeTheNext)
{
    const std::vector<std::wstring> queries{
        L"select * from MSNdis_NotifyAdapterArrival", L"select * from MSNdis_NotifyAdapterRemoval",
        L"select * from MSNdis_StatusMediaConnect",   L"select * from MSNdis_StatusMediaDisconnect",
        L"select * from MSNdis_StatusProtocolBind",   L"select * from MSNdis_StatusProtocolUnbind",
    };
    FakeWmiNamespace& wmi = monitor->UseWmi();
    EXPECT_EQ(monitor->RegisterForNotifications(), S_OK);
    EXPECT_EQ(wmi.notificationQueries, queries);
    EXPECT_EQ(wmi.queryFlags, std::vector<long>(6, 128));
    std::vector<std::wstring> lines;
    for (const std::wstring& query : queries)
    {
        lines.insert(lines.end(),
                     {L"at top of loop register for notification", L"ExecNotificationQueryAsync '" + query + L"'",
                      L"registered for " + query + L" with sync"});
    }
    EXPECT_EQ(FirstMissingInOrder(lines), L"");
}

TEST_F(NotificationSteps, FailedSubscriptionIsNamedAndTheEarlierOnesStay)
{
    FakeWmiNamespace& wmi = monitor->UseWmi();
    wmi.failNotificationQuery = 3;
    EXPECT_EQ(monitor->RegisterForNotifications(), static_cast<HRESULT>(WBEM_E_FAILED));
    EXPECT_TRUE(trace.Has(L"Error failed to register for select * from MSNdis_StatusMediaConnect"));
    EXPECT_EQ(trace.Count(L"registered for "), 2);
    EXPECT_EQ(wmi.notificationQueries.size(), 3u);
    EXPECT_TRUE(wmi.cancelled.empty());
}

TEST_F(NotificationSteps, WithoutAConnectionNothingIsSubscribedTo)
{
    EXPECT_EQ(monitor->RegisterForNotifications(), E_INVALIDARG);
    EXPECT_TRUE(trace.Has(L"Error not connected to namespace"));
    EXPECT_FALSE(trace.Has(L"at top of loop register for notification"));
}

TEST_F(NotificationSteps, SubscriptionWithoutItsTwoStringsIsShortOfMemoryAndTheLastOne)
{
    FakeWmiNamespace& wmi = monitor->UseWmi();
    // Two strings for each of the six queries: the language and the query.
    for (long strings = 0; strings < 12; ++strings)
    {
        TraceLines::Clear();
        wmi.notificationQueries.clear();
        HRESULT result = S_OK;
        {
            const NoStringAfter shortage(strings);
            result = monitor->RegisterForNotifications();
        }
        EXPECT_EQ(result, E_OUTOFMEMORY) << strings;
        EXPECT_EQ(trace.Count(L"Error OUT OF MEMORY"), 1) << strings;
        EXPECT_EQ(wmi.notificationQueries.size(), static_cast<std::size_t>(strings / 2));
        EXPECT_EQ(trace.Count(L"at top of loop register for notification"), strings / 2 + 1);
        EXPECT_TRUE(wmi.cancelled.empty()) << strings;
    }
    const NoStringAfter justEnough(12);
    EXPECT_EQ(monitor->RegisterForNotifications(), S_OK);
}

// --- sink, queue and thread ---

// An open monitor on a WMI without adapters; the tests speak as WMI does, through the sink that was subscribed.
class NotificationPipeline : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(monitor->Open(), S_OK);
        ASSERT_EQ(wmi.At(0).notificationSinks.size(), 6u);
        wmiSink = wmi.At(0).notificationSinks.front();
        wmiSink->AddRef();
    }
    void TearDown() override
    {
        EXPECT_EQ(monitor->Close(), S_OK);
        if (wmiSink != nullptr)
        {
            EXPECT_EQ(wmiSink->Release(), 0u);
        }
    }
    // A notification that finds nothing, and says so with its class.
    static IWbemClassObjectPtr EventOf(const wchar_t* eventClass) { return MakeObject({{L"__CLASS", eventClass}}); }
    HRESULT Indicate(const std::vector<IWbemClassObjectPtr>& events)
    {
        std::vector<IWbemClassObject*> objects;
        for (const IWbemClassObjectPtr& event : events)
        {
            objects.push_back(event.GetInterfacePtr());
        }
        return wmiSink->Indicate(static_cast<long>(objects.size()), objects.data());
    }
    static long References(const IWbemClassObjectPtr& event)
    {
        return static_cast<FakeClassObject*>(event.GetInterfacePtr())->References();
    }

    HookScope hooks;
    MiniportScope miniports;
    WmiScope wmi;
    TraceLines trace;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    IWbemObjectSink* wmiSink = nullptr;
};

TEST_F(NotificationPipeline, AllSubscriptionsGoToTheOneSink)
{
    for (IWbemObjectSink* const each : wmi.At(0).notificationSinks)
    {
        EXPECT_EQ(static_cast<IUnknown*>(each), monitor->Sink());
    }
}

TEST_F(NotificationPipeline, OpenAloneDropsEveryNotification)
{
    const IWbemClassObjectPtr event = EventOf(L"first");
    EXPECT_EQ(Indicate({event, event}), S_OK);
    EXPECT_EQ(FirstMissingInOrder({L"no processing handler for object 0", L"no processing handler for object 1",
                                   L"processed indication"}),
              L"");
    EXPECT_FALSE(trace.Has(L"queued wmi event "));
    EXPECT_EQ(References(event), 1);
}

TEST_F(NotificationPipeline, EventsAreHandledInTheirOrderAndGivenBack)
{
    const IWbemClassObjectPtr first = EventOf(L"first");
    const IWbemClassObjectPtr second = EventOf(L"second");
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    EXPECT_TRUE(trace.Has(L"saving pointer to this instance to the sync (0x"));
    EXPECT_EQ(Indicate({first, second}), S_OK);
    EXPECT_EQ(FirstMissingInOrder({L"processing object 0", L"queued wmi event 0x", L"processing object 1",
                                   L"queued wmi event 0x", L"processed indication"}),
              L"");
    EXPECT_EQ(monitor->Close(), S_OK); // behind everything that is queued
    EXPECT_EQ(FirstMissingInOrder({L"processing wmi event queue", L"processing wmi event queue item 0x",
                                   L"MOF SYNTAX:\ninstance of FakeObject {};",
                                   L"could not find WMI object for event first", L"processing wmi event queue item 0x",
                                   L"could not find WMI object for event second", L"done processing wmi event queue",
                                   L"time to end the ProcessWmiEventsThreadableMember thread"}),
              L"");
    EXPECT_TRUE(trace.Has(L"thread to process wlan events has been terminated"));
    EXPECT_EQ(References(first), 1);
    EXPECT_EQ(References(second), 1);
}

TEST_F(NotificationPipeline, StopOfTheProcessingDropsWhatComesAndHandlesWhatIsQueued)
{
    const IWbemClassObjectPtr queued = EventOf(L"queued");
    const IWbemClassObjectPtr late = EventOf(L"late");
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    EXPECT_EQ(Indicate({queued}), S_OK);
    EXPECT_EQ(monitor->StopNotificationProcessing(), S_OK);
    EXPECT_TRUE(trace.Has(L"setting the class instance for processing in the sync to NULL"));
    EXPECT_EQ(Indicate({late}), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(trace.Has(L"could not find WMI object for event queued"));
    EXPECT_FALSE(trace.Has(L"could not find WMI object for event late"));
}

TEST_F(NotificationPipeline, EventBehindTheEndOfTheThreadIsDroppedByTheNextStartWithItsReferenceLost)
{
    const IWbemClassObjectPtr late = EventOf(L"late");
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(Indicate({late}), S_OK); // the sink's pointer is cleared by a client only
    EXPECT_TRUE(trace.Has(L"queued wmi event 0x"));
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_FALSE(trace.Has(L"could not find WMI object for event late"));
    EXPECT_EQ(References(late), 2);
    static_cast<FakeClassObject*>(late.GetInterfacePtr())->Release(); // the lost one
}

TEST_F(NotificationPipeline, ProcessingCanBeSwitchedOnAClosedMonitor)
{
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    EXPECT_EQ(monitor->StopNotificationProcessing(), S_OK);
}

TEST_F(NotificationPipeline, EachStatusHasItsNameAndIsAnsweredWithZero)
{
    EXPECT_EQ(wmiSink->SetStatus(1, WBEM_S_NO_ERROR, nullptr, nullptr), S_OK);
    EXPECT_TRUE(trace.Has(L"EventSink::SetStatus: current status WBEM_STATUS_REQUIREMENTS (0x0)"));
    EXPECT_EQ(wmiSink->SetStatus(2, static_cast<HRESULT>(0x80041032), nullptr, nullptr), S_OK);
    EXPECT_TRUE(trace.Has(L"EventSink::SetStatus: current status WBEM_STATUS_PROGRESS (0x80041032)"));
}

TEST_F(NotificationSteps, WithoutItsEventsThereIsNoThread)
{
    for (int nth = 1; nth <= 2; ++nth)
    {
        TraceLines::Clear();
        PlatformHooks::FailCall("CreateEventW", nth, ERROR_NOT_ENOUGH_MEMORY);
        monitor->StartWmiEventMonitorThread();
        EXPECT_TRUE(trace.Has(L"Could not create events")) << nth;
        EXPECT_FALSE(trace.Has(L"Creating thread to process wmi events")) << nth;
        EXPECT_EQ(monitor->WmiEventThread, nullptr) << nth;
        monitor->StopWmiEventMonitorThread();
    }
    monitor->StartWmiEventMonitorThread();
    EXPECT_TRUE(trace.Has(L"Creating thread to process wmi events"));
    monitor->StopWmiEventMonitorThread();
}

// --- the decision ---

TEST_F(NotificationSteps, ArrivalOfANewAdapterIsToldStepByStep)
{
    Notify(arrival);
    EXPECT_EQ(FirstMissingInOrder({
                  L"CNetMonSv::ProcessNotificationEvent:     Lock ==>> deviceInfoListMutex",
                  L"Enter ==> CNetMonSv::TraceMofSyntax pid ",
                  L"MOF SYNTAX:\ninstance of FakeObject {};",
                  L"Error could not get notification InstanceName source",
                  L"WMI network event with a 'SettingID' (",
                  L"Enter ==> CNetMonSv::TraceWmiObject pid ",
                  L"Description  = Brevik Ethernet",
                  std::wstring(L"'") + id + L"' looks like a real adapter ('brv')",
                  std::wstring(L"no node for '") + id + L"'",
                  L"create a new entry in our device info list for this new adapter",
                  L"'' is the node for the notification",
                  L"MSNdis_NotifyAdapterArrival for ",
                  L"ProcessNotificationEvent: updating the target node for '' because of an "
                  L"MSNdis_NotifyAdapterArrival event",
                  L"ProcessNotificationEvent: firing adapter add event",
                  L"CNetMonSv::ProcessNotificationEvent:   Unlock <<== deviceInfoListMutex",
                  L"EVENT: Fire_AdapterChange ",
              }),
              L"");
    EXPECT_FALSE(trace.Has(L"not waiting for IP configuration for 802.11 adapters"));
}

TEST_F(NotificationSteps, RemovalIsToldStepByStepWithoutALockInHand)
{
    Notify(arrival);
    bool listWasFree = false;
    sink.onEvent = [&](const ToldEvent&) { listWasFree = monitor->IsListFree(); };
    TraceLines::Clear();
    Notify(removal);
    EXPECT_EQ(FirstMissingInOrder({
                  L"'Brevik Ethernet' is the node for the notification",
                  L"MSNdis_NotifyAdapterRemoval for Brevik Ethernet",
                  L"Remove node '",
                  L"firing adapter removed event",
                  L"CNetMonSv::ProcessNotificationEvent:   Unlock <<== deviceInfoListMutex",
                  L"EVENT: Fire_AdapterChange '" + std::wstring(id) + L"' '' 'enumEventAdapterRemove (2)'",
              }),
              L"");
    EXPECT_TRUE(listWasFree);
    EXPECT_EQ(sink.Events().back().adjacentMac, L""); // empty, not null
}

TEST_F(NotificationSteps, RemovalReadsTheAdapterOnceMoreBeforeTheElementGoes)
{
    // An element that has a name and no id yet: the last reading gives it the one that the client is told.
    monitor->Add(nullptr, L"Brevik Ethernet");
    Notify(removal, nullptr, L"Brevik Ethernet");
    EXPECT_EQ(FirstMissingInOrder({
                  L"MSNdis_NotifyAdapterRemoval for Brevik Ethernet",
                  L"Enter ==> CNetMonSv::UpdateNodeFromNetworkAdapterObject pid ",
                  L"Remove node '",
                  L"firing adapter removed event",
              }),
              L"");
    EXPECT_EQ(monitor->Head(), nullptr);
    ASSERT_EQ(Told(), (std::vector<int>{2}));
    EXPECT_EQ(sink.Events().back().deviceId, id);
}

TEST_F(NotificationSteps, ArrivalOfAKnownAdapterReadsItAnew)
{
    Notify(arrival);
    _DEVICE_ELEMENT* const element = monitor->Head();
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(element->DeviceIndex, 7);
    EXPECT_STREQ(element->Caption, L"[00000007] Brevik Ethernet");
    configuration[L"Index"] = 11L;
    configuration[L"Caption"] = L"[00000011] Brevik Ethernet";
    Notify(arrival);
    EXPECT_EQ(monitor->Head(), element);
    EXPECT_EQ(element->pNext, nullptr);
    EXPECT_EQ(element->DeviceIndex, 11);
    EXPECT_STREQ(element->Caption, L"[00000011] Brevik Ethernet");
    EXPECT_EQ(Told(), (std::vector<int>{1, 1}));
}

TEST_F(NotificationSteps, ArrivalOfAKnownWiFiAdapterSaysThatItDoesNotWait)
{
    miniports.adapters[id].Set(OID_GEN_PHYSICAL_MEDIUM, 9u);
    Notify(arrival);
    TraceLines::Clear();
    Notify(arrival);
    EXPECT_EQ(
        FirstMissingInOrder({L"MSNdis_NotifyAdapterArrival for Brevik Ethernet",
                             L"not waiting for IP configuration for 802.11 adapters",
                             L"ProcessNotificationEvent: updating the target node for 'Brevik Ethernet' because"}),
        L"");
}

TEST_F(NotificationSteps, ElementIsFoundThroughTheSettingIdInAnyLetterCase)
{
    constexpr wchar_t otherCase[] = L"{4a1c7e07-3b52-4d0f-9e61-0c5d8a2b7007}";
    monitor->Add(nullptr); // an element without an id is passed over
    _DEVICE_ELEMENT* const element = monitor->Add(otherCase);
    Notify(mediaDisconnect, nullptr, L"Brevik Ethernet #2");
    EXPECT_EQ(FirstMissingInOrder({
                  L"WMI network event with a 'InstanceName' (",
                  std::wstring(L"no node for '") + id + L"'",
                  std::wstring(L"checking '") + id + L"' against '" + otherCase + L"'",
                  std::wstring(L"the node '") + otherCase + L"' matches",
                  L"the description for the node is a NULL pointer, the node will be updated",
                  L"ProcessNotificationEvent: MSNdis_StatusMediaDisconnect for ",
              }),
              L"");
    EXPECT_EQ(trace.Count(L"checking '{4A1C7E07"), 1);
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_EQ(sink.Events().back().deviceId, otherCase); // an id is set once
    TraceLines::Clear();
    Notify(mediaDisconnect, nullptr, L"Brevik Ethernet #2");
    EXPECT_TRUE(trace.Has(L"the node that this WMI event corresponds to is 'Brevik Ethernet'"));
}

TEST_F(NotificationSteps, ElementWithoutAWmiObjectIsLeftAlone)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    configuration.clear();
    Notify(mediaDisconnect);
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_TRUE(Told().empty());
    EXPECT_FALSE(trace.Has(L"could not find device element node for event "));
    EXPECT_EQ(trace.Count(L"could not find WMI object for event MSNdis_StatusMediaDisconnect"), 1);
    EXPECT_FALSE(trace.Has(L"Description  = "));
}

TEST_F(NotificationSteps, EventWhoseClassCannotBeReadDoesNothing)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    const std::wstring path = std::wstring(L"\\DEVICE\\") + id;
    EXPECT_EQ(monitor->ProcessNotificationEvent(MakeObject({{L"DeviceName", path.c_str()}})), S_OK);
    EXPECT_TRUE(trace.Has(L"Error could not get notification _CLASS source"));
    EXPECT_TRUE(trace.Has(L"'Brevik Ethernet' is the node for the notification"));
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_TRUE(Told().empty());
}

TEST_F(NotificationSteps, ClassIsComparedExactly)
{
    monitor->Add(id, L"Brevik Ethernet");
    Notify(L"msndis_statusmediadisconnect");
    EXPECT_TRUE(Told().empty());
}

TEST_F(NotificationSteps, NullNamesCountAsNone)
{
    EXPECT_EQ(monitor->ProcessNotificationEvent(
                  MakeObject({{L"__CLASS", mediaConnect}, {L"DeviceName", WmiNull()}, {L"InstanceName", WmiNull()}})),
              S_OK);
    EXPECT_TRUE(trace.Has(L"WMI network event without 'SettingID' or 'InstanceName'"));
    EXPECT_FALSE(trace.Has(L"Error could not get notification DeviceName source"));
}

// --- what is told of the objects ---

TEST_F(NotificationSteps, WmiObjectIsToldInSixLinesOfWhichTheLastTwoAreYesOrNo)
{
    monitor->TraceWmiObject(MakeObject({{L"Description", L"Card"},
                                        {L"Caption", L"[1] Card"},
                                        {L"ServiceName", L"crd"},
                                        {L"SettingID", id},
                                        {L"IPEnabled", _variant_t(true)},
                                        {L"MACAddress", L"02:00:5E:00:53:07"}}));
    EXPECT_EQ(
        FirstMissingInOrder({L"Description  = Card", L"Caption      = [1] Card", L"ServiceName  = crd",
                             std::wstring(L"GUID         = ") + id, L"IP Enabled   = True", L"MAC Address  = True"}),
        L"");
    monitor->TraceWmiObject(MakeObject({{L"IPEnabled", _variant_t(false)}, {L"MACAddress", WmiNull()}}));
    EXPECT_EQ(FirstMissingInOrder({L"IP Enabled   = False", L"MAC Address  = False"}), L"");
    TraceLines::Clear();
    monitor->TraceWmiObject(nullptr);
    EXPECT_FALSE(trace.Has(L"Description  = "));
}

TEST_F(NotificationSteps, ObjectWithoutATextIsSaidToHaveNone)
{
    auto* const object = new FakeClassObject;
    const IWbemClassObjectPtr owner(object);
    object->textResult = E_OUTOFMEMORY;
    monitor->TraceMofSyntax(object);
    EXPECT_TRUE(trace.Has(L"(could not get MOF syntax)"));
}

// --- the searches in WMI ---

TEST_F(NotificationSteps, SearchByDeviceIdAsksForTheGuidAndTakesTheFirstOfSeveral)
{
    const IWbemClassObjectPtr first = MakeObject(configuration);
    const IWbemClassObjectPtr second = MakeObject(configuration);
    FakeWmiNamespace& wmi = monitor->UseCimv2();
    wmi.answer = [&](const std::wstring&, ObjectList& objects)
    {
        objects = {first, second};
        return S_OK;
    };
    const std::wstring path = std::wstring(L"\\DEVICE\\") + id;
    const IWbemClassObjectPtr found(monitor->GetWmiObjInstanceByDeviceId(path.c_str()), false);
    EXPECT_EQ(found.GetInterfacePtr(), first.GetInterfacePtr());
    ASSERT_EQ(wmi.queries.size(), 1u);
    EXPECT_EQ(wmi.queries[0],
              std::wstring(L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID='") + id + L"'");
    EXPECT_EQ(wmi.queryFlags[0], WBEM_FLAG_FORWARD_ONLY);
    EXPECT_EQ(FirstMissingInOrder({L"pTargetObject = 0x", L"there is more than one match for: "}), L"");
    EXPECT_EQ(static_cast<FakeClassObject*>(second.GetInterfacePtr())->References(), 1);
}

TEST_F(NotificationSteps, SearchByNameGoesThroughTheDescriptionsAndThenTheCaptions)
{
    configuration[L"Description"] = L"Another name";
    const IWbemClassObjectPtr found(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet #2"), false);
    EXPECT_NE(found, nullptr);
    EXPECT_EQ(FirstMissingInOrder({
                  L"checking the WMI database Descriptions for 'Brevik Ethernet #2'",
                  L"checking the 'Description' property",
                  L"checking if 'Another name' is a match 'Brevik Ethernet #2'",
                  L"ran out of matches before finding a good one",
                  L"checking the 'Caption' property",
                  L"checking if 'Brevik Ethernet' is a match 'Brevik Ethernet #2'",
                  L"found a match",
                  L"device object: ",
                  L"MAC Address  = 02:00:5E:00:53:07",
                  L"not checking anymore WMI properties",
              }),
              L"");
}

TEST_F(NotificationSteps, SearchByNameMindsTheLetterCaseAndNeedsAText)
{
    configuration[L"Description"] = L"brevik ethernet";
    configuration[L"Caption"] = L"[00000007] BREVIK ETHERNET";
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    configuration[L"Description"] = WmiNull();
    configuration.erase(L"Caption");
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    EXPECT_FALSE(trace.Has(L"found a match"));
    EXPECT_FALSE(trace.Has(L"not checking anymore WMI properties"));
}

TEST_F(NotificationSteps, SearchByNameThatFailsOrFindsNothingEndsOnePropertysTurn)
{
    configuration.clear();
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    EXPECT_EQ(trace.Count(L"there was a problem with the query (no results): SELECT * FROM "
                          L"Win32_NetworkAdapterConfiguration (0x000001)"),
              2);
    EXPECT_FALSE(trace.Has(L"ran out of matches before finding a good one"));
    queryResult = static_cast<HRESULT>(WBEM_E_FAILED);
    EXPECT_EQ(monitor->GetWmiObjInstanceByInstanceName(L"Brevik Ethernet"), nullptr);
    EXPECT_EQ(trace.Count(L"could not execute the query SELECT * FROM Win32_NetworkAdapterConfiguration (0x80041001)"),
              2);
}
} // namespace
