#include "NetUtilities/DeviceInfoHelper.h"

#include <cfgmgr32.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <utility>

#include "NetUtilities/DeviceHandles.h"
#include "NetUtilities/DeviceText.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/MultiString.h"

namespace NetUtilities
{
namespace
{
constexpr std::uint16_t FailureLevel = 2;
constexpr std::uint16_t OrdinaryLevel = 4;
constexpr std::uint16_t DetailLevel = 5;
constexpr unsigned ScopeFlag = AlwaysOnTraceFlag;
constexpr ULONG PropertyBufferBytes = 2048;
constexpr DWORD DriverValueBufferBytes = 1024;
constexpr DWORD WirelessWideArea = 9;

// The device in an information set of its own; empty with the platform's last error if it cannot be opened.
UniqueDeviceInfoSet OpenDevice(const std::wstring& deviceId, SP_DEVINFO_DATA& data)
{
    UniqueDeviceInfoSet set(SetupDiCreateDeviceInfoList(nullptr, nullptr));
    data = {};
    data.cbSize = sizeof(data);
    if (set && SetupDiOpenDeviceInfoW(set.get(), deviceId.c_str(), nullptr, 0, &data) == FALSE)
    {
        set.reset();
    }
    return set;
}

constexpr DeviceInfoHelper::PropertyNumbers ThroughSetup = {
    SPDRP_FRIENDLYNAME, SPDRP_DEVICEDESC, SPDRP_SERVICE, SPDRP_CLASS, SPDRP_DRIVER, SPDRP_MFG, SPDRP_HARDWAREID};
constexpr DeviceInfoHelper::PropertyNumbers ThroughConfigurationManager = {
    CM_DRP_FRIENDLYNAME, CM_DRP_DEVICEDESC, CM_DRP_SERVICE, CM_DRP_CLASS, CM_DRP_DRIVER, CM_DRP_MFG, CM_DRP_HARDWAREID};

// One value of a device's key as it was read. `code` is RegQueryValueExW's.
struct KeyValue
{
    DWORD code = ERROR_SUCCESS;
    DWORD type = REG_NONE;
    std::vector<std::byte> bytes;
};

KeyValue QueryKeyValue(HKEY key, const wchar_t* name, DWORD bufferBytes)
{
    KeyValue value;
    value.bytes.resize(bufferBytes);
    DWORD size = bufferBytes;
    value.code = static_cast<DWORD>(
        RegQueryValueExW(key, name, nullptr, &value.type, reinterpret_cast<BYTE*>(value.bytes.data()), &size));
    value.bytes.resize(value.code == ERROR_SUCCESS ? size : 0);
    return value;
}
} // namespace

DeviceInfoHelper::DeviceInfoHelper(Log::Source logSource)
    : source(logSource), classes{{L"USB", DeviceNode::DeviceClass::USB},
                                 {L"Net", DeviceNode::DeviceClass::Net},
                                 {L"Ports", DeviceNode::DeviceClass::Ports},
                                 {L"Modem", DeviceNode::DeviceClass::Modem},
                                 {L"WPD", DeviceNode::DeviceClass::WPD},
                                 {L"CDROM", DeviceNode::DeviceClass::CDROM},
                                 {L"DiskDrive", DeviceNode::DeviceClass::DiskDrive}}
{
    const ScopeTrace scope(source, ScopeFlag);
}

DeviceInfoHelper::~DeviceInfoHelper()
{
    const ScopeTrace scope(source, ScopeFlag);
}

bool DeviceInfoHelper::GetDeviceInfo(const std::wstring& deviceId, DeviceInfo& info, const bool& wholeTree)
{
    if (deviceId.empty() && !wholeTree)
    {
        LogMessage(source, FailureLevel,
                   L"does not support getting the whole PC device tree using an empty string, as that is likely a bug");
        return false;
    }
    info = {};
    DEVINST current = 0;
    std::wstring id = deviceId;
    if (CM_Locate_DevNodeW(&current, id.data(), CM_LOCATE_DEVNODE_NORMAL) != CR_SUCCESS)
    {
        LogMessage(source, FailureLevel, L"Failed CM_Locate_DevNode");
        return false;
    }
    std::wstring vid;
    std::wstring pid;
    if (GetVIDPID(current, vid, pid) || IdentityFromParent(current, vid, pid))
    {
        LogFormat(source, OrdinaryLevel, L"VID '{}' PID '{}'", vid, pid);
        info.VID = vid;
        info.PID = pid;
        current = Climb(current, vid, pid);
    }
    GetDeviceTree(current, info.Nodes);
    return true;
}

// For a node without an identity of its own: that of a USB parent by the same manufacturer, which then becomes the
// current node.
bool DeviceInfoHelper::IdentityFromParent(unsigned long& current, std::wstring& vid, std::wstring& pid)
{
    LogMessage(source, OrdinaryLevel, L"Failed to get VID/PID of node, trying another approach");
    const DeviceNode node = GetNode(current);
    DEVINST parent = 0;
    if (CM_Get_Parent(&parent, current, 0) != CR_SUCCESS)
    {
        LogMessage(source, FailureLevel, L"Failed CM_Get_Parent");
    }
    else if (const DeviceNode parentNode = GetNode(parent); node.Class != DeviceNode::DeviceClass::USB &&
                                                            parentNode.Class == DeviceNode::DeviceClass::USB &&
                                                            node.Manufacturer == parentNode.Manufacturer)
    {
        LogMessage(
            source, OrdinaryLevel,
            L"Current node is not USB, parent node is USB, and manufacturer match, so attempting to get PID/VID from "
            L"parent node");
        if (GetVIDPID(parent, vid, pid))
        {
            LogMessage(source, OrdinaryLevel, L"Found PID/VID from parent node, setting current node to parent node");
            current = parent;
            return true;
        }
    }
    LogMessage(source, OrdinaryLevel, L"Did not find VID/PID... will try to get device subtree");
    return false;
}

// The topmost node above `current`, itself included, up to which the USB identity stays the same.
unsigned long DeviceInfoHelper::Climb(unsigned long current, const std::wstring& vid, const std::wstring& pid)
{
    for (;;)
    {
        DEVINST parent = 0;
        if (CM_Get_Parent(&parent, current, 0) != CR_SUCCESS)
        {
            LogMessage(source, FailureLevel, L"Failed CM_Get_Parent");
            return current;
        }
        LogMessage(source, OrdinaryLevel, L"Analyzing parent");
        std::wstring parentVid;
        std::wstring parentPid;
        if (!GetVIDPID(parent, parentVid, parentPid))
        {
            LogMessage(source, OrdinaryLevel, L"Stop here, No VID/PID for parent");
            return current;
        }
        if (parentVid != vid || parentPid != pid)
        {
            LogFormat(source, OrdinaryLevel, L"Stop here, not same PID/VID, PID = '{}' VID = '{}'", parentPid,
                      parentVid);
            return current;
        }
        current = parent;
    }
}

void DeviceInfoHelper::GetDeviceTree(unsigned long devInst, std::vector<DeviceNode>& nodes)
{
    nodes.push_back(GetNode(devInst));
    DEVINST child = 0;
    if (const CONFIGRET code = CM_Get_Child(&child, devInst, 0); code != CR_SUCCESS)
    {
        LogFormat(source, DetailLevel, L"Could not get child for {}, {:#x}", nodes.back().DeviceId, code);
        return;
    }
    do
    {
        GetDeviceTree(child, nodes);
    } while (CM_Get_Sibling(&child, child, 0) == CR_SUCCESS);
}

bool DeviceInfoHelper::GetVIDPID(unsigned long devInst, std::wstring& vid, std::wstring& pid)
{
    wchar_t id[260] = {};
    if (CM_Get_Device_IDW(devInst, id, static_cast<ULONG>(std::size(id)), 0) != CR_SUCCESS)
    {
        LogMessage(source, FailureLevel, L"Failed CM_Get_Device_ID");
    }
    SP_DEVINFO_DATA data;
    std::list<std::wstring> hardwareIds;
    if (const UniqueDeviceInfoSet set = OpenDevice(id, data))
    {
        hardwareIds = GetRegistryProperty(set.get(), data, ThroughSetup.hardwareIds);
    }
    else
    {
        LogErrorSource(source, GetLastError(), L"Failed getting SetupDiDevInfo, last error");
        hardwareIds = GetRegistryProperty(devInst, ThroughConfigurationManager.hardwareIds);
    }
    return GetVIDPID(hardwareIds, vid, pid);
}

bool DeviceInfoHelper::GetVIDPID(const std::list<std::wstring>& ids, std::wstring& vid, std::wstring& pid)
{
    return DeviceText::FindUsbIdentity(ids, vid, pid);
}

DeviceNode::DeviceClass DeviceInfoHelper::GetClass(const std::wstring& name)
{
    const auto known = classes.find(name);
    return known != classes.end() ? known->second : DeviceNode::DeviceClass::Unknown;
}

DeviceNode DeviceInfoHelper::GetNode(unsigned long devInst)
{
    DeviceNode node;
    wchar_t id[1024] = {};
    if (CM_Get_Device_IDW(devInst, id, static_cast<ULONG>(std::size(id)), 0) == CR_SUCCESS)
    {
        node.DeviceId = id;
        LogFormat(source, DetailLevel, L"ID '{}'", node.DeviceId);
    }
    else
    {
        LogMessage(source, FailureLevel, L"Failed CM_Get_Device_ID");
    }
    if (IsDeviceInterfaceDisabled(devInst, node.Disabled) && node.Disabled)
    {
        LogMessage(source, DetailLevel, L"DISABLED");
    }
    SP_DEVINFO_DATA data;
    if (const UniqueDeviceInfoSet set = OpenDevice(node.DeviceId, data))
    {
        FillProperties(node, ThroughSetup,
                       [&](unsigned long property) { return GetRegistryProperty(set.get(), data, property); });
        FillNetworkDetails(node, set.get(), data);
        FillComPort(node, set.get(), data);
    }
    else
    {
        LogErrorSource(source, GetLastError(), L"Failed getting SetupDiDevInfo");
        FillProperties(node, ThroughConfigurationManager,
                       [&](unsigned long property) { return GetRegistryProperty(devInst, property); });
    }
    return node;
}

// What both roads to a device's properties give. `read` returns at least one string.
void DeviceInfoHelper::FillProperties(DeviceNode& node, const PropertyNumbers& numbers, const PropertyReader& read)
{
    node.FriendlyName = read(numbers.friendlyName).front();
    LogFormat(source, DetailLevel, L"Friendly Name = {}", node.FriendlyName);
    node.DeviceDescription = read(numbers.description).front();
    LogFormat(source, DetailLevel, L"Device description = {}", node.DeviceDescription);
    node.Service = read(numbers.service).front();
    LogFormat(source, DetailLevel, L"Service = {}", node.Service);
    node.Class = GetClass(read(numbers.className).front());
    node.Driver = read(numbers.driver).front();
    node.Manufacturer = read(numbers.manufacturer).front();
    LogFormat(source, DetailLevel, L"Manufacturer = {}", node.Manufacturer);

    const std::list<std::wstring> hardwareIds = read(numbers.hardwareIds);
    if (GetVIDPID(hardwareIds, node.VID, node.PID))
    {
        LogFormat(source, DetailLevel, L"VID = {}, PID = {}", node.VID, node.PID);
    }
    node.HardwareId = hardwareIds.front();
    LogFormat(source, DetailLevel, L"Hardware ID0 = {}", node.HardwareId);
}

void DeviceInfoHelper::FillNetworkDetails(DeviceNode& node, void* infoSet, SP_DEVINFO_DATA& data)
{
    if (node.Class != DeviceNode::DeviceClass::Net)
    {
        return;
    }
    GetSettingID(infoSet, &data, node.SettingId);
    unsigned long mediaType = 0;
    if (GetMediaType(infoSet, data, mediaType) && mediaType == WirelessWideArea)
    {
        node.HasWmbDrivers = true;
        LogMessage(source, DetailLevel, L"Has WMB drivers");
    }
}

// A modem keeps its port in the driver key, everything else in the device key; both keys are opened in either case.
void DeviceInfoHelper::FillComPort(DeviceNode& node, void* infoSet, SP_DEVINFO_DATA& data)
{
    const bool modem = node.Class == DeviceNode::DeviceClass::Modem;
    const UniqueRegistryHandle deviceKey(
        SetupDiOpenDevRegKey(infoSet, &data, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_READ));
    if (!deviceKey)
    {
        LogErrorSource(source, GetLastError(), L"SetupDiOpenDevRegKey1 failed");
    }
    else if (!modem)
    {
        ReadComPort(node, deviceKey.get(), L"PortName", L"Could not get PortName, {:#x}");
    }
    const UniqueRegistryHandle driverKey(
        SetupDiOpenDevRegKey(infoSet, &data, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ));
    if (!driverKey)
    {
        LogErrorSource(source, GetLastError(), L"SetupDiOpenDevRegKey2 failed");
    }
    else if (modem)
    {
        ReadComPort(node, driverKey.get(), L"AttachedTo", L"Could not get AttachedTo, {:#x}");
    }
}

void DeviceInfoHelper::ReadComPort(DeviceNode& node, HKEY key, const wchar_t* valueName, std::wstring_view failureText)
{
    constexpr DWORD bufferBytes = 520;
    const KeyValue value = QueryKeyValue(key, valueName, bufferBytes);
    if (value.code != ERROR_SUCCESS)
    {
        LogFormat(source, DetailLevel, failureText, value.code);
    }
    else if (value.type != REG_SZ)
    {
        LogFormat(source, FailureLevel, L"Invalid com port registry type = {}", value.type);
    }
    else
    {
        node.ComPort = DeviceText::StringOf(value.bytes);
        LogFormat(source, DetailLevel, L"COM Port = {}", node.ComPort);
    }
}

std::list<std::wstring> DeviceInfoHelper::GetRegistryProperty(unsigned long devInst, unsigned long property)
{
    std::byte buffer[PropertyBufferBytes];
    ULONG type = REG_NONE;
    ULONG size = sizeof(buffer);
    std::list<std::wstring> result;
    const CONFIGRET code = CM_Get_DevNode_Registry_PropertyW(devInst, property, &type, buffer, &size, 0);
    if (code != CR_SUCCESS)
    {
        LogFormat(source, DetailLevel, L"Failed CM_Get_DevNode_Registry_Property {:#x} {:#x}", property, code);
    }
    else if (auto strings =
                 DeviceText::PropertyStrings(type, std::span(buffer).first(std::min<ULONG>(size, sizeof(buffer)))))
    {
        result = std::move(*strings);
    }
    else
    {
        LogFormat(source, FailureLevel, L"CM_Get_DevNode_Registry_PropertyW: Unsupported type {:#x} {:#x}", property,
                  type);
    }
    if (result.empty())
    {
        result.emplace_back();
    }
    return result;
}

std::list<std::wstring> DeviceInfoHelper::GetRegistryProperty(void* infoSet, SP_DEVINFO_DATA& data,
                                                              unsigned long property)
{
    std::byte buffer[PropertyBufferBytes];
    DWORD type = REG_NONE;
    DWORD size = 0;
    std::list<std::wstring> result;
    if (SetupDiGetDeviceRegistryPropertyW(infoSet, &data, property, &type, reinterpret_cast<BYTE*>(buffer),
                                          sizeof(buffer), &size) == FALSE)
    {
        const DWORD code = GetLastError();
        LogFormat(source, DetailLevel, L"Failed SetupDiGetDeviceRegistryPropertyW {:#x} {:#x} - {}", property, code,
                  SystemErrorText(code));
    }
    else if (auto strings =
                 DeviceText::PropertyStrings(type, std::span(buffer).first(std::min<DWORD>(size, sizeof(buffer)))))
    {
        result = std::move(*strings);
    }
    else
    {
        LogFormat(source, FailureLevel, L"SetupDiGetDeviceRegistryPropertyW: Unsupported type {:#x} {:#x}", property,
                  type);
    }
    if (result.empty())
    {
        result.emplace_back();
    }
    return result;
}

bool DeviceInfoHelper::GetSettingID(void* infoSet, SP_DEVINFO_DATA* data, std::wstring& id)
{
    const UniqueRegistryHandle key(SetupDiOpenDevRegKey(infoSet, data, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ));
    if (!key)
    {
        LogErrorSource(source, GetLastError(), L"SetupDiOpenDevRegKey for NetCfgInstanceId failed");
        return false;
    }
    const KeyValue value = QueryKeyValue(key.get(), L"NetCfgInstanceId", DriverValueBufferBytes);
    if (value.code != ERROR_SUCCESS)
    {
        LogFormat(source, DetailLevel, L"Could not get NetCfgInstanceId, {:#x}", value.code);
        return false;
    }
    if (value.type != REG_SZ)
    {
        LogFormat(source, FailureLevel, L"Invalid setting ID registry type = {}", value.type);
        return false;
    }
    id = DeviceText::StringOf(value.bytes);
    LogFormat(source, DetailLevel, L"Setting ID = {}", id);
    return true;
}

bool DeviceInfoHelper::GetMediaType(void* infoSet, SP_DEVINFO_DATA& data, unsigned long& type)
{
    const UniqueRegistryHandle key(SetupDiOpenDevRegKey(infoSet, &data, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ));
    if (!key)
    {
        LogErrorSource(source, GetLastError(), L"SetupDiOpenDevRegKey for *MediaType failed");
        return false;
    }
    const KeyValue value = QueryKeyValue(key.get(), L"*MediaType", DriverValueBufferBytes);
    if (value.code != ERROR_SUCCESS)
    {
        LogFormat(source, DetailLevel, L"Could not get *MediaType, {:#x}", value.code);
        return false;
    }
    if (value.type != REG_DWORD)
    {
        LogFormat(source, FailureLevel, L"Invalid media type registry type = {}", value.type);
        return false;
    }
    type = DeviceText::NumberOf(value.bytes).value_or(0);
    LogFormat(source, DetailLevel, L"MediaType = {}", type);
    return true;
}

bool DeviceInfoHelper::IsDeviceInterfaceDisabled(unsigned long devInst, bool& disabled)
{
    ULONG status = 0;
    ULONG problem = 0;
    if (CM_Get_DevNode_Status(&status, &problem, devInst, 0) != CR_SUCCESS)
    {
        LogMessage(source, FailureLevel, L"Failed CM_Get_DevNode_Status");
        return false;
    }
    disabled = (status & DN_HAS_PROBLEM) != 0 && problem == CM_PROB_DISABLED;
    return true;
}
} // namespace NetUtilities
