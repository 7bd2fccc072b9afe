// The import table of the running program, changed in memory only: the file on disk stays what it is.
#pragma once

#include <string>
#include <vector>

namespace lab::shim
{

// Names of all functions that the running program imports by name, of all DLLs.
[[nodiscard]] std::vector<std::string> ImportedFunctions();

// Lets the program's imports of `function`, from whatever DLL, go to `replacement`. Returns where they went before, or
// null if the program does not import it. To be called while the program's own code does not run yet.
void* ReplaceImport(const char* function, void* replacement) noexcept;

} // namespace lab::shim
