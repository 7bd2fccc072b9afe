#include "Halcyd/AdapterEvents.h"

#include "NetUtilities/Trace.h"

#include <cstddef>
#include <map>

// One read serves both kinds of extension.
static_assert(offsetof(_ETHERNET_ADAPTER, GatewayMacAddress) == offsetof(_WIFI_ADAPTER, BssidMacAddress));

namespace
{
const std::map<std::uint32_t, std::wstring> notificationEventNames{
    {enumEventUnknown, L"enumEventUnknown"},
    {enumEventAdapterAdd, L"enumEventAdapterAdd"},
    {enumEventAdapterRemove, L"enumEventAdapterRemove"},
    {enumEventMediaConnect, L"enumEventMediaConnect"},
    {enumEventMediaDisconnect, L"enumEventMediaDisconnect"},
    {enumEventNetworkChange, L"enumEventNetworkChange"},
    {enumEventWiFiSignalStrength, L"enumEventWiFiSignalStrength"},
    {enumEventIpChange, L"enumEventIpChange"},
    {enumEventRimDeviceLocked, L"enumEventRimDeviceLocked"},
    {enumEventIpBindingsDisabled, L"enumEventIpBindingsDisabled"},
    {enumEventIpBindingsRestored, L"enumEventIpBindingsRestored"},
    {enumEventWiFiAddedSSIDs, L"enumEventWiFiAddedSSIDs"},
};
const std::wstring noName;
} // namespace

BSTR GetAdjacentMac(const _DEVICE_ELEMENT* node) noexcept
{
    if ((node->AdapterType & enumEthernet) != 0 && node->u.pEthernetAdapter != nullptr)
    {
        return node->u.pEthernetAdapter->GatewayMacAddress;
    }
    if ((node->AdapterType & enumWiFi) != 0 && node->u.pWiFiAdapter != nullptr)
    {
        return node->u.pWiFiAdapter->BssidMacAddress;
    }
    return nullptr;
}

FireAdapterChangeEventData::FireAdapterChangeEventData(const wchar_t* device, const wchar_t* mac,
                                                       _NOTIFICATION_EVENT kind)
    : deviceId(TextOrEmpty(device)), adjacentMac(TextOrEmpty(mac)), event(static_cast<std::uint32_t>(kind))
{
}

AsyncEventContext::AsyncEventContext(_NOTIFICATION_EVENT kind) : event(static_cast<std::uint32_t>(kind)) {}

AsyncEventContext::AsyncEventContext(const _DEVICE_ELEMENT* node, _NOTIFICATION_EVENT kind)
    : deviceId(TextOrEmpty(node->DeviceId)), adjacentMac(TextOrEmpty(GetAdjacentMac(node))),
      event(static_cast<std::uint32_t>(kind))
{
}

const std::wstring& NotificationEventName(std::uint32_t event)
{
    const auto found = notificationEventNames.find(event);
    return found == notificationEventNames.end() ? noName : found->second;
}
