// What the simulated machine writes into the prefix's registry: WMI's class, and what Windows keeps there about its
// network adapters. All of it is taken out again by Uninstall.
#pragma once

#include "lab/state/Machine.h"

namespace lab::ctl
{

// Points WbemLocator's class at `dll` and remembers what was there.
void InstallWmi(const std::filesystem::path& dll);
[[nodiscard]] bool IsWmiInstalled();

// Writes, for each adapter, its class key, its device key and its TCP/IP key, and removes those of adapters that are
// gone since the last time:
//   Control\Class\{4D36E972-...}\NNNN     NetCfgInstanceId, Characteristics, DriverDesc, ...
//   Enum\<pnpDeviceId>                    Class, ClassGUID, Driver, DeviceDesc, Service, Mfg, HardwareID, ...
//   Control\Network\{4D36E972-...}\<guid>\Connection
//   Services\Tcpip\Parameters\Interfaces\<guid>
// Devices of "devices" get their Enum keys.
void WriteAdapterKeys(const Json& state);

// Takes WMI's class and all keys away.
void Uninstall();

} // namespace lab::ctl
