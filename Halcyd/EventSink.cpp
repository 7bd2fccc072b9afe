#include "Halcyd/EventSink.h"

#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"

HRESULT EventSink::SetProcessingInstance(CNetMonSv* monitor) noexcept
{
    processingInstance = monitor;
    return S_OK;
}

STDMETHODIMP EventSink::QueryInterface(REFIID iid, void** result) noexcept
{
    if (result == nullptr)
    {
        return E_POINTER;
    }
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(IWbemObjectSink)))
    {
        *result = static_cast<IWbemObjectSink*>(this);
        AddRef();
        return S_OK;
    }
    *result = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) EventSink::AddRef() noexcept
{
    return static_cast<ULONG>(++referenceCount);
}

STDMETHODIMP_(ULONG) EventSink::Release() noexcept
{
    const long left = --referenceCount;
    if (left == 0)
    {
        delete this;
    }
    return static_cast<ULONG>(left);
}

STDMETHODIMP EventSink::Indicate(long count, IWbemClassObject** objects) noexcept
{
    // Every return is S_OK: WMI can do nothing about an event that there is no memory for.
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            for (long index = 0; index < count; ++index)
            {
                if (CNetMonSv* const monitor = processingInstance; monitor != nullptr)
                {
                    MonitorTrace::Note(L"processing object {}", index);
                    monitor->EnqueueWmiEvent(objects[index]);
                }
                else
                {
                    MonitorTrace::Note(L"no processing handler for object {}", index);
                }
            }
            MonitorTrace::Note(L"processed indication");
            return S_OK;
        }));
    return S_OK;
}

STDMETHODIMP EventSink::SetStatus(long flags, HRESULT result, BSTR /*text*/, IWbemClassObject* /*object*/) noexcept
{
    static_cast<void>(GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            const auto code = static_cast<std::uint32_t>(result);
            switch (flags)
            {
            case WBEM_STATUS_COMPLETE:
                MonitorTrace::Note(L"EventSink::SetStatus: current status WBEM_STATUS_COMPLETE ({:#x})", code);
                break;
            case WBEM_STATUS_REQUIREMENTS:
                MonitorTrace::Note(L"EventSink::SetStatus: current status WBEM_STATUS_REQUIREMENTS ({:#x})", code);
                break;
            case WBEM_STATUS_PROGRESS:
                MonitorTrace::Note(L"EventSink::SetStatus: current status WBEM_STATUS_PROGRESS ({:#x})", code);
                break;
            default:
                MonitorTrace::Note(L"EventSink::SetStatus: current status unknown ({:#x})", code);
                break;
            }
            return S_OK;
        }));
    return S_OK;
}
