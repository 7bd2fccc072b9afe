#pragma once
// How long the trace service's process lives: as long as a client holds one of its objects or locks, and some seconds
// more.
//
// Every object and every lock counts in COM's own process count, so that the moment of "no more clients" and the moment
// from which COM hands no new client to this process are one. While it lingers the process holds one count itself.

#include <windows.h>

#include <atomic>

#include "NetUtilities/Event.h"
#include "NetUtilities/Handles.h"

class ServerLifetime
{
public:
    ServerLifetime() noexcept = default;
    ServerLifetime(const ServerLifetime&) = delete;
    ServerLifetime& operator=(const ServerLifetime&) = delete;

    // From objects and locks, any thread.
    void Add() noexcept;
    void Remove() noexcept;

    // Before the class objects are resumed: takes the process's own count.
    void Begin() noexcept;

    // Blocks until no client has been there for `lingerMilliseconds`. When it returns COM has suspended the class
    // objects.
    void WaitForEnd(DWORD lingerMilliseconds) noexcept;

    // Blocks until the last object is gone, but no longer than `milliseconds`: a platform may hand out one more object
    // between the suspension and the revocation of the class objects, and its client must be served.
    void WaitForLastObject(DWORD milliseconds) noexcept;

private:
    std::atomic<long> holders{0};
    Event changed{false, false};
};
