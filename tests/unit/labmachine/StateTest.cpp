#include "LabFixture.h"

#include "lab/state/Changes.h"
#include "lab/state/DriverTable.h"
#include "lab/state/Handles.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <fstream>
#include <thread>

namespace lab::test
{
namespace
{

class MachineState : public LabTest
{
};

// Two Machine objects on one folder share nothing but the files and named objects, as two processes do.
std::unique_ptr<Machine> OtherProcess()
{
    return std::make_unique<Machine>(Machine::Attach().Folder());
}

TEST_F(MachineState, ChangeOfOneProcessIsSeenByTheOther)
{
    const auto other = OtherProcess();
    const std::uint64_t before = other->Version();
    (void)other->Snapshot();
    Set("/adapters/0/media", "disconnected");
    EXPECT_GT(other->Version(), before);
    EXPECT_EQ((*other->Snapshot())["adapters"][0]["media"], "disconnected");
}

TEST_F(MachineState, SnapshotStaysAsItWasTaken)
{
    const auto snapshot = TheMachine().Snapshot();
    Set("/hostName", "OTHER");
    EXPECT_EQ((*snapshot)["hostName"], "TESTHOST");
    EXPECT_EQ((*TheMachine().Snapshot())["hostName"], "OTHER");
}

TEST_F(MachineState, ChangeThatThrowsLeavesStateVersionAndEvents)
{
    const std::uint64_t version = TheMachine().Version();
    const std::uint64_t events = TheMachine().LastEvent();
    EXPECT_THROW(TheMachine().Update(
                     [](Json& state, Events& raised)
                     {
                         state["hostName"] = "LOST";
                         raised.push_back({{"channel", "wmi"}, {"type", "X"}});
                         throw std::runtime_error("no");
                     }),
                 std::runtime_error);
    EXPECT_EQ(TheMachine().Version(), version);
    EXPECT_EQ(TheMachine().LastEvent(), events);
    EXPECT_EQ((*TheMachine().Snapshot())["hostName"], "TESTHOST");
}

TEST_F(MachineState, ChangesFromManyThreadsAreAllKept)
{
    Set("/count", 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            []
            {
                const auto own = OtherProcess();
                for (int j = 0; j < 25; ++j)
                {
                    own->Update([](Json& state, Events&) { state["count"] = state["count"].get<int>() + 1; });
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ((*TheMachine().Snapshot())["count"], 100);
}

TEST_F(MachineState, HolderOfTheLockThatDiesLeavesTheMachineUsableAndItsStateIsReadAgain)
{
    // A thread that takes the machine's lock inside a change and ends there, as a killed process does. Killed after the
    // new state was written, it leaves a document that nobody was told of.
    const auto doomed = OtherProcess();
    (void)TheMachine().Snapshot();
    const Handle thread{CreateThread(
        nullptr, 0,
        [](void* machine) -> DWORD
        {
            static_cast<Machine*>(machine)->Update(
                [](Json& state, Events&)
                {
                    state["hostName"] = "WRITTEN";
                    std::ofstream{TheMachine().Folder() / L"state.json"} << state;
                    ExitThread(7);
                });
            return 0;
        },
        doomed.get(), 0, nullptr)};
    ASSERT_EQ(WaitForSingleObject(thread.get(), 10000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeThread(thread.get(), &code);
    ASSERT_EQ(code, 7U);
    TheMachine().Raise({}); // whoever takes the lock next
    EXPECT_EQ((*TheMachine().Snapshot())["hostName"], "WRITTEN");
    Set("/hostName", "AFTER");
    EXPECT_EQ((*TheMachine().Snapshot())["hostName"], "AFTER");
}

TEST_F(MachineState, EventsReachEachListenerInOrderAndOnce)
{
    EventCursor first = TheMachine().Listen();
    const auto other = OtherProcess();
    EventCursor second = other->Listen();
    for (int i = 0; i < 5; ++i)
    {
        TheMachine().Raise({{{"channel", "test"}, {"type", "a"}, {"number", 2 * i}},
                            {{"channel", "test"}, {"type", "b"}, {"number", 2 * i + 1}}});
    }
    for (EventCursor* cursor : {&first, &second})
    {
        const Events events = cursor->Next(0);
        ASSERT_EQ(events.size(), 10U);
        for (std::size_t i = 0; i < events.size(); ++i)
        {
            EXPECT_EQ(events[i]["number"], i);
            EXPECT_EQ(events[i]["seq"].get<std::uint64_t>(), events[0]["seq"].get<std::uint64_t>() + i);
        }
        EXPECT_TRUE(cursor->Next(0).empty());
    }
}

TEST_F(MachineState, ListenerHearsNothingFromBeforeItListened)
{
    TheMachine().Raise({{{"channel", "test"}, {"type", "old"}}});
    EventCursor cursor = TheMachine().Listen();
    EXPECT_TRUE(cursor.Next(0).empty());
}

TEST_F(MachineState, WaitingListenerWakesForAnEventAndForStop)
{
    EventCursor cursor = TheMachine().Listen();
    const Handle stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::thread raiser([] { OtherProcess()->Raise({{{"channel", "test"}, {"type", "wake"}}}); });
    EXPECT_EQ(cursor.Next(INFINITE, stop.get()).size(), 1U);
    raiser.join();
    std::thread stopper([&] { SetEvent(stop.get()); });
    EXPECT_TRUE(cursor.Next(INFINITE, stop.get()).empty());
    stopper.join();
}

TEST_F(MachineState, WaitForChangeEndsWithANewVersion)
{
    EventCursor cursor = TheMachine().Listen();
    const std::uint64_t version = TheMachine().Version();
    EXPECT_FALSE(cursor.WaitForChange(version, 0));
    std::thread changer([] { Set("/hostName", "NEW"); });
    EXPECT_TRUE(cursor.WaitForChange(version, INFINITE));
    changer.join();
}

class FaultRules : public LabTest
{
};

TEST_F(FaultRules, NthCallFailsAndOnlyThat)
{
    TheMachine().AddFault({"A::B", 2, 1, 0x80004005U, 0, 0});
    EXPECT_FALSE(TheMachine().Fault("A::B"));
    EXPECT_FALSE(TheMachine().Fault("A::C"));
    EXPECT_EQ(TheMachine().Fault("A::B"), 0x80004005U);
    EXPECT_FALSE(TheMachine().Fault("A::B"));
}

TEST_F(FaultRules, TimesCountsTheFailuresAndZeroNeverEnds)
{
    TheMachine().AddFault({"two", 1, 2, 5U, 0, 0});
    TheMachine().AddFault({"ever", 2, 0, 6U, 0, 0});
    EXPECT_TRUE(TheMachine().Fault("two"));
    EXPECT_TRUE(TheMachine().Fault("two"));
    EXPECT_FALSE(TheMachine().Fault("two"));
    EXPECT_FALSE(TheMachine().Fault("ever"));
    for (int i = 0; i < 10; ++i)
    {
        EXPECT_EQ(TheMachine().Fault("ever"), 6U);
    }
}

TEST_F(FaultRules, WildcardCountsAllCallsTogetherAndADetailOnlyItsOwn)
{
    TheMachine().AddFault({"I::*", 3, 1, 1U, 0, 0});
    TheMachine().AddFault({"I::Get(MACAddress)", 1, 1, 2U, 0, 0});
    EXPECT_FALSE(TheMachine().Fault("I::Get", "Caption"));
    EXPECT_EQ(TheMachine().Fault("I::Get", "MACAddress"), 2U);
    EXPECT_EQ(TheMachine().Fault("I::Put"), 1U);
}

TEST_F(FaultRules, RuleIsCountedAcrossProcessesAndClearDropsAll)
{
    const auto other = OtherProcess();
    other->AddFault({"A", 2, 1, 9U, 0, 0});
    EXPECT_FALSE(TheMachine().Fault("A"));
    EXPECT_EQ(other->Fault("A"), 9U);
    ASSERT_EQ(TheMachine().Faults().size(), 1U);
    EXPECT_EQ(TheMachine().Faults()[0].hits, 2U);
    TheMachine().ClearFaults();
    EXPECT_TRUE(other->Faults().empty());
    EXPECT_FALSE(other->Fault("A"));
}

TEST_F(FaultRules, RuleWithoutCodeOnlyDelays)
{
    TheMachine().AddFault({"slow", 1, 1, std::nullopt, 30, 0});
    const ULONGLONG start = GetTickCount64();
    EXPECT_FALSE(TheMachine().Fault("slow"));
    EXPECT_GE(GetTickCount64() - start, 15U);
}

TEST_F(FaultRules, DriverRuleGoesIntoTheDriversTable)
{
    TheMachine().AddFault({"QueryOid:0x00010107@{11111111-0000-4000-8000-000000000001}", 3, 1, 0xC0000001U, 0, 0});
    const auto rules = TheMachine().Faults();
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules[0].call, "QueryOid:0x00010107@{11111111-0000-4000-8000-000000000001}");
    EXPECT_EQ(rules[0].nth, 3U);
    EXPECT_EQ(rules[0].code, 0xC0000001U);
    EXPECT_THROW(TheMachine().AddFault({"QueryOid:nonsense", 1, 1, 1U, 0, 0}), std::runtime_error);
}

class JournalOfCalls : public LabTest
{
};

TEST_F(JournalOfCalls, LineHoldsCallArgumentsOutcomeAndWho)
{
    {
        Call call{"Test::Call"};
        call.Arg("text", L"\u00fc\"\\").Arg("null", static_cast<const wchar_t*>(nullptr)).Arg("number", 5);
        call.Out("count", 2).Result(0x80041002U);
    }
    const auto lines = Calls("Test::Call");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["args"], (Json{{"text", "\u00fc\"\\"}, {"null", nullptr}, {"number", 5}}));
    EXPECT_EQ(lines[0]["out"], (Json{{"count", 2}}));
    EXPECT_EQ(lines[0]["result"], "0x80041002");
    EXPECT_EQ(lines[0]["pid"], GetCurrentProcessId());
    EXPECT_EQ(lines[0]["tid"], GetCurrentThreadId());
}

TEST_F(JournalOfCalls, NoLineIsLostWhenManyThreadsWrite)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [i]
            {
                const auto own = OtherProcess();
                for (int j = 0; j < 200; ++j)
                {
                    own->Journal(
                        "Many",
                        Json{{"thread", i}, {"number", j}, {"pad", std::string(static_cast<std::size_t>(j), 'x')}}, 0);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(Calls("Many").size(), 1600U);
}

TEST_F(JournalOfCalls, SwitchedOffNothingIsWritten)
{
    TheMachine().SwitchJournal(false);
    Call{"Silent"}.Result(0);
    TheMachine().SwitchJournal(true);
    Call{"Loud"}.Result(0);
    EXPECT_TRUE(Calls("Silent").empty());
    EXPECT_EQ(Calls("Loud").size(), 1U);
}

TEST_F(JournalOfCalls, ReaderGoesOnWhereItStopped)
{
    JournalPosition position;
    Call{"One"}.Result(0);
    EXPECT_EQ(TheMachine().ReadJournal(position).size(), 1U);
    Call{"Two"}.Result(0);
    const auto lines = TheMachine().ReadJournal(position);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["call"], "Two");
}

// Until the journal has been once around, its file ends with the last line that was written, and a reader that is
// quicker than the writer finds a file that is too short.
TEST_F(JournalOfCalls, ReaderBesideAWriterSeesEachLineOnceAndInOrder)
{
    constexpr int count = 20000;
    std::thread writer(
        []
        {
            const auto own = OtherProcess();
            for (int i = 0; i < count; ++i)
            {
                own->Journal("Numbered", Json{{"number", i}}, 0);
            }
        });
    JournalPosition position;
    std::vector<int> seen;
    const ULONGLONG end = GetTickCount64() + 60'000;
    while ((seen.empty() || seen.back() != count - 1) && GetTickCount64() < end)
    {
        for (const Json& line : TheMachine().ReadJournal(position))
        {
            seen.push_back(line["args"]["number"]);
        }
    }
    writer.join();
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
    {
        ASSERT_EQ(seen[static_cast<std::size_t>(i)], i);
    }
}

// The driver's view: the file that it maps.
class DriverTableFile : public LabTest
{
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        ASSERT_TRUE(m_file.Open((TheMachine().Folder() / LAB_DRIVER_TABLE_FILE).c_str(), sizeof(LabDriverTable)));
    }
    const LabAdapter* Find(const wchar_t* guid) const
    {
        for (const LabAdapter& adapter : Table().adapters)
        {
            if (std::wstring{reinterpret_cast<const wchar_t*>(adapter.name)} == guid)
            {
                return &adapter;
            }
        }
        return nullptr;
    }
    static const LabOid* Oid(const LabAdapter& adapter, std::uint32_t oid)
    {
        for (std::uint32_t i = 0; i < adapter.oidCount; ++i)
        {
            if (adapter.oids[i].oid == oid)
            {
                return &adapter.oids[i];
            }
        }
        return nullptr;
    }
    static std::uint32_t Number(const LabOid* oid)
    {
        std::uint32_t value = 0;
        std::memcpy(&value, oid->bytes, sizeof value);
        return value;
    }
    const LabDriverTable& Table() const { return *static_cast<const LabDriverTable*>(m_file.view()); }

private:
    SharedFile m_file;
};

constexpr wchar_t firstGuid[] = L"{11111111-0000-4000-8000-000000000001}";

TEST_F(DriverTableFile, HoldsEachAdapterWithItsAnswers)
{
    const LabAdapter* adapter = Find(firstGuid);
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->used, 1U);
    EXPECT_EQ(adapter->openable, 1U);
    EXPECT_EQ(Number(Oid(*adapter, 0x00010107)), 10000000U); // 1 Gbit/s in units of 100 bit/s
    EXPECT_EQ(Number(Oid(*adapter, 0x0001010C)), 0x1234U);
    EXPECT_EQ(Number(Oid(*adapter, 0x00010114)), 0U);
    EXPECT_STREQ(reinterpret_cast<const char*>(Oid(*adapter, 0x0001010D)->bytes), "Brevik driver");
    EXPECT_EQ(Find(L"{11111111-0000-4000-8000-000000000003}")->openable, 0U);
}

TEST_F(DriverTableFile, CableAndOverridesShowAtOnce)
{
    Set("/adapters/0/media", "disconnected");
    Set("/adapters/0/driver/oids", {{"0x00010107", {{"status", "0xC0000001"}}}, {"0x00010202", {{"u32", 8}}}});
    const LabAdapter* adapter = Find(firstGuid);
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(Number(Oid(*adapter, 0x00010114)), 1U);
    EXPECT_EQ(Oid(*adapter, 0x00010107)->status, 0xC0000001U);
    EXPECT_EQ(Number(Oid(*adapter, 0x00010202)), 8U);
    EXPECT_EQ(Table().sequence % 2, 0U);
}

TEST_F(DriverTableFile, AdapterKeepsItsSlotWhenAnotherGoes)
{
    const LabAdapter* before = Find(L"{11111111-0000-4000-8000-000000000002}");
    ASSERT_NE(before, nullptr);
    TheMachine().Update([](Json& state, Events&) { state["adapters"].erase(0); });
    EXPECT_EQ(Find(L"{11111111-0000-4000-8000-000000000002}"), before);
    EXPECT_EQ(Find(firstGuid), nullptr);
}

TEST_F(DriverTableFile, TooManyIdentifiersAreAnErrorThatLeavesTheTableReadable)
{
    Json oids = Json::object();
    for (int i = 0; i < 30; ++i)
    {
        oids[Hex32(0x20000000U + static_cast<std::uint32_t>(i))] = {{"u32", i}};
    }
    EXPECT_THROW(Set("/adapters/0/driver/oids", oids), std::runtime_error);
    EXPECT_EQ(Table().sequence % 2, 0U);
}

using TypeList = std::vector<std::string>;

class NetworkChanges : public LabTest
{
protected:
    template <class Change>
    static Events Apply(const char* adapter, Change change)
    {
        Events raised;
        TheMachine().Update(
            [&](Json& state, Events& events)
            {
                change(RequireAdapter(state, adapter), events);
                raised = events;
            });
        return raised;
    }
    static std::vector<std::string> Types(const Events& events)
    {
        std::vector<std::string> types;
        for (const Json& event : events)
        {
            types.push_back(TextField(event, "type"));
        }
        return types;
    }
    static Json Adapter(const char* name) { return *FindAdapter(*TheMachine().Snapshot(), name); }
};

TEST_F(NetworkChanges, CableOutTakesTheLeaseAndCableInBringsItBack)
{
    EXPECT_EQ(Types(Apply("eth0", CableOut)), (TypeList{"MSNdis_StatusMediaDisconnect", "delete", "delete"}));
    EXPECT_TRUE(Adapter("eth0")["addresses"].empty());
    EXPECT_TRUE(Adapter("eth0")["gateways"].empty());
    const Events in = Apply("eth0", [](Json& adapter, Events& events) { CableIn(adapter, events, true); });
    EXPECT_EQ(Types(in), (TypeList{"MSNdis_StatusMediaConnect", "add", "add"}));
    EXPECT_EQ(Adapter("eth0")["gateways"], Json::array({"192.0.2.1"}));
}

TEST_F(NetworkChanges, StaticAddressStaysWithTheCableOut)
{
    EXPECT_EQ(Types(Apply("wlan0", CableOut)), (TypeList{"MSNdis_StatusMediaDisconnect"}));
    EXPECT_EQ(Adapter("wlan0")["addresses"].size(), 1U);
}

TEST_F(NetworkChanges, ConnectWithoutLeaseGetsItLater)
{
    Apply("eth0", CableOut);
    EXPECT_EQ(Types(Apply("eth0", [](Json& adapter, Events& events) { CableIn(adapter, events, false); })),
              (TypeList{"MSNdis_StatusMediaConnect"}));
    EXPECT_TRUE(Adapter("eth0")["gateways"].empty());
    EXPECT_EQ(Types(Apply("eth0", ApplyLease)), (TypeList{"add", "add"}));
}

TEST_F(NetworkChanges, Ipv4AddressGoesBeforeIpv6Ones)
{
    Apply("eth0", [](Json& adapter, Events& events) { AddAddress(adapter, events, "192.0.2.99", 24); });
    const Json addresses = Adapter("eth0")["addresses"];
    EXPECT_EQ(addresses[1]["address"], "192.0.2.99");
    EXPECT_EQ(addresses[2]["address"], "fe80::7");
}

TEST_F(NetworkChanges, ArrivalAndRemovalNameTheDeviceAndMediaEventsDoNot)
{
    const Events removal = Apply("eth0", Depart);
    EXPECT_EQ(TextField(removal[0], "DeviceName"), "\\DEVICE\\{11111111-0000-4000-8000-000000000001}");
    EXPECT_EQ(TextField(removal[0], "InstanceName"), "Brevik Ethernet");
    EXPECT_FALSE(Apply("wlan0", CableOut)[0].contains("DeviceName"));
}

TEST(SubnetMasks, PrefixAndMaskAgreeAndHolesAreRefused)
{
    EXPECT_EQ(SubnetMask(0), "0.0.0.0");
    EXPECT_EQ(SubnetMask(25), "255.255.255.128");
    EXPECT_EQ(SubnetMask(32), "255.255.255.255");
    EXPECT_EQ(PrefixOf("255.255.240.0"), 20);
    EXPECT_EQ(PrefixOf("255.0.255.0"), std::nullopt);
}

} // namespace
} // namespace lab::test
