// The machine's device tree as the Configuration Manager shows it: the entries of "devices" and, with their
// `pnpDeviceId`, the adapters. Each may name its `parent`; without one it hangs below the root HTREE\ROOT\0.
//
// Fields of an entry: "id" (devices) or "pnpDeviceId" (adapters), "parent", "class", "classGuid", "description",
// "friendlyName", "service", "manufacturer", "driver", "hardwareIds", "problem" (22: disabled), "status", "present".
#pragma once

#include "lab/state/Machine.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lab::shim
{

struct DeviceNode
{
    std::uint32_t handle = 0; // the DEVINST; the same in every process and every DLL
    std::string id;
    std::string parent; // empty: the root
    bool isAdapter = false;
    Json fields;
};

class DeviceTree
{
public:
    explicit DeviceTree(const Json& state);

    [[nodiscard]] const DeviceNode& Root() const noexcept { return m_nodes.front(); }
    [[nodiscard]] const DeviceNode* ById(std::string_view id) const noexcept; // letter case ignored
    [[nodiscard]] const DeviceNode* ByHandle(std::uint32_t handle) const noexcept;
    [[nodiscard]] const DeviceNode* ParentOf(const DeviceNode& node) const noexcept;
    [[nodiscard]] const DeviceNode* FirstChildOf(const DeviceNode& node) const noexcept;
    [[nodiscard]] const DeviceNode* NextSiblingOf(const DeviceNode& node) const noexcept;

private:
    void Add(const Json& entry, bool isAdapter);
    [[nodiscard]] bool IsChild(const DeviceNode& node, const DeviceNode& parent) const noexcept;
    std::vector<DeviceNode> m_nodes;
};

// The tree of the machine's current state; shared until the state changes.
[[nodiscard]] std::shared_ptr<const DeviceTree> CurrentDeviceTree();

// What CM_Get_DevNode_Registry_Property gives for a property: its registry type and its bytes.
struct DeviceProperty
{
    std::uint32_t type = 0;
    std::vector<unsigned char> bytes;
};
[[nodiscard]] std::optional<DeviceProperty> PropertyOf(const DeviceNode& node, std::uint32_t property);

} // namespace lab::shim
