#pragma once
// Texts of the Wi-Fi side of the monitor.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The name by which the Wi-Fi library knows an adapter.
[[nodiscard]] std::wstring WiFiDeviceName(std::wstring_view deviceId);

// Six bytes as hexadecimal pairs joined by ":".
[[nodiscard]] std::wstring MacAddressText(const std::array<std::uint8_t, 6>& mac);

// The items between commas, empty ones included; none for an empty text.
[[nodiscard]] std::vector<std::wstring> SplitAtCommas(std::wstring_view text);

// A profile name, narrow in the record, as wide text.
[[nodiscard]] std::wstring WidenProfileName(const char (&name)[260]);
