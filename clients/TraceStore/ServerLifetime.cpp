#include "clients/TraceStore/ServerLifetime.h"

#include <objbase.h>

void ServerLifetime::Add() noexcept
{
    CoAddRefServerProcess();
    ++holders;
    changed.Set();
}

void ServerLifetime::Remove() noexcept
{
    // The process's own count is still there, so this never is the one that ends the service.
    CoReleaseServerProcess();
    --holders;
    changed.Set();
}

void ServerLifetime::Begin() noexcept
{
    CoAddRefServerProcess();
}

void ServerLifetime::WaitForEnd(DWORD lingerMilliseconds) noexcept
{
    for (;;)
    {
        if (changed.Wait(holders == 0 ? lingerMilliseconds : INFINITE))
        {
            continue; // a client came or went: look again, with the full time if none is left
        }
        if (CoReleaseServerProcess() == 0)
        {
            return;
        }
        CoAddRefServerProcess(); // a client came in that very moment
    }
}

void ServerLifetime::WaitForLastObject(DWORD milliseconds) noexcept
{
    while (holders != 0 && changed.Wait(milliseconds))
    {
    }
}
