// The client's requests for multi-homing prevention when something of the machine is refused: the engine's Apply, the
// event that a disable waits for, a thread's apartment.

#include <gtest/gtest.h>

#include <atomic>

#include "Halcyd/BindingRules.h"
#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/NetMonSvBindingsFixture.h"
#include "tests/unit/Halcyd/WritableRecords.h"

namespace
{
constexpr HRESULT Injected = static_cast<HRESULT>(0x80040123);

class BindingRequestFailuresTest : public NetMonSvBindingsFixture
{
protected:
    BindingRequestFailuresTest() : cardRecord(BindingRules::RecordKey(L"ms_tcpip", GuidOf(*card))) {}

    static std::wstring GuidOf(const FakeComponent& component)
    {
        wchar_t text[40];
        return StringFromGUID2(component.guid, text, 40) != 0 ? text : L"";
    }
    static bool Exists(const std::wstring& subkey)
    {
        RegistryKey key(false);
        return key.Open(HKEY_LOCAL_MACHINE, subkey, KEY_READ) == ERROR_SUCCESS;
    }
    // A disable that the client answers with a restore from within the event. Both have ended when this returns.
    void DisableAndRestore()
    {
        sink.OnEvent(
            [this](int event)
            {
                if (event == 9)
                {
                    EXPECT_FALSE(cardPath->enabled);
                    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
                }
            });
        std::future<HRESULT> disable = DisableOnAThread();
        EXPECT_EQ(S_OK, Finish(disable));
    }

