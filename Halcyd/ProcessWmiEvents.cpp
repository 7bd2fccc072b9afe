// Adapter notifications of WMI: asked for here, queued on WMI's threads, handled one at a time on WmiEventThread.

#include "Halcyd/AdapterGates.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/TracedMutexLock.h"

#include <system_error>

namespace
{
constexpr const wchar_t* notificationQueries[] = {
    L"select * from MSNdis_NotifyAdapterArrival", L"select * from MSNdis_NotifyAdapterRemoval",
    L"select * from MSNdis_StatusMediaConnect",   L"select * from MSNdis_StatusMediaDisconnect",
    L"select * from MSNdis_StatusProtocolBind",   L"select * from MSNdis_StatusProtocolUnbind",
};
} // namespace

HRESULT CNetMonSv::RegisterForNotifications()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (wmiNamespace == nullptr)
    {
        MonitorTrace::Failure(L"Error not connected to namespace");
        return E_INVALIDARG;
    }
    const EventSinkPtr sink = CurrentEventSink();
    for (const wchar_t* query : notificationQueries)
    {
        MonitorTrace::Note(L"at top of loop register for notification");
        const UniqueBstr language(SysAllocString(L"WQL"));
        const UniqueBstr text(SysAllocString(query));
        if (!language || !text)
        {
            MonitorTrace::FailureResult(E_OUTOFMEMORY, L"Error OUT OF MEMORY");
            return E_OUTOFMEMORY;
        }
        MonitorTrace::Note(L"ExecNotificationQueryAsync '{}'", query);
        const HRESULT result = wmiNamespace->ExecNotificationQueryAsync(
            language.get(), text.get(), WBEM_FLAG_SEND_STATUS, nullptr, sink.GetInterfacePtr());
        if (FAILED(result))
        {
            MonitorTrace::FailureResult(result, L"Error failed to register for {}", query);
            return result;
        }
        MonitorTrace::Note(L"registered for {} with sync", query);
    }
    return S_OK;
}

STDMETHODIMP CNetMonSv::StartNotificationProcessing() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            MonitorTrace::Note(L"saving pointer to this instance to the sync ({:#08x})", MonitorTrace::Address(this));
            if (const EventSinkPtr sink = CurrentEventSink(); sink != nullptr)
            {
                sink->SetProcessingInstance(this);
            }
            return S_OK;
        });
}

STDMETHODIMP CNetMonSv::StopNotificationProcessing() noexcept
{
    return GuardMethod(
        [this](const std::source_location& here)
        {
            const ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag, 0, {}, here);
            MonitorTrace::Note(L"setting the class instance for processing in the sync to NULL");
            if (const EventSinkPtr sink = CurrentEventSink(); sink != nullptr)
            {
                sink->SetProcessingInstance(nullptr);
            }
            return S_OK;
        });
}

void CNetMonSv::EnqueueWmiEvent(IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    IWbemClassObjectPtr owned(object);
    {
        MutexLock lock(wmiEventQueueMutex);
        wmiEventQueue.Push(object, wmiEventQueueMutex);
        owned.Detach(); // the queue's from now on
        MonitorTrace::Note(L"queued wmi event {:#08x}", MonitorTrace::Address(object));
    }
    MutexLock handle(wmiEventHandleMutex);
    wmiEventAvailable.Set();
}

void CNetMonSv::StartWmiEventMonitorThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    {
        MutexLock handle(wmiEventHandleMutex); // the sink of an earlier Open may still get a notification
        wmiEventAvailable.Create(false, false);
    }
    wmiEventThreadStop.Create(true, false);
    if (!wmiEventAvailable || !wmiEventThreadStop)
    {
        MonitorTrace::FailureCode(GetLastError(), L"Could not create events");
        return;
    }
    wmiEventQueue.DropAll();
    try
    {
        WmiEventThread = std::make_unique<std::thread>(&CNetMonSv::ProcessWmiEventsThread, this);
    }
    catch (const std::system_error& error)
    {
        // As without its events: the monitor is open, and its list stays as it is.
        MonitorTrace::Failure(L"Could not create thread ({})", error.code().value());
        return;
    }
    MonitorTrace::Note(L"Creating thread to process wmi events");
}

// WMI calls run here without an apartment of the thread's own: the process has one for all its threads.
void CNetMonSv::ProcessWmiEventsThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    for (;;)
    {
        const DWORD signalled = WaitForAny(INFINITE, wmiEventAvailable.Handle(), wmiEventThreadStop.Handle());
        if (signalled != WAIT_OBJECT_0)
        {
            MonitorTrace::Note(L"time to end the ProcessWmiEventsThreadableMember thread");
            return;
        }
        // One wake empties the queue: no event is lost, none handled beside another.
        MonitorTrace::Note(L"processing wmi event queue");
        while (const IWbemClassObjectPtr object = PopWmiEvent())
        {
            ProcessNotificationEvent(object);
        }
        MonitorTrace::Note(L"done processing wmi event queue");
    }
}

