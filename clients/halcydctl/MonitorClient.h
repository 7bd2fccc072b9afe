#pragma once
// The service's monitor as a client holds it, and the sink for its events.

#include <windows.h>
#include <comdef.h>
#include <ocidl.h>

#include <atomic>
#include <deque>
#include <string>
#include <vector>

#include "Halcyd_h.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"
#include "clients/halcydctl/AdapterView.h"
#include "clients/halcydctl/MonitorEvent.h"

_COM_SMARTPTR_TYPEDEF(INetMonSv, __uuidof(INetMonSv));
_COM_SMARTPTR_TYPEDEF(IDNS, __uuidof(IDNS));
_COM_SMARTPTR_TYPEDEF(INetRegistry, __uuidof(INetRegistry));
_COM_SMARTPTR_TYPEDEF(IServiceControlEx, __uuidof(IServiceControlEx));
_COM_SMARTPTR_TYPEDEF(IConnectionPoint, __uuidof(IConnectionPoint));
_COM_SMARTPTR_TYPEDEF(IConnectionPointContainer, __uuidof(IConnectionPointContainer));

// Activates a class of the service. Throws Failure, after looking for obstacles first: a wrongly registered interface
// would hang the activation. `mayStart` lets COM start a stopped service.
template <class Pointer>
[[nodiscard]] Pointer ActivateService(REFCLSID classId, bool mayStart);

// Throws Failure if `result` is a failure.
void Check(HRESULT result, const wchar_t* action);
// The same for what the monitor's Open returned, whose shortage of memory is a positive number.
void CheckOpened(HRESULT result);

// Events on their way from COM's threads to the main thread.
class EventQueue
{
public:
    EventQueue() : available(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
    void Push(MonitorEvent event);
    [[nodiscard]] bool Pop(MonitorEvent& event);
    // Auto-reset: set whenever something was pushed. Take until Pop says no.
    [[nodiscard]] HANDLE Available() const noexcept { return available.get(); }

private:
    UniqueHandle available;
    PlainMutex mutex;
    std::deque<MonitorEvent> events GUARDED_BY(mutex);
};

// The client's own implementation of the event interface. Called on COM's threads, possibly two at once; never blocks.
class EventSink final : public IDispatch
{
public:
    // `eventQueue` must outlive the sink. Starts with one reference, the caller's.
    explicit EventSink(EventQueue& eventQueue) noexcept : queue(eventQueue) {}
    EventSink(const EventSink&) = delete;
    EventSink& operator=(const EventSink&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) noexcept override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) noexcept override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale,
                                            DISPID* ids) noexcept override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID member, REFIID iid, LCID locale, WORD flags, DISPPARAMS* arguments,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argumentError) noexcept override;

private:
    ~EventSink() = default;

    EventQueue& queue;
    std::atomic<ULONG> references{1};
};

// A connection to the monitor with everything that must be undone: the advise and the Open are taken back at the end,
// in that order. StopNotificationProcessing is never called: the switch is the service's, not the client's, and turning
// it off would silence all other clients.
class MonitorConnection
{
public:
    // Activates the monitor; nothing else happens yet.
    explicit MonitorConnection(bool mayStart);
    MonitorConnection(const MonitorConnection&) = delete;
    MonitorConnection& operator=(const MonitorConnection&) = delete;
    ~MonitorConnection();

    // Each throws Failure.
    void Advise(EventQueue& queue);
    void Open(); // counted; taken back by the destructor
    void StartNotifications();
    [[nodiscard]] bool IsOpen();
    [[nodiscard]] std::vector<AdapterView> Adapters();

    // The service has gone: nothing is there to be taken back.
    void Abandon() noexcept;

    [[nodiscard]] INetMonSv* Interface() const noexcept { return monitor.GetInterfacePtr(); }

private:
    INetMonSvPtr monitor;
    IConnectionPointPtr connectionPoint;
    DWORD adviseCookie = 0;
    bool opened = false;
};
