// The path rule and the lock's results through the shipped service: what becomes of each kind of path, what a client is
// told of each result.

#include <gtest/gtest.h>

#include "bindings/BindingsMachine.h"
#include "Monitor/MonitorMachine.h"
#include "lab/state/Text.h"
#include "tests/support/EventRecorder.h"

namespace
{
using namespace BindingsMachine;
using lab::Json;

class BindingRulesInService : public BindingsServiceTest
{
protected:
    void TearDown() override { machine.ClearFaults(); }

    // Disables, and restores again at once. Returns what was off in between, without the braces of the ids.
    std::set<std::string> OffAfterDisable(const wchar_t* kept, long ppp)
    {
        AllPathsOn();
        const EventConnection events(monitor);
        std::future<HRESULT> call = Disable(monitor, kept, ppp);
        const auto disabled = events->WaitForEvent(9, 60'000);
        EXPECT_TRUE(disabled.has_value() && disabled->number == 0);
        const std::set<std::string> off = PathsOff();
        EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
        EXPECT_TRUE(Comes(call));
        return off;
    }
};

std::string Guid(int number)
{
    return "{5D3E0B0" + std::to_string(number) + "-7C44-4E0B-8B19-3A6F90C1D100}";
}

// One component for each row of the rule: number 1 is kept.
Json RuleMachine()
{
    const auto component = [](int number, const char* id, const std::string& name)
    { return Json{{"id", id}, {"displayName", name}, {"guid", Guid(number)}}; };
    const auto path = [](const char* protocol, Json lower)
    { return Json{{"protocol", protocol}, {"lower", std::move(lower)}}; };
    return {
        {"components", Json::array({component(1, "tunnel", "Tunnel adapter"), component(2, "card", "Card"),
                                    component(3, "sixover", "isatap." + Guid(1)),
                                    component(4, "ms_ndiswanip", "WAN Miniport (IP)"), component(5, "listed", "Listed"),
                                    component(6, "liste", "Not quite listed"), component(7, "filter", "Filter"),
                                    component(8, "ms_ndiswan", "NDISWAN"), component(9, "modem", "Modem")})},
        {"paths",
         Json::array({path("ms_tcpip6", Json::array({"tunnel"})), path("ms_tcpip", Json::array({"tunnel"})),
                      path("ms_tcpip6", Json::array({"card"})), path("ms_tcpip", Json::array({"card"})),
                      path("ms_tcpip6", Json::array({"sixover"})), path("ms_tcpip", Json::array({"ms_ndiswanip"})),
                      path("ms_tcpip", Json::array({"listed"})), path("ms_tcpip", Json::array({"liste"})),
                      path("ms_tcpip", Json::array({"card", "tunnel"})),
                      path("ms_tcpip", Json::array({"tunnel", "filter"})),
                      path("ms_tcpip", Json::array({"filter", nullptr})), path("ms_tcpip", Json::array()),
                      path("ms_tcpip", Json::array({nullptr})), path("ms_ndiswan", Json::array({"modem"}))})}};
}

std::string Token(const char* protocol, std::initializer_list<int> lower)
{
    std::string token = protocol;
    for (const int number : lower)
    {
        token += "->" + (number == 0 ? std::string("none") : Guid(number));
    }
    return token;
}

TEST_F(BindingRulesInService, EachKindOfPathIsTreatedAsItsRowSays)
{
    SetNetCfg(RuleMachine());
    constexpr wchar_t list[] = L"other,listed";
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kRecordRoot, L"ExceptionList", REG_SZ, list, sizeof list), 0);
    const std::wstring kept = lab::Wide(Guid(1));
    const std::set<std::string> always{Token("ms_tcpip6", {2}), Token("ms_tcpip", {2}), Token("ms_tcpip", {6}),
                                       // The last interface counts, and of those the last one with a component.
                                       Token("ms_tcpip", {1, 7}), Token("ms_tcpip", {7, 0})};
    std::set<std::string> off = always;
    off.insert(Token("ms_tcpip", {4}));
    off.insert(Token("ms_ndiswan", {9}));
    EXPECT_EQ(OffAfterDisable(kept.c_str(), 0), off);
    // A PPP device keeps both with exactly 1, and NDISWAN's IP component alone with any other value.
    EXPECT_EQ(OffAfterDisable(kept.c_str(), 1), always);
    off = always;
    off.insert(Token("ms_ndiswan", {9}));
    EXPECT_EQ(OffAfterDisable(kept.c_str(), 2), off);
}

