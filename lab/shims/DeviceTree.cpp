#include "lab/shims/DeviceTree.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>
#include <cfgmgr32.h>

#include <cstdio>
#include <mutex>

namespace lab::shim
{

namespace
{

constexpr char rootId[] = "HTREE\\ROOT\\0";
constexpr char networkClass[] = "{4D36E972-E325-11CE-BFC1-08002BE10318}";

// A handle says which device is meant wherever it is looked up, so it is made from the device's name. The top byte
// keeps it apart from the small numbers that Wine hands out.
std::uint32_t HandleFor(std::string_view id)
{
    std::uint32_t hash = 2166136261U;
    for (const char c : Lower(id))
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return 0x4C000000U | (hash & 0x00FFFFFFU);
}

DeviceProperty Text(const std::string& text)
{
    const std::wstring wide = Wide(text);
    DeviceProperty property{REG_SZ, std::vector<unsigned char>((wide.size() + 1) * sizeof(wchar_t))};
    std::copy_n(reinterpret_cast<const unsigned char*>(wide.c_str()), property.bytes.size(), property.bytes.data());
    return property;
}

DeviceProperty Texts(const std::vector<std::string>& texts)
{
    std::wstring wide;
    for (const std::string& text : texts)
        wide += Wide(text) + L'\0';
    DeviceProperty property{REG_MULTI_SZ, std::vector<unsigned char>((wide.size() + 1) * sizeof(wchar_t))};
    std::copy_n(reinterpret_cast<const unsigned char*>(wide.c_str()), property.bytes.size(), property.bytes.data());
    return property;
}

std::vector<std::string> HardwareIds(const DeviceNode& node)
{
    std::vector<std::string> ids;
    for (const Json& id : Member(node.fields, "hardwareIds"))
    {
        if (id.is_string())
            ids.push_back(id.get<std::string>());
    }
    // Without a list of its own a device has the name that its enumerator gave it, without the instance.
    if (ids.empty() && !node.fields.contains("hardwareIds"))
        ids.push_back(node.id.substr(0, node.id.find_last_of('\\')));
    return ids;
}

std::string DriverKey(const DeviceNode& node)
{
    if (!node.isAdapter)
        return TextField(node.fields, "driver");
    char number[16];
    std::snprintf(number, sizeof number, "%04d", static_cast<int>(NumberField(node.fields, "index", 0)));
    return std::string{networkClass} + "\\" + number;
}

std::optional<DeviceProperty> TextIfAny(const std::string& text)
{
    return text.empty() ? std::nullopt : std::optional{Text(text)};
}

} // namespace

DeviceTree::DeviceTree(const Json& state)
{
    for (const Json& device : Member(state, "devices"))
    {
        if (EqualNoCase(TextField(device, "id"), rootId))
            Add(device, false);
    }
    if (m_nodes.empty())
        Add({{"id", rootId}}, false);
    for (const Json& device : Member(state, "devices"))
    {
        if (!EqualNoCase(TextField(device, "id"), rootId))
            Add(device, false);
    }
    for (const Json& adapter : Member(state, "adapters"))
        Add(adapter, true);
}

void DeviceTree::Add(const Json& entry, bool isAdapter)
{
    DeviceNode node;
    node.id = TextField(entry, isAdapter ? "pnpDeviceId" : "id");
    if (node.id.empty() || !FlagField(entry, "present", true))
        return;
    node.handle = HandleFor(node.id);
    if (!m_nodes.empty())
        node.parent = TextField(entry, "parent", rootId);
    node.isAdapter = isAdapter;
    node.fields = entry;
    m_nodes.push_back(std::move(node));
}

const DeviceNode* DeviceTree::ById(std::string_view id) const noexcept
{
    for (const DeviceNode& node : m_nodes)
    {
        if (EqualNoCase(node.id, id))
            return &node;
    }
    return nullptr;
}

const DeviceNode* DeviceTree::ByHandle(std::uint32_t handle) const noexcept
{
    for (const DeviceNode& node : m_nodes)
    {
        if (node.handle == handle)
            return &node;
    }
    return nullptr;
}

// A device whose parent is not in the machine hangs below the root.
const DeviceNode* DeviceTree::ParentOf(const DeviceNode& node) const noexcept
{
    if (node.parent.empty())
        return nullptr;
    const DeviceNode* const parent = ById(node.parent);
    return parent != nullptr ? parent : &Root();
}

bool DeviceTree::IsChild(const DeviceNode& node, const DeviceNode& parent) const noexcept
{
    return ParentOf(node) == &parent;
}

const DeviceNode* DeviceTree::FirstChildOf(const DeviceNode& node) const noexcept
{
    for (const DeviceNode& other : m_nodes)
    {
        if (IsChild(other, node))
            return &other;
    }
    return nullptr;
}

const DeviceNode* DeviceTree::NextSiblingOf(const DeviceNode& node) const noexcept
{
    const DeviceNode* const parent = ParentOf(node);
    if (parent == nullptr)
        return nullptr;
    for (const DeviceNode* other = &node + 1; other != m_nodes.data() + m_nodes.size(); ++other)
    {
        if (IsChild(*other, *parent))
            return other;
    }
    return nullptr;
}

std::shared_ptr<const DeviceTree> CurrentDeviceTree()
{
    static std::mutex mutex;
    static std::shared_ptr<const Json> state;
    static std::shared_ptr<const DeviceTree> tree;
    const std::scoped_lock lock{mutex};
    if (auto current = Machine::Attach().Snapshot(); tree == nullptr || current != state)
    {
        tree = std::make_shared<const DeviceTree>(*current);
        state = std::move(current);
    }
    return tree;
}

std::optional<DeviceProperty> PropertyOf(const DeviceNode& node, std::uint32_t property)
{
    switch (property)
    {
    case CM_DRP_DEVICEDESC:
        return TextIfAny(TextField(node.fields, "description"));
    case CM_DRP_HARDWAREID:
    {
        const std::vector<std::string> ids = HardwareIds(node);
        return ids.empty() ? std::nullopt : std::optional{Texts(ids)};
    }
    case CM_DRP_SERVICE:
        return TextIfAny(TextField(node.fields, "service"));
    case CM_DRP_CLASS:
        return TextIfAny(node.isAdapter ? "Net" : TextField(node.fields, "class"));
    case CM_DRP_CLASSGUID:
        return TextIfAny(node.isAdapter ? networkClass : TextField(node.fields, "classGuid"));
    case CM_DRP_DRIVER:
        return TextIfAny(DriverKey(node));
    case CM_DRP_MFG:
        return TextIfAny(TextField(node.fields, "manufacturer"));
    case CM_DRP_FRIENDLYNAME:
        return TextIfAny(TextField(node.fields, "friendlyName", TextField(node.fields, "description")));
    default:
        return std::nullopt;
    }
}

} // namespace lab::shim
