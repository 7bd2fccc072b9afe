// The verbs of labctl. Each file of verbs enters its own into the command line; a verb that fails throws
// std::runtime_error with a text for a person.
#pragma once

#include "lab/state/Machine.h"

#include <CLI/CLI.hpp>

namespace lab::ctl
{

void AddStateVerbs(CLI::App& app);   // load, install, uninstall, dump, get, set
void AddAdapterVerbs(CLI::App& app); // cable, adapter, dhcp, address
void AddEventVerbs(CLI::App& app);   // event, events, storm
void AddJournalVerbs(CLI::App& app); // journal
void AddFaultVerbs(CLI::App& app);   // fail, slow, kill
void AddControlVerbs(CLI::App& app); // control, power, hooks
void AddNetCfgVerbs(CLI::App& app);  // bindings, lock

// The whole tool: what main does. Returns the exit code: 0 done, 1 the verb failed, 2 the command line was wrong.
int Run(const std::vector<std::string>& arguments);

// Prints a document: indented for a person, on one line for a script.
void Print(const Json& json, bool oneLine);

} // namespace lab::ctl
