// What the foundation says and does when the platform lets it down in the middle of something.

#include <windows.h>
#include <sddl.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "FallbackFixtures.h"
#include "NetUtilities/CrashGuard.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/IniFile.h"
#include "NetUtilities/IniText.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/TextHelpers.h"
#include "NetUtilities/WorkItem.h"
#include "PlatformFailures.h"
#include "tests/unit/support/RunChild.h"

namespace
{
namespace fs = std::filesystem;
constexpr DWORD Quota = ERROR_NOT_ENOUGH_QUOTA; // 1816

// --- Threads that cannot be started ---

class FallbackFailureTest : public FallbackTest
{
protected:
    const PlatformFailureScope failures;
};

TEST_F(FallbackFailureTest, LoggerThreadThatCannotBeStartedIsToldAndTheNextMessageTriesAgain)
{
    PlatformFailures::Fail("pthread_create", 1, Quota);
    LogMessage(Log::Source::General, 1, L"first");
    EXPECT_EQ(PlatformFailures::Failed("pthread_create"), 1);
    const auto texts = keeping->Texts();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_TRUE(texts[0].starts_with(L"Error: Unable to create Logger thread - '"));
    EXPECT_NE(texts[0].find(L"' Error 1816 (0x718)"), std::wstring::npos);
    LogMessage(Log::Source::General, 1, L"second");
    EXPECT_EQ(recorder.Messages(), (std::vector<std::wstring>{L"first", L"second"}))
        << "the first one waited in the queue";
}

TEST_F(FallbackFailureTest, LoggerThreadThatCannotEnterComIsToldAndItsMessagesStayInTheQueue)
{
    PlatformFailures::Fail("CoInitializeEx", 1, static_cast<DWORD>(E_OUTOFMEMORY));
    LogMessage(Log::Source::General, 1, L"never delivered");
    Logger::Instance()->Stop(); // the thread is gone already: nothing is waited for
    EXPECT_EQ(PlatformFailures::Failed("CoInitializeEx"), 1);
    const auto texts = keeping->Texts();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_TRUE(texts[0].starts_with(
        L"Error: Unable to initialize COM for the TraceLogManager! Error 2147942414 (0x8007000e)"));
    EXPECT_TRUE(recorder.LinesNow().empty());
}

class DebuggerFailureTest : public DebuggerChannelTest
{
protected:
    static bool Told(std::wstring_view start)
    {
        const auto texts = Texts();
        return std::any_of(texts.begin(), texts.end(),
                           [&](const std::wstring& text) { return text.starts_with(start); });
    }
    const PlatformFailureScope failures;
};

class StartableFileLogger : public FileLogger
{
public:
    StartableFileLogger(const fs::path& folder, bool enabled)
    {
        logFolder = folder.wstring();
        baseName = L"Unit";
        writingEnabled = enabled;
    }
    // On this thread: a logger that goes at once may end its own before it has run.
    void WriteHere(const std::wstring& line) { WriteLine(line); }
};

TEST_F(DebuggerFailureTest, FileLoggerThreadThatCannotBeStartedIsToldAndTheLinesStayInTheQueue)
{
    StartableFileLogger logger(fs::temp_directory_path(), false);
    PlatformFailures::Fail("pthread_create", 1, Quota);
    logger.Write(L"a line\n");
    EXPECT_TRUE(Told(L"QRLC: Unable to create FileLogger thread '"));
    logger.Write(L"another line\n"); // no second try
    EXPECT_EQ(PlatformFailures::Failed("pthread_create"), 1);
}

TEST_F(DebuggerFailureTest, LogFileThatCannotBeOpenedIsToldWithItsPathAndTheReason)
{
    const fs::path folder = fs::temp_directory_path() / L"no such folder of this test";
    {
        StartableFileLogger logger(folder, true);
        logger.WriteHere(L"a line\n");
    }
    EXPECT_TRUE(Told(L"QRLC: Error opening log file: " + folder.wstring() + L"\\Unit_"));
    const auto texts = Texts();
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::wstring& text)
                            { return text.ends_with(L".log - No such file or directory\n"); }));
}

// --- The trace service that cannot be created ---

constexpr int ToldAndTerminated = 17;

TEST(MissingTraceService, IsToldTheDebuggerBeforeTheProcessEnds)
{
    EXPECT_EQ(ToldAndTerminated, RunChild("TellsTheDebugger"));
    RegistryKey install; // the child could not clear up
    ASSERT_EQ(install.Open(HKEY_LOCAL_MACHINE, CurrentInstall, KEY_WRITE), 0U);
    EXPECT_EQ(install.DeleteValue(L"DebugOutput"), 0U);
}

