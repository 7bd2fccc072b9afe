#include "clients/TraceStore/LineStore.h"

#include <gtest/gtest.h>

#include <thread>

#include "TemporaryFolder.h"

using namespace TraceFile;

namespace
{
std::vector<std::wstring> Texts(const std::vector<NumberedLine>& lines)
{
    std::vector<std::wstring> texts;
    for (const NumberedLine& line : lines)
    {
        texts.push_back(line.line.text);
    }
    return texts;
}

std::vector<std::wstring> ReadFrom(LineStore& store, std::int64_t after, std::uint16_t source = EverySource,
                                   std::uint16_t level = 9)
{
    std::int64_t next = 0;
    return Texts(store.Read(after, source, level, 100000, 0, next));
}

std::size_t RecordsInFiles(const std::filesystem::path& folder)
{
    std::size_t records = 0;
    for (const NumberedFile& file : ListFiles(folder))
    {
        std::ifstream stream(file.path, std::ios::binary);
        records += ParseRecords(std::string(std::istreambuf_iterator<char>(stream), {})).size();
    }
    return records;
}
} // namespace

TEST(TraceLineStore, LinesCountFromOneAndComeBackInOrder)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    store.Append(10, 4, L"one");
    store.Append(11, 2, L"two");
    std::int64_t next = 0;
    const std::vector<NumberedLine> lines = store.Read(0, EverySource, 9, 100, 0, next);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].number, 1);
    EXPECT_EQ(lines[1].number, 2);
    EXPECT_EQ(lines[1].line.source, 11);
    EXPECT_EQ(lines[1].line.level, 2);
    EXPECT_EQ(lines[1].line.text, L"two");
    EXPECT_EQ(next, 2);
}

TEST(TraceLineStore, SourceAndLevelFilterWhatIsRead)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    store.Append(10, 4, L"a");
    store.Append(11, 2, L"b");
    store.Append(11, 5, L"c");
    EXPECT_EQ(ReadFrom(store, 0, 11), (std::vector<std::wstring>{L"b", L"c"}));
    EXPECT_EQ(ReadFrom(store, 0, EverySource, 4), (std::vector<std::wstring>{L"a", L"b"}));
    EXPECT_EQ(ReadFrom(store, 0, 11, 2), (std::vector<std::wstring>{L"b"}));
    EXPECT_TRUE(ReadFrom(store, 0, 12).empty());
}

TEST(TraceLineStore, PortionsGoOnWhereTheLastOneEndedEvenOverLinesThatDoNotMatch)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    for (int index = 0; index < 10; ++index)
    {
        store.Append(index % 2 == 0 ? 10 : 11, 4, std::to_wstring(index));
    }
    std::vector<std::wstring> all;
    std::int64_t position = 0;
    for (;;)
    {
        const std::vector<NumberedLine> lines = store.Read(position, 11, 9, 2, 0, position);
        if (lines.empty())
        {
            break;
        }
        for (const std::wstring& text : Texts(lines))
        {
            all.push_back(text);
        }
    }
    EXPECT_EQ(all, (std::vector<std::wstring>{L"1", L"3", L"5", L"7", L"9"}));
    EXPECT_EQ(position, 10);
}

TEST(TraceLineStore, TailCountsOnlyMatchingLines)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    for (int index = 1; index <= 9; ++index)
    {
        store.Append(index % 3 == 0 ? 11 : 10, 4, std::to_wstring(index));
    }
    EXPECT_EQ(ReadFrom(store, store.FindTail(11, 9, 2), 11), (std::vector<std::wstring>{L"6", L"9"}));
    EXPECT_EQ(ReadFrom(store, store.FindTail(EverySource, 9, 1)), (std::vector<std::wstring>{L"9"}));
    EXPECT_TRUE(ReadFrom(store, store.FindTail(EverySource, 9, 0)).empty());
    EXPECT_EQ(ReadFrom(store, store.FindTail(EverySource, 9, 1000)).size(), 9u);
}

TEST(TraceLineStore, WaitingReaderGetsTheLineThatComes)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    std::vector<std::wstring> got;
    std::thread reader(
        [&]
        {
            std::int64_t next = 0;
            got = Texts(store.Read(0, 11, 9, 10, 60000, next));
        });
    store.Append(10, 4, L"not wanted");
    store.Append(11, 4, L"wanted");
    reader.join();
    EXPECT_EQ(got, (std::vector<std::wstring>{L"wanted"}));
}

TEST(TraceLineStore, WaitingReadersAreReleasedAtTheEnd)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    std::size_t got = 99;
    std::thread reader(
        [&]
        {
            std::int64_t next = 0;
            got = store.Read(0, EverySource, 9, 10, 600000, next).size();
        });
    store.ReleaseReaders();
    reader.join();
    EXPECT_EQ(got, 0u);
}

TEST(TraceLineStore, FlushedLinesAreInTheFile)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    for (int index = 0; index < 1000; ++index)
    {
        store.Append(10, 4, L"line");
    }
    store.Flush();
    EXPECT_EQ(RecordsInFiles(folder.Path()), 1000u);
    EXPECT_EQ(store.Statistics().linesWritten, 1000u);
}

