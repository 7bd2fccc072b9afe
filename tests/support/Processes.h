// Processes started and watched by tests.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "NetUtilities/Handles.h"

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

// Number of kernel handles that a process holds, 0 if it cannot be asked.
[[nodiscard]] DWORD HandleCount(DWORD processId);

// What a process holds, to be compared before and after.
struct Holdings
{
    DWORD handles = 0;
    DWORD threads = 0;
};
[[nodiscard]] Holdings HoldingsOf(DWORD processId);

// Folder of the product's executables in the prepared prefix, with a trailing backslash.
[[nodiscard]] std::wstring ProductFolder();
