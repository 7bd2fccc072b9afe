#include "clients/halcydctl/Commands.h"

#include <algorithm>

#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Text.h"

namespace
{
ExitCode Dispatch(const Session& session)
{
    switch (session.options.verb)
    {
    case Verb::Status:
        return Commands::Status(session);
    case Verb::List:
        return Commands::List(session);
    case Verb::Watch:
        return Commands::Watch(session);
    case Verb::Open:
        return Commands::Open(session);
    case Verb::Close:
        return Commands::Close(session);
    case Verb::Trace:
        return Commands::Trace(session);
    case Verb::TraceLevels:
        return Commands::TraceLevels(session);
    case Verb::TraceSetLevel:
        return Commands::TraceSetLevel(session);
    case Verb::RegistryGet:
    case Verb::RegistrySet:
    case Verb::RegistryDelete:
        return Commands::Registry(session);
    case Verb::ServiceQuery:
    case Verb::ServiceStop:
    case Verb::ServiceStart:
        return Commands::Service(session);
    case Verb::BindingsDisable:
    case Verb::BindingsRestore:
    case Verb::BindingsShow:
        return Commands::Bindings(session);
    default:
        return Commands::AdapterSetting(session);
    }
}

void Print(const Session& session, const Failure& failure)
{
    if (session.options.json)
    {
        nlohmann::ordered_json error;
        error["exitCode"] = static_cast<int>(failure.exitCode);
        error["code"] = failure.code;
        error["action"] = Text::ToUtf8(failure.action);
        error["reason"] = Text::ToUtf8(failure.reason);
        error["cure"] = Text::ToUtf8(failure.cure);
        session.Print({{"error", error}});
        return;
    }
    std::wstring line = L"halcydctl: ";
    if (!failure.action.empty())
    {
        line += failure.action + L" failed: ";
    }
    line += failure.reason;
    if (failure.code != 0)
    {
        line += L" (" + Text::Hex(failure.code) + L")";
    }
    session.console.ErrorLine(line);
    if (!failure.cure.empty())
    {
        session.console.ErrorLine(L"  " + failure.cure);
    }
}
} // namespace

void Session::Print(const nlohmann::ordered_json& json) const
{
    console.Line(Text::FromUtf8(json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)));
}

int Commands::Refuse(const ParseOutcome& outcome, bool json)
{
    Console console(ColorChoice::Never);
    const std::wstring text = Text::FromUtf8(outcome.text);
    if (outcome.exitCode == 0)
    {
        console.Line(text);
    }
    else if (json)
    {
        Options options;
        options.json = true;
        Failure failure;
        failure.exitCode = ExitCode::Usage;
        failure.reason = text.substr(0, text.find(L'\n'));
        failure.cure = text.substr(std::min(text.size(), failure.reason.size() + 1));
        Print(Session{options, console}, failure);
    }
    else
    {
        console.ErrorLine(L"halcydctl: " + text);
    }
    return outcome.exitCode;
}

int Commands::Run(const Options& options)
{
    Console console(options.color);
    const Session session{options, console};
    try
    {
        return static_cast<int>(Dispatch(session));
    }
    catch (const Failure& failure)
    {
        Print(session, failure);
        return static_cast<int>(failure.exitCode);
    }
    catch (const std::exception& error)
    {
        Failure failure;
        failure.reason = Text::FromUtf8(error.what());
        Print(session, failure);
        return static_cast<int>(failure.exitCode);
    }
}
