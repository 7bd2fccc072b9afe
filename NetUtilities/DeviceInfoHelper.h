#pragma once

#include <windows.h>
#include <setupapi.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "NetUtilities/Trace.h"

namespace NetUtilities
{
// One PnP device node.
struct DeviceNode
{
    enum class DeviceClass
    {
        Unknown = 0,
        USB = 1,
        Net = 2,
        Modem = 3,
        Ports = 4,
        WPD = 5,
        CDROM = 6,
        DiskDrive = 7,
    };

    std::wstring PID;      // with "pid_", lower-case
    std::wstring VID;      // with "vid_", lower-case
    std::wstring DeviceId; // device instance id
    std::wstring FriendlyName;
    std::wstring DeviceDescription;
    std::wstring Service;
    std::wstring Driver; // driver key
    std::wstring Manufacturer;
    std::wstring ComPort;    // "PortName", or "AttachedTo" of a modem
    std::wstring HardwareId; // the first one
    std::wstring SettingId;  // "NetCfgInstanceId" of a network node
    DeviceClass Class = DeviceClass::Unknown;
    bool Disabled = false;
    bool HasWmbDrivers = false; // a network node with "*MediaType" 9, wireless wide area
};

// A physical device: its identity and its subtree in pre-order, the top first.
struct DeviceInfo
{
    std::wstring PID;
    std::wstring VID;
    std::vector<DeviceNode> Nodes;
};

// Finds the physical device behind a device instance, and all that belongs to it. In the device tree the functions of a
// USB device hang below a common node with the same USB identity: the search goes up while the identity stays, and
// collects everything from there down.
// Made for one query, on one thread. Failures are logged to the given source and leave fields empty.
class DeviceInfoHelper
{
public:
    explicit DeviceInfoHelper(Log::Source logSource);
    ~DeviceInfoHelper();
    DeviceInfoHelper(const DeviceInfoHelper&) = delete;
    DeviceInfoHelper& operator=(const DeviceInfoHelper&) = delete;

    // False only for an unknown device, and for an empty id without `wholeTree`; with it an empty id means the root.
    bool GetDeviceInfo(const std::wstring& deviceId, DeviceInfo& info, const bool& wholeTree);
    // Appends the node and all below it, parents before children.
    void GetDeviceTree(unsigned long devInst, std::vector<DeviceNode>& nodes);
    bool GetVIDPID(unsigned long devInst, std::wstring& vid, std::wstring& pid);
    // From hardware ids: the first that holds both parts wins. Pure.
    bool GetVIDPID(const std::list<std::wstring>& ids, std::wstring& vid, std::wstring& pid);
    DeviceNode::DeviceClass GetClass(const std::wstring& name);
    DeviceNode GetNode(unsigned long devInst);
    // Both forms: at least one string, so that a caller can always take the first.
    std::list<std::wstring> GetRegistryProperty(unsigned long devInst, unsigned long property);
    std::list<std::wstring> GetRegistryProperty(void* infoSet, SP_DEVINFO_DATA& data, unsigned long property);
    bool GetSettingID(void* infoSet, SP_DEVINFO_DATA* data, std::wstring& id);
    bool GetMediaType(void* infoSet, SP_DEVINFO_DATA& data, unsigned long& type);
    bool IsDeviceInterfaceDisabled(unsigned long devInst, bool& disabled);

    // The numbers of the properties that a node takes, by one road or the other.
    struct PropertyNumbers
    {
        unsigned long friendlyName;
        unsigned long description;
        unsigned long service;
        unsigned long className;
        unsigned long driver;
        unsigned long manufacturer;
        unsigned long hardwareIds;
    };

private:
    using PropertyReader = std::function<std::list<std::wstring>(unsigned long)>;

    bool IdentityFromParent(unsigned long& current, std::wstring& vid, std::wstring& pid);
    unsigned long Climb(unsigned long current, const std::wstring& vid, const std::wstring& pid);
    void FillProperties(DeviceNode& node, const PropertyNumbers& numbers, const PropertyReader& read);
    void FillNetworkDetails(DeviceNode& node, void* infoSet, SP_DEVINFO_DATA& data);
    void FillComPort(DeviceNode& node, void* infoSet, SP_DEVINFO_DATA& data);
    void ReadComPort(DeviceNode& node, HKEY key, const wchar_t* valueName, std::wstring_view failureText);

    Log::Source source;
    std::map<std::wstring, DeviceNode::DeviceClass> classes;
};
} // namespace NetUtilities
