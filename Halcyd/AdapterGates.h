#pragma once
// What the monitor decides about an adapter from values alone: whether it is one to keep, and of which kind it is.

#include "Halcyd_h.h"

#include <cstdint>
#include <string>
#include <string_view>

// Driver services whose adapters are never kept: the system's own virtual adapter, filter and tunnel drivers. The names
// are compared exactly. The empty name is one of them, so an adapter without a service name is not kept either.
[[nodiscard]] bool IsIgnoredAdapterService(std::wstring_view serviceName);

// Whether the class key of an adapter speaks of real hardware. Without a "Characteristics" value it does not.
[[nodiscard]] constexpr bool IsHardwareAdapter(bool characteristicsRead, std::uint32_t characteristics) noexcept
{
    constexpr std::uint32_t virtualAdapter = 0x1; // NCF_VIRTUAL
    return characteristicsRead && (characteristics & virtualAdapter) == 0;
}

// Whether a device id names a serial port ("COM" in any letter case in front): such a name has no miniport.
[[nodiscard]] bool NamesComPort(std::wstring_view deviceId);

// First half of an adapter's kind, from the NDIS medium.
struct MediumDecision
{
    _ADAPTER_TYPE type;
    bool askPhysicalMedium; // the physical medium has the last word
};
[[nodiscard]] MediumDecision DecideByMedium(std::uint32_t medium) noexcept;

// Second half, from the physical medium. `decided` is false when it adds nothing and `type` is what came in.
struct PhysicalMediumDecision
{
    _ADAPTER_TYPE type;
    bool decided;
};
[[nodiscard]] PhysicalMediumDecision DecideByPhysicalMedium(_ADAPTER_TYPE type, std::uint32_t physicalMedium) noexcept;

// The name that is to be searched for: a device path that ends in a GUID gives the GUID with its braces. Text without a
// "{" is returned as it is.
[[nodiscard]] std::wstring_view FromFirstBrace(std::wstring_view text) noexcept;

// A WMI caption without the bracketed index in front of the adapter's name: "[00000007] Name" gives "Name". Text that
// does not begin with "[" is returned as it is, text without a blank too.
[[nodiscard]] std::wstring_view WithoutBracketedIndex(std::wstring_view text) noexcept;

// Whole texts compared without regard to letter case.
[[nodiscard]] bool SameTextAnyCase(std::wstring_view left, std::wstring_view right) noexcept;
