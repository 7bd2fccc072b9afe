#include "NetUtilities/WorkItem.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/GlobalObjectName.h"

namespace
{
constexpr DWORD Patience = 10000; // milliseconds; only a failing test waits that long

// What a test's items did.
class Account
{
public:
    void Note(int number)
    {
        const std::lock_guard guard(lock);
        order.push_back(number);
    }
    std::vector<int> Order()
    {
        const std::lock_guard guard(lock);
        return order;
    }
    std::atomic<int> alive{0};

private:
    std::mutex lock;
    std::vector<int> order;
};

// Notes its number when run; may wait for a gate first.
class Item : public CWorkItem
{
public:
    Item(Account& noted, int itemNumber, Event* opensWhen = nullptr, Event* toldWhenRunning = nullptr)
        : account(noted), number(itemNumber), gate(opensWhen), running(toldWhenRunning)
    {
        ++account.alive;
    }
    ~Item() override { --account.alive; }
    void Execute() override
    {
        if (running != nullptr)
        {
            running->Set();
        }
        if (gate != nullptr)
        {
            EXPECT_TRUE(gate->Wait(Patience));
        }
        account.Note(number);
        EXPECT_EQ(0U, reserved);
    }

private:
    Account& account;
    int number;
    Event* gate;
    Event* running;
};

class EmptyCounter : public CWorkItemQueueCallback
{
public:
    void OnQueueEmpty() override
    {
        ++count;
        told.Set();
    }
    std::atomic<int> count{0};
    Event told{false, false};
};

// A queue whose thread is busy with item 1 until the gate opens.
struct BusyQueue
{
    explicit BusyQueue(Account& account, CWorkItemQueueCallback* emptyCallback = nullptr) : queue(emptyCallback)
    {
        queue.Start();
        queue.Add(new Item(account, 1, &gate, &running));
        EXPECT_TRUE(running.Wait(Patience));
    }
    // The gate opens a little later, while the caller waits for the queue.
    [[nodiscard]] std::thread Opener()
    {
        return std::thread(
            [this]
            {
                Sleep(50);
                gate.Set();
            });
    }

