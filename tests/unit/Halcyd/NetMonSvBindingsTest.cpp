#include <gtest/gtest.h>

#include "Halcyd/BindingRules.h"
#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/NetMonSvBindingsFixture.h"

namespace
{
class NetMonSvBindingsTest : public NetMonSvBindingsFixture
{
};

TEST_F(NetMonSvBindingsTest, DisableWithAFreeLockTellsZeroAndStaysOpenUntilARestore)
{
    std::future<HRESULT> disable = DisableOnAThread();
    const BindingsEvent disabled = sink.WaitFor(1);
    EXPECT_EQ(9, disabled.event);
    EXPECT_EQ(Kept, disabled.deviceId);
    EXPECT_EQ(VT_I4, disabled.secondType);
    EXPECT_EQ(S_OK, disabled.result);
    EXPECT_FALSE(cardPath->enabled);
    EXPECT_TRUE(keptPath->enabled);
    WaitForTrace(L"wait for RestoreIpBindings to finish so we can keep this thread around so we can keep the INetCfg "
                 L"lock");
    EXPECT_TRUE(IsOpen(disable));
    EXPECT_EQ(Us, engine.LockHolder());

    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    const BindingsEvent restored = sink.WaitFor(2);
    EXPECT_EQ(10, restored.event);
    EXPECT_FALSE(restored.deviceId.has_value());
    EXPECT_EQ(VT_I4, restored.secondType);
    EXPECT_EQ(S_OK, restored.result);
    // The client hears of it while the lock is held; then the lock goes, then the disable call returns.
    EXPECT_EQ(Us, restored.lockHolder);
    EXPECT_EQ(S_OK, Finish(disable));
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_TRUE(trace.Has(std::wstring(L"The adapter to not unbind is '") + Kept + L"'"));
    EXPECT_TRUE(trace.Has(L"disabled the AdapterConfigObj bindings"));
    EXPECT_TRUE(trace.Has(L"fire the IpBindingsDisabled event (hr=0x0)"));
    EXPECT_TRUE(trace.Has(L"fired the ip bindings disabled event"));
    EXPECT_TRUE(trace.Has(L"finished waiting for RestoreBIpBindings"));
    EXPECT_TRUE(
        trace.Has(L"INetCfg was already initialized in RestoreIpBindingsThread.  This should normally happen."));
    EXPECT_TRUE(trace.Has(L"restored the bindings"));
    EXPECT_TRUE(trace.Has(L"bindings have been restored (RestoreIpBindingsThread)"));
}

TEST_F(NetMonSvBindingsTest, LockHeldByAnotherProgramIsToldByTheEventAndTheCallReturns)
{
    engine.SetLockHolder(L"Other program");
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(_bstr_t(Kept), 0));
    const BindingsEvent event = sink.WaitFor(1);
    EXPECT_EQ(9, event.event);
    EXPECT_EQ(LockedByOther, event.result);
    EXPECT_EQ(10u, clock.Sleeps().size());
    EXPECT_TRUE(cardPath->enabled);
    EXPECT_TRUE(trace.Has(L"network configuration is locked by 'Other program'"));
    EXPECT_TRUE(trace.Has(L"no need to wait for RestoreIpBindings to finish since we don't have the INetCfg lock"));
    // The restore uses the session that stayed, without the lock, and tells what came of it.
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(10, sink.WaitFor(2).event);
    EXPECT_EQ(LockedByOther, sink.WaitFor(2).result);
    EXPECT_TRUE(trace.Has(L"problem restoring the bindings"));
    // And the next disable finds everything as new.
    engine.SetLockHolder(L"");
    std::future<HRESULT> disable = DisableOnAThread();
    EXPECT_EQ(S_OK, sink.WaitFor(3).result);
    monitor->RestoreIpBindings();
    EXPECT_EQ(S_OK, Finish(disable));
}

