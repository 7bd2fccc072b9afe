#include <gtest/gtest.h>

#include "Halcyd/BindingRules.h"

namespace
{
using BindingRules::PathAction;
using BindingRules::PathDecision;
using BindingRules::PathFacts;

constexpr std::wstring_view Kept = L"{11111111-2222-3333-4444-ABCDEFABCDEF}";

PathFacts Ethernet()
{
    return {false, L"pci\\ven_8086", L"{99999999-2222-3333-4444-ABCDEFABCDEF}", L"Ethernet card"};
}

PathDecision Decide(const PathFacts& facts, int ppp = 0, bool excepted = false, std::wstring_view kept = Kept)
{
    return BindingRules::DecidePath(facts, kept, ppp, [excepted](std::wstring_view) { return excepted; });
}

TEST(BindingRules, AnyOtherAdapterIsDisabled)
{
    EXPECT_EQ(PathAction::Disable, Decide(Ethernet()).action);
    EXPECT_EQ(L"", Decide(Ethernet()).line);
}

TEST(BindingRules, DisabledPathIsLeftAloneBeforeAnyOtherTest)
{
    PathFacts facts = Ethernet();
    facts.disabled = true;
    facts.componentGuid = Kept;
    EXPECT_EQ(PathAction::LeaveAlone, Decide(facts).action);
    EXPECT_EQ(L"\talready disabled", Decide(facts).line);
}

TEST(BindingRules, KeptAdapterIsLeftAlone)
{
    PathFacts facts = Ethernet();
    facts.componentGuid = Kept;
    EXPECT_EQ(PathAction::LeaveAlone, Decide(facts).action);
    EXPECT_EQ(L"\tthis is the component that we should not unbind", Decide(facts).line);
}

TEST(BindingRules, KeptAdapterInLowerCaseMatchesNothing)
{
    PathFacts facts = Ethernet();
    facts.componentGuid = Kept;
    EXPECT_EQ(PathAction::Disable, Decide(facts, 0, false, L"{11111111-2222-3333-4444-abcdefabcdef}").action);
}

TEST(BindingRules, EmptyAdapterKeepsNothing)
{
    EXPECT_EQ(PathAction::Disable, Decide(Ethernet(), 0, false, L"").action);
}

TEST(BindingRules, ComponentWhoseIdCannotBeToldIsNotKeptForAClientThatNamesNone)
{
    PathFacts facts = Ethernet();
    facts.componentGuid.clear();
    EXPECT_EQ(PathAction::Disable, Decide(facts, 0, false, L"").action);
}

TEST(BindingRules, IsatapInterfaceOfTheKeptAdapterIsLeftAlone)
{
    PathFacts facts = Ethernet();
    facts.displayName = L"isatap." + std::wstring(Kept);
    EXPECT_EQ(PathAction::LeaveAlone, Decide(facts).action);
    EXPECT_EQ(L"\tthis is the component that we should not unbind: isatap." + std::wstring(Kept), Decide(facts).line);
    facts.displayName = L"ISATAP." + std::wstring(Kept);
    EXPECT_EQ(PathAction::Disable, Decide(facts).action);
}

TEST(BindingRules, NdiswanIpStaysForAnyPppValueButZero)
{
    PathFacts facts = Ethernet();
    facts.componentId = L"ms_ndiswanip";
    EXPECT_EQ(PathAction::Disable, Decide(facts, 0).action);
    for (const int ppp : {1, 2, -1})
    {
        EXPECT_EQ(PathAction::LeaveAlone, Decide(facts, ppp).action);
        EXPECT_EQ(L"\tdon't disable 'ms_ndiswanip' since this is a PPP connection", Decide(facts, ppp).line);
    }
    facts.componentId = L"MS_NDISWANIP";
    EXPECT_EQ(PathAction::Disable, Decide(facts, 1).action);
}

TEST(BindingRules, ExceptedComponentIsLeftAlone)
{
    EXPECT_EQ(PathAction::LeaveAlone, Decide(Ethernet(), 0, true).action);
    EXPECT_EQ(L"\tpci\\ven_8086 is in the exception list...it's binding will not be disabled",
              Decide(Ethernet(), 0, true).line);
}

TEST(BindingRules, ExceptionListIsReadOnlyWhenNoEarlierTestDecided)
{
    int asked = 0;
    PathFacts facts = Ethernet();
    facts.componentGuid = Kept;
    const auto ask = [&asked](std::wstring_view)
    {
        ++asked;
        return false;
    };
    BindingRules::DecidePath(facts, Kept, 0, ask);
    EXPECT_EQ(0, asked);
    BindingRules::DecidePath(Ethernet(), Kept, 0, ask);
    EXPECT_EQ(1, asked);
}

TEST(BindingRules, ProtocolNdiswanIsSkippedForPppExactlyOne)
{
    EXPECT_TRUE(BindingRules::SkipsProtocol(L"ms_ndiswan", 1));
    EXPECT_FALSE(BindingRules::SkipsProtocol(L"ms_ndiswan", 2));
    EXPECT_FALSE(BindingRules::SkipsProtocol(L"ms_ndiswan", 0));
    EXPECT_FALSE(BindingRules::SkipsProtocol(L"ms_tcpip", 1));
}

TEST(BindingRules, ProtocolsAreWalkedInTheirOrder)
{
    EXPECT_EQ(L"ms_tcpip6", BindingRules::ComponentIds[0]);
    EXPECT_EQ(L"ms_tcpip", BindingRules::ComponentIds[1]);
    EXPECT_EQ(L"ms_ndiswan", BindingRules::ComponentIds[2]);
}

TEST(BindingRules, BothIdsOfAnExceptionListAreExceptedAndTheirBeginningsAreNot)
{
    EXPECT_TRUE(BindingRules::IsInExceptionList(L"first_id,second_id", L"first_id"));
    EXPECT_TRUE(BindingRules::IsInExceptionList(L"first_id,second_id", L"second_id"));
    EXPECT_FALSE(BindingRules::IsInExceptionList(L"first_id,second_id", L"first"));
    EXPECT_FALSE(BindingRules::IsInExceptionList(L"first_id,second_id", L"_id"));
    EXPECT_FALSE(BindingRules::IsInExceptionList(L"first_id,second_id", L"FIRST_ID"));
}

TEST(BindingRules, BlankBehindACommaBelongsToTheNextId)
{
    EXPECT_FALSE(BindingRules::IsInExceptionList(L"a, b", L"b"));
    EXPECT_TRUE(BindingRules::IsInExceptionList(L"a, b", L" b"));
}

TEST(BindingRules, EmptyIdIsExceptedByAListWithAnEmptyEntryOnly)
{
    EXPECT_TRUE(BindingRules::IsInExceptionList(L"", L""));
    EXPECT_TRUE(BindingRules::IsInExceptionList(L"a,,b", L""));
    EXPECT_FALSE(BindingRules::IsInExceptionList(L"a,b", L""));
}

TEST(BindingRules, RecordKeyIsRootProtocolAndGuid)
{
    EXPECT_EQ(L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention\\ms_tcpip\\{X}",
              BindingRules::RecordKey(L"ms_tcpip", L"{X}"));
}

TEST(BindingRules, EachLockResultHasItsLine)
{
    const auto line = [](std::uint32_t result)
    { return BindingRules::LockResultLine(static_cast<std::int32_t>(result), L"Other", 5000); };
    EXPECT_EQ(L"'Other' is holding INetCfgLock", line(0x8004A024));
    EXPECT_EQ(L"Timed out after waiting 5000 ms for INetCfgLock", line(1));
    EXPECT_EQ(L"Need to reboot to get the INetCfgLock", line(0x8004A025));
    EXPECT_EQ(L"Needs a reboot to get the INetCfgLock", line(0x0004A020));
    EXPECT_EQ(L"The INetCfgLock is already Initialized", line(0x8004A020));
    EXPECT_EQ(L"Insufficient Access rights to get INetCfgLock (must be Administrator)", line(0x80070005));
    EXPECT_EQ(L"", line(0x80004005));
}

TEST(BindingRules, OnlyTheBareWordYesLetsTheUserControl)
{
    EXPECT_TRUE(BindingRules::IsYes(L"yes"));
    EXPECT_TRUE(BindingRules::IsYes(L"YES"));
    EXPECT_FALSE(BindingRules::IsYes(L"YES "));
    EXPECT_FALSE(BindingRules::IsYes(L"no"));
    EXPECT_FALSE(BindingRules::IsYes(L""));
}
} // namespace
