// The objects of a class, made from the machine's state at the moment of asking.
#pragma once

#include "lab/wmi/ClassObject.h"
#include "lab/wmi/Wql.h"

namespace lab::wmi
{

// Those that meet the condition, in the order of the adapters in the state.
[[nodiscard]] std::vector<Reference<ClassObject>> Instances(Namespace space, const ClassPointer& type,
                                                            const Json& state, const Condition* where);

// The adapter of a configuration or adapter object with that key ("Index", "DeviceID"); null if there is none.
[[nodiscard]] const Json* FindByKey(const ClassType& type, const Json& state, std::wstring_view key);

} // namespace lab::wmi
