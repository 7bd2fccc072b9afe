// The trace service as it ships: lines through the end of clients and of itself, levels, rotation, its own lifetime.

#include <windows.h>
#include <comdef.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "NetUtilities/ComApartment.h"
#include "TraceLogManager_h.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/main/ChildProcess.h"

_COM_SMARTPTR_TYPEDEF(ITraceLogManager, __uuidof(ITraceLogManager));
_COM_SMARTPTR_TYPEDEF(ITraceStore, __uuidof(ITraceStore));

namespace
{
constexpr std::uint16_t TestSource = 35; // nobody else's
constexpr std::uint16_t EverySource = 0xFFFF;
constexpr const wchar_t* StoreName = L"TraceStore.exe";
constexpr const wchar_t* SettingsKey = L"Software\\QRLS\\Sorvane\\TraceStore";
constexpr int LinesOfTheDyingClient = 20000;

ITraceLogManagerPtr Activate()
{
    ITraceLogManagerPtr manager;
    const HRESULT result = CoCreateInstance(__uuidof(TraceLogManagerClass), nullptr, CLSCTX_LOCAL_SERVER,
                                            __uuidof(ITraceLogManager), reinterpret_cast<void**>(&manager));
    EXPECT_EQ(result, S_OK) << std::hex << result;
    return manager;
}

ITraceStorePtr StoreOf(const ITraceLogManagerPtr& manager)
{
    ITraceStorePtr store;
    EXPECT_EQ(manager->QueryInterface(__uuidof(ITraceStore), reinterpret_cast<void**>(&store)), S_OK);
    return store;
}

void Write(const ITraceLogManagerPtr& manager, const std::wstring& text)
{
    ASSERT_EQ(manager->WriteLine(TestSource, 4, _bstr_t(text.c_str())), S_OK);
}

// All lines of the test's source that the store gives from number `after` on.
std::vector<std::wstring> ReadAll(const ITraceStorePtr& store, hyper after)
{
    std::vector<std::wstring> texts;
    for (;;)
    {
        hyper next = 0;
        ULONG count = 0;
        TraceRecord* records = nullptr;
        EXPECT_EQ(store->ReadLines(after, TestSource, 9, 1000, 0, &next, &count, &records), S_OK);
        for (ULONG index = 0; index < count; ++index)
        {
            EXPECT_EQ(records[index].source, TestSource);
            texts.emplace_back(records[index].text, SysStringLen(records[index].text));
            SysFreeString(records[index].text);
        }
        CoTaskMemFree(records);
        if (count == 0)
        {
            return texts;
        }
        after = next;
    }
}

std::filesystem::path Folder(const ITraceStorePtr& store)
{
    TraceStatistics statistics{};
    EXPECT_EQ(store->GetStatistics(&statistics), S_OK);
    std::filesystem::path folder(statistics.folder != nullptr ? statistics.folder : L"");
    SysFreeString(statistics.folder);
    return folder;
}

std::string ReadFiles(const std::filesystem::path& folder)
{
    std::string all;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        std::ifstream file(entry.path(), std::ios::binary);
        all.append(std::istreambuf_iterator<char>(file), {});
    }
    return all;
}

// True once no process of the trace service is left.
bool WaitForTheEnd(DWORD timeoutMs)
{
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;)
    {
        const std::vector<DWORD> processes = FindProcesses(StoreName);
        if (processes.empty())
        {
            return true;
        }
        const ULONGLONG now = GetTickCount64();
        const UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, processes.front()));
        if (now >= deadline ||
            (process && WaitForSingleObject(process.get(), static_cast<DWORD>(deadline - now)) != WAIT_OBJECT_0))
        {
            return false;
        }
    }
}

void SetNumber(const wchar_t* name, DWORD number)
{
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, SettingsKey, name, REG_DWORD, &number, sizeof number), ERROR_SUCCESS);
}

// Nobody but the test talks to the trace service: the service, which would keep it alive, is stopped.
class TraceStoreTest : public testing::Test
{
protected:
    void SetUp() override
    {
        // It starts with Windows and takes no control before it runs.
        ASSERT_TRUE(ServiceControl().StartAndWait());
        ASSERT_TRUE(ServiceControl().StopAndWait());
    }

