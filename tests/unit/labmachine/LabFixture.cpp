#include "LabFixture.h"

#include "lab/state/Model.h"

#include <windows.h>

namespace lab::test
{

Json SmallMachine()
{
    return Json::parse(R"({
      "hostName": "TESTHOST",
      "suffixSearchOrder": ["office.example", "example"],
      "adapters": [
        { "name": "eth0", "guid": "{11111111-0000-4000-8000-000000000001}", "index": 7, "interfaceIndex": 12, "alias": "Ethernet",
          "description": "Brevik Ethernet", "manufacturer": "Brevik", "service": "brv", "mac": "02:00:5E:00:53:01",
          "pnpDeviceId": "PCI\\VEN_F1A0\\1", "characteristics": 132, "media": "connected",
          "dhcp": { "enabled": true, "server": "192.0.2.1",
                    "lease": { "addresses": [ { "address": "192.0.2.7", "prefix": 24 } ], "gateways": ["192.0.2.1"], "dns": ["192.0.2.53"] } },
          "addresses": [ { "address": "192.0.2.7", "prefix": 24 }, { "address": "fe80::7", "prefix": 64 } ],
          "gateways": ["192.0.2.1"], "dns": ["192.0.2.53"], "dnsStatic": [], "dnsDomain": null,
          "wins": { "primary": null, "secondary": null },
          "driver": { "open": true, "medium": 0, "physicalMedium": 0, "vendorId": "0x00001234", "vendorDescription": "Brevik driver",
                      "driverVersion": "0x00010002", "linkSpeed": 1000000000 } },
        { "name": "wlan0", "guid": "{11111111-0000-4000-8000-000000000002}", "index": 9, "interfaceIndex": 14, "alias": "Wi-Fi",
          "description": "Larkspur Wireless", "manufacturer": "Larkspur", "service": "lks", "mac": "02:00:5E:00:53:02",
          "pnpDeviceId": null, "characteristics": 132, "media": "connected", "dhcp": { "enabled": false },
          "addresses": [ { "address": "198.51.100.9", "prefix": 25 } ], "gateways": [], "dns": [], "dnsStatic": ["198.51.100.53"],
          "dnsDomain": "radio.example", "wins": { "primary": "198.51.100.60", "secondary": null },
          "driver": { "open": true, "medium": 0, "physicalMedium": 9, "linkSpeed": 54000000 } },
        { "name": "wan0", "guid": "{11111111-0000-4000-8000-000000000003}", "index": 2, "description": "WAN Miniport", "service": "NdisWan",
          "mac": null, "ipEnabled": false, "characteristics": 41, "driver": { "open": false } }
      ] })");
}

Machine& LabTest::TheMachine()
{
    // Before the first use: the folder of this process alone, so that tests run side by side.
    static const bool chosen = []
    {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        const std::wstring folder = temp + (L"halcyd-lab-test-" + std::to_wstring(GetCurrentProcessId()));
        return SetEnvironmentVariableW(L"HALCYD_LAB", folder.c_str()) != FALSE;
    }();
    EXPECT_TRUE(chosen);
    return Machine::Attach();
}

void LabTest::SetUp()
{
    Machine& machine = TheMachine();
    machine.Update([](Json& state, Events&) { state = SmallMachine(); });
    machine.ClearFaults();
    machine.SwitchJournal(true);
    machine.ClearJournal();
}

void LabTest::Set(const char* pointer, const Json& value)
{
    TheMachine().Update([&](Json& state, Events&) { state[Json::json_pointer(pointer)] = value; });
}

std::vector<Json> LabTest::Calls(std::string_view call)
{
    JournalPosition position;
    std::vector<Json> lines = TheMachine().ReadJournal(position);
    std::erase_if(lines, [&](const Json& line) { return TextField(line, "call") != call; });
    return lines;
}

} // namespace lab::test
