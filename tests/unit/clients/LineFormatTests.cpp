#include "clients/TraceStore/LineFormat.h"

#include <gtest/gtest.h>

using TraceFile::AppendRecord;
using TraceFile::Line;
using TraceFile::ParseRecords;

namespace
{
std::string Record(std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    std::string bytes;
    AppendRecord(bytes, source, level, text);
    return bytes;
}
} // namespace

TEST(TraceLineFormat, RecordIsSourceLevelAndText)
{
    EXPECT_EQ(Record(10, 4, L"11/14 17:13:37.123 01a2c-01f04: text"), "10 4 11/14 17:13:37.123 01a2c-01f04: text\n");
}

TEST(TraceLineFormat, LineBreaksInsideATextAreFollowedByATab)
{
    EXPECT_EQ(Record(1, 2, L"a\nb\n"), "1 2 a\n\tb\n\t\n");
}

TEST(TraceLineFormat, TextsComeBackExactly)
{
    for (const std::wstring& text :
         {std::wstring(L""), std::wstring(L"plain"), std::wstring(L"\n"), std::wstring(L"a\r\nb\n\n\tc"),
          std::wstring(L"\t# 1 2 x"), std::wstring(L"Gr\u00fc\u00dfe \u4e2d\u6587 \U0001F4F6")})
    {
        const std::vector<Line> lines =
            ParseRecords("# note\n" + Record(11, 4, L"before") + Record(36, 6, text) + Record(0, 65535, L"behind"));
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[1].source, 36);
        EXPECT_EQ(lines[1].level, 6);
        EXPECT_EQ(lines[1].text, text);
        EXPECT_EQ(lines[2].text, L"behind");
        EXPECT_EQ(lines[2].level, 65535);
    }
}

TEST(TraceLineFormat, UnpairedSurrogateBecomesTheReplacementCharacter)
{
    const std::vector<Line> lines = ParseRecords(Record(1, 1, std::wstring(L"a") + wchar_t(0xD800) + L"b"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, L"a\uFFFDb");
}

TEST(TraceLineFormat, TornTailIsDropped)
{
    EXPECT_EQ(ParseRecords("1 2 whole\n1 2 to").size(), 1u);
    EXPECT_TRUE(ParseRecords("1 2 begun\n\tto").empty());
    EXPECT_TRUE(ParseRecords("1 2 to").empty());
}

TEST(TraceLineFormat, StartInTheMiddleOfARecordIsSkipped)
{
    const std::vector<Line> lines = ParseRecords("\ttail of something\n3 4 whole\n");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, L"whole");
}

TEST(TraceLineFormat, LinesWithoutNumbersAreSkipped)
{
    EXPECT_TRUE(ParseRecords("garbage\n1 x y\n1\n\n70000 1 x\n").empty());
}

TEST(TraceLineFormat, LongTextIsCutWithAMarkAndNeverInsideAPair)
{
    const std::wstring longest(TraceFile::MaximumText, L'x');
    EXPECT_EQ(TraceFile::Limit(longest), longest);
    EXPECT_EQ(TraceFile::Limit(longest + L"y"), longest + std::wstring(TraceFile::CutMark));
    std::wstring pair(TraceFile::MaximumText - 1, L'x');
    pair += L"\U0001F4F6\U0001F4F6";
    EXPECT_EQ(TraceFile::Limit(pair), pair.substr(0, TraceFile::MaximumText - 1) + std::wstring(TraceFile::CutMark));
}
