// Media changes and the wait for a gateway in their steps, with what each failure leaves.

#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/NotificationsFixture.h"

namespace
{
constexpr wchar_t forcing[] =
    L"after updating the device it was marked as disconnected on media connect, forcing NdisMediaStateConnected";
constexpr wchar_t forcingDisconnected[] =
    L"after updating the device it was marked as connected on media disconnect, NdisMediaStateDisconnected";
constexpr wchar_t notReady[] = L"received a media disconnect for a device that is not ready or been removed";
constexpr wchar_t polling[] = L"WaitForIpDefaultGateway: no current default gateway, waiting...";

class MediaSteps : public NotificationsFixture
{
protected:
    // What the driver says: 0 is connected.
    void SetDriverStatus(std::uint32_t status) { miniports.adapters[id].Set(OID_GEN_MEDIA_CONNECT_STATUS, status); }

    std::list<FireAdapterChangeEventData> events;
};

// --- disconnect ---

TEST_F(MediaSteps, DisconnectOfADisconnectedElementSaysNothingMoreAndIsTold)
{
    Notify(arrival);
    monitor->Head()->ConnectStatus = 1;
    SetDriverStatus(1);
    TraceLines::Clear();
    Notify(mediaDisconnect);
    EXPECT_FALSE(trace.Has(forcing));
    EXPECT_FALSE(trace.Has(forcingDisconnected));
    EXPECT_FALSE(trace.Has(notReady));
    EXPECT_EQ(Told(), (std::vector<int>{1, 4}));
}

TEST_F(MediaSteps, DisconnectOfAConnectedElementSpeaksOfAConnectBeforeTheUpdate)
{
    Notify(arrival);
    SetDriverStatus(1);
    TraceLines::Clear();
    Notify(mediaDisconnect);
    EXPECT_EQ(trace.Count(forcing), 1);
    EXPECT_FALSE(trace.Has(forcingDisconnected)); // the update agrees
    EXPECT_EQ(monitor->Head()->ConnectStatus, 1);
}

TEST_F(MediaSteps, DisconnectOfAnElementThatIsNotReadyIsSaidAndHandledAllTheSame)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    configuration[L"MACAddress"] = WmiNull();
    monitor->ProcessDeviceDisconnectedEvent(element, MakeObject(configuration), events);
    EXPECT_EQ(FirstMissingInOrder({notReady, forcing}), L"");
    EXPECT_FALSE(trace.Has(forcingDisconnected)); // the driver of such a one is not asked
    EXPECT_EQ(element->ConnectStatus, 1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events.front().deviceId, id);
    EXPECT_EQ(events.front().adjacentMac, L"");
    EXPECT_EQ(events.front().event, static_cast<std::uint32_t>(enumEventMediaDisconnect));
    EXPECT_TRUE(Told().empty()); // the caller fires, behind its lock
}

// --- connect ---

TEST_F(MediaSteps, ConnectWinsBeforeTheUpdateAndBehindIt)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    element->ConnectStatus = 1;
    SetDriverStatus(1);
    monitor->StartPool();
    monitor->ProcessDeviceConnectedEvent(element, MakeObject(configuration), events);
    EXPECT_EQ(trace.Count(forcing), 2);
    EXPECT_TRUE(events.empty()); // a wired one waits on the pool
}

TEST_F(MediaSteps, ConnectOfAConnectedElementSaysNothing)
{
    Notify(arrival);
    monitor->StartPool();
    TraceLines::Clear();
    Notify(mediaConnect);
    EXPECT_FALSE(trace.Has(forcing));
    ASSERT_TRUE(sink.WaitForCount(2));
    EXPECT_EQ(Told(), (std::vector<int>{1, 3}));
}

