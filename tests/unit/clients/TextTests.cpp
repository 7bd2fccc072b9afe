#include "clients/halcydctl/Text.h"

#include <gtest/gtest.h>

#include "clients/halcydctl/SettingText.h"
#include "clients/halcydctl/Table.h"
#include "clients/halcydctl/TraceText.h"

using namespace Text;

TEST(ClientText, Utf8RoundTrip)
{
    const std::wstring text = L"Gr\u00fc\u00dfe \u4e2d \U0001F4F6";
    EXPECT_EQ(FromUtf8(ToUtf8(text)), text);
    EXPECT_EQ(ToUtf8(L"\u00fc"), "\xC3\xBC");
    EXPECT_EQ(ToUtf8(L""), "");
}

TEST(ClientText, ControlCharactersNeverReachATerminal)
{
    EXPECT_EQ(Printable(L"a\x1b[31mb\r\n\x7f\u009bz"), L"a\uFFFD[31mb\uFFFD\uFFFD\uFFFD\uFFFDz");
}

TEST(ClientText, WidthCountsColumns)
{
    EXPECT_EQ(Width(L"abc"), 3u);
    EXPECT_EQ(Width(L"\u4e2d\u6587"), 4u);
    EXPECT_EQ(Width(L"e\u0301"), 1u);
    EXPECT_EQ(Width(L"\U0001F4F6"), 2u);
    EXPECT_EQ(Width(Styled(L"abc", Style::Red)), 3u);
}

TEST(ClientText, CutKeepsToTheColumnsAndMarksTheCut)
{
    EXPECT_EQ(Cut(L"abcdef", 6), L"abcdef");
    EXPECT_EQ(Cut(L"abcdef", 4), L"abc\u2026");
    EXPECT_EQ(Cut(L"\u4e2d\u6587\u5b57", 4), L"\u4e2d\u2026");
    EXPECT_EQ(Cut(L"abc", 1), L"\u2026");
    EXPECT_EQ(Cut(L"abc", 0), L"");
}

TEST(ClientText, StylesComeApartAndGo)
{
    const std::wstring styled = L"a" + Styled(L"b", Style::Green) + L"c";
    EXPECT_EQ(Segments(styled),
              (std::vector<Segment>{{L"a", Style::Plain}, {L"b", Style::Green}, {L"c", Style::Plain}}));
    EXPECT_EQ(WithoutStyles(styled), L"abc");
    EXPECT_EQ(Styled(L"", Style::Red), L"");
    EXPECT_EQ(WithoutStyles(L"half \x1b["), L"half \x1b[");
}

TEST(ClientText, Speeds)
{
    EXPECT_EQ(Speed(0), L"-");
    EXPECT_EQ(Speed(100000000), L"100 Mbit/s");
    EXPECT_EQ(Speed(2500000000u), L"2.5 Gbit/s");
    EXPECT_EQ(Speed(1000000000), L"1 Gbit/s");
    EXPECT_EQ(Speed(54500000), L"54.5 Mbit/s");
    EXPECT_EQ(Speed(9600), L"9.6 kbit/s");
    EXPECT_EQ(Speed(999), L"999 bit/s");
}

TEST(ClientText, PrefixLengths)
{
    EXPECT_EQ(PrefixLength(L"255.255.255.0"), 24);
    EXPECT_EQ(PrefixLength(L"0.0.0.0"), 0);
    EXPECT_EQ(PrefixLength(L"255.255.255.255"), 32);
    EXPECT_EQ(PrefixLength(L"255.255.254.0"), 23);
    for (const wchar_t* const text :
         {L"255.0.255.0", L"", L"24", L"255.255.255", L"255.255.255.0.0", L"256.0.0.0", L"255.255.255.x", L"ffff::"})
    {
        EXPECT_EQ(PrefixLength(text), -1) << text;
    }
}

TEST(ClientText, HexAndMac)
{
    EXPECT_EQ(Hex(0x8004A024), L"0x8004A024");
    EXPECT_EQ(Hex(0), L"0x00000000");
    const unsigned char mac[6] = {0x00, 0x1A, 0xFF, 0x03, 0x40, 0x9C};
    EXPECT_EQ(MacText(mac), L"00:1A:FF:03:40:9C");
}

TEST(ClientTable, ColumnsLineUpAndTheLastOneIsNotPadded)
{
    Table table({{L"A", 0}, {L"Long title", 0}});
    table.AddRow({L"xyz", L"1"});
    table.AddRow({Styled(L"\u4e2d", Style::Red)});
    const std::vector<std::wstring> lines = table.Lines(0);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(WithoutStyles(lines[0]), L"A    Long title");
    EXPECT_EQ(WithoutStyles(lines[1]), std::wstring(15, L'-'));
    EXPECT_EQ(lines[2], L"xyz  1");
    EXPECT_EQ(WithoutStyles(lines[3]), L"\u4e2d   ");
}

