// The list of connected sinks: what the Global Interface Table has to do with it, its enumeration, and queued events.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "Halcyd/ComPointer.h"
#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
class ConnectionList : public testing::Test
{
protected:
    static DWORD Advise(IConnectionPoint* point, TestSink& sink)
    {
        DWORD cookie = 0;
        EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
        return cookie;
    }

    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    ComPointer<IConnectionPoint> point{EventPoint(monitor.Get()), false};
    TraceLines trace;
};

TEST_F(ConnectionList, EnumerationGivesTheSinksWithTheirCookiesAndReferences)
{
    TestSink sinks[3];
    for (TestSink& sink : sinks)
    {
        Advise(point, sink);
    }
    EXPECT_EQ(point->Unadvise(2), S_OK);
    EXPECT_EQ(point->EnumConnections(nullptr), E_POINTER);
    ComPointer<IEnumConnections> connections;
    ASSERT_EQ(point->EnumConnections(&connections), S_OK);
    CONNECTDATA data[3] = {};
    ULONG fetched = 0;
    const long before = sinks[0].References();
    EXPECT_EQ(connections->Next(3, data, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(data[0].dwCookie, 1u);
    EXPECT_EQ(data[1].dwCookie, 3u);
    EXPECT_EQ(data[1].pUnk, static_cast<IUnknown*>(&sinks[2]));
    EXPECT_EQ(sinks[0].References(), before + 1);
    data[0].pUnk->Release();
    data[1].pUnk->Release();
    connections = nullptr;
    point->Unadvise(1);
    point->Unadvise(3);
    for (const TestSink& sink : sinks)
    {
        EXPECT_EQ(sink.References(), 1);
    }
}

TEST_F(ConnectionList, PointLeadsToItsContainer)
{
    ComPointer<IConnectionPointContainer> container;
    EXPECT_EQ(point->GetConnectionPointContainer(&container), S_OK);
    EXPECT_EQ(container.GetInterfacePtr(), static_cast<IConnectionPointContainer*>(monitor.Get()));
}

TEST_F(ConnectionList, SinksFailureToGiveItsEventsIsPassedOn)
{
    class BrokenSink : public TestSink
    {
    public:
        HRESULT QueryInterface(REFIID, void** out) override
        {
            *out = nullptr;
            return E_OUTOFMEMORY;
        }
    } broken;
    DWORD cookie = 77;
    EXPECT_EQ(point->Advise(&broken, &cookie), E_OUTOFMEMORY);
    EXPECT_EQ(cookie, 0u);
}

TEST_F(ConnectionList, SinkThatThereIsNoSlotForIsRefusedAndReleased)
{
    TestSink sinks[5];
    for (int number = 0; number < 4; ++number)
    {
        Advise(point, sinks[number]);
    }
    DWORD cookie = 77;
    HRESULT result = S_OK;
    {
        const NoMemoryAfter shortage(0);
        result = point->Advise(&sinks[4], &cookie);
    }
    EXPECT_EQ(result, CONNECT_E_ADVISELIMIT);
    EXPECT_EQ(cookie, 0u);
    EXPECT_EQ(sinks[4].References(), 1);
    monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    EXPECT_EQ(sinks[3].Events().size(), 1u); // the others are as they were
    EXPECT_EQ(Advise(point, sinks[4]), 5u);
    for (DWORD number = 1; number <= 5; ++number)
    {
        EXPECT_EQ(point->Unadvise(number), S_OK);
    }
}

TEST_F(ConnectionList, SlotsDoubleAndTheSinkBehindTheTablesEndGetsNoEvents)
{
    constexpr DWORD count = 262;
    const auto sinks = std::make_unique<TestSink[]>(count);
    for (DWORD number = 0; number < count; ++number)
    {
        EXPECT_EQ(Advise(point, sinks[number]), number + 1);
    }
    monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    EXPECT_EQ(sinks[0].Events().size(), 1u);
    EXPECT_EQ(sinks[259].Events().size(), 1u);
    EXPECT_EQ(sinks[260].Events().size(), 0u);
    EXPECT_EQ(sinks[261].Events().size(), 0u);
    for (DWORD number = 0; number < count; ++number)
    {
        EXPECT_EQ(point->Unadvise(number + 1), S_OK);
        EXPECT_EQ(sinks[number].References(), 1);
    }
}

// The interface table of a process in which it refuses what the test says.
class StubbornTable final : public IGlobalInterfaceTable
{
public:
    HRESULT registerResult = S_OK;
    HRESULT getResult = S_OK;
    std::vector<DWORD> revoked;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        *out = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(IGlobalInterfaceTable)) ? this : nullptr;
        return *out != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE RegisterInterfaceInGlobal(IUnknown* object, REFIID iid, DWORD* cookie) override
    {
        EXPECT_TRUE(IsEqualIID(iid, DIID__INetMonSv));
        if (FAILED(registerResult))
        {
            return registerResult;
        }
        objects.push_back(object);
        *cookie = static_cast<DWORD>(objects.size()) + 100;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RevokeInterfaceFromGlobal(DWORD cookie) override
    {
        revoked.push_back(cookie);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetInterfaceFromGlobal(DWORD cookie, REFIID iid, void** out) override
    {
        EXPECT_TRUE(IsEqualIID(iid, DIID__INetMonSv));
        *out = nullptr;
        return FAILED(getResult) ? getResult : objects[cookie - 101]->QueryInterface(iid, out);
    }

private:
    std::vector<IUnknown*> objects;
};

class InterfaceTable : public testing::Test
{
protected:
    InterfaceTable()
    {
        CoCreateInstanceHook::Replace(
            [this](REFCLSID classId, IUnknown* outer, DWORD context, REFIID iid, void** out) -> HRESULT
            {
                if (!IsEqualCLSID(classId, CLSID_StdGlobalInterfaceTable))
                {
                    return CoCreateInstanceHook::Real(classId, outer, context, iid, out);
                }
                EXPECT_EQ(context, static_cast<DWORD>(CLSCTX_INPROC_SERVER));
                *out = nullptr;
                return FAILED(createResult) ? createResult : table.QueryInterface(iid, out);
            });
    }
    void Fire(CNetMonSv& monitor)
    {
        monitor.Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    }

    HookScope hooks;
    HRESULT createResult = S_OK;
    StubbornTable table;
    TraceLines trace;
};

TEST_F(InterfaceTable, WithoutOneSinksAreKeptAndGetNoEvents)
{
    createResult = REGDB_E_CLASSNOTREG;
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    EXPECT_TRUE(trace.Has(L"CreateInstance Global Interface Table failed"));
    const ComPointer<IConnectionPoint> point(EventPoint(monitor.Get()), false);
    TestSink sink;
    DWORD cookie = 0;
    EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
    EXPECT_EQ(cookie, 1u);
    Fire(*monitor.Get());
    EXPECT_TRUE(sink.Events().empty());
    EXPECT_EQ(point->Unadvise(1), S_OK);
    EXPECT_EQ(sink.References(), 1);
}

TEST_F(InterfaceTable, SinkThatItDoesNotTakeKeepsItsSlotAndGetsNoEvents)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    const ComPointer<IConnectionPoint> point(EventPoint(monitor.Get()), false);
    TestSink refused;
    TestSink taken;
    DWORD cookie = 0;
    table.registerResult = E_OUTOFMEMORY;
    EXPECT_EQ(point->Advise(&refused, &cookie), S_OK);
    EXPECT_EQ(cookie, 1u);
    table.registerResult = S_OK;
    EXPECT_EQ(point->Advise(&taken, &cookie), S_OK);
    EXPECT_EQ(cookie, 2u);
    Fire(*monitor.Get());
    EXPECT_TRUE(refused.Events().empty());
    EXPECT_EQ(taken.Events().size(), 1u);
    EXPECT_EQ(point->Unadvise(1), S_OK);
    EXPECT_TRUE(table.revoked.empty()); // there was nothing to revoke
    EXPECT_EQ(point->Unadvise(2), S_OK);
    EXPECT_EQ(table.revoked, std::vector<DWORD>{101});
}

TEST_F(InterfaceTable, SinkThatItDoesNotGiveIsPassedOverAndAskedForAgain)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    const ComPointer<IConnectionPoint> point(EventPoint(monitor.Get()), false);
    TestSink sink;
    DWORD cookie = 0;
    EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
    table.getResult = static_cast<HRESULT>(RPC_E_DISCONNECTED);
    Fire(*monitor.Get());
    EXPECT_TRUE(sink.Events().empty());
    table.getResult = S_OK;
    Fire(*monitor.Get());
    EXPECT_EQ(sink.Events().size(), 1u);
    EXPECT_EQ(point->Unadvise(cookie), S_OK);
}

// --- firing ---

TEST_F(ConnectionList, NoLockIsHeldDuringASinksCall)
{
    TestSink sink;
    const DWORD cookie = Advise(point, sink);
    bool advised = false;
    bool listed = false;
    sink.onEvent = [&](const ToldEvent&)
    {
        // Another thread, since the locks may be taken twice by one.
        std::thread(
            [&]
            {
                TestSink other;
                DWORD second = 0;
                advised = point->Advise(&other, &second) == S_OK && point->Unadvise(second) == S_OK;
                _DEVICE_ELEMENT* list = nullptr;
                listed = monitor->GetDeviceInfoList(&list) == S_OK;
            })
            .join();
    };
    monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    EXPECT_TRUE(advised);
    EXPECT_TRUE(listed);
    point->Unadvise(cookie);
}

TEST_F(ConnectionList, FilterMaskFiltersNothing)
{
    TestSink sink;
    const DWORD cookie = Advise(point, sink);
    for (const long mask : {0L, -1L, 1L, 0x40000000L})
    {
        EXPECT_EQ(monitor->put_FilterMask(mask), S_OK);
        long read = ~mask;
        EXPECT_EQ(monitor->get_FilterMask(&read), S_OK);
        EXPECT_EQ(read, mask);
        monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    }
    EXPECT_EQ(sink.Events().size(), 4u);
    point->Unadvise(cookie);
}

TEST_F(ConnectionList, FiringReturnsTheCodeOfTheLastResult)
{
    TestSink sinks[2];
    const DWORD cookies[] = {Advise(point, sinks[0]), Advise(point, sinks[1])};
    sinks[0].resultCode = E_ACCESSDENIED;
    EXPECT_EQ(monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange), 0);
    sinks[1].resultCode = 5;
    EXPECT_EQ(monitor->Fire_AdapterChange(nullptr, S_OK, enumEventIpBindingsRestored), 5);
    for (const DWORD cookie : cookies)
    {
        point->Unadvise(cookie);
    }
}

