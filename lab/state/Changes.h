// What happens to a machine's network, as changes of the state together with the events that Windows raises for them.
// Used by labctl and by the WMI methods, so that both roads leave the same machine behind. All are to be called from
// within Machine::Update; `adapter` is an element of state["adapters"].
//
// Events raised, by channel:
//   "wmi"      type = class in root\wmi, "InstanceName", for arrival and removal also "DeviceName"
//   "address"  type = "add" or "delete"; "guid", "interfaceIndex", "address", "prefix"
//   "device"   type = "arrival" or "removal"; "guid"
#pragma once

#include "lab/state/Machine.h"

namespace lab
{

// The driver's name of the adapter as NDIS puts it into events: "instanceName" if set, otherwise the description.
[[nodiscard]] std::string InstanceName(const Json& adapter);

// An event of root\wmi about an adapter.
[[nodiscard]] Json NdisEvent(const Json& adapter, const std::string& className);

// Media. Out: a leased address goes with the cable, a static one stays configured. In: the lease comes back if
// `withLease`; otherwise it comes when ApplyLease is called. Each does nothing to a cable that is already so, except
// for the event, which a driver may repeat.
void CableOut(Json& adapter, Events& events);
void CableIn(Json& adapter, Events& events, bool withLease);

void ApplyLease(Json& adapter, Events& events); // DHCP hands out what "dhcp"."lease" holds
void DropLease(Json& adapter, Events& events);  // the leased addresses go; what was leased is remembered in "lease"

void AddAddress(Json& adapter, Events& events, const std::string& address, int prefix);
bool RemoveAddress(Json& adapter, Events& events, const std::string& address); // false: it was not there
// All addresses at once: those that are gone are deleted, new ones added, the order is as given.
void SetAddresses(Json& adapter, Events& events, const Json& addresses);

// The adapter comes into the machine, or leaves it. It stays in the state with "present" false.
void Arrive(Json& adapter, Events& events);
void Depart(Json& adapter, Events& events);

} // namespace lab
