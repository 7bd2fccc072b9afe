// Talking to an adapter's miniport driver.

#include "Halcyd/AdapterGates.h"
#include "Halcyd/LinkSpeed.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"

#include <winioctl.h>
#include <ntddndis.h>

#include <cstdio>
#include <cstring>

DWORD CNetMonSv::OpenMiniportDriver(const wchar_t* guid, void** handle)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const std::wstring path = FormatText(L"\\\\.\\{}", TextOrEmpty(guid));
    SetLastError(ERROR_SUCCESS); // a good open need not touch it, and 0 is what callers test for
    *handle =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD error = GetLastError();
    if (*handle == INVALID_HANDLE_VALUE)
    {
        MonitorTrace::FailureCode(error, L"CreateFile failed for '{}'", path);
    }
    else
    {
        MonitorTrace::Note(L"open driver handle for '{}' {:#08x}, rc = {}", path, MonitorTrace::Address(*handle),
                           error);
    }
    return error;
}

int CNetMonSv::CloseMiniportDriver(void* handle)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE)
    {
        MonitorTrace::Doubt(L"*** invalid driver handle = {:#08x}", MonitorTrace::Address(handle));
        return 0;
    }
    MonitorTrace::Detail(L"closing driver handle = {:#08x}", MonitorTrace::Address(handle));
    return CloseHandle(handle);
}

DWORD CNetMonSv::QueryOid(void* handle, unsigned long oid, unsigned char* buffer, unsigned long size,
                          unsigned long* returned)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    MonitorTrace::Detail(L"making DeviceIoControl({}, IOCTL_NDIS_QUERY_GLOBAL_STATS, {}, {}, {}, {}, outputSizeIn:{})",
                         MonitorTrace::Address(handle), oid, sizeof oid, MonitorTrace::Address(buffer), size, size);
    if (DeviceIoControl(handle, IOCTL_NDIS_QUERY_GLOBAL_STATS, &oid, sizeof oid, buffer, size, returned, nullptr))
    {
        MonitorTrace::Detail(L"success with query...outputSizeOut:{}, hDriver = {}", *returned,
                             MonitorTrace::Address(handle));
        return ERROR_SUCCESS;
    }
    const DWORD error = GetLastError();
    MonitorTrace::FailureCode(error, L"error with query ...outputSizeOut:{}, hDriver = {}", *returned,
                              MonitorTrace::Address(handle));
    return error;
}

_ADAPTER_TYPE CNetMonSv::GetDeviceType(IWbemClassObject* object)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    _ADAPTER_TYPE type = enumUnknown;
    const std::wstring settingId = WmiValues::ReadText(object, L"SettingID");
    if (settingId.empty())
    {
        return type;
    }
    if (NamesComPort(settingId))
    {
        MonitorTrace::Note(L"GetDeviceType: GUID references a COM port");
        return type;
    }
    void* handle = nullptr;
    if (const DWORD error = OpenMiniportDriver(settingId.c_str(), &handle); error != ERROR_SUCCESS)
    {
        MonitorTrace::Failure(L"GetDeviceType: could not open the miniport driver for the specified device '{}' ({})",
                              settingId, error);
        return type;
    }
    const auto ask = [&](unsigned long oid, std::uint32_t& value)
    {
        unsigned long returned = 0;
        return QueryOid(handle, oid, reinterpret_cast<unsigned char*>(&value), sizeof value, &returned);
    };
    std::uint32_t medium = 0;
    if (const DWORD error = ask(OID_GEN_MEDIA_SUPPORTED, medium); error != ERROR_SUCCESS)
    {
        // In spite of the words the kind stays unknown.
        MonitorTrace::Failure(L"GetDeviceType: FAILED - OID_GEN_MEDIA_SUPPORTED assuming Ethernet ({})", error);
    }
    else
    {
        const MediumDecision byMedium = DecideByMedium(medium);
        type = byMedium.type;
        if (type == enumEthernet)
        {
            MonitorTrace::Detail(L"need to check to see if the ethernet device has a media subtype");
        }
        if (byMedium.askPhysicalMedium)
        {
            type = AskPhysicalMedium(handle, settingId, type);
        }
    }
    if (CloseMiniportDriver(handle) != 1)
    {
        MonitorTrace::MiniportClosingProblem();
    }
    return type;
}

