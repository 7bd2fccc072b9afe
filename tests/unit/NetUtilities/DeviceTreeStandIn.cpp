#include "DeviceTreeStandIn.h"

#include <cfgmgr32.h>
#include <setupapi.h>

#include <algorithm>
#include <cstring>

namespace
{
constexpr wchar_t Sandbox[] = L"Software\\HalcydUnitTests\\Devices";

using Device = DeviceTreeStandIn::Device;

// Device instances are numbers from 1.
Device* DeviceOf(DEVINST instance)
{
    auto& devices = DeviceTreeStandIn::current->devices;
    return instance >= 1 && instance <= devices.size() ? &devices[instance - 1] : nullptr;
}

int FindById(const std::wstring& id)
{
    auto& devices = DeviceTreeStandIn::current->devices;
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const Device& each) { return each.id == id; });
    return found != devices.end() ? static_cast<int>(found - devices.begin()) : -1;
}

CONFIGRET WINAPI Locate(PDEVINST out, DEVINSTID_W id, ULONG)
{
    const int number = *id == L'\0' ? (DeviceTreeStandIn::current->devices.empty() ? -1 : 0) : FindById(id);
    *out = static_cast<DEVINST>(number + 1);
    return number >= 0 ? CR_SUCCESS : CR_NO_SUCH_DEVNODE;
}

CONFIGRET WINAPI Parent(PDEVINST out, DEVINST instance, ULONG)
{
    const Device* const device = DeviceOf(instance);
    if (device == nullptr || device->parent < 0)
    {
        return CR_NO_SUCH_DEVNODE;
    }
    *out = static_cast<DEVINST>(device->parent + 1);
    return CR_SUCCESS;
}

CONFIGRET WINAPI Child(PDEVINST out, DEVINST instance, ULONG)
{
    const Device* const device = DeviceOf(instance);
    if (device == nullptr || device->children.empty())
    {
        return CR_NO_SUCH_DEVNODE;
    }
    *out = static_cast<DEVINST>(device->children.front() + 1);
    return CR_SUCCESS;
}

CONFIGRET WINAPI Sibling(PDEVINST out, DEVINST instance, ULONG)
{
    const Device* const device = DeviceOf(instance);
    const Device* const parent = device != nullptr ? DeviceOf(static_cast<DEVINST>(device->parent + 1)) : nullptr;
    if (parent == nullptr)
    {
        return CR_NO_SUCH_DEVNODE;
    }
    const auto self = std::find(parent->children.begin(), parent->children.end(), static_cast<int>(instance) - 1);
    if (self == parent->children.end() || std::next(self) == parent->children.end())
    {
        return CR_NO_SUCH_DEVNODE;
    }
    *out = static_cast<DEVINST>(*std::next(self) + 1);
    return CR_SUCCESS;
}

CONFIGRET WINAPI DeviceId(DEVINST instance, PWCHAR buffer, ULONG length, ULONG)
{
    const Device* const device = DeviceOf(instance);
    if (device == nullptr || !device->hasId)
    {
        return CR_INVALID_DEVINST;
    }
    if (device->id.size() + 1 > length)
    {
        return CR_BUFFER_SMALL;
    }
    std::copy_n(device->id.c_str(), device->id.size() + 1, buffer);
    return CR_SUCCESS;
}

CONFIGRET WINAPI Status(PULONG status, PULONG problem, DEVINST instance, ULONG)
{
    const Device* const device = DeviceOf(instance);
    if (device == nullptr || !device->hasStatus)
    {
        return CR_NO_SUCH_DEVNODE;
    }
    *status = device->status;
    *problem = device->problem;
    return CR_SUCCESS;
}

