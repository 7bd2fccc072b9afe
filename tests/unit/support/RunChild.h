#pragma once

#include <windows.h>

#include <string>

#include "NetUtilities/Handles.h"
#include "tests/support/main/ChildProcess.h"

// Runs a CHILD_PROCESS of this program and returns its exit code: for what ends a process. Negative if it could not be
// run or did not end.
inline int RunChild(const char* name)
{
    std::wstring command = ChildCommandLine(name);
    STARTUPINFOW start{};
    start.cb = sizeof(start);
    PROCESS_INFORMATION process{};
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &process) ==
        FALSE)
    {
        return -1;
    }
    const UniqueHandle thread(process.hThread);
    const UniqueHandle handle(process.hProcess);
    constexpr DWORD limit = 60000;
    DWORD code = 0;
    if (WaitForSingleObject(handle.get(), limit) != WAIT_OBJECT_0 || GetExitCodeProcess(handle.get(), &code) == FALSE)
    {
        TerminateProcess(handle.get(), 1);
        return -2;
    }
    return static_cast<int>(code);
}
