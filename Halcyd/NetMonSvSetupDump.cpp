// The account of the machine's network devices that opens each discovery: what SetupAPI knows, for the reader of the
// trace. Nothing in here has a say in which adapters are kept.

#include <windows.h>
#include <setupapi.h>

#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/DeviceHandles.h"
#include "NetUtilities/MultiString.h"
#include "NetUtilities/Mutex.h"

#include <array>
#include <cstring>
#include <set>
#include <span>
#include <vector>

namespace
{
constexpr GUID networkClass = {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr DWORD mostDevices = 260;
constexpr unsigned dumpTraceFlag = 0; // the dump of each device is traced only with this flag

const std::map<DWORD, std::wstring> devicePropertyNames{
    {SPDRP_DEVICEDESC, L"SPDRP_DEVICEDESC"},
    {SPDRP_SERVICE, L"SPDRP_SERVICE"},
    {SPDRP_DRIVER, L"SPDRP_DRIVER"},
    {SPDRP_MFG, L"SPDRP_MFG"},
    {SPDRP_FRIENDLYNAME, L"SPDRP_FRIENDLYNAME"},
};
const std::set<DWORD> loggedDeviceProperties{SPDRP_DEVICEDESC, SPDRP_SERVICE, SPDRP_DRIVER, SPDRP_MFG,
                                             SPDRP_FRIENDLYNAME};

// GUID to device description, for as long as the process lives; entries of earlier discoveries stay as they are. Only
// an Open comes here, one at a time.
std::map<std::wstring, std::wstring> setupApiAdapterMap;

// Text of a registry value's bytes, up to its first NUL or its end.
std::wstring TextOfBytes(std::span<const BYTE> bytes)
{
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    text.resize(wcsnlen(text.data(), text.size()));
    return text;
}

// The device's GUID as its driver key has it; empty if that cannot be read.
std::wstring ReadInstanceGuid(HDEVINFO devices, SP_DEVINFO_DATA& device)
{
    const UniqueRegistryHandle key(SetupDiOpenDevRegKey(devices, &device, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ));
    if (!key)
    {
        MonitorTrace::FailureCode(GetLastError(), L"failed");
        return {};
    }
    std::array<BYTE, 520> buffer{};
    DWORD size = static_cast<DWORD>(buffer.size());
    if (const LSTATUS error = RegQueryValueExW(key.get(), L"NetCfgInstanceId", nullptr, nullptr, buffer.data(), &size);
        error != ERROR_SUCCESS)
    {
        MonitorTrace::FailureCode(static_cast<DWORD>(error), L"Error RegQueryValueEx: failed");
        return {};
    }
    return TextOfBytes({buffer.data(), size});
}

std::wstring ReadInstanceId(HDEVINFO devices, SP_DEVINFO_DATA& device)
{
    std::array<wchar_t, 260> id{};
    if (!SetupDiGetDeviceInstanceIdW(devices, &device, id.data(), static_cast<DWORD>(id.size()), nullptr))
    {
        MonitorTrace::FailureCode(GetLastError(), L"** could not get the device instance id");
        return {};
    }
    return id.data();
}

// The line of one property, and for a multi-string one more line a value.
std::wstring PropertyText(const std::wstring& name, DWORD type, std::span<const BYTE> bytes)
{
    switch (type)
    {
    case REG_SZ:
        return FormatText(L"{:40} : '{}'", name, TextOfBytes(bytes));
    case REG_BINARY:
        return FormatText(L"{:40} : BINARY -- size is '{}'", name, bytes.size());
    case REG_DWORD:
    {
        DWORD value = 0;
        std::memcpy(&value, bytes.data(), std::min(sizeof value, bytes.size()));
        return FormatText(L"{:40} : '{:#08x}'", name, value);
    }
    case REG_MULTI_SZ:
    {
        const std::list<std::wstring> values = ParseMultiString(std::as_bytes(bytes));
        std::wstring text = FormatText(L"{:40} : (REG_MULTI_SZ with '{}' values)", name, values.size());
        std::size_t number = 0;
        for (const std::wstring& value : values)
        {
            text += L'\n';
            text += FormatText(L"{:40} {}", ++number, value);
        }
        return text;
    }
    default:
        return FormatText(L"{:40} : unhandled registry type '{}'", name, type);
    }
}

void DumpDevice(HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD index)
{
    const std::wstring guid = ReadInstanceGuid(devices, device);
    const std::wstring instanceId = ReadInstanceId(devices, device);
    const std::wstring rule(81, L'-');
    std::wstring text = rule + L'\n' + FormatText(L"DETECTED NETWORK ADAPTER #{}:", index) + L'\n' +
                        FormatText(L"  DEVICE INSTANCE : {}", instanceId) + L'\n' +
                        FormatText(L"  DEVICE GUID     : {}", guid) + L'\n' + rule;
    for (const auto& [property, name] : devicePropertyNames)
    {
        if (!loggedDeviceProperties.contains(property))
        {
            continue;
        }
        std::array<BYTE, 1024> buffer{};
        DWORD type = REG_NONE;
        DWORD size = 0;
        text += L'\n';
        if (!SetupDiGetDeviceRegistryPropertyW(devices, &device, property, &type, buffer.data(),
                                               static_cast<DWORD>(buffer.size()), &size))
        {
            text += FormatText(L"{:40} : could not get property (rc = {}; size = '{}')", name, GetLastError(), size);
            continue;
        }
        const std::span<const BYTE> bytes(buffer.data(), std::min<std::size_t>(size, buffer.size()));
        text += PropertyText(name, type, bytes);
        if (property == SPDRP_DEVICEDESC && type == REG_SZ)
        {
            setupApiAdapterMap.emplace(guid, TextOfBytes(bytes));
        }
    }
    if (IsTraceFlagSet(dumpTraceFlag))
    {
        LogMessage(Log::Source::NetMon, 4, text);
    }
}

void DumpDevices()
{
    const HDEVINFO found = SetupDiGetClassDevsW(&networkClass, nullptr, nullptr, DIGCF_PRESENT);
    if (found == INVALID_HANDLE_VALUE)
    {
        MonitorTrace::FailureCode(GetLastError(), L"Error SetupDiGetClassDevsEx failed");
        SetupDiDestroyDeviceInfoList(found); // the invalid handle goes there too
        return;
    }
    const UniqueDeviceInfoSet devices(found);
    for (DWORD index = 0; index < mostDevices; ++index)
    {
        SP_DEVINFO_DATA device{};
        device.cbSize = sizeof device;
        if (!SetupDiEnumDeviceInfo(devices.get(), index, &device))
        {
            const DWORD error = GetLastError();
            if (error == ERROR_NO_MORE_ITEMS)
            {
                MonitorTrace::Note(L"complete");
                break;
            }
            MonitorTrace::FailureCode(error, L"failed");
            continue;
        }
        DumpDevice(devices.get(), device, index);
    }
}
} // namespace

void CNetMonSv::DumpSetupApiAdapters()
{
    MonitorTrace::StarBanner(L"**** ADDING NETWORK CARDS TO NETMON DEVICE INFO LIST ***");
    DumpDevices();
    MonitorTrace::StarBanner(L"****         SETUPAPI ADAPTER MAPPING INFO          ****");
    for (const auto& [guid, description] : setupApiAdapterMap)
    {
        MonitorTrace::Note(L"{:40} : {}", guid, description);
    }
    MonitorTrace::StarBanner(L"**** FINISHED LOGGING DIAGNOSTIC INFO FROM SETUP API ***");
    MonitorTrace::StarBanner(L"*** GETTING ADAPTER INFO FROM NETWORK CARD WMI CLASS ***");
}
