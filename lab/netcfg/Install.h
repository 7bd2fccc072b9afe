// Puts the stand-in under the engine's class id, and what was there before back.
#pragma once

#include <filesystem>

namespace lab::netcfg
{

// Both throw std::runtime_error.
void Install(const std::filesystem::path& dll);
void Uninstall();

} // namespace lab::netcfg
