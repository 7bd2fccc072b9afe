// Installing, starting and removing the lab's kernel driver in the prefix of this process.
#pragma once

#include <cstdint>
#include <filesystem>

namespace lab
{

inline constexpr wchar_t DriverServiceName[] = L"HalcydLabDriver";

// Each returns the Win32 error, 0 for success.

// Creates the driver's service for this image (a .sys file). An existing one gets the new path.
[[nodiscard]] std::uint32_t InstallDriver(const std::filesystem::path& image);
// Starts it. The state must have been written once: the driver maps the table at its start. Success if it runs.
[[nodiscard]] std::uint32_t StartDriver();
// Stops it. Success if it is not running.
[[nodiscard]] std::uint32_t StopDriver();
// Stops it and deletes its service. Success if there is none.
[[nodiscard]] std::uint32_t RemoveDriver();
[[nodiscard]] bool IsDriverRunning();

} // namespace lab