TEST_F(MediaSteps, ConnectThatThePoolRefusesIsLostAndTheElementIsConnected)
{
    _DEVICE_ELEMENT* const element = monitor->Add(id, L"Brevik Ethernet");
    element->ConnectStatus = 1;
    monitor->ProcessDeviceConnectedEvent(element, MakeObject(configuration), events); // the pool does not run
    EXPECT_EQ(trace.Count(L"Failed to start thread to wait for default gateway"), 1);
    {
        const NothrowNewFails shortage(sizeof(NetUtilities::WorkItemMember1<CNetMonSv, WAIT_FOR_DCHP_EVENT>));
        monitor->StartPool();
        monitor->ProcessDeviceConnectedEvent(element, MakeObject(configuration), events);
        ASSERT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_EQ(trace.Count(L"Failed to start thread to wait for default gateway"), 2);
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(Told().empty());
}

TEST_F(MediaSteps, ConnectOfAWiFiAdapterIsAppendedAndFiredBehindTheLock)
{
    miniports.adapters[id].Set(OID_GEN_PHYSICAL_MEDIUM, 9u);
    bool listWasFree = false;
    sink.onEvent = [&](const ToldEvent&) { listWasFree = monitor->IsListFree(); };
    Notify(mediaConnect);
    EXPECT_EQ(FirstMissingInOrder({
                  L"not waiting for IP configuration for 802.11 adapters",
                  L"firing media connect on a wifi adapter",
                  L"CNetMonSv::ProcessNotificationEvent:   Unlock <<== deviceInfoListMutex",
                  L"EVENT: Fire_AdapterChange ",
              }),
              L"");
    EXPECT_EQ(Told(), (std::vector<int>{3}));
    EXPECT_TRUE(listWasFree);
}

// --- the thread that waits ---

TEST_F(MediaSteps, WaitEndsWithItsEventWithoutALockInHand)
{
    Notify(arrival);
    bool listWasFree = false;
    sink.onEvent = [&](const ToldEvent&) { listWasFree = monitor->IsListFree(); };
    TraceLines::Clear();
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_EQ(FirstMissingInOrder({
                  std::wstring(L"WaitForIpDefaultGateway: device name is ") + id,
                  L"WaitForIpDefaultGateway: current default gateway: 192.0.2.1",
                  L"got default GW",
                  L"WaitForDefaultGatewayThread: firing media connect event from WaitForDefaultGatewayThread",
                  L"EVENT: Fire_AdapterChange ",
                  L"WaitForDefaultGatewayThread: exiting thread",
              }),
              L"");
    EXPECT_EQ(Told(), (std::vector<int>{1, 3}));
    ASSERT_NE(monitor->Head()->u.pEthernetAdapter, nullptr);
    EXPECT_EQ(sink.Events().back().adjacentMac.value_or(L""),
              TextOrEmpty(monitor->Head()->u.pEthernetAdapter->GatewayMacAddress));
    EXPECT_TRUE(listWasFree);
}

TEST_F(MediaSteps, ContextWithoutAnObjectIsRefused)
{
    monitor->Add(id);
    monitor->WaitForDefaultGatewayThread({id, IWbemClassObjectPtr()});
    EXPECT_TRUE(trace.Has(L"WaitForDefaultGatewayThread: Invalid argument"));
    EXPECT_FALSE(trace.Has(L"WaitForDefaultGatewayThread: exiting thread"));
    EXPECT_TRUE(Told().empty());
}

TEST_F(MediaSteps, ThreadWithoutComGoesOn)
{
    monitor->Add(id);
    CoInitializeExHook::Replace([](LPVOID, DWORD) -> HRESULT { return E_OUTOFMEMORY; });
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_TRUE(trace.Has(L"WaitForDefaultGatewayThread: COM initialization failed Error 2147942414 (0x8007000e)"));
    EXPECT_EQ(Told(), (std::vector<int>{3}));
}

TEST_F(MediaSteps, ElementIsLookedUpByTheExactIdAndTheFirstCounts)
{
    monitor->Add(nullptr);
    monitor->Add(L"{4a1c7e07-3b52-4d0f-9e61-0c5d8a2b7007}");
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_TRUE(Told().empty());
    EXPECT_EQ(FirstMissingInOrder({L"WaitForDefaultGatewayThread: NOT firing media connect event from "
                                   L"WaitForDefaultGatewayThread",
                                   L"WaitForDefaultGatewayThread: exiting thread"}),
              L"");
    _DEVICE_ELEMENT* const first = monitor->Add(id);
    _DEVICE_ELEMENT* const second = monitor->Add(id);
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_EQ(Told(), (std::vector<int>{3}));
    EXPECT_EQ(first->DeviceStatus, -1);
    EXPECT_EQ(second->DeviceStatus, 0);
    EXPECT_TRUE(trace.Has(L"WaitForDefaultGatewayThread: just got a connect event on a device that is not ready "
                          L"(forcing it to be ready)"));
}

TEST_F(MediaSteps, GatewayThatComesWithAPollIsSeenInTheNewestObject)
{
    Notify(arrival);
    configuration[L"DefaultIPGateway"] = WmiNull();
    const IWbemClassObjectPtr old = MakeObject(configuration);
    clock.OnSleep(
        [this]
        {
            if (clock.Now() == 1500)
            {
                configuration[L"DefaultIPGateway"] = TextArray({L"192.0.2.1", L"2001:db8::1"});
                configuration[L"Index"] = 4711L;
            }
        });
    TraceLines::Clear();
    monitor->WaitForDefaultGatewayThread({id, old});
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(3, 500));
    EXPECT_EQ(trace.Count(polling), 3);
    EXPECT_TRUE(trace.Has(L"WaitForIpDefaultGateway: current default gateway: 192.0.2.1,2001:db8::1"));
    EXPECT_EQ(monitor->Head()->DeviceIndex, 4711);
    EXPECT_EQ(static_cast<FakeClassObject*>(old.GetInterfacePtr())->References(), 1);
}

