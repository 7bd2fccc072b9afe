// Disable and restore a thousand times on one service: the bindings as before, and nothing left over.

#include <gtest/gtest.h>

#include "bindings/BindingsMachine.h"
#include "Monitor/MonitorMachine.h"
#include "lab/state/Model.h"
#include "tests/support/EventRecorder.h"
#include "tests/support/Processes.h"

namespace
{
using namespace BindingsMachine;
using lab::Json;

constexpr int kWarmUp = 50;
constexpr int kCycles = 1000;

class BindingCycles : public BindingsServiceTest
{
protected:
    // A restore enables what a complete record names, so the record is completed in each cycle.
    void Cycle(const EventConnection& events)
    {
        events->Clear();
        std::future<HRESULT> call = Disable(monitor);
        const auto disabled = events->WaitForEvent(9, 60'000);
        ASSERT_TRUE(disabled.has_value() && disabled->number == 0);
        CompleteRecord();
        ASSERT_EQ(monitor->RestoreIpBindings(), S_OK);
        const auto restored = events->WaitForEvent(10, 60'000);
        ASSERT_TRUE(restored.has_value() && restored->number == 0);
        ASSERT_TRUE(Comes(call));
        ASSERT_EQ(call.get(), S_OK);
    }
    void Cycles(int count, const EventConnection& events)
    {
        for (int i = 0; i < count; ++i)
        {
            ASSERT_NO_FATAL_FAILURE(Cycle(events)) << "cycle " << i;
        }
    }
};

TEST_F(BindingCycles, AThousandLeaveTheBindingsAsTheyWereAndNothingOver)
{
    const EventConnection events(monitor);
    machine.SwitchJournal(false);
    const DWORD processId = service.ProcessId();
    ASSERT_NO_FATAL_FAILURE(Cycles(kWarmUp, events));
    const Holdings before = HoldingsAtRest(processId);
    ASSERT_NO_FATAL_FAILURE(Cycles(kCycles, events));

    EXPECT_EQ(service.ProcessId(), processId);
    EXPECT_TRUE(PathsOff().empty());
    EXPECT_EQ(ReadRecord(), (Record{{"ms_tcpip", std::nullopt}, {"ms_tcpip6", std::nullopt}}));
    EXPECT_FALSE(LockHolder());
    ExpectNoMoreHeld(processId, before);
}

TEST_F(BindingCycles, EngineObjectsAndTableEntriesOfEachCycleAreGivenBack)
{
    monitor = nullptr;
    ASSERT_TRUE(service.StopAndWait());
    machine.Update([](Json& state, lab::Events&) { state["hooks"] = true; });
    ASSERT_TRUE(service.StartAndWait());
    Connect();
    const EventConnection events(monitor);
    machine.ClearJournal();
    ASSERT_NO_FATAL_FAILURE(Cycles(20, events));
    int made = 0;
    int gone = 0;
    int entries = 0;
    int revoked = 0;
    lab::JournalPosition start;
    for (const Json& line : machine.ReadJournal(start))
    {
        const std::string call = lab::TextField(line, "call");
        const bool succeeded = lab::TextField(line, "result") == "0x00000000";
        made += call == "CNetCfg::CreateInstance" ? 1 : 0;
        entries += call == "IGlobalInterfaceTable::RegisterInterfaceInGlobal" && succeeded ? 1 : 0;
        revoked += call == "IGlobalInterfaceTable::RevokeInterfaceFromGlobal" && succeeded ? 1 : 0;
        if (call == "CNetCfg::Gone")
        {
            ++gone;
            EXPECT_EQ(lab::NumberField(lab::Member(line, "out"), "objects", -1), 0);
        }
    }
    EXPECT_EQ(made, 20);
    EXPECT_EQ(gone, 20);
    EXPECT_EQ(entries, 40); // the engine and its lock
    EXPECT_EQ(revoked, 40);
}
} // namespace
