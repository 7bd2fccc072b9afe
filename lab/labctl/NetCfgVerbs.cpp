// bindings, lock: the network configuration engine's side of the machine.
#include "lab/labctl/Verbs.h"
#include "lab/netcfg/Model.h"
#include "lab/netcfg/WriteLock.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <iostream>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

using netcfg::Component;
using netcfg::Path;

Json PathJson(const netcfg::Model& model, const Path& path)
{
    Json lower = Json::array();
    for (const auto& index : path.lower)
    {
        lower.push_back(index ? Json(model.components[*index].displayName) : Json(nullptr));
    }
    return {{"path", path.token},
            {"protocol", model.components[path.owner].id},
            {"lower", lower},
            {"enabled", path.enabled}};
}

void Show(bool json)
{
    const netcfg::Model model = netcfg::ReadModel(*Machine::Attach().Snapshot());
    if (json)
    {
        Json list = Json::array();
        for (const Path& path : model.paths)
        {
            list.push_back(PathJson(model, path));
        }
        Print(list, true);
        return;
    }
    for (const Path& path : model.paths)
    {
        std::cout << (path.enabled ? "on   " : "off  ") << model.components[path.owner].id;
        for (const auto& index : path.lower)
        {
            std::cout << " -> " << (index ? model.components[*index].displayName : std::string{"(nothing)"});
        }
        std::cout << '\n';
    }
    if (const auto holder = netcfg::WriteLock::Holder())
    {
        std::cout << "write lock: '" << Utf8(*holder) << "'\n";
    }
}

bool EndsAt(const netcfg::Model& model, const Path& path, const std::string& guid, const std::string& name)
{
    for (const auto& index : path.lower)
    {
        if (index &&
            (EqualNoCase(model.components[*index].guid, guid) || EqualNoCase(model.components[*index].id, name)))
        {
            return true;
        }
    }
    return false;
}

void Switch(const std::string& protocol, const std::string& lower, bool on)
{
    Machine::Attach().Update(
        [&](Json& state, Events&)
        {
            const netcfg::Model before = netcfg::ReadModel(state);
            netcfg::Model after = before;
            const Json* const adapter = FindAdapter(std::as_const(state), lower);
            const std::string guid = adapter != nullptr ? TextField(*adapter, "guid") : lower;
            bool found = false;
            for (Path& path : after.paths)
            {
                if ((protocol == "all" || EqualNoCase(after.components[path.owner].id, protocol)) &&
                    (lower == "all" || EndsAt(after, path, guid, lower)))
                {
                    path.enabled = on;
                    found = true;
                }
            }
            if (!found)
            {
                throw std::runtime_error("no binding of '" + protocol + "' to '" + lower +
                                         "': 'labctl bindings show' lists them");
            }
            netcfg::StoreChanges(state, before, after);
        });
}

void AddBindings(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("bindings", "Binding paths of the network configuration engine");
    verb->require_subcommand(1);
    CLI::App* show = verb->add_subcommand("show", "List them, with the holder of the write lock");
    auto json = std::make_shared<bool>();
    show->add_flag("--json", *json, "On one line, for scripts");
    show->callback([json] { Show(*json); });

    struct Options
    {
        std::string protocol;
        std::string lower;
        std::string onOff;
    };
    auto options = std::make_shared<Options>();
    CLI::App* set = verb->add_subcommand("set", "Enable or disable, as another program would have done");
    set->add_option("protocol", options->protocol, "ms_tcpip, ms_tcpip6, ms_ndiswan, ... or all")->required();
    set->add_option("lower", options->lower, "Adapter, component id, or all")->required();
    set->add_option("switch", options->onOff, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    set->callback([options] { Switch(options->protocol, options->lower, options->onOff == "on"); });
}

void AddLock(CLI::App& app)
{
    struct Options
    {
        std::string what;
        std::string name;
        double seconds = 0;
    };
    CLI::App* verb = app.add_subcommand("lock", "Hold a lock of the machine as another program");
    auto options = std::make_shared<Options>();
    verb->add_option("what", options->what, "netcfg: the write lock of the network configuration engine")
        ->required()
        ->check(CLI::IsMember({"netcfg"}));
    verb->add_option("name", options->name, "The name to hold it under")->required();
    verb->add_option("--seconds", options->seconds, "How long; without it until this program is ended")
        ->check(CLI::NonNegativeNumber);
    verb->callback(
        [options]
        {
            netcfg::WriteLock lock;
            if (!lock.Acquire(Wide(options->name), 1000))
            {
                throw std::runtime_error("the lock is held by '" +
                                         Utf8(netcfg::WriteLock::Holder().value_or(L"another program")) + "'");
            }
            std::cout << "locked\n" << std::flush;
            Sleep(options->seconds > 0 ? static_cast<DWORD>(options->seconds * 1000) : INFINITE);
        });
}

} // namespace

void AddNetCfgVerbs(CLI::App& app)
{
    AddBindings(app);
    AddLock(app);
}

} // namespace lab::ctl
