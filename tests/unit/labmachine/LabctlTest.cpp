#include "LabFixture.h"

#include "lab/labctl/Scenario.h"
#include "lab/labctl/StatePath.h"
#include "lab/labctl/Sync.h"
#include "lab/labctl/Verbs.h"
#include "lab/netcfg/Model.h"
#include "lab/netcfg/WriteLock.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace lab::test
{
namespace
{

// What the verb printed, and its exit code.
struct Outcome
{
    int code;
    std::string out;
    std::string error;
};

Outcome Labctl(const std::vector<std::string>& words)
{
    std::ostringstream out;
    std::ostringstream error;
    std::streambuf* const oldOut = std::cout.rdbuf(out.rdbuf());
    std::streambuf* const oldError = std::cerr.rdbuf(error.rdbuf());
    const int code = ctl::Run(words);
    std::cout.rdbuf(oldOut);
    std::cerr.rdbuf(oldError);
    return {code, out.str(), error.str()};
}

class LabctlVerbs : public LabTest
{
protected:
    static Json Adapter(const char* name) { return *FindAdapter(*TheMachine().Snapshot(), name); }
    static std::vector<std::string> Types(EventCursor& cursor)
    {
        std::vector<std::string> types;
        for (const Json& event : cursor.Next(0))
        {
            types.push_back(TextField(event, "channel") + ":" + TextField(event, "type"));
        }
        return types;
    }
    using List = std::vector<std::string>;
};

TEST_F(LabctlVerbs, CableOutAndInRaiseMediaAndAddressEvents)
{
    EventCursor cursor = TheMachine().Listen();
    EXPECT_EQ(Labctl({"cable", "out", "eth0"}).code, 0);
    EXPECT_EQ(Types(cursor), (List{"wmi:MSNdis_StatusMediaDisconnect", "address:delete", "address:delete"}));
    EXPECT_EQ(Labctl({"cable", "in", "ETHERNET", "--no-lease"}).code, 0);
    EXPECT_EQ(Types(cursor), (List{"wmi:MSNdis_StatusMediaConnect"}));
    EXPECT_EQ(Labctl({"dhcp", "lease", "eth0"}).code, 0);
    EXPECT_EQ(Types(cursor), (List{"address:add", "address:add"}));
    EXPECT_EQ(Labctl({"cable", "in", "eth0", "--lease-after", "0.05"}).code, 0);
    EXPECT_EQ(Adapter("eth0")["gateways"], Json::array({"192.0.2.1"}));
}

TEST_F(LabctlVerbs, AddressesComeAndGoWithTheirPrefix)
{
    EventCursor cursor = TheMachine().Listen();
    EXPECT_EQ(Labctl({"address", "add", "wlan0", "203.0.113.4/29"}).code, 0);
    EXPECT_EQ(Adapter("wlan0")["addresses"][1]["prefix"], 29);
    EXPECT_EQ(Labctl({"address", "remove", "wlan0", "203.0.113.4"}).code, 0);
    EXPECT_EQ(Types(cursor), (List{"address:add", "address:delete"}));
    const Outcome again = Labctl({"address", "remove", "wlan0", "203.0.113.4"});
    EXPECT_EQ(again.code, 1);
    EXPECT_EQ(again.error, "labctl: the adapter has no address 203.0.113.4\n");
    EXPECT_EQ(Labctl({"address", "add", "wlan0", "203.0.113.4/40"}).code, 1);
}

TEST_F(LabctlVerbs, UnknownAdapterIsAnErrorThatNamesTheKnownOnes)
{
    const Outcome outcome = Labctl({"cable", "out", "eth9"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.error, "labctl: no adapter 'eth9'; there are: eth0, wlan0, wan0\n");
}

TEST_F(LabctlVerbs, WrongCommandLineIsCode2)
{
    EXPECT_EQ(Labctl({}).code, 2);
    EXPECT_EQ(Labctl({"cable", "sideways", "eth0"}).code, 2);
    EXPECT_EQ(Labctl({"fail"}).code, 2);
    EXPECT_EQ(Labctl({"--help"}).code, 0);
}

TEST_F(LabctlVerbs, WordThatBeginsWithASlashIsNoOption)
{
    EXPECT_NE(Labctl({"sync", "/no/such/file"}).error.find("no scenario '/no/such/file'"), std::string::npos);
}

TEST_F(LabctlVerbs, FailTakesNamesAndNumbersAndListShowsHits)
{
    EXPECT_EQ(Labctl({"fail", "IWbemServices::ExecQuery", "--nth", "2", "--code", "WBEM_E_ACCESS_DENIED"}).code, 0);
    EXPECT_EQ(Labctl({"fail", "QueryOid:OID_GEN_LINK_SPEED@eth0", "--code", "0xC0000001"}).code, 0);
    EXPECT_EQ(Labctl({"slow", "IEnumWbemClassObject::Next", "--ms", "7"}).code, 0);
    (void)TheMachine().Fault("IWbemServices::ExecQuery");
    EXPECT_EQ(
        Labctl({"fail", "list"}).out,
        "IWbemServices::ExecQuery: call 2 fails with 0x80041003; 1 calls so far\n"
        "IEnumWbemClassObject::Next: call 1 and all after it succeeds after 7 ms; 0 calls so far\n"
        "QueryOid:0x00010107@{11111111-0000-4000-8000-000000000001}: call 1 fails with 0xC0000001; 0 calls so far\n");
    EXPECT_EQ(Labctl({"fail", "clear"}).code, 0);
    EXPECT_TRUE(TheMachine().Faults().empty());
    EXPECT_EQ(Labctl({"fail", "X", "--code", "E_NONSENSE"}).code, 1);
    EXPECT_EQ(Labctl({"fail", "QueryOid:OID_NONSENSE"}).code, 1);
}

TEST_F(LabctlVerbs, KillIsARuleThatEndsTheCallersProcess)
{
    EXPECT_EQ(Labctl({"kill", "INetCfg::Apply", "--nth", "4"}).code, 0);
    EXPECT_EQ(Labctl({"fail", "list"}).out, "INetCfg::Apply: call 4 ends its process; 0 calls so far\n");
    const std::vector<FaultRule> rules = TheMachine().Faults();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_TRUE(rules[0].kill);
    EXPECT_EQ(Labctl({"kill", "QueryOid"}).code, 1); // the driver's calls are made for whoever asks
}

// What the tests of bindings rely on: another program changes bindings, and holds the lock for a time.
TEST_F(LabctlVerbs, BindingsAreShownAndChanged)
{
    EXPECT_EQ(Labctl({"bindings", "set", "ms_tcpip", "eth0", "off"}).code, 0);
    const auto states = []
    {
        std::map<std::string, bool> enabled;
        for (const Json& path : Json::parse(Labctl({"bindings", "show", "--json"}).out))
        {
            enabled[path["path"].get<std::string>()] = path["enabled"].get<bool>();
        }
        return enabled;
    };
    EXPECT_FALSE(states().at("ms_tcpip->{11111111-0000-4000-8000-000000000001}"));
    EXPECT_TRUE(states().at("ms_tcpip6->{11111111-0000-4000-8000-000000000001}"));
    EXPECT_NE(Labctl({"bindings", "show"}).out.find("off  ms_tcpip -> "), std::string::npos);
    EXPECT_EQ(Labctl({"bindings", "set", "all", "eth0", "on"}).code, 0);
    EXPECT_TRUE(states().at("ms_tcpip->{11111111-0000-4000-8000-000000000001}"));
    EXPECT_EQ(Labctl({"bindings", "set", "ms_tcpip", "eth9", "off"}).code, 1);
    EXPECT_EQ(Labctl({"bindings", "set", "ms_tcpip", "eth0", "maybe"}).code, 2);
}

TEST_F(LabctlVerbs, LockIsHeldForItsTimeUnderItsNameAndThenFree)
{
    EXPECT_EQ(Labctl({"lock", "netcfg", "Other program", "--seconds", "0.01"}).out, "locked\n");
    EXPECT_EQ(Labctl({"bindings", "show"}).out.find("write lock:"), std::string::npos);
    netcfg::WriteLock held;
    ASSERT_TRUE(held.Acquire(L"A third one", 0));
    EXPECT_NE(Labctl({"bindings", "show"}).out.find("write lock: 'A third one'"), std::string::npos);
    const auto refused = Labctl({"lock", "netcfg", "Other program", "--seconds", "0.01"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.error.find("the lock is held by 'A third one'"), std::string::npos);
}

TEST_F(LabctlVerbs, JournalShowsCountsAndClears)
{
    Call{"A::One"}.Result(0);
    Call{"A::Two"}.Result(5);
    Call{"B"}.Result(0);
    EXPECT_EQ(Labctl({"journal", "--count"}).out, "3\n");
    EXPECT_EQ(Labctl({"journal", "--count", "--call", "A::*"}).out, "2\n");
    const Json line = Json::parse(Labctl({"journal", "--json", "--call", "A::Two"}).out);
    EXPECT_EQ(line["result"], "0x00000005");
    EXPECT_EQ(Labctl({"journal", "--clear"}).code, 0);
    EXPECT_EQ(Labctl({"journal", "--count"}).out, "0\n");
}

TEST_F(LabctlVerbs, EventCarriesWhatIsAsked)
{
    EventCursor cursor = TheMachine().Listen();
    EXPECT_EQ(
        Labctl({"event", "MSNdis_StatusMediaConnect", "eth0", "--suffix", " - Packet Scheduler", "--copies", "2"}).code,
        0);
    EXPECT_EQ(Labctl({"event", "MSNdis_NotifyAdapterArrival"}).code, 0);
    const Events events = cursor.Next(0);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]["InstanceName"], "Brevik Ethernet - Packet Scheduler");
    EXPECT_EQ(events[0]["copies"], 2);
    EXPECT_FALSE(events[1].contains("InstanceName"));
}

TEST_F(LabctlVerbs, StormIsTheSameForTheSameSeed)
{
    const Outcome first = Labctl({"storm", "--events", "60", "--seed", "5"});
    TheMachine().Update([](Json& state, Events&) { state = SmallMachine(); });
    EventCursor cursor = TheMachine().Listen();
    EXPECT_EQ(Labctl({"storm", "--events", "60", "--seed", "5", "--batch", "10"}).out, first.out);
    EXPECT_GE(cursor.Next(0).size(), 60U);
}

TEST_F(LabctlVerbs, DumpAndGetShowTheState)
{
    EXPECT_EQ(Json::parse(Labctl({"dump", "--json"}).out), *TheMachine().Snapshot());
    EXPECT_EQ(Json::parse(Labctl({"get", "adapters.eth0.dhcp.server"}).out), "192.0.2.1");
    EXPECT_EQ(Labctl({"get", "adapters.eth0.nothing"}).code, 1);
}

TEST(StatePath, FindsElementsByNameOrNumberAndMakesMissingMembers)
{
    Json state = SmallMachine();
    EXPECT_EQ(ctl::GetValue(state, "adapters.WLAN0.index"), 9);
    EXPECT_EQ(ctl::GetValue(state, "adapters.1.index"), 9);
    ctl::SetValue(state, "adapters.eth0.driver.oids.\"0x00010107\".status", "0xC0000001");
    EXPECT_EQ(state["adapters"][0]["driver"]["oids"]["0x00010107"]["status"], "0xC0000001");
    ctl::SetValue(state, "suffixSearchOrder.-", "new.example");
    EXPECT_EQ(state["suffixSearchOrder"].size(), 3U);
    ctl::RemoveValue(state, "adapters.eth0.driver.oids");
    EXPECT_FALSE(state["adapters"][0]["driver"].contains("oids"));
    EXPECT_THROW(ctl::SetValue(state, "adapters.eth9.index", 1), std::runtime_error);
    EXPECT_THROW(ctl::SetValue(state, "hostName.part", 1), std::runtime_error);
    EXPECT_THROW(ctl::RemoveValue(state, "adapters.eth0.nothing"), std::runtime_error);
}

TEST(Scenarios, MissingFieldsAreFilledInAndClashesAreRefused)
{
    Json state = Json::parse(R"({ "adapters": [ { "name": "a", "index": 5 }, { "name": "b" } ] })");
    ctl::Complete(state);
    EXPECT_EQ(state["adapters"][1]["index"], 6);
    EXPECT_EQ(TextField(state["adapters"][1], "guid"), ctl::GuidFor("b"));
    EXPECT_NE(ctl::GuidFor("a"), ctl::GuidFor("b"));
    for (const char* bad : {R"({ "adapters": [ { "name": "a" }, { "name": "A" } ] })", R"({ "adapters": [ {} ] })",
                            R"({ "adapters": [ { "name": "a", "guid": "x" } ] })", R"({ "adapters": {} })",
                            R"({ "adapters": [ { "name": "a", "index": 1 }, { "name": "b", "index": 1 } ] })"})
    {
        Json broken = Json::parse(bad);
        EXPECT_THROW(ctl::Complete(broken), std::runtime_error) << bad;
    }
}

TEST(Scenarios, EveryScenarioOfTheTreeIsCompleteAndPublishable)
{
    const std::filesystem::path folder = Wide(SCENARIO_FOLDER);
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        ++count;
        SCOPED_TRACE(Utf8(entry.path().wstring()));
        EXPECT_NO_THROW({
            const Json state = ctl::ReadScenario(entry.path());
            EXPECT_EQ(TextField(state, "scenario"), Utf8(entry.path().stem().wstring()));
        });
    }
    EXPECT_GE(count, 5U);
}

// The token of each path, in the engine's order.
std::vector<std::string> Tokens(const Json& state)
{
    std::vector<std::string> tokens;
    for (const netcfg::Path& path : netcfg::ReadModel(state).paths)
    {
        tokens.push_back(path.token);
    }
    return tokens;
}

TEST(Scenarios, LaptopBindsTheIpProtocolsToEachAdapterAndSharingAboveThem)
{
    const Json state = ctl::ReadScenario(std::filesystem::path(Wide(SCENARIO_FOLDER)) / "laptop.json");
    const std::vector<std::string> tokens = Tokens(state);
    const auto has = [&](const std::string& token)
    { return std::find(tokens.begin(), tokens.end(), token) != tokens.end(); };
    for (const Json& adapter : Member(state, "adapters"))
    {
        const std::string guid = TextField(adapter, "guid");
        EXPECT_TRUE(has("ms_tcpip->" + guid)) << guid;
        EXPECT_EQ(has("ms_tcpip6->" + guid), TextField(adapter, "service") != "NdisWan") << guid;
    }
    const std::string ip = "{6E2A0C02-51D8-4B7E-9A40-2F6C1B8D7002}";
    EXPECT_TRUE(has("ms_server->" + ip + "->{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}"));
    EXPECT_TRUE(has("ms_msclient->" + ip + "->{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}"));
    Json bare = state;
    bare["netcfg"].erase("morePaths");
    EXPECT_EQ(Tokens(bare).size() + 3, tokens.size());
}

class Syncing : public LabTest
{
protected:
    static std::vector<std::string> Sync(Json& state, const Json& fresh)
    {
        Events events;
        ctl::SyncTo(state, fresh, events);
        std::vector<std::string> types;
        for (const Json& event : events)
        {
            types.push_back(TextField(event, "type"));
        }
        return types;
    }
    using List = std::vector<std::string>;
};

TEST_F(Syncing, TheSamePictureChangesNothing)
{
    Json state = SmallMachine();
    EXPECT_EQ(Sync(state, SmallMachine()), List{});
    EXPECT_EQ(state, SmallMachine());
}

TEST_F(Syncing, MediaThenAddressesAsTheyDiffer)
{
    Json state = SmallMachine();
    Json fresh = SmallMachine();
    fresh["adapters"][0]["media"] = "disconnected";
    fresh["adapters"][0]["addresses"] = Json::array();
    EXPECT_EQ(Sync(state, fresh), (List{"MSNdis_StatusMediaDisconnect", "delete", "delete"}));
    EXPECT_EQ(Sync(state, SmallMachine()), (List{"MSNdis_StatusMediaConnect", "add", "add"}));
    fresh = SmallMachine();
    fresh["adapters"][1]["addresses"].push_back({{"address", "203.0.113.1"}, {"prefix", 24}});
    EXPECT_EQ(Sync(state, fresh), List{"add"});
}

TEST_F(Syncing, AdapterThatIsGoneDepartsAndOneThatIsNewArrives)
{
    Json state = SmallMachine();
    Json fresh = SmallMachine();
    fresh["adapters"].erase(0);
    EXPECT_EQ(Sync(state, fresh), (List{"MSNdis_NotifyAdapterRemoval", "removal"}));
    EXPECT_EQ(state["adapters"].size(), 3U);
    EXPECT_EQ(Sync(state, fresh), List{});
    EXPECT_EQ(Sync(state, SmallMachine()), (List{"arrival", "MSNdis_NotifyAdapterArrival"}));
    Json more = SmallMachine();
    more["adapters"].push_back({{"name", "new0"}, {"guid", ctl::GuidFor("new0")}, {"index", 30}});
    EXPECT_EQ(Sync(state, more), (List{"arrival", "MSNdis_NotifyAdapterArrival"}));
}

} // namespace
} // namespace lab::test
