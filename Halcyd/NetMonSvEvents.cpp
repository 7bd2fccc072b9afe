// Events of the monitor on their way to the clients.

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/ComApartment.h"

void CNetMonSv::FireDeferred(const std::list<FireAdapterChangeEventData>& events)
{
    for (const FireAdapterChangeEventData& event : events)
    {
        // An empty text is an empty BSTR here, not a null one as on the road through the pool.
        _bstr_t deviceId(event.deviceId.c_str());
        _bstr_t adjacentMac(event.adjacentMac.c_str());
        Fire_AdapterChange(deviceId.GetBSTR(), adjacentMac.GetBSTR(), static_cast<_NOTIFICATION_EVENT>(event.event));
    }
}

void CNetMonSv::FireEventAsync(AsyncEventContext context)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const ComApartment apartment;
    if (FAILED(apartment.Result()) && apartment.Result() != RPC_E_CHANGED_MODE)
    {
        MonitorTrace::FailureResult(apartment.Result(), L"Com initialization failed");
    }
    _bstr_t deviceId;
    if (!context.deviceId.empty())
    {
        deviceId = context.deviceId.c_str();
    }
    _bstr_t adjacentMac;
    if (!context.adjacentMac.empty())
    {
        adjacentMac = context.adjacentMac.c_str();
    }
    Fire_AdapterChange(deviceId.GetBSTR(), adjacentMac.GetBSTR(), static_cast<_NOTIFICATION_EVENT>(context.event));
}
