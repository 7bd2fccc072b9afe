#include "NetUtilities/Trace.h"

#include <exception>
#include <new>

#include "NetUtilities/Clock.h"
#include "NetUtilities/FileLogger.h"
#include "NetUtilities/FunctionName.h"
#include "NetUtilities/Logger.h"

namespace
{
constexpr std::uint16_t ScopeLevel = 5;

std::wstring Widen(const char* text)
{
    std::wstring wide;
    for (; *text != '\0'; ++text)
    {
        wide += static_cast<wchar_t>(static_cast<unsigned char>(*text));
    }
    return wide;
}

void OutputIfEnabled(const std::wstring& line)
{
    if (IsDebugOutputEnabled())
    {
        OutputDebugStringW(line.c_str());
    }
}
} // namespace

std::wstring TraceFormatArguments(std::uint32_t code, std::wstring_view format, WideFormatArguments arguments)
{
    std::wstring text;
    try
    {
        text = FormatArguments(format, arguments);
    }
    catch (const std::bad_alloc&)
    {
        throw;
    }
    catch (const std::exception& failure)
    {
        text = FormatText(L"Exception format: '{}' - {}", format, Widen(failure.what()));
    }
    if (code != 0)
    {
        text += FormatText(L" Error {} ({:#x})", code, code);
        if (const std::wstring known = SystemErrorText(code); !known.empty())
        {
            text += L" - ";
            text += known;
        }
    }
    return text;
}

std::wstring SystemErrorText(std::uint32_t code)
{
    constexpr DWORD english = 1033;
    wchar_t buffer[512] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                                        english, buffer, static_cast<DWORD>(std::size(buffer)), nullptr);
    std::wstring text(buffer, length);
    std::erase(text, L'\r');
    while (!text.empty() && (text.back() == L'\n' || text.back() == L' '))
    {
        text.pop_back();
    }
    return text;
}

bool IsLineWanted(Log::Source source, std::uint16_t level)
{
    const auto logger = Logger::Instance();
    return logger && logger->Wants(static_cast<std::uint16_t>(source), level);
}

void LogMessage(Log::Source source, std::uint16_t level, std::wstring_view text)
{
    if (const auto logger = Logger::Instance())
    {
        logger->Write(static_cast<std::uint16_t>(source), level, text);
    }
}

void LogMessageDefault(std::uint16_t level, std::wstring_view text)
{
    if (const auto logger = Logger::Instance())
    {
        logger->WriteDefault(level, text);
    }
}

void SetDefaultLogSource(Log::Source source)
{
    if (const auto logger = Logger::Instance())
    {
        logger->SetDefaultSource(static_cast<std::uint16_t>(source));
    }
}

void LogBanner(std::uint16_t level, std::wstring_view text, unsigned width, BannerStyle style, wchar_t fill)
{
    const auto centred = [&](std::wstring_view content)
    {
        std::wstring format = L"{:-^{}}";
        format[2] = fill;
        return TraceFormat(0, format, content, width);
    };
    const std::wstring title = centred(text.empty() ? std::wstring() : FormatText(L" {} ", text));
    const std::wstring row = centred(L"");
    switch (style)
    {
    case BannerStyle::Framed:
        LogMessageDefault(level, row);
        LogMessageDefault(level, title);
        LogMessageDefault(level, row);
        break;
    case BannerStyle::Block:
        LogMessageDefault(level, L"\n" + row + L"\n" + title + L"\n" + row);
        break;
    case BannerStyle::Line:
    default:
        LogMessageDefault(level, title);
        break;
    }
}

void WriteDebugger(std::wstring_view text)
{
    OutputIfEnabled(FormatText(L"QRLC: {}\n", text));
}

void WriteDebuggerPlain(std::wstring_view text)
{
    OutputIfEnabled(L"QRLC: " + std::wstring(text) + L"\n");
}

void WriteDebuggerLocation(std::wstring_view text, std::source_location location)
{
    OutputIfEnabled(FormatText(L"QRLC: location {} Line {} - {}\n", ShortFunctionName(location.function_name()),
                               location.line(), text));
}

TraceSink LogOutputHelper::GetLogOutput(LogOutput output)
{
    switch (output)
    {
    case LogOutput::Debugger:
        return [](std::wstring_view text) { WriteDebugger(text); };
    case LogOutput::FileLog:
        return [](std::wstring_view text) { WriteToFileLog(L"Debug: " + std::wstring(text)); };
    case LogOutput::DefaultSource:
        return [](std::wstring_view text) { LogMessageDefault(ScopeLevel, text); };
    case LogOutput::General:
    default:
        return GetLogOutput(Log::Source::General);
    }
}

TraceSink LogOutputHelper::GetLogOutput(Log::Source source)
{
    return [source](std::wstring_view text) { LogMessage(source, ScopeLevel, text); };
}

ScopeTrace::ScopeTrace(Log::Source source, unsigned flag, int timing, std::wstring_view detail,
                       std::source_location location)
{
    // The flag is looked at before the name is made, which costs more: the lines are the same.
    if (IsTraceFlagSet(flag))
    {
        sink = LogOutputHelper::GetLogOutput(source);
        timed = timing == 1;
        Enter(detail, location);
    }
}

ScopeTrace::ScopeTrace(LogOutput output, unsigned flag, int timing, std::wstring_view detail,
                       std::source_location location)
{
    if (IsTraceFlagSet(flag))
    {
        sink = LogOutputHelper::GetLogOutput(output);
        timed = timing == 1;
        Enter(detail, location);
    }
}

void ScopeTrace::Enter(std::wstring_view detail, const std::source_location& location)
{
    name = ShortFunctionName(location.function_name());
    if (!detail.empty())
    {
        name += L" -- ";
        name += detail;
    }
    active = true;
    sink(FormatText(L"Enter ==> {} pid {:05x} tid {:05x}", name, GetCurrentProcessId(), GetCurrentThreadId()));
    if (timed)
    {
        start = Clock::Current().SteadyNanoseconds();
    }
}

ScopeTrace::~ScopeTrace()
{
    if (!active)
    {
        return;
    }
    try
    {
        std::wstring line =
            FormatText(L"Exit  <== {} pid {:05x} tid {:05x}", name, GetCurrentProcessId(), GetCurrentThreadId());
        if (timed)
        {
            line += ElapsedText(Clock::Current().SteadyNanoseconds() - start);
        }
        sink(line);
    }
    catch (const std::bad_alloc&)
    {
        // The line is lost. Raised from here it would end the process.
        active = false;
    }
}

std::wstring ElapsedText(std::int64_t nanoseconds)
{
    // Each value carries its unit, as durations print: the number alone would not tell 5 us from 5 ms.
    constexpr std::int64_t step = 1000;
    if (nanoseconds <= step)
    {
        return FormatText(L" - Elapsed {}ns", nanoseconds);
    }
    const std::int64_t microseconds = nanoseconds / step;
    if (microseconds <= step)
    {
        return FormatText(L" - Elapsed {}us", microseconds);
    }
    const std::int64_t milliseconds = microseconds / step;
    if (milliseconds <= step)
    {
        return FormatText(L" - Elapsed {}ms", milliseconds);
    }
    return FormatText(L" - Elapsed {:01.3f}s", static_cast<double>(milliseconds) / 1000.0);
}
