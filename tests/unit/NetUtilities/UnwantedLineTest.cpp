#include <gtest/gtest.h>

#include <thread>

#include "NetUtilities/Format.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
struct CountsItsPrinting
{
    int* times;
};
} // namespace

template <>
struct fmt::formatter<CountsItsPrinting, wchar_t> : fmt::formatter<int, wchar_t>
{
    template <class Context>
    auto format(const CountsItsPrinting& value, Context& context) const
    {
        return fmt::formatter<int, wchar_t>::format(++*value.times, context);
    }
};

namespace
{
class UnwantedLineTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
        recorder.SetGlobalLevel(4);
        LogMessage(Log::Source::NetMon, 4, L"first line");
        // The levels are asked for on the logger's thread, at the first line after a minute.
        clock.AdvanceSeconds(61);
        for (int tries = 0; recorder.GlobalLevelCalls() < 2 && tries < 2000; ++tries)
        {
            LogMessage(Log::Source::NetMon, 4, L"refresh");
            std::this_thread::yield();
        }
        (void)recorder.Lines();
        (void)recorder.Lines(); // the loop has gone round once more, so the levels are in place
    }
    void TearDown() override
    {
        recorder.Reset();
        RestartTrace();
    }

    VirtualClock clock;
    TraceRecorder& recorder = TraceRecorder::Get();
    int printed = 0;
};

TEST_F(UnwantedLineTest, LineBelowTheLevelInForceIsNotFormatted)
{
    LogFormat(Log::Source::NetMon, 5, L"detail {}", CountsItsPrinting{&printed});
    EXPECT_EQ(0, printed);
    EXPECT_FALSE(recorder.HasMessageStarting(L"detail"));
}

TEST_F(UnwantedLineTest, WantedLineIsFormattedOnce)
{
    LogFormat(Log::Source::NetMon, 4, L"account {}", CountsItsPrinting{&printed});
    EXPECT_EQ(1, printed);
    EXPECT_TRUE(recorder.HasMessage(L"account 1"));
}

TEST_F(UnwantedLineTest, VeryFirstLineIsFormattedBecauseTheLevelsAreNotReadYet)
{
    RestartTrace();
    recorder.Reset();
    recorder.SetGlobalLevel(4);
    LogFormat(Log::Source::NetMon, 5, L"detail {}", CountsItsPrinting{&printed});
    EXPECT_EQ(1, printed);
}
} // namespace
