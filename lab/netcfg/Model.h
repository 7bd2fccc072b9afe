// The machine's network components and the binding paths between them, as the engine sees them.
//
// In the state, all of it optional:
//   "netcfg": {
//      "components": [ { "id": "ms_pacer", "displayName": "Packet scheduler", "guid": "{...}" } ],
//                                               besides the adapters
//      "paths": [ { "protocol": "ms_tcpip", "lower": ["eth0"] } ],
//                                               in place of the usual ones, see below
//      "morePaths": [ { "protocol": "ms_server", "lower": ["ms_tcpip", "eth0"] } ],
//                                               besides the usual ones
//      "disabled": [ "ms_tcpip->{guid}" ],      paths that are not enabled, by their tokens
//      "applyResult": 0                         what INetCfg::Apply gives when all is well
//   }
// `lower` lists the lower components of a path's interfaces, from the protocol downwards: adapters by name or GUID,
// other components by id; null is an interface without a component, an empty list a path without interfaces.
//
// Without "paths" the IP protocols are bound to every present adapter (IPv6 not to WAN miniports of RAS), and, on a
// machine with such a miniport, ms_ndiswan to one below it.
#pragma once

#include "lab/state/Machine.h"

#include <string>
#include <vector>

namespace lab::netcfg
{

struct Component
{
    std::string id;
    std::string displayName;
    std::string guid; // instance GUID as text in braces
    std::string deviceId;
    bool isAdapter = false;
};

struct Path
{
    std::size_t owner = 0;                         // index of the protocol
    std::vector<std::optional<std::size_t>> lower; // per interface
    std::string token;                             // "ms_tcpip->{guid}", unique
    bool enabled = true;
};

struct Model
{
    std::vector<Component> components;
    std::vector<Path> paths;
    std::int32_t applyResult = 0;

    [[nodiscard]] std::optional<std::size_t> FindById(std::string_view id) const noexcept; // letter case ignored
};

[[nodiscard]] Model ReadModel(const Json& state);

// Enters those paths' switches that differ from `before` into the state; others stay as somebody else may have set
// them.
void StoreChanges(Json& state, const Model& before, const Model& after);

} // namespace lab::netcfg
