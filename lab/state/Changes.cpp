#include "lab/state/Changes.h"

#include "lab/state/Model.h"

#include <algorithm>

namespace lab
{

namespace
{

Json AddressEvent(const Json& adapter, const char* type, const Json& entry)
{
    return {{"channel", "address"},
            {"type", type},
            {"guid", TextField(adapter, "guid")},
            {"interfaceIndex", NumberField(adapter, "interfaceIndex", 0)},
            {"address", TextField(entry, "address")},
            {"prefix", NumberField(entry, "prefix", 0)}};
}

bool Holds(const Json& list, const Json& entry)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const Json& other) { return TextField(other, "address") == TextField(entry, "address"); });
}

Json ListField(const Json& object, const char* key)
{
    const Json& list = Member(object, key);
    return list.is_array() ? list : Json::array();
}

bool UsesDhcp(const Json& adapter)
{
    return FlagField(Member(adapter, "dhcp"), "enabled", false);
}

} // namespace

std::string InstanceName(const Json& adapter)
{
    return TextField(adapter, "instanceName", TextField(adapter, "description"));
}

Json NdisEvent(const Json& adapter, const std::string& className)
{
    Json event{{"channel", "wmi"}, {"type", className}, {"InstanceName", InstanceName(adapter)}};
    // Only arrival and removal carry the device's name; the status classes have no such property.
    if (className.rfind("MSNdis_Notify", 0) == 0)
    {
        event["DeviceName"] = "\\DEVICE\\" + TextField(adapter, "guid");
    }
    return event;
}

void SetAddresses(Json& adapter, Events& events, const Json& addresses)
{
    const Json before = ListField(adapter, "addresses");
    for (const Json& entry : before)
    {
        if (!Holds(addresses, entry))
        {
            events.push_back(AddressEvent(adapter, "delete", entry));
        }
    }
    adapter["addresses"] = addresses;
    for (const Json& entry : addresses)
    {
        if (!Holds(before, entry))
        {
            events.push_back(AddressEvent(adapter, "add", entry));
        }
    }
}

void AddAddress(Json& adapter, Events& events, const std::string& address, int prefix)
{
    Json addresses = ListField(adapter, "addresses");
    const Json entry{{"address", address}, {"prefix", prefix}};
    if (Holds(addresses, entry))
    {
        return;
    }
    // IPv4 stands before IPv6, as Windows lists them.
    const auto place = IsIpv6(address) ? addresses.end()
                                       : std::find_if(addresses.begin(), addresses.end(), [](const Json& other)
                                                      { return IsIpv6(TextField(other, "address")); });
    addresses.insert(place, entry);
    SetAddresses(adapter, events, addresses);
}

bool RemoveAddress(Json& adapter, Events& events, const std::string& address)
{
    Json addresses = ListField(adapter, "addresses");
    const auto found = std::find_if(addresses.begin(), addresses.end(),
                                    [&](const Json& entry) { return TextField(entry, "address") == address; });
    if (found == addresses.end())
    {
        return false;
    }
    addresses.erase(found);
    SetAddresses(adapter, events, addresses);
    return true;
}

void ApplyLease(Json& adapter, Events& events)
{
    const Json lease = Member(Member(adapter, "dhcp"), "lease");
    if (!lease.is_object())
    {
        return;
    }
    adapter["gateways"] = ListField(lease, "gateways");
    if (ListField(adapter, "dnsStatic").empty())
    {
        adapter["dns"] = ListField(lease, "dns");
    }
    if (lease.contains("server"))
    {
        adapter["dhcp"]["server"] = lease["server"];
    }
    SetAddresses(adapter, events, ListField(lease, "addresses"));
}

void DropLease(Json& adapter, Events& events)
{
    Json& dhcp = adapter["dhcp"];
    if (!ListField(adapter, "addresses").empty())
    {
        Json lease = Member(dhcp, "lease").is_object() ? dhcp["lease"] : Json::object();
        lease["addresses"] = ListField(adapter, "addresses");
        lease["gateways"] = ListField(adapter, "gateways");
        if (ListField(adapter, "dnsStatic").empty())
        {
            lease["dns"] = ListField(adapter, "dns");
        }
        dhcp["lease"] = lease;
    }
    adapter["gateways"] = Json::array();
    if (ListField(adapter, "dnsStatic").empty())
    {
        adapter["dns"] = Json::array();
    }
    SetAddresses(adapter, events, Json::array());
}

void CableOut(Json& adapter, Events& events)
{
    adapter["media"] = "disconnected";
    events.push_back(NdisEvent(adapter, "MSNdis_StatusMediaDisconnect"));
    if (UsesDhcp(adapter))
    {
        DropLease(adapter, events);
    }
}

void CableIn(Json& adapter, Events& events, bool withLease)
{
    adapter["media"] = "connected";
    events.push_back(NdisEvent(adapter, "MSNdis_StatusMediaConnect"));
    if (withLease && UsesDhcp(adapter))
    {
        ApplyLease(adapter, events);
    }
}

void Arrive(Json& adapter, Events& events)
{
    adapter["present"] = true;
    events.push_back({{"channel", "device"}, {"type", "arrival"}, {"guid", TextField(adapter, "guid")}});
    events.push_back(NdisEvent(adapter, "MSNdis_NotifyAdapterArrival"));
}

void Depart(Json& adapter, Events& events)
{
    events.push_back(NdisEvent(adapter, "MSNdis_NotifyAdapterRemoval"));
    events.push_back({{"channel", "device"}, {"type", "removal"}, {"guid", TextField(adapter, "guid")}});
    adapter["present"] = false;
}

} // namespace lab
