// The tree functions of the Configuration Manager, which a program may import from cfgmgr32 or from setupapi: both
// shims hold them. A handle that is none of ours goes to Wine.
#include "lab/shims/DeviceTree.h"
#include "lab/shims/Shim.h"

#include <cfgmgr32.h>

#include <cstring>

namespace
{

using lab::Call;
using lab::shim::CurrentDeviceTree;
using lab::shim::DeviceNode;
using lab::shim::DeviceTree;

// No CONFIGRET is larger; a fault rule's code is taken as it is.
CONFIGRET Failure(std::uint32_t code)
{
    return static_cast<CONFIGRET>(code);
}

using Step = const DeviceNode* (DeviceTree::*)(const DeviceNode&) const noexcept;

CONFIGRET Walk(const char* name, PDEVINST result, DEVINST from, Step step)
{
    Call call{name};
    if (const auto code = call.Fault())
        return call.Result(Failure(*code));
    if (result == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_POINTER));
    const auto tree = CurrentDeviceTree();
    const DeviceNode* const node = tree->ByHandle(from);
    if (node == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_DEVNODE));
    call.Arg("device", node->id);
    const DeviceNode* const found = (tree.get()->*step)(*node);
    if (found == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_NO_SUCH_DEVNODE));
    *result = found->handle;
    return call.Out("device", found->id).Result(static_cast<CONFIGRET>(CR_SUCCESS));
}

// "ENUMERATOR\DEVICE\INSTANCE"
bool IsWellFormed(std::string_view id)
{
    const auto first = id.find('\\');
    const auto second = first == std::string_view::npos ? first : id.find('\\', first + 1);
    return first != 0 && second != std::string_view::npos && second > first + 1 && second + 1 < id.size() &&
           id.find('\\', second + 1) == std::string_view::npos;
}

} // namespace

SHIM_EXPORT(CONFIGRET, CM_Locate_DevNodeW)(PDEVINST result, DEVINSTID_W id, ULONG flags)
{
    Call call{"CM_Locate_DevNodeW"};
    const std::string name = id == nullptr ? "" : lab::Utf8(id);
    call.Arg("id", name).Arg("flags", flags);
    if (const auto code = call.Fault())
        return call.Result(Failure(*code));
    if (result == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_POINTER));
    const auto tree = CurrentDeviceTree();
    if (name.empty())
    {
        *result = tree->Root().handle; // no name means the whole machine
        return call.Result(static_cast<CONFIGRET>(CR_SUCCESS));
    }
    if (!IsWellFormed(name))
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_DEVICE_ID));
    const DeviceNode* const node = tree->ById(name);
    if (node == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_NO_SUCH_DEVNODE));
    *result = node->handle;
    return call.Result(static_cast<CONFIGRET>(CR_SUCCESS));
}

SHIM_EXPORT(CONFIGRET, CM_Get_Parent)(PDEVINST result, DEVINST node, ULONG)
{
    return Walk("CM_Get_Parent", result, node, &DeviceTree::ParentOf);
}

SHIM_EXPORT(CONFIGRET, CM_Get_Child)(PDEVINST result, DEVINST node, ULONG)
{
    return Walk("CM_Get_Child", result, node, &DeviceTree::FirstChildOf);
}

SHIM_EXPORT(CONFIGRET, CM_Get_Sibling)(PDEVINST result, DEVINST node, ULONG)
{
    return Walk("CM_Get_Sibling", result, node, &DeviceTree::NextSiblingOf);
}

SHIM_EXPORT(CONFIGRET, CM_Get_Device_IDW)(DEVINST handle, PWCHAR buffer, ULONG length, ULONG flags)
{
    Call call{"CM_Get_Device_IDW"};
    if (const auto code = call.Fault())
        return call.Result(Failure(*code));
    if (buffer == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_POINTER));
    const auto tree = CurrentDeviceTree();
    const DeviceNode* const node = tree->ByHandle(handle);
    if (node == nullptr)
        return call.Result(SHIM_ORIGINAL(CM_Get_Device_IDW)(handle, buffer, length, flags));
    const std::wstring id = lab::Wide(node->id);
    call.Out("id", node->id);
    if (length < id.size())
        return call.Result(static_cast<CONFIGRET>(CR_BUFFER_SMALL));
    std::memcpy(buffer, id.data(), id.size() * sizeof(wchar_t));
    if (length > id.size())
        buffer[id.size()] = L'\0'; // the terminator only where there is room: the platform's own rule
    return call.Result(static_cast<CONFIGRET>(CR_SUCCESS));
}

SHIM_EXPORT(CONFIGRET, CM_Get_DevNode_Status)(PULONG status, PULONG problem, DEVINST handle, ULONG)
{
    Call call{"CM_Get_DevNode_Status"};
    if (const auto code = call.Fault())
        return call.Result(Failure(*code));
    if (status == nullptr || problem == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_POINTER));
    const auto tree = CurrentDeviceTree();
    const DeviceNode* const node = tree->ByHandle(handle);
    if (node == nullptr)
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_DEVNODE));
    const auto number = static_cast<ULONG>(lab::NumberField(node->fields, "problem", 0));
    constexpr ULONG always = DN_DISABLEABLE | DN_NT_ENUMERATOR | DN_NT_DRIVER;
    const ULONG usual = number == 0 ? always | DN_DRIVER_LOADED | DN_STARTED : always | DN_HAS_PROBLEM;
    *status = static_cast<ULONG>(lab::NumberField(node->fields, "status", usual));
    *problem = number;
    return call.Arg("device", node->id)
        .Out("status", lab::Hex32(*status))
        .Out("problem", number)
        .Result(static_cast<CONFIGRET>(CR_SUCCESS));
}

SHIM_EXPORT(CONFIGRET, CM_Get_DevNode_Registry_PropertyW)(DEVINST handle, ULONG property, PULONG type, PVOID buffer,
                                                          PULONG length, ULONG flags)
{
    Call call{"CM_Get_DevNode_Registry_PropertyW"};
    call.Arg("property", property);
    if (const auto code = call.Fault())
        return call.Result(Failure(*code));
    if (length == nullptr || (*length != 0 && buffer == nullptr))
        return call.Result(static_cast<CONFIGRET>(CR_INVALID_POINTER));
    const auto tree = CurrentDeviceTree();
    const DeviceNode* const node = tree->ByHandle(handle);
    if (node == nullptr)
        return call.Result(
            SHIM_ORIGINAL(CM_Get_DevNode_Registry_PropertyW)(handle, property, type, buffer, length, flags));
    call.Arg("device", node->id);
    const auto value = lab::shim::PropertyOf(*node, property);
    if (!value)
    {
        *length = 0;
        return call.Result(static_cast<CONFIGRET>(CR_NO_SUCH_VALUE));
    }
    if (type != nullptr)
        *type = value->type;
    const ULONG room = std::exchange(*length, static_cast<ULONG>(value->bytes.size()));
    if (room < value->bytes.size())
        return call.Result(static_cast<CONFIGRET>(CR_BUFFER_SMALL));
    std::memcpy(buffer, value->bytes.data(), value->bytes.size());
    return call.Result(static_cast<CONFIGRET>(CR_SUCCESS));
}
