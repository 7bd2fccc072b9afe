// Bringing the machine in line with another picture of it, as changes that happen to a running machine.
#pragma once

#include "lab/state/Machine.h"

namespace lab::ctl
{

// Makes `state` what `fresh` says and appends the events of the differences: an adapter that is new or back arrives,
// one that is not in `fresh` departs (and stays known), media and addresses change. Adapters are the same if their
// GUIDs are. Members of the state that `fresh` does not mention are kept.
void SyncTo(Json& state, const Json& fresh, Events& events);

} // namespace lab::ctl
