// control, power, hooks: what reaches the service from outside its own calls.
#include "lab/labctl/Verbs.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <iostream>
#include <map>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

constexpr std::uint32_t waitSlice = 60000;

const std::map<std::string, std::uint32_t>& ControlNames()
{
    static const std::map<std::string, std::uint32_t> names{{"stop", 1},        {"pause", 2},    {"continue", 3},
                                                            {"interrogate", 4}, {"shutdown", 5}, {"device", 11},
                                                            {"power", 13},      {"session", 14}};
    return names;
}

std::uint32_t ControlCode(const std::string& text)
{
    if (const auto named = ControlNames().find(Lower(text)); named != ControlNames().end())
    {
        return named->second;
    }
    if (const auto number = ParseNumber(text))
    {
        return *number;
    }
    throw std::runtime_error("no control '" + text +
                             "': a number, or stop, pause, continue, interrogate, shutdown, device, power, session");
}

// Any two senders differ in process or time.
std::uint64_t RequestNumber()
{
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return (static_cast<std::uint64_t>(GetCurrentProcessId()) << 32 ^ static_cast<std::uint64_t>(counter.QuadPart)) >>
           1;
}

std::uint32_t SendControl(std::uint32_t code, std::uint32_t type, const std::string& data, std::uint32_t milliseconds)
{
    Machine& machine = Machine::Attach();
    EventCursor cursor = machine.Listen();
    const std::uint64_t request = RequestNumber();
    machine.Raise({{{"channel", "control"},
                    {"type", "send"},
                    {"id", request},
                    {"code", code},
                    {"eventType", type},
                    {"data", data}}});
    const ULONGLONG end = GetTickCount64() + milliseconds;
    for (ULONGLONG now = GetTickCount64(); now < end; now = GetTickCount64())
    {
        for (const Json& event : cursor.Next(static_cast<std::uint32_t>(end - now)))
        {
            if (TextField(event, "channel") == "control" && TextField(event, "type") == "done" &&
                event.value("id", 0ULL) == request)
            {
                return static_cast<std::uint32_t>(NumberField(event, "result", 0));
            }
        }
    }
    throw std::runtime_error("the handler has not returned: is the service running, with the lab's shims beside it?");
}

void AddControl(CLI::App& app)
{
    struct Options
    {
        std::string code;
        std::uint32_t type = 0;
        std::string data;
        std::uint32_t seconds = waitSlice / 1000;
    };
    CLI::App* verb = app.add_subcommand(
        "control", "Call the control handler that the service registered, as the service control manager would");
    auto options = std::make_shared<Options>();
    verb->add_option("control", options->code, "A number, or stop, shutdown, device, power, session, ...")->required();
    verb->add_option("type", options->type, "Event type (power: 4 is suspend; session: 2 is console disconnect; ...)");
    verb->add_option("--data", options->data, "Event data, in hexadecimal digits");
    verb->add_option("--seconds", options->seconds, "How long to wait for the handler's return");
    verb->callback(
        [options]
        {
            const std::uint32_t result =
                SendControl(ControlCode(options->code), options->type, options->data, options->seconds * 1000);
            std::cout << "the handler returned " << result << '\n';
        });
}

void AddPower(CLI::App& app)
{
    struct Options
    {
        int line = 1;
        int flag = 128;
        int percent = 255;
    };
    CLI::App* verb =
        app.add_subcommand("power", "Set what GetSystemPowerStatus gives the service (no control is sent)");
    auto options = std::make_shared<Options>();
    verb->add_option("--line", options->line, "0 off line, 1 on line, 255 unknown");
    verb->add_option("--battery", options->flag, "1 high, 2 low, 4 critical, 8 charging, 128 no battery");
    verb->add_option("--percent", options->percent, "0 to 100, 255 unknown");
    verb->callback(
        [options]
        {
            Machine::Attach().Update(
                [&](Json& state, Events&)
                {
                    state["power"] = {{"acLine", options->line},
                                      {"batteryFlag", options->flag},
                                      {"batteryPercent", options->percent}};
                });
        });
}

void AddHooks(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand(
        "hooks", "Let rules fail every platform call of the service ('fail CreateEventW ...'), from its next start on");
    auto onOff = std::make_shared<std::string>();
    verb->add_option("switch", *onOff, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    verb->callback([onOff]
                   { Machine::Attach().Update([&](Json& state, Events&) { state["hooks"] = *onOff == "on"; }); });
}

} // namespace

void AddControlVerbs(CLI::App& app)
{
    AddControl(app);
    AddPower(app);
    AddHooks(app);
}

} // namespace lab::ctl
