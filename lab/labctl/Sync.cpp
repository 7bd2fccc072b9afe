#include "lab/labctl/Sync.h"

#include "lab/state/Changes.h"
#include "lab/state/Model.h"

namespace lab::ctl
{

namespace
{

bool Holds(const Json& adapters, const std::string& guid)
{
    for (const Json& adapter : adapters)
    {
        if (TextField(adapter, "guid") == guid)
        {
            return true;
        }
    }
    return false;
}

Json* FindByGuid(Json& state, const std::string& guid)
{
    for (Json& adapter : state["adapters"])
    {
        if (TextField(adapter, "guid") == guid)
        {
            return &adapter;
        }
    }
    return nullptr;
}

// A known adapter becomes what `fresh` says. Media first, then addresses: so does the platform.
void Alter(Json& adapter, const Json& fresh, Events& events)
{
    const bool wasConnected = IsConnected(adapter);
    const bool wasPresent = IsPresent(adapter);
    for (const auto& [key, value] : fresh.items())
    {
        if (key != "addresses")
        {
            adapter[key] = value;
        }
    }
    if (!wasPresent)
    {
        Arrive(adapter, events);
    }
    if (wasConnected != IsConnected(adapter))
    {
        events.push_back(
            NdisEvent(adapter, wasConnected ? "MSNdis_StatusMediaDisconnect" : "MSNdis_StatusMediaConnect"));
    }
    if (const Json& addresses = Member(fresh, "addresses"); addresses.is_array())
    {
        SetAddresses(adapter, events, addresses);
    }
}

} // namespace

void SyncTo(Json& state, const Json& fresh, Events& events)
{
    if (!Member(state, "adapters").is_array())
    {
        state["adapters"] = Json::array();
    }
    for (Json& adapter : state["adapters"])
    {
        if (IsPresent(adapter) && !Holds(Member(fresh, "adapters"), TextField(adapter, "guid")))
        {
            Depart(adapter, events);
        }
    }
    for (const Json& adapter : Member(fresh, "adapters"))
    {
        Json* known = FindByGuid(state, TextField(adapter, "guid"));
        if (known == nullptr)
        {
            state["adapters"].push_back(adapter);
            Arrive(state["adapters"].back(), events);
        }
        else
        {
            Alter(*known, adapter, events);
        }
    }
    for (const auto& [key, value] : fresh.items())
    {
        if (key != "adapters")
        {
            state[key] = value;
        }
    }
}

} // namespace lab::ctl
