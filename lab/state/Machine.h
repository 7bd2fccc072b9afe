// The one simulated machine of a Wine prefix, as every process of that prefix sees it.
//
// What there is
//   - The state: one JSON document (adapters, addresses, devices, Wi-Fi, bindings, ...; lab/README.md tells its form).
//     It lives in `state.json` of the lab's folder, readable by a person, replaced as a whole at each change.
//   - Events: what Windows would have told its listeners ("media connected", "address changed"). A list in
//     `events.jsonl`; every listener walks it with a cursor of its own, so a slow one loses nothing. The newest ones
//     are kept (SharedBlock.h says how many); a listener that is further behind hears of it once: channel "lab", type
//     "lost".
//   - The journal: one line for each call into the lab, in `journal.jsonl`, as long as it is among the newest.
//   - Fault rules: "the Nth call of C fails with E", with their counters.
//   - The driver's table (DriverTable.h), derived from the state at each change.
//
// The folder is named by the environment variable HALCYD_LAB; without it it is C:\ProgramData\HalcydLab, the only one
// that the kernel driver looks at. Two folders are two machines: tests take one each.
//
// Threads and processes: everything here may be called from any thread. A change takes a named mutex; reading the
// state while nothing has changed, asking for faults while there are no rules, and writing a journal line take no
// cross-process lock. A process that dies inside a change leaves the last complete state behind: files are replaced
// whole, and the list of events ends where its published end says.
//
// Errors: constructors and changes throw std::runtime_error with a text for a person. Journal and Fault never throw.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lab
{

using Json = nlohmann::ordered_json;

// An event is an object with at least "channel" (who listens: "wmi", "address", "wlan", "power", ...) and "type".
// When it is raised it gets "seq" (1, 2, 3, ... without gaps) and "time" (100 ns units since 1601).
using Events = std::vector<Json>;

// The time of events and journal lines: 100 ns units since 1601. TimeText (Text.h) writes it out.
[[nodiscard]] std::uint64_t Now() noexcept;

class Machine;

// One listener's place in the list of events. Not thread-safe: one thread per cursor. Made by Machine::Listen.
class EventCursor
{
public:
    EventCursor(EventCursor&&) noexcept;
    EventCursor& operator=(EventCursor&&) = delete;
    ~EventCursor();

    // The events since the last call, oldest first; waits up to `milliseconds` (INFINITE allowed) until there is one.
    // Returns an empty list after the time, or as soon as `stop` (a waitable handle, or null) is signalled.
    [[nodiscard]] Events Next(std::uint32_t milliseconds, void* stop = nullptr);

    // Waits until the state's version differs from `version` or an event came; false after the time or on `stop`.
    bool WaitForChange(std::uint64_t version, std::uint32_t milliseconds, void* stop = nullptr);

private:
    friend class Machine;
    struct Impl;
    explicit EventCursor(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

// A rule: calls whose name matches `call` are counted; call number `nth` and the `times - 1` after it (times 0: all
// from there on) wait `delayMs` and then fail with `code`. Without `code` they only wait. With `kill` the process of
// the call ends there instead, as in a crash: the call has not done anything, its journal line has the result 0xDEAD.
// `call` is a name such as "IWbemServices::ExecQuery"; a final '*' matches any rest, a lone '*' every call.
// Driver queries are named "QueryOid", "QueryOid:0x00010107", each with "@{GUID}" behind it for one adapter; their
// code is an NTSTATUS, and the driver counts them.
struct FaultRule
{
    std::string call;
    std::uint32_t nth = 1;
    std::uint32_t times = 1;
    std::optional<std::uint32_t> code;
    std::uint32_t delayMs = 0;
    std::uint32_t hits = 0; // so far; output only
    bool kill = false;      // not for the driver's calls
};

// A reader's place in the journal. A fresh one stands at the last clear.
struct JournalPosition
{
    std::uint64_t bytes = 0;   // in the file
    std::uint64_t records = 0; // in the driver's ring
};

class Machine
{
public:
    // The machine of this process. Attached at first use, never detached.
    static Machine& Attach();

    explicit Machine(const std::filesystem::path& folder);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    [[nodiscard]] const std::filesystem::path& Folder() const noexcept;

    // The state as it is now; an empty object before any scenario was loaded. The document is immutable and shared.
    [[nodiscard]] std::shared_ptr<const Json> Snapshot();
    [[nodiscard]] std::uint64_t Version() const noexcept;

    // Changes the state and raises events, as one step: `change` gets a copy of the newest state and may append to the
    // list. If it throws, nothing happened. Listeners wake after both are in place. Returns the new version.
    // `change` runs with the machine's lock held and must not call back into Machine.
    std::uint64_t Update(const std::function<void(Json& state, Events& events)>& change);
    void Raise(Events events);
    [[nodiscard]] EventCursor Listen();                     // from now on
    [[nodiscard]] std::uint64_t LastEvent() const noexcept; // its "seq"; 0 if there was none

    // Journal. `arguments` and `out` are objects (or null for none).
    [[nodiscard]] bool JournalOn() const noexcept;
    void SwitchJournal(bool on);
    // `byRule`: the result is a fault rule's, which the line then says with "fault": true.
    void Journal(std::string_view call, const Json& arguments, std::uint32_t result, const Json& out = nullptr,
                 bool byRule = false) noexcept;
    void ClearJournal();
    // Lines from `position` on, which is moved behind the last one. The driver's records are among them, by time.
    [[nodiscard]] std::vector<Json> ReadJournal(JournalPosition& position);

    // Faults. Fault() counts the call in every rule that matches, waits the delay if one applies, and returns the code
    // to fail with, if any.
    // A rule may also name a detail: Fault("A::B", "x") counts in the rules for "A::B" and for "A::B(x)".
    [[nodiscard]] std::optional<std::uint32_t> Fault(std::string_view call) noexcept;
    [[nodiscard]] std::optional<std::uint32_t> Fault(std::string_view call, std::string_view detail) noexcept;
    void AddFault(const FaultRule& rule);
    [[nodiscard]] std::vector<FaultRule> Faults();
    void ClearFaults();

private:
    friend class EventCursor;
    friend class Call;
    // Fault() with the call's arguments, which go to its journal line if the process ends at it.
    std::optional<std::uint32_t> Decide(std::string_view call, const Json& arguments) noexcept;
    std::optional<std::uint32_t> DecideDetailed(std::string_view call, std::string_view detail,
                                                const Json& arguments) noexcept;
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// One call into the lab, from entry to result: journal line and fault in three lines.
//     Call call{"IWbemServices::ExecQuery"};
//     call.Arg("query", text);
//     if (auto code = call.Fault()) return call.Result(static_cast<HRESULT>(*code));
//     ...
//     return call.Out("count", n).Result(S_OK);
// A call that ends without Result (an exception) is journalled with the result 0xFFFFFFFF.
class Call
{
public:
    explicit Call(std::string_view name, Machine& machine = Machine::Attach());
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    template <class T>
    Call& Arg(std::string_view key, const T& value)
    {
        if (m_journal)
        {
            m_arguments[std::string{key}] = value;
        }
        return *this;
    }
    Call& Arg(std::string_view key, const wchar_t* value); // null is journalled as null
    template <class T>
    Call& Out(std::string_view key, const T& value)
    {
        if (m_journal)
        {
            m_out[std::string{key}] = value;
        }
        return *this;
    }
    [[nodiscard]] bool Journalled() const noexcept { return m_journal; }
    [[nodiscard]] std::optional<std::uint32_t> Fault() noexcept { return Noted(m_machine.Decide(m_name, m_arguments)); }
    [[nodiscard]] std::optional<std::uint32_t> Fault(const wchar_t* detail) noexcept;

    template <class T>
    T Result(T result) noexcept
    {
        Finish(static_cast<std::uint32_t>(result));
        return result;
    }

private:
    std::optional<std::uint32_t> Noted(std::optional<std::uint32_t> code) noexcept
    {
        m_faulted = m_faulted || code.has_value();
        return code;
    }
    void Finish(std::uint32_t result) noexcept;

    Machine& m_machine;
    std::string_view m_name;
    bool m_journal;
    bool m_finished = false;
    bool m_faulted = false;
    Json m_arguments;
    Json m_out;
};

} // namespace lab