    Event gate{true, false};
    Event running{false, false};
    CWorkItemQueue queue;
};

// --- Queue ---

TEST(WorkItemQueue, RunsItemsInOrderAndDeletesThem)
{
    Account account;
    CWorkItemQueue queue;
    EXPECT_TRUE(queue.Start());
    for (int i = 0; i < 100; ++i)
    {
        EXPECT_TRUE(queue.Add(new Item(account, i)));
    }
    EXPECT_TRUE(queue.StopAfterDrain(Patience, nullptr));
    const auto order = account.Order();
    ASSERT_EQ(100U, order.size());
    for (int i = 0; i < 100; ++i)
    {
        EXPECT_EQ(i, order[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(0, account.alive);
}

TEST(WorkItemQueue, SecondStartReturnsFalse)
{
    CWorkItemQueue queue;
    EXPECT_TRUE(queue.Start());
    EXPECT_FALSE(queue.Start());
}

TEST(WorkItemQueue, ItemsAddedBeforeStartWaitForIt)
{
    Account account;
    CWorkItemQueue queue;
    EXPECT_TRUE(queue.Add(new Item(account, 1)));
    EXPECT_EQ(1U, queue.Length());
    EXPECT_TRUE(account.Order().empty());
    Event ran(false, false);
    EXPECT_TRUE(queue.Add(new Item(account, 2, nullptr, &ran)));
    EXPECT_TRUE(queue.Start());
    EXPECT_TRUE(ran.Wait(Patience));
    queue.Stop();
    EXPECT_EQ((std::vector<int>{1, 2}), account.Order());
}

TEST(WorkItemQueue, AddOfNullOnlyWakesTheThread)
{
    EmptyCounter counter;
    CWorkItemQueue queue(&counter);
    queue.Start();
    EXPECT_TRUE(queue.Add(nullptr));
    EXPECT_TRUE(counter.told.Wait(Patience));
    EXPECT_EQ(0U, queue.Length());
}

TEST(WorkItemQueue, EmptyCallbackArrivesOnlyAfterAWake)
{
    EmptyCounter counter;
    CWorkItemQueue queue(&counter);
    queue.Start();
    EXPECT_FALSE(counter.told.Wait(50));
    queue.Add(nullptr);
    EXPECT_TRUE(counter.told.Wait(Patience));
    queue.Stop();
    EXPECT_EQ(1, counter.count);
}

TEST(WorkItemQueue, EmptyCallbackComesOnceForSeveralItems)
{
    Account account;
    EmptyCounter counter;
    BusyQueue busy(account, &counter);
    busy.queue.Add(new Item(account, 2));
    busy.queue.Add(new Item(account, 3));
    busy.gate.Set();
    ASSERT_TRUE(counter.told.Wait(Patience));
    EXPECT_EQ((std::vector<int>{1, 2, 3}), account.Order());
}

TEST(WorkItemQueue, StopLeavesQueuedItemsUnrunAndTheQueueDeletesThem)
{
    Account account;
    {
        BusyQueue busy(account);
        busy.queue.Add(new Item(account, 2));
        std::thread opener = busy.Opener();
        EXPECT_TRUE(busy.queue.Stop());
        opener.join();
        EXPECT_EQ((std::vector<int>{1}), account.Order());
        EXPECT_EQ(1U, busy.queue.Length());
    }
    EXPECT_EQ(0, account.alive);
    EXPECT_EQ((std::vector<int>{1}), account.Order());
}

TEST(WorkItemQueue, StoppedQueueCanStartAgainAndRunsWhatWasLeft)
{
    Account account;
    Event ran(false, false);
    CWorkItemQueue queue;
    queue.Start();
    EXPECT_TRUE(queue.Stop());
    EXPECT_TRUE(queue.Add(new Item(account, 1, nullptr, &ran)));
    EXPECT_TRUE(queue.Start());
    EXPECT_TRUE(ran.Wait(Patience));
}

TEST(WorkItemQueue, SecondStopReturnsFalse)
{
    CWorkItemQueue queue;
    queue.Start();
    EXPECT_TRUE(queue.Stop());
    EXPECT_FALSE(queue.Stop());
    EXPECT_FALSE(queue.StopAfterDrain(0, nullptr));
}

TEST(WorkItemQueue, StopAfterDrainRunsWhatIsQueuedAndTheLastItem)
{
    Account account;
    BusyQueue busy(account);
    busy.queue.Add(new Item(account, 2));
    std::thread opener = busy.Opener();
    EXPECT_TRUE(busy.queue.StopAfterDrain(Patience, new Item(account, 3)));
    opener.join();
    EXPECT_EQ((std::vector<int>{1, 2, 3}), account.Order());
    EXPECT_EQ(0, account.alive);
}

TEST(WorkItemQueue, StopAfterDrainOnAQueueThatNeverStartedDoesNotTakeTheLastItem)
{
    Account account;
    CWorkItemQueue queue;
    const auto last = std::make_unique<Item>(account, 1);
    EXPECT_FALSE(queue.StopAfterDrain(0, last.get()));
    EXPECT_EQ(1, account.alive);
    EXPECT_EQ(0U, queue.Length());
    EXPECT_TRUE(queue.Add(nullptr)) << "the queue is not closing";
}

TEST(WorkItemQueue, DrainTimeOutLeavesTheThreadRunningAndTheQueueClosing)
{
    Account account;
    BusyQueue busy(account);
    busy.queue.Add(new Item(account, 2));
    EXPECT_FALSE(busy.queue.StopAfterDrain(10, nullptr));
    EXPECT_FALSE(busy.queue.Start()) << "the thread is still there";
    EXPECT_FALSE(busy.queue.Add(new Item(account, 3)));
    EXPECT_EQ(2, account.alive) << "the refused item is deleted";
    busy.gate.Set();
    EXPECT_TRUE(busy.queue.Stop());
    EXPECT_TRUE(busy.queue.Add(new Item(account, 4))) << "no longer closing";
}

TEST(WorkItemQueue, DrainWithAnEmptyQueueJoinsTheRunningItemWithoutTimeLimit)
{
    Account account;
    BusyQueue busy(account);
    std::thread opener = busy.Opener();
    EXPECT_TRUE(busy.queue.StopAfterDrain(1, nullptr)) << "the time limit does not count";
    opener.join();
    EXPECT_EQ((std::vector<int>{1}), account.Order());
}

// --- Member-function items ---

struct Target
{
    void Plain() { ++plainCalls; }
    void WithText(std::wstring text)
    {
        texts.push_back(text);
        text.clear();
    }
    int plainCalls = 0;
    std::vector<std::wstring> texts;
};

struct Base
{
    virtual ~Base() = default;
    int first = 1;
};
struct Multiple : Base, Target
{
};

TEST(WorkItemMember, CallsTheMember)
{
    Target target;
    NetUtilities::WorkItemMember<Target> item(&target, &Target::Plain);
    item.Execute();
    EXPECT_EQ(1, target.plainCalls);
}

TEST(WorkItemMember, AdjustsThisForASecondBase)
{
    Multiple target;
    NetUtilities::WorkItemMember<Multiple> item(&target, &Multiple::Plain);
    item.Execute();
    EXPECT_EQ(1, target.plainCalls);
}

TEST(WorkItemMember, ArgumentIsCopiedForTheItemAndForEachCall)
{
    Target target;
    std::wstring text = L"text";
    NetUtilities::WorkItemMember1<Target, std::wstring> item(&target, &Target::WithText, text);
    text = L"changed";
    item.Execute();
    item.Execute();
    EXPECT_EQ((std::vector<std::wstring>{L"text", L"text"}), target.texts);
}

// --- Pool ---

TEST(WorkItemThreadPool, ItemBetweenConstructionAndStartIsRefusedAndDeleted)
{
    Account account;
    CWorkItemThreadPool pool(1, 3);
    EXPECT_EQ(1U, pool.ThreadCount());
    EXPECT_FALSE(pool.Add(new Item(account, 1)));
    EXPECT_EQ(0, account.alive);
}

TEST(WorkItemThreadPool, InitialNumberIsCutDownToTheLimit)
{
    CWorkItemThreadPool pool(5, 2);
    EXPECT_EQ(2U, pool.ThreadCount());
}

TEST(WorkItemThreadPool, GrowsToItsLimitThenTakesTheShortestQueueAndTheOldestOfEquals)
{
    Account account;
    Event gates[3] = {Event(true, false), Event(true, false), Event(true, false)};
    Event running[3] = {Event(false, false), Event(false, false), Event(false, false)};
    CWorkItemThreadPool pool(1, 3);
    pool.Start();
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_TRUE(pool.Add(new Item(account, i, &gates[i], &running[i])));
        ASSERT_TRUE(running[i].Wait(Patience));
    }
    EXPECT_EQ(3U, pool.ThreadCount());
    // All queues are empty and all threads busy: the oldest gets the fourth item, then the others in turn.
    Event ran[3] = {Event(true, false), Event(true, false), Event(true, false)};
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_TRUE(pool.Add(new Item(account, 10 + i, nullptr, &ran[i])));
    }
    EXPECT_EQ(3U, pool.ThreadCount());
    gates[0].Set();
    EXPECT_TRUE(ran[0].Wait(Patience)) << "the fourth item is on the oldest thread";
    EXPECT_FALSE(ran[1].Wait(0));
    EXPECT_FALSE(ran[2].Wait(0));
    gates[1].Set();
    EXPECT_TRUE(ran[1].Wait(Patience));
    EXPECT_FALSE(ran[2].Wait(0));
    gates[2].Set();
    EXPECT_TRUE(ran[2].Wait(Patience));
    EXPECT_TRUE(pool.Stop(Patience));
}

TEST(WorkItemThreadPool, IdleThreadIsUsedBeforeANewOneIsMade)
{
    Account account;
    CWorkItemThreadPool pool(2, 3);
    pool.Start();
    Event ran(false, false);
    Event gate(true, false);
    EXPECT_TRUE(pool.Add(new Item(account, 1, &gate, &ran)));
    ASSERT_TRUE(ran.Wait(Patience));
    EXPECT_TRUE(pool.Add(new Item(account, 2, nullptr, &ran)));
    ASSERT_TRUE(ran.Wait(Patience));
    EXPECT_EQ(2U, pool.ThreadCount());
    gate.Set();
    EXPECT_TRUE(pool.Stop());
}

TEST(WorkItemThreadPool, PoolWithoutThreadsAtTheLimitLeavesTheItemToTheCaller)
{
    Account account;
    CWorkItemThreadPool pool(0, 0);
    pool.Start();
    const auto item = std::make_unique<Item>(account, 1);
    EXPECT_FALSE(pool.Add(item.get()));
    EXPECT_EQ(1, account.alive);
}

TEST(WorkItemThreadPool, StopLeavesItWithoutThreadsAndItStartsAgain)
{
    Account account;
    CWorkItemThreadPool pool(1, 3);
    pool.Start();
    EXPECT_TRUE(pool.Stop());
    EXPECT_EQ(0U, pool.ThreadCount());
    EXPECT_FALSE(pool.Add(new Item(account, 1)));
    EXPECT_EQ(0, account.alive);
    pool.Start();
    Event ran(false, false);
    EXPECT_TRUE(pool.Add(new Item(account, 2, nullptr, &ran)));
    EXPECT_TRUE(ran.Wait(Patience));
    EXPECT_EQ(1U, pool.ThreadCount()) << "made on demand";
    EXPECT_TRUE(pool.Stop());
    EXPECT_TRUE(pool.Stop()) << "harmless without threads";
}

TEST(WorkItemThreadPool, StopWithTimeRunsWhatIsQueued)
{
    Account account;
    CWorkItemThreadPool pool(1, 1);
    pool.Start();
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_TRUE(pool.Add(new Item(account, i)));
    }
    EXPECT_TRUE(pool.Stop(Patience));
    EXPECT_EQ(20U, account.Order().size());
    EXPECT_EQ(0, account.alive);
}

TEST(WorkItemThreadPool, StopTimeOutOnOneThreadStopsItAllTheSameAndSaysFalse)
{
    Account account;
    Event gate(true, false);
    Event running(false, false);
    CWorkItemThreadPool pool(1, 1);
    pool.Start();
    pool.Add(new Item(account, 1, &gate, &running));
    ASSERT_TRUE(running.Wait(Patience));
    pool.Add(new Item(account, 2));
    std::thread opener(
        [&]
        {
            Sleep(100);
            gate.Set();
        });
    EXPECT_FALSE(pool.Stop(10));
    opener.join();
    EXPECT_EQ((std::vector<int>{1}), account.Order()) << "the second item is deleted unrun";
    EXPECT_EQ(0, account.alive);
    EXPECT_EQ(0U, pool.ThreadCount());
}

// Takes a lock that somebody else has, once that somebody says so.
class WantingItem : public CWorkItem
{
public:
    WantingItem(SimpleMutex& lock, Event& lockIsTaken) : wanted(lock), taken(lockIsTaken) {}
    void Execute() override
    {
        taken.Wait(Patience);
        const LockGuard lock(&wanted);
    }

private:
    SimpleMutex& wanted;
    Event& taken;
};

TEST(WorkItemThreadPool, StopIsNotHeldUpByAnAddThatHoldsALockWhichARunningItemWants)
{
    // The stop has to fall between two instructions of Add: many tries.
    for (int round = 0; round < 100; ++round)
    {
        SimpleMutex shared;
        Event taken(true, false);
        Event stopped(true, false);
        CWorkItemThreadPool pool(1, 1);
        pool.Start();
        ASSERT_TRUE(pool.Add(new WantingItem(shared, taken)));
        std::thread adder(
            [&]
            {
                const LockGuard lock(&shared);
                taken.Set();
                while (pool.Add(new WantingItem(shared, taken)))
                {
                }
            });
        taken.Wait(Patience);
        std::thread stopper(
            [&]
            {
                pool.Stop();
                stopped.Set();
            });
        if (!stopped.Wait(Patience))
        {
            (void)std::fputs("the stop waits for an add that waits for the stop\n", stderr);
            std::abort(); // nothing here could be taken down any more
        }
        stopper.join();
        adder.join();
    }
}

TEST(GlobalObjectName, ReplacesTheTextOfTheCallBefore)
{
    const wchar_t* const first = GlobalObjectName(L"NetCfgWifiEvent");
    EXPECT_STREQ(L"Global\\NetCfgWifiEvent", first);
    EXPECT_STREQ(L"Global\\x", GlobalObjectName(L"x"));
}

// --- Event ---

TEST(Event, WaitIsTrueOnlyWhenSignalledAndGivesTheRawResult)
{
    Event event(true, false);
    DWORD raw = 77;
    EXPECT_FALSE(event.Wait(0, &raw));
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, raw);
    EXPECT_TRUE(event.Set());
    EXPECT_TRUE(event.Wait(0, &raw));
    EXPECT_EQ(DWORD{WAIT_OBJECT_0}, raw);
    EXPECT_TRUE(event.Reset());
    EXPECT_FALSE(event.Wait(0));
    event.Close();
    EXPECT_FALSE(event.Wait(0, &raw));
    EXPECT_EQ(DWORD{WAIT_FAILED}, raw);
    EXPECT_FALSE(event.Set());
}
} // namespace
