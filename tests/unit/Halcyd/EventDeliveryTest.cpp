// The connection list and the firing of events, with sinks of this process.

#include <gtest/gtest.h>

#include <memory>

#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
class EventDelivery : public testing::Test
{
protected:
    ~EventDelivery() override { point->Release(); }

    DWORD Advise(TestSink& sink)
    {
        DWORD cookie = 0;
        EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
        return cookie;
    }
    void Fire(const wchar_t* id, const wchar_t* mac, _NOTIFICATION_EVENT event)
    {
        const UniqueBstr idText(id != nullptr ? SysAllocString(id) : nullptr);
        const UniqueBstr macText(mac != nullptr ? SysAllocString(mac) : nullptr);
        monitor->Fire_AdapterChange(idText.get(), macText.get(), event);
    }

    TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    IConnectionPoint* point = EventPoint(monitor.Get());
    TraceLines trace;
};

TEST_F(EventDelivery, AdviseAnswersBadSinks)
{
    DWORD cookie = 77;
    EXPECT_EQ(point->Advise(nullptr, &cookie), E_POINTER);
    EXPECT_EQ(cookie, 0u);
    TestSink sink;
    EXPECT_EQ(point->Advise(&sink, nullptr), E_POINTER);
    sink.offersEvents = false;
    EXPECT_EQ(point->Advise(&sink, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(point->Unadvise(0), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(point->Unadvise(1), CONNECT_E_NOCONNECTION);
    IID iid{};
    EXPECT_EQ(point->GetConnectionInterface(&iid), S_OK);
    EXPECT_TRUE(IsEqualIID(iid, DIID__INetMonSv));
    EXPECT_EQ(point->GetConnectionInterface(nullptr), E_POINTER);
}

TEST_F(EventDelivery, FifthSinkGetsCookieFiveAndAFreedSlotIsUsedAgain)
{
    TestSink sinks[6];
    for (DWORD number = 0; number < 5; ++number)
    {
        EXPECT_EQ(Advise(sinks[number]), number + 1);
    }
    EXPECT_EQ(point->Unadvise(2), S_OK);
    EXPECT_EQ(point->Unadvise(2), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(sinks[1].References(), 1); // nothing is kept of it
    EXPECT_EQ(Advise(sinks[5]), 2u);
    Fire(L"{1}", L"mac", enumEventMediaConnect);
    EXPECT_EQ(sinks[0].Events().size(), 1u);
    EXPECT_EQ(sinks[1].Events().size(), 0u);
    EXPECT_EQ(sinks[4].Events().size(), 1u);
    EXPECT_EQ(sinks[5].Events().size(), 1u);
    EXPECT_EQ(point->Unadvise(9), CONNECT_E_NOCONNECTION);
    for (const DWORD cookie : {1u, 2u, 3u, 4u, 5u})
    {
        EXPECT_EQ(point->Unadvise(cookie), S_OK);
    }
}

TEST_F(EventDelivery, SinksLeftBehindAreReleasedWithTheMonitor)
{
    TestSink sink;
    {
        const TestObject<TestMonitor> other = MakeTestObject<TestMonitor>();
        IConnectionPoint* const otherPoint = EventPoint(other.Get());
        DWORD cookie = 0;
        EXPECT_EQ(otherPoint->Advise(&sink, &cookie), S_OK);
        otherPoint->Release();
        EXPECT_GT(sink.References(), 1);
    }
    EXPECT_EQ(sink.References(), 1);
}

TEST_F(EventDelivery, ArgumentsAreBstrBstrAndInt)
{
    TestSink sink;
    const DWORD cookie = Advise(sink);
    Fire(L"{1}", L"02:00", enumEventAdapterAdd);
    Fire(nullptr, nullptr, enumEventIpChange);
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].deviceId, L"{1}");
    EXPECT_EQ(events[0].secondType, VT_BSTR);
    EXPECT_EQ(events[0].adjacentMac, L"02:00");
    EXPECT_EQ(events[0].eventType, VT_INT);
    EXPECT_EQ(events[0].event, 1);
    EXPECT_EQ(events[1].deviceId, std::nullopt);
    EXPECT_EQ(events[1].secondType, VT_BSTR);
    EXPECT_EQ(events[1].adjacentMac, std::nullopt);
    EXPECT_TRUE(trace.Has(L"EVENT: Fire_AdapterChange '{1}' '02:00' 'enumEventAdapterAdd (1)'"));
    EXPECT_TRUE(trace.Has(L"EVENT: Fire_AdapterChange 'Null' 'Null' 'enumEventIpChange (7)'"));
    point->Unadvise(cookie);
}

TEST_F(EventDelivery, BindingResultsTravelAsANumberInTheMacsPlace)
{
    TestSink sink;
    const DWORD cookie = Advise(sink);
    _bstr_t kept(L"{K}");
    monitor->Fire_AdapterChange(kept.GetBSTR(), static_cast<HRESULT>(0x8004A024), enumEventIpBindingsDisabled);
    monitor->Fire_AdapterChange(nullptr, S_OK, enumEventIpBindingsRestored);
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].secondType, VT_I4);
    EXPECT_EQ(events[0].number, static_cast<long>(0x8004A024));
    EXPECT_EQ(events[1].deviceId, std::nullopt);
    EXPECT_EQ(events[1].secondType, VT_I4);
    EXPECT_EQ(events[1].number, 0);
    EXPECT_TRUE(trace.Has(L"EVENT: Fire_AdapterChange '{K}' '0x8004a024' 'enumEventIpBindingsDisabled (9)'"));
    point->Unadvise(cookie);
}

