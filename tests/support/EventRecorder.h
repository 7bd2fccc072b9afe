// A sink for the monitor's events that keeps all it is told, and lets a test wait for what it expects without
// sleeping. A test may also make it misbehave: return a failure, run code inside the callback, offer no IDispatch.
#pragma once

#include <windows.h>

#include <comdef.h>
#include <ocidl.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Halcyd_h.h"

_COM_SMARTPTR_TYPEDEF(IConnectionPoint, IID_IConnectionPoint);
_COM_SMARTPTR_TYPEDEF(IConnectionPointContainer, IID_IConnectionPointContainer);

// One AdapterChange as it came. A null BSTR is an empty optional, an empty one an empty string.
struct RecordedEvent
{
    std::optional<std::wstring> deviceId;
    VARTYPE secondType = VT_EMPTY;           // VT_BSTR, or VT_I4 for the binding events
    std::optional<std::wstring> adjacentMac; // when secondType is VT_BSTR
    std::int32_t number = 0;                 // when secondType is VT_I4
    VARTYPE eventType = VT_EMPTY;            // VT_INT is what the service sends
    std::int32_t event = -1;                 // _NOTIFICATION_EVENT
    std::uint64_t tick = 0;                  // GetTickCount64 at arrival
    DWORD thread = 0;                        // the RPC thread that delivered it
};

// Free-threaded, reference counted; starts with one reference, which the caller owns.
class EventRecorder final : public IDispatch
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** out) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override;
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override;
    STDMETHODIMP Invoke(DISPID member, REFIID, LCID, WORD, DISPPARAMS* parameters, VARIANT*, EXCEPINFO*,
                        UINT*) override;

    // Runs inside each callback after the event has been recorded; its result goes back to the service.
    void OnEvent(std::function<HRESULT(const RecordedEvent&)> handler);

    [[nodiscard]] std::vector<RecordedEvent> Events() const;
    void Clear();
    // Waits until at least `count` events have come; false when the time runs out.
    [[nodiscard]] bool WaitForCount(std::size_t count, DWORD timeoutMs = 20'000) const;
    // Waits until one event satisfies the test, looking at earlier ones too.
    [[nodiscard]] std::optional<RecordedEvent> WaitFor(const std::function<bool(const RecordedEvent&)>& test,
                                                       DWORD timeoutMs = 20'000) const;
    [[nodiscard]] std::optional<RecordedEvent> WaitForEvent(std::int32_t event, DWORD timeoutMs = 20'000) const;

private:
    ~EventRecorder() = default;

    std::atomic<ULONG> m_references{1};
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_arrived;
    std::vector<RecordedEvent> m_events;
    std::function<HRESULT(const RecordedEvent&)> m_handler;
};

// An EventRecorder connected to an object's _INetMonSv connection point for the life of this object.
class EventConnection
{
public:
    explicit EventConnection(IUnknown* source);
    ~EventConnection();
    EventConnection(const EventConnection&) = delete;
    EventConnection& operator=(const EventConnection&) = delete;

    // S_OK when the connection stands.
    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }
    [[nodiscard]] DWORD Cookie() const noexcept { return m_cookie; }
    EventRecorder* operator->() const noexcept { return m_recorder; }
    [[nodiscard]] EventRecorder& Recorder() const noexcept { return *m_recorder; }
    // Ends the connection early. Returns what Unadvise returned.
    HRESULT Disconnect();

private:
    IConnectionPointPtr m_point;
    EventRecorder* m_recorder;
    DWORD m_cookie = 0;
    HRESULT m_result = E_FAIL;
};
