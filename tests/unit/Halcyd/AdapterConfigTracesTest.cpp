// What a session of binding control says of its references and times, and what it does when the Global Interface Table
// does not play along.

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <map>
#include <utility>

#include "ComSupport/ComSupport.h"
#include "tests/unit/Halcyd/AdapterConfigFixture.h"
#include "tests/unit/Halcyd/HostHooks.h"

// An explicit instantiation may name a private member: how a test reaches what no caller of the class can ask for.
using CreateLockFunction = HRESULT (AdapterConfig::*)(INetCfg*, INetCfgLock**);
CreateLockFunction CreateLockOf(const AdapterConfig& session);
template <CreateLockFunction Function>
struct CreateLockAccess
{
    friend CreateLockFunction CreateLockOf(const AdapterConfig&) { return Function; }
};
template struct CreateLockAccess<&AdapterConfig::CreateINetCfgLock>;

// Stands in front of the system's table: counts, and refuses what it is told to refuse. Lives as long as its fixture.
class WatchedInterfaceTable : public IGlobalInterfaceTable
{
public:
    // Per interface: what the next call of the kind answers, in the place of the system. S_OK for the system's answer.
    struct Entry
    {
        HRESULT fetch = S_OK;
        HRESULT revoke = S_OK;
        DWORD cookie = 0; // of the last registration
        int registered = 0;
        int revoked = 0;
    };

    WatchedInterfaceTable()
    {
        EXPECT_EQ(S_OK, CoCreateInstanceHook::Real(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                                                   __uuidof(IGlobalInterfaceTable), reinterpret_cast<void**>(&real)));
    }
    ~WatchedInterfaceTable() { real->Release(); }
    WatchedInterfaceTable(const WatchedInterfaceTable&) = delete;
    WatchedInterfaceTable& operator=(const WatchedInterfaceTable&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        const bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(IGlobalInterfaceTable));
        *out = known ? static_cast<IGlobalInterfaceTable*>(this) : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE RegisterInterfaceInGlobal(IUnknown* object, REFIID iid, DWORD* cookie) override
    {
        const HRESULT result = real->RegisterInterfaceInGlobal(object, iid, cookie);
        Entry& entry = Of(iid);
        entry.cookie = *cookie;
        ++entry.registered;
        return result;
    }
    HRESULT STDMETHODCALLTYPE RevokeInterfaceFromGlobal(DWORD cookie) override
    {
        Entry& entry = config.cookie == cookie ? config : lock;
        EXPECT_EQ(entry.cookie, cookie);
        if (const HRESULT refused = std::exchange(entry.revoke, S_OK); refused != S_OK)
        {
            return refused;
        }
        ++entry.revoked;
        revocations.push_back(cookie);
        return real->RevokeInterfaceFromGlobal(cookie);
    }
    HRESULT STDMETHODCALLTYPE GetInterfaceFromGlobal(DWORD cookie, REFIID iid, void** out) override
    {
        if (const HRESULT refused = std::exchange(Of(iid).fetch, S_OK); refused != S_OK)
        {
            *out = nullptr;
            return refused;
        }
        return real->GetInterfaceFromGlobal(cookie, iid, out);
    }

    Entry config; // of INetCfg
    Entry lock;   // of INetCfgLock
    std::vector<DWORD> revocations;

private:
    Entry& Of(REFIID iid) { return IsEqualIID(iid, __uuidof(INetCfg)) ? config : lock; }

    IGlobalInterfaceTable* real = nullptr;
};

