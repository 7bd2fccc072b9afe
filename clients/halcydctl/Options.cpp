#include "clients/halcydctl/Options.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <memory>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>

#include "clients/halcydctl/ExitCode.h"

namespace
{
constexpr const char* Version = "halcydctl 1.0.0";
constexpr std::uint16_t HighestSource = 36;

struct NamedSource
{
    std::uint16_t number;
    const char* name;
};
constexpr std::array<NamedSource, 7> Sources{{{1, "General"},
                                              {10, "ConfigServer"},
                                              {11, "NetMon"},
                                              {14, "VpnLib"},
                                              {19, "Registry"},
                                              {31, "WiFi"},
                                              {34, "IpRoute"}}};

bool SameText(std::string_view left, std::string_view right)
{
    return std::ranges::equal(
        left, right, [](char a, char b)
        { return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b)); });
}

constexpr const char* Footer =
    "Exit codes: 0 done, 1 the service answered with an error, 2 wrong usage, 3 service not installed, 4 service not\n"
    "running, 5 access denied, 6 proxies (HalcydPS.dll) missing, 7 trace service missing, 8 service lost.";

// Help in the words of this program: verbs, and names without the parser's own marks.
class HelpText : public CLI::Formatter
{
public:
    HelpText()
    {
        label("SUBCOMMAND", "VERB");
        column_width(34);
    }
    std::string make_option_name(const CLI::Option* option, bool positional) const override
    {
        const std::string name = CLI::Formatter::make_option_name(option, positional);
        return name.substr(0, name.find('{'));
    }
    std::string make_option_usage(const CLI::Option* option) const override
    {
        const std::string name = make_option_name(option, true) + (option->get_expected_max() > 1 ? "..." : "");
        return option->get_required() ? name : "[" + name + "]";
    }
    // What stands behind an option: its value, as its definition words it. An argument explains itself.
    std::string make_option_opts(const CLI::Option* option) const override
    {
        const bool argument = option->get_positional();
        return argument || option->get_option_text().empty() ? std::string() : " " + option->get_option_text();
    }
};

// Gathers the options while CLI11 walks the line.
class Parser
{
public:
    Parser() : app("Console client of the network configuration service Halcyd.", "halcydctl")
    {
        app.formatter(std::make_shared<HelpText>());
        app.footer(Footer);
        app.set_version_flag("--version", Version, "Tell the version");
        app.set_help_flag("-h,--help", "Show this help; with a verb, that verb's");
        app.require_subcommand(1);
        app.fallthrough();
        app.add_flag("--json", options.json, "Output for scripts: one JSON object, or one per line where things go on");
        app.add_option("--color", color, "Colours: auto (on a console), always, never")
            ->check(CLI::IsMember({"auto", "always", "never"}))
            ->option_text("WHEN");
        app.add_flag("--no-color", noColor, "The same as --color never");
        app.add_flag("--start", options.start, "Let COM start the service if it is stopped");
        AddMonitorVerbs();
        AddTraceVerbs();
        AddAdapterVerbs();
        AddMachineVerbs();
        AddBindingVerbs();
    }

