// The service dies at every platform call of a disable, of a restore, and of the restore that a start makes, is started
// again each time, and bindings and record are compared with what is due. What is due is worked out here, from the
// calls that were made before the end; docs/bindings-after-a-crash.md tells it to people, and is compared with what was
// seen.

#include <algorithm>
#include <optional>
#include <ranges>
#include <sstream>
#include <vector>

#include "bindings/BindingsAfterACrash.h"
#include "bindings/BindingsMachine.h"
#include "Monitor/MonitorMachine.h"
#include "tests/support/Processes.h"
#include "tests/support/TraceStoreKept.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

namespace
{
using namespace BindingsMachine;
using lab::Json;

constexpr char kRoot[] = "SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention\\";
constexpr DWORD kPatienceMs = 60'000;

// One call of the service, as the journal tells it.
struct PlatformCall
{
    std::string name;
    std::string detail; // what it is about: path, id, key
    bool succeeded = false;
    bool wasTheEnd = false; // the process ended at its entry
    bool operator==(const PlatformCall& other) const { return name == other.name && detail == other.detail; }
};

std::string Detail(const Json& line)
{
    const Json& arguments = lab::Member(line, "args");
    for (const char* key : {"path", "id", "2", "1"})
    {
        std::string text = lab::TextField(arguments, key);
        if (!text.empty())
        {
            return text.rfind(kRoot, 0) == 0 ? "...\\" + text.substr(sizeof kRoot - 1) : text;
        }
    }
    return {};
}

// What a crash leaves, and what the next start makes of it.
struct Left
{
    std::set<std::string> pathsOff;
    Record record;
    bool operator==(const Left&) const = default;
};

// Adapters by their part in the test instead of their ids.
std::string Readable(std::string text)
{
    for (const auto& [id, name] : {std::pair{kCard, "card"}, std::pair{kTunnel, "tunnel"}})
    {
        const std::string guid = lab::Utf8(id);
        for (std::size_t at = text.find(guid); at != std::string::npos; at = text.find(guid))
        {
            text.replace(at, guid.size(), name);
        }
    }
    return text;
}

std::string Names(const Left& left)
{
    std::string text = left.pathsOff.empty() ? "on" : "off: ";
    for (const std::string& path : left.pathsOff)
    {
        text += (text == "off: " ? "" : ", ") + path.substr(0, path.find("->"));
    }
    text += " | ";
    std::string keys;
    for (const auto& [key, value] : left.record)
    {
        keys += (keys.empty() ? "" : ", ") + Readable(key) + (value ? " = " + std::to_string(*value) : "");
    }
    return text + (keys.empty() ? "none" : keys);
}

std::ostream& operator<<(std::ostream& out, const Left& left)
{
    return out << Names(left);
}

class BindingsAfterACrash : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(apartment.Initialized());
        Load();
        ASSERT_TRUE(service.StartAndWait());
        traceStore.emplace();
        ASSERT_TRUE(service.StopAndWait());
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane\\Tunvex");
        machine.Update([](Json& state, lab::Events&) { state["hooks"] = true; });
        static_cast<void>(StartFresh());
    }

    // Starts the service and waits until it is at rest: the last call behind RUNNING asks for the tunnel's key, and the
    // trace's thread, which goes its own way, runs the trace store's object as the start runs the monitor.
    // Gives its calls.
    std::vector<PlatformCall> StartFresh()
    {
        static_cast<void>(machine.ReadJournal(position));
        EXPECT_TRUE(StartService(service));
        Hold(service.ProcessId());
        bool tunnelAsked = false;
        int objectsRun = 0;
        return AwaitCall(
            [&](const PlatformCall& call)
            {
                tunnelAsked |= call.name == "RegOpenKeyExW" && call.detail.find("Tunvex") != std::string::npos;
                objectsRun += call.name == "OleRun" ? 1 : 0;
                return tunnelAsked && objectsRun == 2;
            });
    }

    void Hold(DWORD processId)
    {
        processes.emplace_back(OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, processId));
        EXPECT_TRUE(processes.back()) << processId;
    }

    // The service's calls since the last look, in the order of the journal.
    std::vector<PlatformCall> NewCalls()
    {
        std::vector<PlatformCall> calls;
        for (const Json& line : machine.ReadJournal(position))
        {
            // The end of the engine object is told by the stand-in: no call of the service.
            if (lab::TextField(line, "process") == "Halcyd.exe" && lab::TextField(line, "call") != "CNetCfg::Gone")
            {
                const std::string result = lab::TextField(line, "result");
                calls.push_back(
                    {lab::TextField(line, "call"), Detail(line), result == "0x00000000", result == "0x0000DEAD"});
            }
        }
        return calls;
    }

    // A line is written when its call returns, and positions count from where calls begin. Two calls differ in that:
    // the making of the engine lies inside CoCreateInstance, and a thread may be at work before the call that made it
    // has returned. Both outer calls may never have returned.
    static std::vector<PlatformCall> InOrderOfTheirBeginning(std::vector<PlatformCall> calls)
    {
        PutBefore(calls, "CNetCfg::CreateInstance", "CoCreateInstance");
        PutBefore(calls, "CoInitializeEx", "_beginthreadex");
        return calls;
    }

    // Where `inner` was called, `outer` stands before it.
    static void PutBefore(std::vector<PlatformCall>& calls, const std::string& inner, const std::string& outer)
    {
        const auto named = [&calls](const std::string& name)
        { return std::ranges::find_if(calls, [&name](const PlatformCall& call) { return call.name == name; }); };
        if (named(inner) == calls.end())
        {
            return;
        }
        PlatformCall moved{outer, "", true, false};
        if (const auto found = named(outer); found != calls.end())
        {
            moved = *found;
            calls.erase(found);
        }
        calls.insert(named(inner), moved);
    }

    // Gathers calls until one is as wanted, each shown to `wanted` once; in the order in which they began.
    template <class Test>
    std::vector<PlatformCall> AwaitCall(const Test& wanted)
    {
        std::vector<PlatformCall> calls;
        const ULONGLONG end = GetTickCount64() + kPatienceMs;
        for (;;)
        {
            bool came = false;
            for (PlatformCall& call : NewCalls())
            {
                came |= wanted(call);
                calls.push_back(std::move(call));
            }
            if (came)
            {
                return InOrderOfTheirBeginning(std::move(calls));
            }
            if (GetTickCount64() >= end)
            {
                ADD_FAILURE() << "a call of the service did not come";
                return calls;
            }
            Sleep(2);
        }
    }

    // The restore-finished event is made behind all else, and then the wait begins.
    static bool IsTheWait(const PlatformCall& call) { return call.name == "CreateEventW"; }

    // At the `number`th call from now on, or the `number`th one of a name.
    void KillAtCall(std::size_t number, const std::string& name = "*")
    {
        lab::FaultRule rule;
        rule.call = name;
        rule.nth = static_cast<std::uint32_t>(number);
        rule.kill = true;
        machine.AddFault(rule);
    }

    // The process has said that it ends. Now and then Wine keeps one that ended itself among the living: its program
    // has gone, but its pipes stay open, and whoever calls it waits for ever. Ended from outside it goes for good.
    void MakeSureOfTheEnd()
    {
        TerminateProcess(processes.back().get(), 0xDEAD);
        ASSERT_EQ(WaitForSingleObject(processes.back().get(), kPatienceMs), WAIT_OBJECT_0);
    }

    static Left Now() { return {PathsOff(), ReadRecord()}; }

    // The process has gone with the call that it was killed at; starts it again. What was left goes to `left`, what the
    // start made of it to `healed`.
    void Restart(Left& left, Left& healed)
    {
        MakeSureOfTheEnd();
        left = Now();
        EXPECT_FALSE(LockHolder()) << "the write lock outlived its process";
        machine.ClearFaults();
        static_cast<void>(StartFresh());
        healed = Now();
        EXPECT_FALSE(LockHolder());
    }

    // Brings the machine back to its start, without a restart of the service.
    void Clean()
    {
        AllPathsOn();
        RemoveRecord();
    }

    // Runs `operation` once for each of its `calls`, as an undisturbed run made them, with the service killed at it.
    template <class Prepare, class Operation, class Expect>
    std::string Sweep(const std::vector<PlatformCall>& calls, const Prepare& prepare, const Operation& operation,
                      const Expect& expect)
    {
        std::vector<std::string> rows;
        for (std::size_t number = 1; number <= calls.size() && !HasFatalFailure(); ++number)
        {
            SCOPED_TRACE(testing::Message() << "killed at call " << number << ", " << calls[number - 1].name);
            Clean();
            prepare();
            const std::vector<PlatformCall> made = DieAtCall(number, operation);
            EXPECT_TRUE(std::ranges::equal(made, calls | std::views::take(number))) << Listed(made);
            Left left;
            Left healed;
            Restart(left, healed);
            const auto [dueLeft, dueHealed] = expect(
                std::vector<PlatformCall>(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(number) - 1));
            EXPECT_EQ(left, dueLeft);
            EXPECT_EQ(healed, dueHealed);
            rows.push_back(Names(left) + " | " + Names(healed));
        }
        return Table(calls, rows);
    }

    // The calls that `operation` made until the service died at the `number`th of them.
    template <class Operation>
    std::vector<PlatformCall> DieAtCall(std::size_t number, const Operation& operation)
    {
        static_cast<void>(NewCalls());
        KillAtCall(number);
        std::future<HRESULT> client = operation();
        const std::vector<PlatformCall> made = AwaitCall([](const PlatformCall& call) { return call.wasTheEnd; });
        MakeSureOfTheEnd();
        EXPECT_TRUE(Comes(client));
        EXPECT_TRUE(FAILED(client.get()));
        return made;
    }

    // The calls that a start made until the service died at the `nth` call of this name.
    std::vector<PlatformCall> DieInStart(const std::string& name, std::size_t nth)
    {
        MakeSureOfTheEnd(); // of the service of the round before
        static_cast<void>(NewCalls());
        KillAtCall(nth, name);
        EXPECT_TRUE(BeginStart(service));
        std::vector<PlatformCall> made = AwaitCall([](const PlatformCall& call) { return call.wasTheEnd; });
        for (const DWORD processId : FindProcesses(L"Halcyd.exe"))
        {
            Hold(processId);
        }
        return made;
    }

    static std::string Listed(const std::vector<PlatformCall>& calls)
    {
        std::ostringstream out;
        for (std::size_t i = 0; i < calls.size(); ++i)
        {
            out << i + 1 << "  " << calls[i].name;
            if (!calls[i].detail.empty())
            {
                out << "  " << Readable(calls[i].detail);
            }
            out << '\n';
        }
        return out.str();
    }

    // Calls in a row that leave the same behind share a line of the table; each was tried by itself.
    static std::string Table(const std::vector<PlatformCall>& calls, const std::vector<std::string>& rows)
    {
        std::ostringstream out;
        out << "| Killed at | Bindings | Record | Bindings after the start | Record after it "
               "|\n|---|---|---|---|---|\n";
        for (std::size_t first = 0; first < rows.size();)
        {
            std::size_t last = first;
            while (last + 1 < rows.size() && rows[last + 1] == rows[first])
            {
                ++last;
            }
            out << "| " << first + 1;
            if (last != first)
            {
                out << " to " << last + 1;
            }
            out << " | " << rows[first] << " |\n";
            first = last + 1;
        }
        out << "\n```\n" << Listed(calls) << "```\n";
        return out.str();
    }

    // The part of the page between its two marks, which is what this test makes.
    static void CompareWithPage(const std::string& part, const std::string& made)
    {
        const std::string page = kBindingsAfterACrashPage;
        const std::string begin = "<!-- begin " + part + " -->\n";
        const std::size_t from = page.find(begin);
        const std::size_t to = page.find("<!-- end " + part + " -->");
        ASSERT_TRUE(from != std::string::npos && to != std::string::npos);
        EXPECT_TRUE(page.substr(from + begin.size(), to - from - begin.size()) == made)
            << "docs/bindings-after-a-crash.md is to say, between its marks of '" << part << "':\n"
            << made;
    }

    ComApartment apartment;
    ServiceControl service;
    std::optional<TraceStoreKept> traceStore; // there are many starts
    // Every process of the service, the dead ones too: an id is not given again while a handle is open. COM finds its
    // objects by the process's id, so a new process with the id of a dead one would be taken for that.
    std::vector<UniqueHandle> processes;
    lab::Machine& machine = lab::Machine::Attach();
    lab::JournalPosition position;
};

