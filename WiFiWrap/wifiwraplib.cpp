// Neither road to the adapters is there yet: opening says so, and the calls that need a handle report that they are not
// supported. The monitor lives with that as it does on a machine without Wi-Fi.
#include "WiFiWrap/wifiwraplib.h"

#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr unsigned wifiTraceFlag = 5;
constexpr wchar_t clientKey[] = L"Software\\QRLS\\Sorvane";
} // namespace

bool WiFiOpenApi(bool /*bRegisterEvents*/, bool /*bCreateCancelEvent*/)
{
    ScopeTrace scope(Log::Source::WiFi, wifiTraceFlag);
    return false;
}

void WiFiCloseApi()
{
    ScopeTrace scope(Log::Source::WiFi, wifiTraceFlag);
}

HANDLE WiFiOpen()
{
    ScopeTrace scope(Log::Source::WiFi, wifiTraceFlag);
    SetLastError(ERROR_NOT_SUPPORTED);
    return INVALID_HANDLE_VALUE;
}

void WiFiClose(HANDLE /*handle*/)
{
    ScopeTrace scope(Log::Source::WiFi, wifiTraceFlag);
}

DWORD WiFiGetSsid(HANDLE /*handle*/, std::wstring_view /*adapterName*/, std::wstring& ssid)
{
    ssid.clear();
    return ERROR_NOT_SUPPORTED;
}

DWORD WiFiGetMacAddressOfAssociatedAP(HANDLE /*handle*/, std::wstring_view /*adapterName*/,
                                      std::array<std::uint8_t, 6>& /*mac*/)
{
    return ERROR_NOT_SUPPORTED;
}

DWORD WiFiEnumBssidsEx(HANDLE /*handle*/, std::wstring_view /*adapterName*/, std::uint32_t /*index*/,
                       _WIFI_DETAILS* record)
{
    *record = {};
    return ERROR_NOT_SUPPORTED;
}

DWORD WiFiSurveyEx(HANDLE /*handle*/, std::wstring_view /*adapterName*/, HANDLE* thread)
{
    if (thread != nullptr)
    {
        *thread = nullptr;
    }
    return ERROR_SUCCESS;
}

DWORD WiFiSurveyEx2(HANDLE /*handle*/, const wchar_t* /*deviceId*/, DWORD /*milliseconds*/)
{
    return ERROR_SUCCESS;
}

std::wstring GetTempProfileList(std::wstring_view sid)
{
    ScopeTrace scope(Log::Source::WiFi, wifiTraceFlag);
    RegistryKey key;
    const DWORD opened = sid.empty() ? key.Open(HKEY_CURRENT_USER, clientKey, KEY_READ)
                                     : key.Open(HKEY_USERS, FormatText(L"{}\\{}", sid, clientKey), KEY_READ);
    if (opened != ERROR_SUCCESS)
    {
        LogFormat(Log::Source::WiFi, 4, L"GetTempProfileList: could not open '{}'", clientKey);
        return {};
    }
    std::wstring list;
    if (const DWORD read = key.ReadString(L"Temporary Profiles", list); read != ERROR_SUCCESS)
    {
        LogErrorSource(Log::Source::WiFi, read, L"GetTempProfileList: did not get a list of temp profiles");
    }
    else
    {
        LogFormat(Log::Source::WiFi, 4, L"GetTempProfileList: profile list is '{}'", list);
    }
    return list;
}

bool WiFiIsNativeApiInUse()
{
    return false;
}
