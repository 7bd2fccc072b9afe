#include "NetUtilities/FileLogger.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "NetUtilities/PathData.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
namespace fs = std::filesystem;

// The product's file logger never writes. Its writing is tested all the same, with the switch turned by a child class.
class WritingLogger : public FileLogger
{
public:
    explicit WritingLogger(const fs::path& folder, bool enabled = true, const wchar_t* base = L"Unit")
    {
        logFolder = folder.wstring();
        baseName = base;
        moduleName = L"Unit.exe";
        writingEnabled = enabled;
    }
};

class FileLoggerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        folder = fs::temp_directory_path() / "HalcydFileLoggerTest";
        fs::remove_all(folder);
        fs::create_directories(folder);
        SetDay(14);
    }
    void TearDown() override { fs::remove_all(folder); }

    void SetDay(WORD day)
    {
        SYSTEMTIME time{};
        time.wYear = 2026;
        time.wMonth = 11;
        time.wDay = day;
        clock.SetLocalTime(time);
    }
    std::string Content(const char* name)
    {
        std::ifstream file(folder / name, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        std::string content = text.str();
        std::erase(content, '\r');
        if (content.starts_with("\xEF\xBB\xBF"))
        {
            content.erase(0, 3);
        }
        return content;
    }

    // A stop that comes before the thread first runs ends it with no work, so tests of what is written wait for a text.
    // Only a failing test waits to the end.
    void WaitFor(const char* name, const char* text)
    {
        for (int tries = 0; tries < 1000; ++tries)
        {
            if (Content(name).find(text) != std::string::npos)
            {
                return;
            }
            ::Sleep(5);
        }
        ADD_FAILURE() << text << " did not appear in " << name << ": " << Content(name);
    }

    VirtualClock clock;
    fs::path folder;
};

TEST_F(FileLoggerTest, WithWritingOffLinesVanishAndNoFileAppears)
{
    {
        WritingLogger logger(folder, false);
        logger.Write(L"one\n");
        logger.Write(L"two\n");
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileLoggerTest, ProcessLoggerWritesNoFile)
{
    WriteToFileLog(L"Info:  a line");
    RestartTrace();
    for (const auto& entry : fs::directory_iterator(fs::path(GetDataFolder())))
    {
        EXPECT_NE(L".log", entry.path().extension()) << entry.path();
    }
}

TEST_F(FileLoggerTest, RunIsFramedByBeginAndEnd)
{
    {
        WritingLogger logger(folder);
        logger.Write(L"one\n");
        logger.Write(L"two \x20AC\n");
        WaitFor("Unit_2026-11-14.log", "two");
    }
    EXPECT_EQ("Begin Log - Unit.exe\none\ntwo \xE2\x82\xAC\nEnd Log - Unit.exe\n", Content("Unit_2026-11-14.log"));
}

TEST_F(FileLoggerTest, SecondRunOfADayStartsWithAnEmptyLine)
{
    {
        WritingLogger logger(folder);
        logger.Write(L"one\n");
        WaitFor("Unit_2026-11-14.log", "one");
    }
    {
        WritingLogger logger(folder);
        logger.Write(L"two\n");
        WaitFor("Unit_2026-11-14.log", "two");
    }
    EXPECT_EQ("Begin Log - Unit.exe\none\nEnd Log - Unit.exe\n\nBegin Log - Unit.exe\ntwo\nEnd Log - Unit.exe\n",
              Content("Unit_2026-11-14.log"));
}

TEST_F(FileLoggerTest, ChangeOfDayQueuesEndBeforeBegin)
{
    {
        WritingLogger logger(folder);
        logger.Write(L"one\n");
        WaitFor("Unit_2026-11-14.log", "one");
        SetDay(15);
        logger.Write(L"two\n");
        WaitFor("Unit_2026-11-15.log", "Begin Log");
    }
    EXPECT_EQ("Begin Log - Unit.exe\none\n", Content("Unit_2026-11-14.log"));
    const std::string second = Content("Unit_2026-11-15.log");
    EXPECT_TRUE(second.starts_with("two\n")) << second;
    const auto end = second.find("End Log - Unit.exe\n");
    const auto begin = second.find("Begin Log - Unit.exe\n");
    ASSERT_NE(std::string::npos, end) << second;
    ASSERT_NE(std::string::npos, begin) << second;
    EXPECT_LT(end, begin);
}

TEST_F(FileLoggerTest, SameDayOfAnotherMonthKeepsTheFile)
{
    {
        WritingLogger logger(folder);
        logger.Write(L"one\n");
        WaitFor("Unit_2026-11-14.log", "one");
        SYSTEMTIME time{};
        time.wYear = 2026;
        time.wMonth = 12;
        time.wDay = 14;
        clock.SetLocalTime(time);
        logger.Write(L"two\n");
        WaitFor("Unit_2026-11-14.log", "two");
    }
    EXPECT_FALSE(fs::exists(folder / "Unit_2026-12-14.log"));
}

TEST_F(FileLoggerTest, FailedOpenLosesThatLineOnly)
{
    {
        WritingLogger logger(folder / "missing");
        logger.Write(L"lost\n");
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileLoggerTest, LoggerWithoutALineStartsNoThreadAndLeavesNothing)
{
    {
        const WritingLogger logger(folder);
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileLoggerTest, MutexIsNamed)
{
    const WritingLogger logger(folder, false);
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, L"QrlcFileLogger"));
    EXPECT_TRUE(mutex);
}

TEST(FileLogText, NameIsCutOrFilledToTwelveCharacters)
{
    EXPECT_EQ(L"Halcyd      ", FileLogText::HeaderName(L"Halcyd"));
    EXPECT_EQ(L"TwelveLetter", FileLogText::HeaderName(L"TwelveLetters"));
    EXPECT_EQ(L"TwelveLetter", FileLogText::HeaderName(L"TwelveLetter"));
    EXPECT_EQ(L"            ", FileLogText::HeaderName(L""));
}

TEST(FileLogText, LineGetsALineFeedUnlessItHasOne)
{
    EXPECT_EQ(L"[Halcyd      ] stamp: Info:  x\n", FileLogText::Line(L"Halcyd", L"stamp: ", L"Info:  x"));
    EXPECT_EQ(L"[Halcyd      ] stamp: Info:  x\n", FileLogText::Line(L"Halcyd", L"stamp: ", L"Info:  x\n"));
}

TEST(FileLogText, FileNameCarriesTheDate)
{
    SYSTEMTIME time{};
    time.wYear = 2026;
    time.wMonth = 3;
    time.wDay = 4;
    EXPECT_EQ(L"Halcyd_2026-03-04.log", FileLogText::FileName(L"Halcyd", time));
}

TEST(FileLogText, UnknownErrnoIsShownAsItsNumber)
{
    EXPECT_EQ(L"No such file or directory", FileLogText::ErrnoText(ENOENT));
    EXPECT_EQ(L"Permission denied", FileLogText::ErrnoText(EACCES));
    EXPECT_EQ(L"9999", FileLogText::ErrnoText(9999));
}
} // namespace