namespace
{
constexpr HRESULT Injected = static_cast<HRESULT>(0x80040123);
constexpr HRESULT LockedByOther = static_cast<HRESULT>(0x8004A024);

class AdapterConfigTracesTest : public AdapterConfigFixture
{
protected:
    static int CountExactly(const std::wstring& text)
    {
        return static_cast<int>(std::ranges::count(TraceLines::All(), text));
    }
    // Lines that end in `end`, wherever they begin.
    static std::vector<std::wstring> LinesEnding(const std::wstring& end)
    {
        std::vector<std::wstring> found = TraceLines::All();
        std::erase_if(found, [&](const std::wstring& line) { return !line.ends_with(end); });
        return found;
    }
    // Lines that are `begin`, a number, `end`.
    static int CountTimes(const std::wstring& begin, const std::wstring& end)
    {
        int count = 0;
        for (const std::wstring& line : TraceLines::All())
        {
            if (line.size() > begin.size() + end.size() && line.starts_with(begin) && line.ends_with(end))
            {
                const std::wstring time = line.substr(begin.size(), line.size() - begin.size() - end.size());
                count += std::ranges::all_of(time, [](wchar_t digit) { return std::iswdigit(digit) != 0; }) ? 1 : 0;
            }
        }
        return count;
    }
};

using Lines = std::vector<std::wstring>;

// --- References and times ---

// The test's engine and its lock are one object, so both lines count the same references. The table has one of each
// interface; what is more is held by the operation that tells the count.
TEST_F(AdapterConfigTracesTest, InitializeTellsTheReferencesThatRemainOfTheLockAndThenOfTheEngine)
{
    EXPECT_EQ(S_OK, Open());
    EXPECT_EQ(
        (Lines{L"INetCfgLock interface ref count: 3 (Initialize)", L"INetCfg interface ref count: 2 (Initialize)"}),
        LinesEnding(L" (Initialize)"));
}

TEST_F(AdapterConfigTracesTest, InitializeWithoutALockTellsTheReferencesOfTheEngineAlone)
{
    EXPECT_EQ(S_OK, Open(0));
    EXPECT_EQ((Lines{L"INetCfg interface ref count: 1 (Initialize)"}), LinesEnding(L" (Initialize)"));
}

TEST_F(AdapterConfigTracesTest, InitializeThatIsRefusedTheLockTellsBothReferencesAllTheSame)
{
    engine.SetLockHolder(L"Other program");
    EXPECT_EQ(LockedByOther, Open());
    EXPECT_EQ(
        (Lines{L"INetCfgLock interface ref count: 3 (Initialize)", L"INetCfg interface ref count: 2 (Initialize)"}),
        LinesEnding(L" (Initialize)"));
}

TEST_F(AdapterConfigTracesTest, CloseTellsTheReferencesOfTheLockAndThenOfTheEngineUnderTheirOwnNames)
{
    Open();
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_EQ((Lines{L"INetCfgLock interface ref count: 3 (Close-pnclock1)"}), LinesEnding(L" (Close-pnclock1)"));
    EXPECT_EQ((Lines{L"INetCfg interface ref count: 2 (Close-pnc1)"}), LinesEnding(L" (Close-pnc1)"));
    const Lines all = TraceLines::All();
    EXPECT_LT(std::ranges::find(all, L"INetCfgLock interface ref count: 3 (Close-pnclock1)"),
              std::ranges::find(all, L"INetCfg interface ref count: 2 (Close-pnc1)"));
}

TEST_F(AdapterConfigTracesTest, CloseWithoutTheLockTellsTheReferencesOfTheEngineAlone)
{
    Open(0);
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_TRUE(LinesEnding(L" (Close-pnclock1)").empty());
    EXPECT_EQ((Lines{L"INetCfg interface ref count: 1 (Close-pnc1)"}), LinesEnding(L" (Close-pnc1)"));
}

TEST_F(AdapterConfigTracesTest, CloseWithoutASessionTellsNoReferences)
{
    EXPECT_EQ(E_POINTER, session->Close());
    EXPECT_FALSE(std::ranges::any_of(TraceLines::All(), [](const std::wstring& line)
                                     { return line.find(L"ref count") != std::wstring::npos; }));
}

TEST_F(AdapterConfigTracesTest, DisableTellsTheReferencesAndItsTimeInMilliseconds)
{
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ((Lines{L"INetCfg interface ref count: 2 (DisableBindings-exit)"}),
              LinesEnding(L" (DisableBindings-exit)"));
    EXPECT_EQ(1, CountTimes(L"\tDisableBindings total time was ", L" ms"));
}

TEST_F(AdapterConfigTracesTest, RestoreTellsTheReferencesAndItsTimeWithoutAUnit)
{
    Open();
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_EQ((Lines{L"INetCfg interface ref count: 2 (RestoreBindings-exit)"}),
              LinesEnding(L" (RestoreBindings-exit)"));
    EXPECT_EQ(1, CountTimes(L"    total time was ", L""));
    EXPECT_TRUE(LinesEnding(L" (GetBindPath-exit)").empty());
}

TEST_F(AdapterConfigTracesTest, EachSearchForARecordedPathTellsTheReferencesFoundOrNot)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto gone = engine.AddComponent(L"gone", 3);
    engine.AddPath(L"ms_tcpip", {card}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    WriteRecord(RecordOf(L"ms_tcpip", *gone), 1);
    Open();
    EXPECT_EQ(S_OK, session->RestoreBindings());
    // The restore around the search has a reference too.
    EXPECT_EQ(Lines(2, L"INetCfg interface ref count: 3 (GetBindPath-exit)"), LinesEnding(L" (GetBindPath-exit)"));
}

TEST_F(AdapterConfigTracesTest, TimeOfTheAttemptAtTheLockIsToldInMilliseconds)
{
    Open();
    EXPECT_EQ(1, CountTimes(L"Attempt to acquire the INetCfgLock WriteLock took ", L" ms"));
}

TEST_F(AdapterConfigTracesTest, WithoutASessionBothOperationsTellTheirTimeAndNoReferences)
{
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_EQ(1, CountTimes(L"\tDisableBindings total time was ", L" ms"));
    EXPECT_EQ(1, CountTimes(L"    total time was ", L""));
    EXPECT_TRUE(LinesEnding(L" (DisableBindings-exit)").empty());
    EXPECT_TRUE(LinesEnding(L" (RestoreBindings-exit)").empty());
}

// --- The Global Interface Table ---

TEST_F(AdapterConfigTracesTest, LockInterfaceOfNoEngineIsEPointerAndNothing)
{
    INetCfgLock* lock = nullptr;
    EXPECT_EQ(E_POINTER, (session.get()->*CreateLockOf(*session))(nullptr, &lock));
    EXPECT_EQ(nullptr, lock);
    EXPECT_FALSE(session->HasSession());
    EXPECT_TRUE(engine.AllCalls().empty());
}

// Without a module the table is asked for anew with each use: the test gives its own.
class InterfaceTableTest : public AdapterConfigTracesTest
{
protected:
    InterfaceTableTest() : module(std::exchange(_pModule, nullptr))
    {
        CoCreateInstanceHook::Replace(
            [this](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* object)
            {
                return IsEqualCLSID(classId, CLSID_StdGlobalInterfaceTable)
                           ? table.QueryInterface(iid, object)
                           : CoCreateInstanceHook::Real(classId, outer, context, iid, object);
            });
    }
    ~InterfaceTableTest() override
    {
        session.reset();
        _pModule = module;
    }
    static std::wstring Hex(DWORD cookie)
    {
        wchar_t text[16];
        swprintf(text, std::size(text), L"0x%lx", cookie);
        return text;
    }