TEST_F(MediaSteps, CloseDuringTheWaitEndsItAtTheNextAttempt)
{
    Notify(arrival);
    configuration[L"DefaultIPGateway"] = WmiNull();
    clock.OnSleep(
        [this]
        {
            if (clock.Now() == 1500)
            {
                monitor->wmiCleanupEvent.Set();
            }
        });
    monitor->WaitForDefaultGatewayThread({id, MakeObject(configuration)});
    EXPECT_EQ(clock.Sleeps().size(), 3u);
    EXPECT_EQ(FirstMissingInOrder(
                  {L"WaitForIpDefaultGateway: cancel WaitForIpDefaultGateway because we are shutting WMI down",
                   L"did not get default GW", L"the WMI cleanup has started--exiting DHCP wait thread"}),
              L"");
    EXPECT_EQ(Told(), (std::vector<int>{1}));
    EXPECT_FALSE(trace.Has(L"WaitForDefaultGatewayThread: exiting thread"));
}

// --- the wait itself ---

TEST_F(MediaSteps, ObjectWithoutASettingIdIsNotWaitedFor)
{
    for (const bool null : {true, false})
    {
        TraceLines::Clear();
        configuration.erase(L"SettingID");
        if (null)
        {
            configuration[L"SettingID"] = WmiNull();
        }
        const IWbemClassObjectPtr kept = MakeObject(configuration);
        IWbemClassObject* object = kept;
        EXPECT_EQ(monitor->WaitForIpDefaultGateway(&object, 20), 0);
        EXPECT_TRUE(trace.Has(L"WaitForIpDefaultGateway: device name is invalid"));
        EXPECT_EQ(object, kept.GetInterfacePtr());
        EXPECT_TRUE(clock.Sleeps().empty());
    }
}

TEST_F(MediaSteps, OnlyAnArrayOfTextsHasGateways)
{
    const _variant_t notGateways[] = {_variant_t(L"192.0.2.1"), WmiNull(), TextArray({}), _variant_t(7L)};
    for (const _variant_t& value : notGateways)
    {
        configuration[L"DefaultIPGateway"] = value;
        IWbemClassObject* object = MakeObject(configuration).Detach();
        const std::size_t sleptBefore = clock.Sleeps().size();
        EXPECT_EQ(monitor->WaitForIpDefaultGateway(&object, 2), 0) << value.vt;
        EXPECT_EQ(clock.Sleeps().size(), sleptBefore + 2) << value.vt;
        ASSERT_NE(object, nullptr);
        object->Release();
    }
    EXPECT_FALSE(trace.Has(L"WaitForIpDefaultGateway: current default gateway: "));
}

TEST_F(MediaSteps, FetchThatFindsNothingLeavesNoObjectAndUsesTheAttemptsUpWithoutAPause)
{
    configuration[L"DefaultIPGateway"] = WmiNull();
    IWbemClassObject* object = MakeObject(configuration).Detach();
    configuration.clear();
    EXPECT_EQ(monitor->WaitForIpDefaultGateway(&object, 20), 0);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(1, 500));
    EXPECT_EQ(trace.Count(polling), 1);
}
} // namespace
