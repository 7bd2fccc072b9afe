// The engine's write lock: one holder on the machine, across processes, with the name that it holds it under.
//
// It is an open file: the holder keeps `netcfg.lock` in the lab's folder open for writing, which shuts all others out,
// and its name stands in the file. A process that dies thereby gives the lock back. As on the platform the lock also
// belongs to the thread that took it: when that thread ends, the lock is free, although any thread may release it.
#pragma once

#include "lab/state/Handles.h"

#include <windows.h>

#include <memory>
#include <optional>
#include <string>

namespace lab::netcfg
{

class WriteLock
{
public:
    WriteLock();
    ~WriteLock();
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

    // Tries for `milliseconds`, at least once. False if somebody has it; this object may be that somebody.
    bool Acquire(const std::wstring& name, DWORD milliseconds);
    void Release();
    [[nodiscard]] bool IsMine() const;

    // The name of whoever has the lock, on this machine; nothing if nobody has.
    [[nodiscard]] static std::optional<std::wstring> Holder();

private:
    struct Shared;
    static void CALLBACK OnThreadEnd(void* context, BOOLEAN timedOut);
    void ForgetThread();

    std::shared_ptr<Shared> m_shared;
};

} // namespace lab::netcfg
