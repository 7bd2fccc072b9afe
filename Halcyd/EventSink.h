#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <atomic>

class CNetMonSv;

// Receives the adapter notifications of WMI, on WMI's threads, and hands them to the monitor. Lives by its reference
// count, which starts at 0: whoever makes one takes the first reference.
class EventSink final : public IWbemObjectSink
{
public:
    EventSink() = default;
    EventSink(const EventSink&) = delete;
    EventSink& operator=(const EventSink&) = delete;

    // The monitor that gets the events from now on; null to drop them. Not counted: whoever sets it clears it, or has
    // the subscriptions cancelled, before the monitor goes. Returns 0.
    HRESULT SetProcessingInstance(CNetMonSv* monitor) noexcept;

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override;
    STDMETHODIMP_(ULONG) AddRef() noexcept override;
    STDMETHODIMP_(ULONG) Release() noexcept override;

    // IWbemObjectSink. Both return 0 in all cases and never block on the monitor's work.
    STDMETHODIMP Indicate(long count, IWbemClassObject** objects) noexcept override;
    STDMETHODIMP SetStatus(long flags, HRESULT result, BSTR text, IWbemClassObject* object) noexcept override;

private:
    ~EventSink() = default;

    std::atomic<long> referenceCount{0};
    std::atomic<CNetMonSv*> processingInstance{nullptr}; // read and written without a lock
};
