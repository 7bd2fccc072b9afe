#pragma once

#include <windows.h>

#include <string>

#include "NetUtilities/Format.h"
#include "NetUtilities/Handles.h"

// Runs one (disabled) test of this program in a process of its own and returns that process's exit code: for what ends
// a process. Negative if it could not be run or did not end.
inline int RunChildTest(const wchar_t* test)
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = FormatText(L"\"{}\" --gtest_filter={} --gtest_also_run_disabled_tests", self, test);
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
