#pragma once
// The monitor with its list in sight, and sinks of this process.

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Halcyd/NetMonSv.h"
#include "tests/unit/Halcyd/FakeWmi.h"
#include "tests/unit/Halcyd/TestModule.h"

class TestMonitor : public CNetMonSv
{
public:
    _DEVICE_ELEMENT*& Head() NO_THREAD_SAFETY_ANALYSIS { return deviceInfoListHead; }
    _DEVICE_ELEMENT*& Tail() NO_THREAD_SAFETY_ANALYSIS { return deviceInfoListTail; }
    void Remove(_DEVICE_ELEMENT* element)
    {
        MutexLock lock(deviceInfoListMutex);
        DeleteNodeAndUpdateList(element);
    }
    _DEVICE_ELEMENT* Add(const wchar_t* deviceId, const wchar_t* description = nullptr)
    {
        _DEVICE_ELEMENT* const element = CreateNewDeviceListElement();
        UpdateBstrField(&element->DeviceId, deviceId);
        UpdateBstrField(&element->Description, description);
        return element;
    }
    void RemoveOldNetworks(_DEVICE_ELEMENT* element)
    {
        MutexLock lock(deviceInfoListMutex);
        DeleteOldWiFiNetworks(element);
    }
    void Store(_WIFI_ADAPTER& extension, const _WIFI_DETAILS& record, bool& added)
    {
        MutexLock lock(deviceInfoListMutex);
        StoreNetwork(extension, record, added);
    }
    void SendSignalIfNeeded(_DEVICE_ELEMENT* element)
    {
        MutexLock lock(deviceInfoListMutex);
        SendWifiRssiNotificationIfNeeded(element);
    }
    // A root\cimv2 of the test's own; the monitor holds a reference.
    FakeWmiNamespace& UseCimv2()
    {
        auto* const services = new FakeWmiNamespace;
        cimv2Namespace = services;
        return *services;
    }
    FakeWmiNamespace& UseWmi()
    {
        auto* const services = new FakeWmiNamespace;
        wmiNamespace = services;
        return *services;
    }
    void Fire(const std::list<FireAdapterChangeEventData>& events) { FireDeferred(events); }
    // Open as far as the counter goes.
    void PretendOpen(std::uint32_t users) NO_THREAD_SAFETY_ANALYSIS
    {
        openReferenceCount = users;
        closedFlag = false;
    }
    PlainMutex& OpenCloseMutex() { return serializeOpenCloseMutex; }
    void StartPool() { threadPool.Start(); }
    void StopPool() { threadPool.Stop(20000); }

    using CNetMonSv::closedFlag;
    using CNetMonSv::closingFlag;
    using CNetMonSv::ipChangePending;
    using CNetMonSv::ipChangeQueued;
    using CNetMonSv::ipChangeWorkItemQueue;
    using CNetMonSv::wmiCleanupEvent;
};

struct ToldEvent
{
    std::optional<std::wstring> deviceId; // nothing for a null BSTR
    VARTYPE secondType = VT_EMPTY;
    std::optional<std::wstring> adjacentMac;
    long number = 0;
    VARTYPE eventType = VT_EMPTY;
    int event = -1;
};

// A sink that any thread may call. Lives on the stack of its test: its references are counted and not heeded.
class TestSink : public IDispatch
{
public:
    TestSink();
    ~TestSink();
    TestSink(const TestSink&) = delete;
    TestSink& operator=(const TestSink&) = delete;

    HRESULT invokeResult = S_OK;
    SCODE resultCode = 0;
    bool offersDispatch = true;
    bool offersEvents = true;
    std::function<void(const ToldEvent&)> onEvent;

    [[nodiscard]] std::vector<ToldEvent> Events();
    [[nodiscard]] bool WaitForCount(std::size_t count, DWORD milliseconds = 20000);
    [[nodiscard]] long References() const { return references; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* arguments,
                                     VARIANT* result, EXCEPINFO*, UINT*) override;

private:
    std::atomic<long> references{1};
    std::mutex mutex;
    std::vector<ToldEvent> events;
    Event arrived{false, false};
    IUnknown* marshaler = nullptr;
};

// The event connection point of a monitor, with a reference.
[[nodiscard]] IConnectionPoint* EventPoint(CNetMonSv* monitor);
