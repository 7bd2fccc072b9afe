#pragma once
// Arithmetic of link speeds. Both functions work in unsigned 32 bits and wrap around; clients are built on these
// results, so they must not be widened.

#include <cstdint>

// Mbit/s from the units of 100 bit/s that a driver reports. Wraps from about 4295 Mbit/s on: 10 Gbit/s reads as 1410.
[[nodiscard]] constexpr std::uint32_t LinkSpeedMbps(std::uint32_t unitsOf100Bits) noexcept
{
    return unitsOf100Bits * 100u / 1'000'000u;
}

// bit/s, for a client's copy, from the Mbit/s of the list. Wraps above 4294 Mbit/s.
[[nodiscard]] constexpr std::uint32_t LinkSpeedForClient(std::uint32_t mbps) noexcept
{
    return mbps * 1'000'000u;
}