    ComApartment apartment;
};
using TraceStoreEndTest = TraceStoreTest;

// A client that dies.
CHILD_PROCESS(testing::Test, WritesManyLinesAndIsKilled)
{
    ComApartment apartment;
    const ITraceLogManagerPtr manager = Activate();
    for (int line = 0; line < LinesOfTheDyingClient; ++line)
    {
        Write(manager, L"dying client, line " + std::to_wstring(line));
    }
    TerminateProcess(GetCurrentProcess(), 77);
}

DWORD RunDyingClient()
{
    return RunProcess(ChildCommandLine("WritesManyLinesAndIsKilled"), 200'000).exitCode;
}
} // namespace

TEST_F(TraceStoreTest, KilledClientLosesNoneOfTwentyThousandLines)
{
    EXPECT_EQ(RunDyingClient(), 77u);
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    hyper after = 0;
    ASSERT_EQ(store->FindTail(TestSource, 9, LinesOfTheDyingClient, &after), S_OK);
    const std::vector<std::wstring> texts = ReadAll(store, after);
    ASSERT_EQ(texts.size(), std::size_t{LinesOfTheDyingClient});
    EXPECT_EQ(texts.front(), L"dying client, line 0");
    EXPECT_EQ(texts.back(), L"dying client, line " + std::to_wstring(LinesOfTheDyingClient - 1));
}

