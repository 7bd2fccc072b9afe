#include <gtest/gtest.h>

#include <comdef.h>

#include "tests/support/HandleCount.h"
#include "tests/unit/Halcyd/AdapterConfigFixture.h"
#include "tests/unit/Halcyd/WritableRecords.h"

namespace
{
constexpr HRESULT LockedByOther = static_cast<HRESULT>(0x8004A024);
constexpr HRESULT Injected = static_cast<HRESULT>(0x80040123);

class AdapterConfigTest : public AdapterConfigFixture
{
protected:
    // 0 or more: the value; -1: the key stands without it; -2: no key.
    static int RecordValue(const std::wstring& subkey)
    {
        RegistryKey key(false);
        std::uint32_t value = 0;
        if (key.Open(HKEY_LOCAL_MACHINE, subkey, KEY_READ) != ERROR_SUCCESS)
        {
            return -2;
        }
        return key.ReadDword(L"BindingDisabledByQRL", value) == ERROR_SUCCESS ? static_cast<int>(value) : -1;
    }
};

// --- Session ---

TEST_F(AdapterConfigTest, FreeLockIsTakenAtTheFirstLookWithoutASleep)
{
    EXPECT_EQ(S_OK, Open());
    EXPECT_TRUE(clock.Sleeps().empty());
    EXPECT_EQ(Us, engine.LockHolder());
    EXPECT_EQ(5000u, engine.lockWait);
    EXPECT_TRUE(session->HoldsWriteLock());
    EXPECT_TRUE(session->HasSession());
    EXPECT_TRUE(trace.Has(L"no current INetCfg object, need to create it"));
    EXPECT_TRUE(trace.Has(L"Attempt to acquire the INetCfgLock WriteLock took "));
    EXPECT_TRUE(trace.Has(L"acquired the INetCfgLock WriteLock"));
    EXPECT_TRUE(trace.Has(L"INetCfg Initialize interface"));
    EXPECT_TRUE(trace.Has(L"INetCfgLock interface ref count: "));
    EXPECT_TRUE(trace.Has(L"INetCfg interface ref count: "));
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_FALSE(session->HasSession());
    EXPECT_FALSE(session->HoldsWriteLock());
    EXPECT_TRUE(trace.Has(L"INetCfg Uninitialize interface"));
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock released"));
    EXPECT_TRUE(trace.Has(L"Close INetCfgLockGIT.Revoke cookie: 0x0"));
    EXPECT_TRUE(trace.Has(L"Close INetCfgGIT.Revoke rc: cookie: 0x0"));
    EXPECT_EQ(0, engine.LivingObjects());
}

TEST_F(AdapterConfigTest, LockHeldByAnotherProgramIsLookedAtElevenTimesWithTenSleepsOfASecond)
{
    engine.SetLockHolder(L"Other program");
    EXPECT_EQ(LockedByOther, Open());
    EXPECT_EQ(std::vector<DWORD>(10, 1000), clock.Sleeps());
    EXPECT_EQ(11, engine.Calls("INetCfgLock::IsWriteLocked"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::AcquireWriteLock"));
    EXPECT_EQ(L"Other program", holder);
    EXPECT_FALSE(session->HoldsWriteLock());
    EXPECT_TRUE(session->HasSession());
    EXPECT_EQ(0, engine.Calls("INetCfg::Initialize"));
    EXPECT_EQ(11, trace.Count(L"'Other program' has INetCfgLock"));
    EXPECT_EQ(11, trace.Count(L"did NOT acquire the INetCfgLock WriteLock"));
    EXPECT_EQ(
        10,
        trace.Count(L"since 'Other program' is holding the INetCfgLock WriteLock, waiting a second and trying again"));
    EXPECT_EQ(1, trace.Count(L"attempted to get INetCfgLock WriteLock 10 times, giving up"));
}

TEST_F(AdapterConfigTest, HolderThatLetsGoAfterThreeSecondsIsSeenAtTheFourthLook)
{
    engine.SetLockHolder(L"Other program");
    clock.OnSleep(
        [this]
        {
            if (clock.Now() == 3000)
            {
                engine.SetLockHolder(L"");
            }
        });
    EXPECT_EQ(S_OK, Open());
    EXPECT_EQ(4, engine.Calls("INetCfgLock::IsWriteLocked"));
    EXPECT_EQ(3u, clock.Sleeps().size());
    EXPECT_TRUE(session->HoldsWriteLock());
}

TEST_F(AdapterConfigTest, LockTakenBetweenLookAndAcquireIsRetriedOnlyForNoWriteLock)
{
    engine.FailCall("INetCfgLock::AcquireWriteLock", LockedByOther);
    EXPECT_EQ(S_OK, Open());
    EXPECT_EQ(1u, clock.Sleeps().size());
    EXPECT_EQ(2, engine.Calls("INetCfgLock::AcquireWriteLock"));
    EXPECT_TRUE(trace.Has(L"Acquire INetCfgLock WriteLock failed"));
    EXPECT_TRUE(trace.Has(L"'' is holding INetCfgLock"));
}

TEST_F(AdapterConfigTest, WaitForTheLockThatRanOutNamesTheHolderAndIsNotRetried)
{
    // Free at the look, taken when it is asked for.
    engine.OnCall("INetCfgLock::AcquireWriteLock", [this] { engine.SetLockHolder(L"Quick program"); });
    EXPECT_EQ(S_FALSE, Open());
    EXPECT_EQ(L"Quick program", holder);
    EXPECT_TRUE(clock.Sleeps().empty());
    EXPECT_EQ(1, engine.Calls("INetCfgLock::AcquireWriteLock"));
    EXPECT_EQ(0, engine.Calls("INetCfg::Initialize"));
    EXPECT_FALSE(session->HoldsWriteLock());
}

TEST_F(AdapterConfigTest, EachOtherLockResultEndsTheAttemptAtOnceWithItsLine)
{
    const struct
    {
        HRESULT result;
        const wchar_t* line;
    } rows[] = {
        {S_FALSE, L"Timed out after waiting 5000 ms for INetCfgLock"},
        {static_cast<HRESULT>(0x8004A025), L"Need to reboot to get the INetCfgLock"},
        {0x0004A020, L"Needs a reboot to get the INetCfgLock"},
        {static_cast<HRESULT>(0x8004A020), L"The INetCfgLock is already Initialized"},
        {static_cast<HRESULT>(0x80070005), L"Insufficient Access rights to get INetCfgLock (must be Administrator)"},
        {Injected, L"Acquire INetCfgLock WriteLock failed"}};
    for (const auto& row : rows)
    {
        trace.Clear();
        engine.FailCall("INetCfgLock::AcquireWriteLock", row.result);
        EXPECT_EQ(row.result, Open());
        EXPECT_TRUE(trace.Has(row.line)) << row.result;
        EXPECT_TRUE(clock.Sleeps().empty());
        EXPECT_FALSE(session->HoldsWriteLock());
        EXPECT_EQ(0, engine.Calls("INetCfg::Initialize"));
        session->Close();
        EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock not released"));
    }
}

TEST_F(AdapterConfigTest, FailingLookEndsTheAttempt)
{
    engine.FailCall("INetCfgLock::IsWriteLocked", Injected);
    EXPECT_EQ(Injected, Open());
    EXPECT_TRUE(trace.Has(L"INetCfgLock IsWriteLock error"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::AcquireWriteLock"));
}

TEST_F(AdapterConfigTest, WithoutWriteLockTheLockInterfaceIsNotUsedAndCloseSaysSo)
{
    EXPECT_EQ(S_OK, Open(0));
    EXPECT_EQ(0, engine.Calls("INetCfg::QueryInterface"));
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock not released"));
    EXPECT_EQ(1, engine.Calls("INetCfg::Uninitialize"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::ReleaseWriteLock"));
}

TEST_F(AdapterConfigTest, SessionGoesOnWithoutALockWhenItsInterfaceCannotBeGot)
{
    engine.FailCall("INetCfg::QueryInterface", E_NOINTERFACE);
    EXPECT_EQ(S_OK, Open());
    EXPECT_TRUE(trace.Has(L"could not get INetCfgLock interface"));
    EXPECT_TRUE(engine.Initialized());
    EXPECT_FALSE(session->HoldsWriteLock());
}

TEST_F(AdapterConfigTest, EngineThatCannotBeMadeFailsInitialize)
{
    engine.FailCall("CNetCfg::CreateInstance", Injected);
    EXPECT_EQ(Injected, Open());
    EXPECT_TRUE(trace.Has(L"failed to create a new INetCfg object"));
    EXPECT_FALSE(session->HasSession());
    EXPECT_EQ(S_OK, Open());
}

TEST_F(AdapterConfigTest, FailingEngineInitializeReleasesTheLockAndKeepsTheFlag)
{
    engine.FailCall("INetCfg::Initialize", Injected);
    EXPECT_EQ(Injected, Open());
    EXPECT_TRUE(trace.Has(L"failed to initialize INetCfg, must release the INetCfgLock WriteLock"));
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_TRUE(session->HoldsWriteLock());
}

TEST_F(AdapterConfigTest, CloseWithoutInitializeReturnsEPointer)
{
    EXPECT_EQ(E_POINTER, session->Close());
    EXPECT_TRUE(trace.Has(L"INetCfg interface is NULL"));
}

TEST_F(AdapterConfigTest, SecondInitializeFindsTheLockUnderOurOwnNameAndCloseThenKeepsIt)
{
    EXPECT_EQ(S_OK, Open());
    EXPECT_EQ(LockedByOther, Open());
    EXPECT_EQ(Us, holder);
    EXPECT_EQ(10u, clock.Sleeps().size());
    EXPECT_FALSE(session->HoldsWriteLock());
    EXPECT_EQ(Us, engine.LockHolder());
    EXPECT_EQ(S_OK, session->Close());
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock not released"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::ReleaseWriteLock"));
    // The engine gives it back with its last reference.
    EXPECT_EQ(L"", engine.LockHolder());
}

TEST_F(AdapterConfigTest, FailuresInsideCloseStillEmptyTheSession)
{
    Open();
    engine.FailCall("INetCfg::Uninitialize", Injected);
    EXPECT_EQ(Injected, session->Close());
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock not released"));
    EXPECT_FALSE(session->HasSession());
    EXPECT_TRUE(session->HoldsWriteLock());
    Open();
    engine.FailCall("INetCfgLock::ReleaseWriteLock", Injected);
    EXPECT_EQ(Injected, session->Close());
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock release failed:"));
    EXPECT_FALSE(session->HasSession());
    EXPECT_EQ(S_OK, Open());
    EXPECT_EQ(S_OK, session->Close());
}

TEST_F(AdapterConfigTest, DestructionClosesAnOpenSession)
{
    Open();
    session.reset();
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_EQ(0, engine.LivingObjects());
}

TEST_F(AdapterConfigTest, InterfaceThatTheGlobalTableRefusesRaisesAComError)
{
    // The first query is ours, the second one the table's.
    engine.FailCall("INetCfg::QueryInterface", E_NOINTERFACE, 2);
    EXPECT_THROW(static_cast<void>(Open()), _com_error);
    EXPECT_TRUE(session->HasSession());
    // The engine was never initialised, so it refuses to be uninitialised; the entries go all the same.
    EXPECT_EQ(static_cast<HRESULT>(0x8004A021), session->Close());
    EXPECT_FALSE(session->HasSession());
    EXPECT_EQ(S_OK, Open());
}

// --- Disabling ---

TEST_F(AdapterConfigTest, WithoutASessionBothOperationsDoNothingAndReturnZero)
{
    EXPECT_EQ(S_OK, session->DisableBindings(L"{X}", 0));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_TRUE(engine.AllCalls().empty());
    EXPECT_TRUE(trace.Has(L"\tDisableBindings total time was "));
    EXPECT_TRUE(trace.Has(L"    total time was "));
}

TEST_F(AdapterConfigTest, EveryOtherAdapterIsDisabledAndTheKeptOneStays)
{
    const auto kept = engine.AddComponent(L"tunnel", 1, L"Tunnel");
    const auto card = engine.AddComponent(L"card", 2, L"Card");
    const auto keptPath = engine.AddPath(L"ms_tcpip", {kept});
    const auto cardPath = engine.AddPath(L"ms_tcpip", {card});
    const auto cardPath6 = engine.AddPath(L"ms_tcpip6", {card});
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(GuidText(kept->guid).c_str(), 0));
    EXPECT_TRUE(keptPath->enabled);
    EXPECT_FALSE(cardPath->enabled);
    EXPECT_FALSE(cardPath6->enabled);
    EXPECT_TRUE(trace.Has(L"adapter to not unbind: " + GuidText(kept->guid)));
    EXPECT_TRUE(trace.Has(L"Display of ms_tcpip6:"));
    EXPECT_EQ(3, trace.Count(L"-------------------------------------"));
    EXPECT_TRUE(trace.Has(L"Component Info: card -- " + GuidText(card->guid) + L" [Card] "));
    EXPECT_EQ(2, trace.Count(L"\tdisabled binding"));
    EXPECT_TRUE(trace.Has(L"applied network changes"));
    EXPECT_TRUE(trace.Has(L"INetCfg interface ref count: "));
}

TEST_F(AdapterConfigTest, RecordKeyStandsWithoutItsValueBecauseOfTheReadOnlyHandle)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card});
    REGSAM access = 0;
    RegCreateKeyExWHook::Replace(
        [&access](HKEY root, LPCWSTR name, DWORD reserved, LPWSTR cls, DWORD options, REGSAM wanted,
                  LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD made)
        {
            access = wanted;
            EXPECT_EQ(0u, options);
            return RegCreateKeyExWHook::Real(root, name, reserved, cls, options, wanted, security, key, made);
        });
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ(0x20019u, access);
    EXPECT_FALSE(path->enabled);
    EXPECT_EQ(-1, RecordValue(RecordOf(L"ms_tcpip", *card)));
    EXPECT_FALSE(trace.Has(L"\tadded binding to disabled binding list"));
    // So a restore passes it over.
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_FALSE(path->enabled);
    EXPECT_TRUE(trace.Has(L"problem reading value"));
}

TEST_F(AdapterConfigTest, RecordThatCouldBeWrittenIsToldAndRestored)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card});
    LetRecordsBeWritten();
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ(1, RecordValue(RecordOf(L"ms_tcpip", *card)));
    EXPECT_TRUE(trace.Has(L"\tadded binding to disabled binding list"));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_TRUE(path->enabled);
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, PathDisabledBeforeGetsNoRecordAndStaysDisabled)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card}, false);
    Open();
    session->DisableBindings(L"", 0);
    EXPECT_TRUE(trace.Has(L"\talready disabled"));
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
    session->RestoreBindings();
    EXPECT_FALSE(path->enabled);
}

