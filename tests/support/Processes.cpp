#include "tests/support/Processes.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cwchar>
#include <string_view>

namespace
{

// Moves what the pipe holds now into `text`.
void Drain(HANDLE pipe, std::string& text)
{
    char buffer[4096];
    DWORD available = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0)
    {
        DWORD read = 0;
        if (!ReadFile(pipe, buffer, sizeof buffer, &read, nullptr) || read == 0)
        {
            return;
        }
        text.append(buffer, read);
    }
}

// Collects output until the process has ended; false when the time runs out first. The end of the pipe is no mark
// to wait for: a desktop that the process starts inherits the other end and keeps it open for good.
bool CollectUntilEnd(HANDLE process, HANDLE pipe, DWORD timeoutMs, std::string& text)
{
    const ULONGLONG limit = GetTickCount64() + timeoutMs;
    for (;;)
    {
        const bool ended = WaitForSingleObject(process, 5) == WAIT_OBJECT_0;
        Drain(pipe, text);
        if (ended)
        {
            return true;
        }
        if (GetTickCount64() > limit)
        {
            return false;
        }
    }
}

bool Launch(const std::wstring& commandLine, HANDLE output, PROCESS_INFORMATION& process)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    if (output != nullptr)
    {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = output;
        startup.hStdError = output;
    }
    std::wstring line = commandLine; // CreateProcessW may write into it
    return CreateProcessW(nullptr, line.data(), nullptr, nullptr, output != nullptr, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &process) != FALSE;
}

// One look at a process.
struct Look
{
    Holdings held;
    ULONGLONG worked = 0; // what its threads have worked so far, in 100 ns
};

ULONGLONG Number(const FILETIME& time)
{
    return static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

// 0 for a thread that has gone.
ULONGLONG WorkOf(DWORD threadId)
{
    FILETIME created{};
    FILETIME ended{};
    FILETIME kernel{};
    FILETIME user{};
    const UniqueHandle thread{OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId)};
    if (!thread || !GetThreadTimes(thread.get(), &created, &ended, &kernel, &user))
    {
        return 0;
    }
    return Number(kernel) + Number(user);
}

bool NoMoreThan(const Holdings& held, const Holdings& limit)
{
    return held.handles.all <= limit.handles.all && held.handles.lasting <= limit.handles.lasting &&
           held.threads <= limit.threads;
}

Holdings Least(const Holdings& one, const Holdings& other)
{
    return {{std::min(one.handles.all, other.handles.all), std::min(one.handles.lasting, other.handles.lasting)},
            std::min(one.threads, other.threads)};
}

Look LookAt(DWORD processId)
{
    Look look;
    look.held.handles = CountHandles(processId);
    const UniqueHandle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0)};
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more; more = Thread32Next(snapshot.get(), &entry))
    {
        if (entry.th32OwnerProcessID == processId)
        {
            ++look.held.threads;
            look.worked += WorkOf(entry.th32ThreadID);
        }
    }
    return look;
}

} // namespace

FinishedProcess RunProcess(const std::wstring& commandLine, DWORD timeoutMs)
{
    FinishedProcess result;
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0))
        return result;
    const UniqueHandle reading{readEnd};
    UniqueHandle writing{writeEnd};
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    PROCESS_INFORMATION info{};
    if (!Launch(commandLine, writeEnd, info))
        return result;
    writing.reset();
    const UniqueHandle process{info.hProcess};
    const UniqueHandle thread{info.hThread};
    result.started = true;
    if (!CollectUntilEnd(process.get(), readEnd, timeoutMs, result.output))
    {
        result.timedOut = true;
        TerminateProcess(process.get(), 0xDEAD);
        WaitForSingleObject(process.get(), INFINITE);
    }
    GetExitCodeProcess(process.get(), &result.exitCode);
    return result;
}

UniqueHandle StartProcess(const std::wstring& commandLine, DWORD* processId)
{
    PROCESS_INFORMATION info{};
    if (!Launch(commandLine, nullptr, info))
        return UniqueHandle{};
    const UniqueHandle thread{info.hThread};
    if (processId != nullptr)
        *processId = info.dwProcessId;
    return UniqueHandle{info.hProcess};
}

std::vector<DWORD> FindProcesses(const std::wstring& executableName)
{
    std::vector<DWORD> ids;
    const UniqueHandle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
    if (!snapshot)
        return ids;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry))
    {
        if (_wcsicmp(entry.szExeFile, executableName.c_str()) == 0)
            ids.push_back(entry.th32ProcessID);
    }
    return ids;
}

bool KillProcess(DWORD processId)
{
    const UniqueHandle process{OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, processId)};
    if (!process || !TerminateProcess(process.get(), 0xDEAD))
        return false;
    return WaitForSingleObject(process.get(), 30'000) == WAIT_OBJECT_0;
}

Holdings HoldingsOf(DWORD processId)
{
    return LookAt(processId).held;
}

Holdings HoldingsAtRest(DWORD processId, const Holdings& enough)
{
    constexpr ULONGLONG busy = 200'000; // worked between two looks: a tenth of the time
    const std::string_view suite = testing::UnitTest::GetInstance()->current_test_info()->test_suite_name();
    const DWORD speed = suite.starts_with("Fast10_") ? 10 : 1;
    const ULONGLONG quietMs = 6'500ULL * speed;
    const ULONGLONG limitMs = 60'000ULL * speed;
    const ULONGLONG start = GetTickCount64();
    ULONGLONG since = start;
    Look last = LookAt(processId);
    Holdings least = last.held;
    for (ULONGLONG now = start; now - since < quietMs && now - start < limitMs; now = GetTickCount64())
    {
        if (NoMoreThan(least, enough))
        {
            break;
        }
        Sleep(200 * speed);
        const Look look = LookAt(processId);
        if (!NoMoreThan(least, look.held) || look.worked > last.worked + busy)
        {
            since = GetTickCount64();
        }
        least = Least(least, look.held);
        last = look;
    }
    return least;
}

void ExpectNoMoreHeld(DWORD processId, const Holdings& before, DWORD kept)
{
    const Holdings limit{{before.handles.all + 4 * kept + 8, before.handles.lasting + kept + 1},
                         before.threads + kept + 1};
    const Holdings after = HoldingsAtRest(processId, limit);
    EXPECT_LE(after.handles.lasting, limit.handles.lasting) << "before: " << before.handles.lasting;
    EXPECT_LE(after.handles.all, limit.handles.all) << "before: " << before.handles.all;
    EXPECT_LE(after.threads, limit.threads) << "before: " << before.threads;
}

SIZE_T PrivateBytes(HANDLE process)
{
    SIZE_T bytes = 0;
    SIZE_T ofAllocation = 0;
    bool isStack = false;
    const void* allocation = nullptr;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* at = nullptr; VirtualQueryEx(process, at, &region, sizeof region) == sizeof region;
         at = static_cast<const char*>(region.BaseAddress) + region.RegionSize)
    {
        if (region.AllocationBase != allocation)
        {
            bytes += isStack ? 0 : ofAllocation;
            allocation = region.AllocationBase;
            ofAllocation = 0;
            isStack = false;
        }
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
        {
            ofAllocation += region.RegionSize;
            isStack = isStack || (region.Protect & PAGE_GUARD) != 0; // where a stack would grow to
        }
    }
    bytes += isStack ? 0 : ofAllocation;
    EXPECT_GT(bytes, 0u);
    return bytes;
}

std::wstring ProductFolder()
{
    return L"C:\\Program Files\\Halcyd\\";
}
