#pragma once

#include <atomic>
#include <memory>

#include "NetUtilities/Event.h"

// The event on which the thread of a disable call waits for the restore of the bindings: there from the first disable
// to the next restore. Any thread may call any function at any time; there is no lock. Each user holds a share of the
// event, so a restore that closes it never closes it under a thread that is about to wait.
class RestoreFinishedEvent
{
public:
    // The event, made now (manual reset, not signalled, no name) if it does not exist. Null when it cannot be made.
    [[nodiscard]] std::shared_ptr<Event> GetOrCreate()
    {
        std::shared_ptr<Event> existing = event.load();
        if (existing != nullptr)
        {
            return existing;
        }
        auto made = std::make_shared<Event>();
        if (!made->Create(true, false))
        {
            return nullptr;
        }
        // Another disable may have been faster: then both wait for the same event.
        return event.compare_exchange_strong(existing, made) ? made : existing;
    }

    // Signals the event, if it exists, and lets go of it. It is closed when the last waiting thread has left it.
    void SignalAndClose() noexcept
    {
        if (const std::shared_ptr<Event> existing = event.exchange(nullptr))
        {
            existing->Set();
        }
    }

    void reset() noexcept { event.store(nullptr); }
    [[nodiscard]] bool Exists() const noexcept { return event.load() != nullptr; }

private:
    std::atomic<std::shared_ptr<Event>> event;
};