TEST_F(AdapterConfigTest, PathThatCannotBeDisabledGetsNoRecordAndNoLine)
{
    const auto card = engine.AddComponent(L"card", 2);
    engine.AddPath(L"ms_tcpip", {card});
    Open();
    engine.FailCall("INetCfgBindingPath::Enable", Injected);
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_FALSE(trace.Has(L"\tdisabled binding"));
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, LowerComponentOfAPathIsThatOfItsLastInterface)
{
    const auto middle = engine.AddComponent(L"middle", 2);
    const auto card = engine.AddComponent(L"card", 3);
    engine.AddPath(L"ms_tcpip", {middle, card});
    Open();
    session->DisableBindings(L"", 0);
    EXPECT_TRUE(trace.Has(L"Component Info: card"));
    EXPECT_FALSE(trace.Has(L"Component Info: middle"));
}

TEST_F(AdapterConfigTest, PathsWithoutLowerComponentAreLeftAlone)
{
    const auto empty = engine.AddPath(L"ms_tcpip", {});
    const auto broken = engine.AddPath(L"ms_tcpip", {nullptr});
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_TRUE(empty->enabled);
    EXPECT_TRUE(broken->enabled);
    EXPECT_EQ(0, engine.Calls("INetCfgBindingPath::Enable"));
}