TEST_F(NetMonSvBindingsTest, OtherFailureOfTheSessionIsToldByTheEvent)
{
    engine.FailCall("INetCfgLock::AcquireWriteLock", S_FALSE);
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(_bstr_t(Kept), 0));
    EXPECT_EQ(S_FALSE, sink.WaitFor(1).result);
    EXPECT_TRUE(trace.Has(L"could not get the INetCfg interface WriteLock"));
    EXPECT_TRUE(cardPath->enabled);
}

TEST_F(NetMonSvBindingsTest, DisableThatFailsStillHoldsTheLockAndWaits)
{
    engine.FailCall("INetCfg::Apply", E_FAIL);
    std::future<HRESULT> disable = DisableOnAThread();
    EXPECT_EQ(E_FAIL, sink.WaitFor(1).result);
    WaitForTrace(L"wait for RestoreIpBindings to finish");
    EXPECT_TRUE(trace.Has(L"problem disabling the AdapterConfigObj bindings"));
    EXPECT_TRUE(IsOpen(disable));
    monitor->RestoreIpBindings();
    EXPECT_EQ(S_OK, Finish(disable));
}

TEST_F(NetMonSvBindingsTest, RestoreFromWithinTheDisabledEventLeavesNothingToWaitFor)
{
    sink.OnEvent(
        [this](int event)
        {
            if (event == 9)
            {
                EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
            }
        });
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(_bstr_t(Kept), 0));
    EXPECT_EQ(2u, sink.Count());
    EXPECT_TRUE(trace.Has(L"no need to wait for RestoreIpBindings to finish since we don't have the INetCfg lock"));
    EXPECT_EQ(L"", engine.LockHolder());
}

TEST_F(NetMonSvBindingsTest, RestoreAtTheSameMomentAsTheWaitNeverLeavesTheDisableBehind)
{
    for (int round = 0; round < 200; ++round)
    {
        const std::size_t before = sink.Count();
        std::future<HRESULT> disable = DisableOnAThread();
        sink.WaitFor(before + 1);
        // From here on the disable thread runs towards its wait, and the restore towards the signal.
        if (round % 3 != 0)
        {
            for (int spin = 0; spin < round * 50; ++spin)
            {
                YieldProcessor();
            }
        }
        ASSERT_EQ(S_OK, monitor->RestoreIpBindings());
        ASSERT_EQ(S_OK, Finish(disable)) << round;
        ASSERT_EQ(L"", engine.LockHolder()) << round;
    }
}

TEST_F(NetMonSvBindingsTest, SecondDisableWhileTheFirstWaitsIsRefusedUnderOurOwnName)
{
    std::future<HRESULT> first = DisableOnAThread();
    sink.WaitFor(1);
    WaitForTrace(L"wait for RestoreIpBindings to finish");
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(_bstr_t(Kept), 0));
    EXPECT_EQ(LockedByOther, sink.WaitFor(2).result);
    EXPECT_TRUE(trace.Has(std::wstring(L"network configuration is locked by '") + Us + L"'"));
    EXPECT_TRUE(IsOpen(first));
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(S_OK, Finish(first));
    EXPECT_TRUE(trace.Has(L"INetCfgLock WriteLock not released"));
    EXPECT_EQ(0, engine.Calls("INetCfgLock::ReleaseWriteLock"));
    // The lock went with the engine's last reference.
    EXPECT_EQ(L"", engine.LockHolder());
}

