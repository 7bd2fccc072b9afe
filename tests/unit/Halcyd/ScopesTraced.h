#pragma once
// For tests of scope lines: a fixture whose user has them switched on for its life.

#include <cstdint>

#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/support/UserTraceFlags.h"
#include "tests/unit/support/VirtualClock.h"

template <class Fixture>
class ScopesTraced : public Fixture
{
protected:
    void SetUp() override { SetTraceFlags(1U << 19); }
    void TearDown() override { SetTraceFlags(0); }

    void SetTraceFlags(std::uint32_t flags)
    {
        SetUserTraceFlags(clock, flags);
        TraceLines::Clear();
    }

    VirtualClock clock;
};