TEST_F(AdapterConfigTest, PppValueOneKeepsAllOfNdiswanAndTwoItsIpComponentOnly)
{
    const auto wan = engine.AddComponent(L"ms_ndiswanip", 2);
    const auto modem = engine.AddComponent(L"modem", 3);
    const struct
    {
        int ppp;
        bool wanEnabled;
        bool modemEnabled;
    } rows[] = {{0, false, false}, {1, true, true}, {2, true, false}};
    Open();
    for (const auto& row : rows)
    {
        engine.protocols[L"ms_tcpip"].clear();
        engine.protocols[L"ms_ndiswan"].clear();
        const auto wanPath = engine.AddPath(L"ms_tcpip", {wan});
        const auto modemPath = engine.AddPath(L"ms_ndiswan", {modem});
        session->DisableBindings(L"", row.ppp);
        EXPECT_EQ(row.wanEnabled, wanPath->enabled) << row.ppp;
        EXPECT_EQ(row.modemEnabled, modemPath->enabled) << row.ppp;
    }
    EXPECT_EQ(1, trace.Count(L"don't disable any NDISWAN bindings for PPP devices"));
}

TEST_F(AdapterConfigTest, ExceptionListOfTwoIdsExceptsBothAndNoBeginning)
{
    WriteExceptionList(L"first,second");
    const auto first = engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"first", 1)});
    const auto second = engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"second", 2)});
    const auto part = engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"firs", 3)});
    Open();
    session->DisableBindings(L"", 0);
    EXPECT_TRUE(first->enabled);
    EXPECT_TRUE(second->enabled);
    EXPECT_FALSE(part->enabled);
    EXPECT_TRUE(trace.Has(L"\tfirst is in the exception list...it's binding will not be disabled"));
}

