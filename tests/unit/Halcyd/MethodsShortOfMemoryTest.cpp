// COM methods on a thread that runs out of memory at each point of them in turn: the caller gets a result, no lock
// stays taken, and the next call works.

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "Halcyd/ComPointer.h"
#include "Halcyd/EventSink.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/SimpleSink.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
// The results of calls that get no block, one block, two blocks and so on, up to the first that has all it wants.
template <class Call>
std::vector<HRESULT> ResultsOfShortages(const Call& call)
{
    static_cast<void>(call()); // what is made once is made
    std::vector<HRESULT> results;
    for (bool enough = false; !enough;)
    {
        HRESULT result = E_FAIL;
        {
            const NoMemoryAfter shortage(static_cast<long>(results.size()));
            result = call();
            enough = !NoMemoryAfter::Happened();
        }
        results.push_back(result);
    }
    return results;
}

template <class Mutex>
bool IsFree(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS
{
    bool taken = false;
    std::thread(
        [&]() NO_THREAD_SAFETY_ANALYSIS
        {
            taken = mutex.TryLock();
            if (taken)
            {
                mutex.Unlock();
            }
        })
        .join();
    return taken;
}

class MethodsShortOfMemory : public testing::Test
{
protected:
    template <class Call>
    void ExpectGuarded(const char* name, HRESULT usual, const Call& call)
    {
        const std::vector<HRESULT> results = ResultsOfShortages(call);
        EXPECT_EQ(results.front(), E_OUTOFMEMORY) << name;
        EXPECT_EQ(results.back(), usual) << name;
        EXPECT_TRUE(std::all_of(results.begin(), results.end(),
                                [&](HRESULT result) { return result == E_OUTOFMEMORY || result == usual; }))
            << name;
    }

    TraceLines trace;
};

TEST_F(MethodsShortOfMemory, OfTheMonitorSaySoAndLeaveItsLocksFree)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    monitor->Add(L"{W}")->AdapterType = enumWiFi;
    VARIANT_BOOL open = VARIANT_FALSE;
    long mask = 0;
    ExpectGuarded("Close", S_OK, [&] { return monitor->Close(); });
    ExpectGuarded("IsOpen", S_OK, [&] { return monitor->IsOpen(&open); });
    ExpectGuarded("get_FilterMask", S_OK, [&] { return monitor->get_FilterMask(&mask); });
    ExpectGuarded("put_FilterMask", S_OK, [&] { return monitor->put_FilterMask(7); });
    ExpectGuarded("StartNotificationProcessing", S_OK, [&] { return monitor->StartNotificationProcessing(); });
    ExpectGuarded("StopNotificationProcessing", S_OK, [&] { return monitor->StopNotificationProcessing(); });
    ExpectGuarded("WiFiSurvey", S_OK, [&] { return monitor->WiFiSurvey(); });
    ExpectGuarded("ResetSsidList", S_OK, [&] { return monitor->ResetSsidList(); });
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, 7);
    EXPECT_TRUE(IsFree(monitor->ListMutex()));
    EXPECT_TRUE(IsFree(monitor->OpenCloseMutex()));
}

TEST_F(MethodsShortOfMemory, CloseThatDoesNotGetToItsEndDoesNotCountAndMayBeMadeAgain)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    VARIANT_BOOL open = VARIANT_FALSE;
    HRESULT result = E_OUTOFMEMORY;
    monitor->PretendOpen(1);
    monitor->timerQueue = CreateTimerQueue();
    monitor->Add(L"{1}")->AdapterType = enumBluetooth;
    monitor->Add(L"{2}");
    for (long room = 0; result == E_OUTOFMEMORY; ++room)
    {
        ASSERT_EQ(monitor->Users(), 1u) << room;
        ASSERT_EQ(monitor->IsOpen(&open), S_OK);
        ASSERT_EQ(open, VARIANT_TRUE) << room;
        const NoMemoryAfter shortage(room);
        result = monitor->Close();
    }
    EXPECT_EQ(result, E_FAIL); // there was no queue for address changes to stop
    EXPECT_EQ(monitor->Users(), 0u);
    EXPECT_EQ(monitor->timerQueue.load(), nullptr);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Tail(), nullptr);
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_FALSE);
}

TEST_F(MethodsShortOfMemory, OfTheEventSinkAlwaysSucceedAndAnEventThatIsLostIsReleased)
{
    const TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    auto* const sink = new EventSink;
    const ComPointer<IWbemObjectSink> sinkOwner(sink);
    EXPECT_EQ(sink->SetProcessingInstance(monitor.Get()), S_OK);
    auto* const object = new FakeClassObject;
    const IWbemClassObjectPtr owner(object);
    IWbemClassObject* objects[] = {object};
    {
        const NoMemoryAfter shortage(0);
        static_cast<void>(sink->Indicate(1, objects));
    }
    EXPECT_EQ(object->References(), 1);
    for (const HRESULT result : ResultsOfShortages([&] { return sink->Indicate(1, objects); }))
    {
        EXPECT_EQ(result, S_OK);
    }
    for (const HRESULT result : ResultsOfShortages([&] { return sink->SetStatus(0, S_OK, nullptr, nullptr); }))
    {
        EXPECT_EQ(result, S_OK);
    }
}

TEST_F(MethodsShortOfMemory, OfTheSimpleSinkSaySo)
{
    const TestObject<CSimpleSink> sink = MakeTestObject<CSimpleSink>();
    ExpectGuarded("Test", S_OK, [&] { return sink->Test(nullptr); });
}

TEST(MethodGuard, EachExceptionHasItsResult)
{
    const auto raising = [](auto exception)
    { return GuardMethod([&](const std::source_location&) -> HRESULT { throw exception; }); };
    EXPECT_EQ(raising(std::bad_alloc()), E_OUTOFMEMORY);
    EXPECT_EQ(raising(_com_error(E_ACCESSDENIED)), E_ACCESSDENIED);
    EXPECT_EQ(raising(std::runtime_error("any other")), E_UNEXPECTED);
    EXPECT_EQ(GuardMethod([](const std::source_location&) { return static_cast<HRESULT>(5); }), 5);
}
} // namespace
