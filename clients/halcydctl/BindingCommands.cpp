// bindings disable, restore, show.

#include <objbase.h>

#include <atomic>
#include <thread>
#include <vector>

#include "NetUtilities/ComApartment.h"
#include "clients/halcydctl/Automation.h"
#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/MonitorClient.h"
#include "clients/halcydctl/Table.h"
#include "clients/halcydctl/Text.h"

namespace
{
constexpr const wchar_t* RecordKey = L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention";
constexpr const wchar_t* RecordValue = L"BindingDisabledByQRL";
constexpr const wchar_t* Protocols[] = {L"ms_tcpip6", L"ms_tcpip", L"ms_ndiswan"};
constexpr std::int32_t BindingsDisabledEvent = 9;
constexpr std::int32_t BindingsRestoredEvent = 10;
constexpr DWORD ProgressInterval = 1000; // milliseconds
constexpr unsigned HeldInterval = 10;    // seconds between two signs of life while the bindings are away
constexpr DWORD EventGrace = 5000;       // an event may come a little after the call that it belongs to
constexpr std::uint32_t EngineLocked = 0x8004A024;

std::wstring ResultWords(std::int32_t result)
{
    const std::uint32_t code = static_cast<std::uint32_t>(result);
    if (code == EngineLocked)
    {
        return L"another program holds the network configuration (" + Text::Hex(code) + L")";
    }
    const std::wstring text = Text::SystemText(code);
    return (text.empty() ? std::wstring(L"error") : text) + L" (" + Text::Hex(code) + L")";
}

// A call of the monitor that may stay open for long, on a thread of its own.
class OpenCall
{
public:
    template <class Body>
    explicit OpenCall(Body body) : finished(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    {
        thread = std::thread(
            [this, body]
            {
                const ComApartment apartment(COINIT_MULTITHREADED);
                result = body();
                SetEvent(finished.get());
            });
    }
    ~OpenCall() { thread.join(); }
    OpenCall(const OpenCall&) = delete;
    OpenCall& operator=(const OpenCall&) = delete;

    [[nodiscard]] HANDLE Finished() const noexcept { return finished.get(); }
    [[nodiscard]] HRESULT Result() const noexcept { return result; }

private:
    UniqueHandle finished;
    std::atomic<HRESULT> result{S_OK};
    std::thread thread;
};

// Takes events until the wanted one, whose result goes to `result`.
bool TakeEvent(EventQueue& queue, std::int32_t wanted, std::int32_t& result)
{
    MonitorEvent event;
    while (queue.Pop(event))
    {
        if (event.event == wanted)
        {
            result = event.result;
            return true;
        }
    }
    return false;
}

bool AwaitEvent(EventQueue& queue, std::int32_t wanted, DWORD milliseconds, std::int32_t& result)
{
    const ULONGLONG deadline = GetTickCount64() + milliseconds;
    for (;;)
    {
        if (TakeEvent(queue, wanted, result))
        {
            return true;
        }
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline ||
            WaitForSingleObject(queue.Available(), static_cast<DWORD>(deadline - now)) != WAIT_OBJECT_0)
        {
            return TakeEvent(queue, wanted, result);
        }
    }
}

void Report(const Session& session, const char* kind, const std::wstring& words, std::int32_t result)
{
    if (session.options.json)
    {
        session.Print({{"kind", kind}, {"result", static_cast<std::uint32_t>(result)}});
    }
    else
    {
        session.console.Line(words);
    }
}

// A sign of life while the call is open: each second until the service has told what came of it, less often then.
class Progress
{
public:
    explicit Progress(const Session& shownTo) : session(shownTo) {}

