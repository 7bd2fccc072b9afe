// trace, trace levels, trace set-level: an ordinary client of the trace service.

#include <windows.h>
#include <comdef.h>

#include <optional>
#include <string>

#include "TraceLogManager_h.h"
#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/Table.h"
#include "clients/halcydctl/Text.h"
#include "clients/halcydctl/TraceText.h"

_COM_SMARTPTR_TYPEDEF(ITraceStore, __uuidof(ITraceStore));
_COM_SMARTPTR_TYPEDEF(ITraceLogManager, __uuidof(ITraceLogManager));

namespace
{
constexpr std::uint16_t EverySource = 0xFFFF;
constexpr ULONG LinesPerCall = 500;
constexpr ULONG FollowWait = 1000; // milliseconds that one call waits at the trace service; also what Ctrl+C may take
constexpr DWORD ReturnInterval = 1000;
constexpr std::uint16_t SourceCount = 37;

void CheckTrace(HRESULT result, const wchar_t* action)
{
    if (SUCCEEDED(result))
    {
        return;
    }
    Failure failure;
    failure.action = action;
    failure.code = static_cast<std::uint32_t>(result);
    if (result == E_ACCESSDENIED)
    {
        failure.exitCode = ExitCode::AccessDenied;
        failure.reason = L"The trace service was refused access.";
        failure.cure =
            L"Run as administrator: TraceStore.exe -RegServer, which sets the rights of its folder and settings.";
    }
    else
    {
        const std::wstring text = Text::SystemText(static_cast<std::uint32_t>(result));
        failure.reason = text.empty() ? L"The trace service answered with an error." : text;
    }
    throw failure;
}

ITraceStorePtr ConnectTrace()
{
    Failure failure;
    failure.action = L"Reaching the trace service";
    failure.exitCode = ExitCode::TraceServiceMissing;
    if (!ReadInstallation().traceServiceRegistered)
    {
        failure.reason = L"The trace service is not registered.";
        failure.cure = L"Run as administrator: TraceStore.exe -RegServer.";
        throw failure;
    }
    ITraceStorePtr store;
    const HRESULT result = CoCreateInstance(__uuidof(TraceLogManagerClass), nullptr, CLSCTX_LOCAL_SERVER,
                                            __uuidof(ITraceStore), reinterpret_cast<void**>(&store));
    if (FAILED(result))
    {
        failure.code = static_cast<std::uint32_t>(result);
        failure.reason = result == E_NOINTERFACE || result == static_cast<HRESULT>(0x80040155)
                             ? L"The proxies of the trace service (TraceStorePS.dll) are not registered."
                             : L"The trace service could not be started. " + Text::SystemText(failure.code);
        failure.cure = L"Run as administrator: TraceStore.exe -RegServer, with TraceStorePS.dll beside it.";
        throw failure;
    }
    return store;
}

// The records of one ReadLines call.
class RecordBlock
{
public:
    RecordBlock() = default;
    RecordBlock(const RecordBlock&) = delete;
    RecordBlock& operator=(const RecordBlock&) = delete;
    ~RecordBlock()
    {
        for (ULONG index = 0; index < count; ++index)
        {
            SysFreeString(records[index].text);
        }
        CoTaskMemFree(records);
    }

    ULONG count = 0;
    TraceRecord* records = nullptr;
};

class TraceReader
{
public:
    explicit TraceReader(const Session& traceSession) : session(traceSession) {}

    ExitCode Run()
    {
        store = ConnectTrace();
        CheckTrace(store->FindTail(Source(), session.options.level, session.options.lines, &position),
                   L"Reading the trace");
        // What is there now, then what comes.
        while (ReadOnce(0) && !interruption.Requested())
        {
        }
        while (session.options.follow && !interruption.Requested())
        {
            Follow();
        }
        return ExitCode::Success;
    }

private:
    [[nodiscard]] std::uint16_t Source() const { return session.options.source.value_or(EverySource); }

    // Prints one portion; false if there was nothing more.
    bool ReadOnce(ULONG wait)
    {
        RecordBlock block;
        hyper next = position;
        CheckTrace(store->ReadLines(position, Source(), session.options.level, LinesPerCall, wait, &next, &block.count,
                                    &block.records),
                   L"Reading the trace");
        for (ULONG index = 0; index < block.count; ++index)
        {
            const TraceRecord& record = block.records[index];
            const std::wstring text(Text::View(record.text));
            if (session.options.json)
            {
                session.Print(TraceJson(record.number, record.source, record.level, text));
            }
            else
            {
                session.console.Lines(TraceLines(record.source, record.level, text));
            }
        }
        const bool moved = block.count != 0 || next > position;
        position = next;
        return moved;
    }

