// load, sync, install, uninstall, dump, get, set.
#include "lab/driver/LabDriver.h"
#include "lab/labctl/Registry.h"
#include "lab/labctl/Scenario.h"
#include "lab/labctl/StatePath.h"
#include "lab/labctl/Sync.h"
#include "lab/labctl/Verbs.h"
#include "lab/netcfg/Install.h"
#include "lab/shims/ShimInstall.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <iostream>

namespace lab::ctl
{

namespace
{

constexpr char servicePath[] = "C:\\Program Files\\Halcyd\\Halcyd.exe";

// A file of the lab: beside this program, or in its own folder of a build tree.
std::filesystem::path FileBeside(const wchar_t* name, const wchar_t* room)
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::filesystem::path folder = std::filesystem::path{path}.parent_path();
    std::error_code error;
    const std::filesystem::path built = folder.parent_path() / room / name;
    return !std::filesystem::exists(folder / name, error) && std::filesystem::exists(built, error) ? built
                                                                                                   : folder / name;
}

void CheckDriver(std::uint32_t error, const char* what)
{
    if (error != ERROR_SUCCESS)
    {
        throw std::runtime_error("could not " + std::string{what} + " the lab's driver: error " +
                                 std::to_string(error));
    }
}

// A prefix that was cloned or started anew has the driver installed but not running.
void WakeDriver()
{
    const std::uint32_t error = StartDriver();
    if (error != ERROR_SERVICE_DOES_NOT_EXIST)
    {
        CheckDriver(error, "start");
    }
}

void AddLoad(CLI::App& app)
{
    CLI::App* verb =
        app.add_subcommand("load", "Make the machine what a scenario says; journal and fault rules start empty");
    auto name = std::make_shared<std::string>();
    verb->add_option("scenario", *name, "Name of a scenario beside this program, or a file")->required();
    verb->callback(
        [name]
        {
            const Json scenario = ReadScenario(FindScenario(*name));
            Machine& machine = Machine::Attach();
            machine.Update([&](Json& state, Events&) { state = scenario; });
            machine.ClearFaults();
            machine.ClearJournal();
            WriteAdapterKeys(scenario);
            WakeDriver();
            std::cout << "loaded '" << *name << "': " << scenario["adapters"].size() << " adapters\n";
        });
}

void AddSync(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand(
        "sync", "Bring the running machine in line with a scenario, with the events of what changes");
    auto name = std::make_shared<std::string>();
    verb->add_option("scenario", *name, "Name of a scenario beside this program, or a file")->required();
    verb->callback(
        [name]
        {
            const Json fresh = ReadScenario(FindScenario(*name));
            Machine& machine = Machine::Attach();
            Events events;
            machine.Update([&](Json& state, Events&) { SyncTo(state, fresh, events); });
            // Windows has written an adapter's keys before it tells of the adapter.
            WriteAdapterKeys(*machine.Snapshot());
            machine.Raise(events);
            std::cout << events.size() << " events\n";
        });
}

void AddInstall(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("install", "Put the lab's stand-ins and the adapters' keys into this prefix");
    auto dll = std::make_shared<std::string>();
    verb->add_option("--dll", *dll, "The stand-in; without it labwmi.dll beside this program");
    auto program = std::make_shared<std::string>(servicePath);
    verb->add_option("--program", *program, "The program that gets the shims beside it, if it is there");
    verb->callback(
        [dll, program]
        {
            InstallWmi(dll->empty() ? FileBeside(L"labwmi.dll", L"wmi") : std::filesystem::absolute(Wide(*dll)));
            WriteAdapterKeys(*Machine::Attach().Snapshot());
            if (const auto image = FileBeside(L"lab.sys", L"driver"); std::filesystem::is_regular_file(image))
            {
                CheckDriver(InstallDriver(image), "install");
                WakeDriver();
            }
            if (const auto engine = FileBeside(L"labnetcfg.dll", L"netcfg"); std::filesystem::is_regular_file(engine))
            {
                netcfg::Install(engine);
            }
            if (std::filesystem::exists(Wide(*program)))
            {
                InstallShims(Wide(*program), FileBeside(L"iphlpapi.dll", L"shims").parent_path());
            }
        });
    app.add_subcommand("uninstall", "Take the stand-in, the driver and all keys of the lab out of the prefix")
        ->callback(
            []
            {
                Uninstall();
                CheckDriver(RemoveDriver(), "remove");
                RemoveShims(Wide(servicePath));
                netcfg::Uninstall();
            });
}

void AddDump(CLI::App& app)
{
    CLI::App* verb = app.add_subcommand("dump", "Show the whole state");
    auto oneLine = std::make_shared<bool>();
    verb->add_flag("--json", *oneLine, "On one line");
    verb->callback([oneLine] { Print(*Machine::Attach().Snapshot(), *oneLine); });
}

void AddGetAndSet(CLI::App& app)
{
    constexpr char pathHelp[] =
        "Members joined with '.'; an element of a list by its number or its name: adapters.eth0.driver.linkSpeed";
    CLI::App* get = app.add_subcommand("get", "Show one value of the state");
    auto path = std::make_shared<std::string>();
    get->add_option("path", *path, pathHelp)->required();
    get->callback([path] { Print(GetValue(*Machine::Attach().Snapshot(), *path), false); });

    CLI::App* set = app.add_subcommand("set", "Change one value of the state, without any event");
    auto setPath = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    set->add_option("path", *setPath, pathHelp)->required();
    set->add_option("value", *value, "JSON; what is no JSON is taken as a text")->required();
    set->callback(
        [setPath, value]
        {
            Machine& machine = Machine::Attach();
            Json parsed = Json::parse(*value, nullptr, false);
            if (parsed.is_discarded())
            {
                parsed = *value;
            }
            machine.Update([&](Json& state, Events&) { SetValue(state, *setPath, parsed); });
            WriteAdapterKeys(*machine.Snapshot());
        });
    CLI::App* unset = app.add_subcommand("unset", "Take one value out of the state, without any event");
    auto unsetPath = std::make_shared<std::string>();
    unset->add_option("path", *unsetPath, pathHelp)->required();
    unset->callback(
        [unsetPath]
        {
            Machine& machine = Machine::Attach();
            machine.Update([&](Json& state, Events&) { RemoveValue(state, *unsetPath); });
            WriteAdapterKeys(*machine.Snapshot());
        });
}

} // namespace

void AddStateVerbs(CLI::App& app)
{
    AddLoad(app);
    AddSync(app);
    AddInstall(app);
    AddDump(app);
    AddGetAndSet(app);
}

} // namespace lab::ctl
