#include "tests/support/EventRecorder.h"

#include <chrono>

namespace
{

constexpr DISPID kAdapterChange = 2;

std::optional<std::wstring> ToText(BSTR text)
{
    if (text == nullptr)
        return std::nullopt;
    return std::wstring(text, SysStringLen(text));
}

RecordedEvent ToRecord(const DISPPARAMS& parameters)
{
    RecordedEvent record;
    record.tick = GetTickCount64();
    record.thread = GetCurrentThreadId();
    // Arguments stand in reverse order of the declaration.
    const VARIANT& event = parameters.rgvarg[0];
    const VARIANT& second = parameters.rgvarg[1];
    const VARIANT& device = parameters.rgvarg[2];
    record.eventType = event.vt;
    record.event = event.lVal;
    record.secondType = second.vt;
    if (second.vt == VT_BSTR)
        record.adjacentMac = ToText(second.bstrVal);
    else
        record.number = second.lVal;
    if (device.vt == VT_BSTR)
        record.deviceId = ToText(device.bstrVal);
    return record;
}

} // namespace

STDMETHODIMP EventRecorder::QueryInterface(REFIID iid, void** out)
{
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) && !IsEqualIID(iid, DIID__INetMonSv))
    {
        return E_NOINTERFACE;
    }
    *out = static_cast<IDispatch*>(this);
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) EventRecorder::AddRef()
{
    return ++m_references;
}

STDMETHODIMP_(ULONG) EventRecorder::Release()
{
    const ULONG left = --m_references;
    if (left == 0)
        delete this;
    return left;
}

STDMETHODIMP EventRecorder::GetTypeInfoCount(UINT* count)
{
    if (count == nullptr)
        return E_POINTER;
    *count = 0;
    return S_OK;
}

STDMETHODIMP EventRecorder::GetTypeInfo(UINT, LCID, ITypeInfo**)
{
    return E_NOTIMPL;
}

STDMETHODIMP EventRecorder::GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*)
{
    return DISP_E_UNKNOWNNAME;
}

STDMETHODIMP EventRecorder::Invoke(DISPID member, REFIID, LCID, WORD, DISPPARAMS* parameters, VARIANT*, EXCEPINFO*,
                                   UINT*)
{
    if (member != kAdapterChange)
        return DISP_E_MEMBERNOTFOUND;
    if (parameters == nullptr || parameters->cArgs != 3)
        return DISP_E_BADPARAMCOUNT;
    const RecordedEvent record = ToRecord(*parameters);
    std::function<HRESULT(const RecordedEvent&)> handler;
    {
        const std::lock_guard lock(m_mutex);
        m_events.push_back(record);
        handler = m_handler;
    }
    m_arrived.notify_all();
    return handler ? handler(record) : S_OK;
}

void EventRecorder::OnEvent(std::function<HRESULT(const RecordedEvent&)> handler)
{
    const std::lock_guard lock(m_mutex);
    m_handler = std::move(handler);
}

std::vector<RecordedEvent> EventRecorder::Events() const
{
    const std::lock_guard lock(m_mutex);
    return m_events;
}

void EventRecorder::Clear()
{
    const std::lock_guard lock(m_mutex);
    m_events.clear();
}

bool EventRecorder::WaitForCount(std::size_t count, DWORD timeoutMs) const
{
    std::unique_lock lock(m_mutex);
    return m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_events.size() >= count; });
}

std::optional<RecordedEvent> EventRecorder::WaitFor(const std::function<bool(const RecordedEvent&)>& test,
                                                    DWORD timeoutMs) const
{
    std::optional<RecordedEvent> found;
    std::unique_lock lock(m_mutex);
    m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                       [&]
                       {
                           for (const RecordedEvent& event : m_events)
                           {
                               if (test(event))
                               {
                                   found = event;
                                   return true;
                               }
                           }
                           return false;
                       });
    return found;
}

std::optional<RecordedEvent> EventRecorder::WaitForEvent(std::int32_t event, DWORD timeoutMs) const
{
    return WaitFor([event](const RecordedEvent& record) { return record.event == event; }, timeoutMs);
}

EventConnection::EventConnection(IUnknown* source) : m_recorder(new EventRecorder)
{
    IConnectionPointContainerPtr container;
    m_result = source->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container));
    if (SUCCEEDED(m_result))
        m_result = container->FindConnectionPoint(DIID__INetMonSv, &m_point);
    if (SUCCEEDED(m_result))
        m_result = m_point->Advise(m_recorder, &m_cookie);
}

EventConnection::~EventConnection()
{
    Disconnect();
    m_recorder->Release();
}

HRESULT EventConnection::Disconnect()
{
    if (m_point == nullptr || m_cookie == 0)
        return S_FALSE;
    const HRESULT result = m_point->Unadvise(m_cookie);
    m_cookie = 0;
    return result;
}
