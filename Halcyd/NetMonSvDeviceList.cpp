// The monitor's list of adapters: elements are made, found, unlinked and freed here.
//
// Every block comes from the task allocator and every string is a BSTR, as in the copies that clients free.

#include "Halcyd/AdapterGates.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/TracedMutexLock.h"

namespace
{
void FreeString(BSTR& text) noexcept
{
    SysFreeString(text);
    text = nullptr;
}

std::wstring_view ViewOf(BSTR text) noexcept
{
    return text != nullptr ? std::wstring_view(text, SysStringLen(text)) : std::wstring_view();
}
} // namespace

HRESULT CNetMonSv::CreateDeviceInfoList()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    if (deviceInfoListHead == nullptr)
    {
        return S_OK;
    }
    const HRESULT result = DeleteDeviceInfoList();
    if (FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Error could not delete device info list");
        return result;
    }
    MonitorTrace::Note(L"deleted device info list successfully");
    deviceInfoListHead = nullptr;
    deviceInfoListTail = nullptr;
    return S_OK;
}

_DEVICE_ELEMENT* CNetMonSv::CreateNewDeviceListElement()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    auto* const element = static_cast<_DEVICE_ELEMENT*>(CoTaskMemAlloc(sizeof(_DEVICE_ELEMENT)));
    if (element == nullptr)
    {
        MonitorTrace::FailureCode(ERROR_NOT_ENOUGH_MEMORY, L"memory could not be allocated");
        return nullptr;
    }
    *element = {};
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    if (deviceInfoListHead == nullptr)
    {
        deviceInfoListHead = element;
    }
    else
    {
        deviceInfoListTail->pNext = element;
    }
    deviceInfoListTail = element;
    return element;
}

HRESULT CNetMonSv::DeleteDeviceElement(_DEVICE_ELEMENT* element)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (element == nullptr)
    {
        return S_OK;
    }
    FreeString(element->DeviceId);
    FreeString(element->DeviceInstanceID);
    FreeString(element->Description);
    FreeString(element->ServiceName);
    FreeString(element->Caption);
    FreeString(element->CommPort);
    FreeString(element->IpInfo.IpAddress);
    FreeString(element->IpInfo.IpSubnet);
    FreeString(element->IpInfo.IpGateway);
    FreeString(element->IpInfo.IpDnsServerList);
    FreeString(element->IpInfo.IpWinsServerList);
    FreeString(element->IpInfo.IpDnsSuffixServerList);
    *element = {};
    CoTaskMemFree(element);
    return S_OK;
}

HRESULT CNetMonSv::DeleteEthernetDeviceExtension(_DEVICE_ELEMENT* element)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    _ETHERNET_ADAPTER* const extension = element->u.pEthernetAdapter;
    if (extension == nullptr)
    {
        MonitorTrace::Note(L"there is no ethernet device extension to delete for node: {}",
                           TextOrEmpty(element->DeviceId));
        return S_OK;
    }
    FreeString(extension->AdapterMacAddress);
    FreeString(extension->DriverInfo);
    FreeString(extension->GatewayMacAddress);
    *extension = {};
    // The block itself is kept on purpose, unlike that of a Wi-Fi extension: do not free it here.
    element->u.pEthernetAdapter = nullptr;
    return S_OK;
}

void CNetMonSv::DeleteExtensionAndElement(_DEVICE_ELEMENT* element)
{
    MonitorTrace::Note(L"Remove node extension and delete node");
    if (element->AdapterType == enumEthernet)
    {
        MonitorTrace::Note(L"delete ethernet extension");
        DeleteEthernetDeviceExtension(element);
    }
    else if (element->AdapterType == enumWiFi)
    {
        MonitorTrace::Note(L"delete wifi extension");
        DeleteWiFiDeviceExtension(element);
    }
    else
    {
        MonitorTrace::Note(L"unknown adapter type ({}) -- do not know how to delete the device extension",
                           static_cast<int>(element->AdapterType));
    }
    // The element goes whatever became of the extension: a Wi-Fi timer that could not be deleted is left with a stale
    // element. The wait in DeleteWiFiDeviceExtension is all the protection there is.
    DeleteDeviceElement(element);
}

