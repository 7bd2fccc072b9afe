// The adapters in the machine's state, and what follows from their fields. The form of the document:
//
//   "adapters": [ {
//      "name": "eth0"                      what labctl and people call it
//      "guid": "{...}"                     SettingID, NetCfgInstanceId, device name
//      "index": 7                          WMI Index; also the number in the caption and of the class key
//      "interfaceIndex": 12                IP Helper's index
//      "alias": "Ethernet"                 connection name
//      "description", "service", "manufacturer"
//      "caption"                           optional; otherwise "[00000007] " and the description
//      "mac": "02:00:5E:00:53:01" or null
//      "pnpDeviceId": "PCI\\VEN_..." or null
//      "characteristics": 132              of the class key; null: the value is missing
//      "present": true                     false: unplugged from the machine, in no list
//      "media": "connected"|"disconnected" the cable
//      "ipEnabled": true
//      "dhcp": { "enabled": true, "server": "...", "lease": { what a lease brings: "addresses", "gateways", "dns" } }
//      "addresses": [ { "address": "192.0.2.7", "prefix": 24 } ]     IPv4 before IPv6, as Windows lists them
//      "gateways": [..], "dns": [..], "dnsStatic": [..], "suffixes": [..], "dnsDomain": "..",
//      "wins": { "primary": null, "secondary": null }
//      "wmi": { PROPERTY: value }          shown by WMI in place of the derived value; {"missing": true} takes it away
//      "driver": { "open": true, "medium": 0, "physicalMedium": 0, "vendorId": "0x...", "vendorDescription": "..",
//                  "driverVersion": "0x..", "linkSpeed": 1000000000 (bit/s),
//                  "oids": { "0x00010107": { "status": "0xC0000001" } or { "u32": 5 } or { "bytes": "00 ff" } } }
//   } ],
//   "arp": [ { "address": "192.0.2.1", "mac": "02:00:5e:00:53:fe" } ],
//   "suffixSearchOrder": [..]              the machine's
//   "methods": { "SetDNSServerSearchOrder": 0 }    ReturnValue of WMI methods that are to give another than their own
//
// Other pieces of the lab keep their own members beside these ("wifi", "netcfg", "devices", ...).
#pragma once

#include "lab/state/Machine.h"

namespace lab
{

// The adapter with that name, GUID (any case), alias or description; null if there is none.
[[nodiscard]] const Json* FindAdapter(const Json& state, std::string_view key);
[[nodiscard]] Json* FindAdapter(Json& state, std::string_view key);
// The same; throws std::runtime_error naming the adapters that there are.
[[nodiscard]] Json& RequireAdapter(Json& state, std::string_view key);

// Fields with their defaults. A field of another kind than expected counts as missing.
[[nodiscard]] std::string TextField(const Json& object, const char* key, const std::string& otherwise = {});
[[nodiscard]] bool FlagField(const Json& object, const char* key, bool otherwise);
[[nodiscard]] std::int64_t NumberField(const Json& object, const char* key,
                                       std::int64_t otherwise);        // "0x.." text allowed
[[nodiscard]] const Json& Member(const Json& object, const char* key); // a null value if missing

[[nodiscard]] bool IsPresent(const Json& adapter);
[[nodiscard]] bool IsConnected(const Json& adapter);
[[nodiscard]] std::string CaptionOf(const Json& adapter);
[[nodiscard]] std::string SubnetMask(int prefix);                 // 24 gives "255.255.255.0"
[[nodiscard]] std::optional<int> PrefixOf(std::string_view mask); // "255.255.255.0" gives 24; a mask with holes nothing
[[nodiscard]] bool IsIpv6(std::string_view address);

} // namespace lab
