// AdapterConfig: opening and closing the session with the network configuration engine.

#include <ctime>

#include "ComSupport/Module.h"
#include "Halcyd/AdapterConfig.h"
#include "Halcyd/BindingRules.h"
#include "Halcyd/ReferenceCount.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
constexpr DWORD LockWaitMilliseconds = 5000;
constexpr DWORD RetryPauseMilliseconds = 1000;
constexpr int MaximumRetries = 10;

// The module's reference to the process's table; without a module one that is made for this use.
ComPointer<IGlobalInterfaceTable> InterfaceTable()
{
    ComPointer<IGlobalInterfaceTable> table;
    const HRESULT result = _pModule != nullptr
                               ? _pModule->GetGITPtr(&table)
                               : table.CreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER);
    return SUCCEEDED(result) ? table : ComPointer<IGlobalInterfaceTable>();
}
} // namespace

void GlobalInterfaceEntry::Register(IUnknown* object)
{
    Revoke();
    const ComPointer<IGlobalInterfaceTable> table = InterfaceTable();
    DWORD added = 0;
    const HRESULT result = table != nullptr ? table->RegisterInterfaceInGlobal(object, iid, &added) : E_NOINTERFACE;
    if (FAILED(result))
    {
        _com_issue_error(result);
    }
    cookie = added;
}

HRESULT GlobalInterfaceEntry::Fetch(void** out) const
{
    *out = nullptr;
    const DWORD current = cookie;
    if (current == 0)
    {
        return S_FALSE;
    }
    const ComPointer<IGlobalInterfaceTable> table = InterfaceTable();
    return table != nullptr ? table->GetInterfaceFromGlobal(current, iid, out) : E_NOINTERFACE;
}

void GlobalInterfaceEntry::Revoke() noexcept
{
    const DWORD current = cookie;
    if (current == 0)
    {
        return;
    }
    const ComPointer<IGlobalInterfaceTable> table = InterfaceTable();
    if (table != nullptr && SUCCEEDED(table->RevokeInterfaceFromGlobal(current)))
    {
        cookie = 0;
    }
}

AdapterConfig::~AdapterConfig()
{
    static_cast<void>(Close());
}

HRESULT AdapterConfig::CreateINetCfg(INetCfg** out)
{
    *out = nullptr;
    ComPointer<INetCfg> config;
    const HRESULT result = config.CreateInstance(CLSID_CNetCfg, nullptr, CLSCTX_INPROC_SERVER);
    if (FAILED(result))
    {
        return result;
    }
    INetCfgGIT.Register(config);
    *out = config.Detach();
    return S_OK;
}

HRESULT AdapterConfig::CreateINetCfgLock(INetCfg* config, INetCfgLock** out)
{
    *out = nullptr;
    if (config == nullptr)
    {
        return E_POINTER;
    }
    ComPointer<INetCfgLock> lock;
    const HRESULT result = config->QueryInterface(__uuidof(INetCfgLock), reinterpret_cast<void**>(&lock));
    if (FAILED(result))
    {
        return result;
    }
    INetCfgLockGIT.Register(lock);
    *out = lock.Detach();
    return S_OK;
}

ComPointer<INetCfg> AdapterConfig::CurrentINetCfg() const
{
    ComPointer<INetCfg> config;
    const HRESULT result = INetCfgGIT.Fetch(reinterpret_cast<void**>(&config));
    if (FAILED(result))
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"could not get INetCfg reference from GIT");
        return {};
    }
    return config;
}

ComPointer<INetCfgLock> AdapterConfig::CurrentINetCfgLock(INetCfg* config)
{
    ComPointer<INetCfgLock> lock;
    if (INetCfgLockGIT.Cookie() == 0)
    {
        return SUCCEEDED(CreateINetCfgLock(config, &lock)) ? lock : ComPointer<INetCfgLock>();
    }
    const HRESULT result = INetCfgLockGIT.Fetch(reinterpret_cast<void**>(&lock));
    if (FAILED(result))
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"could not get INetCfgLock reference from GIT");
        return {};
    }
    return lock;
}

HRESULT AdapterConfig::Initialize(int bWriteLock, const wchar_t* clientDescription, std::wstring& lockHolder)
{
    const ScopeTrace scope{Source, ScopeFlag};
    HRESULT result = S_OK;
    ComPointer<INetCfg> config = CurrentINetCfg();
    ComPointer<INetCfgLock> lock;
    if (config == nullptr)
    {
        LogMessage(Source, 4, L"no current INetCfg object, need to create it");
        result = CreateINetCfg(&config);
        if (FAILED(result))
        {
            LogErrorSource(Source, static_cast<std::uint32_t>(result), L"failed to create a new INetCfg object");
        }
    }
    if (config != nullptr)
    {
        if (bWriteLock != 0)
        {
            lock = CurrentINetCfgLock(config);
            if (lock == nullptr)
            {
                // The session goes on without a lock.
                LogMessage(Source, 2, L"could not get INetCfgLock interface");
            }
            else
            {
                result = AcquireLockWithRetries(lock, TextOrEmpty(clientDescription), lockHolder);
            }
        }
        if (result == S_OK)
        {
            result = config->Initialize(nullptr);
            LogMessage(Source, 4, L"INetCfg Initialize interface");
            if (FAILED(result) && lock != nullptr)
            {
                LogErrorSource(Source, static_cast<std::uint32_t>(result),
                               L"failed to initialize INetCfg, must release the INetCfgLock WriteLock");
                // Required: the flag keeps its value here, though the lock is gone. Close then tries to release it
                // again.
                static_cast<void>(lock->ReleaseWriteLock());
            }
        }
    }
    if (lock != nullptr)
    {
        LogFormat(Source, 4, L"INetCfgLock interface ref count: {} (Initialize)", ReleaseAndCount(lock));
    }
    if (config != nullptr)
    {
        LogFormat(Source, 4, L"INetCfg interface ref count: {} (Initialize)", ReleaseAndCount(config));
    }
    return result;
}