    void Told() noexcept
    {
        told = true;
        since = GetTickCount64();
    }
    // To be called each second or more often.
    void Tick()
    {
        const auto seconds = static_cast<unsigned>((GetTickCount64() - since) / ProgressInterval);
        if (seconds < shown + (told ? HeldInterval : 1) && seconds >= shown)
        {
            return;
        }
        shown = seconds;
        if (session.options.json)
        {
            session.Print({{"kind", told ? "held" : "working"}, {"seconds", seconds}});
        }
        else
        {
            session.console.ErrorLine((told ? L"  disabled for " : L"  working for ") + std::to_wstring(seconds) +
                                      L" s ...");
        }
    }

private:
    const Session& session;
    ULONGLONG since = GetTickCount64();
    unsigned shown = 0;
    bool told = false;
};

ExitCode Restore(const Session& session, MonitorConnection& connection, EventQueue& queue)
{
    Check(connection.Interface()->RestoreIpBindings(), L"Restoring the bindings");
    std::int32_t result = 0;
    if (!AwaitEvent(queue, BindingsRestoredEvent, EventGrace, result))
    {
        Report(session, "restored", L"The restore has ended; the service did not tell how.", 0);
        return ExitCode::Failed;
    }
    Report(session, "restored", result == 0 ? L"The bindings are restored." : L"Not restored: " + ResultWords(result),
           result);
    return result == 0 ? ExitCode::Success : ExitCode::Failed;
}

ExitCode Disable(const Session& session)
{
    Interruption interruption;
    EventQueue queue;
    MonitorConnection connection(session.options.start);
    connection.Advise(queue);
    INetMonSv* const monitor = connection.Interface();
    const _bstr_t kept = Automation::String(session.options.guid);
    const long ppp = session.options.pppDevice ? 1 : 0;
    // The monitor is free-threaded and so is this process: the pointer may be used on the other thread as it is.
    OpenCall call([monitor, &kept, ppp] { return monitor->DisableIpBindings(kept, ppp); });

    const HANDLE handles[] = {call.Finished(), queue.Available(), interruption.Handle()};
    std::int32_t outcome = 0;
    bool told = false;
    bool interrupted = false;
    Progress progress(session);
    for (;;)
    {
        const DWORD waited = WaitForMultipleObjects(interrupted ? 2 : 3, handles, FALSE, ProgressInterval);
        if (!told && TakeEvent(queue, BindingsDisabledEvent, outcome))
        {
            told = true;
            progress.Told();
            Report(session, "disabled",
                   outcome == 0 ? L"The bindings of all other adapters are disabled. Ctrl+C restores them."
                                : L"Not disabled: " + ResultWords(outcome),
                   outcome);
        }
        if (waited == WAIT_OBJECT_0 + 2)
        {
            interrupted = true;
            Report(session, "restoring",
                   told ? L"Restoring ..." : L"Restoring, as soon as the service has told what came of it ...", 0);
        }
        // A restore that comes before the outcome would close the session that the service is still opening, and the
        // disable would then wait for another one.
        if (interrupted && told)
        {
            break;
        }
        if (waited == WAIT_OBJECT_0)
        {
            // Ended without us: somebody else restored, or the network configuration was not to be had.
            Check(call.Result(), L"Disabling the bindings");
            if (!told && AwaitEvent(queue, BindingsDisabledEvent, EventGrace, outcome))
            {
                Report(session, "disabled",
                       outcome == 0 ? L"The bindings were disabled." : L"Not disabled: " + ResultWords(outcome),
                       outcome);
            }
            Report(session, "ended", L"The call has ended.", outcome);
            break;
        }
        progress.Tick();
    }
    // A refused disable wants its restore too: that closes the service's session with the configuration engine.
    ExitCode restored = Restore(session, connection, queue);
    // Somebody else's restore may have come too early for the call: it stays open until one more.
    while (WaitForSingleObject(call.Finished(), EventGrace) == WAIT_TIMEOUT)
    {
        restored = Restore(session, connection, queue);
    }
    return outcome != 0 ? ExitCode::Failed : restored;
}

struct RecordEntry
{
    std::wstring protocol;
    std::wstring component;
    bool counts; // a key without its value, or with another one, does not: a restore passes it over
};

// The record is plain registry, readable by everyone; reading it asks nothing of the service.
std::vector<RecordEntry> ReadRecord()
{
    std::vector<RecordEntry> entries;
    for (const wchar_t* const protocol : Protocols)
    {
        const std::wstring path = std::wstring(RecordKey) + L"\\" + protocol;
        UniqueRegistryHandle key;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        {
            continue;
        }
        wchar_t name[256];
        for (DWORD index = 0;; ++index)
        {
            DWORD length = 256;
            if (RegEnumKeyExW(key.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            {
                break;
            }
            DWORD value = 0;
            DWORD size = sizeof value;
            const bool read =
                RegGetValueW(key.get(), name, RecordValue, RRF_RT_REG_DWORD, nullptr, &value, &size) == ERROR_SUCCESS;
            entries.push_back({protocol, name, read && value == 1});
        }
    }
    return entries;
}

ExitCode Show(const Session& session)
{
    const std::vector<RecordEntry> entries = ReadRecord();
    if (session.options.json)
    {
        nlohmann::ordered_json counting = nlohmann::ordered_json::array();
        nlohmann::ordered_json others = nlohmann::ordered_json::array();
        for (const RecordEntry& entry : entries)
        {
            (entry.counts ? counting : others)
                .push_back({{"protocol", Text::ToUtf8(entry.protocol)}, {"component", Text::ToUtf8(entry.component)}});
        }
        session.Print({{"disabledBindings", counting}, {"keysWithoutValue", others}});
        return ExitCode::Success;
    }
    if (entries.empty())
    {
        session.console.Line(L"No binding is recorded as disabled.");
        return ExitCode::Success;
    }
    Table table({{L"Protocol", 0}, {L"Lower component", 0}, {L"A restore", 0}});
    for (const RecordEntry& entry : entries)
    {
        table.AddRow(
            {entry.protocol, entry.component, entry.counts ? L"enables it" : L"passes it over: the key has no value"});
    }
    session.console.Lines(table.Lines(session.console.Width()));
    return ExitCode::Success;
}
} // namespace

ExitCode Commands::Bindings(const Session& session)
{
    if (session.options.verb == Verb::BindingsShow)
    {
        return Show(session);
    }
    if (session.options.verb == Verb::BindingsDisable)
    {
        return Disable(session);
    }
    EventQueue queue;
    MonitorConnection connection(session.options.start);
    connection.Advise(queue);
    return Restore(session, connection, queue);
}