TEST_F(AdapterConfigTest, MissingProtocolIsPassedOverAndApplyRunsAllTheSame)
{
    engine.protocols.clear();
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_EQ(1, engine.Calls("INetCfg::Apply"));
}

TEST_F(AdapterConfigTest, FailingApplyIsTheResultOfDisable)
{
    Open();
    engine.FailCall("INetCfg::Apply", Injected);
    EXPECT_EQ(Injected, session->DisableBindings(L"", 0));
    EXPECT_TRUE(trace.Has(L"error trying to apply network changes"));
}

// --- Restoring ---

TEST_F(AdapterConfigTest, RestoreEnablesRecordedPathsAndRemovesTheRecord)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip6", {card}, false);
    WriteRecord(RecordOf(L"ms_tcpip6", *card), 1);
    Open();
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_TRUE(path->enabled);
    EXPECT_TRUE(trace.Has(L"Restoring bindings for ms_tcpip6:"));
    EXPECT_TRUE(trace.Has(L"checking binding with lower component of " + GuidText(card->guid)));
    EXPECT_TRUE(trace.Has(L"\tbinding was disabled by QRL"));
    EXPECT_TRUE(trace.Has(L"\tenabled: ms_tcpip6 -> card"));
    EXPECT_TRUE(trace.Has(L"no more bindings to restore"));
    EXPECT_TRUE(trace.Has(L"\tapplied the INetCfg network changes"));
    EXPECT_TRUE(trace.Has(L"deleted registry value " + GuidText(card->guid)));
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip6", *card)));
    // The protocol's key stays: its delete is asked of its own handle with the whole path.
    EXPECT_TRUE(Exists(std::wstring(BindingRules::RootKey) + L"ms_tcpip6"));
    EXPECT_TRUE(
        trace.Has(L"could not delete registry key " + std::wstring(BindingRules::RootKey) + L"ms_tcpip6 Error 2"));
}