HRESULT AdapterConfig::AcquireLockWithRetries(INetCfgLock* lock, const wchar_t* clientDescription,
                                              std::wstring& lockHolder)
{
    for (int retries = 0;; ++retries)
    {
        const HRESULT result = LookAtLockOnce(lock, clientDescription, lockHolder);
        // Only a lock that somebody else holds is worth another look.
        if (result != BindingRules::NoWriteLock)
        {
            return result;
        }
        if (retries == MaximumRetries)
        {
            LogFormat(Source, 2, L"attempted to get INetCfgLock WriteLock {} times, giving up", retries);
            return result;
        }
        LogFormat(Source, 3, L"since '{}' is holding the INetCfgLock WriteLock, waiting a second and trying again",
                  lockHolder);
        Clock::Current().Sleep(RetryPauseMilliseconds);
    }
}

HRESULT AdapterConfig::LookAtLockOnce(INetCfgLock* lock, const wchar_t* clientDescription, std::wstring& lockHolder)
{
    UniqueCoTaskMem<wchar_t> name;
    HRESULT result = lock->IsWriteLocked(name.put());
    if (result == S_OK)
    {
        lockHolder = name ? name.get() : lockHolder;
        LogFormat(Source, 3, L"'{}' has INetCfgLock", lockHolder);
        result = BindingRules::NoWriteLock;
    }
    else if (result != S_FALSE)
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"INetCfgLock IsWriteLock error");
    }
    else
    {
        const std::clock_t start = std::clock();
        result = lock->AcquireWriteLock(LockWaitMilliseconds, clientDescription, name.put());
        LogFormat(Source, 4, L"Attempt to acquire the INetCfgLock WriteLock took {} ms", std::clock() - start);
        if (result != S_OK)
        {
            LogErrorSource(Source, static_cast<std::uint32_t>(result), L"Acquire INetCfgLock WriteLock failed");
            lockHolder = name ? name.get() : lockHolder;
            const std::wstring line = BindingRules::LockResultLine(result, lockHolder, LockWaitMilliseconds);
            if (!line.empty())
            {
                LogMessage(Source, 2, line);
            }
        }
    }

    if (result != S_OK)
    {
        LogMessage(Source, 3, L"did NOT acquire the INetCfgLock WriteLock");
        holdsWriteLock = 0;
    }
    else
    {
        LogMessage(Source, 4, L"acquired the INetCfgLock WriteLock");
        holdsWriteLock = 1;
    }
    return result;
}

HRESULT AdapterConfig::Close()
{
    const ScopeTrace scope{Source, ScopeFlag};
    HRESULT result = S_OK;
    ComPointer<INetCfg> config = CurrentINetCfg();
    if (config == nullptr)
    {
        LogMessage(Source, 3, L"INetCfg interface is NULL");
        result = E_POINTER;
    }
    else
    {
        result = config->Uninitialize();
        LogMessage(Source, 4, L"INetCfg Uninitialize interface");
        if (FAILED(result) || holdsWriteLock == 0)
        {
            LogMessage(Source, 3, L"INetCfgLock WriteLock not released");
        }
        else
        {
            result = ReleaseLock(config, result);
        }
        LogFormat(Source, 4, L"INetCfg interface ref count: {} (Close-pnc1)", ReleaseAndCount(config));
    }

    INetCfgLockGIT.Revoke();
    LogFormat(Source, 4, L"Close INetCfgLockGIT.Revoke cookie: {:#x}", INetCfgLockGIT.Cookie());
    INetCfgGIT.Revoke();
    LogFormat(Source, 4, L"Close INetCfgGIT.Revoke rc: cookie: {:#x}", INetCfgGIT.Cookie());
    return result;
}

HRESULT AdapterConfig::ReleaseLock(INetCfg* config, HRESULT uninitialized)
{
    ComPointer<INetCfgLock> lock = CurrentINetCfgLock(config);
    if (lock == nullptr)
    {
        LogMessage(Source, 2, L"INetCfg could not get INetCfgLock interface(Close)");
        return uninitialized;
    }
    const HRESULT result = lock->ReleaseWriteLock();
    if (FAILED(result))
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"INetCfgLock WriteLock release failed:");
    }
    else
    {
        holdsWriteLock = 0;
        LogMessage(Source, 4, L"INetCfgLock WriteLock released");
    }
    LogFormat(Source, 4, L"INetCfgLock interface ref count: {} (Close-pnclock1)", ReleaseAndCount(lock));
    return result;
}
