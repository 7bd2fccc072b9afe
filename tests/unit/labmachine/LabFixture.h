// A machine of the test's own: the folder belongs to this process, the state starts from a small scenario.
#pragma once

#include "lab/state/Machine.h"

#include <gtest/gtest.h>

namespace lab::test
{

// Three adapters: "eth0" (wired, DHCP, connected), "wlan0" (Wi-Fi, static, connected), "wan0" (no MAC address).
[[nodiscard]] Json SmallMachine();

class LabTest : public testing::Test
{
protected:
    void SetUp() override;

    // Sets a value of the state by its JSON pointer, without events.
    static void Set(const char* pointer, const Json& value);
    // The journal's lines for one call since SetUp.
    static std::vector<Json> Calls(std::string_view call);

    static Machine& TheMachine();
};

} // namespace lab::test
