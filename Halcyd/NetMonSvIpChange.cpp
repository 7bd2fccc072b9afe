// Changes of unicast addresses. They come in bursts, one for each address of an adapter, and each update costs a query
// for every adapter. Two flags turn a burst into two updates: `queued` says that an update waits, runs or rests for
// 500 ms behind its event, `pending` that something has changed since. Who ends an update with `pending` set starts one
// more, so what an update may have read too early is read again.

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <ws2ipdef.h>
#include <iphlpapi.h>
#include <netioapi.h>

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/BstrText.h"
#include "NetUtilities/TracedMutexLock.h"

#include <new>

namespace
{
constexpr DWORD updateSpacing = 500; // milliseconds

using NotifyFunction = decltype(&NotifyUnicastIpAddressChange);
using CancelFunction = decltype(&CancelMibChangeNotify2);

template <class Function>
Function FunctionOf(HMODULE module, const char* name) noexcept
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

void WINAPI OnUnicastAddressChange(void* context, PMIB_UNICASTIPADDRESS_ROW /*row*/, MIB_NOTIFICATION_TYPE /*type*/)
{
    if (context != nullptr)
    {
        static_cast<CNetMonSv*>(context)->NetMonHandleUnicastIpChangeEvent();
    }
}
} // namespace

void CNetMonSv::RegisterForIpChangeEvents()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (!ipHelperModule)
    {
        MonitorTrace::Failure(L"Error cannot register for Unicast IP changes because IP Helper handle is not set.");
        return;
    }
    const auto notify = FunctionOf<NotifyFunction>(ipHelperModule.get(), "NotifyUnicastIpAddressChange");
    if (notify == nullptr)
    {
        MonitorTrace::FailureCode(
            GetLastError(), L"Error could not get handle to NotifyUnicastIpAddressChange to register for changes.");
        return;
    }
    if (const DWORD error = notify(AF_UNSPEC, &OnUnicastAddressChange, this, FALSE, &ipChangeNotification);
        error != NO_ERROR)
    {
        MonitorTrace::FailureCode(error, L"Failed to register for unicast IP change notifications");
    }
}

void CNetMonSv::DeregisterForIpChangeEvents()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (!ipHelperModule)
    {
        MonitorTrace::Failure(
            L"Cannot register for de-register for Unicast IP changes because IP Helper handle is not set.");
        return;
    }
    const auto cancel = FunctionOf<CancelFunction>(ipHelperModule.get(), "CancelMibChangeNotify2");
    if (cancel == nullptr)
    {
        MonitorTrace::FailureCode(GetLastError(),
                                  L"Could not get handle to CancelMibChangeNotify2 to de-register for changes.");
        return;
    }
    if (const DWORD error = cancel(ipChangeNotification); error != NO_ERROR)
    {
        MonitorTrace::FailureCode(error, L"Failed to de-register for unicast IP change notifications");
    }
}

// No lock, on purpose: the caller is a thread of the platform, and all that can be lost where this meets the end of an
// update is one refresh, which the next change brings.
void CNetMonSv::NetMonHandleUnicastIpChangeEvent()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (ipChangeQueued)
    {
        MonitorTrace::Note(L"Set IP change event pending and return");
        ipChangePending = true;
        return;
    }
    // The registration outlives the queue in Close. An item that such a change leaves in the stopped queue would run at
    // the next Open, ahead of the one that gives the queue's thread its COM.
    if (wmiCleanupEvent.Wait(0))
    {
        return;
    }
    EnqueueIPChangeEvent();
}

void CNetMonSv::EnqueueIPChangeEvent()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    CWorkItem* const item = new (std::nothrow)
        NetUtilities::WorkItemMember<CNetMonSv>(this, &CNetMonSv::NetMonHandleUnicastIpChangeEventImpl);
    if (item == nullptr || !ipChangeWorkItemQueue.Add(item))
    {
        MonitorTrace::Failure(L"Could not enqueue NetMonHandleUnicastIpChangeEventImpl");
        return;
    }
    ipChangeQueued = true;
}

void CNetMonSv::NetMonHandleUnicastIpChangeEventImpl()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    MonitorTrace::Note(L"HandleUnicastIpChangeEvent: received notification of IPv6 or Ipv4 unicast change event");
    UpdateAllForIpChange();
    if (!wmiCleanupEvent.Wait(0))
    {
        MonitorTrace::Note(L"HandleUnicastIpChangeEvent: firing unicast IP change event thread");
        _bstr_t noNode = CopyToBstr(L"no node"); // whichever adapter it was
        Fire_AdapterChange(noNode.GetBSTR(), static_cast<BSTR>(nullptr), enumEventIpChange);
        MonitorTrace::Note(L"HandleUnicastIpChangeEvent: RETURN FROM FIRING IPCHANGE EVENT");
    }
    MonitorTrace::Note(L"Possibly delay for 500 ms before handing next IP change event");
    if (wmiCleanupEvent.Wait(updateSpacing))
    {
        return; // the monitor is closing; Open clears the flags
    }
    MutexLock lock(ipChangeMutex);
    ipChangeQueued = false;
    if (ipChangePending)
    {
        ipChangePending = false;
        EnqueueIPChangeEvent();
    }
}

void CNetMonSv::UpdateAllForIpChange()
{
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
    {
        if (wmiCleanupEvent.Wait(0))
        {
            MonitorTrace::Note(L"WMI Cleanup event set, exiting early from handle UnicastIPChange");
            return;
        }
        MonitorTrace::Note(L"updating '{}' because of unicast IP change event", TextOrEmpty(element->Description));
        IWbemClassObjectPtr object;
        object.Attach(GetWmiObjInstanceByDeviceId(element->DeviceId));
        if (object != nullptr)
        {
            UpdateNodeFromNetworkAdapterObject(element, object, nullptr);
        }
        else
        {
            MonitorTrace::Note(L"HandleUnicastIpChangeEvent: there is no wmi instance for '{}'",
                               TextOrEmpty(element->Description));
        }
    }
}