    ParseOutcome Run(std::vector<std::string> arguments)
    {
        ParseOutcome outcome;
        try
        {
            std::reverse(arguments.begin(), arguments.end()); // the parser takes its arguments off the end
            app.parse(arguments);
            Finish();
            outcome.options = options;
        }
        catch (const CLI::RequiredError& error)
        {
            outcome.text = MissingVerb();
            if (outcome.text.empty())
            {
                outcome.text = std::string(error.what()) + ".";
            }
            outcome.text += "\nRun with --help for more information."; // as the parser ends its own texts
            outcome.exitCode = static_cast<int>(ExitCode::Usage);
        }
        catch (const CLI::ParseError& error)
        {
            std::ostringstream out;
            std::ostringstream errors;
            const int code = app.exit(error, out, errors);
            outcome.text = out.str() + errors.str();
            outcome.exitCode = code == 0 ? 0 : static_cast<int>(ExitCode::Usage);
        }
        while (!outcome.text.empty() && outcome.text.back() == '\n')
        {
            outcome.text.pop_back();
        }
        return outcome;
    }

private:
    // What is wrong where a verb has to stand; empty if one stands there and something else is missing.
    std::string MissingVerb()
    {
        CLI::App* place = &app;
        while (!place->get_subcommands().empty())
        {
            place = place->get_subcommands().front();
        }
        if (place->get_require_subcommand_min() == 0)
        {
            return {};
        }
        std::string known;
        for (const CLI::App* verb : place->get_subcommands(nullptr))
        {
            known += (known.empty() ? "" : ", ") + verb->get_name();
        }
        const std::vector<std::string> words = app.remaining(true);
        const auto word = std::ranges::find_if(words, [](const std::string& text) { return !text.starts_with('-'); });
        const std::string where = place == &app ? "" : " of " + place->get_name();
        return word == words.end() ? "A verb" + where + " is missing: " + known + "."
                                   : "'" + *word + "' is no verb" + where + ". There are: " + known + ".";
    }

    CLI::App* Add(CLI::App* parent, const char* name, const std::string& description, Verb verb)
    {
        CLI::App* const command = parent->add_subcommand(name, description)->group("Verbs");
        command->callback(
            [this, command, verb]
            {
                if (command->get_subcommands().empty())
                {
                    options.verb = verb;
                }
            });
        return command;
    }

    CLI::App* AddGroup(const char* name, const std::string& description)
    {
        CLI::App* const group = app.add_subcommand(name, description)->group("Verbs");
        group->require_subcommand(1);
        return group;
    }

    void AddMonitorVerbs()
    {
        Add(&app, "status", "Shows service, registration and monitor; starts nothing", Verb::Status);
        CLI::App* const list =
            Add(&app, "list", "Shows the adapters; opens the monitor for the time of the call", Verb::List);
        list->add_flag("--networks", options.networks, "Also the wireless networks that each adapter sees");
        list->add_flag("--as-is", options.asIs, "Do not open the monitor: a closed one has an empty list");
        CLI::App* const watch =
            Add(&app, "watch", "Shows events as they come, and the adapters below; ends with Ctrl+C", Verb::Watch);
        watch->add_option("--count", options.count, "End after this many events")->option_text("N");
        watch->add_option("--seconds", options.seconds, "End after this time")->option_text("N");
        watch->add_flag("!--no-table", options.table, "Events only");
        watch->add_flag("--notes", options.notes, "Show lines of standard input among the events");
        Add(&app, "open", "Opens the monitor and leaves it open (counted)", Verb::Open);
        Add(&app, "close", "Takes one open back; the last one stops the monitor", Verb::Close);
    }

    void AddTraceVerbs()
    {
        CLI::App* const trace = Add(&app, "trace", "Shows the newest trace lines", Verb::Trace);
        trace->require_subcommand(0, 1);
        trace->add_flag("-f,--follow", options.follow, "Go on with new lines as they come; ends with Ctrl+C");
        trace->add_option("--source", source, "Only this source: a name such as NetMon, or a number 0 to 36")
            ->check(ValidSource())
            ->option_text("SOURCE");
        trace
            ->add_option("--level", options.level,
                         "Only lines up to this level (1 worst, 2 failures, 4 normal, 6 least)")
            ->check(CLI::Range(0, 9))
            ->option_text("N");
        trace->add_option("-n,--lines", options.lines, "How many lines to begin with (200)")->option_text("N");
        Add(trace, "levels", "Shows the levels in force and what the trace service holds", Verb::TraceLevels);
        CLI::App* const set =
            Add(trace, "set-level", "Sets the global level, or with --source that source's own", Verb::TraceSetLevel);
        set->add_option("LEVEL", options.newLevel, "0 to 9; a source's level 0 makes it follow the global one")
            ->required()
            ->check(CLI::Range(0, 9));
        set->add_option("--source", source, "The source: name or number")->check(ValidSource())->option_text("SOURCE");
    }

