// A client's copy of the adapter list turned into plain values, so that a test can look at it after the copy has
// been freed. A null BSTR is an empty optional, an empty one an empty string.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Halcyd_h.h"

using OptionalText = std::optional<std::wstring>;

struct WiFiNetworkRecord
{
    std::wstring ssid;
    std::string profileName;
    std::wstring macAddress; // lower-case pairs with ":"
    std::int32_t signalStrength = 0;

    bool operator==(const WiFiNetworkRecord&) const = default;
};

struct AdapterRecord
{
    std::int32_t size = 0;
    std::int32_t deviceIndex = 0;
    OptionalText deviceId, deviceInstanceId, description, serviceName, caption, commPort;
    std::int32_t deviceStatus = 0;
    std::int32_t connectStatus = 0;
    std::uint32_t adapterType = 0;
    OptionalText ipAddress, ipSubnet, ipGateway, dnsServers, winsServers, dnsSuffixes;
    bool hasExtension = false;
    std::int32_t extensionSize = 0;
    OptionalText macAddress, driverInfo;
    std::uint32_t linkSpeed = 0;
    OptionalText gatewayMac;  // Ethernet
    OptionalText bssid, ssid; // Wi-Fi
    std::vector<WiFiNetworkRecord> networks;

    bool operator==(const AdapterRecord&) const = default;
};

// Calls GetDeviceInfoList, converts, and frees the whole copy. `result` receives the method's HRESULT when given.
[[nodiscard]] std::vector<AdapterRecord> ReadAdapterList(INetMonSv* monitor, HRESULT* result = nullptr);

// The record with this DeviceId (letter case ignored), or null.
[[nodiscard]] const AdapterRecord* FindAdapter(const std::vector<AdapterRecord>& list, std::wstring_view deviceId);
