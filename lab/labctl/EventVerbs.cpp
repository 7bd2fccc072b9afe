// event, events, storm: events by hand, as a listener sees them, and many of them.
#include "lab/labctl/Verbs.h"
#include "lab/state/Changes.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <iostream>
#include <map>
#include <random>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

struct EventOptions
{
    std::string className;
    std::string adapter;
    std::string suffix;
    std::string instanceName;
    std::string deviceName;
    unsigned copies = 1;
    unsigned delay = 0;
};

void RaiseOne(const EventOptions& options)
{
    Json state = *Machine::Attach().Snapshot();
    Json event{{"channel", "wmi"}, {"type", options.className}};
    if (!options.adapter.empty())
    {
        event = NdisEvent(RequireAdapter(state, options.adapter), options.className);
    }
    if (!options.instanceName.empty())
    {
        event["InstanceName"] = options.instanceName;
    }
    if (!options.suffix.empty())
    {
        event["InstanceName"] = TextField(event, "InstanceName") + options.suffix;
    }
    if (!options.deviceName.empty())
    {
        event["DeviceName"] = options.deviceName;
    }
    if (options.copies != 1)
    {
        event["copies"] = options.copies;
    }
    if (options.delay != 0)
    {
        event["delayMs"] = options.delay;
    }
    Machine::Attach().Raise({event});
}

void AddEvent(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("event", "Raise one notification of root\\wmi, with the state as it is");
    auto options = std::make_shared<EventOptions>();
    verb->add_option("class", options->className, "Such as MSNdis_StatusMediaConnect")->required();
    verb->add_option("adapter", options->adapter, "The adapter that it tells of; without one the event names nobody");
    verb->add_option("--suffix", options->suffix, "Text behind the adapter's name in InstanceName");
    verb->add_option("--instance-name", options->instanceName, "Another InstanceName");
    verb->add_option("--device-name", options->deviceName, "Another DeviceName");
    verb->add_option("--copies", options->copies, "Deliver it so many times");
    verb->add_option("--delay", options->delay, "Deliver it so many milliseconds late");
    verb->callback([options] { RaiseOne(*options); });
}

void AddEvents(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("events", "Show the machine's events as they come");
    auto seconds = std::make_shared<double>(0);
    verb->add_option("--seconds", *seconds, "Stop after so long");
    verb->callback(
        [seconds]
        {
            EventCursor cursor = Machine::Attach().Listen();
            const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(*seconds * 1000);
            for (;;)
            {
                const ULONGLONG now = GetTickCount64();
                if (*seconds > 0 && now >= end)
                {
                    return;
                }
                for (const Json& event : cursor.Next(*seconds > 0 ? static_cast<std::uint32_t>(end - now) : INFINITE))
                {
                    Print(event, true);
                }
            }
        });
}

struct StormOptions
{
    unsigned events = 100;
    unsigned seed = 1;
    unsigned batch = 1;
    unsigned pause = 0;
    std::string kind = "mixed";
    std::vector<std::string> adapters;
};

// One change of the kind, picked by `random`. A cable or an adapter that is out comes back, and the other way round.
void ChangeOne(Json& adapter, Events& events, const std::string& kind, std::mt19937& random)
{
    const unsigned pick = random() % 100;
    if (kind == "address" || (kind == "mixed" && pick < 40))
    {
        const std::string address = "203.0.113." + std::to_string(1 + random() % 250);
        if (!RemoveAddress(adapter, events, address))
        {
            AddAddress(adapter, events, address, 24);
        }
        if (Member(adapter, "addresses").size() > 8)
        {
            SetAddresses(adapter, events, Json::array({adapter["addresses"][0]}));
        }
    }
    else if (kind == "arrival" || (kind == "mixed" && pick >= 90))
    {
        if (IsPresent(adapter))
        {
            Depart(adapter, events);
        }
        else
        {
            Arrive(adapter, events);
        }
    }
    else if (IsConnected(adapter))
    {
        CableOut(adapter, events);
    }
    else
    {
        CableIn(adapter, events, true);
    }
}

// Those named, or all that a monitor of real adapters would look at.
std::vector<std::string> StormAdapters(const Json& state, const StormOptions& options)
{
    std::vector<std::string> names = options.adapters;
    for (const Json& adapter : Member(state, "adapters"))
    {
        const bool isReal = (NumberField(adapter, "characteristics", 1) & 1) == 0 &&
                            Member(adapter, "mac").is_string() && FlagField(Member(adapter, "driver"), "open", true);
        if (options.adapters.empty() && isReal)
        {
            names.push_back(TextField(adapter, "name"));
        }
    }
    if (names.empty())
    {
        throw std::runtime_error("the machine has no real adapter to storm with");
    }
    return names;
}

void RunStorm(const StormOptions& options)
{
    Machine& machine = Machine::Attach();
    const auto names = StormAdapters(*machine.Snapshot(), options);
    std::mt19937 random{options.seed};
    std::map<std::string, unsigned> counts;
    for (unsigned done = 0; done < options.events;)
    {
        machine.Update(
            [&](Json& state, Events& events)
            {
                for (unsigned i = 0; i < options.batch && done + events.size() < options.events; ++i)
                {
                    ChangeOne(RequireAdapter(state, names[random() % names.size()]), events, options.kind, random);
                }
                done += static_cast<unsigned>(events.size());
                for (const Json& event : events)
                {
                    ++counts[TextField(event, "channel") + ":" + TextField(event, "type")];
                }
            });
        if (options.pause != 0)
        {
            Sleep(options.pause);
        }
    }
    Json summary = Json::object();
    for (const auto& [type, count] : counts)
    {
        summary[type] = count;
    }
    Print(summary, true);
}

void AddStorm(CLI::App& app)
{
    CLI::App* verb =
        app.add_subcommand("storm", "Many changes in a row; prints how many events of each type they raised");
    auto options = std::make_shared<StormOptions>();
    verb->add_option("--events", options->events, "At least so many events");
    verb->add_option("--kind", options->kind, "media, address, arrival, or mixed")
        ->check(CLI::IsMember({"media", "address", "arrival", "mixed"}));
    verb->add_option("--adapters", options->adapters, "Only these")->delimiter(',');
    verb->add_option("--seed", options->seed, "The same seed makes the same storm");
    verb->add_option("--batch", options->batch, "So many changes at a time")->check(CLI::PositiveNumber);
    verb->add_option("--pause", options->pause, "Milliseconds between them");
    verb->callback([options] { RunStorm(*options); });
}

} // namespace

void AddEventVerbs(CLI::App& app)
{
    AddEvent(app);
    AddEvents(app);
    AddStorm(app);
}

} // namespace lab::ctl
