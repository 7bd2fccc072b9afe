#include "tests/unit/Halcyd/FakeWiFi.h"

#include <algorithm>
#include <cstring>

WiFiScope* WiFiScope::current = nullptr;

namespace
{
const HANDLE theHandle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x77));

void Note(const wchar_t* call, std::wstring_view adapter = {})
{
    if (WiFiScope::current != nullptr)
    {
        std::wstring text = call;
        if (!adapter.empty())
        {
            text.append(L" ").append(adapter);
        }
        WiFiScope::current->Note(std::move(text));
    }
}
} // namespace

WiFiScope::WiFiScope()
{
    current = this;
}

WiFiScope::~WiFiScope()
{
    current = nullptr;
}

_WIFI_DETAILS WiFiScope::Network(const wchar_t* ssid, long signal, const char* profile)
{
    _WIFI_DETAILS network{};
    wcscpy(network.Ssid, ssid);
    network.SignalStrength = signal;
    strcpy(network.ProfileName, profile);
    return network;
}

std::vector<std::wstring> WiFiScope::Calls()
{
    const std::lock_guard guard(mutex);
    return calls;
}

int WiFiScope::Count(const std::wstring& call)
{
    const std::lock_guard guard(mutex);
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

void WiFiScope::Note(std::wstring call)
{
    const std::lock_guard guard(mutex);
    calls.push_back(std::move(call));
}

// --- the library's front ---

bool WiFiOpenApi(bool bRegisterEvents, bool bCreateCancelEvent)
{
    Note(bRegisterEvents && !bCreateCancelEvent ? L"WiFiOpenApi true false" : L"WiFiOpenApi otherwise");
    return false;
}

void WiFiCloseApi()
{
    Note(L"WiFiCloseApi");
}

HANDLE WiFiOpen()
{
    Note(L"WiFiOpen");
    return WiFiScope::current != nullptr && WiFiScope::current->available ? theHandle : INVALID_HANDLE_VALUE;
}

void WiFiClose(HANDLE handle)
{
    Note(handle == theHandle ? L"WiFiClose" : L"WiFiClose of a strange handle");
}

DWORD WiFiGetSsid(HANDLE /*handle*/, std::wstring_view adapterName, std::wstring& ssid)
{
    Note(L"WiFiGetSsid", adapterName);
    if (WiFiScope::current == nullptr || WiFiScope::current->ssidResult != ERROR_SUCCESS)
    {
        return WiFiScope::current != nullptr ? WiFiScope::current->ssidResult : ERROR_NOT_SUPPORTED;
    }
    ssid = WiFiScope::current->ssid;
    return ERROR_SUCCESS;
}

DWORD WiFiGetMacAddressOfAssociatedAP(HANDLE /*handle*/, std::wstring_view adapterName,
                                      std::array<std::uint8_t, 6>& mac)
{
    Note(L"WiFiGetMacAddressOfAssociatedAP", adapterName);
    if (WiFiScope::current == nullptr || WiFiScope::current->accessPointResult != ERROR_SUCCESS)
    {
        return WiFiScope::current != nullptr ? WiFiScope::current->accessPointResult : ERROR_NOT_SUPPORTED;
    }
    mac = WiFiScope::current->accessPoint;
    return ERROR_SUCCESS;
}

DWORD WiFiEnumBssidsEx(HANDLE /*handle*/, std::wstring_view adapterName, std::uint32_t index, _WIFI_DETAILS* record)
{
    *record = {};
    if (WiFiScope::current == nullptr)
    {
        return ERROR_NOT_SUPPORTED;
    }
    if (index == 0)
    {
        Note(L"WiFiEnumBssidsEx", adapterName);
    }
    if (index >= WiFiScope::current->networks.size())
    {
        return WiFiScope::current->enumerationEnd;
    }
    *record = WiFiScope::current->networks[index];
    return ERROR_SUCCESS;
}

DWORD WiFiSurveyEx(HANDLE handle, std::wstring_view adapterName, HANDLE* thread)
{
    Note(handle == nullptr ? L"WiFiSurveyEx without a handle" : L"WiFiSurveyEx", adapterName);
    if (thread != nullptr)
    {
        *thread = CreateEventW(nullptr, TRUE, FALSE, nullptr); // something that CloseHandle takes
    }
    return ERROR_SUCCESS;
}

DWORD WiFiSurveyEx2(HANDLE /*handle*/, const wchar_t* deviceId, DWORD milliseconds)
{
    Note(milliseconds == 0 ? L"WiFiSurveyEx2" : L"WiFiSurveyEx2 that waits", deviceId);
    return ERROR_GEN_FAILURE;
}

std::wstring GetTempProfileList(std::wstring_view /*sid*/)
{
    return WiFiScope::current != nullptr ? WiFiScope::current->temporaryProfiles : std::wstring();
}

bool WiFiIsNativeApiInUse()
{
    return WiFiScope::current != nullptr && WiFiScope::current->native;
}
