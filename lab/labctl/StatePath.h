// Places in the state as a person writes them: "adapters.eth0.dhcp.enabled". In a list an element is named by its
// number, or by its "name", "guid", "id" or "ssid" (letter case ignored). A text in quotation marks is one member even
// if it has a '.'.
#pragma once

#include "lab/state/Machine.h"

namespace lab::ctl
{

// All throw std::runtime_error that says how far the path led.
[[nodiscard]] const Json& GetValue(const Json& state, const std::string& path);
void SetValue(Json& state, const std::string& path, const Json& value); // makes missing members; "-" appends to a list
void RemoveValue(Json& state, const std::string& path);

} // namespace lab::ctl
