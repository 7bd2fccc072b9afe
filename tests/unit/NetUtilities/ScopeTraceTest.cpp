#include <source_location>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "NetUtilities/TracedMutexLock.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

// Outside the unnamed namespace: the names are compared below.
struct ScopeTraceSubject
{
    static void AlwaysOn() { const ScopeTrace scope(Log::Source::NetMon, 32); }
    static void Flagged() { const ScopeTrace scope(Log::Source::ConfigServer, 19); }
    static void Detailed() { const ScopeTrace scope(Log::Source::NetMon, 32, 0, L"the detail"); }
    static void Timed(VirtualClock& clock)
    {
        const ScopeTrace scope(Log::Source::NetMon, 32, 1);
        clock.AdvanceMilliseconds(1500);
    }
    static void Through(LogOutput output) { const ScopeTrace scope(output, 32); }
    static void Locking(PlainMutex& mutex) { const TracedMutexLock lock(mutex, L"serializeOpenCloseMutex"); }
    static void LockingRecursive(RecursiveMutex& mutex) { const TracedMutexLock lock(mutex, L"deviceInfoListMutex"); }
    template <class Mutex>
    static bool Trying(Mutex& mutex)
    {
        const TracedMutexTryLock lock(mutex, L"name");
        return lock.Owned();
    }
};

namespace
{
constexpr wchar_t UserKey[] = L"Software\\QRLS\\Sorvane\\CurrentInstall";
constexpr wchar_t ProductKey[] = L"Software\\QRLS\\Sorvane";

void SetTraceFlags(std::uint32_t flags)
{
    RegistryKey key;
    ASSERT_EQ(0U, key.Create(HKEY_CURRENT_USER, UserKey, KEY_WRITE));
    ASSERT_EQ(0U, key.WriteDword(L"TraceFlags", flags));
}

std::wstring Ids()
{
    return FormatText(L" pid {:05x} tid {:05x}", GetCurrentProcessId(), GetCurrentThreadId());
}

class ScopeTraceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
        SetTraceFlags(0);
        clock.AdvanceSeconds(1000);
    }
    void TearDown() override
    {
        SetTraceFlags(0);
        RestartTrace();
        recorder.Reset();
    }

    VirtualClock clock;
    TraceRecorder& recorder = TraceRecorder::Get();
};

TEST_F(ScopeTraceTest, AlwaysOnScopeWritesEntryAndExitAtLevelFive)
{
    ScopeTraceSubject::AlwaysOn();
    const auto lines = recorder.Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(L"Enter ==> ScopeTraceSubject::AlwaysOn" + Ids(), lines[0].Message());
    EXPECT_EQ(L"Exit  <== ScopeTraceSubject::AlwaysOn" + Ids(), lines[1].Message());
    EXPECT_EQ(11, lines[0].source);
    EXPECT_EQ(5, lines[0].level);
    EXPECT_EQ(5, lines[1].level);
}

TEST_F(ScopeTraceTest, DetailFollowsTheNameInBothLines)
{
    ScopeTraceSubject::Detailed();
    const auto messages = recorder.Messages();
    ASSERT_EQ(2U, messages.size());
    EXPECT_EQ(L"Enter ==> ScopeTraceSubject::Detailed -- the detail" + Ids(), messages[0]);
    EXPECT_EQ(L"Exit  <== ScopeTraceSubject::Detailed -- the detail" + Ids(), messages[1]);
}

TEST_F(ScopeTraceTest, TimingAppendsTheElapsedTime)
{
    clock.FreezeSteady(1'000'000'000'000);
    ScopeTraceSubject::Timed(clock);
    const auto messages = recorder.Messages();
    ASSERT_EQ(2U, messages.size());
    EXPECT_EQ(L"Exit  <== ScopeTraceSubject::Timed" + Ids() + L" - Elapsed 1.500s", messages[1]);
}

TEST_F(ScopeTraceTest, ClearFlagWritesNothing)
{
    ScopeTraceSubject::Flagged();
    for (const std::wstring& message : recorder.Messages())
    {
        EXPECT_EQ(std::wstring::npos, message.find(L"ScopeTraceSubject"))
            << std::string(message.begin(), message.end());
    }
}

