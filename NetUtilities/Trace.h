#pragma once
// The trace of the process. A function with work to do opens a ScopeTrace first; messages go through the functions
// below, on any thread. Nothing here reports a failure to its caller; only running out of memory while formatting
// raises.
//
// A message carries a source and a level. It passes when its level is at most the source's level (the global one
// if the source has none): 1 invalid parameters, 2 failures, 3 doubtful states, 4 the ordinary account, 5 detail
// and scopes, 6 the least important.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <source_location>
#include <string>
#include <string_view>

#include "NetUtilities/Format.h"

namespace Log
{
// Who speaks. The other values up to 36 belong to other programs of the product; each still has a level slot.
enum class Source : std::uint16_t
{
    General = 1,
    ConfigServer = 10,
    NetMon = 11,
    VpnLib = 14,
    Registry = 19,
    WiFi = 31,
    IpRoute = 34,
};

// Number of source values; this and above is out of range.
inline constexpr std::uint16_t SourceCount = 37;
} // namespace Log

// Sinks for scope lines that must not go through the Logger. Values that are not listed count as General.
enum class LogOutput
{
    Debugger = 0,      // OutputDebugString as "QRLC: {}\n", if the debug output switch is on
    FileLog = 1,       // the file logger, with "Debug: " in front
    DefaultSource = 2, // the Logger with its default source, level 5
    General = 3,       // the Logger with source 1, level 5
};

// Flag number of scopes that are always on; no bit of the trace flags.
inline constexpr unsigned AlwaysOnTraceFlag = 32;

// --- Null-safe text for format arguments ---

[[nodiscard]] inline const wchar_t* TextOr(const wchar_t* text, const wchar_t* substitute) noexcept
{
    return text != nullptr ? text : substitute;
}
[[nodiscard]] inline const wchar_t* TextOrEmpty(const wchar_t* text) noexcept
{
    return TextOr(text, L"");
}

// --- Formatting ---

// Formats a trace text. A bad format string gives "Exception format: '...' - ..." instead. A code other than 0
// appends " Error {} ({:#x})", and " - " with the system's text where the system knows the code.
[[nodiscard]] std::wstring TraceFormatArguments(std::uint32_t code, std::wstring_view format,
                                                WideFormatArguments arguments);

template <class... Args>
[[nodiscard]] std::wstring TraceFormat(std::uint32_t code, std::wstring_view format, const Args&... arguments)
{
    return TraceFormatArguments(code, format, fmt::make_wformat_args(arguments...));
}

// The system's text for a Win32 code or HRESULT (English), without carriage returns and trailing blanks or line
// feeds; empty if the system does not know the code.
[[nodiscard]] std::wstring SystemErrorText(std::uint32_t code);

// --- Messages ---

// Logs `text` as it stands.
void LogMessage(Log::Source source, std::uint16_t level, std::wstring_view text);
// The same with the Logger's default source.
void LogMessageDefault(std::uint16_t level, std::wstring_view text);
// Sets the default source of the Logger object there is now.
void SetDefaultLogSource(Log::Source source);

// Whether a line of this source and level would be kept at this moment.
[[nodiscard]] bool IsLineWanted(Log::Source source, std::uint16_t level);

// A line that nobody wants is not formatted: formatting is by far the larger part of what it costs.
template <class... Args>
void LogFormat(Log::Source source, std::uint16_t level, std::wstring_view format, const Args&... arguments)
{
    if (IsLineWanted(source, level))
    {
        LogMessage(source, level, TraceFormat(0, format, arguments...));
    }
}

template <class... Args>
void LogFormatDefault(std::uint16_t level, std::wstring_view format, const Args&... arguments)
{
    LogMessageDefault(level, TraceFormat(0, format, arguments...));
}

// Level 2 with the code appended; HRESULTs and Win32 codes alike.
template <class... Args>
void LogError(std::uint32_t code, std::wstring_view format, const Args&... arguments)
{
    LogMessageDefault(2, TraceFormat(code, format, arguments...));
}

template <class... Args>
void LogErrorSource(Log::Source source, std::uint32_t code, std::wstring_view format, const Args&... arguments)
{
    LogMessage(source, 2, TraceFormat(code, format, arguments...));
}

enum class BannerStyle
{
    Line = 0,   // one message: the centred text
    Framed = 1, // three messages: a row of fill characters, the centred text, a row
    Block = 2,  // one message of three lines behind a line feed
};

// Marks a spot in the trace with `text`, centred with one blank on each side in a row of `fill`, by default source.
void LogBanner(std::uint16_t level, std::wstring_view text, unsigned width = 60,
               BannerStyle style = BannerStyle::Framed, wchar_t fill = L'*');

// --- Other channels ---

// "QRLC: {}\n" around the text, to the debugger, if the debug output switch is on.
void WriteDebugger(std::wstring_view text);
// The same line put together without formatting.
void WriteDebuggerPlain(std::wstring_view text);
// "QRLC: location {} Line {} - {}\n", on the same switch.
void WriteDebuggerLocation(std::wstring_view text, std::source_location location = std::source_location::current());

// --- Switches ---

// The trace flags, read from the registry when the last reading is more than 10 whole seconds old.
[[nodiscard]] std::uint32_t GetTraceFlags();
// Tests one flag; number 32 (AlwaysOnTraceFlag) is always set. Other numbers count modulo 32.
[[nodiscard]] bool IsTraceFlagSet(unsigned bit);
// The registry's "TraceLevel", 4 if there is none.
[[nodiscard]] std::uint16_t ReadTraceLevel();
// The registry's "DebugOutput", read when the last reading is more than 10 whole seconds old; off if there is none.
[[nodiscard]] bool IsDebugOutputEnabled();

// The textual SID of an account. Returns 0, or the Win32 error with `out` left empty.
[[nodiscard]] DWORD AccountToTextualSid(const std::wstring& accountName, std::wstring& out);

// --- Scopes ---

using TraceSink = std::function<void(std::wstring_view)>;

struct LogOutputHelper
{
    // The sink of a LogOutput.
    [[nodiscard]] static TraceSink GetLogOutput(LogOutput output);
    // A sink that writes to the Logger with this source at level 5.
    [[nodiscard]] static TraceSink GetLogOutput(Log::Source source);
};

// Writes "Enter ==>" when made and "Exit  <==" when destroyed, if its flag is set at construction. A local
// variable at the head of a function.
class ScopeTrace
{
public:
    // `timing` 1 appends the elapsed time to the exit line. `detail` follows the function name behind " -- ".
    ScopeTrace(Log::Source source, unsigned flag, int timing = 0, std::wstring_view detail = {},
               std::source_location location = std::source_location::current());
    ScopeTrace(LogOutput output, unsigned flag, int timing = 0, std::wstring_view detail = {},
               std::source_location location = std::source_location::current());
    // Raises nothing: an exit line that there is no memory for is lost.
    ~ScopeTrace();
    ScopeTrace(const ScopeTrace&) = delete;
    ScopeTrace& operator=(const ScopeTrace&) = delete;

private:
    void Enter(std::wstring_view detail, const std::source_location& location);

    TraceSink sink;
    std::wstring name;
    bool active = false;
    bool timed = false;
    std::int64_t start = 0; // steady nanoseconds, with timing only
};

// The " - Elapsed ..." part of an exit line.
[[nodiscard]] std::wstring ElapsedText(std::int64_t nanoseconds);
