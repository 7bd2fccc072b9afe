#pragma once
// What an event about an adapter carries, on each of the roads to the clients.

#include "Halcyd_h.h"

#include <cstdint>
#include <string>

// The MAC address that stands beside an adapter in an event: that of its gateway (Ethernet) or access point (Wi-Fi).
// Null for other kinds and while there is no extension. Still owned by the element: valid under the list lock.
[[nodiscard]] BSTR GetAdjacentMac(const _DEVICE_ELEMENT* node) noexcept;

// Entry of the deferred list: events that a notification's handling appends under the list lock and fires after it. A
// null text becomes an empty one, and is fired as an empty BSTR.
struct FireAdapterChangeEventData
{
    FireAdapterChangeEventData(const wchar_t* device, const wchar_t* mac, _NOTIFICATION_EVENT kind);

    std::wstring deviceId;
    std::wstring adjacentMac;
    std::uint32_t event;
};

// Event on its way through the thread pool. An empty text is fired as a null BSTR.
struct AsyncEventContext
{
    explicit AsyncEventContext(_NOTIFICATION_EVENT kind);
    // Copies the id and the adjacent MAC address of `node` (not null; the caller holds the list lock).
    AsyncEventContext(const _DEVICE_ELEMENT* node, _NOTIFICATION_EVENT kind);

    std::wstring deviceId;
    std::wstring adjacentMac;
    std::uint32_t event;
};

// The event's name for trace lines; empty for a value without one.
[[nodiscard]] const std::wstring& NotificationEventName(std::uint32_t event);