    WatchedInterfaceTable table;

private:
    CComModule* module;
};

TEST_F(InterfaceTableTest, RefusedLockLeavesBothEntriesUntilClose)
{
    engine.SetLockHolder(L"Other program");
    EXPECT_EQ(LockedByOther, Open());
    EXPECT_EQ(1, table.config.registered);
    EXPECT_EQ(1, table.lock.registered);
    EXPECT_TRUE(table.revocations.empty());
    EXPECT_TRUE(session->HasSession());
    // A second attempt uses what is there.
    EXPECT_EQ(LockedByOther, Open());
    EXPECT_EQ(1, table.config.registered);
    EXPECT_EQ(1, table.lock.registered);
    session->Close();
    EXPECT_EQ((std::vector<DWORD>{table.lock.cookie, table.config.cookie}), table.revocations);
}

TEST_F(InterfaceTableTest, CloseRevokesTheLockBeforeTheEngine)
{
    Open();
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_EQ((std::vector<DWORD>{table.lock.cookie, table.config.cookie}), table.revocations);
    EXPECT_EQ(1, CountExactly(L"Close INetCfgLockGIT.Revoke cookie: 0x0"));
    EXPECT_EQ(1, CountExactly(L"Close INetCfgGIT.Revoke rc: cookie: 0x0"));
}

TEST_F(InterfaceTableTest, EngineThatTheTableDoesNotGiveIsToldAndCountsAsNone)
{
    Open();
    engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"card", 2)});
    table.config.fetch = Injected;
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ(0, engine.Calls("INetCfg::FindComponent"));
    EXPECT_EQ(0, engine.Calls("INetCfg::Apply"));
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"could not get INetCfg reference from GIT"));
    trace.Clear();
    table.config.fetch = Injected;
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_EQ(0, engine.Calls("INetCfg::Apply"));
    EXPECT_TRUE(trace.Has(L"could not get INetCfg reference from GIT"));
}

