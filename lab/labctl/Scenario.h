// Scenario files: reading, checking, and filling in what a writer may leave out.
#pragma once

#include "lab/state/Machine.h"

namespace lab::ctl
{

// Finds "NAME", "NAME.json" or a path: as given, or in the folder "scenarios" beside this program.
// Throws std::runtime_error that names the places where it looked.
[[nodiscard]] std::filesystem::path FindScenario(const std::string& name);
[[nodiscard]] Json ReadScenario(const std::filesystem::path& path);

// Gives each adapter its missing "index", "interfaceIndex" and "guid", and checks that names, GUIDs and indices are
// unique. Throws std::runtime_error that names the adapter and the fault.
void Complete(Json& state);

// A GUID that belongs to a name for good: the same name gives the same GUID on every machine.
[[nodiscard]] std::string GuidFor(const std::string& name);

} // namespace lab::ctl
