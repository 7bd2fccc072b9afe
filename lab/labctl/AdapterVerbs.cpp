// cable, adapter, dhcp, address: what a person does to a machine's network. Each verb changes the state and raises the
// events that Windows would raise.
#include "lab/labctl/Registry.h"
#include "lab/labctl/Scenario.h"
#include "lab/labctl/Verbs.h"
#include "lab/state/Changes.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

void Wait(double seconds)
{
    if (seconds > 0)
    {
        Sleep(static_cast<DWORD>(seconds * 1000));
    }
}

// Changes one adapter of the machine.
template <class Change>
void Alter(const std::string& name, Change change)
{
    Machine::Attach().Update([&](Json& state, Events& events) { change(RequireAdapter(state, name), events); });
}

struct CableOptions
{
    std::string adapter;
    double leaseAfter = 0;
    bool noLease = false;
};

void AddCable(CLI::App& app)
{
    CLI::App* cable = app.add_subcommand("cable", "Pull an adapter's cable, or plug it in");
    cable->require_subcommand(1);
    auto options = std::make_shared<CableOptions>();
    CLI::App* out = cable->add_subcommand("out", "Media disconnect; a leased address goes");
    out->add_option("adapter", options->adapter, "Name, GUID, connection name or description")->required();
    out->callback([options]
                  { Alter(options->adapter, [](Json& adapter, Events& events) { CableOut(adapter, events); }); });

    CLI::App* in = cable->add_subcommand("in", "Media connect; a DHCP adapter gets its lease back");
    in->add_option("adapter", options->adapter, "Name, GUID, connection name or description")->required();
    in->add_option("--lease-after", options->leaseAfter,
                   "Seconds from the media event to the lease; the verb lasts as long");
    in->add_flag("--no-lease", options->noLease, "No DHCP server answers");
    in->callback(
        [options]
        {
            const bool atOnce = !options->noLease && options->leaseAfter <= 0;
            Alter(options->adapter, [&](Json& adapter, Events& events) { CableIn(adapter, events, atOnce); });
            if (!atOnce && !options->noLease)
            {
                Wait(options->leaseAfter);
                Alter(options->adapter, ApplyLease);
            }
        });
}

struct AddOptions
{
    std::string name;
    std::string like;
    std::string file;
    unsigned count = 1;
};

// A new adapter of the same make as `model`, with an address of its own.
Json CopyOf(const Json& model, const std::string& name, std::int64_t index)
{
    Json adapter = model;
    adapter["name"] = name;
    adapter["guid"] = GuidFor(name);
    adapter["index"] = index;
    adapter["interfaceIndex"] = index + 10;
    adapter["description"] = TextField(model, "description") + " #" + std::to_string(index);
    adapter["alias"] = name;
    char text[40];
    std::snprintf(text, sizeof text, "02:00:5E:10:%02X:%02X", static_cast<unsigned>(index >> 8 & 0xFF),
                  static_cast<unsigned>(index & 0xFF));
    adapter["mac"] = text;
    adapter["pnpDeviceId"] = TextField(model, "pnpDeviceId", "ROOT\\NET\\0000") + "&" + std::to_string(index);
    adapter.erase("caption");
    const auto host = static_cast<unsigned>(index % 200 + 20);
    std::snprintf(text, sizeof text, "198.51.100.%u", host);
    const Json addresses = Json::array({{{"address", text}, {"prefix", 24}}});
    adapter["addresses"] = addresses;
    if (adapter.contains("dhcp"))
    {
        adapter["dhcp"]["lease"]["addresses"] = addresses;
    }
    return adapter;
}

Json FromFile(const std::string& file)
{
    Json wrapped = ReadScenario(FindScenario(file));
    if (wrapped["adapters"].size() != 1)
    {
        throw std::runtime_error(file + ": one adapter is wanted, in \"adapters\"");
    }
    return wrapped["adapters"][0];
}

// Makes the adapter known: a new one is entered, an absent one of that name comes back.
void Enter(Json& state, const AddOptions& options, const std::string& name, Events& events)
{
    Json* known = FindAdapter(state, name);
    if (known == nullptr)
    {
        std::int64_t highest = 0;
        for (const Json& adapter : state["adapters"])
        {
            highest = std::max(highest, NumberField(adapter, "index", 0));
        }
        if (!options.file.empty())
        {
            state["adapters"].push_back(FromFile(options.file));
        }
        else if (!options.like.empty())
        {
            const Json copy = CopyOf(RequireAdapter(state, options.like), name, highest + 1);
            state["adapters"].push_back(copy);
        }
        else
        {
            (void)RequireAdapter(state, name); // throws, naming those that there are
        }
        Complete(state);
        known = &state["adapters"].back();
    }
    known->erase("inWmi");
    Arrive(*known, events);
}

void RunAdd(const AddOptions& options)
{
    Machine& machine = Machine::Attach();
    Events events;
    machine.Update(
        [&](Json& state, Events&)
        {
            for (unsigned i = 0; i < options.count; ++i)
            {
                Enter(state, options, options.count == 1 ? options.name : options.name + std::to_string(i + 1), events);
            }
        });
    // Windows has written the adapter's keys before it tells of the adapter.
    WriteAdapterKeys(*machine.Snapshot());
    machine.Raise(events);
}

void ListAdapters(bool json)
{
    const auto state = Machine::Attach().Snapshot();
    for (const Json& adapter : Member(*state, "adapters"))
    {
        if (json)
        {
            Print(adapter, true);
            continue;
        }
        std::string addresses;
        for (const Json& entry : Member(adapter, "addresses"))
        {
            addresses += " " + TextField(entry, "address");
        }
        std::printf(
            "%-8s %-38s %-12s %-17s%s  %s\n", TextField(adapter, "name").c_str(), TextField(adapter, "guid").c_str(),
            !IsPresent(adapter)    ? "absent"
            : IsConnected(adapter) ? "connected"
                                   : "disconnected",
            TextField(adapter, "mac", "-").c_str(), addresses.c_str(), TextField(adapter, "description").c_str());
    }
}

