#pragma once
// The stamp in front of every trace line.

#include <windows.h>

#include <cstddef>
#include <string>

namespace TraceStamp
{
// "MM/DD hh:mm:ss.mmm ppppp-ttttt: " with ids of more than five hexadecimal digits growing.
inline constexpr std::size_t MaximumLength = 19 + 8 + 1 + 8 + 2;

// Appends the stamp for this time, process id and thread id.
void Append(std::wstring& line, const SYSTEMTIME& time, DWORD processId, DWORD threadId);

// Appends the stamp for now, on this thread.
void AppendNow(std::wstring& line);
} // namespace TraceStamp
