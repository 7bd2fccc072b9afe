#pragma once

#include <cstdint>
#include <cstdlib>

// Whether a best signal is far enough from the one last told to the clients to be told: 6 or more. The comparison is
// with the value last told, not the one last measured, so a slow drift is told too.
[[nodiscard]] constexpr bool SignalIsWorthTelling(std::int32_t lastTold, std::int32_t best) noexcept
{
    const std::int64_t difference = static_cast<std::int64_t>(best) - lastTold;
    return difference >= 6 || difference <= -6;
}

// Milliseconds between two values of clock(), as signed 32 bits: right across the wrap of the counter.
[[nodiscard]] constexpr std::int32_t ClockDifference(std::int32_t later, std::int32_t earlier) noexcept
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(later) - static_cast<std::uint32_t>(earlier));
}
