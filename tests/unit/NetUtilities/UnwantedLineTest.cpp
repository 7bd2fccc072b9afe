#include <gtest/gtest.h>

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
        LogMessage(Log::Source::NetMon, 4, L"first line"); // from here on the levels are known
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
    EXPECT_EQ(1U, recorder.Lines().size());
}

TEST_F(UnwantedLineTest, WantedLineIsFormattedOnce)
{
    LogFormat(Log::Source::NetMon, 4, L"account {}", CountsItsPrinting{&printed});
    EXPECT_EQ(1, printed);
    EXPECT_EQ(2U, recorder.Lines().size());
}

TEST_F(UnwantedLineTest, VeryFirstLineIsFormattedBecauseTheLevelsAreNotReadYet)
{
    RestartTrace();
    recorder.Reset();
    recorder.SetGlobalLevel(4);
    LogFormat(Log::Source::NetMon, 5, L"detail {}", CountsItsPrinting{&printed});
    EXPECT_EQ(1, printed);
    EXPECT_TRUE(recorder.Lines().empty());
}
} // namespace
