// From the WMI stand-in's Indicate to the client's Invoke, for a media connect of a Wi-Fi adapter: the path without a
// wait for a gateway. The yardstick is measured in the same rounds: a bare event call between two processes, and the
// WMI and driver calls that the path makes (PathReplay). Beside it stand the other platform calls that the path cannot
// do without (PlatformCalls), so that what the service takes of its own can be seen.
//
// Everything is timed as an event comes: after the same rest, on a thread that waits for the lab's events, right behind
// an event that this process has raised (Woken). Without the rest the service's trace of the last event would run
// beside whatever is timed next; without the event it would start on a machine that has only just woken, which the path
// never does.

#include <windows.h>

#include <comdef.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Halcyd_h.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Event.h"
#include "bench/IdleServer.h"
#include "bench/Measure.h"
#include "bench/PathReplay.h"
#include "bench/PlatformCalls.h"
#include "lab/state/Changes.h"
#include "lab/state/Machine.h"
#include "lab/state/Text.h"
#include "tests/support/ComPointers.h"
#include "tests/support/EventRecorder.h"

_COM_SMARTPTR_TYPEDEF(IDispatch, IID_IDispatch);

namespace
{

constexpr char kConnect[] = "MSNdis_StatusMediaConnect";
constexpr std::int64_t kDay = 24LL * 3600 * 10'000'000;
constexpr DWORD kRest = 40; // milliseconds

// The last adapter whose driver says that it is a Wi-Fi card: a walk through the list has the longest way to it.
lab::Json WifiAdapter()
{
    constexpr int wirelessLan = 9; // NdisPhysicalMediumNative802_11
    lab::Json found;
    for (const lab::Json& adapter : lab::Machine::Attach().Snapshot()->at("adapters"))
    {
        const auto driver = adapter.find("driver");
        if (driver != adapter.end() && driver->value("physicalMedium", 0) == wirelessLan)
            found = adapter;
    }
    if (found.is_null())
        throw std::runtime_error("the scenario has no Wi-Fi adapter");
    return found;
}

// 100 ns units since midnight, the journal's clock.
std::int64_t TimeOfDay()
{
    ULARGE_INTEGER now{};
    GetSystemTimePreciseAsFileTime(reinterpret_cast<FILETIME*>(&now));
    return static_cast<std::int64_t>(now.QuadPart) % kDay;
}

// Of a journal's "2026-01-05T08:15:00.1234567Z".
std::int64_t TimeOfDay(const std::string& text)
{
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int fraction = 0;
    if (std::sscanf(text.c_str(), "%*4d-%*2d-%*2dT%2d:%2d:%2d.%7d", &hours, &minutes, &seconds, &fraction) != 4)
        return 0;
    return ((hours * 60LL + minutes) * 60 + seconds) * 10'000'000 + fraction;
}

// When the stand-in called the sink; its line's own time is that of the return.
std::int64_t TimeOfIndicate(const std::vector<lab::Json>& journal)
{
    for (const lab::Json& line : journal)
    {
        if (line.value("call", "") == "IWbemObjectSink::Indicate")
            return TimeOfDay(line.at("args").value("called", ""));
    }
    throw std::runtime_error("the journal has no Indicate");
}

// The monitor, open, with its notifications on, for the life of this object.
class OpenMonitor
{
public:
    OpenMonitor() : m_monitor(ActivateMonitor())
    {
        if (m_monitor == nullptr || m_monitor->Open() != S_OK || m_monitor->StartNotificationProcessing() != S_OK)
            throw std::runtime_error("the monitor cannot be opened");
    }
    ~OpenMonitor()
    {
        m_monitor->StopNotificationProcessing();
        m_monitor->Close();
    }
    OpenMonitor(const OpenMonitor&) = delete;
    OpenMonitor& operator=(const OpenMonitor&) = delete;

    [[nodiscard]] INetMonSv* Get() const noexcept { return m_monitor; }

private:
    INetMonSvPtr m_monitor;
};

// One connect, and the way of its news. Throws if the client hears nothing.
class EventPath
{
public:
    explicit EventPath(INetMonSv* monitor) : m_adapter(WifiAdapter()), m_connection(monitor)
    {
        m_connection->OnEvent(
            [this](const RecordedEvent& event)
            {
                if (event.event == enumEventMediaConnect)
                    m_arrival = TimeOfDay();
                return S_OK;
            });
        lab::Machine::Attach().ReadJournal(m_position).clear();
    }

