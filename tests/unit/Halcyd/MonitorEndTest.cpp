// What becomes of a monitor that dies while it is open.

#include <gtest/gtest.h>

#include <thread>

#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
TEST(MonitorEnd, OpenMonitorRunsTheBodyOfCloseOnceHoweverManyUsersItHad)
{
    const TraceLines trace;
    {
        const TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
        monitor->PretendOpen(3);
        monitor->Add(L"{1}");
    }
    EXPECT_EQ(TraceLines::Count(L"close called with reference counter at 1"), 1);
    EXPECT_TRUE(TraceLines::Has(L"deleting device info list"));
    EXPECT_TRUE(TraceLines::Has(L"UnLock <== serializeOpenCloseMutex lock"));
    EXPECT_FALSE(TraceLines::Has(L"Failed to acquire lock to call Close"));
    EXPECT_EQ(CNetMonSv::m_instance.load(), nullptr);
}

TEST(MonitorEnd, ClosedMonitorIsNotClosedAgain)
{
    const TraceLines trace;
    {
        const TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    }
    EXPECT_FALSE(TraceLines::Has(L"close called with reference counter"));
    EXPECT_TRUE(TraceLines::Has(L"UnLock <== serializeOpenCloseMutex lock"));
}

TEST(MonitorEnd, LockThatStaysTakenIsTriedElevenTimesThenTheObjectGoesUnclosed)
{
    const TraceLines trace;
    SleepClock clock;
    Event taken(true, false);
    Event letGo(true, false);
    Event free(true, false);
    auto* const object = new CComObject<TestMonitor>();
    object->AddRef();
    object->PretendOpen(1);
    std::thread holder(
        [&]
        {
            MutexLock lock(object->OpenCloseMutex());
            taken.Set();
            letGo.Wait(INFINITE);
        });
    ASSERT_TRUE(taken.Wait(20000));
    // The eleventh try has failed when ten pauses are over; the holder leaves before the mutex itself goes.
    clock.OnSleep(
        [&]
        {
            if (clock.Sleeps().size() == 10)
            {
                free.Set();
            }
        });
    object->FinalRelease();
    EXPECT_TRUE(free.Wait(0));
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(10, 1000));
    EXPECT_TRUE(
        TraceLines::Has(L"Failed to acquire lock to call Close, destroying object without Close call completing"));
    EXPECT_FALSE(TraceLines::Has(L"close called with reference counter"));
    EXPECT_TRUE(TraceLines::Has(L"Finished WMI cleanup"));
    letGo.Set();
    holder.join();
    object->Release();
}
} // namespace
