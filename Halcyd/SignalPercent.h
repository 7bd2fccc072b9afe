#pragma once

#include <cstdint>

// The percentage that a client gets for a signal strength in dBm, as the legacy Wi-Fi driver measures it.
[[nodiscard]] constexpr std::int32_t SignalPercent(std::int32_t dbm) noexcept
{
    if (dbm == 0)
    {
        return 0; // not measured
    }
    if (dbm < -90)
    {
        return 5;
    }
    if (dbm <= -82)
    {
        return 10;
    }
    if (dbm <= -77)
    {
        return 25;
    }
    if (dbm <= -72)
    {
        return 40;
    }
    if (dbm <= -68)
    {
        return 50;
    }
    if (dbm <= -63)
    {
        return 65;
    }
    if (dbm <= -59)
    {
        return 90;
    }
    if (dbm <= -51)
    {
        return 95;
    }
    return 100;
}