    // Nanoseconds from Indicate to Invoke.
    std::int64_t Once()
    {
        m_connection->Clear();
        Sleep(kRest);
        lab::Machine::Attach().Raise({lab::NdisEvent(m_adapter, kConnect)});
        if (!m_connection->WaitForEvent(enumEventMediaConnect))
            throw std::runtime_error("a connect did not reach the client");
        const std::int64_t arrival = m_arrival;
        Sleep(kRest); // the last lines of the service's path, and its trace
        m_journal = lab::Machine::Attach().ReadJournal(m_position);
        return (arrival - TimeOfIndicate(m_journal)) * 100;
    }

    [[nodiscard]] std::wstring Adapter() const { return lab::Wide(m_adapter.at("guid").get<std::string>()); }

    // The lab's account of the last one, without this process's own calls.
    [[nodiscard]] std::vector<lab::Json> Journal() const
    {
        std::vector<lab::Json> calls;
        for (const lab::Json& line : m_journal)
        {
            if (line.value("process", "") != "HalcydBench.exe" &&
                !(line.value("process", "") == "driver" && line.value("pid", 0UL) == GetCurrentProcessId()))
                calls.push_back(line);
        }
        return calls;
    }

private:
    lab::Json m_adapter;
    EventConnection m_connection;
    lab::JournalPosition m_position;
    std::vector<lab::Json> m_journal;
    std::atomic<std::int64_t> m_arrival{0};
};

// The idle server's process with one object in it that answers Invoke: no more than a call, and as much as an event.
class BareEvents
{
public:
    BareEvents()
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring command = path;
        command = L"\"" + command.substr(0, command.rfind(L'\\') + 1) + L"BenchIdleServer.exe\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        {
            CloseHandle(process.hThread);
            CloseHandle(process.hProcess); // ends by itself with its last object
        }
        constexpr int attempts = 500;
        for (int i = 0; i < attempts && m_sink == nullptr; ++i)
        {
            if (FAILED(m_sink.CreateInstance(CLSID_BenchIdle, nullptr, CLSCTX_LOCAL_SERVER)))
                Sleep(10); // not registered yet
        }
        if (m_sink == nullptr)
            throw std::runtime_error("the idle server does not answer");
    }

    // The arguments of an AdapterChange, last first. Nanoseconds of the call.
    std::int64_t Once() const
    {
        _variant_t arguments[3] = {LONG{enumEventMediaConnect}, L"00:00:00:00:00:00", kDevice};
        DISPPARAMS parameters{arguments, nullptr, 3, 0};
        const std::int64_t start = NowNanoseconds();
        m_sink->Invoke(2, IID_NULL, LOCALE_NEUTRAL, DISPATCH_METHOD, &parameters, nullptr, nullptr, nullptr);
        return NowNanoseconds() - start;
    }

private:
    static constexpr wchar_t kDevice[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
    IDispatchPtr m_sink;
};

// Does what is to be timed in the place where the stand-in for WMI calls its sink: on a thread that an event has woken.
class Woken
{
public:
    Woken() : m_cursor(lab::Machine::Attach().Listen()), m_thread([this](const std::stop_token& stop) { Run(stop); }) {}
    ~Woken()
    {
        m_thread.request_stop();
        lab::Machine::Attach().Raise({kCall});
    }
    Woken(const Woken&) = delete;
    Woken& operator=(const Woken&) = delete;

    // What `timed` returns; it runs on the other thread.
    std::int64_t Time(std::function<std::int64_t()> timed)
    {
        Sleep(kRest);
        m_timed = std::move(timed);
        lab::Machine::Attach().Raise({kCall});
        m_done.Wait(INFINITE);
        return m_result;
    }

private:
    void Run(const std::stop_token& stop)
    {
        const ComApartment apartment;
        while (!stop.stop_requested())
        {
            // Those of the path come by here too.
            if (const lab::Events events = m_cursor.Next(INFINITE);
                stop.stop_requested() || events.empty() || events.front().value("channel", "") != "bench")
                continue;
            m_result = m_timed();
            m_done.Set();
        }
    }

