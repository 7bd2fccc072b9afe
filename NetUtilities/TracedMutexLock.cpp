#include "NetUtilities/TracedMutexLock.h"

#include <new>

#include "NetUtilities/FunctionName.h"
#include "NetUtilities/Trace.h"

namespace TracedLockDetail
{
void Write(std::wstring_view format, const std::wstring& mutexName, const std::source_location& location)
{
    constexpr std::uint16_t level = 5;
    LogFormat(Log::Source::NetMon, level, L"{}: {}", ShortFunctionName(location.function_name()),
              TraceFormat(0, format, mutexName));
}

void WriteIfPossible(std::wstring_view format, const std::wstring& mutexName,
                     const std::source_location& location) noexcept
{
    try
    {
        Write(format, mutexName, location);
    }
    catch (const std::bad_alloc&)
    {
        // The line is lost: the mutex is the thread's by now, or free again, and that is what counts.
        return;
    }
}

void WriteLock(const std::wstring& mutexName, const std::source_location& location)
{
    Write(L"    Lock ==>> {}", mutexName, location);
}

void WriteUnlock(const std::wstring& mutexName, const std::source_location& location) noexcept
{
    WriteIfPossible(L"  Unlock <<== {}", mutexName, location);
}

void WriteTryLock(const std::wstring& mutexName, const std::source_location& location) noexcept
{
    WriteIfPossible(L"Try Lock ==>> {}", mutexName, location);
}
} // namespace TracedLockDetail