    void AddGuid(CLI::App* command)
    {
        command->add_option("GUID", options.guid, "The adapter's id, with its braces")->required();
    }

    void AddAdapterVerbs()
    {
        struct Setting
        {
            const char* name;
            const char* noun;
            Verb get;
            Verb set;
            const char* values;
            int fewest;
            int most;
        };
        for (const Setting& setting : {Setting{"dns", "DNS servers of an adapter", Verb::DnsGet, Verb::DnsSet,
                                               "Servers in search order; none: back to DHCP's", 0, 64},
                                       Setting{"dns-suffix", "DNS suffixes of the machine", Verb::DnsSuffixGet,
                                               Verb::DnsSuffixSet, "Suffixes in search order", 0, 64},
                                       Setting{"dns-domain", "DNS domain of an adapter", Verb::DnsDomainGet,
                                               Verb::DnsDomainSet, "The domain", 1, 1},
                                       Setting{"wins", "WINS servers of an adapter", Verb::WinsGet, Verb::WinsSet,
                                               "Primary and secondary server", 1, 2}})
        {
            const std::string noun = setting.noun;
            CLI::App* const group = AddGroup(setting.name, noun);
            AddGuid(Add(group, "get", "Shows the " + noun, setting.get));
            CLI::App* const set = Add(group, "set", "Changes the " + noun, setting.set);
            AddGuid(set);
            set->add_option("VALUE", options.values, setting.values)
                ->required(setting.fewest != 0)
                ->expected(setting.fewest, setting.most);
        }
        CLI::App* const dhcp = AddGroup("dhcp", "DHCP of an adapter");
        AddGuid(Add(dhcp, "enable", "Takes addresses from DHCP", Verb::DhcpEnable));
        AddGuid(Add(dhcp, "release", "Gives the lease back", Verb::DhcpRelease));
        AddGuid(Add(dhcp, "renew", "Renews the lease", Verb::DhcpRenew));
        CLI::App* const ip = AddGroup("ip", "Addresses of an adapter");
        AddGuid(Add(ip, "get", "Shows address and default gateway", Verb::IpGet));
        CLI::App* const set = Add(ip, "set", "Sets static addresses", Verb::IpSet);
        AddGuid(set);
        set->add_option("ADDRESS/MASK", options.values, "Such as 10.0.0.5/255.255.255.0")->required()->expected(1, 64);
    }

    void AddMachineVerbs()
    {
        CLI::App* const registry =
            AddGroup("registry", "Registry through the service; it changes an allow-listed part only");
        const auto addKey = [this](CLI::App* command)
        {
            command->add_option("KEY", options.key, "Full path, such as HKEY_LOCAL_MACHINE\\Software\\...")->required();
        };
        CLI::App* const get = Add(registry, "get", "Reads a value", Verb::RegistryGet);
        addKey(get);
        get->add_option("VALUE", options.value, "The value's name")->required();
        CLI::App* const set = Add(registry, "set", "Writes a value", Verb::RegistrySet);
        addKey(set);
        set->add_option("VALUE", options.value, "The value's name")->required();
        set->add_option("DATA", options.data, "Its data; items of a multi-string joined with commas")->required();
        set->add_option("--type", options.type, "sz (a text, as without this option), dword, qword or multi")
            ->check(CLI::IsMember({"sz", "dword", "qword", "multi"}))
            ->option_text("TYPE");
        CLI::App* const remove =
            Add(registry, "delete", "Deletes a value, or with --key a whole key", Verb::RegistryDelete);
        addKey(remove);
        CLI::Option* const value = remove->add_option("VALUE", options.value, "The value's name");
        remove->add_flag("--key", options.wholeKey, "Delete the key with all its subkeys")->excludes(value);

        CLI::App* const service = AddGroup("service", "System services through the service; a fixed set only");
        for (const auto& [name, description, verb] :
             {std::tuple{"query", "Shows state and start type", Verb::ServiceQuery},
              std::tuple{"stop", "Stops the service and what depends on it", Verb::ServiceStop},
              std::tuple{"start", "Starts the service again", Verb::ServiceStart}})
        {
            Add(service, name, description, verb)
                ->add_option("NAME", options.service, "The service's name")
                ->required();
        }
    }

