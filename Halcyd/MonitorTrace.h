#pragma once
// Trace shorthands of the network monitor: its source, and the level that each kind of line has.

#include <windows.h>

#include <cstdint>
#include <string_view>

#include "NetUtilities/Trace.h"

namespace MonitorTrace
{
// The ordinary account of what the monitor does.
template <class... Args>
void Note(std::wstring_view format, const Args&... arguments)
{
    LogFormat(Log::Source::NetMon, 4, format, arguments...);
}

// Detail that is worth reading only when something is being looked into.
template <class... Args>
void Detail(std::wstring_view format, const Args&... arguments)
{
    LogFormat(Log::Source::NetMon, 5, format, arguments...);
}

// A state that should not be, and that the monitor lives with.
template <class... Args>
void Doubt(std::wstring_view format, const Args&... arguments)
{
    LogFormat(Log::Source::NetMon, 3, format, arguments...);
}

// A failure without a code.
template <class... Args>
void Failure(std::wstring_view format, const Args&... arguments)
{
    LogFormat(Log::Source::NetMon, 2, format, arguments...);
}

// A failure with its code: a Win32 error or an HRESULT.
template <class... Args>
void FailureCode(DWORD code, std::wstring_view format, const Args&... arguments)
{
    LogErrorSource(Log::Source::NetMon, code, format, arguments...);
}

template <class... Args>
void FailureResult(HRESULT result, std::wstring_view format, const Args&... arguments)
{
    LogErrorSource(Log::Source::NetMon, static_cast<std::uint32_t>(result), format, arguments...);
}

// Handles and addresses print as numbers.
[[nodiscard]] inline std::uintptr_t Address(const volatile void* pointer) noexcept
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

// Three lines in one message behind a line break: a row of `fill`, the text, the same row.
void Banner(std::wstring_view text, wchar_t fill, std::size_t width);
// The banner of the discovery's account.
void StarBanner(std::wstring_view text);
// The banner of a miniport handle that could not be closed.
void MiniportClosingProblem();
} // namespace MonitorTrace
