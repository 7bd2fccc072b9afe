#pragma once
// The one place that knows which library formats text. When the compilers offer std::format this header
// turns to it and nothing else changes.
//
// Format strings are given at run time (trace texts come from callers), so a bad one throws; the trace
// functions in Trace.h catch that. A null `const wchar_t*` argument counts as a bad one: print such
// pointers through TextOrEmpty or TextOr.

#include <string>
#include <string_view>

#include <fmt/format.h>
#include <fmt/xchar.h>

using WideFormatArguments = fmt::wformat_args;

// Formats with arguments bound by fmt::make_wformat_args. Throws std::exception's children on a bad format string.
inline std::wstring FormatArguments(std::wstring_view format, WideFormatArguments arguments)
{
    return fmt::vformat(fmt::basic_string_view<wchar_t>(format.data(), format.size()), arguments);
}

// Formats `arguments` into `format` (standard replacement field syntax). Throws on a bad format string.
template <class... Args>
std::wstring FormatText(std::wstring_view format, const Args&... arguments)
{
    return FormatArguments(format, fmt::make_wformat_args(arguments...));
}
