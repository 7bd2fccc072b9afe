#include <windows.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "NetUtilities/Format.h"
#include "NetUtilities/Trace.h"
#include "NetUtilities/TraceStamp.h"

namespace
{
TEST(TraceStamp, KeepsItsFormatForAllFieldWidths)
{
    const WORD values[] = {0, 1, 9, 10, 12, 59, 99};
    const DWORD ids[] = {0, 1, 0x1A2C, 0xFFFFF, 0x100000, 0x12345678, 0xFFFFFFFF};
    for (const WORD value : values)
    {
        for (const DWORD processId : ids)
        {
            for (const DWORD threadId : ids)
            {
                SYSTEMTIME time{};
                time.wMonth = value;
                time.wDay = static_cast<WORD>(99 - value);
                time.wHour = value;
                time.wMinute = static_cast<WORD>(99 - value);
                time.wSecond = value;
                time.wMilliseconds = static_cast<WORD>(value * 10 + 3);
                std::wstring stamp = L"x";
                TraceStamp::Append(stamp, time, processId, threadId);
                EXPECT_EQ(FormatText(L"x{:02}/{:02} {:02}:{:02}:{:02}.{:03} {:05x}-{:05x}: ", time.wMonth, time.wDay,
                                     time.wHour, time.wMinute, time.wSecond, time.wMilliseconds, processId, threadId),
                          stamp);
            }
        }
    }
}

TEST(TraceStamp, ReadsAsInTheExample)
{
    SYSTEMTIME time{};
    time.wMonth = 11;
    time.wDay = 14;
    time.wHour = 17;
    time.wMinute = 13;
    time.wSecond = 37;
    time.wMilliseconds = 123;
    std::wstring stamp;
    TraceStamp::Append(stamp, time, 0x1A2C, 0x1F04);
    EXPECT_EQ(L"11/14 17:13:37.123 01a2c-01f04: ", stamp);
}

TEST(TraceFormat, CodeZeroAddsNoSuffix)
{
    EXPECT_EQ(L"a 1 b", TraceFormat(0, L"a {} b", 1));
}

TEST(TraceFormat, KnownCodeAddsNumberAndSystemText)
{
    EXPECT_EQ(L"could not open SCM Error 5 (0x5) - " + SystemErrorText(5),
              TraceFormat(5, L"could not open {}", L"SCM"));
    // Wine says "Access denied.", Windows "Access is denied."
    EXPECT_TRUE(SystemErrorText(5).starts_with(L"Access ") && SystemErrorText(5).ends_with(L"denied."));
}

TEST(TraceFormat, UnknownCodeAddsTheNumberOnly)
{
    EXPECT_EQ(L"x Error 3735928559 (0xdeadbeef)", TraceFormat(0xDEADBEEF, L"x"));
}

TEST(TraceFormat, SystemTextHasNoCarriageReturnsAndNoTrailingBlanksOrLineFeeds)
{
    for (std::uint32_t code = 1; code < 2000; ++code)
    {
        const std::wstring text = SystemErrorText(code);
        EXPECT_EQ(std::wstring::npos, text.find(L'\r')) << code;
        EXPECT_FALSE(text.ends_with(L'\n') || text.ends_with(L' ')) << code;
    }
}

TEST(TraceFormat, BadFormatStringGivesAnExceptionLineAndTheCallerGoesOn)
{
    EXPECT_TRUE(TraceFormat(0, L"broken {", 1).starts_with(L"Exception format: 'broken {' - "));
    EXPECT_TRUE(TraceFormat(0, L"{} {}", 1).starts_with(L"Exception format: '{} {}' - "));
    EXPECT_TRUE(TraceFormat(0, L"{:d}", L"text").starts_with(L"Exception format: '{:d}' - "));
    EXPECT_GT(TraceFormat(0, L"broken {", 1).size(), std::wstring(L"Exception format: 'broken {' - ").size());
}

TEST(TraceFormat, BadFormatStringKeepsItsErrorCode)
{
    EXPECT_TRUE(TraceFormat(0xDEADBEEF, L"{", 1).ends_with(L" Error 3735928559 (0xdeadbeef)"));
}

TEST(TraceFormat, NullTextIsPrintedThroughASubstitute)
{
    const wchar_t* nothing = nullptr;
    EXPECT_EQ(L"[] [Null] [x]",
              TraceFormat(0, L"[{}] [{}] [{}]", TextOrEmpty(nothing), TextOr(nothing, L"Null"), TextOrEmpty(L"x")));
    EXPECT_TRUE(TraceFormat(0, L"{}", nothing).starts_with(L"Exception format: '{}' - "));
}

TEST(ElapsedText, ChangesItsUnitBehindAThousand)
{
    EXPECT_EQ(L" - Elapsed 0ns", ElapsedText(0));
    EXPECT_EQ(L" - Elapsed 1000ns", ElapsedText(1000));
    EXPECT_EQ(L" - Elapsed 1us", ElapsedText(1001));
    EXPECT_EQ(L" - Elapsed 1000us", ElapsedText(1'000'999));
    EXPECT_EQ(L" - Elapsed 1ms", ElapsedText(1'001'000));
    EXPECT_EQ(L" - Elapsed 1000ms", ElapsedText(1'000'999'999));
    EXPECT_EQ(L" - Elapsed 1.001s", ElapsedText(1'001'000'000));
    EXPECT_EQ(L" - Elapsed 61.500s", ElapsedText(61'500'000'000));
}
} // namespace
