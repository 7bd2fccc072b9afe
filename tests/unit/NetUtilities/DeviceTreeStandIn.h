#pragma once
// A device tree in memory in the place of the platform's: the functions of the configuration manager and of SetupAPI
// that the code under test imports are linked to stand-ins in this program. Registry keys of devices are real ones.

#include <windows.h>

#include <map>
#include <string>
#include <vector>

class DeviceTreeStandIn
{
public:
    struct Property
    {
        DWORD type = REG_SZ;
        std::wstring data; // raw characters; a DWORD as two of them
    };

    struct Device
    {
        std::wstring id;
        int parent = -1;
        std::vector<int> children;
        std::map<DWORD, Property> setupProperties; // by SPDRP number; the CM number is one more
        ULONG status = 0;
        ULONG problem = 0;
        bool setupOpens = true;
        bool hasId = true;
        bool hasStatus = true;
        bool hasDeviceKey = true;
        bool hasDriverKey = true;
    };

    // In use from construction to destruction; one at a time.
    DeviceTreeStandIn();
    ~DeviceTreeStandIn();
    DeviceTreeStandIn(const DeviceTreeStandIn&) = delete;
    DeviceTreeStandIn& operator=(const DeviceTreeStandIn&) = delete;

    // Adds a device below `parent` (-1: the root of the tree) and returns its number.
    int Add(int parent, const std::wstring& id, const std::wstring& className, const std::wstring& hardwareId);
    Device& operator[](int number) { return devices.at(static_cast<std::size_t>(number)); }
    void SetText(int number, DWORD setupProperty, const std::wstring& text);
    // A value of the device key ("DEV") or the driver key ("DRV").
    void SetKeyValue(int number, const wchar_t* key, const wchar_t* name, DWORD type, const std::wstring& data);

    // How many information sets and keys are open.
    int openSets = 0;

    std::vector<Device> devices;
    static DeviceTreeStandIn* current;
    [[nodiscard]] static std::wstring KeyPath(int number, const wchar_t* key);
};