bool CopyProperty(const Device& device, DWORD setupNumber, DWORD* type, void* buffer, DWORD capacity, DWORD* size)
{
    const auto found = device.setupProperties.find(setupNumber);
    if (found == device.setupProperties.end())
    {
        return false;
    }
    *size = static_cast<DWORD>(found->second.data.size() * sizeof(wchar_t));
    if (*size > capacity)
    {
        return false;
    }
    *type = found->second.type;
    std::memcpy(buffer, found->second.data.data(), *size);
    return true;
}

CONFIGRET WINAPI RegistryProperty(DEVINST instance, ULONG property, PULONG type, PVOID buffer, PULONG size, ULONG)
{
    const Device* const device = DeviceOf(instance);
    DWORD length = 0;
    if (device == nullptr || !CopyProperty(*device, property - 1, type, buffer, *size, &length))
    {
        return CR_NO_SUCH_VALUE;
    }
    *size = length;
    return CR_SUCCESS;
}

HDEVINFO WINAPI CreateSet(const GUID*, HWND)
{
    ++DeviceTreeStandIn::current->openSets;
    return reinterpret_cast<HDEVINFO>(std::uintptr_t{0x5E7});
}

BOOL WINAPI DestroySet(HDEVINFO)
{
    --DeviceTreeStandIn::current->openSets;
    return TRUE;
}

BOOL WINAPI OpenDevice(HDEVINFO, PCWSTR id, HWND, DWORD, PSP_DEVINFO_DATA data)
{
    const int number = FindById(id);
    if (number < 0 || !DeviceTreeStandIn::current->devices[static_cast<std::size_t>(number)].setupOpens)
    {
        SetLastError(ERROR_NO_SUCH_DEVINST);
        return FALSE;
    }
    data->DevInst = static_cast<DWORD>(number + 1);
    return TRUE;
}

BOOL WINAPI SetupProperty(HDEVINFO, PSP_DEVINFO_DATA data, DWORD property, PDWORD type, PBYTE buffer, DWORD capacity,
                          PDWORD size)
{
    if (!CopyProperty(*DeviceOf(data->DevInst), property, type, buffer, capacity, size))
    {
        SetLastError(ERROR_INVALID_DATA);
        return FALSE;
    }
    return TRUE;
}

HKEY WINAPI OpenKey(HDEVINFO, PSP_DEVINFO_DATA data, DWORD scope, DWORD profile, DWORD keyType, REGSAM access)
{
    const Device& device = *DeviceOf(data->DevInst);
    const bool isDevice = keyType == DIREG_DEV;
    HKEY key = nullptr;
    if (scope != DICS_FLAG_GLOBAL || profile != 0 || !(isDevice ? device.hasDeviceKey : device.hasDriverKey) ||
        RegCreateKeyExW(
            HKEY_CURRENT_USER,
            DeviceTreeStandIn::KeyPath(static_cast<int>(data->DevInst) - 1, isDevice ? L"DEV" : L"DRV").c_str(), 0,
            nullptr, 0, access, nullptr, &key, nullptr) != ERROR_SUCCESS)
    {
        SetLastError(ERROR_KEY_DOES_NOT_EXIST);
        return static_cast<HKEY>(INVALID_HANDLE_VALUE);
    }
    return key;
}
} // namespace

