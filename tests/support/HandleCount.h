// How many handles a process holds: for tests that look for what is left behind.
#pragma once

#include <windows.h>

struct HandleCounts
{
    DWORD all = 0;
    // Without events and threads, which come and go with the pools that COM's calls run in, and without semaphores, of
    // which the platform makes one for a critical section when threads first meet there.
    DWORD lasting = 0;
};

// Kernel handles that the process holds now, exactly; none if there is no such process or it cannot be told.
// GetProcessHandleCount is not used: it answers 0 for every process here.
[[nodiscard]] HandleCounts CountHandles(DWORD processId);
