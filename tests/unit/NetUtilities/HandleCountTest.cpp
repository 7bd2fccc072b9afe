// The count that the tests of leaks go by.

#include "tests/support/HandleCount.h"

#include <gtest/gtest.h>

#include <vector>

#include "NetUtilities/Handles.h"

namespace
{
TEST(HandleCount, TellsEachEventThatIsMadeAndClosedButNotAsLasting)
{
    const DWORD self = GetCurrentProcessId();
    const HandleCounts before = CountHandles(self);
    EXPECT_GT(before.lasting, 0u);
    {
        std::vector<UniqueHandle> events;
        for (DWORD made = 1; made <= 40; ++made)
        {
            events.emplace_back(CreateEventW(nullptr, TRUE, FALSE, nullptr));
            ASSERT_EQ(before.all + made, CountHandles(self).all);
        }
        EXPECT_EQ(before.lasting, CountHandles(self).lasting);
    }
    EXPECT_EQ(before.all, CountHandles(self).all);
}

TEST(HandleCount, ThreadsAndSemaphoresAreNotLastingAndMutexesAre)
{
    const DWORD self = GetCurrentProcessId();
    const HandleCounts before = CountHandles(self);
    const UniqueHandle thread{OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId())};
    const UniqueHandle semaphore{CreateSemaphoreW(nullptr, 0, 1, nullptr)};
    EXPECT_EQ(before.all + 2, CountHandles(self).all);
    EXPECT_EQ(before.lasting, CountHandles(self).lasting);
    const UniqueHandle mutex{CreateMutexW(nullptr, FALSE, nullptr)};
    EXPECT_EQ(before.all + 3, CountHandles(self).all);
    EXPECT_EQ(before.lasting + 1, CountHandles(self).lasting);
}

TEST(HandleCount, OfAProcessThatIsNotThereIsNone)
{
    EXPECT_EQ(0u, CountHandles(0xFFFFFFF1).all);
}
} // namespace
