#include "NetUtilities/Logger.h"

#include <thread>

#include <gtest/gtest.h>

#include "NetUtilities/FileLogger.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/RunChild.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
constexpr wchar_t ProductKey[] = L"Software\\QRLS\\Sorvane";

// Each test begins with no logger and ends with none; levels are asked for at the first message.
class LoggerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
    }
    void TearDown() override
    {
        recorder.Reset();
        RestartTrace();
    }

    // Makes the logger thread ask for the levels again: time passes, a message flows, and the one behind it finds the
    // new levels.
    void RefreshLevels()
    {
        clock.AdvanceSeconds(61);
        LogMessage(Log::Source::General, 1, L"refresh");
        const unsigned before = recorder.GlobalLevelCalls();
        LogMessage(Log::Source::General, 1, L"refresh");
        for (int tries = 0; recorder.GlobalLevelCalls() == before && tries < 2000; ++tries)
        {
            LogMessage(Log::Source::General, 1, L"refresh");
            std::this_thread::yield();
            SwitchToThread();
        }
        (void)recorder.Lines();
        (void)recorder.Lines(); // the loop has gone round once more, so the levels are in place
    }

    static void SetProductDword(const wchar_t* name, std::uint32_t value)
    {
        RegistryKey key;
        ASSERT_EQ(0U, key.Create(HKEY_LOCAL_MACHINE, ProductKey, KEY_WRITE));
        ASSERT_EQ(0U, key.WriteDword(name, value));
    }

    VirtualClock clock;
    TraceRecorder& recorder = TraceRecorder::Get();
};

TEST_F(LoggerTest, LineCarriesItsStampAndTravelsWithSourceAndLevel)
{
    SYSTEMTIME time{};
    time.wYear = 2026;
    time.wMonth = 3;
    time.wDay = 4;
    time.wHour = 5;
    time.wMinute = 6;
    time.wSecond = 7;
    time.wMilliseconds = 8;
    clock.SetLocalTime(time);
    LogMessage(Log::Source::NetMon, 4, L"the text");
    const auto lines = recorder.Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(11, lines[0].source);
    EXPECT_EQ(4, lines[0].level);
    EXPECT_EQ(FormatText(L"03/04 05:06:07.008 {:05x}-{:05x}: the text", GetCurrentProcessId(), GetCurrentThreadId()),
              lines[0].text);
}

TEST_F(LoggerTest, LinesKeepTheirOrder)
{
    for (int i = 0; i < 1000; ++i)
    {
        LogFormat(Log::Source::NetMon, 4, L"line {}", i);
    }
    const auto messages = recorder.Messages();
    ASSERT_EQ(1000U, messages.size());
    for (int i = 0; i < 1000; ++i)
    {
        EXPECT_EQ(FormatText(L"line {}", i), messages[static_cast<std::size_t>(i)]);
    }
}