    void Follow()
    {
        try
        {
            ReadOnce(FollowWait);
        }
        catch (const Failure&)
        {
            Say("traceServiceLost", L"The trace service ended; waiting for it to come back.");
            store = nullptr;
            while (!interruption.Wait(ReturnInterval))
            {
                try
                {
                    store = ConnectTrace();
                    position = 0; // a new run of the trace service counts its own lines from 1
                    Say("traceServiceBack", L"The trace service is back.");
                    return;
                }
                catch (const Failure&)
                {
                    // not yet
                }
            }
        }
    }

    void Say(const char* kind, const wchar_t* words) const
    {
        if (session.options.json)
        {
            session.Print({{"kind", kind}});
        }
        else
        {
            session.console.ErrorLine(words);
        }
    }

    const Session& session;
    Interruption interruption;
    ITraceStorePtr store;
    hyper position = 0;
};
} // namespace

ExitCode Commands::Trace(const Session& session)
{
    TraceReader reader(session);
    return reader.Run();
}

ExitCode Commands::TraceLevels(const Session& session)
{
    const ITraceStorePtr store = ConnectTrace();
    ITraceLogManagerPtr manager;
    CheckTrace(store->QueryInterface(__uuidof(ITraceLogManager), reinterpret_cast<void**>(&manager)),
               L"Reading the levels");
    unsigned short global = 0;
    CheckTrace(manager->GetGlobalLevel(&global), L"Reading the levels");
    TraceStatistics statistics{};
    CheckTrace(store->GetStatistics(&statistics), L"Reading the statistics");
    const std::wstring folder(Text::View(statistics.folder));
    SysFreeString(statistics.folder);

    Table table({{L"Source", 0}, {L"Number", 0}, {L"Own level", 0}, {L"In force", 0}});
    nlohmann::ordered_json sources = nlohmann::ordered_json::array();
    for (std::uint16_t source = 0; source < SourceCount; ++source)
    {
        unsigned short level = 0;
        CheckTrace(manager->GetSourceLevel(source, &level), L"Reading the levels");
        const std::string name = SourceName(source);
        const bool named = name != std::to_string(source);
        if (level == 0 && !named)
        {
            continue; // a source of another program, with nothing set
        }
        const unsigned short effective = level != 0 ? level : global;
        sources.push_back({{"source", source}, {"name", named ? name : ""}, {"level", level}, {"inForce", effective}});
        table.AddRow({named ? Text::FromUtf8(name) : L"-", std::to_wstring(source),
                      level != 0 ? std::to_wstring(level) : L"-", std::to_wstring(effective)});
    }
    if (session.options.json)
    {
        session.Print({{"global", global},
                       {"sources", sources},
                       {"store",
                        {{"folder", Text::ToUtf8(folder)},
                         {"files", statistics.fileCount},
                         {"bytes", statistics.bytesInFiles},
                         {"firstNumber", statistics.firstNumber},
                         {"lastNumber", statistics.lastNumber},
                         {"linesWritten", statistics.linesWritten},
                         {"linesLost", statistics.linesLost},
                         {"clientProcesses", statistics.clientProcesses}}}});
        return ExitCode::Success;
    }
    session.console.Line(L"Global level " + std::to_wstring(global));
    session.console.Lines(table.Lines(session.console.Width()));
    session.console.Line(L"");
    session.console.Line(std::to_wstring(statistics.fileCount) + L" files, " +
                         std::to_wstring(statistics.bytesInFiles / 1024) + L" KB in " + folder);
    session.console.Line(std::to_wstring(statistics.linesWritten) + L" lines written in this run, " +
                         std::to_wstring(statistics.linesLost) + L" lost, " +
                         std::to_wstring(statistics.clientProcesses) + L" client processes");
    return ExitCode::Success;
}

ExitCode Commands::TraceSetLevel(const Session& session)
{
    const ITraceStorePtr store = ConnectTrace();
    const std::uint16_t level = session.options.newLevel;
    const HRESULT result =
        session.options.source ? store->SetSourceLevel(*session.options.source, level) : store->SetGlobalLevel(level);
    CheckTrace(result, L"Setting the level");
    if (session.options.json)
    {
        nlohmann::ordered_json json{{"level", level}};
        json["source"] =
            session.options.source ? nlohmann::ordered_json(*session.options.source) : nlohmann::ordered_json();
        session.Print(json);
    }
    else
    {
        session.console.Line(
            L"Set. A running process takes it over within about a minute, once it has something to trace.");
    }
    return ExitCode::Success;
}
