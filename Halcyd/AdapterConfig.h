#pragma once
// The session with the network configuration engine: its write lock, and the disabling and restoring of IP bindings.

#include <windows.h>

#include <comdef.h>
#include <netcfgx.h>

#include <atomic>
#include <string>
#include <string_view>

#include "Halcyd/ComPointer.h"
#include "NetUtilities/Mutex.h"

// One interface in the Global Interface Table, from which any thread of the process fetches a pointer that it can use.
// Owns the table entry, by its cookie; 0 when empty. The cookie may be read while another thread changes it.
class GlobalInterfaceEntry
{
public:
    explicit GlobalInterfaceEntry(const IID& interfaceId) noexcept : iid(interfaceId) {}
    ~GlobalInterfaceEntry() { Revoke(); }
    GlobalInterfaceEntry(const GlobalInterfaceEntry&) = delete;
    GlobalInterfaceEntry& operator=(const GlobalInterfaceEntry&) = delete;

    // Puts `object` into the table in the place of what is there. Raises _com_error when the table refuses.
    void Register(IUnknown* object);
    // A pointer with a reference of its own, at `out`; null there without a cookie and on failure.
    HRESULT Fetch(void** out) const;
    // Takes the entry out of the table; a refusal leaves the cookie.
    void Revoke() noexcept;

    [[nodiscard]] DWORD Cookie() const noexcept { return cookie.load(); }

private:
    IID iid;
    std::atomic<DWORD> cookie{0};
};

// A session: Initialize, then DisableBindings or RestoreBindings, then Close. One thread may open it and another one
// use and close it, each with COM initialised for the multithreaded apartment.
//
// DisableBindings and RestoreBindings exclude each other. Initialize and Close take no lock: whoever owns the session
// keeps them apart. Initialize can take ten seconds and more, and DisableBindings and RestoreBindings wait for the
// engine: none of them belongs on a thread that serves events.
class AdapterConfig
{
public:
    AdapterConfig() = default;
    ~AdapterConfig();
    AdapterConfig(const AdapterConfig&) = delete;
    AdapterConfig& operator=(const AdapterConfig&) = delete;

    // Opens the session. With `bWriteLock` not 0 it takes the engine's write lock under the name `clientDescription`,
    // looking up to 11 times with a second between; without a lock interface it goes on without a lock. Returns 0, or
    // the failure, also the positive 1 when the wait for the lock ran out: test for non-zero. `lockHolder` receives the
    // name of the program that has the lock, when there is one. A failure leaves entries that only Close takes away.
    // Raises _com_error when an interface cannot be put into the Global Interface Table.
    HRESULT Initialize(int bWriteLock, const wchar_t* clientDescription, std::wstring& lockHolder);

    // Ends the session and gives the write lock back, if this session has it. E_POINTER when there is no session.
    HRESULT Close();

    // Disables the bindings of all adapters but `adapterNotToUnbind` (instance GUID as StringFromCLSID prints it) and
    // leaves a record of each in the registry. `bPppDevice` not 0: the kept adapter's traffic goes through NDISWAN.
    // Returns what the engine's Apply returned; 0 without a session.
    HRESULT DisableBindings(const wchar_t* adapterNotToUnbind, int bPppDevice);

    // Enables the bindings that the record names, and removes the record when the engine applied it. Returns what Apply
    // returned; 0 without a session.
    HRESULT RestoreBindings();

    // Removes the record, session or not. Does not come back while the system refuses to delete a key of it.
    void DeleteOldBindingInfo();

    // True from Initialize to Close, also when the lock was not got.
    [[nodiscard]] bool HasSession() const noexcept { return INetCfgGIT.Cookie() != 0; }
    // The session's flag: it took the write lock and has not given it back.
    [[nodiscard]] bool HoldsWriteLock() const noexcept { return holdsWriteLock.load() != 0; }

private:
    HRESULT CreateINetCfg(INetCfg** out);
    HRESULT CreateINetCfgLock(INetCfg* config, INetCfgLock** out);
    ComPointer<INetCfg> CurrentINetCfg() const;
    ComPointer<INetCfgLock> CurrentINetCfgLock(INetCfg* config);
    HRESULT AcquireLockWithRetries(INetCfgLock* lock, const wchar_t* clientDescription, std::wstring& lockHolder);
    HRESULT LookAtLockOnce(INetCfgLock* lock, const wchar_t* clientDescription, std::wstring& lockHolder);
    // Close's result: the release's, or `uninitialized` when there is no lock interface to release it through.
    HRESULT ReleaseLock(INetCfg* config, HRESULT uninitialized);

    void DisableProtocol(INetCfg* config, std::wstring_view protocolId, std::wstring_view adapterNotToUnbind,
                         int bPppDevice);
    void ApplyPathRule(INetCfgBindingPath* path, std::wstring_view protocolId, std::wstring_view adapterNotToUnbind,
                       int bPppDevice);
    void RestoreProtocol(std::wstring_view protocolId);
    HRESULT GetBindPath(std::wstring_view protocolId, const std::wstring& lowerComponentGuid,
                        ComPointer<INetCfgBindingPath>& path, std::wstring& lowerComponentId);

    GlobalInterfaceEntry INetCfgGIT{__uuidof(INetCfg)};
    GlobalInterfaceEntry INetCfgLockGIT{__uuidof(INetCfgLock)};
    std::atomic<int> holdsWriteLock{0};
    SimpleMutex bindingsMutex; // from start to end of DisableBindings and RestoreBindings
};