TEST_F(LoggerTest, NoLineOfManyThreadsIsLost)
{
    constexpr int threadCount = 8;
    constexpr int lineCount = 500;
    std::vector<std::thread> threads;
    LogMessage(Log::Source::General, 4, L"the logger is made"); // the first use is a race that may drop a line
    for (int thread = 0; thread < threadCount; ++thread)
    {
        threads.emplace_back(
            []
            {
                for (int i = 0; i < lineCount; ++i)
                {
                    LogFormat(Log::Source::NetMon, 4, L"{}", i);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(1U + threadCount * lineCount, recorder.Lines().size());
}

TEST_F(LoggerTest, EmptyMessageStartsNoThread)
{
    LogMessage(Log::Source::General, 1, L"");
    const auto logger = Logger::Instance();
    logger->Stop(); // does nothing: had a thread been started, the next message could not start one
    LogMessage(Log::Source::General, 1, L"first");
    EXPECT_EQ((std::vector<std::wstring>{L"first"}), recorder.Messages());
}

TEST_F(LoggerTest, EmbeddedNulTravelsWhole)
{
    LogMessage(Log::Source::General, 1, std::wstring_view(L"a\0b", 3));
    const auto messages = recorder.Messages();
    ASSERT_EQ(1U, messages.size());
    EXPECT_EQ(std::wstring(L"a\0b", 3), messages[0]);
}

TEST_F(LoggerTest, DefaultSourceIsOneUntilSet)
{
    LogMessageDefault(4, L"before");
    SetDefaultLogSource(Log::Source::ConfigServer);
    LogMessageDefault(4, L"after");
    LogError(0xDEADBEEF, L"failed {}", 1);
    EXPECT_TRUE(recorder.Has(1, 4, L"before"));
    EXPECT_TRUE(recorder.Has(10, 4, L"after"));
    EXPECT_TRUE(recorder.Has(10, 2, L"failed 1 Error 3735928559 (0xdeadbeef)"));
}

TEST_F(LoggerTest, ErrorWithSourceHasLevelTwo)
{
    LogErrorSource(Log::Source::IpRoute, 0xDEADBEEF, L"route");
    EXPECT_TRUE(recorder.Has(34, 2, L"route Error 3735928559 (0xdeadbeef)"));
}

TEST_F(LoggerTest, SourceLevelOverridesTheGlobalOne)
{
    recorder.SetGlobalLevel(4);
    recorder.SetSourceLevel(11, 5);
    LogMessage(Log::Source::General, 1, L"start");
    RefreshLevels();
    LogMessage(Log::Source::NetMon, 5, L"own level lets it pass");
    LogMessage(Log::Source::WiFi, 5, L"global level stops it");
    LogMessage(Log::Source::WiFi, 4, L"global level lets it pass");
    LogMessage(Log::Source::NetMon, 6, L"own level stops it");
    EXPECT_TRUE(recorder.HasMessage(L"own level lets it pass"));
    EXPECT_TRUE(recorder.HasMessage(L"global level lets it pass"));
    EXPECT_FALSE(recorder.HasMessage(L"global level stops it"));
    EXPECT_FALSE(recorder.HasMessage(L"own level stops it"));
}

TEST_F(LoggerTest, SourceLevelBelowTheGlobalOneHolds)
{
    recorder.SetGlobalLevel(6);
    recorder.SetSourceLevel(11, 2);
    LogMessage(Log::Source::General, 1, L"start");
    RefreshLevels();
    LogMessage(Log::Source::NetMon, 3, L"stopped");
    EXPECT_FALSE(recorder.HasMessage(L"stopped"));
}

TEST_F(LoggerTest, LevelsAreAskedForAtSixtyOneSecondsAndNotAtSixty)
{
    clock.FreezeSteady(1'000'000'000'000);
    LogMessage(Log::Source::General, 1, L"start");
    (void)recorder.Lines();
    ASSERT_EQ(1U, recorder.GlobalLevelCalls());
    clock.AdvanceNanoseconds(60'999'999'999);
    (void)recorder.Lines();
    (void)recorder.Lines();
    EXPECT_EQ(1U, recorder.GlobalLevelCalls());
    clock.AdvanceNanoseconds(1);
    (void)recorder.Lines(); // wakes the thread, which looks at the time on its next round
    (void)recorder.Lines();
    EXPECT_EQ(2U, recorder.GlobalLevelCalls());
}

TEST_F(LoggerTest, NoRefreshWithinTheFirstMinuteOfSteadyTime)
{
    clock.FreezeSteady(60'000'000'000);
    LogMessage(Log::Source::General, 1, L"start");
    (void)recorder.Lines();
    EXPECT_EQ(0U, recorder.GlobalLevelCalls());
}

TEST_F(LoggerTest, EverySourceButZeroIsAskedFor)
{
    LogMessage(Log::Source::General, 1, L"start");
    (void)recorder.Lines();
    const auto asked = recorder.SourceLevelCalls();
    ASSERT_EQ(36U, asked.size());
    for (std::uint16_t source = 1; source <= 36; ++source)
    {
        EXPECT_EQ(source, asked[source - 1U]);
    }
}

TEST_F(LoggerTest, FailedGlobalLevelFallsBackToTheRegistry)
{
    recorder.SetGlobalLevel(1);
    recorder.SetResults(E_FAIL, S_OK, S_OK);
    LogMessage(Log::Source::General, 1, L"start");
    (void)recorder.Lines();
    LogMessage(Log::Source::General, 6, L"level 6 of the registry");
    EXPECT_TRUE(recorder.HasMessage(L"level 6 of the registry"));
    SetProductDword(L"TraceLevel", 3);
    RefreshLevels();
    LogMessage(Log::Source::General, 4, L"above 3");
    LogMessage(Log::Source::General, 3, L"not above 3");
    SetProductDword(L"TraceLevel", 6);
    EXPECT_FALSE(recorder.HasMessage(L"above 3"));
    EXPECT_TRUE(recorder.HasMessage(L"not above 3"));
}

TEST_F(LoggerTest, FailedSourceLevelLeavesTheOldOne)
{
    recorder.SetSourceLevel(11, 2);
    LogMessage(Log::Source::General, 1, L"start");
    RefreshLevels();
    recorder.SetSourceLevel(11, 6);
    recorder.SetResults(S_OK, E_FAIL, S_OK);
    RefreshLevels();
    LogMessage(Log::Source::NetMon, 3, L"still above 2");
    EXPECT_FALSE(recorder.HasMessage(L"still above 2"));
}

TEST_F(LoggerTest, FailedWriteLosesTheLineAndNothingElse)
{
    recorder.SetResults(S_OK, S_OK, E_FAIL);
    LogMessage(Log::Source::General, 1, L"lost by the service");
    (void)recorder.Lines();
    recorder.SetResults(S_OK, S_OK, S_OK);
    LogMessage(Log::Source::General, 1, L"next");
    const auto messages = recorder.Messages();
    EXPECT_EQ(1, std::count(messages.begin(), messages.end(), L"lost by the service")) << "there is no retry";
    EXPECT_EQ(1, std::count(messages.begin(), messages.end(), L"next"));
}

TEST_F(LoggerTest, SourceOutOfRangeGoesToTheFileLoggerAndNotToTheService)
{
    LogMessage(static_cast<Log::Source>(37), 1, L"no such source");
    LogMessage(static_cast<Log::Source>(0xFFFF), 1, L"no such source");
    LogMessage(static_cast<Log::Source>(36), 1, L"the last one");
    EXPECT_FALSE(recorder.HasMessage(L"no such source"));
    EXPECT_TRUE(recorder.Has(36, 1, L"the last one"));
}

TEST_F(LoggerTest, StopDeliversAFullQueueFirst)
{
    for (int i = 0; i < 5000; ++i)
    {
        LogFormat(Log::Source::NetMon, 4, L"line {}", i);
    }
    Logger::Instance()->Stop();
    const auto lines = recorder.LinesNow();
    ASSERT_EQ(5000U, lines.size());
    EXPECT_EQ(L"line 4999", lines.back().Message());
}

TEST_F(LoggerTest, AfterStopMessagesAreQueuedAndNobodyReadsThem)
{
    LogMessage(Log::Source::General, 1, L"before");
    Logger::Instance()->Stop();
    LogMessage(Log::Source::General, 1, L"after");
    Logger::Instance()->Stop(); // harmless
    const auto lines = recorder.LinesNow();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(L"before", lines[0].Message());
}

TEST_F(LoggerTest, TraceAfterTheTearDownMakesANewLogger)
{
    SetDefaultLogSource(Log::Source::ConfigServer);
    LogMessageDefault(4, L"old");
    RestartTrace();
    LogMessageDefault(4, L"new");
    EXPECT_TRUE(recorder.Has(10, 4, L"old"));
    EXPECT_TRUE(recorder.Has(1, 4, L"new"));
}

TEST_F(LoggerTest, IdentityNamesExecutableModuleAndTag)
{
    const std::wstring identity = Logger::Instance()->Identity();
    const std::wstring start = L"UnitTestsNetUtilities.exe -> UnitTestsNetUtilities.exe Logger_";
    ASSERT_TRUE(identity.starts_with(start)) << std::string(identity.begin(), identity.end());
    const std::wstring number = identity.substr(start.size());
    EXPECT_EQ(number, std::to_wstring(std::stoul(number))) << "no leading zeros";
    EXPECT_LT(std::stoul(number), 100U);
}

TEST_F(LoggerTest, BannerFramesTheTextInThreeMessages)
{
    LogBanner(4, L"Start", 20, BannerStyle::Framed, L'*');
    EXPECT_EQ((std::vector<std::wstring>{L"********************", L"****** Start *******", L"********************"}),
              recorder.Messages());
}

TEST_F(LoggerTest, BannerOfOneLineAndOfOneBlock)
{
    LogBanner(4, L"Start", 20, BannerStyle::Line, L'=');
    LogBanner(4, L"Start", 10, BannerStyle::Block, L'#');
    EXPECT_EQ((std::vector<std::wstring>{L"====== Start =======", L"\n##########\n# Start ##\n##########"}),
              recorder.Messages());
}

TEST_F(LoggerTest, BannerOfAnEmptyTextIsARow)
{
    LogBanner(4, L"", 5, BannerStyle::Line, L'*');
    EXPECT_EQ((std::vector<std::wstring>{L"*****"}), recorder.Messages());
}

TEST_F(LoggerTest, BannerIsSixtyWideByDefault)
{
    LogBanner(4, L"x");
    for (const std::wstring& line : recorder.Messages())
    {
        EXPECT_EQ(60U, line.size());
    }
}

// --- What ends the process ---

using LoggerDeathTest = LoggerTest;

// The test program's terminate handler ends the process with this code; here it is called from the logger thread.
constexpr int Terminated = 71;

TEST_F(LoggerDeathTest, MissingTraceServiceEndsTheProcessAtTheFirstLine)
{
    EXPECT_EQ(Terminated, RunChild("FirstLineWithoutTraceService"));
}

TEST_F(LoggerDeathTest, MissingTraceServiceEndsTheProcessAtStopToo)
{
    EXPECT_EQ(Terminated, RunChild("StopWithoutTraceService"));
}

CHILD_PROCESS(testing::Test, FirstLineWithoutTraceService)
{
    TraceRecorder::Get().RevokeClass();
    LogMessage(Log::Source::General, 1, L"nobody takes this");
    Sleep(10000); // ended long before this has passed
    TerminateProcess(GetCurrentProcess(), 5);
}

CHILD_PROCESS(testing::Test, StopWithoutTraceService)
{
    TraceRecorder::Get().RevokeClass();
    LogMessage(static_cast<Log::Source>(37), 6, L"not for the service");
    Logger::Instance()->Stop(); // the thread ends: no line was delivered to the missing service before
}
} // namespace