TEST_F(NetMonSvBindingsTest, RestoreWithoutADisableAppliesTheRecordOfACrashedProcess)
{
    {
        RegistryKey key(false);
        key.Create(HKEY_LOCAL_MACHINE, BindingRules::RecordKey(L"ms_tcpip", L"{00000002-ABCD-1111-0102-030405060708}"),
                   KEY_ALL_ACCESS);
        key.WriteDword(L"BindingDisabledByQRL", 1);
    }
    cardPath->enabled = false;
    EXPECT_EQ(S_OK, monitor->RestoreIpBindingsSync());
    EXPECT_EQ(10, sink.WaitFor(1).event);
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
    EXPECT_TRUE(cardPath->enabled);
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_TRUE(trace.Has(L"INetCfg interface is not initialized - This should only happen during Halcyd "
                          L"initialization. (RestoreIpBindingsThread)"));
    EXPECT_TRUE(trace.Has(L"initialized INetCfg interface object for RestoreIpBindingsThread"));
    EXPECT_TRUE(trace.Has(L"starting thread to restore ip bindings"));
    EXPECT_TRUE(trace.Has(L"waiting for the thread to finish"));
}

TEST_F(NetMonSvBindingsTest, RestoreThatGetsNoSessionTellsWhyAndEmptiesIt)
{
    engine.SetLockHolder(L"Other program");
    EXPECT_EQ(S_OK, monitor->RestoreIpBindingsSync());
    EXPECT_EQ(LockedByOther, sink.WaitFor(1).result);
    EXPECT_TRUE(trace.Has(L"network configuration is locked by 'Other program' in RestoreIpBindingsThread"));
    EXPECT_EQ(0, engine.LivingObjects());
    engine.SetLockHolder(L"");
    engine.FailCall("CNetCfg::CreateInstance", E_FAIL);
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(E_FAIL, sink.WaitFor(2).result);
    EXPECT_TRUE(trace.Has(L"Error could not get the INetCfg interface for RestoreIpBindingsThread"));
}

TEST_F(NetMonSvBindingsTest, ThreadWithoutComFiresNothing)
{
    CoInitializeExHook::Replace([](LPVOID, DWORD) -> HRESULT { return E_OUTOFMEMORY; });
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(_bstr_t(Kept), 0));
    EXPECT_TRUE(trace.Has(L"Com initialization failed in DisableIpBindings"));
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_TRUE(trace.Has(L"Com initialization failed Error"));
    EXPECT_TRUE(trace.Has(L"bindings have been restored (RestoreIpBindingsThread)"));
    EXPECT_EQ(0u, sink.Count());
    EXPECT_TRUE(engine.AllCalls().empty());
}

TEST_F(NetMonSvBindingsTest, RestoreWithoutComFreesTheWaitingDisableAndLeavesTheSessionToTheNextOne)
{
    std::future<HRESULT> disable = DisableOnAThread();
    sink.WaitFor(1);
    WaitForTrace(L"wait for RestoreIpBindings to finish");
    CoInitializeExHook::Replace([](LPVOID, DWORD) -> HRESULT { return E_OUTOFMEMORY; });
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(S_OK, Finish(disable));
    EXPECT_EQ(1u, sink.Count());
    EXPECT_EQ(Us, engine.LockHolder());
    PlatformHooks::Reset();
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(10, sink.WaitFor(2).event);
    EXPECT_EQ(L"", engine.LockHolder());
}