TEST_F(EventDelivery, FailingSinkIsKeptAndTheNextOneServed)
{
    TestSink failing;
    TestSink refusing;
    TestSink good;
    failing.invokeResult = E_FAIL;
    refusing.resultCode = E_ACCESSDENIED;
    const DWORD cookies[] = {Advise(failing), Advise(refusing), Advise(good)};
    Fire(L"{1}", L"", enumEventMediaDisconnect);
    Fire(L"{1}", L"", enumEventMediaConnect);
    EXPECT_EQ(failing.Events().size(), 2u);
    EXPECT_EQ(refusing.Events().size(), 2u);
    EXPECT_EQ(good.Events().size(), 2u);
    EXPECT_EQ(trace.Count(L"Fire_AdapterChange failed 0x80004005"), 2);
    EXPECT_EQ(trace.Count(L"Fire_AdapterChange failed 0x0"), 2); // Invoke itself went well
    for (const DWORD cookie : cookies)
    {
        point->Unadvise(cookie);
    }
}

TEST_F(EventDelivery, SinkWithoutDispatchIsPassedOverInSilence)
{
    TestSink mute;
    TestSink good;
    const DWORD cookies[] = {Advise(mute), Advise(good)};
    mute.offersDispatch = false;
    Fire(L"{1}", L"", enumEventMediaConnect);
    EXPECT_TRUE(mute.Events().empty());
    EXPECT_EQ(good.Events().size(), 1u);
    EXPECT_FALSE(trace.Has(L"Fire_AdapterChange failed"));
    for (const DWORD cookie : cookies)
    {
        point->Unadvise(cookie);
    }
}

TEST_F(EventDelivery, WithoutSinksFiringWritesItsLine)
{
    Fire(L"{1}", L"", enumEventMediaConnect);
    EXPECT_TRUE(trace.Has(L"EVENT: Fire_AdapterChange '{1}' '' 'enumEventMediaConnect (3)'"));
}

TEST_F(EventDelivery, SinkThatConnectsInsideACallIsNotToldOfThatEvent)
{
    // Four slots exist after the first Advise; the fifth sink, connected inside the call, makes new ones.
    TestSink sinks[5];
    std::vector<DWORD> cookies;
    for (int number = 0; number < 4; ++number)
    {
        cookies.push_back(Advise(sinks[number]));
    }
    sinks[0].onEvent = [&](const ToldEvent&)
    {
        if (cookies.size() == 4)
        {
            cookies.push_back(Advise(sinks[4]));
        }
    };
    Fire(L"{1}", L"", enumEventMediaConnect);
    EXPECT_TRUE(sinks[4].Events().empty());
    Fire(L"{1}", L"", enumEventMediaConnect);
    EXPECT_EQ(sinks[4].Events().size(), 1u);
    for (const DWORD cookie : cookies)
    {
        point->Unadvise(cookie);
    }
}

TEST_F(EventDelivery, DeferredEventsKeepTheirOrderAndEmptyTextsStayEmpty)
{
    TestSink sink;
    const DWORD cookie = Advise(sink);
    std::list<FireAdapterChangeEventData> events;
    events.emplace_back(L"{1}", nullptr, enumEventMediaDisconnect);
    events.emplace_back(L"{2}", L"02", enumEventMediaConnect);
    events.emplace_back(nullptr, L"", enumEventAdapterRemove);
    monitor->Fire(events);
    const auto told = sink.Events();
    ASSERT_EQ(told.size(), 3u);
    EXPECT_EQ(told[0].deviceId, L"{1}");
    EXPECT_EQ(told[0].adjacentMac, L""); // an empty BSTR, not a null one
    EXPECT_EQ(told[1].adjacentMac, L"02");
    EXPECT_EQ(told[2].deviceId, L"");
    point->Unadvise(cookie);
}

TEST_F(EventDelivery, QueuedEventsTurnEmptyTextsIntoNull)
{
    TestSink sink;
    const DWORD cookie = Advise(sink);
    monitor->FireEventAsync(AsyncEventContext(enumEventWiFiAddedSSIDs));
    const auto told = sink.Events();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].deviceId, std::nullopt);
    EXPECT_EQ(told[0].adjacentMac, std::nullopt);
    EXPECT_EQ(told[0].event, 11);
    point->Unadvise(cookie);
}

TEST_F(EventDelivery, AdjacentMacFollowsTheKind)
{
    _ETHERNET_ADAPTER ethernet{};
    const UniqueBstr gateway(SysAllocString(L"gateway"));
    ethernet.GatewayMacAddress = gateway.get();
    _DEVICE_ELEMENT element{};
    element.AdapterType = enumEthernet;
    EXPECT_EQ(GetAdjacentMac(&element), nullptr);
    element.u.pEthernetAdapter = &ethernet;
    EXPECT_STREQ(GetAdjacentMac(&element), L"gateway");
    element.AdapterType = enumWiFi;
    EXPECT_STREQ(GetAdjacentMac(&element), L"gateway"); // the two fields share a place
    element.AdapterType = enumBluetooth;
    EXPECT_EQ(GetAdjacentMac(&element), nullptr);
}
} // namespace