// What a disable leaves that a crash has interrupted: the card's paths are off, and records say so.
void LeaveRecords()
{
    Lab(L"bindings set ms_tcpip lab_card off");
    Lab(L"bindings set ms_tcpip6 lab_card off");
    const DWORD one = 1;
    for (const wchar_t* protocol : {L"\\ms_tcpip\\", L"\\ms_tcpip6\\"})
    {
        EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, (std::wstring(kRecordRoot) + protocol + kCard).c_str(),
                                  L"BindingDisabledByQRL", REG_DWORD, &one, sizeof one),
                  0);
    }
}

bool WasMade(const std::vector<PlatformCall>& done, const std::string& name)
{
    return std::any_of(done.begin(), done.end(), [&](const PlatformCall& call) { return call.name == name; });
}

std::set<std::string> CardOff()
{
    return {"ms_tcpip6->" + lab::Utf8(kCard), "ms_tcpip->" + lab::Utf8(kCard)};
}

// A disable: the engine carries changes out at Apply and forgets those of a dead client. A key is there once it was
// created, never with its value. The next start passes such keys over and removes them; the protocols' keys stay.
std::pair<Left, Left> DueAfterDisable(const std::vector<PlatformCall>& done)
{
    Left left;
    Left healed;
    for (const PlatformCall& call : done)
    {
        if (call.name == "RegCreateKeyExW")
        {
            const std::string key = call.detail.substr(4);
            const std::string protocol = key.substr(0, key.find('\\'));
            left.record[key] = std::nullopt;
            left.record[protocol] = std::nullopt;
            healed.record[protocol] = std::nullopt;
        }
    }
    if (WasMade(done, "INetCfg::Apply"))
    {
        left.pathsOff = CardOff();
    }
    healed.pathsOff = left.pathsOff;
    return {left, healed};
}