// What the code under test finds in the place of its imports.
extern "C"
{
    extern decltype(&CM_Locate_DevNodeW) const imp_Locate __asm__("__imp_CM_Locate_DevNodeW");
    decltype(&CM_Locate_DevNodeW) const imp_Locate = &Locate;
    extern decltype(&CM_Get_Parent) const imp_Parent __asm__("__imp_CM_Get_Parent");
    decltype(&CM_Get_Parent) const imp_Parent = &Parent;
    extern decltype(&CM_Get_Child) const imp_Child __asm__("__imp_CM_Get_Child");
    decltype(&CM_Get_Child) const imp_Child = &Child;
    extern decltype(&CM_Get_Sibling) const imp_Sibling __asm__("__imp_CM_Get_Sibling");
    decltype(&CM_Get_Sibling) const imp_Sibling = &Sibling;
    extern decltype(&CM_Get_Device_IDW) const imp_DeviceId __asm__("__imp_CM_Get_Device_IDW");
    decltype(&CM_Get_Device_IDW) const imp_DeviceId = &DeviceId;
    extern decltype(&CM_Get_DevNode_Status) const imp_Status __asm__("__imp_CM_Get_DevNode_Status");
    decltype(&CM_Get_DevNode_Status) const imp_Status = &Status;
    extern decltype(&CM_Get_DevNode_Registry_PropertyW)
        const imp_Property __asm__("__imp_CM_Get_DevNode_Registry_PropertyW");
    decltype(&CM_Get_DevNode_Registry_PropertyW) const imp_Property = &RegistryProperty;
    extern decltype(&SetupDiCreateDeviceInfoList) const imp_Create __asm__("__imp_SetupDiCreateDeviceInfoList");
    decltype(&SetupDiCreateDeviceInfoList) const imp_Create = &CreateSet;
    extern decltype(&SetupDiDestroyDeviceInfoList) const imp_Destroy __asm__("__imp_SetupDiDestroyDeviceInfoList");
    decltype(&SetupDiDestroyDeviceInfoList) const imp_Destroy = &DestroySet;
    extern decltype(&SetupDiOpenDeviceInfoW) const imp_Open __asm__("__imp_SetupDiOpenDeviceInfoW");
    decltype(&SetupDiOpenDeviceInfoW) const imp_Open = &OpenDevice;
    extern decltype(&SetupDiGetDeviceRegistryPropertyW)
        const imp_Get __asm__("__imp_SetupDiGetDeviceRegistryPropertyW");
    decltype(&SetupDiGetDeviceRegistryPropertyW) const imp_Get = &SetupProperty;
    extern decltype(&SetupDiOpenDevRegKey) const imp_Key __asm__("__imp_SetupDiOpenDevRegKey");
    decltype(&SetupDiOpenDevRegKey) const imp_Key = &OpenKey;
}

DeviceTreeStandIn* DeviceTreeStandIn::current = nullptr;

DeviceTreeStandIn::DeviceTreeStandIn()
{
    current = this;
    RegDeleteTreeW(HKEY_CURRENT_USER, Sandbox);
}

DeviceTreeStandIn::~DeviceTreeStandIn()
{
    RegDeleteTreeW(HKEY_CURRENT_USER, Sandbox);
    current = nullptr;
}

int DeviceTreeStandIn::Add(int parent, const std::wstring& id, const std::wstring& className,
                           const std::wstring& hardwareId)
{
    Device device;
    device.id = id;
    device.parent = parent;
    devices.push_back(device);
    const int number = static_cast<int>(devices.size()) - 1;
    if (parent >= 0)
    {
        devices[static_cast<std::size_t>(parent)].children.push_back(number);
    }
    SetText(number, SPDRP_CLASS, className);
    (*this)[number].setupProperties[SPDRP_HARDWAREID] = {REG_MULTI_SZ, hardwareId + std::wstring(2, L'\0')};
    return number;
}

void DeviceTreeStandIn::SetText(int number, DWORD setupProperty, const std::wstring& text)
{
    (*this)[number].setupProperties[setupProperty] = {REG_SZ, text + L'\0'};
}

std::wstring DeviceTreeStandIn::KeyPath(int number, const wchar_t* key)
{
    return std::wstring(Sandbox) + L"\\" + std::to_wstring(number) + L"\\" + key;
}

void DeviceTreeStandIn::SetKeyValue(int number, const wchar_t* key, const wchar_t* name, DWORD type,
                                    const std::wstring& data)
{
    RegSetKeyValueW(HKEY_CURRENT_USER, KeyPath(number, key).c_str(), name, type, data.data(),
                    static_cast<DWORD>(data.size() * sizeof(wchar_t)));
}
