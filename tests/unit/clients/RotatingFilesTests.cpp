#include "clients/TraceStore/RotatingFiles.h"

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

using namespace TraceFile;

namespace
{
// Writes each record with a call of its own.
void WriteAll(RotatingFiles& files, const std::vector<std::string>& records)
{
    for (const std::string& record : records)
    {
        ASSERT_EQ(files.Write(record, {record.size()}), 1u);
    }
}

std::vector<std::uint32_t> Numbers(const std::filesystem::path& folder)
{
    std::vector<std::uint32_t> numbers;
    for (const NumberedFile& file : ListFiles(folder))
    {
        numbers.push_back(file.number);
    }
    return numbers;
}

const std::string Kilobyte = "1 1 " + std::string(1019, 'x') + "\n";
} // namespace

TEST(TraceFileNames, NumberAndNameBelongTogether)
{
    EXPECT_EQ(NameOfNumber(7), L"Trace-000007.log");
    EXPECT_EQ(NameOfNumber(12345678), L"Trace-12345678.log");
    EXPECT_EQ(NumberOfName(L"Trace-000007.log"), 7u);
    EXPECT_EQ(NumberOfName(L"Trace-12345678.log"), 12345678u);
    for (const wchar_t* const name : {L"Trace-.log", L"Trace-00001.log", L"Trace-00000a.log", L"trace-000001.txt",
                                      L"Trace-000001.log.bak", L"Trace-0000000001.log", L""})
    {
        EXPECT_EQ(NumberOfName(name), 0u) << name;
    }
}

TEST(TraceFileRotation, DecisionRow)
{
    EXPECT_FALSE(MustRotate(0, 1000, 100)); // an empty file takes anything
    EXPECT_FALSE(MustRotate(60, 40, 100));
    EXPECT_TRUE(MustRotate(60, 41, 100));
    EXPECT_TRUE(MustRotate(100, 0, 100));
    EXPECT_TRUE(MustRotate(101, 0, 100)); // the limit was made smaller
    EXPECT_TRUE(MustRotate(1, UINT64_MAX, 100));
}

TEST(RotatingFiles, BeginsTheNextFileWhenTheLimitIsReachedAndKeepsOnlySoMany)
{
    const TemporaryFolder folder;
    RotatingFiles files(folder.Path(), {4096, 3});
    WriteAll(files, std::vector<std::string>(20, Kilobyte)); // three kilobytes and the note fit into a file
    EXPECT_EQ(Numbers(folder.Path()), (std::vector<std::uint32_t>{5, 6, 7}));
    for (const NumberedFile& file : ListFiles(folder.Path()))
    {
        EXPECT_LE(file.bytes, 4096u);
    }
}

TEST(RotatingFiles, OneCallWithManyRecordsIsSplitBetweenRecords)
{
    const TemporaryFolder folder;
    RotatingFiles files(folder.Path(), {4096, 100});
    std::string bytes;
    std::vector<std::size_t> ends;
    for (int index = 0; index < 10; ++index)
    {
        bytes += Kilobyte;
        ends.push_back(bytes.size());
    }
    EXPECT_EQ(files.Write(bytes, ends), 10u);
    std::size_t records = 0;
    for (const NumberedFile& file : ListFiles(folder.Path()))
    {
        const std::string content = folder.Read(file.path.filename().wstring());
        EXPECT_EQ(content.rfind("# Trace file ", 0), 0u);
        const std::size_t body = content.size() - content.find('\n') - 1;
        EXPECT_EQ(body % Kilobyte.size(), 0u);
        records += body / Kilobyte.size();
    }
    EXPECT_EQ(records, 10u);
}

TEST(RotatingFiles, RecordLargerThanTheLimitGetsAFileOfItsOwn)
{
    const TemporaryFolder folder;
    RotatingFiles files(folder.Path(), {4096, 10});
    const std::string large = "1 1 " + std::string(10000, 'x') + "\n";
    WriteAll(files, {"1 1 small\n", large, "1 1 small\n"});
    EXPECT_NE(folder.Read(L"Trace-000002.log").find(large), std::string::npos);
    EXPECT_NE(folder.Read(L"Trace-000003.log").find("1 1 small\n"), std::string::npos);
}

TEST(RotatingFiles, NextRunGoesOnInTheLastFile)
{
    const TemporaryFolder folder;
    {
        RotatingFiles files(folder.Path(), {4096, 10});
        WriteAll(files, {"1 1 first\n"});
    }
    RotatingFiles files(folder.Path(), {4096, 10});
    WriteAll(files, {"1 1 second\n"});
    EXPECT_EQ(Numbers(folder.Path()), std::vector<std::uint32_t>{1});
    EXPECT_TRUE(folder.Read(L"Trace-000001.log").ends_with("1 1 first\n1 1 second\n"));
}

TEST(RotatingFiles, TornRecordOfAnEarlierRunIsEndedFirst)
{
    const TemporaryFolder folder;
    folder.Write(L"Trace-000004.log", "1 1 torn");
    RotatingFiles files(folder.Path(), {4096, 10});
    WriteAll(files, {"1 1 whole\n"});
    EXPECT_EQ(folder.Read(L"Trace-000004.log"), "1 1 torn\n1 1 whole\n");
}

TEST(RotatingFiles, FileThatAnotherProcessWritesIsLeftAlone)
{
    const TemporaryFolder folder;
    RotatingFiles first(folder.Path(), {4096, 10});
    WriteAll(first, {"1 1 mine\n"});
    RotatingFiles second(folder.Path(), {4096, 10});
    WriteAll(second, {"1 1 theirs\n"});
    WriteAll(first, {"1 1 mine again\n"});
    EXPECT_TRUE(folder.Read(L"Trace-000001.log").ends_with("1 1 mine\n1 1 mine again\n"));
    EXPECT_TRUE(folder.Read(L"Trace-000002.log").ends_with("1 1 theirs\n"));
}

TEST(RotatingFiles, OtherFilesInTheFolderAreNeverDeleted)
{
    const TemporaryFolder folder;
    folder.Write(L"notes.txt", "keep");
    folder.Write(L"Trace-old.log", "keep");
    RotatingFiles files(folder.Path(), {1024, 1});
    WriteAll(files, std::vector<std::string>(5, Kilobyte));
    EXPECT_EQ(folder.Read(L"notes.txt"), "keep");
    EXPECT_EQ(folder.Read(L"Trace-old.log"), "keep");
    EXPECT_EQ(Numbers(folder.Path()).size(), 1u);
}

TEST(RotatingFiles, FolderThatCannotBeMadeIsReportedAndAFolderThatComesLaterIsTaken)
{
    const TemporaryFolder folder;
    folder.Write(L"blocked", "a file where the folder should be");
    RotatingFiles files(folder.Path() / L"blocked", {4096, 10});
    EXPECT_EQ(files.Write("1 1 a\n", {6}), 0u);
    EXPECT_NE(files.LastError(), DWORD(ERROR_SUCCESS));
    std::filesystem::remove(folder.Path() / L"blocked");
    EXPECT_EQ(files.Write("1 1 a\n", {6}), 1u);
}
