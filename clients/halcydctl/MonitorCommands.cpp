// status, list, open, close.

#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/MonitorClient.h"
#include "clients/halcydctl/Text.h"

namespace
{
const wchar_t* StartTypeName(std::uint32_t startType)
{
    switch (startType)
    {
    case SERVICE_AUTO_START:
        return L"automatic";
    case SERVICE_DEMAND_START:
        return L"on demand";
    case SERVICE_DISABLED:
        return L"disabled";
    default:
        return L"unknown";
    }
}

struct MonitorFacts
{
    bool asked = false; // false if asking would have started something, or could not work
    bool open = false;
    std::int32_t filterMask = 0;
    std::size_t adapters = 0;
};

// Only a running service is asked: status must not start one.
MonitorFacts AskMonitor(const InstallationFacts& facts)
{
    MonitorFacts monitor;
    Failure obstacle;
    if (facts.service != ServiceCondition::Running || FindObstacle(facts, false, obstacle))
    {
        return monitor;
    }
    MonitorConnection connection(false);
    long mask = 0;
    monitor.open = connection.IsOpen();
    Check(connection.Interface()->get_FilterMask(&mask), L"Reading the filter mask");
    monitor.filterMask = mask;
    monitor.adapters = connection.Adapters().size();
    monitor.asked = true;
    return monitor;
}

nlohmann::ordered_json StatusJson(const InstallationFacts& facts, const MonitorFacts& monitor, const Failure* obstacle)
{
    nlohmann::ordered_json json;
    json["service"] = {{"state", Text::ToUtf8(ConditionName(facts.service))},
                       {"processId", facts.processId},
                       {"startType", Text::ToUtf8(StartTypeName(facts.startType))},
                       {"path", Text::ToUtf8(facts.binaryPath)}};
    json["registration"] = {{"classes", facts.classesRegistered},
                            {"asService", facts.startedAsService},
                            {"server", Text::ToUtf8(facts.serverPath)},
                            {"proxies", facts.proxiesRegistered},
                            {"proxyDll", Text::ToUtf8(facts.proxyPath)},
                            {"traceService", facts.traceServiceRegistered},
                            {"traceServer", Text::ToUtf8(facts.traceServicePath)}};
    if (monitor.asked)
    {
        json["monitor"] = {{"open", monitor.open}, {"filterMask", monitor.filterMask}, {"adapters", monitor.adapters}};
    }
    else
    {
        json["monitor"] = nullptr;
    }
    if (obstacle != nullptr)
    {
        json["problem"] = {{"exitCode", static_cast<int>(obstacle->exitCode)},
                           {"reason", Text::ToUtf8(obstacle->reason)},
                           {"cure", Text::ToUtf8(obstacle->cure)}};
    }
    return json;
}

std::wstring Field(const wchar_t* name, const std::wstring& value)
{
    std::wstring line = name;
    line.append(line.size() < 16 ? 16 - line.size() : 1, L' ');
    return Text::Styled(line, Text::Style::Bold) + value;
}

std::wstring YesOrMissing(bool there, const std::wstring& path)
{
    return there ? L"registered  " + Text::Styled(path, Text::Style::Faint)
                 : Text::Styled(L"not registered", Text::Style::Red);
}
} // namespace

ExitCode Commands::Status(const Session& session)
{
    const InstallationFacts facts = ReadInstallation();
    Failure obstacle;
    const bool blocked = FindObstacle(facts, false, obstacle);
    const MonitorFacts monitor = AskMonitor(facts);
    if (session.options.json)
    {
        session.Print(StatusJson(facts, monitor, blocked ? &obstacle : nullptr));
        return blocked ? obstacle.exitCode : ExitCode::Success;
    }
    const bool running = facts.service == ServiceCondition::Running;
    std::wstring service =
        Text::Styled(ConditionName(facts.service), running ? Text::Style::Green : Text::Style::Yellow);
    if (running)
    {
        service += L", process " + std::to_wstring(facts.processId);
    }
    if (facts.service != ServiceCondition::NotInstalled)
    {
        service += std::wstring(L", start ") + StartTypeName(facts.startType);
    }
    session.console.Line(Field(L"Service", service));
    session.console.Line(Field(L"Classes", YesOrMissing(facts.classesRegistered, facts.serverPath)));
    session.console.Line(Field(L"Started by COM", facts.startedAsService ? L"as a service" : L"as a plain server"));
    session.console.Line(Field(L"Proxies", facts.proxiesClaimedByTypeLibrary
                                               ? Text::Styled(L"claimed by the type library", Text::Style::Red)
                                               : YesOrMissing(facts.proxiesRegistered, facts.proxyPath)));
    session.console.Line(Field(L"Trace service", YesOrMissing(facts.traceServiceRegistered, facts.traceServicePath)));
    session.console.Line(Field(L"Monitor", !monitor.asked ? L"not asked"
                                           : monitor.open ? L"open, " + std::to_wstring(monitor.adapters) + L" adapters"
                                                          : L"closed"));
    if (blocked)
    {
        session.console.Line(L"");
        session.console.Line(Text::Styled(obstacle.reason, Text::Style::Red));
        session.console.Line(obstacle.cure);
        return obstacle.exitCode;
    }
    return ExitCode::Success;
}

ExitCode Commands::List(const Session& session)
{
    MonitorConnection connection(session.options.start);
    if (!session.options.asIs)
    {
        connection.Open();
    }
    const std::vector<AdapterView> adapters = connection.Adapters();
    if (session.options.json)
    {
        session.Print({{"adapters", ToJson(adapters)}});
        return ExitCode::Success;
    }
    session.console.Lines(AdapterListing(adapters, session.console.Width()));
    if (session.options.networks)
    {
        session.console.Lines(NetworkTables(adapters, session.console.Width()));
    }
    return ExitCode::Success;
}

ExitCode Commands::Open(const Session& session)
{
    MonitorConnection connection(session.options.start);
    // Not through the connection: this one is meant to stay when the client has gone.
    const HRESULT result = connection.Interface()->Open();
    CheckOpened(result);
    const bool open = connection.IsOpen();
    if (session.options.json)
    {
        session.Print({{"result", static_cast<std::uint32_t>(result)}, {"open", open}});
    }
    else
    {
        session.console.Line(L"The monitor is open. It stays open until as many closes have come: halcydctl close.");
    }
    return ExitCode::Success;
}

ExitCode Commands::Close(const Session& session)
{
    MonitorConnection connection(session.options.start);
    const HRESULT result = connection.Interface()->Close();
    Check(result, L"Closing the monitor");
    const bool open = connection.IsOpen();
    if (session.options.json)
    {
        session.Print({{"result", static_cast<std::uint32_t>(result)}, {"open", open}});
    }
    else
    {
        session.console.Line(open ? L"One open was taken back; others keep the monitor open."
                                  : L"The monitor is closed.");
    }
    return ExitCode::Success;
}
