// Which of the machine's adapters the monitor keeps: what WMI lists, behind four gates.

#include "Halcyd/AdapterGates.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"
#include "NetUtilities/RegistryKey.h"

namespace
{
constexpr wchar_t adapterClassKey[] =
    L"System\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}";
constexpr wchar_t allAdapters[] = L"SELECT * FROM Win32_NetworkAdapter";
constexpr wchar_t adaptersWithMac[] = L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE MACAddress <> NULL";
// Subkeys of a class are numbered with four digits, with a few named ones beside them. Ends an enumeration that only
// fails, as that of a key that has been deleted.
constexpr DWORD mostSubkeys = 0x10000;
} // namespace

HRESULT CNetMonSv::AddNetworkCardsToList()
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    DumpSetupApiAdapters(); // for the reader of the trace only; no failure in there matters
    return AddAdaptersFromWmi();
}

HRESULT CNetMonSv::AddAdaptersFromWmi()
{
    IEnumWbemClassObjectPtr pNetworkAdapterEnum; // rewound by each update, so not forward-only
    HRESULT result = WmiValues::Query(cimv2Namespace, allAdapters, 0, pNetworkAdapterEnum);
    if (FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Error Failed exec query {}", allAdapters);
        return E_FAIL;
    }
    IEnumWbemClassObjectPtr configurations;
    result = WmiValues::Query(cimv2Namespace, adaptersWithMac, WBEM_FLAG_FORWARD_ONLY, configurations);
    if (FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"Error could not get the WMI list of adapters");
        return E_FAIL;
    }
    for (;;)
    {
        IWbemClassObjectPtr object;
        ULONG count = 0;
        // A failure looks like the end of the list.
        if (configurations->Next(WmiValues::NoTimeLimit, 1, &object, &count) != WBEM_S_NO_ERROR || object == nullptr)
        {
            return S_OK;
        }
        AddAdapter(object, pNetworkAdapterEnum);
    }
}

void CNetMonSv::AddAdapter(IWbemClassObject* object, IEnumWbemClassObject* adapters)
{
    UpdateDeviceInfoMap(object, deviceInfoMap);
    // A null value reads as the empty text: a null service name is on the ignore list, a null id is no valid adapter.
    const std::wstring settingId = WmiValues::ReadText(object, L"SettingID");
    const std::wstring serviceName = WmiValues::ReadText(object, L"ServiceName");
    if (!PassesDiscoveryGates(settingId, serviceName))
    {
        return;
    }
    _DEVICE_ELEMENT* const element = CreateNewDeviceListElement();
    if (element == nullptr)
    {
        return;
    }
    MonitorTrace::Note(L"created node for '{}'", settingId);
    if (UpdateNodeFromNetworkAdapterObject(element, object, adapters) != S_OK)
    {
        return; // the element stays
    }
    MonitorTrace::Note(L"added '{}'", TextOr(element->Description, L"<<<NULL>>>"));
    MonitorTrace::Note(L"AddNetworkCardToList: fire adapter add event");
    Fire_AdapterChange(element->DeviceId, GetAdjacentMac(element), enumEventAdapterAdd);
}

bool CNetMonSv::PassesDiscoveryGates(const std::wstring& settingId, const std::wstring& serviceName)
{
    if (IsIgnoredAdapterService(serviceName))
    {
        MonitorTrace::Note(L"WMIList: '{}' is in the list of adapters to ignore", serviceName);
        return false;
    }
    MonitorTrace::Note(L"WMIList: checking if '{}' should be added to the list of network adapters", settingId);
    if (IsValidAdapter(settingId) == 0)
    {
        return false;
    }
    MonitorTrace::Note(L"checking '{}'", settingId);
    void* handle = nullptr;
    const DWORD error = OpenMiniportDriver(settingId.c_str(), &handle);
    MonitorTrace::Note(L"AddNetworkCardToList: driver handle: {} ({})", MonitorTrace::Address(handle), error);
    if (CloseMiniportDriver(handle) != 1)
    {
        MonitorTrace::MiniportClosingProblem();
    }
    if (error != ERROR_SUCCESS)
    {
        MonitorTrace::Note(L"don't add device because we can't open the driver for '{}'", settingId);
        return false;
    }
    MonitorTrace::Note(L"successfully opened the driver for '{}'", settingId);
    return true;
}

void CNetMonSv::UpdateDeviceInfoMap(IWbemClassObject* object, std::map<std::wstring, DeviceInfoRecord>& map)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const std::wstring settingId = WmiValues::ReadText(object, L"SettingID");
    DeviceInfoRecord record;
    record.Description = WmiValues::ReadText(object, L"Description");
    record.Caption = WmiValues::ReadText(object, L"Caption");
    record.ServiceName = WmiValues::ReadText(object, L"ServiceName");
    _variant_t enabled;
    WmiValues::Read(object, L"IPEnabled", enabled);
    record.IPEnabled = WmiValues::Truth(enabled);
    map.insert_or_assign(settingId, std::move(record));
}

int CNetMonSv::IsValidAdapter(const std::wstring& guid)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (guid.empty())
    {
        MonitorTrace::Doubt(L"passed in a empty string for the GUID");
        return 0;
    }
    RegistryKey classKey;
    if (const DWORD error = classKey.Open(HKEY_LOCAL_MACHINE, adapterClassKey, KEY_READ); error != ERROR_SUCCESS)
    {
        MonitorTrace::FailureCode(error, L"could not open network the class's subkey '{}' ", adapterClassKey);
        return 0;
    }
    for (DWORD index = 0; index < mostSubkeys; ++index)
    {
        std::wstring subkeyName;
        FILETIME lastWrite{};
        const DWORD error = classKey.EnumSubkey(index, subkeyName, lastWrite);
        if (error == ERROR_NO_MORE_ITEMS)
        {
            MonitorTrace::Note(L"IsValidAdapter: done searching for '{}' without finding a match", guid);
            return 0;
        }
        if (error != ERROR_SUCCESS)
        {
            MonitorTrace::FailureCode(error, L"could not open the subkey '{}'", index);
            continue;
        }
        RegistryKey subkey(false); // subkeys that do not open are passed over
        std::wstring instanceId;
        if (subkey.Open(classKey, subkeyName, KEY_READ) != ERROR_SUCCESS ||
            subkey.ReadString(L"NetCfgInstanceId", instanceId) != ERROR_SUCCESS || instanceId != guid)
        {
            continue;
        }
        std::uint32_t characteristics = 0;
        const bool read = subkey.ReadDword(L"Characteristics", characteristics) == ERROR_SUCCESS;
        return IsHardwareAdapter(read, characteristics) ? 1 : 0;
    }
    return 0;
}
