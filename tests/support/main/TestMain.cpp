// The main of every test program. A crash must never read as a pass: whatever ends the process other than the test
// runner's own return gives an exit code that says so.

#include <windows.h>

#include <gtest/gtest.h>
#include <objbase.h>

#include <cstdio>
#include <cwchar>
#include <exception>
#include <string>

#include "tests/support/main/ChildProcess.h"

namespace
{

constexpr UINT kCrashed = 70;
constexpr UINT kTerminated = 71;
constexpr int kNoSuchChild = 72;

// Ends the process at once: no debugger, no dialogue, no exit handler that could change the code.
LONG WINAPI OnCrash(EXCEPTION_POINTERS* pointers)
{
    std::fprintf(stderr, "crashed: exception 0x%08lx at %p\n", pointers->ExceptionRecord->ExceptionCode,
                 pointers->ExceptionRecord->ExceptionAddress);
    std::fflush(stderr);
    TerminateProcess(GetCurrentProcess(), kCrashed);
    return EXCEPTION_EXECUTE_HANDLER;
}

[[noreturn]] void OnTerminate()
{
    std::fprintf(stderr, "terminated: an exception that nobody caught\n");
    std::fflush(stderr);
    TerminateProcess(GetCurrentProcess(), kTerminated);
    std::abort();
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    SetUnhandledExceptionFilter(OnCrash);
    std::set_terminate(OnTerminate);
    testing::InitGoogleTest(&argc, argv);
    if (argc == 3 && std::wcscmp(argv[1], L"--child") == 0)
    {
        const std::wstring name(argv[2]);
        if (!ChildProcess::Choose(std::string(name.begin(), name.end())))
        {
            return kNoSuchChild;
        }
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    const int result = RUN_ALL_TESTS();
    std::fflush(stdout);
    CoUninitialize();
    return result;
}
