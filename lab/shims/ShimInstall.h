// Puts the shims beside a program and tells Wine to prefer them for it.
#pragma once

#include <filesystem>
#include <vector>

namespace lab
{

// The shims' file names.
[[nodiscard]] const std::vector<std::wstring>& ShimNames();

// Copies every shim that lies in `folder` beside `program` and switches it on for programs of that file name. Throws
// std::runtime_error with a text for a person.
void InstallShims(const std::filesystem::path& program, const std::filesystem::path& folder);

// Takes them away again. A file that is in use stays; it is not loaded any more without the switch.
void RemoveShims(const std::filesystem::path& program);

} // namespace lab
