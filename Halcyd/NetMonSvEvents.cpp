// Events of the monitor on their way to the clients.

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/BstrText.h"
#include "NetUtilities/ComApartment.h"

#include <system_error>

void CNetMonSv::FireDeferred(const std::list<FireAdapterChangeEventData>& events)
{
    for (const FireAdapterChangeEventData& event : events)
    {
        // An empty text is an empty BSTR here, not a null one as on the road through the pool.
        _bstr_t deviceId = CopyToBstr(event.deviceId.c_str());
        _bstr_t adjacentMac = CopyToBstr(event.adjacentMac.c_str());
        Fire_AdapterChange(deviceId.GetBSTR(), adjacentMac.GetBSTR(), static_cast<_NOTIFICATION_EVENT>(event.event));
    }
}

bool CNetMonSv::AddToPool(CWorkItem* item) noexcept
try
{
    return item != nullptr && threadPool.Add(item);
}
catch (const std::system_error&)
{
    return false;
}

void CNetMonSv::FireEventAsync(AsyncEventContext context)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const ComApartment apartment;
    if (FAILED(apartment.Result()) && apartment.Result() != RPC_E_CHANGED_MODE)
    {
        MonitorTrace::FailureResult(apartment.Result(), L"Com initialization failed");
    }
    // An empty text is a null one here.
    const auto textOrNull = [](const std::wstring& text)
    { return text.empty() ? _bstr_t() : CopyToBstr(text.c_str()); };
    _bstr_t deviceId = textOrNull(context.deviceId);
    _bstr_t adjacentMac = textOrNull(context.adjacentMac);
    Fire_AdapterChange(deviceId.GetBSTR(), adjacentMac.GetBSTR(), static_cast<_NOTIFICATION_EVENT>(context.event));
}