// A restore of complete records: on again with Apply, and the keys go one by one behind that. Whatever was left, the
// next start enables the rest and removes it.
std::pair<Left, Left> DueAfterRestore(const std::vector<PlatformCall>& done)
{
    const std::string card = lab::Utf8(kCard);
    Left left;
    left.record = {{"ms_tcpip", std::nullopt},
                   {"ms_tcpip6", std::nullopt},
                   {"ms_tcpip\\" + card, 1UL},
                   {"ms_tcpip6\\" + card, 1UL}};
    std::string protocol;
    for (const PlatformCall& call : done)
    {
        if (call.name == "RegOpenKeyExW" && call.detail.rfind("...\\", 0) == 0)
        {
            protocol = call.detail.substr(4);
        }
        if (call.name == "RegDeleteKeyExW" && call.succeeded)
        {
            left.record.erase(protocol + "\\" + call.detail);
        }
    }
    if (!WasMade(done, "INetCfg::Apply"))
    {
        left.pathsOff = CardOff();
    }
    return {left, {{}, {{"ms_tcpip", std::nullopt}, {"ms_tcpip6", std::nullopt}}}};
}

TEST_F(BindingsAfterACrash, DisableKilledAtEachOfItsCallsLeavesWhatTheTableSays)
{
    std::future<HRESULT> call = Disable(LivingMonitor());
    const std::vector<PlatformCall> calls = AwaitCall(IsTheWait);
    ASSERT_EQ(LivingMonitor()->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));

    const std::string table = Sweep(calls, [] {}, [] { return Disable(LivingMonitor()); }, DueAfterDisable);
    CompareWithPage("disable", table);
}