TEST_F(BindingRulesInService, KeptAdapterInLowerCaseOrEmptyKeepsNone)
{
    const std::set<std::string> all{"ms_tcpip6->" + lab::Utf8(kCard), "ms_tcpip->" + lab::Utf8(kCard),
                                    "ms_tcpip->" + lab::Utf8(kTunnel)};
    EXPECT_EQ(OffAfterDisable(L"{5d3e0a01-7c44-4e0b-8b19-3a6f90c1d001}", 0), all);
    EXPECT_EQ(OffAfterDisable(L"", 0), all);
}

TEST_F(BindingRulesInService, PathThatWasOffBeforeStaysOffAndGetsNoRecord)
{
    const std::string token = "ms_tcpip->" + lab::Utf8(kCard);
    machine.Update([&](Json& state, lab::Events&) { state["netcfg"]["disabled"] = Json::array({token}); });
    const EventConnection events(monitor);
    std::future<HRESULT> call = Disable(monitor);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    EXPECT_EQ(ReadRecord().count("ms_tcpip\\" + lab::Utf8(kCard)), 0u);
    EXPECT_EQ(ReadRecord().count("ms_tcpip6\\" + lab::Utf8(kCard)), 1u);
    CompleteRecord();
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(PathsOff(), std::set<std::string>{token});
}

TEST_F(BindingRulesInService, EachLockResultIsToldByTheEventAndNothingIsDisabled)
{
    for (const std::uint32_t result : {0x00000001U, 0x8004A025U, 0x0004A020U, 0x8004A020U, 0x80070005U, 0x80004005U})
    {
        SCOPED_TRACE(testing::Message() << std::hex << result);
        const EventConnection events(monitor);
        lab::FaultRule rule;
        rule.call = "INetCfgLock::AcquireWriteLock";
        rule.code = result;
        machine.AddFault(rule);
        // Not retried, so the call comes back at once.
        EXPECT_EQ(monitor->DisableIpBindings(_bstr_t(kTunnel), 0), S_OK);
        const auto disabled = events->WaitForEvent(9, 60'000);
        ASSERT_TRUE(disabled.has_value());
        EXPECT_EQ(disabled->number, static_cast<std::int32_t>(result));
        machine.ClearFaults();
        EXPECT_TRUE(PathsOff().empty());
        // The refused session stays until a restore, which works on it as it is: never initialised.
        EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
        const auto restored = events->WaitForEvent(10, 60'000);
        ASSERT_TRUE(restored.has_value());
        EXPECT_EQ(restored->number, static_cast<std::int32_t>(0x8004A021));
        EXPECT_FALSE(LockHolder());
    }
    EXPECT_EQ(OffAfterDisable(kTunnel, 0).size(), 2u);
}

TEST_F(BindingRulesInService, EngineThatTheInterfaceTableDoesNotGiveMeansNothingIsDone)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithHooks(service));
    Connect();
    const EventConnection events(monitor);
    Lab(L"fail IGlobalInterfaceTable::GetInterfaceFromGlobal --code E_FAIL");
    std::future<HRESULT> call = Disable(monitor);
    const auto disabled = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(disabled.has_value());
    EXPECT_EQ(disabled->number, 0);
    EXPECT_TRUE(PathsOff().empty());
    EXPECT_TRUE(LockHolder());
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));
    EXPECT_FALSE(LockHolder());
}
} // namespace
