#include "clients/TraceStore/ClientWatch.h"

#include <rpc.h>

#include <set>
#include <utility>

ClientWatch& TheClientWatch()
{
    static ClientWatch watch;
    return watch;
}

DWORD ClientWatch::CallingProcess() noexcept
{
    unsigned long process = 0;
    return I_RpcBindingInqLocalClientPID(nullptr, &process) == RPC_S_OK ? process : 0;
}

std::uintptr_t ClientWatch::Watch(DWORD process, IWatchedObject* object)
{
    UniqueHandle handle(OpenProcess(SYNCHRONIZE, FALSE, process));
    if (!handle)
    {
        return 0;
    }
    MutexLock lock(mutex);
    const std::uintptr_t key = ++lastKey;
    Entry& entry = entries[key];
    entry.process = process;
    entry.object = object;
    entry.processHandle = std::move(handle);
    // The callback gets the key, not the entry: it finds out under the lock whether the entry is still there.
    if (!RegisterWaitForSingleObject(&entry.wait, entry.processHandle.get(), ProcessEnded, reinterpret_cast<void*>(key),
                                     INFINITE, WT_EXECUTEONLYONCE | WT_EXECUTELONGFUNCTION))
    {
        entries.erase(key);
        return 0;
    }
    return key;
}

void ClientWatch::Forget(std::uintptr_t key) noexcept
{
    MutexLock lock(mutex);
    const auto found = entries.find(key);
    if (found == entries.end())
    {
        return;
    }
    // Does not wait for a callback: this may run inside one. A callback that runs now looks for the key and finds
    // nothing.
    UnregisterWaitEx(found->second.wait, nullptr);
    entries.erase(found);
}

unsigned long ClientWatch::ProcessCount()
{
    MutexLock lock(mutex);
    std::set<DWORD> processes;
    for (const auto& [key, entry] : entries)
    {
        processes.insert(entry.process);
    }
    return static_cast<unsigned long>(processes.size());
}

void CALLBACK ClientWatch::ProcessEnded(void* key, BOOLEAN)
{
    ClientWatch& watch = TheClientWatch();
    IWatchedObject* object = nullptr;
    {
        MutexLock lock(watch.mutex);
        const auto found = watch.entries.find(reinterpret_cast<std::uintptr_t>(key));
        if (found == watch.entries.end() || !found->second.object->TryAddRef())
        {
            return;
        }
        object = found->second.object;
    }
    object->DisconnectAndRelease();
}
