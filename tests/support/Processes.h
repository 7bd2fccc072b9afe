// Processes started and watched by tests.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "NetUtilities/Handles.h"
#include "tests/support/HandleCount.h"

struct FinishedProcess
{
    bool started = false;
    bool timedOut = false;
    DWORD exitCode = 0;
    std::string output; // standard output and standard error together
};

// Runs a command line to its end (or ends it when the time runs out) and collects what it printed.
[[nodiscard]] FinishedProcess RunProcess(const std::wstring& commandLine, DWORD timeoutMs = 60'000);

// Starts a command line and leaves it running; the caller owns the process handle.
[[nodiscard]] UniqueHandle StartProcess(const std::wstring& commandLine, DWORD* processId = nullptr);

// Ids of all processes with this executable file name, letter case ignored.
[[nodiscard]] std::vector<DWORD> FindProcesses(const std::wstring& executableName);

// Ends one process at once, as a crash would, and waits until it has gone.
bool KillProcess(DWORD processId);

// What a process holds, to be compared before and after.
struct Holdings
{
    HandleCounts handles;
    DWORD threads = 0;
};
[[nodiscard]] Holdings HoldingsOf(DWORD processId);

// What a process holds at rest: the least of each figure. The trace goes out behind the calls, and the threads of the
// pools, which calls come in with and go out with, leave after some five seconds without work: so this looks until for
// longer than that nothing has become less and the process has not been busy, or until there is no more than `enough`.
// A process that does not come to rest is taken as it is after a minute. The pools wait in the machine's time, so in
// ten-fold time all of this takes ten times as long.
[[nodiscard]] Holdings HoldingsAtRest(DWORD processId, const Holdings& enough = {});

// Expects that a service comes to hold what it held before: a connection more of COM's (a pipe, a thread, some events)
// at most, and what `kept` calls, which were made to fail, could not give back (a handle each, or a thread with its
// events).
void ExpectNoMoreHeld(DWORD processId, const Holdings& before, DWORD kept = 0);

// Bytes that a process (opened for queries) has in use for itself, without the stacks of its threads, which come and go
// with the pools. The PrivateUsage of GetProcessMemoryInfo is not used: it is 0 here.
[[nodiscard]] SIZE_T PrivateBytes(HANDLE process);

// Folder of the product's executables in the prepared prefix, with a trailing backslash.
[[nodiscard]] std::wstring ProductFolder();