    std::wstring cardRecord;
};

// --- A restore that cannot be applied ---

TEST_F(BindingRequestFailuresTest, RestoreThatCannotBeAppliedIsToldFreesTheLockAndTheWaitingDisableAndKeepsTheRecord)
{
    LetRecordsBeWritten();
    std::future<HRESULT> disable = DisableOnAThread();
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
    WaitForTrace(L"wait for RestoreIpBindings to finish");
    EXPECT_TRUE(IsOpen(disable));

    engine.FailCall("INetCfg::Apply", Injected);
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    const BindingsEvent restored = sink.WaitFor(2);
    EXPECT_EQ(10, restored.event);
    EXPECT_FALSE(restored.deviceId.has_value());
    EXPECT_EQ(VT_I4, restored.secondType);
    EXPECT_EQ(Injected, restored.result);
    EXPECT_EQ(Us, restored.lockHolder);
    EXPECT_EQ(S_OK, Finish(disable));
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_EQ(0, engine.LivingObjects());
    EXPECT_TRUE(Exists(cardRecord));
    EXPECT_TRUE(trace.Has(L"problem restoring the bindings"));
    EXPECT_FALSE(trace.Has(L"restored the bindings"));
    EXPECT_TRUE(trace.Has(L"bindings have been restored (RestoreIpBindingsThread)"));

    // A later restore finds the record and applies it.
    trace.Clear();
    cardPath->enabled = false;
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(S_OK, sink.WaitFor(3).result);
    EXPECT_TRUE(cardPath->enabled);
    EXPECT_FALSE(Exists(cardRecord));
    EXPECT_TRUE(trace.Has(L"restored the bindings"));
}

TEST_F(BindingRequestFailuresTest, RestoreAtTheStartThatCannotBeAppliedIsToldAndKeepsTheRecord)
{
    {
        RegistryKey key(false);
        key.Create(HKEY_LOCAL_MACHINE, cardRecord, KEY_ALL_ACCESS);
        key.WriteDword(L"BindingDisabledByQRL", 1);
    }
    engine.FailCall("INetCfg::Apply", Injected);
    EXPECT_EQ(S_OK, monitor->RestoreIpBindingsSync());
    EXPECT_EQ(10, sink.WaitFor(1).event);
    EXPECT_EQ(Injected, sink.WaitFor(1).result);
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_EQ(0, engine.LivingObjects());
    EXPECT_TRUE(Exists(cardRecord));
}

// --- No event to wait for ---

TEST_F(BindingRequestFailuresTest, DisableThatCannotMakeTheEventDoesNotWaitThoughItHoldsTheLock)
{
    std::atomic<DWORD> bindingsThread{0};
    std::atomic<int> refused{0};
    CreateEventWHook::Replace(
        [&](LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL signalled, LPCWSTR name) -> HANDLE
        {
            if (GetCurrentThreadId() != bindingsThread.load())
            {
                return CreateEventWHook::Real(security, manualReset, signalled, name);
            }
            EXPECT_TRUE(manualReset);
            EXPECT_FALSE(signalled);
            EXPECT_EQ(nullptr, name);
            ++refused;
            SetLastError(ERROR_NO_SYSTEM_RESOURCES);
            return nullptr;
        });
    sink.OnEvent([&](int event) { bindingsThread = event == 9 ? GetCurrentThreadId() : 0; });
    std::future<HRESULT> disable = DisableOnAThread();
    EXPECT_EQ(S_OK, Finish(disable));
    EXPECT_EQ(1, refused);
    EXPECT_EQ(9, sink.WaitFor(1).event);
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
    EXPECT_EQ(1u, sink.Count());
    EXPECT_FALSE(cardPath->enabled);
    EXPECT_EQ(Us, engine.LockHolder());
    EXPECT_TRUE(trace.Has(L"no need to wait for RestoreIpBindings to finish since we don't have the INetCfg lock"));
    EXPECT_FALSE(trace.Has(L"wait for RestoreIpBindings to finish"));
    EXPECT_FALSE(trace.Has(L"finished waiting for RestoreBIpBindings"));

    // The session is there for a restore, which has nothing to signal.
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    EXPECT_EQ(10, sink.WaitFor(2).event);
    EXPECT_EQ(S_OK, sink.WaitFor(2).result);
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_TRUE(
        trace.Has(L"INetCfg was already initialized in RestoreIpBindingsThread.  This should normally happen."));
}

// --- The threads' apartments ---

TEST_F(BindingRequestFailuresTest, ThreadsThatAreInTheApartmentAlreadyDisableAndRestore)
{
    std::atomic<int> again{0};
    CoInitializeExHook::Replace(
        [&again](LPVOID reserved, DWORD model) -> HRESULT
        {
            const HRESULT result = CoInitializeExHook::Real(reserved, model);
            EXPECT_EQ(static_cast<DWORD>(COINIT_MULTITHREADED), model);
            ++again;
            return result == S_OK ? S_FALSE : result;
        });
    DisableAndRestore();
    EXPECT_GE(again, 3); // the client's thread and the two of the monitor
    ASSERT_EQ(2u, sink.Count());
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
    EXPECT_EQ(10, sink.WaitFor(2).event);
    EXPECT_EQ(S_OK, sink.WaitFor(2).result);
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_FALSE(trace.Has(L"Com initialization failed"));
}

TEST_F(BindingRequestFailuresTest, ThreadsThatAreInAnotherApartmentDisableAndRestore)
{
    std::atomic<int> refused{0};
    CoInitializeExHook::Replace(
        [&refused](LPVOID, DWORD) -> HRESULT
        {
            ++refused;
            return RPC_E_CHANGED_MODE;
        });
    DisableAndRestore();
    EXPECT_GE(refused, 3);
    ASSERT_EQ(2u, sink.Count());
    EXPECT_EQ(9, sink.WaitFor(1).event);
    EXPECT_EQ(S_OK, sink.WaitFor(1).result);
    EXPECT_EQ(10, sink.WaitFor(2).event);
    EXPECT_EQ(S_OK, sink.WaitFor(2).result);
    EXPECT_EQ(L"", engine.LockHolder());
    EXPECT_FALSE(trace.Has(L"Com initialization failed"));
}
} // namespace