TEST_F(InterfaceTableTest, CloseThatDoesNotGetTheEngineIsEPointerAndRevokesBothEntries)
{
    Open();
    table.config.fetch = Injected;
    EXPECT_EQ(E_POINTER, session->Close());
    EXPECT_TRUE(trace.Has(L"could not get INetCfg reference from GIT"));
    EXPECT_EQ(1, CountExactly(L"INetCfg interface is NULL"));
    EXPECT_EQ(0, engine.Calls("INetCfg::Uninitialize"));
    EXPECT_EQ(2u, table.revocations.size());
    EXPECT_FALSE(session->HasSession());
}

TEST_F(InterfaceTableTest, InitializeThatDoesNotGetTheEngineMakesANewOne)
{
    Open(0);
    table.config.fetch = Injected;
    EXPECT_EQ(S_OK, Open(0));
    EXPECT_EQ(2, engine.Calls("CNetCfg::CreateInstance"));
    EXPECT_TRUE(trace.Has(L"could not get INetCfg reference from GIT"));
    EXPECT_EQ(2, CountExactly(L"no current INetCfg object, need to create it"));
}

TEST_F(InterfaceTableTest, CloseThatDoesNotGetTheLockSaysSoAndKeepsTheFlag)
{
    Open();
    table.lock.fetch = Injected;
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_TRUE(trace.Has(Log::Source::ConfigServer, 2, L"could not get INetCfgLock reference from GIT"));
    EXPECT_EQ(1, CountExactly(L"INetCfg could not get INetCfgLock interface(Close)"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::ReleaseWriteLock"));
    EXPECT_FALSE(trace.Has(L"INetCfgLock WriteLock released"));
    EXPECT_TRUE(LinesEnding(L" (Close-pnclock1)").empty());
    EXPECT_EQ(1, CountExactly(L"INetCfg interface ref count: 2 (Close-pnc1)"));
    EXPECT_TRUE(session->HoldsWriteLock());
    EXPECT_FALSE(session->HasSession());
}

TEST_F(InterfaceTableTest, InitializeThatDoesNotGetTheLockFromTheTableGoesOnWithoutIt)
{
    engine.FailCall("INetCfgLock::AcquireWriteLock", E_ACCESSDENIED);
    EXPECT_EQ(E_ACCESSDENIED, Open());
    table.lock.fetch = Injected;
    EXPECT_EQ(S_OK, Open());
    EXPECT_TRUE(trace.Has(L"could not get INetCfgLock reference from GIT"));
    EXPECT_EQ(1, CountExactly(L"could not get INetCfgLock interface"));
    EXPECT_TRUE(engine.Initialized());
    EXPECT_FALSE(session->HoldsWriteLock());
}

TEST_F(InterfaceTableTest, FailedRevokeOfTheLockLeavesItsCookieAndItsLineShowsIt)
{
    Open();
    table.lock.revoke = Injected;
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_EQ(1, CountExactly(L"Close INetCfgLockGIT.Revoke cookie: " + Hex(table.lock.cookie)));
    EXPECT_EQ(1, CountExactly(L"Close INetCfgGIT.Revoke rc: cookie: 0x0"));
    EXPECT_NE(0u, table.lock.cookie);
    // The next close takes it away, though there is no engine any more.
    EXPECT_EQ(E_POINTER, session->Close());
    EXPECT_EQ(1, table.lock.revoked);
    EXPECT_EQ(1, CountExactly(L"Close INetCfgLockGIT.Revoke cookie: 0x0"));
}

TEST_F(InterfaceTableTest, FailedRevokeOfTheEngineLeavesItsCookieAndItsLineShowsIt)
{
    Open();
    table.config.revoke = Injected;
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_EQ(1, CountExactly(L"Close INetCfgLockGIT.Revoke cookie: 0x0"));
    EXPECT_EQ(1, CountExactly(L"Close INetCfgGIT.Revoke rc: cookie: " + Hex(table.config.cookie)));
    EXPECT_NE(0u, table.config.cookie);
    EXPECT_TRUE(session->HasSession());
    session.reset();
    EXPECT_EQ(1, table.config.revoked);
    EXPECT_EQ(0, engine.LivingObjects());
}
} // namespace
