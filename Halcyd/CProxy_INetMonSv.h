#pragma once
// The monitor's event connection point, and the firing of its one event.

#include <windows.h>
#include <comdef.h>

#include <cstdint>

#include "ComSupport/ComSupport.h"
#include "Halcyd/AdapterEvents.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/MyComDynamicUnkArray.h"
#include "Halcyd_h.h"
#include "NetUtilities/Trace.h"

// AdapterChange's arguments in the reverse order in which IDispatch takes them.
class AdapterChangeArguments
{
public:
    AdapterChangeArguments(BSTR deviceId, BSTR adjacentMac, _NOTIFICATION_EVENT event);
    // Results of binding operations travel as a number where the interface declares a BSTR. Clients are built on that.
    AdapterChangeArguments(BSTR deviceId, HRESULT result, _NOTIFICATION_EVENT event);

    // Calls one sink and says what it said; `result` is cleared first.
    HRESULT Invoke(IDispatch* sink, _variant_t& result);

private:
    _variant_t arguments[3];
};

template <class T>
class CProxy_INetMonSv : public IConnectionPointImpl<T, &DIID__INetMonSv, MyComDynamicUnkArray>
{
public:
    // Tell all connected sinks about an adapter. Called on any thread, with none of the monitor's locks held unless the
    // caller has a reason; every sink's call is waited for. A failing sink stays connected, and the others are told all
    // the same. The result is the `scode` of the last result variant; nobody needs it.
    HRESULT Fire_AdapterChange(BSTR deviceId, BSTR adjacentMac, _NOTIFICATION_EVENT event)
    {
        ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
        MonitorTrace::Note(L"EVENT: Fire_AdapterChange '{}' '{}' '{} ({})'", TextOr(deviceId, L"Null"),
                           TextOr(adjacentMac, L"Null"), NotificationEventName(static_cast<std::uint32_t>(event)),
                           static_cast<std::uint32_t>(event));
        return FireToAll([&] { return AdapterChangeArguments(deviceId, adjacentMac, event); });
    }

    HRESULT Fire_AdapterChange(BSTR deviceId, HRESULT result, _NOTIFICATION_EVENT event)
    {
        ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
        MonitorTrace::Note(L"EVENT: Fire_AdapterChange '{}' '{:#08x}' '{} ({})'", TextOr(deviceId, L"Null"),
                           static_cast<std::uint32_t>(result), NotificationEventName(static_cast<std::uint32_t>(event)),
                           static_cast<std::uint32_t>(event));
        return FireToAll([&] { return AdapterChangeArguments(deviceId, result, event); });
    }

private:
    template <class MakeArguments>
    HRESULT FireToAll(MakeArguments makeArguments)
    {
        _variant_t result;
        result.scode = 0;              // what is returned when nobody is told
        const int slots = SlotCount(); // sinks that connect during the loop are not told
        for (int index = 0; index < slots; ++index)
        {
            const IUnknownPtr sink = SinkAt(index);
            if (sink == nullptr)
            {
                continue;
            }
            IDispatchPtr dispatch;
            if (FAILED(sink->QueryInterface(__uuidof(IDispatch), reinterpret_cast<void**>(&dispatch))) ||
                dispatch == nullptr)
            {
                continue;
            }
            const HRESULT invoked = makeArguments().Invoke(dispatch, result);
            if (FAILED(invoked) || result.scode < 0)
            {
                MonitorTrace::Failure(L"Fire_AdapterChange failed {:#x}", static_cast<std::uint32_t>(invoked));
            }
        }
        return result.scode;
    }

    int SlotCount()
    {
        const typename T::ObjectLock lock(static_cast<T*>(this)->m_critsec);
        return this->m_vec.GetSize();
    }

    // The lock is held for the look-up only, so that a sink may call back into the monitor.
    IUnknownPtr SinkAt(int index)
    {
        const typename T::ObjectLock lock(static_cast<T*>(this)->m_critsec);
        return this->m_vec.GetAt(index);
    }
};
