#pragma once
// The front of the Wi-Fi library: what the network monitor calls. Handles come from WiFiOpen and go back by WiFiClose.
// Adapter names are device names, "\DEVICE\" and the adapter's GUID text in braces. Results are Win32 codes, 0 for
// success, unless a function says otherwise. Every function may be called from any thread; the monitor calls them one
// at a time under its list lock, WiFiSurveyEx2 apart.

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "Halcyd_h.h"

// Opens the library. `bRegisterEvents`: have the system's Wi-Fi notifications set the event "NetCfgWifiEvent".
// `bCreateCancelEvent`: make the library's cancel event. True if the legacy road is forced.
bool WiFiOpenApi(bool bRegisterEvents, bool bCreateCancelEvent);
// Closes the library.
void WiFiCloseApi();

// A handle for the calls below, INVALID_HANDLE_VALUE if there is no Wi-Fi to talk to.
[[nodiscard]] HANDLE WiFiOpen();
void WiFiClose(HANDLE handle);

// The name of the network in use; empty when there is none.
[[nodiscard]] DWORD WiFiGetSsid(HANDLE handle, std::wstring_view adapterName, std::wstring& ssid);
// The MAC address of the access point in use; untouched when there is none.
[[nodiscard]] DWORD WiFiGetMacAddressOfAssociatedAP(HANDLE handle, std::wstring_view adapterName,
                                                    std::array<std::uint8_t, 6>& mac);
// The visible network at `index`; index 0 refreshes the data. 259 (ERROR_NO_MORE_ITEMS) at the end. `record` is zeroed
// first; its pNext is not used.
[[nodiscard]] DWORD WiFiEnumBssidsEx(HANDLE handle, std::wstring_view adapterName, std::uint32_t index,
                                     _WIFI_DETAILS* record);
// Asks the adapter to look for networks. Where that takes a thread, its handle goes to `thread` (the caller closes it)
// or is closed if `thread` is null. Returns 0.
DWORD WiFiSurveyEx(HANDLE handle, std::wstring_view adapterName, HANDLE* thread);
// The same on the legacy device, blocking for `milliseconds`. `deviceId` has no device prefix. Returns 0.
DWORD WiFiSurveyEx2(HANDLE handle, const wchar_t* deviceId, DWORD milliseconds);

// The list of temporary profiles of a user, given as a textual SID; of the calling account for an empty one. The text
// of the registry value, empty if there is none.
[[nodiscard]] std::wstring GetTempProfileList(std::wstring_view sid);

// True while the native Wi-Fi functions of the system are in use. False before WiFiOpenApi and on the legacy road.
[[nodiscard]] bool WiFiIsNativeApiInUse();