TEST_F(TraceStoreTest, EndOfAKilledClientIsNoticedAndTheStoreEndsAfterIt)
{
    EXPECT_EQ(RunDyingClient(), 77u);
    EXPECT_TRUE(WaitForTheEnd(60'000));
}

TEST_F(TraceStoreEndTest, StoreEndsAfterItsLastClientAndTheNextOneGetsTheOldLines)
{
    {
        const ITraceLogManagerPtr manager = Activate();
        Write(manager, L"before\nthe end");
        EXPECT_FALSE(FindProcesses(StoreName).empty());
    }
    ASSERT_TRUE(WaitForTheEnd(120'000));
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    hyper after = 0;
    ASSERT_EQ(store->FindTail(TestSource, 9, 1, &after), S_OK);
    EXPECT_EQ(ReadAll(store, after), (std::vector<std::wstring>{L"before\nthe end"}));
}

TEST_F(TraceStoreTest, KilledStoreHasFlushedLinesInItsFile)
{
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    Write(manager, L"flushed before the kill");
    ASSERT_EQ(store->Flush(), S_OK);
    const std::filesystem::path folder = Folder(store);
    const std::vector<DWORD> processes = FindProcesses(StoreName);
    ASSERT_EQ(processes.size(), 1u);
    ASSERT_TRUE(KillProcess(processes.front()));
    EXPECT_NE(ReadFiles(folder).find("35 4 flushed before the kill\n"), std::string::npos);
    EXPECT_TRUE(FAILED(manager->WriteLine(TestSource, 4, _bstr_t(L"too late"))));
}

TEST_F(TraceStoreTest, LineIsInTheFileSoonWithoutAnyFlush)
{
    const ITraceLogManagerPtr manager = Activate();
    const std::filesystem::path folder = Folder(StoreOf(manager));
    Write(manager, L"on its own");
    const ULONGLONG deadline = GetTickCount64() + 30'000;
    while (ReadFiles(folder).find("35 4 on its own\n") == std::string::npos)
    {
        ASSERT_LT(GetTickCount64(), deadline);
        Sleep(10); // nothing announces a write to a file
    }
}

TEST_F(TraceStoreEndTest, LevelsAreKeptOverRestarts)
{
    {
        const ITraceLogManagerPtr manager = Activate();
        const ITraceStorePtr store = StoreOf(manager);
        ASSERT_EQ(store->SetGlobalLevel(3), S_OK);
        ASSERT_EQ(store->SetSourceLevel(11, 6), S_OK);
    }
    ASSERT_TRUE(WaitForTheEnd(120'000));
    const ITraceLogManagerPtr manager = Activate();
    unsigned short level = 0;
    EXPECT_EQ(manager->GetGlobalLevel(&level), S_OK);
    EXPECT_EQ(level, 3);
    EXPECT_EQ(manager->GetSourceLevel(11, &level), S_OK);
    EXPECT_EQ(level, 6);
    EXPECT_EQ(manager->GetSourceLevel(10, &level), S_OK);
    EXPECT_EQ(level, 0);
}

TEST_F(TraceStoreTest, ArgumentsOutOfRangeAreRefused)
{
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    unsigned short level = 0;
    EXPECT_EQ(manager->GetSourceLevel(37, &level), E_INVALIDARG);
    EXPECT_EQ(store->SetSourceLevel(37, 1), E_INVALIDARG);
    EXPECT_EQ(store->SetSourceLevel(11, 10), E_INVALIDARG);
    EXPECT_EQ(store->SetGlobalLevel(10), E_INVALIDARG);
    EXPECT_EQ(manager->WriteLine(TestSource, 4, nullptr), S_OK); // a null string is an empty line
    const std::wstring large(300 * 1024, L'x');
    EXPECT_EQ(manager->WriteLine(TestSource, 4, _bstr_t(large.c_str())), S_OK);
    hyper after = 0;
    ASSERT_EQ(store->FindTail(TestSource, 9, 2, &after), S_OK);
    const std::vector<std::wstring> texts = ReadAll(store, after);
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], L"");
    EXPECT_TRUE(texts[1].ends_with(L"x [cut]"));
}

TEST_F(TraceStoreEndTest, FilesRotateAtTheSizeThatTheRegistrySays)
{
    ASSERT_TRUE(WaitForTheEnd(120'000));
    SetNumber(L"MaximumFileSize", 65536);
    SetNumber(L"MaximumFiles", 3);
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    const std::wstring filler(1000, L'x');
    for (int line = 0; line < 600; ++line)
    {
        Write(manager, std::to_wstring(line) + filler);
    }
    ASSERT_EQ(store->Flush(), S_OK);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(Folder(store)))
    {
        EXPECT_LE(entry.file_size(), 65536u);
        ++files;
    }
    EXPECT_EQ(files, 3u);
    EXPECT_NE(ReadFiles(Folder(store)).find("35 4 599xxx"), std::string::npos);
    // Readers still get what left the files.
    EXPECT_EQ(ReadAll(store, 0).size(), 600u);
}

TEST_F(TraceStoreTest, ManyClientsAtOnceShareOneStoreAndLoseNothing)
{
    constexpr int Clients = 8;
    constexpr int Each = 250;
    const ITraceLogManagerPtr manager = Activate();
    std::vector<std::thread> clients;
    for (int client = 0; client < Clients; ++client)
    {
        clients.emplace_back(
            [client]
            {
                ComApartment threadApartment;
                const ITraceLogManagerPtr own = Activate();
                for (int line = 0; line < Each; ++line)
                {
                    Write(own, L"client " + std::to_wstring(client) + L" line " + std::to_wstring(line));
                }
            });
    }
    for (std::thread& client : clients)
    {
        client.join();
    }
    EXPECT_EQ(FindProcesses(StoreName).size(), 1u);
    hyper after = 0;
    const ITraceStorePtr store = StoreOf(manager);
    ASSERT_EQ(store->FindTail(TestSource, 9, Clients * Each, &after), S_OK);
    EXPECT_EQ(ReadAll(store, after).size(), std::size_t{Clients * Each});
}

TEST_F(TraceStoreTest, FollowerIsWokenByTheNextLine)
{
    const ITraceLogManagerPtr manager = Activate();
    const ITraceStorePtr store = StoreOf(manager);
    hyper after = 0;
    ASSERT_EQ(store->FindTail(EverySource, 9, 0, &after), S_OK);
    ULONG count = 0;
    std::thread follower(
        [&]
        {
            ComApartment threadApartment;
            hyper next = 0;
            TraceRecord* records = nullptr;
            EXPECT_EQ(store->ReadLines(after, TestSource, 9, 10, 60'000, &next, &count, &records), S_OK);
            for (ULONG index = 0; index < count; ++index)
            {
                SysFreeString(records[index].text);
            }
            CoTaskMemFree(records);
        });
    Write(manager, L"wake up");
    follower.join();
    EXPECT_EQ(count, 1u);
}
