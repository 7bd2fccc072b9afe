#include "NetUtilities/WorkItem.h"

#include <pthread.h>

#include <algorithm>
#include <system_error>

namespace
{
void CreateOrRaise(Event& event, bool manualReset)
{
    if (!event.Create(manualReset, false))
    {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "no event for a work queue");
    }
}
} // namespace

// --- CWorkItemQueue ---

CWorkItemQueue::CWorkItemQueue(CWorkItemQueueCallback* emptyCallback) : callback(emptyCallback)
{
    wakeEvent.Create(false, false);
}

CWorkItemQueue::~CWorkItemQueue()
{
    Stop();
    const LockGuard lock(&itemsLock);
    for (CWorkItem* const item : items)
    {
        delete item;
    }
}

bool CWorkItemQueue::Start()
{
    const MutexLock life(lifeLock);
    if (thread)
    {
        return false;
    }
    closing.store(false);
    // A thread without its events could neither be stopped nor waited for.
    if (!wakeEvent)
    {
        CreateOrRaise(wakeEvent, false);
    }
    CreateOrRaise(stopEvent, true);
    CreateOrRaise(doneEvent, true);
    const std::size_t waiting = Length();
    thread = std::make_unique<std::thread>(&CWorkItemQueue::ThreadProcedure, this);
    threadHandle = static_cast<HANDLE>(pthread_gethandle(thread->native_handle()));
    if (waiting != 0)
    {
        wakeEvent.Set();
    }
    return true;
}

void CWorkItemQueue::ThreadProcedure()
{
    for (;;)
    {
        constexpr DWORD wakeResult = WAIT_OBJECT_0 + 1;
        if (WaitForAny(INFINITE, stopEvent.Handle(), wakeEvent.Handle()) != wakeResult)
        {
            doneEvent.Set();
            return;
        }
        bool closingNow = false;
        for (;;)
        {
            if (stopEvent.Wait(0))
            {
                doneEvent.Set();
                return;
            }
            std::unique_ptr<CWorkItem> item;
            {
                const LockGuard lock(&itemsLock);
                closingNow = closing.load();
                if (!items.empty())
                {
                    item.reset(items.front());
                    items.pop_front();
                }
            }
            if (!item)
            {
                break;
            }
            item->Execute();
        }
        if (closingNow)
        {
            doneEvent.Set();
            return;
        }
        if (callback != nullptr)
        {
            callback->OnQueueEmpty();
        }
    }
}

bool CWorkItemQueue::Add(CWorkItem* item)
{
    if (closing.load())
    {
        delete item;
        return false;
    }
    {
        const LockGuard lock(&itemsLock);
        if (item != nullptr)
        {
            items.push_back(item);
        }
    }
    return wakeEvent.Set();
}

bool CWorkItemQueue::Stop()
{
    const MutexLock life(lifeLock);
    if (!thread)
    {
        return false;
    }
    stopEvent.Set();
    thread->join();
    thread.reset();
    {
        const LockGuard lock(&itemsLock);
        closing.store(false);
    }
    stopEvent.Close();
    doneEvent.Close();
    threadHandle = nullptr;
    return true;
}

bool CWorkItemQueue::StopAfterDrain(DWORD timeoutMs, CWorkItem* lastItem)
{
    {
        const MutexLock life(lifeLock);
        if (!thread)
        {
            return false;
        }
        std::size_t count = 0;
        {
            const LockGuard lock(&itemsLock);
            closing.store(true);
            if (lastItem != nullptr)
            {
                items.push_back(lastItem);
            }
            count = items.size();
        }
        wakeEvent.Set();
        // Required: with nothing queued there is no wait here. An item that is running is then joined without a limit.
        if (count != 0 && !doneEvent.Wait(timeoutMs))
        {
            return false;
        }
    }
    return Stop();
}

std::size_t CWorkItemQueue::Length()
{
    const LockGuard lock(&itemsLock);
    return items.size();
}

// --- CWorkItemThreadPool ---

SThrdInfo::SThrdInfo() : queue(std::make_unique<CWorkItemQueue>(this)) {}

void SThrdInfo::OnQueueEmpty()
{
    SetIdle(TRUE);
}