    inline static const lab::Json kCall{{"channel", "bench"}, {"type", "call"}};

    lab::EventCursor m_cursor;
    std::function<std::int64_t()> m_timed;
    std::int64_t m_result = 0;
    Event m_done{false, false};
    std::jthread m_thread; // last: it uses the others
};

// Events per second that reach all of `clients` sinks.
double EventsPerSecond(INetMonSv* monitor, int clients, int events)
{
    std::vector<std::unique_ptr<EventConnection>> sinks;
    for (int i = 0; i < clients; ++i)
        sinks.push_back(std::make_unique<EventConnection>(monitor));
    const lab::Json adapter = WifiAdapter();
    const std::int64_t start = NowNanoseconds();
    lab::Machine::Attach().Raise(lab::Events(static_cast<std::size_t>(events), lab::NdisEvent(adapter, kConnect)));
    for (const auto& sink : sinks)
    {
        if (!(*sink)->WaitForCount(static_cast<std::size_t>(events), 120'000))
            throw std::runtime_error("events were lost");
    }
    return events / (static_cast<double>(NowNanoseconds() - start) / 1e9);
}

int Guarded(int (*run)(int), int rounds)
try
{
    return run(rounds);
}
catch (const std::exception& error)
{
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
catch (const _com_error& error)
{
    std::fprintf(stderr, "COM error 0x%08lx\n", static_cast<unsigned long>(error.Error()));
    return 1;
}

int EventLatency(int rounds)
{
    const OpenMonitor monitor;
    EventPath path(monitor.Get());
    BareEvents bare;
    for (int i = 0; i < 5; ++i)
        path.Once(); // warm, and the account of a path that has nothing new in it
    PathReplay replay(path.Journal());
    const PlatformCalls platform(path.Adapter());
    Woken woken;
    Samples whole;
    Samples call;
    Samples calls;
    Samples key;
    Samples process;
    for (int i = 0; i < rounds; ++i)
    {
        whole.Add(path.Once());
        call.Add(woken.Time([&bare] { return bare.Once(); }));
        calls.Add(woken.Time([&replay] { return replay.Run(); }));
        key.Add(woken.Time([&platform] { return platform.FindAdapterKey(); }));
        process.Add(woken.Time([&platform] { return platform.FindClientProcess(); }));
    }
    PrintResult("events", {{"event_p50_ns", whole.Percentile(0.5)},
                           {"event_p99_ns", whole.Percentile(0.99)},
                           {"bare_p50_ns", call.Percentile(0.5)},
                           {"bare_p99_ns", call.Percentile(0.99)},
                           {"calls_p50_ns", calls.Percentile(0.5)},
                           {"calls_p99_ns", calls.Percentile(0.99)},
                           {"key_p50_ns", key.Percentile(0.5)},
                           {"key_p99_ns", key.Percentile(0.99)},
                           {"process_p50_ns", process.Percentile(0.5)},
                           {"process_p99_ns", process.Percentile(0.99)},
                           {"calls", static_cast<double>(replay.Calls())}});
    return 0;
}

int EventRates(int events)
{
    const OpenMonitor monitor;
    const double one = EventsPerSecond(monitor.Get(), 1, events);
    const double four = EventsPerSecond(monitor.Get(), 4, events);
    PrintResult("event_rates", {{"one_client", one}, {"four_clients", four}});
    return 0;
}

int ListLength(int rounds)
{
    const OpenMonitor monitor;
    EventPath path(monitor.Get());
    for (int i = 0; i < 3; ++i)
        path.Once();
    Samples whole;
    for (int i = 0; i < rounds; ++i)
        whole.Add(path.Once());
    PrintResult("event_list", {{"event_p50_ns", whole.Percentile(0.5)}});
    return 0;
}

} // namespace

int RunEventBench(int rounds)
{
    return Guarded(EventLatency, rounds);
}

int RunEventRateBench(int events)
{
    return Guarded(EventRates, events);
}

int RunEventListBench(int rounds)
{
    return Guarded(ListLength, rounds);
}