TEST(TraceLineStore, EndOfTheStoreWritesWhatIsLeft)
{
    const TemporaryFolder folder;
    {
        LineStore store(folder.Path(), {});
        for (int index = 0; index < 100; ++index)
        {
            store.Append(10, 4, L"line");
        }
    }
    EXPECT_EQ(RecordsInFiles(folder.Path()), 100u);
}

TEST(TraceLineStore, LinesOfManyThreadsAreAllKeptAndEachThreadsOrderHolds)
{
    const TemporaryFolder folder;
    constexpr int Threads = 8;
    constexpr int Each = 2500;
    LineStore store(folder.Path(), {});
    std::vector<std::thread> writers;
    for (int writer = 0; writer < Threads; ++writer)
    {
        writers.emplace_back(
            [&store, writer]
            {
                for (int index = 0; index < Each; ++index)
                {
                    store.Append(static_cast<std::uint16_t>(writer), 4, std::to_wstring(index));
                }
            });
    }
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    store.Flush();
    EXPECT_EQ(RecordsInFiles(folder.Path()), std::size_t{Threads * Each});
    for (int writer = 0; writer < Threads; ++writer)
    {
        const std::vector<std::wstring> texts = ReadFrom(store, 0, static_cast<std::uint16_t>(writer));
        ASSERT_EQ(texts.size(), std::size_t{Each});
        for (int index = 0; index < Each; ++index)
        {
            ASSERT_EQ(texts[static_cast<std::size_t>(index)], std::to_wstring(index));
        }
    }
}

TEST(TraceLineStore, NextRunStillGivesTheLinesOfEarlierOnes)
{
    const TemporaryFolder folder;
    {
        LineStore store(folder.Path(), {});
        store.Append(10, 4, L"old one");
        store.Append(10, 4, L"old\ntwo");
    }
    LineStore store(folder.Path(), {});
    store.Append(10, 4, L"new");
    const std::int64_t tail = store.FindTail(EverySource, 9, 2);
    EXPECT_EQ(ReadFrom(store, tail), (std::vector<std::wstring>{L"old\ntwo", L"new"}));
    EXPECT_EQ(store.Statistics().firstNumber, -1);
    // A follower that begins at 0 gets this run's lines only.
    EXPECT_EQ(ReadFrom(store, 0), (std::vector<std::wstring>{L"new"}));
}

TEST(TraceLineStore, TwentyThousandLinesOfAnEarlierRunAreKept)
{
    const TemporaryFolder folder;
    {
        LineStore store(folder.Path(), {});
        for (int index = 0; index < 20000; ++index)
        {
            store.Append(11, 4, L"11/14 17:13:37.123 01a2c-01f04: line " + std::to_wstring(index));
        }
    }
    LineStore store(folder.Path(), {});
    const std::vector<std::wstring> texts = ReadFrom(store, store.FindTail(EverySource, 9, 20000));
    ASSERT_EQ(texts.size(), 20000u);
    EXPECT_TRUE(texts.front().ends_with(L"line 0"));
    EXPECT_TRUE(texts.back().ends_with(L"line 19999"));
}

TEST(TraceLineStore, MemoryHoldsTheNewestLinesOnly)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    const std::size_t more = LineStore::KeptLines + 10;
    for (std::size_t index = 1; index <= more; ++index)
    {
        store.Append(10, 4, std::to_wstring(index));
    }
    const std::vector<std::wstring> texts = ReadFrom(store, 0);
    EXPECT_EQ(texts.size(), LineStore::KeptLines);
    EXPECT_EQ(texts.front(), L"11");
    EXPECT_EQ(store.Statistics().firstNumber, 11);
    EXPECT_EQ(store.Statistics().lastNumber, static_cast<std::int64_t>(more));
}

TEST(TraceLineStore, NumberOfAnotherRunStartsOverAtTheEnd)
{
    const TemporaryFolder folder;
    LineStore store(folder.Path(), {});
    store.Append(10, 4, L"one");
    std::int64_t next = 0;
    EXPECT_TRUE(store.Read(5000, EverySource, 9, 10, 0, next).empty());
    EXPECT_EQ(next, 1);
}

TEST(TraceLineStore, UnwritableFolderLosesLinesOnlyInTheFileAndTellsSoLater)
{
    const TemporaryFolder folder;
    folder.Write(L"blocked", "a file where the folder should be");
    LineStore store(folder.Path() / L"blocked", {});
    store.Append(10, 4, L"lost");
    store.Flush(); // gives up what cannot be written
    EXPECT_EQ(store.Statistics().linesLost, 1u);
    EXPECT_EQ(ReadFrom(store, 0), (std::vector<std::wstring>{L"lost"})); // readers still have it
    std::filesystem::remove(folder.Path() / L"blocked");
    store.Append(10, 4, L"kept");
    store.Flush();
    store.Flush();
    const std::string file = [&]
    {
        std::ifstream stream(folder.Path() / L"blocked" / L"Trace-000001.log", std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    }();
    EXPECT_NE(file.find("10 4 kept\n"), std::string::npos) << file;
    EXPECT_NE(file.find("1 trace lines were lost while no file could be written"), std::string::npos) << file;
}
