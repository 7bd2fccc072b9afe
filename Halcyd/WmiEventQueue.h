#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <atomic>
#include <cstdint>
#include <queue>

#include "NetUtilities/Mutex.h"

// First in, first out, of WMI events. Each entry holds one reference on its object, which Pop hands to the caller.
class WmiEventQueue
{
public:
    void Push(IWbemClassObject* object, PlainMutex& mutex) REQUIRES(mutex)
    {
        (void)mutex;
        entries.push({object, dropped});
    }

    // Null when the queue is empty.
    [[nodiscard]] IWbemClassObject* Pop(PlainMutex& mutex) REQUIRES(mutex)
    {
        (void)mutex;
        while (!entries.empty())
        {
            const Entry entry = entries.front();
            entries.pop();
            if (entry.round == dropped)
            {
                return entry.object;
            }
        }
        return nullptr;
    }

    // Takes every entry off without releasing its reference. Those references are lost on purpose: at this point the
    // WMI connection that the objects came by may be on its way out. Takes no lock, and needs none: the entries of past
    // rounds are thrown away by the next Pop.
    void DropAll() noexcept { ++dropped; }

private:
    struct Entry
    {
        IWbemClassObject* object;
        std::uint32_t round;
    };

    std::queue<Entry> entries;
    std::atomic<std::uint32_t> dropped{0}; // number of the present round
};