TEST(ClientTable, ShrinksTheWidestColumnThatMayButNotBelowItsLimit)
{
    Table table({{L"A", 4}, {L"B", 0}, {L"C", 6}});
    table.AddRow({L"aaaaaaaaaaaaaaaa", L"bbbbbbbb", Styled(L"cccccccc", Style::Red)});
    EXPECT_EQ(WithoutStyles(table.Lines(28)[2]), L"aaaaaaa\u2026  bbbbbbbb  cccccccc");
    EXPECT_EQ(table.Lines(22)[2], L"aaa\u2026  bbbbbbbb  ccccc\u2026");
    EXPECT_EQ(table.Lines(5)[2], L"aaa\u2026  bbbbbbbb  ccccc\u2026");
}

TEST(ClientTable, ColumnsGoByTheirOrderWhenCuttingIsNotEnough)
{
    Table table({{L"A", 0, 0}, {L"B", 0, 1}, {L"C", 0, 2}});
    table.AddRow({L"aaaa", L"bbbb", L"cccc"});
    EXPECT_TRUE(table.FitsWhole(16));
    EXPECT_EQ(table.Lines(16)[2], L"aaaa  bbbb  cccc");
    EXPECT_FALSE(table.FitsWhole(15));
    EXPECT_EQ(table.Lines(15)[2], L"aaaa  bbbb");
    EXPECT_EQ(table.Lines(9)[2], L"aaaa");
    EXPECT_EQ(table.Lines(1)[2], L"aaaa");
}

TEST(ClientTraceText, LevelSourceAndTextStandInColumns)
{
    EXPECT_EQ(TraceLines(11, 4, L"text"), (std::vector<std::wstring>{L"4 NetMon       text"}));
    EXPECT_EQ(TraceLines(10, 4, L"text"), (std::vector<std::wstring>{L"4 ConfigServer text"}));
    EXPECT_EQ(TraceLines(27, 4, L"text"), (std::vector<std::wstring>{L"4 27           text"}));
}

TEST(ClientTraceText, LineBreaksGiveIndentedLinesAndTrailingOnesNone)
{
    EXPECT_EQ(TraceLines(1, 4, L"a\r\n\tb\n\n"),
              (std::vector<std::wstring>{L"4 General      a", L"                b"}));
}

TEST(ClientTraceText, FailuresAreRed)
{
    EXPECT_EQ(Segments(TraceLines(1, 2, L"x")[0])[0].style, Style::Red);
    EXPECT_EQ(Segments(TraceLines(1, 3, L"x")[0])[0].style, Style::Yellow);
    EXPECT_EQ(Segments(TraceLines(1, 5, L"x")[0])[0].style, Style::Faint);
}

TEST(ClientSettingText, AddressesWithMaskOrPrefix)
{
    EXPECT_EQ(SplitAddress("10.0.0.5/255.255.255.0"), (AddressAndMask{"10.0.0.5", "255.255.255.0"}));
    EXPECT_EQ(SplitAddress("10.0.0.5/24"), (AddressAndMask{"10.0.0.5", "255.255.255.0"}));
    EXPECT_EQ(SplitAddress("10.0.0.5/0"), (AddressAndMask{"10.0.0.5", "0.0.0.0"}));
    EXPECT_EQ(SplitAddress("10.0.0.5/32"), (AddressAndMask{"10.0.0.5", "255.255.255.255"}));
    EXPECT_EQ(SplitAddress("fe80::1/64"), (AddressAndMask{"fe80::1", "64"}));
    for (const char* const text : {"10.0.0.5", "10.0.0.5/", "/24", "10.0.0.5/33", "10.0.0.5/255.0.255.0", "10.0.0/24",
                                   "10.0.0.256/24", "fe80::1/129", "a/24", ""})
    {
        EXPECT_EQ(SplitAddress(text), std::nullopt) << text;
    }
}

TEST(ClientSettingText, Numbers)
{
    EXPECT_EQ(NumberFromText("42", 100), 42u);
    EXPECT_EQ(NumberFromText("0xFFFFFFFF", 0xFFFFFFFF), 0xFFFFFFFFu);
    EXPECT_EQ(NumberFromText("18446744073709551615", UINT64_MAX), UINT64_MAX);
    for (const char* const text : {"", "0x", "-1", "4x", "101", "18446744073709551616", " 1"})
    {
        EXPECT_EQ(NumberFromText(text, 100), std::nullopt) << text;
    }
}
