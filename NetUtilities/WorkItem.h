#pragma once
// Slow work away from the threads that ask for it: a work item, a queue that runs items on a thread of its own, and a
// pool that adds such queues as they are needed. Nothing in here traces.
//
// The caller makes an item with new and gives it away with the call that takes it: it is deleted after it was run, when
// it is refused, or with the queue; the exceptions stand at the functions. An exception out of Execute ends the
// process.
//
// Lock order: pool lock, then a thread's lock or a queue's items lock. A queue's life lock comes before its items
// lock. The pool lock is held while the pool stops, and that joins threads; Add does not wait for it then but refuses
// the item, so that it may be called with a lock in hand that an item wants too.

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "NetUtilities/Event.h"
#include "NetUtilities/Mutex.h"

class CWorkItem
{
public:
    CWorkItem() = default;
    CWorkItem(const CWorkItem&) = delete;
    CWorkItem& operator=(const CWorkItem&) = delete;
    virtual ~CWorkItem() = default;
    virtual void Execute() = 0;

protected:
    std::uint64_t reserved = 0; // always 0
};

namespace NetUtilities
{
// Calls a member function without arguments. The object must outlive the item.
template <class T>
class WorkItemMember : public CWorkItem
{
public:
    using Member = void (T::*)();

    WorkItemMember(T* target, Member function) noexcept : object(target), member(function) {}
    void Execute() override { (object->*member)(); }

private:
    T* object;
    Member member;
};

// Calls a member function with one argument, a copy of which the item holds; the call gets a copy of that.
template <class T, class A>
class WorkItemMember1 : public CWorkItem
{
public:
    using Member = void (T::*)(A);

    WorkItemMember1(T* target, Member function, A value) : object(target), member(function), argument(std::move(value))
    {
    }
    void Execute() override { (object->*member)(argument); }

private:
    T* object;
    Member member;
    A argument;
};
} // namespace NetUtilities

// Told by a queue's thread each time the queue has run empty after a wake-up.
class CWorkItemQueueCallback
{
public:
    virtual void OnQueueEmpty() = 0;

protected:
    ~CWorkItemQueueCallback() = default;
};

// First in, first out, unbounded, one thread.
class CWorkItemQueue
{
public:
    // The callback may be null and must outlive the queue.
    explicit CWorkItemQueue(CWorkItemQueueCallback* emptyCallback = nullptr);
    // Stops the thread and deletes the items left.
    ~CWorkItemQueue();
    CWorkItemQueue(const CWorkItemQueue&) = delete;
    CWorkItemQueue& operator=(const CWorkItemQueue&) = delete;

    // True if a thread was started, false if one was there. Raises std::system_error if it, or an event that it needs,
    // cannot be had; the queue is then as it was, and may be started again.
    bool Start() EXCLUDES(lifeLock);
    // True if the item was accepted. A null item only wakes the thread. On a closing queue the item is deleted.
    bool Add(CWorkItem* item) EXCLUDES(itemsLock);
    // Ends the thread after the item it is running; the rest stays queued. True if a thread was there.
    bool Stop() EXCLUDES(lifeLock);
    // Runs what is queued, lastItem (may be null) behind it, then stops. False when that took longer than timeoutMs:
    // the thread then goes on and the queue refuses items. False with no thread: lastItem stays the caller's.
    bool StopAfterDrain(DWORD timeoutMs, CWorkItem* lastItem) EXCLUDES(lifeLock);

    // Number of items that wait.
    [[nodiscard]] std::size_t Length() EXCLUDES(itemsLock);

private:
    void ThreadProcedure();

    std::deque<CWorkItem*> items GUARDED_BY(itemsLock);
    SimpleMutex itemsLock;
    Event wakeEvent;               // auto-reset
    Event stopEvent;               // manual-reset, from Start to Stop
    Event doneEvent;               // manual-reset, from Start to Stop
    HANDLE threadHandle = nullptr; // a copy, not owned
    PlainMutex lifeLock;
    std::atomic<bool> closing{false}; // written under itemsLock
    CWorkItemQueueCallback* callback;
    std::unique_ptr<std::thread> thread;
};

// The pool's record of one thread.
class SThrdInfo : public CWorkItemQueueCallback
{
public:
    SThrdInfo();
    virtual ~SThrdInfo() = default;
    void OnQueueEmpty() override;
    void SetIdle(BOOL nowIdle) EXCLUDES(lock);
    [[nodiscard]] BOOL IsIdle() EXCLUDES(lock);

private:
    SimpleMutex lock;
    BOOL idle GUARDED_BY(lock) = TRUE;

public:
    std::unique_ptr<CWorkItemQueue> queue;
};

class CWorkItemThreadPool
{
public:
    // Makes the first threads at once (never more than threadLimit); they wait, the pool does not run yet.
    CWorkItemThreadPool(std::uint32_t initialThreads, std::uint32_t threadLimit);
    ~CWorkItemThreadPool();
    CWorkItemThreadPool(const CWorkItemThreadPool&) = delete;
    CWorkItemThreadPool& operator=(const CWorkItemThreadPool&) = delete;

    void Start() EXCLUDES(poolLock);
    // True if the item was accepted. On a pool that does not run the item is deleted; with no threads at the limit
    // it stays the caller's. Raises std::system_error, with the item deleted, when a thread is due and cannot be
    // started.
    bool Add(CWorkItem* item) EXCLUDES(poolLock);
    // Both leave the pool without threads; true when all of them stopped in the way asked for. Stop(timeoutMs) gives
    // each thread the whole time, one after the other, to run what it has.
    bool Stop() EXCLUDES(poolLock);
    bool Stop(DWORD timeoutMs) EXCLUDES(poolLock);

    [[nodiscard]] std::uint32_t ThreadCount() EXCLUDES(poolLock);

private:
    bool AddLocked(CWorkItem* item) REQUIRES(poolLock);
    SThrdInfo& AddThread() REQUIRES(poolLock);
    [[nodiscard]] SThrdInfo* ChooseThread() REQUIRES(poolLock);
    template <class StopThread>
    bool StopThreads(StopThread stopThread) EXCLUDES(poolLock);

    std::vector<SThrdInfo*> threads GUARDED_BY(poolLock);
    SimpleMutex poolLock;
    Event stoppedEvent; // manual-reset, signalled while the pool does not run
    BOOL running GUARDED_BY(poolLock) = FALSE;
    std::uint32_t threadCount GUARDED_BY(poolLock) = 0;
    std::uint32_t threadLimit;
};
