#include "NetUtilities/TraceStamp.h"

#include "NetUtilities/Clock.h"

// Written digit by digit: this is on every caller's path and a general formatter takes several times as long. The
// result equals "{:02}/{:02} {:02}:{:02}:{:02}.{:03} {:05x}-{:05x}: ".

namespace
{
wchar_t* Decimal(wchar_t* out, unsigned value, unsigned digits) noexcept
{
    for (unsigned place = digits; place-- > 0; value /= 10)
    {
        out[place] = static_cast<wchar_t>(L'0' + value % 10);
    }
    return out + digits;
}

// At least five digits, lower-case, leading zeros.
wchar_t* Hexadecimal(wchar_t* out, DWORD value) noexcept
{
    unsigned digits = 5;
    while (digits < 8 && (value >> (4 * digits)) != 0)
    {
        ++digits;
    }
    for (unsigned place = digits; place-- > 0; value >>= 4)
    {
        out[place] = L"0123456789abcdef"[value & 0xF];
    }
    return out + digits;
}
} // namespace

void TraceStamp::Append(std::wstring& line, const SYSTEMTIME& time, DWORD processId, DWORD threadId)
{
    wchar_t stamp[MaximumLength];
    wchar_t* at = stamp;
    at = Decimal(at, time.wMonth, 2);
    *at++ = L'/';
    at = Decimal(at, time.wDay, 2);
    *at++ = L' ';
    at = Decimal(at, time.wHour, 2);
    *at++ = L':';
    at = Decimal(at, time.wMinute, 2);
    *at++ = L':';
    at = Decimal(at, time.wSecond, 2);
    *at++ = L'.';
    at = Decimal(at, time.wMilliseconds, 3);
    *at++ = L' ';
    at = Hexadecimal(at, processId);
    *at++ = L'-';
    at = Hexadecimal(at, threadId);
    *at++ = L':';
    *at++ = L' ';
    line.append(stamp, static_cast<std::size_t>(at - stamp));
}

void TraceStamp::AppendNow(std::wstring& line)
{
    SYSTEMTIME now;
    Clock::Current().LocalTime(now);
    Append(line, now, GetCurrentProcessId(), GetCurrentThreadId());
}