TEST_F(BindingsAfterACrash, ServiceKilledWhileADisableWaitsLeavesTheBindingsOff)
{
    std::future<HRESULT> call = Disable(LivingMonitor());
    const std::vector<PlatformCall> calls = AwaitCall(IsTheWait);
    ASSERT_TRUE(KillProcess(service.ProcessId()));
    ASSERT_TRUE(Comes(call));
    EXPECT_TRUE(FAILED(call.get()));
    Left left;
    Left healed;
    Restart(left, healed);
    const auto [dueLeft, dueHealed] = DueAfterDisable(calls);
    EXPECT_EQ(left, dueLeft);
    EXPECT_EQ(healed, dueHealed);
    EXPECT_EQ(healed.pathsOff, CardOff());
}

TEST_F(BindingsAfterACrash, RestoreKilledAtEachOfItsCallsIsFinishedByTheNextStart)
{
    std::future<HRESULT> call; // of the disable; one that is left over from the round before ends with its service
    const auto prepare = [&]
    {
        call = Disable(LivingMonitor());
        AwaitCall(IsTheWait);
        CompleteRecord();
    };
    prepare();
    static_cast<void>(NewCalls());
    ASSERT_EQ(LivingMonitor()->RestoreIpBindings(), S_OK);
    const std::vector<PlatformCall> calls = InOrderOfTheirBeginning(NewCalls());
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(Now(), DueAfterRestore(calls).second);

    const std::string table = Sweep(calls, prepare, [] { return Restore(LivingMonitor()); }, DueAfterRestore);
    CompareWithPage("restore", table);
}

