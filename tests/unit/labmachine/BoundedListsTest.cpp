// The lists that would grow for ever keep what is newest, and say what they dropped.

#include "LabFixture.h"

#include "lab/state/SharedBlock.h"

#include <filesystem>

namespace lab::test
{
namespace
{

constexpr std::size_t large = 1U << 20;

class BoundedLists : public LabTest
{
};

TEST_F(BoundedLists, JournalKeepsTheNewestCallsInOrderAndSaysThatOlderOnesAreGone)
{
    const std::string pad(large, 'x');
    const int lines = static_cast<int>(2 * journalRoom / large) + 5;
    for (int number = 0; number < lines; ++number)
    {
        TheMachine().Journal("Filling", Json{{"number", number}, {"pad", pad}}, 0);
    }
    EXPECT_LE(std::filesystem::file_size(TheMachine().Folder() / L"journal.jsonl"), journalRoom);
    JournalPosition position;
    const auto kept = TheMachine().ReadJournal(position);
    ASSERT_GT(kept.size(), 2U);
    EXPECT_EQ(kept.front()["call"], "(older calls were overwritten)");
    EXPECT_EQ(kept.back()["args"]["number"], lines - 1);
    for (std::size_t i = 2; i < kept.size(); ++i)
    {
        EXPECT_EQ(kept[i]["args"]["number"].get<int>(), kept[i - 1]["args"]["number"].get<int>() + 1);
    }
    EXPECT_GT(kept.size() * large, journalRoom / 2);
    // The next call stands right behind.
    TheMachine().Journal("Next", nullptr, 0);
    const auto next = TheMachine().ReadJournal(position);
    ASSERT_EQ(next.size(), 1U);
    EXPECT_EQ(next[0]["call"], "Next");
}

TEST_F(BoundedLists, JournalReaderThatKeepsUpMissesNothingOverTheWrap)
{
    const std::string pad(large, 'x');
    JournalPosition position;
    int expected = 0;
    for (int number = 0; number < static_cast<int>(3 * journalRoom / large); ++number)
    {
        TheMachine().Journal("Filling", Json{{"number", number}, {"pad", pad}}, 0);
        if (number % 7 == 0)
        {
            for (const Json& line : TheMachine().ReadJournal(position))
            {
                ASSERT_EQ(line["args"]["number"], expected++);
            }
            ASSERT_EQ(expected, number + 1);
        }
    }
}

TEST_F(BoundedLists, CallWithAnEndlessArgumentIsKeptWithoutIt)
{
    TheMachine().Journal("Endless", Json{{"pad", std::string(journalRoom / 4, 'x')}}, 5);
    const auto lines = Calls("Endless");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["args"], "(too long to keep)");
    EXPECT_EQ(lines[0]["result"], "0x00000005");
}

TEST_F(BoundedLists, ListenerThatFallsTooFarBehindHearsSoAndThenGoesOn)
{
    EventCursor prompt = TheMachine().Listen();
    EventCursor slow = TheMachine().Listen();
    const Json event{{"channel", "test"}, {"type", "filling"}, {"pad", std::string(large / 4, 'x')}};
    const int count = static_cast<int>(eventsRoom / (large / 4)) + 3;
    for (int number = 0; number < count; ++number)
    {
        TheMachine().Raise({event});
        EXPECT_EQ(prompt.Next(0).size(), 1U);
    }
    EXPECT_LE(std::filesystem::file_size(TheMachine().Folder() / L"events.jsonl"), eventsRoom);
    const Events told = slow.Next(0);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0]["channel"], "lab");
    EXPECT_EQ(told[0]["type"], "lost");
    TheMachine().Raise({{{"channel", "test"}, {"type", "after"}}});
    const Events after = slow.Next(0);
    ASSERT_EQ(after.size(), 1U);
    EXPECT_EQ(after[0]["type"], "after");
}

TEST_F(BoundedLists, MoreEventsThanThereIsRoomForAreRefusedAtOnce)
{
    const Json event{{"channel", "test"}, {"type", "filling"}, {"pad", std::string(eventsRoom, 'x')}};
    EventCursor cursor = TheMachine().Listen();
    EXPECT_THROW(TheMachine().Raise({event}), std::runtime_error);
    EXPECT_TRUE(cursor.Next(0).empty());
}

} // namespace
} // namespace lab::test