TEST_F(ScopeTraceTest, SetFlagWritesBothLines)
{
    SetTraceFlags(1U << 19);
    clock.AdvanceSeconds(11);
    ScopeTraceSubject::Flagged();
    EXPECT_TRUE(recorder.Has(10, 5, L"Enter ==> ScopeTraceSubject::Flagged" + Ids()));
    EXPECT_TRUE(recorder.Has(10, 5, L"Exit  <== ScopeTraceSubject::Flagged" + Ids()));
}

TEST_F(ScopeTraceTest, SetFlagAtLevelFourReachesTheServiceWithNeitherLine)
{
    recorder.SetGlobalLevel(4);
    LogMessage(Log::Source::General, 1, L"start");
    (void)recorder.Lines();
    SetTraceFlags(1U << 19);
    clock.AdvanceSeconds(11);
    ScopeTraceSubject::Flagged();
    EXPECT_FALSE(recorder.HasMessageStarting(L"Enter ==>"));
    EXPECT_FALSE(recorder.HasMessageStarting(L"Exit  <=="));
}

TEST_F(ScopeTraceTest, OutputsTwoAndThreeGoToTheLogger)
{
    SetDefaultLogSource(Log::Source::VpnLib);
    ScopeTraceSubject::Through(LogOutput::DefaultSource);
    ScopeTraceSubject::Through(LogOutput::General);
    ScopeTraceSubject::Through(static_cast<LogOutput>(77));
    ScopeTraceSubject::Through(LogOutput::Debugger);
    ScopeTraceSubject::Through(LogOutput::FileLog);
    const auto lines = recorder.Lines();
    ASSERT_EQ(6U, lines.size());
    EXPECT_EQ(14, lines[0].source);
    EXPECT_EQ(1, lines[2].source);
    EXPECT_EQ(1, lines[4].source);
    EXPECT_EQ(5, lines[5].level);
}

// --- Flags ---