TEST_F(AdapterConfigTest, RecordOfAnotherValueDoesNotCount)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 2);
    Open();
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_FALSE(path->enabled);
    EXPECT_FALSE(trace.Has(L"\tbinding was disabled by QRL"));
}

TEST_F(AdapterConfigTest, AdapterThatHasLeftTheMachineIsPassedOverAndItsRecordGoes)
{
    const auto card = engine.AddComponent(L"card", 2);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    Open();
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_TRUE(trace.Has(L"\tdid not find a match for the binding ms_tcpip -> " + GuidText(card->guid)));
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, PathThatCannotBeEnabledLosesItsRecordWhenApplySucceeds)
{
    const auto card = engine.AddComponent(L"card", 2);
    engine.AddPath(L"ms_tcpip", {card}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    Open();
    engine.FailCall("INetCfgBindingPath::Enable", Injected);
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_TRUE(trace.Has(L"\tfailed to enable: ms_tcpip -> card"));
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, FailingApplyKeepsTheRecordForALaterRestore)
{
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    Open();
    engine.FailCall("INetCfg::Apply", Injected);
    EXPECT_EQ(Injected, session->RestoreBindings());
    EXPECT_TRUE(trace.Has(L"\nfailed to apply the INetCfg network changes"));
    EXPECT_EQ(1, RecordValue(RecordOf(L"ms_tcpip", *card)));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, RestoreWithoutARecordCallsApplyAndReturnsItsResult)
{
    Open();
    engine.FailCall("INetCfg::Apply", 0x0004A020);
    EXPECT_EQ(0x0004A020, session->RestoreBindings());
    EXPECT_EQ(1, engine.Calls("INetCfg::Apply"));
}

TEST_F(AdapterConfigTest, DeletingTheRecordDoesNotGiveUpOnAKeyThatCannotBeDeleted)
{
    const auto card = engine.AddComponent(L"card", 2);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    int refused = 0;
    RegDeleteKeyExWHook::Replace(
        [&refused](HKEY key, LPCWSTR name, REGSAM view, DWORD reserved) -> LONG
        {
            return name[0] == L'{' && ++refused <= 500 ? ERROR_ACCESS_DENIED
                                                       : RegDeleteKeyExWHook::Real(key, name, view, reserved);
        });
    session->DeleteOldBindingInfo();
    EXPECT_EQ(501, refused);
    EXPECT_EQ(-2, RecordValue(RecordOf(L"ms_tcpip", *card)));
}

TEST_F(AdapterConfigTest, ProtocolsKeyThatWasDeletedAfterAllIsToldAsDeleted)
{
    WriteRecord(RecordOf(L"ms_tcpip", *engine.AddComponent(L"card", 2)), 1);
    RegDeleteKeyExWHook::Replace(
        [](HKEY key, LPCWSTR name, REGSAM view, DWORD reserved) -> LONG
        { return name[0] == L'{' ? RegDeleteKeyExWHook::Real(key, name, view, reserved) : ERROR_SUCCESS; });
    session->DeleteOldBindingInfo();
    EXPECT_TRUE(trace.Has(L"deleted registry key " + std::wstring(BindingRules::RootKey) + L"ms_tcpip"));
    EXPECT_FALSE(trace.Has(L"could not delete registry key"));
}

TEST_F(AdapterConfigTest, AThousandCyclesLeaveTheBindingsAndTheEngineAsTheyWere)
{
    const auto kept = engine.AddComponent(L"tunnel", 1);
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card});
    const auto other = engine.AddPath(L"ms_tcpip6", {card}, false);
    LetRecordsBeWritten();
    DWORD handlesBefore = 0;
    for (int cycle = 0; cycle < 1000; ++cycle)
    {
        ASSERT_EQ(S_OK, Open());
        ASSERT_EQ(S_OK, session->DisableBindings(GuidText(kept->guid).c_str(), 0));
        ASSERT_FALSE(path->enabled);
        ASSERT_EQ(S_OK, session->RestoreBindings());
        ASSERT_TRUE(path->enabled);
        ASSERT_FALSE(other->enabled);
        ASSERT_EQ(S_OK, session->Close());
        if (cycle == 20)
        {
            handlesBefore = CountHandles(GetCurrentProcessId()).all;
            ASSERT_NE(0u, handlesBefore);
        }
    }
    EXPECT_EQ(handlesBefore, CountHandles(GetCurrentProcessId()).all);
    EXPECT_EQ(0, engine.LivingObjects());
    EXPECT_EQ(L"", engine.LockHolder());
}