IWbemClassObjectPtr CNetMonSv::PopWmiEvent()
{
    MutexLock lock(wmiEventQueueMutex);
    IWbemClassObject* const object = wmiEventQueue.Pop(wmiEventQueueMutex);
    if (object != nullptr)
    {
        MonitorTrace::Note(L"processing wmi event queue item {:#08x}", MonitorTrace::Address(object));
    }
    return {object, false};
}

void CNetMonSv::StopWmiEventMonitorThread()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (WmiEventThread != nullptr)
    {
        wmiEventThreadStop.Set();
        if (WmiEventThread->joinable())
        {
            MonitorTrace::Note(L"thread to process wlan events has been terminated");
            WmiEventThread->join();
        }
        WmiEventThread.reset();
    }
    wmiEventThreadStop.Close();
    {
        MutexLock handle(wmiEventHandleMutex);
        wmiEventAvailable.Close();
    }
    wmiEventQueue.DropAll();
}

HRESULT CNetMonSv::ProcessNotificationEvent(IWbemClassObject* event)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    std::list<FireAdapterChangeEventData> events;
    {
        TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
        HandleNotification(event, events);
    }
    // With no lock held: a client's sink may call back into the monitor.
    FireDeferred(events);
    return S_OK;
}

void CNetMonSv::HandleNotification(IWbemClassObject* event, std::list<FireAdapterChangeEventData>& events)
{
    TraceMofSyntax(event);
    const auto read = [event](const wchar_t* property, std::wstring_view failure)
    {
        _variant_t value;
        if (const HRESULT result = WmiValues::Read(event, property, value); FAILED(result))
        {
            MonitorTrace::FailureResult(result, failure);
        }
        return WmiValues::Text(value);
    };
    const std::wstring eventClass = read(L"__CLASS", L"Error could not get notification _CLASS source");
    // The status classes have no DeviceName: a failure is normal for them.
    const std::wstring deviceName = read(L"DeviceName", L"Error could not get notification DeviceName source");
    const std::wstring instanceName = read(L"InstanceName", L"Error could not get notification InstanceName source");

    _DEVICE_ELEMENT* node = nullptr;
    IWbemClassObjectPtr object;
    if (!deviceName.empty())
    {
        node = GetDeviceElementNodeByDeviceId(deviceName.c_str());
        object.Attach(GetWmiObjInstanceByDeviceId(deviceName.c_str()));
        MonitorTrace::Note(L"WMI network event with a 'SettingID' ({}, {}, {})", eventClass, deviceName, instanceName);
    }
    else if (!instanceName.empty())
    {
        node = GetDeviceElementNodeByInstanceName(instanceName.c_str());
        object.Attach(GetWmiObjInstanceByInstanceName(instanceName.c_str()));
        MonitorTrace::Note(L"WMI network event with a 'InstanceName' ({}, {}, {})", eventClass, deviceName,
                           instanceName);
    }
    else
    {
        MonitorTrace::Note(L"WMI network event without 'SettingID' or 'InstanceName'");
    }
    TraceWmiObject(object);

    bool ignoreRemoval = false;
    if (object != nullptr)
    {
        node = FindOrCreateElement(object, node, eventClass, ignoreRemoval);
    }
    if (ignoreRemoval)
    {
        return;
    }
    if (node == nullptr || object == nullptr)
    {
        // No event for the clients, and an element stays where it is: a removal too is told only while the adapter
        // still has its WMI object.
        if (node == nullptr)
        {
            MonitorTrace::Note(L"could not find device element node for event {}", eventClass);
        }
        if (object == nullptr)
        {
            MonitorTrace::Note(L"could not find WMI object for event {}", eventClass);
        }
        return;
    }
    MonitorTrace::Note(L"'{}' is the node for the notification", TextOrEmpty(node->Description));
    ActOnNotification(eventClass, node, object, events);
}

