// CNetMonSv: the client's requests for multi-homing prevention, and the threads that carry them out.

#include "Halcyd/NetMonSv.h"

#include <atomic>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "Halcyd/BindingRules.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorTrace.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/RegistryKey.h"

namespace
{
// The name under which this program holds the engine's write lock.
constexpr const wchar_t* LockOwner = L"Sorvane Configuration Service";
constexpr const wchar_t* UserControlAllowed = L"UserControlAllowed";
constexpr const wchar_t* CurrentSetting = L"CurrentSetting";

// A thread that is in an apartment already counts as well.
bool HasCom(const ComApartment& apartment)
{
    return apartment.Initialized() || apartment.Result() == RPC_E_CHANGED_MODE;
}

// Starts `body` on a thread of its own, calls `started`, and returns when the thread has ended. All four methods return
// S_OK whatever happens; a thread that cannot be started is only traced.
template <class Thread, class Body, class Started>
void RunToItsEnd(Body&& body, Started&& started)
{
    try
    {
        Thread thread(std::forward<Body>(body));
        started();
        if (thread.joinable())
        {
            thread.join();
        }
    }
    catch (const std::system_error& error)
    {
        MonitorTrace::FailureCode(static_cast<DWORD>(error.code().value()), L"could not start the bindings thread");
    }
}
} // namespace

STDMETHODIMP CNetMonSv::DisableIpBindings(BSTR bstrAdapterNameNotToUnbind, long bPppDevice) noexcept
{
    // Every return is S_OK: the outcome is told by the event.
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here};
            std::unique_ptr<DISABLE_BINDINGS_INFO> info(new (std::nothrow) DISABLE_BINDINGS_INFO);
            if (info == nullptr)
            {
                return S_OK;
            }
            info->adapterNotToUnbind = bstrAdapterNameNotToUnbind;
            info->bPppDevice = static_cast<int>(bPppDevice);
            // Joined here: a call that got the write lock stays open until another call restores the bindings.
            RunToItsEnd<std::jthread>([this, &info] { DisableIpBindingsThread(std::move(info)); }, [] {});
            return S_OK;
        }));
    return S_OK;
}

void CNetMonSv::DisableIpBindingsThread(std::unique_ptr<DISABLE_BINDINGS_INFO> info)
{
    const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag};
    _bstr_t adapter = info->adapterNotToUnbind;
    const int bPppDevice = info->bPppDevice;
    MonitorTrace::Note(L"The adapter to not unbind is '{}'", TextOrEmpty(adapter));

    const ComApartment apartment;
    if (!HasCom(apartment))
    {
        MonitorTrace::FailureResult(apartment.Result(), L"Com initialization failed in DisableIpBindings");
        return;
    }

    std::wstring holder;
    HRESULT result = adapterConfig.Initialize(1, LockOwner, holder);
    if (result == BindingRules::NoWriteLock)
    {
        MonitorTrace::FailureResult(result, L"network configuration is locked by '{}'", holder);
    }
    else if (result != S_OK)
    {
        MonitorTrace::FailureResult(result, L"could not get the INetCfg interface WriteLock");
    }
    else
    {
        result = adapterConfig.DisableBindings(adapter, bPppDevice);
        if (SUCCEEDED(result))
        {
            MonitorTrace::Note(L"disabled the AdapterConfigObj bindings");
        }
        else
        {
            MonitorTrace::FailureResult(result, L"problem disabling the AdapterConfigObj bindings");
        }
    }

    MonitorTrace::Note(L"fire the IpBindingsDisabled event (hr={:#x})", static_cast<std::uint32_t>(result));
    Fire_AdapterChange(adapter.GetBSTR(), result, enumEventIpBindingsDisabled);
    MonitorTrace::Note(L"fired the ip bindings disabled event");

    // A restore may come at any point from here on. Either it finds the event and signals it, or its Close has cleared
    // the session's flag before it is read here: the event is published first, the flag read second, and the restore
    // does it the other way round.
    const std::shared_ptr<Event> restored = restoreFinishedEvent.GetOrCreate();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (restored != nullptr && adapterConfig.HoldsWriteLock())
    {
        MonitorTrace::Note(L"wait for RestoreIpBindings to finish so we can keep this thread around so we can keep the "
                           L"INetCfg lock");
        restored->Wait(INFINITE);
        MonitorTrace::Note(L"finished waiting for RestoreBIpBindings");
    }
    else
    {
        MonitorTrace::Note(L"no need to wait for RestoreIpBindings to finish since we don't have the INetCfg lock");
    }
}

