#pragma once

#include <windows.h>
#include <dbghelp.h>

#include <cstdlib>
#include <string>

// Installs the process's unhandled exception filter, which writes a crash dump, and the C library's invalid
// parameter handler, which traces and then takes the same road. Lives as long as the service's main function.
// The destructor puts back the invalid parameter handler only; the filter stays. That is required: a crash while the
// process ends still leaves a dump.
class CrashGuard
{
public:
    CrashGuard() noexcept;
    ~CrashGuard();
    CrashGuard(const CrashGuard&) = delete;
    CrashGuard& operator=(const CrashGuard&) = delete;

private:
    LPTOP_LEVEL_EXCEPTION_FILTER previousFilter;
    _invalid_parameter_handler previousHandler;
};

// Writes "<program>_<client version>_<time>.dmp" to the product's common data folder. Null pointers give a dump
// without exception information. Every failure is swallowed. Returns EXCEPTION_CONTINUE_SEARCH.
LONG WriteCrashDump(EXCEPTION_POINTERS* pointers) noexcept;

// The registry's "DumpType", read anew at each call; MiniDumpNormal if there is none.
[[nodiscard]] MINIDUMP_TYPE GetDumpType();

// Sends what the C runtime says on its way out (an abort, such as that behind an exception that nobody catches; a
// broken runtime check) to the error stream. Left to itself it asks in a dialogue, in a program without a console and
// under a service account too, and the process would then wait for somebody to answer instead of ending. For the whole
// process and for good: called first thing.
void KeepRuntimeFromAsking() noexcept;

namespace CrashText
{
// "<folder><program>_<version>_<stamp>.dmp"
[[nodiscard]] std::wstring DumpPath(const std::wstring& folder, const std::wstring& program,
                                    const std::wstring& version, const SYSTEMTIME& time);
} // namespace CrashText

// What CrashGuard hands to the C library. All arguments may be null.
void InvalidParameterHandler(const wchar_t* expression, const wchar_t* function, const wchar_t* file, unsigned line,
                             uintptr_t reserved);