TEST_F(NetMonSvBindingsTest, DisableWithoutMemoryReturnsZeroAndDoesNothing)
{
    const _bstr_t adapter(Kept);
    {
        const NothrowNewFails shortage(sizeof(DISABLE_BINDINGS_INFO));
        EXPECT_EQ(S_OK, monitor->DisableIpBindings(adapter, 0));
        EXPECT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_EQ(0u, sink.Count());
    EXPECT_TRUE(engine.AllCalls().empty());
    EXPECT_FALSE(trace.Has(L"The adapter to not unbind is"));
}

TEST_F(NetMonSvBindingsTest, ThreadThatIsInAnotherApartmentAlreadyWorks)
{
    CoInitializeExHook::Replace([](LPVOID, DWORD) -> HRESULT { return RPC_E_CHANGED_MODE; });
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
}

TEST_F(NetMonSvBindingsTest, NullAdapterKeepsNothingAndIsToldAsNull)
{
    sink.OnEvent(
        [this](int event)
        {
            if (event == 9)
            {
                monitor->RestoreIpBindings();
            }
        });
    bool enabledAtEvent = true;
    engine.OnCall("INetCfg::Apply", [&] { enabledAtEvent = keptPath->enabled && enabledAtEvent; });
    EXPECT_EQ(S_OK, monitor->DisableIpBindings(nullptr, 0));
    EXPECT_FALSE(enabledAtEvent);
    EXPECT_FALSE(sink.WaitFor(1).deviceId.has_value());
}

// --- The preference ---

class MultiHomingPreferenceTest : public NetMonSvBindingsTest
{
protected:
    static void WritePreference(const wchar_t* allowed)
    {
        RegistryKey key(false);
        ASSERT_EQ(0u, key.Create(HKEY_LOCAL_MACHINE, std::wstring(BindingRules::RootKey), KEY_ALL_ACCESS));
        ASSERT_EQ(0u, key.WriteString(L"UserControlAllowed", allowed));
    }
    static std::wstring CurrentSetting()
    {
        return ReadHklmString(std::wstring(BindingRules::RootKey), L"CurrentSetting", L"-");
    }
    // What a system that lets the read through would do.
    void LetTheHandleRead()
    {
        RegOpenKeyExWHook::Replace(
            [this](HKEY root, LPCWSTR name, DWORD options, REGSAM wanted, PHKEY key)
            {
                access = wanted;
                return RegOpenKeyExWHook::Real(root, name, options, KEY_ALL_ACCESS, key);
            });
    }
    REGSAM access = 0;
};

TEST_F(MultiHomingPreferenceTest, WriteOnlyHandleIsRefusedTheReadAndNothingChanges)
{
    WritePreference(L"yes");
    EXPECT_EQ(ERROR_ACCESS_DENIED, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_EQ(L"-", CurrentSetting());
    EXPECT_TRUE(trace.Has(L"could not get the 'UserControlAllowed' value Error 5"));
}

TEST_F(MultiHomingPreferenceTest, MissingKeyReturnsTwo)
{
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_TRUE(trace.Has(L"could not open " + std::wstring(BindingRules::RootKey)));
}

TEST_F(MultiHomingPreferenceTest, WithAReadThatWorksZeroWritesNoAndAnythingElseYes)
{
    WritePreference(L"YES");
    LetTheHandleRead();
    EXPECT_EQ(0, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_EQ(L"yes", CurrentSetting());
    EXPECT_EQ(0, monitor->ChangeMultiHomingPreferenceIfAllowed(0));
    EXPECT_EQ(L"no", CurrentSetting());
    EXPECT_EQ(0, monitor->ChangeMultiHomingPreferenceIfAllowed(-7));
    EXPECT_EQ(L"yes", CurrentSetting());
    EXPECT_TRUE(trace.Has(L"updated the multihoming setting to '-7'"));
}

TEST_F(MultiHomingPreferenceTest, OpensWithWriteAccess)
{
    WritePreference(L"no");
    LetTheHandleRead();
    EXPECT_EQ(0, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_EQ(0x20006u, access);
}

TEST_F(MultiHomingPreferenceTest, AnyOtherWordDoesNotAllowTheChange)
{
    LetTheHandleRead();
    for (const wchar_t* word : {L"no", L"yes ", L" yes", L""})
    {
        WritePreference(word);
        trace.Clear();
        EXPECT_EQ(0, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
        EXPECT_EQ(L"-", CurrentSetting());
        EXPECT_TRUE(trace.Has(L"user is not allowed to control the setting"));
    }
}

TEST_F(MultiHomingPreferenceTest, FailingWriteIsReturned)
{
    WritePreference(L"yes");
    LetTheHandleRead();
    PlatformHooks::FailCall("RegSetValueExW", 1, 1018);
    EXPECT_EQ(1018, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_TRUE(trace.Has(L"could not update the multihoming setting"));
}
} // namespace