void AddAdapter(CLI::App& app)
{
    CLI::App* adapter = app.add_subcommand("adapter", "Show the adapters, bring one into the machine, take one out");
    adapter->require_subcommand(1);
    auto json = std::make_shared<bool>();
    CLI::App* list = adapter->add_subcommand("list", "Show the adapters");
    list->add_flag("--json", *json, "One JSON object a line");
    list->callback([json] { ListAdapters(*json); });

    auto options = std::make_shared<AddOptions>();
    CLI::App* add = adapter->add_subcommand("add", "An adapter arrives: one that was removed, or a new one");
    add->add_option("name", options->name, "Its name")->required();
    add->add_option("--like", options->like, "Of the same make as this adapter");
    add->add_option("--file", options->file, "As a scenario file with this one adapter says");
    add->add_option("--count", options->count, "So many, numbered behind the name")->check(CLI::Range(1U, 100U));
    add->callback([options] { RunAdd(*options); });

    auto name = std::make_shared<std::string>();
    auto vanish = std::make_shared<bool>();
    CLI::App* remove = adapter->add_subcommand(
        "remove", "An adapter leaves the machine; WMI goes on listing it without a MAC address");
    remove->add_option("adapter", *name, "Name, GUID, connection name or description")->required();
    remove->add_flag("--vanish", *vanish, "WMI lists it no more when the event comes");
    remove->callback(
        [name, vanish]
        {
            Alter(*name,
                  [&](Json& target, Events& events)
                  {
                      Depart(target, events);
                      if (*vanish)
                      {
                          target["inWmi"] = false;
                      }
                  });
            WriteAdapterKeys(*Machine::Attach().Snapshot());
        });
}

struct LeaseOptions
{
    std::string adapter;
    double after = 0;
    std::string address;
    std::string gateway;
};

// "192.0.2.7/24" in its two parts; without a prefix 24, or 64 for IPv6.
std::pair<std::string, int> SplitAddress(const std::string& text)
{
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    const auto prefix = slash == std::string::npos ? std::optional<std::uint32_t>{IsIpv6(address) ? 64U : 24U}
                                                   : ParseNumber(text.substr(slash + 1));
    if (!prefix || *prefix > (IsIpv6(address) ? 128U : 32U) || address.empty())
    {
        throw std::runtime_error("'" + text + "' is no address with prefix, such as 192.0.2.7/24");
    }
    return {address, static_cast<int>(*prefix)};
}

void AddDhcp(CLI::App& app)
{
    CLI::App* dhcp = app.add_subcommand("dhcp", "Play the DHCP server");
    dhcp->require_subcommand(1);
    auto options = std::make_shared<LeaseOptions>();
    CLI::App* lease = dhcp->add_subcommand("lease", "Hand out a lease");
    lease->add_option("adapter", options->adapter, "Name, GUID, connection name or description")->required();
    lease->add_option("--after", options->after, "Seconds to wait first; the verb lasts as long");
    lease->add_option("--address", options->address, "Another address than the last one, with prefix");
    lease->add_option("--gateway", options->gateway, "Another gateway than the last one");
    lease->callback(
        [options]
        {
            Wait(options->after);
            Alter(options->adapter,
                  [&](Json& adapter, Events& events)
                  {
                      if (!options->address.empty())
                      {
                          const auto [address, prefix] = SplitAddress(options->address);
                          adapter["dhcp"]["lease"]["addresses"] =
                              Json::array({{{"address", address}, {"prefix", prefix}}});
                      }
                      if (!options->gateway.empty())
                      {
                          adapter["dhcp"]["lease"]["gateways"] = Json::array({options->gateway});
                      }
                      if (!Member(Member(adapter, "dhcp"), "lease").is_object())
                      {
                          throw std::runtime_error("there is no lease to hand out; give --address and --gateway");
                      }
                      ApplyLease(adapter, events);
                  });
        });
    CLI::App* release = dhcp->add_subcommand("release", "The lease runs out");
    release->add_option("adapter", options->adapter, "Name, GUID, connection name or description")->required();
    release->callback([options] { Alter(options->adapter, DropLease); });
}

void AddAddressVerb(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("address", "Give an adapter an address, or take one away");
    verb->require_subcommand(1);
    auto adapter = std::make_shared<std::string>();
    auto address = std::make_shared<std::string>();
    for (const bool add : {true, false})
    {
        CLI::App* one = verb->add_subcommand(add ? "add" : "remove", add ? "A new address" : "An address goes");
        one->add_option("adapter", *adapter, "Name, GUID, connection name or description")->required();
        one->add_option("address", *address, "With prefix: 192.0.2.7/24")->required();
        one->callback(
            [adapter, address, add]
            {
                Alter(*adapter,
                      [&](Json& target, Events& events)
                      {
                          const auto [text, prefix] = SplitAddress(*address);
                          if (add)
                          {
                              AddAddress(target, events, text, prefix);
                          }
                          else if (!RemoveAddress(target, events, text))
                          {
                              throw std::runtime_error("the adapter has no address " + text);
                          }
                      });
            });
    }
}

} // namespace

void AddAdapterVerbs(CLI::App& app)
{
    AddCable(app);
    AddAdapter(app);
    AddDhcp(app);
    AddAddressVerb(app);
}

} // namespace lab::ctl
