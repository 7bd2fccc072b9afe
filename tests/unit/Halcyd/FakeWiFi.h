#pragma once
// The Wi-Fi library of the monitor's unit tests: this program defines the library's front functions itself, so that the
// monitor finds the networks that a test says are there. Without a WiFiScope there is no Wi-Fi.

#include <mutex>
#include <string>
#include <vector>

#include "WiFiWrap/wifiwraplib.h"

// In force from construction to destruction; one at a time. Members are set while no other thread calls.
class WiFiScope
{
public:
    WiFiScope();
    ~WiFiScope();
    WiFiScope(const WiFiScope&) = delete;
    WiFiScope& operator=(const WiFiScope&) = delete;

    // A network in view of an adapter, as the library gives it.
    static _WIFI_DETAILS Network(const wchar_t* ssid, long signal, const char* profile = "");

    bool available = true; // WiFiOpen gives a handle
    bool native = true;
    std::vector<_WIFI_DETAILS> networks;
    DWORD enumerationEnd = ERROR_NO_MORE_ITEMS; // behind the last network
    DWORD accessPointResult = ERROR_SUCCESS;
    std::array<std::uint8_t, 6> accessPoint{0x02, 0, 0x5E, 0, 0x53, 0xAB};
    DWORD ssidResult = ERROR_SUCCESS;
    std::wstring ssid = L"home";
    std::wstring temporaryProfiles;

    // The calls in their order, as "WiFiSurveyEx \DEVICE\{W}" and the like.
    [[nodiscard]] std::vector<std::wstring> Calls();
    [[nodiscard]] int Count(const std::wstring& call);
    void Note(std::wstring call);

    static WiFiScope* current;

private:
    std::mutex mutex;
    std::vector<std::wstring> calls;
};
