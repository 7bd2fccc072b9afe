#include "NetUtilities/Mutex.h"

#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/support/RunChild.h"

namespace
{
// The tests below take locks in ways that the analysis would rightly refuse.
#define FREE_OF_ANALYSIS NO_THREAD_SAFETY_ANALYSIS

template <class Mutex>
bool OtherThreadCanTry(Mutex& mutex) FREE_OF_ANALYSIS
{
    bool taken = false;
    std::thread(
        [&]() FREE_OF_ANALYSIS
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

void PlainMutexSecondLockRaises() FREE_OF_ANALYSIS
{
    PlainMutex mutex;
    mutex.Lock();
    try
    {
        mutex.Lock();
        ADD_FAILURE() << "the second lock came back";
    }
    catch (const std::system_error& error)
    {
        EXPECT_EQ(std::errc::resource_deadlock_would_occur, error.code());
    }
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_FALSE(OtherThreadCanTry(mutex));
    mutex.Unlock();
    EXPECT_TRUE(OtherThreadCanTry(mutex));
}

TEST(PlainMutex, SecondLockOnItsThreadRaisesADeadlockErrorInsteadOfWaiting)
{
    PlainMutexSecondLockRaises();
}

class CountedMutex : public RecursiveMutex
{
public:
    void SetCount(std::uint32_t count) { ownerCount = count; }
};

void RecursiveMutexCounts() FREE_OF_ANALYSIS
{
    CountedMutex mutex;
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    mutex.Lock();
    EXPECT_FALSE(OtherThreadCanTry(mutex));
    mutex.Unlock();
    mutex.Unlock();
    EXPECT_FALSE(OtherThreadCanTry(mutex));
    mutex.Unlock();
    EXPECT_TRUE(OtherThreadCanTry(mutex));
}

void RecursiveMutexRefusesBeyondItsMaximum() FREE_OF_ANALYSIS
{
    CountedMutex mutex;
    mutex.Lock();
    mutex.SetCount(0x7FFFFFFE);
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_THROW(mutex.Lock(), std::system_error);
    mutex.SetCount(1);
    mutex.Unlock();
}

TEST(RecursiveMutex, IsFreeAfterAsManyUnlocksAsLocks)
{
    RecursiveMutexCounts();
}

TEST(RecursiveMutex, TryFailsAtTheMaximumOwnerCount)
{
    RecursiveMutexRefusesBeyondItsMaximum();
}

TEST(SimpleMutex, IsRecursiveOnOneThreadAndGuardReleasesIt)
{
    SimpleMutex mutex;
    int steps = 0;
    {
        const LockGuard outer(&mutex);
        [&]() FREE_OF_ANALYSIS
        {
            const LockGuard inner(&mutex);
            ++steps;
        }();
        ++steps;
    }
    std::thread(
        [&]
        {
            const LockGuard guard(&mutex);
            ++steps;
        })
        .join();
    EXPECT_EQ(3, steps);
}

TEST(LockOrder, RanksMayOnlyRise)
{
    using enum LockRank;
    EXPECT_TRUE(LockOrder::MayFollow(SerializeOpenClose, DeviceInfoList));
    EXPECT_TRUE(LockOrder::MayFollow(SerializeOpenClose, WiFiRefresh));
    EXPECT_TRUE(LockOrder::MayFollow(DeviceInfoList, WiFiRefresh));
    EXPECT_FALSE(LockOrder::MayFollow(DeviceInfoList, SerializeOpenClose));
    EXPECT_FALSE(LockOrder::MayFollow(WiFiRefresh, DeviceInfoList));
    EXPECT_FALSE(LockOrder::MayFollow(DeviceInfoList, DeviceInfoList));
}

TEST(LockOrder, WmiEventQueueStandsAlone)
{
    using enum LockRank;
    EXPECT_FALSE(LockOrder::MayFollow(DeviceInfoList, WmiEventQueue));
    EXPECT_FALSE(LockOrder::MayFollow(WmiEventQueue, DeviceInfoList));
    EXPECT_FALSE(LockOrder::MayFollow(WmiEventQueue, WmiEventQueue));
    EXPECT_TRUE(LockOrder::MayFollow(WmiEventQueue, Unranked));
    EXPECT_TRUE(LockOrder::MayFollow(Unranked, WmiEventQueue));
}

TEST(ConditionVariable, WakesAWaiterThatHoldsTheMutexAgainBehindTheWait)
{
    PlainMutex mutex;
    ConditionVariable condition;
    bool ready = false;
    bool seen = false;
    std::thread waiter(
        [&]() FREE_OF_ANALYSIS
        {
            mutex.Lock();
            while (!ready)
            {
                condition.Wait(mutex);
            }
            EXPECT_THROW(mutex.Lock(), std::system_error) << "the waiter is the owner again";
            seen = true;
            mutex.Unlock();
        });
    {
        const MutexLock lock(mutex);
        ready = true;
    }
    condition.WakeAll();
    waiter.join();
    EXPECT_TRUE(seen);
}
} // namespace

// --- What the order check does to a thread that breaks it ---

namespace
{
TEST(LockOrder, BrokenOrderEndsTheProcess)
{
    EXPECT_EQ(0, RunChild("KeptOrder"));
    EXPECT_NE(0, RunChild("BrokenOrder"));
}

CHILD_PROCESS(testing::Test, KeptOrder)
{
    LockOrder::BeforeLock(LockRank::SerializeOpenClose);
    LockOrder::Locked(LockRank::SerializeOpenClose);
    LockOrder::BeforeLock(LockRank::DeviceInfoList);
    LockOrder::Locked(LockRank::DeviceInfoList);
    LockOrder::Unlocked(LockRank::DeviceInfoList);
    LockOrder::Unlocked(LockRank::SerializeOpenClose);
    LockOrder::BeforeLock(LockRank::SerializeOpenClose);
}

CHILD_PROCESS(testing::Test, BrokenOrder)
{
    LockOrder::Locked(LockRank::DeviceInfoList);
    LockOrder::BeforeLock(LockRank::SerializeOpenClose);
}
} // namespace
