#include "clients/halcydctl/AdapterView.h"

#include <algorithm>

#include "clients/halcydctl/Text.h"

namespace
{
std::wstring Copy(BSTR text)
{
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

std::wstring OrDash(const std::wstring& text)
{
    return text.empty() ? L"-" : Text::Printable(text);
}

NetworkView ViewOf(const _WIFI_DETAILS& network)
{
    NetworkView view;
    view.ssid = Text::Fixed(network.Ssid);
    view.bssid = Text::MacText(network.MacAddress);
    view.profile = Text::FromUtf8(Text::Fixed(network.ProfileName));
    view.signalStrength = network.SignalStrength;
    view.privacy = network.Privacy;
    view.networkType = network.NetworkType;
    view.infrastructureMode = network.InfrastructureMode;
    view.maximumRate = network.MaxRate;
    return view;
}

AdapterView ViewOf(const _DEVICE_ELEMENT& element)
{
    AdapterView view;
    view.index = element.DeviceIndex;
    view.id = Copy(element.DeviceId);
    view.instanceId = Copy(element.DeviceInstanceID);
    view.description = Copy(element.Description);
    view.driverService = Copy(element.ServiceName);
    view.ready = element.DeviceStatus != 0;
    view.connected = element.ConnectStatus == 0;
    view.type = static_cast<std::uint32_t>(element.AdapterType);
    view.address = Copy(element.IpInfo.IpAddress);
    view.mask = Copy(element.IpInfo.IpSubnet);
    view.gateway = Copy(element.IpInfo.IpGateway);
    view.dnsServers = Copy(element.IpInfo.IpDnsServerList);
    view.winsServers = Copy(element.IpInfo.IpWinsServerList);
    view.dnsSuffixes = Copy(element.IpInfo.IpDnsSuffixServerList);
    if (const _ETHERNET_ADAPTER* const ethernet = EthernetOf(element))
    {
        view.hasExtension = true;
        view.mac = Copy(ethernet->AdapterMacAddress);
        view.driver = Copy(ethernet->DriverInfo);
        view.bitsPerSecond = ethernet->LinkSpeed;
        view.adjacentMac = Copy(ethernet->GatewayMacAddress);
    }
    else if (const _WIFI_ADAPTER* const wifi = WiFiOf(element))
    {
        view.hasExtension = true;
        view.mac = Copy(wifi->AdapterMacAddress);
        view.driver = Copy(wifi->DriverInfo);
        view.bitsPerSecond = wifi->LinkSpeed;
        view.adjacentMac = Copy(wifi->BssidMacAddress);
        view.ssid = Copy(wifi->Ssid);
        for (const _WIFI_DETAILS& network : Networks(wifi))
        {
            view.networks.push_back(ViewOf(network));
        }
    }
    return view;
}

Text::Style StyleOf(const AdapterView& adapter)
{
    return !adapter.ready ? Text::Style::Yellow : adapter.connected ? Text::Style::Green : Text::Style::Red;
}

// Lists come joined with commas.
nlohmann::ordered_json SplitList(const std::wstring& joined, wchar_t separator)
{
    nlohmann::ordered_json items = nlohmann::ordered_json::array();
    std::size_t start = 0;
    while (start < joined.size())
    {
        const std::size_t end = std::min(joined.find(separator, start), joined.size());
        items.push_back(Text::ToUtf8(std::wstring_view(joined).substr(start, end - start)));
        start = end + 1;
    }
    return items;
}
Table TableOf(const std::vector<AdapterView>& adapters)
{
    Table table({{L"Adapter", 14, 0},
                 {L"Type", 0, 3},
                 {L"State", 0, 0},
                 {L"Speed", 0, 4},
                 {L"Address", 0, 0},
                 {L"Gateway", 0, 2},
                 {L"Gateway/AP MAC", 0, 5},
                 {L"MAC address", 0, 1},
                 {L"Network", 8, 6},
                 {L"Driver", 10, 7}});
    for (const AdapterView& adapter : adapters)
    {
        table.AddRow({OrDash(adapter.description), TypeName(adapter.type),
                      Text::Styled(StateName(adapter), StyleOf(adapter)), Text::Speed(adapter.bitsPerSecond),
                      AddressText(adapter), OrDash(adapter.gateway), OrDash(adapter.adjacentMac), OrDash(adapter.mac),
                      OrDash(adapter.ssid), OrDash(adapter.driver)});
    }
    return table;
}
} // namespace

std::vector<AdapterView> ViewOf(const _DEVICE_ELEMENT* list)
{
    std::vector<AdapterView> views;
    for (const _DEVICE_ELEMENT& element : Devices(list))
    {
        views.push_back(ViewOf(element));
    }
    return views;
}

std::wstring TypeName(std::uint32_t type)
{
    switch (type)
    {
    case 0:
        return L"undecided";
    case enumUnknown:
        return L"unknown";
    case enumModem:
        return L"modem";
    case enumEthernet:
        return L"Ethernet";
    case enumWiFi:
        return L"Wi-Fi";
    case enumInfrared:
        return L"infrared";
    case enum1394:
        return L"IEEE 1394";
    case enumBluetooth:
        return L"Bluetooth";
    case enumWiFiAdHoc:
        return L"Wi-Fi ad hoc";
    default:
        return L"type " + std::to_wstring(type);
    }
}

std::wstring_view StateName(const AdapterView& adapter) noexcept
{
    return !adapter.ready ? L"not ready" : adapter.connected ? L"connected" : L"disconnected";
}

std::wstring AddressText(const AdapterView& adapter)
{
    if (adapter.address.empty())
    {
        return L"-";
    }
    const int prefix = Text::PrefixLength(adapter.mask);
    if (prefix >= 0)
    {
        return Text::Printable(adapter.address) + L"/" + std::to_wstring(prefix);
    }
    return Text::Printable(adapter.mask.empty() ? adapter.address : adapter.address + L" " + adapter.mask);
}

std::wstring NameOf(const std::vector<AdapterView>& adapters, std::wstring_view id)
{
    const auto found = std::ranges::find_if(
        adapters, [&](const AdapterView& adapter)
        { return adapter.id.size() == id.size() && _wcsnicmp(adapter.id.data(), id.data(), id.size()) == 0; });
    return found != adapters.end() && !found->description.empty() ? found->description : std::wstring(id);
}

std::vector<std::wstring> AdapterTable(const std::vector<AdapterView>& adapters, std::size_t maximumWidth)
{
    return adapters.empty() ? std::vector<std::wstring>{L"No adapters."} : TableOf(adapters).Lines(maximumWidth);
}

std::vector<std::wstring> AdapterListing(const std::vector<AdapterView>& adapters, std::size_t maximumWidth)
{
    if (adapters.empty() || TableOf(adapters).FitsWhole(maximumWidth))
    {
        return AdapterTable(adapters, maximumWidth);
    }
    std::vector<std::wstring> lines;
    for (const AdapterView& adapter : adapters)
    {
        const std::wstring state = Text::Styled(StateName(adapter), StyleOf(adapter));
        lines.push_back(Text::Styled(OrDash(adapter.description), Text::Style::Bold));
        lines.push_back(L"    " + TypeName(adapter.type) + L", " + state + L", " + Text::Speed(adapter.bitsPerSecond));
        lines.push_back(L"    address  " + AddressText(adapter));
        lines.push_back(L"    gateway  " + OrDash(adapter.gateway) + L"  " + OrDash(adapter.adjacentMac));
        lines.push_back(L"    MAC      " + OrDash(adapter.mac));
        if (!adapter.ssid.empty())
        {
            lines.push_back(L"    network  " + OrDash(adapter.ssid));
        }
        lines.push_back(L"    driver   " + OrDash(adapter.driver));
    }
    return lines;
}

std::vector<std::wstring> NetworkTables(const std::vector<AdapterView>& adapters, std::size_t maximumWidth)
{
    std::vector<std::wstring> lines;
    for (const AdapterView& adapter : adapters)
    {
        if (adapter.networks.empty())
        {
            continue;
        }
        Table table({{L"Network", 12}, {L"Access point", 0}, {L"Signal", 0}, {L"Profile", 8}});
        for (const NetworkView& network : adapter.networks)
        {
            table.AddRow({OrDash(network.ssid), network.bssid, std::to_wstring(network.signalStrength) + L" %",
                          OrDash(network.profile)});
        }
        lines.push_back(L"");
        lines.push_back(L"Networks seen by " + OrDash(adapter.description));
        for (std::wstring& line : table.Lines(maximumWidth))
        {
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

nlohmann::ordered_json ToJson(const AdapterView& adapter)
{
    nlohmann::ordered_json json;
    json["id"] = Text::ToUtf8(adapter.id);
    json["index"] = adapter.index;
    json["instanceId"] = Text::ToUtf8(adapter.instanceId);
    json["description"] = Text::ToUtf8(adapter.description);
    json["driverService"] = Text::ToUtf8(adapter.driverService);
    json["type"] = adapter.type;
    json["typeName"] = Text::ToUtf8(TypeName(adapter.type));
    json["ready"] = adapter.ready;
    json["connected"] = adapter.connected;
    json["address"] = Text::ToUtf8(adapter.address);
    json["mask"] = Text::ToUtf8(adapter.mask);
    json["gateway"] = Text::ToUtf8(adapter.gateway);
    json["dnsServers"] = SplitList(adapter.dnsServers, L',');
    json["winsServers"] = SplitList(adapter.winsServers, L':');
    json["dnsSuffixes"] = SplitList(adapter.dnsSuffixes, L',');
    if (adapter.hasExtension)
    {
        json["mac"] = Text::ToUtf8(adapter.mac);
        json["driver"] = Text::ToUtf8(adapter.driver);
        json["bitsPerSecond"] = adapter.bitsPerSecond;
        json["adjacentMac"] = Text::ToUtf8(adapter.adjacentMac);
    }
    if (adapter.type == enumWiFi)
    {
        json["ssid"] = Text::ToUtf8(adapter.ssid);
        json["networks"] = nlohmann::ordered_json::array();
        for (const NetworkView& network : adapter.networks)
        {
            json["networks"].push_back({{"ssid", Text::ToUtf8(network.ssid)},
                                        {"bssid", Text::ToUtf8(network.bssid)},
                                        {"profile", Text::ToUtf8(network.profile)},
                                        {"signal", network.signalStrength},
                                        {"privacy", network.privacy},
                                        {"networkType", network.networkType},
                                        {"infrastructureMode", network.infrastructureMode},
                                        {"maximumRate", network.maximumRate}});
        }
    }
    return json;
}

nlohmann::ordered_json ToJson(const std::vector<AdapterView>& adapters)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const AdapterView& adapter : adapters)
    {
        list.push_back(ToJson(adapter));
    }
    return list;
}
