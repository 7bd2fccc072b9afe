#pragma once
// The verbs. Each runs one command to its end and throws Failure if it cannot.

#include <nlohmann/json.hpp>

#include "clients/halcydctl/Console.h"
#include "clients/halcydctl/ExitCode.h"
#include "clients/halcydctl/Options.h"

// What every command works with.
struct Session
{
    const Options& options;
    Console& console;

    // One JSON object on one line.
    void Print(const nlohmann::ordered_json& json) const;
};

namespace Commands
{
ExitCode Status(const Session& session);
ExitCode List(const Session& session);
ExitCode Watch(const Session& session);
ExitCode Open(const Session& session);
ExitCode Close(const Session& session);

ExitCode Trace(const Session& session);
ExitCode TraceLevels(const Session& session);
ExitCode TraceSetLevel(const Session& session);

// dns, dns-suffix, dns-domain, wins, dhcp, ip
ExitCode AdapterSetting(const Session& session);
// registry get, set, delete
ExitCode Registry(const Session& session);
// service query, stop, start
ExitCode Service(const Session& session);
// bindings disable, restore, show
ExitCode Bindings(const Session& session);

// Prints help, version or what is wrong with the command line; the process's exit code. `json`: a mistake goes to
// standard output as an object, like every other failure.
int Refuse(const ParseOutcome& outcome, bool json);

// Runs what the options ask for and prints failures; the process's exit code.
int Run(const Options& options);
} // namespace Commands