// The calls of a start before its restore, and those of the restore: from the making of the engine to the end of its
// session. Of their names the trace's thread, which starts beside it, has CoCreateInstance and OleRun.
struct StartCalls
{
    explicit StartCalls(std::vector<PlatformCall> all)
    {
        std::erase_if(all, [](const PlatformCall& call)
                      { return call.name == "CoCreateInstance" || call.name == "OleRun"; });
        const auto first = std::ranges::find(all, "CNetCfg::CreateInstance", &PlatformCall::name);
        const auto last = std::find_if(all.rbegin(), std::make_reverse_iterator(first), [](const PlatformCall& call)
                                       { return call.name == "IGlobalInterfaceTable::RevokeInterfaceFromGlobal"; });
        before.assign(all.begin(), first);
        restore.assign(first, last.base());
    }

    // How many calls of its name a start has made with this one of the restore.
    std::size_t Nth(std::size_t number) const
    {
        const std::string& name = restore[number - 1].name;
        return static_cast<std::size_t>(
            std::ranges::count(before, name, &PlatformCall::name) +
            std::ranges::count(restore | std::views::take(number), name, &PlatformCall::name));
    }

    std::vector<PlatformCall> before;
    std::vector<PlatformCall> restore;
};

TEST_F(BindingsAfterACrash, StartKilledAtEachCallOfItsRestoreIsFinishedByTheNextStart)
{
    MakeSureOfTheEnd();
    LeaveRecords();
    const StartCalls start(StartFresh());
    const std::vector<PlatformCall>& calls = start.restore;
    EXPECT_EQ(Now(), DueAfterRestore(calls).second);

    std::vector<std::string> rows;
    for (std::size_t number = 1; number <= calls.size() && !HasFatalFailure(); ++number)
    {
        const PlatformCall& last = calls[number - 1];
        SCOPED_TRACE(testing::Message() << "killed at call " << number << ", " << last.name);
        Clean();
        LeaveRecords();
        const std::vector<PlatformCall> made = DieInStart(last.name, start.Nth(number));
        const auto end = std::ranges::find_if(made, &PlatformCall::wasTheEnd);
        EXPECT_TRUE(end != made.end() && *end == last) << Listed(made);
        Left left;
        Left healed;
        Restart(left, healed);
        const auto [dueLeft, dueHealed] = DueAfterRestore(
            std::vector<PlatformCall>(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(number) - 1));
        EXPECT_EQ(left, dueLeft);
        EXPECT_EQ(healed, dueHealed);
        rows.push_back(Names(left) + " | " + Names(healed));
    }
    CompareWithPage("start", Table(calls, rows));
}
} // namespace
