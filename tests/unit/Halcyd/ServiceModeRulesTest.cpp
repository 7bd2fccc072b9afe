#include <gtest/gtest.h>

#include "Halcyd/ServiceModeRules.h"

namespace
{
using ServiceModeRules::ActionOf;
using ServiceModeRules::GroupOf;
using ServiceModeRules::ModeAction;
using ServiceModeRules::ServiceGroup;

TEST(ServiceModeRules, IkeExtCountsInAnyCaseAndTheOthersExactly)
{
    EXPECT_EQ(ServiceGroup::IpSec, GroupOf(L"PolicyAgent"));
    EXPECT_EQ(ServiceGroup::None, GroupOf(L"policyagent"));
    EXPECT_EQ(ServiceGroup::IpSec, GroupOf(L"IkeExt"));
    EXPECT_EQ(ServiceGroup::IpSec, GroupOf(L"IKEEXT"));
    EXPECT_EQ(ServiceGroup::Wzc, GroupOf(L"WZCSVC"));
    EXPECT_EQ(ServiceGroup::None, GroupOf(L"WzcSvc"));
    EXPECT_EQ(ServiceGroup::None, GroupOf(L"Dnscache"));
    EXPECT_EQ(ServiceGroup::None, GroupOf(L""));
}

TEST(ServiceModeRules, ModesMapToActions)
{
    EXPECT_EQ(ModeAction::Stop, ActionOf(1));
    EXPECT_EQ(ModeAction::PauseOrContinue, ActionOf(2));
    EXPECT_EQ(ModeAction::PauseOrContinue, ActionOf(3));
    EXPECT_EQ(ModeAction::Start, ActionOf(4));
    EXPECT_EQ(ModeAction::Start, ActionOf(16));
    for (const int mode : {0, 5, 15, 17, -1, 0x7FFFFFFF})
    {
        EXPECT_EQ(ModeAction::Unsupported, ActionOf(mode));
    }
}

TEST(ServiceModeRules, DescriptorNamesAnAccountBehindASemicolon)
{
    EXPECT_TRUE(ServiceModeRules::DescriptorNames(L"D:(A;;CC;;;SY)", L"SY"));
    EXPECT_FALSE(ServiceModeRules::DescriptorNames(L"D:(A;;SY;;BA)(A;;CC;;;BA)SY", L"XY"));
    EXPECT_FALSE(ServiceModeRules::DescriptorNames(L"D:", L"SY"));
    EXPECT_FALSE(ServiceModeRules::DescriptorNames(L"D:(A;;CC;;;BA)", L"SY"));
    EXPECT_TRUE(ServiceModeRules::DescriptorNames(L";;SY", L"SY"));
    EXPECT_FALSE(ServiceModeRules::DescriptorNames(L";S", L"SY"));
}
} // namespace
