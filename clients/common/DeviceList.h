#pragma once
// Owner of the adapter list that INetMonSv::GetDeviceInfoList hands out.
//
// The list is a deep copy that belongs to the client: every block (elements, extensions, networks) is freed with
// CoTaskMemFree, every string with SysFreeString. Usage:
//
//   UniqueDeviceList list;
//   monitor->GetDeviceInfoList(list.put());
//   for (const _DEVICE_ELEMENT& element : Devices(list.get())) { ... }

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <cstddef>
#include <iterator>

#include "Halcyd_h.h"
#include "NetUtilities/Handles.h"

// The extension that is valid for the element's type, null if there is none.
[[nodiscard]] inline const _ETHERNET_ADAPTER* EthernetOf(const _DEVICE_ELEMENT& element) noexcept
{
    return element.AdapterType == enumEthernet ? element.u.pEthernetAdapter : nullptr;
}
[[nodiscard]] inline const _WIFI_ADAPTER* WiFiOf(const _DEVICE_ELEMENT& element) noexcept
{
    return element.AdapterType == enumWiFi ? element.u.pWiFiAdapter : nullptr;
}

// Frees a chain of visible networks.
inline void FreeNetworks(_WIFI_DETAILS* first) noexcept
{
    while (first != nullptr)
    {
        _WIFI_DETAILS* const next = first->pNext;
        CoTaskMemFree(first);
        first = next;
    }
}

// Frees the extension of an element. The union has no other arms: any other type comes without an extension.
inline void FreeExtension(_DEVICE_ELEMENT& element) noexcept
{
    if (element.AdapterType == enumEthernet && element.u.pEthernetAdapter != nullptr)
    {
        _ETHERNET_ADAPTER* const extension = element.u.pEthernetAdapter;
        SysFreeString(extension->AdapterMacAddress);
        SysFreeString(extension->DriverInfo);
        SysFreeString(extension->GatewayMacAddress);
        CoTaskMemFree(extension);
    }
    else if (element.AdapterType == enumWiFi && element.u.pWiFiAdapter != nullptr)
    {
        _WIFI_ADAPTER* const extension = element.u.pWiFiAdapter;
        SysFreeString(extension->AdapterMacAddress);
        SysFreeString(extension->DriverInfo);
        SysFreeString(extension->BssidMacAddress);
        SysFreeString(extension->Ssid);
        CoTaskMemFree(extension->hTimer); // null in every copy; a block of its own if it ever were not
        FreeNetworks(extension->pDetails);
        CoTaskMemFree(extension);
    }
}

// Frees a whole list; null is fine.
inline void FreeDeviceList(_DEVICE_ELEMENT* first) noexcept
{
    while (first != nullptr)
    {
        _DEVICE_ELEMENT* const next = first->pNext;
        FreeExtension(*first);
        for (const BSTR text :
             {first->DeviceId, first->DeviceInstanceID, first->Description, first->ServiceName, first->Caption,
              first->CommPort, first->IpInfo.IpAddress, first->IpInfo.IpSubnet, first->IpInfo.IpGateway,
              first->IpInfo.IpDnsServerList, first->IpInfo.IpWinsServerList, first->IpInfo.IpDnsSuffixServerList})
        {
            SysFreeString(text);
        }
        CoTaskMemFree(first);
        first = next;
    }
}

namespace HandleTraits
{
struct DeviceList
{
    using Value = _DEVICE_ELEMENT*;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { FreeDeviceList(value); }
};
} // namespace HandleTraits

using UniqueDeviceList = UniqueResource<HandleTraits::DeviceList>;

// Walks a chain of records linked by pNext.
template <class Record>
class RecordChain
{
public:
    class Iterator
    {
    public:
        using value_type = Record;
        using difference_type = std::ptrdiff_t;
        using reference = const Record&;
        using pointer = const Record*;
        using iterator_category = std::forward_iterator_tag;

        Iterator() noexcept = default;
        explicit Iterator(const Record* record) noexcept : current(record) {}
        reference operator*() const noexcept { return *current; }
        pointer operator->() const noexcept { return current; }
        Iterator& operator++() noexcept
        {
            current = current->pNext;
            return *this;
        }
        Iterator operator++(int) noexcept
        {
            Iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator&) const noexcept = default;

    private:
        const Record* current = nullptr;
    };

    explicit RecordChain(const Record* head) noexcept : first(head) {}
    [[nodiscard]] Iterator begin() const noexcept { return Iterator(first); }
    [[nodiscard]] Iterator end() const noexcept { return Iterator(); }

private:
    const Record* first;
};

// The elements of a list, the visible networks of an adapter; both empty for null.
[[nodiscard]] inline RecordChain<_DEVICE_ELEMENT> Devices(const _DEVICE_ELEMENT* list) noexcept
{
    return RecordChain<_DEVICE_ELEMENT>(list);
}
[[nodiscard]] inline RecordChain<_WIFI_DETAILS> Networks(const _WIFI_ADAPTER* adapter) noexcept
{
    return RecordChain<_WIFI_DETAILS>(adapter != nullptr ? adapter->pDetails : nullptr);
}