TEST_F(AdapterConfigTest, EveryEngineCallFailingOnceLeavesASessionThatClosesAndWorksAgain)
{
    const auto kept = engine.AddComponent(L"tunnel", 1);
    const auto card = engine.AddComponent(L"card", 2);
    const auto path = engine.AddPath(L"ms_tcpip", {card});
    const char* const calls[] = {"CNetCfg::CreateInstance",
                                 "INetCfg::QueryInterface",
                                 "INetCfgLock::IsWriteLocked",
                                 "INetCfgLock::AcquireWriteLock",
                                 "INetCfg::Initialize",
                                 "INetCfg::FindComponent",
                                 "INetCfgComponent::QueryInterface",
                                 "INetCfgComponentBindings::EnumBindingPaths",
                                 "IEnumNetCfgBindingPath::Reset",
                                 "IEnumNetCfgBindingPath::Next",
                                 "INetCfgBindingPath::EnumBindingInterfaces",
                                 "IEnumNetCfgBindingInterface::Next",
                                 "INetCfgBindingInterface::GetLowerComponent",
                                 "INetCfgComponent::GetId",
                                 "INetCfgComponent::GetInstanceGuid",
                                 "INetCfgComponent::GetDisplayName",
                                 "INetCfgBindingPath::IsEnabled",
                                 "INetCfgBindingPath::Enable",
                                 "INetCfg::Apply",
                                 "INetCfg::Uninitialize",
                                 "INetCfgLock::ReleaseWriteLock"};
    for (const char* call : calls)
    {
        for (int nth = 1; nth <= 3; ++nth)
        {
            engine.SetLockHolder(L"");
            path->enabled = true;
            engine.FailCall(call, Injected, nth);
            try
            {
                Open();
            }
            catch (const _com_error&)
            {
                // The table refused the interface: see below.
                EXPECT_STREQ("INetCfg::QueryInterface", call);
            }
            session->DisableBindings(GuidText(kept->guid).c_str(), 0);
            session->RestoreBindings();
            session->Close();
            // Whatever failed: a clean round works.
            engine.FailCall(call, Injected, 1000000);
            path->enabled = true;
            ASSERT_EQ(S_OK, Open()) << call << nth;
            ASSERT_EQ(S_OK, session->DisableBindings(GuidText(kept->guid).c_str(), 0)) << call << nth;
            ASSERT_FALSE(path->enabled) << call << nth;
            ASSERT_EQ(S_OK, session->RestoreBindings()) << call << nth;
            ASSERT_EQ(S_OK, session->Close()) << call << nth;
            ASSERT_EQ(0, engine.LivingObjects()) << call << nth;
        }
    }
}
} // namespace
