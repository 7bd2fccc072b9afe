#include "Halcyd/CommandLine.h"

#include <gtest/gtest.h>

TEST(CommandLine, EachWordIsFoundInAnyCaseBehindEitherSwitchCharacter)
{
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -service"), CommandLineWord::Service);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe /SERVICE"), CommandLineWord::Service);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -RegServer"), CommandLineWord::RegServer);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe /regserver"), CommandLineWord::RegServer);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -uNREGsERVER"), CommandLineWord::UnregServer);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe /UnregServer"), CommandLineWord::UnregServer);
}

TEST(CommandLine, WordCountsOnlyAsTheLastThingOnTheLine)
{
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -Service now"), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -Service "), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe \"-Service\""), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -RegServer -Service"), CommandLineWord::Service);
}

TEST(CommandLine, DashInThePathStartsATokenThatMatchesNothing)
{
    EXPECT_EQ(FindCommandLineWord(L"\"C:\\Program-Files\\halcyd.exe\""), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"\"C:\\Program-Files\\halcyd.exe\" -Service"), CommandLineWord::Service);
}

TEST(CommandLine, OtherWordsArePassedOver)
{
    EXPECT_EQ(FindCommandLineWord(L"\"C:\\halcyd.exe\" -Embedding"), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"\"C:\\halcyd.exe\" -Embedding -Service"), CommandLineWord::Service);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -Services"), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe Service"), CommandLineWord::None);
}

TEST(CommandLine, TokenStartsBehindEverySwitchCharacterEvenInsideAWord)
{
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe --Service"), CommandLineWord::Service);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe x-service"), CommandLineWord::Service);
}

TEST(CommandLine, EmptyLineAndLoneSwitchHoldNoWord)
{
    EXPECT_EQ(FindCommandLineWord(L""), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"-"), CommandLineWord::None);
    EXPECT_EQ(FindCommandLineWord(L"halcyd.exe -/-"), CommandLineWord::None);
}