// The debugger is told first, then the process ends by its terminate handler.
CHILD_PROCESS(DebuggerChannelTest, TellsTheDebugger)
{
    std::set_terminate(
        []
        {
            const std::lock_guard guard(debuggerLock);
            const bool told = std::any_of(
                debuggerTexts.begin(), debuggerTexts.end(), [](const std::wstring& text)
                { return text.starts_with(L"QRLC: Unable to Create Instance of TraceLogManager! Error 2147"); });
            TerminateProcess(GetCurrentProcess(), told ? ToldAndTerminated : 1);
        });
    TraceRecorder::Get().RevokeClass();
    LogMessage(Log::Source::General, 1, L"nobody takes this");
    Sleep(60000); // ended long before this has passed
}

// --- Work items ---

class NoWork : public CWorkItem
{
public:
    explicit NoWork(bool& gone) : deleted(gone) {}
    ~NoWork() override { deleted = true; }
    void Execute() override {}

private:
    bool& deleted;
};

class WorkItemFailureTest : public testing::Test
{
protected:
    const PlatformFailureScope failures;
};

TEST_F(WorkItemFailureTest, QueueThreadThatCannotBeStartedRaisesAndTheQueueCanStartLater)
{
    CWorkItemQueue queue;
    PlatformFailures::Fail("pthread_create", 1, Quota);
    EXPECT_THROW(queue.Start(), std::system_error);
    EXPECT_FALSE(queue.Stop()) << "there is no thread";
    bool deleted = false;
    EXPECT_TRUE(queue.Add(new NoWork(deleted)));
    EXPECT_TRUE(queue.Start());
    EXPECT_TRUE(queue.StopAfterDrain(60000, nullptr));
    EXPECT_TRUE(deleted);
}

TEST_F(WorkItemFailureTest, PoolThatCannotGrowRaisesToTheCallerOfAdd)
{
    CWorkItemThreadPool pool(0, 1);
    pool.Start();
    bool deleted = false;
    PlatformFailures::Fail("pthread_create", 1, Quota);
    EXPECT_THROW(pool.Add(new NoWork(deleted)), std::system_error);
    EXPECT_TRUE(deleted);
    EXPECT_EQ(pool.ThreadCount(), 0U);
    deleted = false;
    EXPECT_TRUE(pool.Add(new NoWork(deleted)));
    EXPECT_TRUE(pool.Stop(60000));
    EXPECT_TRUE(deleted);
}

// --- The registry ---

class RegistryFailureTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
        ASSERT_EQ(key.Create(HKEY_CURRENT_USER, L"Software\\HalcydFailureTest", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(key.WriteString(L"Text", L"stored"), 0U);
    }
    void TearDown() override
    {
        RegistryKey software;
        if (software.Open(HKEY_CURRENT_USER, L"Software", KEY_ALL_ACCESS) == 0)
        {
            software.DeleteTree(L"HalcydFailureTest");
        }
        RestartTrace();
    }
    // Messages above the detail level: reading the trace flags may tell of missing keys there.
    std::vector<std::wstring> Told()
    {
        std::vector<std::wstring> messages;
        for (const RecordedLine& line : recorder.Lines())
        {
            if (line.level < 5)
            {
                messages.push_back(line.Message());
            }
        }
        return messages;
    }
    const PlatformFailureScope failures;
    TraceRecorder& recorder = TraceRecorder::Get();
    RegistryKey key;
};