void SThrdInfo::SetIdle(BOOL nowIdle)
{
    const LockGuard guard(&lock);
    idle = nowIdle;
}

BOOL SThrdInfo::IsIdle()
{
    const LockGuard guard(&lock);
    return idle;
}

CWorkItemThreadPool::CWorkItemThreadPool(std::uint32_t initialThreads, std::uint32_t limit) : threadLimit(limit)
{
    stoppedEvent.Create(true, true);
    const LockGuard lock(&poolLock);
    for (std::uint32_t made = 0; made < std::min(initialThreads, threadLimit); ++made)
    {
        AddThread();
    }
}

CWorkItemThreadPool::~CWorkItemThreadPool()
{
    Stop();
}

SThrdInfo& CWorkItemThreadPool::AddThread()
{
    auto info = std::make_unique<SThrdInfo>();
    info->queue->Start();
    threads.push_back(info.get());
    ++threadCount;
    return *info.release();
}

void CWorkItemThreadPool::Start()
{
    const LockGuard lock(&poolLock);
    running = TRUE;
    stoppedEvent.Reset();
}

// The lock is asked for again and again rather than waited for: a stop that came in between has the lock for as long as
// its threads take to end, and one of those may be waiting for what the caller of Add holds.
bool CWorkItemThreadPool::Add(CWorkItem* item) NO_THREAD_SAFETY_ANALYSIS
{
    bool locked = false;
    while (!stoppedEvent.Wait(0) && !(locked = poolLock.TryLock()))
    {
        SwitchToThread();
    }
    if (!locked)
    {
        delete item;
        return false;
    }
    const LockGuard lock(&poolLock, LockGuard::Locked);
    return AddLocked(item);
}

bool CWorkItemThreadPool::AddLocked(CWorkItem* item)
{
    if (!running)
    {
        delete item;
        return false;
    }
    std::unique_ptr<CWorkItem> owned(item); // goes when a thread cannot be started
    SThrdInfo* const chosen = ChooseThread();
    owned.release();
    if (chosen == nullptr)
    {
        return false; // the item stays the caller's
    }
    chosen->SetIdle(FALSE);
    return chosen->queue->Add(item);
}

// The oldest idle thread; else a new one; else, at the limit, the one with the shortest queue, the oldest of equals.
SThrdInfo* CWorkItemThreadPool::ChooseThread()
{
    const auto idle =
        std::find_if(threads.begin(), threads.end(), [](SThrdInfo* each) { return each->IsIdle() != FALSE; });
    if (idle != threads.end())
    {
        return *idle;
    }
    if (threadCount < threadLimit)
    {
        return &AddThread();
    }
    std::size_t shortest = 0xFFFFFFFE;
    for (SThrdInfo* const each : threads)
    {
        shortest = std::min(shortest, each->queue->Length());
    }
    // Queues only get shorter meanwhile, for items are added under the pool lock: one at or below the minimum is there.
    const auto served = std::find_if(threads.begin(), threads.end(),
                                     [&](SThrdInfo* each) { return each->queue->Length() <= shortest; });
    return served != threads.end() ? *served : nullptr;
}

template <class StopThread>
bool CWorkItemThreadPool::StopThreads(StopThread stopThread)
{
    stoppedEvent.Set(); // first and without the lock: refuses items while the rest waits its turn
    const LockGuard lock(&poolLock);
    running = FALSE;
    bool all = true;
    for (SThrdInfo* const each : threads)
    {
        const std::unique_ptr<SThrdInfo> info(each);
        all = stopThread(*info->queue) && all;
    }
    threads.clear();
    threadCount = 0;
    return all;
}

bool CWorkItemThreadPool::Stop()
{
    return StopThreads([](CWorkItemQueue& queue) { return queue.Stop(); });
}

bool CWorkItemThreadPool::Stop(DWORD timeoutMs)
{
    return StopThreads(
        [timeoutMs](CWorkItemQueue& queue)
        {
            if (queue.StopAfterDrain(timeoutMs, nullptr))
            {
                return true;
            }
            queue.Stop();
            return false;
        });
}

std::uint32_t CWorkItemThreadPool::ThreadCount()
{
    const LockGuard lock(&poolLock);
    return threadCount;
}