STDMETHODIMP CNetMonSv::RestoreIpBindings() noexcept
{
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here};
            MonitorTrace::Note(L"starting thread to restore ip bindings");
            RunToItsEnd<std::jthread>([this] { RestoreIpBindingsThread(); }, [] {});
            return S_OK;
        }));
    return S_OK;
}

STDMETHODIMP CNetMonSv::RestoreIpBindingsSync() noexcept
{
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here};
            MonitorTrace::Note(L"starting thread to restore ip bindings");
            RunToItsEnd<std::thread>([this] { RestoreIpBindingsThread(); },
                                     [] { MonitorTrace::Note(L"waiting for the thread to finish"); });
            return S_OK;
        }));
    return S_OK;
}

void CNetMonSv::RestoreIpBindingsThread()
{
    const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag};
    const ComApartment apartment;
    if (HasCom(apartment))
    {
        RestoreAndCloseSession();
    }
    else
    {
        MonitorTrace::FailureResult(apartment.Result(), L"Com initialization failed");
    }
    // See DisableIpBindingsThread: the flag is cleared (in Close) before the event is looked for.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    restoreFinishedEvent.SignalAndClose();
    MonitorTrace::Note(L"bindings have been restored (RestoreIpBindingsThread)");
}

void CNetMonSv::RestoreAndCloseSession()
{
    HRESULT result = S_OK;
    if (adapterConfig.HasSession())
    {
        MonitorTrace::Note(
            L"INetCfg was already initialized in RestoreIpBindingsThread.  This should normally happen.");
    }
    else
    {
        MonitorTrace::Note(L"INetCfg interface is not initialized - This should only happen during Halcyd "
                           L"initialization. (RestoreIpBindingsThread)");
        std::wstring holder;
        result = adapterConfig.Initialize(1, LockOwner, holder);
        if (result == BindingRules::NoWriteLock)
        {
            MonitorTrace::FailureResult(result, L"network configuration is locked by '{}' in RestoreIpBindingsThread",
                                        holder);
        }
        else if (result != S_OK)
        {
            MonitorTrace::FailureResult(result,
                                        L"Error could not get the INetCfg interface for RestoreIpBindingsThread");
        }
        else
        {
            MonitorTrace::Note(L"initialized INetCfg interface object for RestoreIpBindingsThread");
        }
    }
    if (result == S_OK)
    {
        result = adapterConfig.RestoreBindings();
        if (SUCCEEDED(result))
        {
            MonitorTrace::Note(L"restored the bindings");
        }
        else
        {
            MonitorTrace::FailureResult(result, L"problem restoring the bindings");
        }
    }
    // The event goes first, so that a client can act on it before any other program gets the write lock. Close gives
    // the lock away; only behind it is the waiting disable woken, whose return says that the lock is free.
    Fire_AdapterChange(nullptr, result, enumEventIpBindingsRestored);
    static_cast<void>(adapterConfig.Close());
}

STDMETHODIMP CNetMonSv::ChangeMultiHomingPreferenceIfAllowed(long bEnable) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here};
            const std::wstring path(BindingRules::RootKey);
            RegistryKey key;
            DWORD error = key.Open(HKEY_LOCAL_MACHINE, path, KEY_WRITE);
            if (error != ERROR_SUCCESS)
            {
                MonitorTrace::FailureCode(error, L"could not open {}", path);
                return static_cast<HRESULT>(error);
            }
            // Required to be read through this handle, which does not carry the right to read: the system refuses, and
            // the preference stays as it is. Do not widen the mask: whether users may change it is not for this service
            // to open.
            std::wstring allowed;
            error = key.ReadString(UserControlAllowed, allowed);
            if (error != ERROR_SUCCESS)
            {
                MonitorTrace::FailureCode(error, L"could not get the '{}' value", UserControlAllowed);
                return static_cast<HRESULT>(error);
            }
            if (!BindingRules::IsYes(allowed))
            {
                MonitorTrace::Note(L"user is not allowed to control the setting");
                return S_OK;
            }
            error = key.WriteString(CurrentSetting, bEnable != 0 ? L"yes" : L"no");
            if (error != ERROR_SUCCESS)
            {
                MonitorTrace::FailureCode(error, L"could not update the multihoming setting");
            }
            else
            {
                MonitorTrace::Note(L"updated the multihoming setting to '{}'", bEnable);
            }
            return static_cast<HRESULT>(error);
        });
}