TEST_F(RegistryFailureTest, StringWhoseSecondQueryFailsKeepsTheDefaultAndIsTraced)
{
    PlatformFailures::Fail("RegQueryValueExW", 2, ERROR_ACCESS_DENIED, 1, L"Text");
    std::wstring text;
    EXPECT_EQ(key.ReadString(L"Text", text, L"default"), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(text, L"default");
    EXPECT_TRUE(recorder.HasMessageStarting(
        L"RegQueryValueEx read wstring HKCU\\Software\\HalcydFailureTest\\Text Error 5 (0x5)"));
}

TEST_F(RegistryFailureTest, StringThatHasGrownMeanwhileIsTraced)
{
    PlatformFailures::Fail("RegQueryValueExW", 2, ERROR_MORE_DATA, 1, L"Text");
    std::wstring text;
    EXPECT_EQ(key.ReadString(L"Text", text), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_TRUE(recorder.HasMessageStarting(L"RegQueryValueEx read wstring "));
}

TEST_F(RegistryFailureTest, ValueWhoseSecondQueryFailsStaysEmptyAndIsTraced)
{
    PlatformFailures::Fail("RegQueryValueExW", 2, ERROR_ACCESS_DENIED, 1, L"Text");
    RegistryValue value;
    EXPECT_EQ(key.ReadValue(L"Text", value), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(value.type, 0U);
    EXPECT_TRUE(value.Bytes().empty());
    EXPECT_TRUE(recorder.HasMessageStarting(
        L"RegQueryValueEx read value HKCU\\Software\\HalcydFailureTest\\Text Error 5 (0x5)"));
}

TEST_F(RegistryFailureTest, ValueThatHasGrownMeanwhileIsSilent)
{
    for (const int query : {1, 2})
    {
        PlatformFailures::Fail("RegQueryValueExW", query, ERROR_MORE_DATA, 1, L"Text");
        RegistryValue value;
        EXPECT_EQ(key.ReadValue(L"Text", value), static_cast<DWORD>(ERROR_MORE_DATA));
    }
    EXPECT_TRUE(Told().empty());
}

class MultiStringFailureTest : public RegistryFailureTest
{
protected:
    ~MultiStringFailureTest() override { VariantClear(&variant); }
    void Load() { LoadVariantWithMultiSz(&variant, {L"one", L"two"}); }
    void ExpectOnlyLine(const std::string& function, DWORD code, const wchar_t* line)
    {
        Load();
        (void)recorder.Lines(); // what the load says has arrived
        recorder.Reset();
        PlatformFailures::Fail(function, 1, code);
        DisplayVariantArrayBstr(&variant);
        const auto messages = Told();
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(messages.back(), line);
    }
    VARIANT variant{};
};

TEST_F(MultiStringFailureTest, StringThatCannotBePutIsToldAndTheOthersAreLoaded)
{
    PlatformFailures::Fail("SafeArrayPutElement", 1, static_cast<DWORD>(E_OUTOFMEMORY));
    Load();
    EXPECT_EQ(Told(), (std::vector<std::wstring>{L"the multi-string contains 2 string(s)",
                                                 L"could not load one into safearray", L"loaded two into safearray"}));
    LONG second = 1;
    BSTR text = nullptr;
    ASSERT_EQ(SafeArrayGetElement(V_ARRAY(&variant), &second, &text), S_OK);
    EXPECT_STREQ(text, L"two");
    SysFreeString(text);
}

TEST_F(MultiStringFailureTest, DumpTellsALowerBoundThatCannotBeHad)
{
    ExpectOnlyLine("SafeArrayGetLBound", static_cast<DWORD>(DISP_E_BADINDEX),
                   L"could not get lower bound for the DNS safearray");
}

TEST_F(MultiStringFailureTest, DumpTellsAnUpperBoundThatCannotBeHad)
{
    ExpectOnlyLine("SafeArrayGetUBound", static_cast<DWORD>(DISP_E_BADINDEX),
                   L"could not get upper bound for the DNS safearray");
}

TEST_F(MultiStringFailureTest, DumpTellsDataThatCannotBeReached)
{
    ExpectOnlyLine("SafeArrayAccessData", static_cast<DWORD>(E_UNEXPECTED), L"Could not access DNS safearray");
}

TEST_F(MultiStringFailureTest, DumpTellsDataThatCannotBeReleasedBehindItsLines)
{
    ExpectOnlyLine("SafeArrayUnaccessData", static_cast<DWORD>(E_UNEXPECTED), L"Could not release safearray");
    EXPECT_EQ(Told(),
              (std::vector<std::wstring>{L"array[0]\t:one", L"array[1]\t:two", L"Could not release safearray"}));
    PlatformFailures::Reset();
    SafeArrayUnaccessData(V_ARRAY(&variant)); // the lock that the failure left
}

// --- Account names ---

TEST_F(RegistryFailureTest, SidThatCannotBeWrittenAsTextIsToldAndItsCodeReturned)
{
    wchar_t name[257] = {};
    DWORD size = 257;
    ASSERT_TRUE(GetUserNameW(name, &size));
    PlatformFailures::Fail("ConvertSidToStringSidW", 1, ERROR_INVALID_SID);
    std::wstring sid = L"before";
    EXPECT_EQ(AccountToTextualSid(name, sid), static_cast<DWORD>(ERROR_INVALID_SID));
    EXPECT_EQ(sid, L"");
    const auto lines = recorder.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [](const RecordedLine& line)
                            {
                                return line.source == 1 && line.level == 2 &&
                                       line.Message().starts_with(L"ConvertSidToStringSid failed! Error 1337 (0x539)");
                            }));
}

// --- Folders, ini file, version ---

class FolderFailureTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
    }
    void TearDown() override { RestartTrace(); }
    const PlatformFailureScope failures;
    TraceRecorder& recorder = TraceRecorder::Get();
};

