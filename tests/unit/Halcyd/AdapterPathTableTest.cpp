#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Halcyd/WmiAdapterSession.h"

namespace
{
using AddResult = AdapterPathTable::AddResult;

TEST(AdapterPathTable, FindsExactlyWhatWasAdded)
{
    AdapterPathTable table;
    EXPECT_EQ(AddResult::Added, table.Add(L"{A}", L"path 1"));
    EXPECT_EQ(L"path 1", table.Find(L"{A}"));
    EXPECT_FALSE(table.Find(L"{a}").has_value());
    EXPECT_FALSE(table.Find(L"").has_value());
}

TEST(AdapterPathTable, AKnownGuidKeepsItsFirstPathAndIsNotCounted)
{
    AdapterPathTable table;
    table.Add(L"{A}", L"path 1");
    EXPECT_EQ(AddResult::Known, table.Add(L"{A}", L"path 2"));
    EXPECT_EQ(1u, table.Count());
    EXPECT_EQ(L"path 1", table.Find(L"{A}"));
}

TEST(AdapterPathTable, FiftiethAdapterIsCountedAndNotStored)
{
    AdapterPathTable table;
    for (int index = 0; index < 49; ++index)
    {
        EXPECT_EQ(AddResult::Added, table.Add(L"{" + std::to_wstring(index) + L"}", L"p"));
    }
    EXPECT_EQ(AddResult::Full, table.Add(L"{49}", L"p"));
    EXPECT_EQ(AddResult::Full, table.Add(L"{50}", L"p"));
    EXPECT_EQ(AddResult::Full, table.Add(L"{50}", L"p"));
    EXPECT_EQ(52u, table.Count());
    EXPECT_FALSE(table.Find(L"{49}").has_value());
    EXPECT_TRUE(table.Find(L"{48}").has_value());
}

TEST(AdapterPathTable, ReadersSeeWholeEntriesWhileManyThreadsAdd)
{
    AdapterPathTable table;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&table, &wrong, thread]
            {
                for (int round = 0; round < 200; ++round)
                {
                    const std::wstring guid = L"{a long enough name " + std::to_wstring((round + thread) % 40) + L"}";
                    table.Add(guid, L"path of " + guid);
                    const std::optional<std::wstring> found = table.Find(guid);
                    wrong += found.has_value() && *found != L"path of " + guid ? 1 : 0;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(0, wrong.load());
}
} // namespace