// Decides about the adapter of a configuration object. Returns the element that the event is about: `node`, if the
// lookup found one (also when the adapter is one that the monitor ignores), one found by its id, a new one, or null.
_DEVICE_ELEMENT* CNetMonSv::FindOrCreateElement(IWbemClassObject* object, _DEVICE_ELEMENT* node,
                                                const std::wstring& eventClass, bool& ignoreRemoval)
{
    const std::wstring serviceName = WmiValues::ReadText(object, L"ServiceName");
    const std::wstring settingId = WmiValues::ReadText(object, L"SettingID");
    if (IsIgnoredAdapterService(serviceName))
    {
        MonitorTrace::Note(L"'{}' should be ignored ('{}')", settingId, serviceName);
        return node;
    }
    if (IsValidAdapter(settingId) == 0)
    {
        MonitorTrace::Note(L"'{}' is marked as virtual/invalid ('{}')", settingId, serviceName);
        return node;
    }
    MonitorTrace::Note(L"'{}' looks like a real adapter ('{}')", settingId, serviceName);
    if (node != nullptr)
    {
        return node;
    }
    MonitorTrace::Note(L"no node for '{}'", settingId);
    for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr && node == nullptr; element = element->pNext)
    {
        if (element->DeviceId == nullptr)
        {
            continue;
        }
        MonitorTrace::Detail(L"checking '{}' against '{}'", settingId, TextOrEmpty(element->DeviceId));
        if (SameTextAnyCase(settingId, {element->DeviceId, SysStringLen(element->DeviceId)}))
        {
            MonitorTrace::Note(L"the node '{}' matches", TextOrEmpty(element->DeviceId));
            node = element;
        }
    }
    if (node != nullptr)
    {
        if (node->Description == nullptr)
        {
            MonitorTrace::Note(L"the description for the node is a NULL pointer, the node will be updated");
        }
        else
        {
            MonitorTrace::Note(L"the node that this WMI event corresponds to is '{}'", TextOrEmpty(node->Description));
        }
        return node;
    }
    if (eventClass == L"MSNdis_NotifyAdapterRemoval")
    {
        MonitorTrace::Note(L"Ignoring WMI adapter removal event, the node has already been removed");
        ignoreRemoval = true;
        return nullptr;
    }
    // Any other class brings a new adapter in, a media event too. The driver is not tried here, unlike in discovery.
    MonitorTrace::Note(L"create a new entry in our device info list for this new adapter");
    return CreateNewDeviceListElement();
}

void CNetMonSv::ActOnNotification(const std::wstring& eventClass, _DEVICE_ELEMENT* node, IWbemClassObject* object,
                                  std::list<FireAdapterChangeEventData>& events)
{
    const std::wstring description = TextOrEmpty(node->Description);
    if (eventClass == L"MSNdis_NotifyAdapterRemoval")
    {
        MonitorTrace::Note(L"MSNdis_NotifyAdapterRemoval for {}", description);
        UpdateNodeFromNetworkAdapterObject(node, object, nullptr);
        const std::wstring deviceId = TextOrEmpty(node->DeviceId);
        DeleteNodeAndUpdateList(node);
        MonitorTrace::Note(L"firing adapter removed event");
        events.emplace_back(deviceId.c_str(), L"", enumEventAdapterRemove);
    }
    else if (eventClass == L"MSNdis_NotifyAdapterArrival")
    {
        MonitorTrace::Note(L"MSNdis_NotifyAdapterArrival for {}", description);
        if ((node->AdapterType & enumWiFi) != 0)
        {
            MonitorTrace::Note(L"not waiting for IP configuration for 802.11 adapters");
        }
        MonitorTrace::Note(L"ProcessNotificationEvent: updating the target node for '{}' because of an "
                           L"MSNdis_NotifyAdapterArrival event",
                           description);
        UpdateNodeFromNetworkAdapterObject(node, object, nullptr);
        MonitorTrace::Note(L"ProcessNotificationEvent: firing adapter add event");
        events.emplace_back(node->DeviceId, GetAdjacentMac(node), enumEventAdapterAdd);
    }
    else if (eventClass == L"MSNdis_StatusProtocolBind")
    {
        MonitorTrace::Note(L"MSNdis_StatusProtocolBind notification was received");
    }
    else if (eventClass == L"MSNdis_StatusMediaDisconnect")
    {
        MonitorTrace::Note(L"ProcessNotificationEvent: MSNdis_StatusMediaDisconnect for {}", description);
        ProcessDeviceDisconnectedEvent(node, object, events);
    }
    else if (eventClass == L"MSNdis_StatusMediaConnect")
    {
        MonitorTrace::Note(L"ProcessNotificationEvent: MSNdis_StatusMediaConnect for {}", description);
        ProcessDeviceConnectedEvent(node, object, events);
    }
}

void CNetMonSv::TraceMofSyntax(IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    BSTR text = nullptr;
    const HRESULT result = object->GetObjectText(0, &text);
    const UniqueBstr owned(text);
    if (SUCCEEDED(result) && text != nullptr)
    {
        MonitorTrace::Detail(L"MOF SYNTAX:\n{}", TextOrEmpty(text));
    }
    else
    {
        MonitorTrace::Detail(L"(could not get MOF syntax)");
    }
}

void CNetMonSv::TraceWmiObject(IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (object == nullptr)
    {
        return;
    }
    MonitorTrace::Detail(L"Description  = {}", WmiValues::ReadText(object, L"Description"));
    MonitorTrace::Detail(L"Caption      = {}", WmiValues::ReadText(object, L"Caption"));
    MonitorTrace::Detail(L"ServiceName  = {}", WmiValues::ReadText(object, L"ServiceName"));
    MonitorTrace::Detail(L"GUID         = {}", WmiValues::ReadText(object, L"SettingID"));
    _variant_t enabled;
    WmiValues::Read(object, L"IPEnabled", enabled);
    MonitorTrace::Detail(L"IP Enabled   = {}", WmiValues::Truth(enabled) ? L"True" : L"False");
    const bool hasMac = !WmiValues::ReadText(object, L"MACAddress").empty();
    MonitorTrace::Detail(L"MAC Address  = {}", hasMac ? L"True" : L"False");
}
