#pragma once

#include <cstdint>
#include <string>

// The monitor's reports of what matters: to the trace and, failures, to the event log of the machine. Also keeps the
// product's debug switch up to date (RegistryWatcher).
namespace MonitorReport
{
// Opens the event source and starts watching the switch. Called by the monitor's construction.
void Start();
// The opposite, called by the monitor's destruction. Nobody reports any more by then.
void Stop() noexcept;
} // namespace MonitorReport

// Traces `text` with the monitor's source at `level`; level 2 goes to the event log as well, if that is open.
void ReportMonitorEvent(std::uint16_t level, const std::wstring& text);
