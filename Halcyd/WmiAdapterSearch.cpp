// Finding the configuration object of the adapter that a notification names.

#include "Halcyd/AdapterGates.h"
#include "Halcyd/MonitorTrace.h"
#include "Halcyd/NetMonSv.h"

IWbemClassObject* CNetMonSv::GetWmiObjInstanceByDeviceId(const wchar_t* id)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    if (id == nullptr || *id == L'\0')
    {
        MonitorTrace::Note(L"GetWmiObjInstanceByDeviceId: Invalid device ID (setting ID)");
        return nullptr;
    }
    // A device path becomes the bare GUID. Text without a brace is asked for as it stands: WMI then has no match, which
    // is the answer that such a text deserves.
    const std::wstring query =
        FormatText(L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID='{}'", FromFirstBrace(id));
    IEnumWbemClassObjectPtr results;
    HRESULT result = WmiValues::Query(cimv2Namespace, query, WBEM_FLAG_FORWARD_ONLY, results);
    if (FAILED(result))
    {
        MonitorTrace::Failure(L"could not execute the query {} ({:#08x})", query, static_cast<std::uint32_t>(result));
        return nullptr;
    }
    IWbemClassObjectPtr pTargetObject;
    ULONG count = 0;
    result = results->Next(WmiValues::NoTimeLimit, 1, &pTargetObject, &count);
    if (result != WBEM_S_NO_ERROR || pTargetObject == nullptr)
    {
        MonitorTrace::Note(L"there was a problem with the query (no results): {} ({:#08x})", query,
                           static_cast<std::uint32_t>(result));
        return nullptr;
    }
    MonitorTrace::Detail(L"pTargetObject = {:#08x}", MonitorTrace::Address(pTargetObject.GetInterfacePtr()));
    IWbemClassObjectPtr second;
    if (results->Next(WmiValues::NoTimeLimit, 1, &second, &count) == WBEM_S_NO_ERROR && second != nullptr)
    {
        MonitorTrace::Doubt(L"there is more than one match for: {}", id);
    }
    return pTargetObject.Detach();
}

// Drivers number a second card of their kind ("... #2") in the names that notifications carry, which WMI does not. So
// what WMI calls the adapter is the needle here, while the list's own look-up has the notification's name for one.
IWbemClassObject* CNetMonSv::GetWmiObjInstanceByInstanceName(const wchar_t* name)
{
    ScopeTrace scope(Log::Source::NetMon, AlwaysOnTraceFlag);
    const std::wstring_view wanted = TextOrEmpty(name);
    MonitorTrace::Note(L"checking the WMI database Descriptions for '{}'", wanted);
    for (const wchar_t* property : {L"Description", L"Caption"})
    {
        MonitorTrace::Note(L"checking the '{}' property", property);
        if (IWbemClassObject* const found = FindConfigurationNamedIn(wanted, property); found != nullptr)
        {
            MonitorTrace::Note(L"not checking anymore WMI properties");
            return found;
        }
    }
    return nullptr;
}

IWbemClassObject* CNetMonSv::FindConfigurationNamedIn(std::wstring_view name, const wchar_t* property)
{
    constexpr wchar_t query[] = L"SELECT * FROM Win32_NetworkAdapterConfiguration";
    IEnumWbemClassObjectPtr results;
    HRESULT result = WmiValues::Query(cimv2Namespace, query, WBEM_FLAG_FORWARD_ONLY, results);
    if (FAILED(result))
    {
        MonitorTrace::Failure(L"could not execute the query {} ({:#08x})", query, static_cast<std::uint32_t>(result));
        return nullptr;
    }
    for (bool first = true;; first = false)
    {
        IWbemClassObjectPtr object;
        ULONG count = 0;
        result = results->Next(WmiValues::NoTimeLimit, 1, &object, &count);
        if (result != WBEM_S_NO_ERROR || object == nullptr)
        {
            if (first)
            {
                MonitorTrace::Note(L"there was a problem with the query (no results): {} ({:#08x})", query,
                                   static_cast<std::uint32_t>(result));
            }
            else
            {
                MonitorTrace::Note(L"ran out of matches before finding a good one");
            }
            return nullptr;
        }
        _variant_t stored;
        WmiValues::Read(object, property, stored);
        const std::wstring value = WmiValues::Text(stored);
        const std::wstring_view adapterName = WithoutBracketedIndex(value);
        MonitorTrace::Detail(L"checking if '{}' is a match '{}'", adapterName, name);
        // An object that has no such text would otherwise be the adapter of every name.
        if (WmiValues::IsNull(stored) || name.find(adapterName) == std::wstring_view::npos)
        {
            continue;
        }
        MonitorTrace::Note(L"found a match");
        if (HasDriverAndMac(object))
        {
            return object.Detach();
        }
    }
}

bool CNetMonSv::HasDriverAndMac(IWbemClassObject* object)
{
    const std::wstring settingId = WmiValues::ReadText(object, L"SettingID");
    void* handle = nullptr;
    const DWORD error = OpenMiniportDriver(settingId.c_str(), &handle);
    MonitorTrace::Note(L"device object: {} ({})", MonitorTrace::Address(handle), error);
    if (error == ERROR_SUCCESS && CloseMiniportDriver(handle) != 1)
    {
        MonitorTrace::MiniportClosingProblem();
    }
    const std::wstring macAddress = WmiValues::ReadText(object, L"MACAddress");
    if (error != ERROR_SUCCESS)
    {
        MonitorTrace::Note(L"that match did not have a driver we could open");
        return false;
    }
    if (macAddress.empty())
    {
        MonitorTrace::Note(L"that match did not have a MAC address");
        return false;
    }
    MonitorTrace::Note(L"MAC Address  = {}", macAddress);
    return true;
}
