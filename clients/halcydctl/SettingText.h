#pragma once
// Texts and small parsers of the settings verbs. Pure functions.

#include <cstdint>
#include <optional>
#include <string>

// What a result of the adapter settings means: the positive numbers of WMI's methods, "adapter not found". Empty for
// others.
[[nodiscard]] std::wstring SettingResultWords(std::uint32_t result);
// What to do about it; never empty.
[[nodiscard]] std::wstring SettingResultCure(std::uint32_t result);

struct AddressAndMask
{
    std::string address;
    std::string mask;
    bool operator==(const AddressAndMask&) const = default;
};
// "10.0.0.5/255.255.255.0" or "10.0.0.5/24"; IPv6 addresses keep their prefix length as it is.
[[nodiscard]] std::optional<AddressAndMask> SplitAddress(const std::string& text);

// The number that a text holds, decimal or 0x-hexadecimal, up to `highest`.
[[nodiscard]] std::optional<std::uint64_t> NumberFromText(const std::string& text, std::uint64_t highest);

// Whether a service in this state has been stopped (or started), or is about to.
[[nodiscard]] bool ServiceStateFollows(std::uint32_t state, bool stop);

// "stopped", "running", ... for a service's state; "automatic", ... for its start type. The number for unknown values.
[[nodiscard]] std::wstring ServiceStateWords(std::uint32_t state);
[[nodiscard]] std::wstring StartTypeWords(std::uint32_t startType);