TEST_F(ConnectionList, ResultOfATypeThatASinkMadeUpHarmsNobody)
{
    class OddSink : public TestSink
    {
    public:
        HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT* result, EXCEPINFO*, UINT*) override
        {
            result->vt = 0x0FFF;
            return S_OK;
        }
    } odd;
    TestSink good;
    const DWORD cookies[] = {Advise(point, odd), Advise(point, good)};
    monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    monitor->Fire_AdapterChange(nullptr, static_cast<BSTR>(nullptr), enumEventIpChange);
    EXPECT_EQ(good.Events().size(), 2u);
    for (const DWORD cookie : cookies)
    {
        point->Unadvise(cookie);
    }
}

TEST_F(ConnectionList, QueuedEventCarriesWhatTheElementHadWhenItWasQueued)
{
    TestSink sink;
    const DWORD cookie = Advise(point, sink);
    _WIFI_ADAPTER extension{};
    const UniqueBstr mac(SysAllocString(L"02:00"));
    extension.BssidMacAddress = mac.get();
    _DEVICE_ELEMENT* const element = monitor->Add(L"{W}");
    element->AdapterType = enumWiFi;
    element->u.pWiFiAdapter = &extension;
    const AsyncEventContext context(element, enumEventWiFiSignalStrength);
    element->u.pWiFiAdapter = nullptr;
    monitor->Remove(element);
    monitor->FireEventAsync(context);
    const auto told = sink.Events();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].deviceId, L"{W}");
    EXPECT_EQ(told[0].adjacentMac, L"02:00");
    EXPECT_EQ(told[0].event, enumEventWiFiSignalStrength);
    point->Unadvise(cookie);
}

TEST_F(ConnectionList, QueuedEventIsFiredInSpiteOfAnApartmentThatCannotBeHad)
{
    const HookScope hooks;
    TestSink sink;
    const DWORD cookie = Advise(point, sink);
    const auto fireWith = [&](HRESULT apartment)
    {
        TraceLines::Clear();
        CoInitializeExHook::Replace([apartment](LPVOID, DWORD) { return apartment; });
        monitor->FireEventAsync(AsyncEventContext(enumEventWiFiAddedSSIDs));
        CoInitializeExHook::replacement = nullptr;
        return trace.Has(L"Com initialization failed");
    };
    EXPECT_FALSE(fireWith(RPC_E_CHANGED_MODE));
    EXPECT_TRUE(fireWith(E_OUTOFMEMORY));
    EXPECT_EQ(sink.Events().size(), 2u);
    EXPECT_TRUE(trace.Has(L"EVENT: Fire_AdapterChange 'Null' 'Null' 'enumEventWiFiAddedSSIDs (11)'"));
    point->Unadvise(cookie);
}
} // namespace
