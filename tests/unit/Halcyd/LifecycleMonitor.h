#pragma once
// The monitor with the members of its life in sight, and a WMI that a test answers for.

#include "tests/unit/Halcyd/TestMonitor.h"

class LifecycleMonitor : public TestMonitor
{
public:
    using CNetMonSv::cimv2Namespace;
    using CNetMonSv::deviceInfoMap;
    using CNetMonSv::NativeWifiMonitorThread;
    using CNetMonSv::sdkSwitchEvent;
    using CNetMonSv::timerQueue;
    using CNetMonSv::wbemLocator;
    using CNetMonSv::WmiEventThread;
    using CNetMonSv::wmiNamespace;

    IUnknown* Sink() NO_THREAD_SAFETY_ANALYSIS { return eventSink.GetInterfacePtr(); }
    std::uint32_t Users() NO_THREAD_SAFETY_ANALYSIS { return openReferenceCount; }
    void SetForcedSurveys(std::int32_t count, std::int64_t last) NO_THREAD_SAFETY_ANALYSIS
    {
        forcedSurveyCount = count;
        lastForcedSurvey = last;
    }
    std::int32_t ForcedSurveys() NO_THREAD_SAFETY_ANALYSIS { return forcedSurveyCount; }
    // The client's token as Open would have found it; the monitor closes it.
    void UseToken(HANDLE token) NO_THREAD_SAFETY_ANALYSIS { clientTokenHandle.reset(token); }
    RecursiveMutex& ListMutex() { return deviceInfoListMutex; }
    // True if another thread could have the list now.
    [[nodiscard]] bool IsListFree();
    // The module that the address notifications are asked of, with a reference that the monitor gives back.
    void UseIpHelper(HMODULE module) NO_THREAD_SAFETY_ANALYSIS { ipHelperModule.reset(module); }
    void RegisterForAddresses()
    {
        MutexLock lock(serializeOpenCloseMutex);
        RegisterForIpChangeEvents();
    }
    void DeregisterForAddresses()
    {
        MutexLock lock(serializeOpenCloseMutex);
        DeregisterForIpChangeEvents();
    }

    HRESULT WiFiAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object)
    {
        MutexLock lock(deviceInfoListMutex);
        return GetWiFiAdapterInfo(node, object);
    }
    HRESULT EthernetAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object)
    {
        MutexLock lock(deviceInfoListMutex);
        return GetEthernetAdapterInfo(node, object);
    }
    HRESULT UpdateFromTimer(_DEVICE_ELEMENT* node)
    {
        MutexLock lock(deviceInfoListMutex);
        return WiFiUpdateDetailsFromTimer(node);
    }
    HRESULT DeleteAccessPoints(_DEVICE_ELEMENT* node)
    {
        MutexLock lock(deviceInfoListMutex);
        return DeleteWiFiAccessPointList(node);
    }
    void StartWifiThread()
    {
        MutexLock lock(serializeOpenCloseMutex);
        StartNativeWifiEventMonitorThread();
    }
    void StopWifiThread()
    {
        MutexLock lock(serializeOpenCloseMutex);
        StopNativeWifiEventMonitorThread();
    }
};

// What CoSetProxyBlanket was given.
struct Blanket
{
    DWORD authentication = 0;
    DWORD authorization = 0;
    const wchar_t* principal = nullptr;
    DWORD level = 0;
    DWORD impersonation = 0;
    void* identity = nullptr;
    DWORD capabilities = 0;
};

// A namespace that can be secured as a proxy is, and remembers how.
class SecuredNamespace final : public FakeWmiNamespace, public IClientSecurity
{
public:
    HRESULT blanketResult = S_OK;
    HRESULT cancelResult = S_OK;
    std::vector<Blanket> blankets;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (IsEqualIID(iid, __uuidof(IClientSecurity)))
        {
            *out = static_cast<IClientSecurity*>(this);
            AddRef();
            return S_OK;
        }
        return FakeWmiNamespace::QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return FakeWmiNamespace::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return FakeWmiNamespace::Release(); }
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink* sink) override
    {
        cancelled.push_back(sink);
        return cancelResult;
    }
    HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**,
                                           DWORD*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD authentication, DWORD authorization, OLECHAR* principal,
                                         DWORD level, DWORD impersonation, void* identity, DWORD capabilities) override
    {
        blankets.push_back({authentication, authorization, principal, level, impersonation, identity, capabilities});
        return blanketResult;
    }
    HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }
};

// The machine's WMI for as long as it lives: one object that is WbemLocator's factory and the locator at once. Lives on
// the stack or in a fixture; references are counted and not heeded.
class WmiScope final : public IClassFactory, public IWbemLocator
{
public:
    WmiScope();
    ~WmiScope();
    WmiScope(const WmiScope&) = delete;
    WmiScope& operator=(const WmiScope&) = delete;

    HRESULT createResult = S_OK;
    int failConnect = 0;  // counted from 1
    int emptyConnect = 0; // succeeds and gives nothing
    int failBlanket = 0;  // the blanket of the namespace of that connect
    int created = 0;
    std::vector<std::wstring> connects;
    std::function<HRESULT(const std::wstring& query, ObjectList& objects)> answer; // of every namespace
    // The namespaces of all connects; the scope holds a reference.
    std::vector<IWbemServicesPtr> namespaces;
    [[nodiscard]] SecuredNamespace& At(std::size_t index)
    {
        return *static_cast<SecuredNamespace*>(namespaces[index].GetInterfacePtr());
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR resource, const BSTR user, const BSTR password,
                                            const BSTR locale, long flags, const BSTR authority, IWbemContext* context,
                                            IWbemServices** out) override;

private:
    DWORD cookie = 0;
};

// The trace lines in `wanted` that do not come, each behind the one before it: empty when all of them do.
[[nodiscard]] std::wstring FirstMissingInOrder(const std::vector<std::wstring>& wanted);
