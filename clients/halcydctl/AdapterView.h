#pragma once
// The adapter list as the client shows it. Pure functions on the records.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "clients/common/DeviceList.h"
#include "clients/halcydctl/Table.h"

struct NetworkView
{
    std::wstring ssid;
    std::wstring bssid;
    std::wstring profile;
    std::int32_t signalStrength = 0;
    std::uint32_t privacy = 0;
    std::uint32_t networkType = 0;
    std::uint32_t infrastructureMode = 0;
    std::uint32_t maximumRate = 0;
};

struct AdapterView
{
    std::int32_t index = 0;
    std::wstring id;
    std::wstring instanceId;
    std::wstring description;
    std::wstring driverService;
    bool ready = false;
    bool connected = false;
    std::uint32_t type = 0;
    std::wstring address;
    std::wstring mask;
    std::wstring gateway;
    std::wstring dnsServers;
    std::wstring winsServers;
    std::wstring dnsSuffixes;
    bool hasExtension = false;
    std::wstring mac;
    std::wstring driver;
    std::uint32_t bitsPerSecond = 0;
    std::wstring adjacentMac; // the gateway's, or the access point's
    std::wstring ssid;
    std::vector<NetworkView> networks;
};

[[nodiscard]] std::vector<AdapterView> ViewOf(const _DEVICE_ELEMENT* list);

// "Ethernet", "Wi-Fi", ...; the number for a value that has no name, "undecided" for 0.
[[nodiscard]] std::wstring TypeName(std::uint32_t type);
// "connected", "disconnected" or "not ready".
[[nodiscard]] std::wstring_view StateName(const AdapterView& adapter) noexcept;
// "192.168.1.20/24", with the mask written out where it is no mask; "-" without an address.
[[nodiscard]] std::wstring AddressText(const AdapterView& adapter);

// What a reader calls the adapter with this id: its description; the id itself if it is not in the list.
[[nodiscard]] std::wstring NameOf(const std::vector<AdapterView>& adapters, std::wstring_view id);

// One row per adapter. What does not fit into the width goes, column by column, the driver first.
[[nodiscard]] std::vector<std::wstring> AdapterTable(const std::vector<AdapterView>& adapters,
                                                     std::size_t maximumWidth);
// The same as a table if everything fits, else as a few lines per adapter that leave nothing out.
[[nodiscard]] std::vector<std::wstring> AdapterListing(const std::vector<AdapterView>& adapters,
                                                       std::size_t maximumWidth);
// One table for each Wi-Fi adapter that sees networks.
[[nodiscard]] std::vector<std::wstring> NetworkTables(const std::vector<AdapterView>& adapters,
                                                      std::size_t maximumWidth);
[[nodiscard]] nlohmann::ordered_json ToJson(const AdapterView& adapter);
[[nodiscard]] nlohmann::ordered_json ToJson(const std::vector<AdapterView>& adapters);