_ADAPTER_TYPE CNetMonSv::AskPhysicalMedium(void* handle, const std::wstring& settingId, _ADAPTER_TYPE type)
{
    std::uint32_t physicalMedium = 0;
    unsigned long returned = 0;
    if (const DWORD error = QueryOid(handle, OID_GEN_PHYSICAL_MEDIUM, reinterpret_cast<unsigned char*>(&physicalMedium),
                                     sizeof physicalMedium, &returned);
        error != ERROR_SUCCESS)
    {
        MonitorTrace::Failure(L"GetDeviceType: OID_GEN_PHYSICAL_MEDIUM call failed (at={}, {})", static_cast<int>(type),
                              error);
        return type;
    }
    const PhysicalMediumDecision decision = DecideByPhysicalMedium(type, physicalMedium);
    if (!decision.decided)
    {
        MonitorTrace::Note(L"GetDeviceType: '{}' {} (type: {})", settingId,
                           (type & enumEthernet) != 0 ? L"is just a simple Ethernet device"
                                                      : L"is not a media type netmon monitors",
                           physicalMedium);
    }
    return decision.type;
}

void CNetMonSv::GetMediaConnectStatus(void* handle, long* status)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    constexpr long disconnected = NdisMediaStateDisconnected;
    unsigned long returned = 0;
    if (const DWORD error = QueryOid(handle, OID_GEN_MEDIA_CONNECT_STATUS, reinterpret_cast<unsigned char*>(status),
                                     sizeof *status, &returned);
        error != ERROR_SUCCESS)
    {
        MonitorTrace::FailureCode(error, L"GetMediaConnectStatus: could not get media connection status");
        *status = disconnected;
    }
    MonitorTrace::Note(L"GetMediaConnectStatus: set the media connect status to '{}' (NdisMediaStateDisconnected={})",
                       *status, disconnected);
}

std::uint32_t CNetMonSv::GetLinkSpeedMbps(void* handle)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    std::uint32_t units[2] = {};
    unsigned long returned = 0;
    // A driver that fails may have written something already: only a good answer counts.
    if (QueryOid(handle, OID_GEN_LINK_SPEED, reinterpret_cast<unsigned char*>(units), sizeof units, &returned) !=
        ERROR_SUCCESS)
    {
        units[0] = 0;
        units[1] = 0;
    }
    MonitorTrace::Note(L"LinkSpeed = ({}, {})", units[0], units[1]);
    return LinkSpeedMbps(units[0]);
}

void CNetMonSv::GetDriverInfo(void* handle, wchar_t* text, unsigned long size)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    constexpr unsigned long descriptionSize = 260;
    std::uint32_t vendorId = 0;
    std::uint32_t driverVersion = 0;
    char description[descriptionSize + 1] = {}; // one more than offered, so that it always ends
    unsigned long returned = 0;
    QueryOid(handle, OID_GEN_VENDOR_ID, reinterpret_cast<unsigned char*>(&vendorId), sizeof vendorId, &returned);
    QueryOid(handle, OID_GEN_VENDOR_DRIVER_VERSION, reinterpret_cast<unsigned char*>(&driverVersion),
             sizeof driverVersion, &returned);
    QueryOid(handle, OID_GEN_VENDOR_DESCRIPTION, reinterpret_cast<unsigned char*>(description), descriptionSize,
             &returned);
    std::memset(text, 0, size * sizeof(wchar_t));
    _snwprintf(text, size, L"%08X : %08X : %S", vendorId, driverVersion, description);
    MonitorTrace::Note(L"driver info string = {}", std::wstring_view(text, wcsnlen(text, size)));
}
