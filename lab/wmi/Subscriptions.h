// Notification queries: from the machine's events to the clients' sinks.
//
// Each sink has one thread of its own (in the multithreaded apartment), so the events of one sink arrive in the order
// in which they happened, and a sink that blocks holds up nobody else. Events of one query that wait together go into
// one Indicate.
#pragma once

#include "lab/wmi/ClassObject.h"
#include "lab/wmi/Wql.h"

namespace lab::wmi
{

// From the return of this call on, every event that meets the query reaches the sink. `owner` is the connection that
// the client used; only through it can the query be cancelled.
void Subscribe(const void* owner, IWbemObjectSink* sink, ClassPointer type, Query query, bool sendStatus);

// Ends all queries of the sink that came through `owner`; false if there are none. The sink hears SetStatus with
// WBEM_E_CALL_CANCELLED, if it asked for status, on its thread and perhaps after this call has returned; an Indicate
// that runs at the moment is not waited for.
bool Cancel(const void* owner, IWbemObjectSink* sink);

} // namespace lab::wmi
