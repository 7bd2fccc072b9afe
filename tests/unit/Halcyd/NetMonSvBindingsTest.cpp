#include <gtest/gtest.h>

#include <comdef.h>
#include <ocidl.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "Halcyd/BindingRules.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/FakeNetCfg.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
using namespace std::chrono_literals;

constexpr const wchar_t* Us = L"Sorvane Configuration Service";
constexpr HRESULT LockedByOther = static_cast<HRESULT>(0x8004A024);
constexpr const wchar_t* Kept = L"{00000001-ABCD-1111-0102-030405060708}";
constexpr auto Patience = 30s; // only a hang waits that long

struct BindingsEvent
{
    std::optional<std::wstring> deviceId; // nothing for a null BSTR
    VARTYPE secondType = VT_EMPTY;
    HRESULT result = S_OK;
    int event = 0;
    std::wstring lockHolder; // of the engine when the event came
};

// A client's sink that notes the events and can call back into the monitor.
class Sink : public IDispatch
{
public:
    explicit Sink(FakeNetCfg& watched) : engine(watched)
    {
        static_cast<void>(CoCreateFreeThreadedMarshaler(this, &marshaler));
    }
    ~Sink() { marshaler->Release(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        *out = nullptr;
        if (IsEqualIID(iid, IID_IMarshal))
        {
            return marshaler->QueryInterface(iid, out);
        }
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, DIID__INetMonSv))
        {
            *out = static_cast<IDispatch*>(this);
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    // Lives as long as its fixture.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS* arguments, VARIANT*, EXCEPINFO*,
                                     UINT*) override
    {
        BindingsEvent event;
        event.event = static_cast<int>(arguments->rgvarg[0].lVal);
        event.secondType = arguments->rgvarg[1].vt;
        event.result = arguments->rgvarg[1].lVal;
        if (arguments->rgvarg[2].bstrVal != nullptr)
        {
            event.deviceId = arguments->rgvarg[2].bstrVal;
        }
        event.lockHolder = engine.LockHolder();
        std::function<void(int)> hook;
        {
            const std::lock_guard guard(mutex);
            events.push_back(event);
            hook = onEvent;
            arrived.notify_all();
        }
        if (hook)
        {
            hook(event.event);
        }
        return S_OK;
    }

    // The event number `count`, waited for.
    BindingsEvent WaitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        if (!arrived.wait_for(lock, Patience, [&] { return events.size() >= count; }))
        {
            ADD_FAILURE() << "event " << count << " did not come";
            return {};
        }
        return events[count - 1];
    }
    std::size_t Count()
    {
        const std::lock_guard guard(mutex);
        return events.size();
    }
    void OnEvent(std::function<void(int)> hook)
    {
        const std::lock_guard guard(mutex);
        onEvent = std::move(hook);
    }

private:
    FakeNetCfg& engine;
    IUnknown* marshaler = nullptr;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<BindingsEvent> events;
    std::function<void(int)> onEvent;
};

class NetMonSvBindingsTest : public testing::Test
{
protected:
    NetMonSvBindingsTest()
    {
        RemoveRecords();
        EnsureTestModule();
        CComObject<CNetMonSv>* made = nullptr;
        EXPECT_EQ(S_OK, CComCreator<CComObject<CNetMonSv>>::Make(nullptr, &made));
        made->AddRef();
        monitor = made;
        IConnectionPointContainer* container = nullptr;
        EXPECT_EQ(S_OK, monitor->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container)));
        IConnectionPoint* point = nullptr;
        EXPECT_EQ(S_OK, container->FindConnectionPoint(DIID__INetMonSv, &point));
        DWORD cookie = 0;
        EXPECT_EQ(S_OK, point->Advise(&sink, &cookie));
        point->Release();
        container->Release();
        kept = engine.AddComponent(L"tunnel", 1);
        card = engine.AddComponent(L"card", 2);
        keptPath = engine.AddPath(L"ms_tcpip", {kept});
        cardPath = engine.AddPath(L"ms_tcpip", {card});
    }
    ~NetMonSvBindingsTest() override
    {
        monitor->Release();
        EXPECT_EQ(0, engine.LivingObjects());
        RemoveRecords();
    }
    static void RemoveRecords()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention");
    }
    // Calls DisableIpBindings on a thread of its own, as a client must.
    std::future<HRESULT> DisableOnAThread(LONG ppp = 0)
    {
        return std::async(std::launch::async,
                          [this, ppp]
                          {
                              const ComApartment apartment;
                              return monitor->DisableIpBindings(_bstr_t(Kept), ppp);
                          });
    }
    static bool IsOpen(std::future<HRESULT>& call) { return call.wait_for(0s) == std::future_status::timeout; }
    static HRESULT Finish(std::future<HRESULT>& call)
    {
        if (call.wait_for(Patience) != std::future_status::ready)
        {
            ADD_FAILURE() << "the call does not come back";
            std::abort();
        }
        return call.get();
    }
    void WaitForTrace(const std::wstring& text)
    {
        for (int attempt = 0; attempt < 3000 && !trace.Has(text); ++attempt)
        {
            ::Sleep(1);
        }
        EXPECT_TRUE(trace.Has(text));
    }

    HookScope hooks;
    SleepClock clock;
    TraceLines trace;
    FakeNetCfg& engine = FakeNetCfg::Fresh();
    Sink sink{engine};
    CComObject<CNetMonSv>* monitor = nullptr;
    std::shared_ptr<FakeComponent> kept;
    std::shared_ptr<FakeComponent> card;
    std::shared_ptr<FakePath> keptPath;
    std::shared_ptr<FakePath> cardPath;
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
