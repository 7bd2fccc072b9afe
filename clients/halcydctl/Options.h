#pragma once
// The command line of halcydctl, understood.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "clients/halcydctl/Console.h"

enum class Verb
{
    Status,
    List,
    Watch,
    Open,
    Close,
    Trace,
    TraceLevels,
    TraceSetLevel,
    DnsGet,
    DnsSet,
    DnsSuffixGet,
    DnsSuffixSet,
    DnsDomainGet,
    DnsDomainSet,
    WinsGet,
    WinsSet,
    DhcpEnable,
    DhcpRelease,
    DhcpRenew,
    IpGet,
    IpSet,
    RegistryGet,
    RegistrySet,
    RegistryDelete,
    ServiceQuery,
    ServiceStop,
    ServiceStart,
    BindingsDisable,
    BindingsRestore,
    BindingsShow,
};

struct Options
{
    Verb verb = Verb::Status;
    bool json = false;
    ColorChoice color = ColorChoice::Automatic;
    bool start = false; // let COM start a stopped service

    // list
    bool networks = false;
    bool asIs = false; // do not open the monitor for it

    // watch
    std::uint32_t count = 0;   // end after so many events, 0 for no limit
    std::uint32_t seconds = 0; // end after so long, 0 for no limit
    bool table = true;
    bool notes = false; // lines of standard input stand among the events

    // trace
    bool follow = false;
    std::optional<std::uint16_t> source;
    std::uint16_t level = 9;
    std::uint32_t lines = 200;

    // trace set-level
    std::uint16_t newLevel = 0;

    // settings verbs
    std::string guid;
    std::vector<std::string> values; // addresses, servers, suffixes
    std::vector<std::string> masks;

    // registry
    std::string key;
    std::string value;
    std::string type = "sz";
    std::string data;
    bool wholeKey = false;

    // service
    std::string service;

    // bindings
    bool pppDevice = false;
};

// Either options, or a text to print and the code to end with (help, version, a mistake).
struct ParseOutcome
{
    std::optional<Options> options;
    std::string text;
    int exitCode = 0;
};

// `arguments` are UTF-8, without the program's name. Pure.
[[nodiscard]] ParseOutcome ParseCommandLine(const std::vector<std::string>& arguments);

// An adapter's id as the service spells it: in braces and capitals. A text that is none goes through in capitals. Pure.
[[nodiscard]] std::string AdapterIdFromText(const std::string& text);

// A registry path whose root is spelled as the service takes it everywhere: HKEY_LOCAL_MACHINE for "hklm" and the like.
// An unknown root stays as it is. Pure.
[[nodiscard]] std::string RegistryPathFromText(const std::string& text);

// A source given by name ("NetMon", any case) or number 0 to 36. Pure.
[[nodiscard]] std::optional<std::uint16_t> SourceFromText(const std::string& text);
// "NetMon", or the number for a source that has no name here. Pure.
[[nodiscard]] std::string SourceName(std::uint16_t source);