TEST_F(ScopeTraceTest, FlagsAreReadAgainAtElevenSecondsAndNotAtTen)
{
    clock.FreezeSteady(clock.SteadyNanoseconds() + 11'000'000'000);
    ASSERT_EQ(0U, GetTraceFlags());
    SetTraceFlags(0x80000020);
    clock.AdvanceNanoseconds(10'999'999'999);
    EXPECT_EQ(0U, GetTraceFlags());
    clock.AdvanceNanoseconds(1);
    EXPECT_EQ(0x80000020, GetTraceFlags());
}

TEST_F(ScopeTraceTest, FlagThirtyTwoIsAlwaysSetAndOthersCountModuloThirtyTwo)
{
    SetTraceFlags(1U << 5);
    clock.AdvanceSeconds(11);
    EXPECT_TRUE(IsTraceFlagSet(32));
    EXPECT_TRUE(IsTraceFlagSet(5));
    EXPECT_TRUE(IsTraceFlagSet(37));
    EXPECT_FALSE(IsTraceFlagSet(6));
}

TEST_F(ScopeTraceTest, MissingFlagsAreZeroAndToldAtLevelFive)
{
    RegistryKey key;
    ASSERT_EQ(0U, key.Open(HKEY_CURRENT_USER, UserKey, KEY_WRITE));
    ASSERT_EQ(0U, key.DeleteValue(L"TraceFlags"));
    clock.AdvanceSeconds(11);
    EXPECT_EQ(0U, GetTraceFlags());
    EXPECT_TRUE(recorder.Has(1, 5, L"ReadValue failed! " + SystemErrorText(ERROR_FILE_NOT_FOUND)));
    RegistryKey parent;
    ASSERT_EQ(0U, parent.Open(HKEY_CURRENT_USER, L"Software\\QRLS\\Sorvane", KEY_ALL_ACCESS));
    ASSERT_EQ(0U, parent.DeleteKey(L"CurrentInstall"));
    clock.AdvanceSeconds(11);
    EXPECT_EQ(0U, GetTraceFlags());
    EXPECT_TRUE(recorder.Has(1, 5, L"OpenKey failed! " + SystemErrorText(ERROR_FILE_NOT_FOUND)));
}

TEST_F(ScopeTraceTest, DebugOutputFollowsTheRegistryAtElevenSeconds)
{
    RegistryKey key;
    ASSERT_EQ(0U, key.Create(HKEY_LOCAL_MACHINE, UserKey, KEY_ALL_ACCESS));
    ASSERT_EQ(0U, key.WriteDword(L"DebugOutput", 2));
    clock.AdvanceSeconds(11);
    EXPECT_TRUE(IsDebugOutputEnabled());
    ASSERT_EQ(0U, key.DeleteValue(L"DebugOutput"));
    clock.AdvanceSeconds(10);
    EXPECT_TRUE(IsDebugOutputEnabled());
    clock.AdvanceSeconds(1);
    EXPECT_FALSE(IsDebugOutputEnabled()) << "a missing value turns it off";
    ASSERT_EQ(0U, key.WriteDword(L"DebugOutput", 1));
    clock.AdvanceSeconds(11);
    EXPECT_TRUE(IsDebugOutputEnabled());
    RegistryKey parent;
    ASSERT_EQ(0U, parent.Open(HKEY_LOCAL_MACHINE, ProductKey, KEY_ALL_ACCESS));
    ASSERT_EQ(0U, parent.DeleteTree(L"CurrentInstall"));
    clock.AdvanceSeconds(11);
    EXPECT_TRUE(IsDebugOutputEnabled()) << "a key that cannot be opened leaves it";
    ASSERT_EQ(0U, key.Create(HKEY_LOCAL_MACHINE, UserKey, KEY_ALL_ACCESS));
    clock.AdvanceSeconds(11);
    EXPECT_FALSE(IsDebugOutputEnabled());
}

TEST_F(ScopeTraceTest, TraceLevelDefaultsToFour)
{
    EXPECT_EQ(6, ReadTraceLevel()); // as the environment has set it
    RegistryKey key;
    ASSERT_EQ(0U, key.Open(HKEY_LOCAL_MACHINE, ProductKey, KEY_ALL_ACCESS));
    ASSERT_EQ(0U, key.DeleteValue(L"TraceLevel"));
    EXPECT_EQ(4, ReadTraceLevel());
    ASSERT_EQ(0U, key.WriteDword(L"TraceLevel", 6));
}

TEST_F(ScopeTraceTest, AccountOfNobodyGivesTheCodeAndAnEmptySid)
{
    std::wstring sid = L"left over";
    EXPECT_NE(0U, AccountToTextualSid(L"nobody-of-this-name", sid));
    EXPECT_EQ(L"", sid);
    EXPECT_TRUE(recorder.HasMessageStarting(L"LookupAccountName failed! Error "));
}

TEST_F(ScopeTraceTest, AccountOfThisUserGivesItsSid)
{
    wchar_t name[256] = {};
    DWORD size = 256;
    ASSERT_TRUE(GetUserNameW(name, &size));
    std::wstring sid;
    ASSERT_EQ(0U, AccountToTextualSid(name, sid));
    EXPECT_TRUE(sid.starts_with(L"S-1-5-21-"));
}

// --- Traced locks ---

TEST_F(ScopeTraceTest, LockLinesShowTheWishAndTheRelease)
{
    PlainMutex mutex;
    ScopeTraceSubject::Locking(mutex);
    const auto lines = recorder.Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(L"ScopeTraceSubject::Locking:     Lock ==>> serializeOpenCloseMutex", lines[0].Message());
    EXPECT_EQ(L"ScopeTraceSubject::Locking:   Unlock <<== serializeOpenCloseMutex", lines[1].Message());
    EXPECT_EQ(11, lines[0].source);
    EXPECT_EQ(5, lines[0].level);
}

TEST_F(ScopeTraceTest, TryLockThatSucceedsWritesItsLine)
{
    RecursiveMutex mutex;
    EXPECT_TRUE(ScopeTraceSubject::Trying(mutex));
    const auto messages = recorder.Messages();
    ASSERT_EQ(2U, messages.size());
    EXPECT_TRUE(messages[0].ends_with(L"::Trying: Try Lock ==>> name"));
    EXPECT_TRUE(messages[1].ends_with(L"::Trying:   Unlock <<== name"));
}

TEST_F(ScopeTraceTest, TryLockThatFailsWritesNothing)
{
    PlainMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(ScopeTraceSubject::Trying(mutex));
    mutex.Unlock();
    EXPECT_TRUE(recorder.Messages().empty());
}
} // namespace
