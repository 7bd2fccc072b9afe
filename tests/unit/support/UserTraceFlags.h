#pragma once

#include <gtest/gtest.h>

#include <thread>

#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/VirtualClock.h"

// Writes the user's trace flags and comes back when the program follows them. Flags are kept for some seconds, hence
// the clock; again and again, since a thread may be in the middle of reading the old ones, and an earlier test's clock
// may have been far ahead.
inline void SetUserTraceFlags(VirtualClock& clock, std::uint32_t flags)
{
    RegistryKey key;
    ASSERT_EQ(key.Create(HKEY_CURRENT_USER, L"Software\\QRLS\\Sorvane\\CurrentInstall", KEY_WRITE), 0u);
    ASSERT_EQ(key.WriteDword(L"TraceFlags", flags), 0u);
    do
    {
        clock.AdvanceSeconds(60);
        std::this_thread::yield();
    } while (GetTraceFlags() != flags);
}