void CNetMonSv::DeleteNodeAndUpdateList(_DEVICE_ELEMENT* element)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    // For the trace: the element's own text goes with it.
    const std::wstring instanceId(element != nullptr ? ViewOf(element->DeviceInstanceID) : std::wstring_view());
    _DEVICE_ELEMENT* previous = nullptr;
    _DEVICE_ELEMENT* found = deviceInfoListHead;
    while (found != nullptr && found != element)
    {
        previous = found;
        found = found->pNext;
    }
    if (found == nullptr)
    {
        MonitorTrace::Doubt(L"Node not found, '{}'", instanceId);
        return;
    }
    MonitorTrace::Note(L"Remove node '{}' from list", instanceId);
    if (element == deviceInfoListHead)
    {
        deviceInfoListHead = element->pNext;
    }
    if (element == deviceInfoListTail)
    {
        deviceInfoListTail = previous;
    }
    if (previous != nullptr)
    {
        previous->pNext = element->pNext;
    }
    DeleteExtensionAndElement(element);
}

HRESULT CNetMonSv::DeleteDeviceInfoList()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    while (deviceInfoListHead != nullptr)
    {
        // Out of the list before it goes: the list stays good if memory for a line of this runs out.
        _DEVICE_ELEMENT* const element = deviceInfoListHead;
        deviceInfoListHead = element->pNext;
        if (deviceInfoListHead == nullptr)
        {
            deviceInfoListTail = nullptr;
        }
        DeleteExtensionAndElement(element);
    }
    MonitorTrace::Note(L"completed the deletion of the netmon internal device info list");
    return S_OK;
}

void CNetMonSv::DeleteDeviceInfoMapEntries()
{
    // Nothing to do, on purpose: the map's entries last as long as the object.
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
}

_DEVICE_ELEMENT* CNetMonSv::GetDeviceElementNodeByDeviceId(const wchar_t* id)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    const auto find = [this](std::wstring_view wanted) REQUIRES(deviceInfoListMutex) -> _DEVICE_ELEMENT*
    {
        for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
        {
            if (SameTextAnyCase(wanted, ViewOf(element->DeviceId)))
            {
                return element;
            }
        }
        return nullptr;
    };
    const std::wstring_view wanted = TextOrEmpty(id);
    if (_DEVICE_ELEMENT* const element = find(wanted); element != nullptr)
    {
        return element;
    }
    MonitorTrace::Detail(L"GetDeviceElementNodeByDeviceId: searching using another method");
    const auto brace = wanted.find(L'{');
    return brace == std::wstring_view::npos ? nullptr : find(wanted.substr(brace));
}

_DEVICE_ELEMENT* CNetMonSv::GetDeviceElementNodeByInstanceName(const wchar_t* name)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    TracedMutexLock lock(deviceInfoListMutex, L"deviceInfoListMutex");
    const std::wstring_view needle = TextOrEmpty(name);
    for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
    {
        if (element->Description == nullptr)
        {
            continue;
        }
        if (ViewOf(element->Description).find(needle) != std::wstring_view::npos)
        {
            MonitorTrace::Note(L"found match in Description for: {}", needle);
            return element;
        }
        MonitorTrace::Detail(L"did not match Description: {}", TextOrEmpty(element->Description));
    }
    MonitorTrace::Note(L"did not find a match with the descriptions, checking again using the caption");
    for (_DEVICE_ELEMENT* element = deviceInfoListHead; element != nullptr; element = element->pNext)
    {
        if (element->Caption == nullptr)
        {
            continue;
        }
        if (ViewOf(element->Caption).find(needle) != std::wstring_view::npos)
        {
            MonitorTrace::Note(L"found match in Caption for: {}", needle);
            return element;
        }
        MonitorTrace::Detail(L"did not match Caption: {}", TextOrEmpty(element->Caption));
    }
    return nullptr;
}