    void AddBindingVerbs()
    {
        CLI::App* const bindings = AddGroup("bindings", "IP bindings of the other adapters");
        CLI::App* const disable =
            Add(bindings, "disable", "Disables them until Ctrl+C, which restores them", Verb::BindingsDisable);
        AddGuid(disable);
        disable->add_flag("--ppp", options.pppDevice, "The adapter is a dial-up device");
        Add(bindings, "restore", "Restores them", Verb::BindingsRestore);
        Add(bindings, "show", "Shows the record of what was disabled", Verb::BindingsShow);
    }

    static CLI::Validator ValidSource()
    {
        return CLI::Validator(
            [](std::string& text)
            {
                return SourceFromText(text) ? std::string()
                                            : "'" + text + "' is no source: a name such as NetMon, or 0 to 36";
            },
            "SOURCE");
    }

    void Finish()
    {
        options.color = noColor || color == "never" ? ColorChoice::Never
                        : color == "always"         ? ColorChoice::Always
                                                    : ColorChoice::Automatic;
        if (options.json)
        {
            options.color = ColorChoice::Never;
        }
        if (!source.empty())
        {
            options.source = SourceFromText(source);
        }
        options.guid = AdapterIdFromText(options.guid);
        options.key = RegistryPathFromText(options.key);
        if (options.verb == Verb::RegistryDelete && options.value.empty() && !options.wholeKey)
        {
            throw CLI::RequiredError("VALUE or --key");
        }
    }

    CLI::App app;
    Options options;
    std::string color = "auto";
    bool noColor = false;
    std::string source;
};
} // namespace

std::optional<std::uint16_t> SourceFromText(const std::string& text)
{
    for (const NamedSource& source : Sources)
    {
        if (SameText(source.name, text))
        {
            return source.number;
        }
    }
    std::uint16_t number = 0;
    const auto [stopped, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || stopped != text.data() + text.size() || number > HighestSource)
    {
        return std::nullopt;
    }
    return number;
}

std::string SourceName(std::uint16_t source)
{
    const auto found = std::ranges::find(Sources, source, &NamedSource::number);
    return found != Sources.end() ? found->name : std::to_string(source);
}

std::string AdapterIdFromText(const std::string& text)
{
    constexpr std::size_t bare = 36;
    std::string id = text.size() == bare && text.front() != '{' ? "{" + text + "}" : text;
    std::ranges::transform(id, id.begin(),
                           [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    return id;
}

std::string RegistryPathFromText(const std::string& text)
{
    struct Root
    {
        const char* name;
        const char* alias;
    };
    constexpr Root roots[] = {
        {"HKEY_LOCAL_MACHINE", "HKLM"}, {"HKEY_CURRENT_USER", "HKCU"}, {"HKEY_CLASSES_ROOT", "HKCR"}};
    const std::size_t end = std::min(text.find('\\'), text.size());
    for (const Root& root : roots)
    {
        if (SameText(text.substr(0, end), root.name) || SameText(text.substr(0, end), root.alias))
        {
            return root.name + text.substr(end);
        }
    }
    return text;
}

ParseOutcome ParseCommandLine(const std::vector<std::string>& arguments)
{
    Parser parser;
    return parser.Run(arguments);
}
