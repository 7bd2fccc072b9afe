#include "NetUtilities/TracedMutexLock.h"

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

void WriteLock(const std::wstring& mutexName, const std::source_location& location)
{
    Write(L"    Lock ==>> {}", mutexName, location);
}

void WriteUnlock(const std::wstring& mutexName, const std::source_location& location)
{
    Write(L"  Unlock <<== {}", mutexName, location);
}

void WriteTryLock(const std::wstring& mutexName, const std::source_location& location)
{
    Write(L"Try Lock ==>> {}", mutexName, location);
}
} // namespace TracedLockDetail