TEST_F(FolderFailureTest, DataFolderThatCannotBeFoundIsToldLeftEmptyAndAskedForAgain)
{
    PathData paths;
    PlatformFailures::Fail("SHGetKnownFolderPath", 1, static_cast<DWORD>(E_FAIL));
    EXPECT_EQ(paths.GetDataFolder(), L"");
    const auto lines = recorder.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [](const RecordedLine& line)
                            {
                                return line.source == 1 && line.level == 2 &&
                                       line.Message().starts_with(
                                           L"Failed to get Program Data folder Error 2147500037 (0x80004005)");
                            }));
    EXPECT_TRUE(paths.GetDataFolder().ends_with(L"\\QRLS\\Sorvane"));
}

TEST_F(FolderFailureTest, SystemFolderThatCannotBeFoundIsToldLeftEmptyAndAskedForAgain)
{
    PathData paths;
    PlatformFailures::Fail("SHGetKnownFolderPath", 1, static_cast<DWORD>(E_FAIL));
    EXPECT_EQ(paths.GetSystemFolder(), L"");
    EXPECT_TRUE(recorder.HasMessageStarting(L"Failed to get System folder Error 2147500037 (0x80004005)"));
    EXPECT_NE(paths.GetSystemFolder(), L"");
}

TEST_F(FolderFailureTest, IniFileWhoseTimeCannotBeReadRaisesLastWriteTime)
{
    const fs::path file = fs::temp_directory_path() / L"HalcydFailureTest.ini";
    std::ofstream(file) << "[VPN]\nMask=1\n";
    IniFile ini;
    PlatformFailures::Fail("GetFileAttributesExW", 1, ERROR_ACCESS_DENIED);
    try
    {
        (void)ini.GetString(L"VPN", L"Mask", L"", file.wstring());
        ADD_FAILURE() << "nothing was raised";
    }
    catch (const std::system_error& error)
    {
        EXPECT_EQ(error.code().value(), ERROR_ACCESS_DENIED);
        EXPECT_TRUE(std::string(error.what()).starts_with("last_write_time")) << error.what();
    }
    EXPECT_EQ(ini.GetString(L"VPN", L"Mask", L"", file.wstring()), L"1");
    fs::remove(file);
}

TEST(IniNumber, RaisesInTheWordsOfTheConversion)
{
    const auto what = [](std::wstring_view text) -> std::string
    {
        try
        {
            (void)IniText::ToNumber(text);
        }
        catch (const std::invalid_argument& error)
        {
            return std::string("invalid: ") + error.what();
        }
        catch (const std::out_of_range& error)
        {
            return std::string("range: ") + error.what();
        }
        return "nothing";
    };
    EXPECT_EQ(what(L"none"), "invalid: invalid stoull argument");
    EXPECT_EQ(what(L""), "invalid: invalid stoull argument");
    EXPECT_EQ(what(L"18446744073709551616"), "range: stoull argument out of range");
    EXPECT_EQ(what(L"18446744073709551615"), "nothing");
}

TEST(ClientVersion, IsTheProductVersionOfTheClientInTheInstallFolder)
{
    std::wstring version;
    EXPECT_FALSE(GetClientProductVersion(version));
    EXPECT_EQ(version, L"") << "no client here";
    const fs::path client = fs::path(GetInstallFolder()) / L"Sorvane.exe";
    ASSERT_TRUE(fs::copy_file(GetSystemFolder() + L"\\kernel32.dll", client));
    std::wstring expected;
    EXPECT_TRUE(GetFileVersionString(client.wstring(), L"ProductVersion", expected));
    EXPECT_TRUE(GetClientProductVersion(version));
    EXPECT_EQ(version, expected);
    EXPECT_NE(version, L"");
    fs::remove(client);
}

TEST(AddressParsing, TextBehindTheFourthPartIsNotLookedAt)
{
    std::uint32_t address = 0;
    EXPECT_TRUE(TextToIpv4(L"10.1.2.3 and more", address, false));
    EXPECT_EQ(address, 0x0302010AU);
}

// --- Crash dumps ---

TEST(CrashDumpFile, TwoCrashesOfOneSecondShareTheirFile)
{
    VirtualClock clock;
    SYSTEMTIME time{};
    time.wYear = 2026;
    time.wMonth = 12;
    time.wDay = 24;
    clock.SetLocalTime(time);
    const fs::path folder = GetDataFolder();
    const fs::path dump = folder / L"UnitTestsNetUtilities__2026_12_24_00_00_00.dmp";
    fs::remove(dump);
    EXPECT_EQ(0, WriteCrashDump(nullptr));
    ASSERT_TRUE(fs::exists(dump));
    EXPECT_EQ(0, WriteCrashDump(nullptr)); // overwritten in place
    int dumps = 0;
    for (const auto& entry : fs::directory_iterator(folder))
    {
        dumps += entry.path().filename().wstring().find(L"2026_12_24") != std::wstring::npos ? 1 : 0;
    }
    EXPECT_EQ(dumps, 1);
    fs::remove(dump);
}
} // namespace
