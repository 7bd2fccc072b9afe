#pragma once
// The miniport devices and the ARP of the monitor's unit tests: an adapter's device is there when the test says so, and
// answers object identifiers from a table.

#include <winsock2.h>
#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct FakeMiniport
{
    std::map<std::uint32_t, std::vector<std::uint8_t>> answers; // an identifier that is not there fails with 50
    void Set(std::uint32_t oid, std::uint32_t value);
    void Set(std::uint32_t oid, const std::string& text);
};

// In force from construction to destruction; one at a time.
class MiniportScope
{
public:
    MiniportScope();
    ~MiniportScope();
    MiniportScope(const MiniportScope&) = delete;
    MiniportScope& operator=(const MiniportScope&) = delete;

    // By GUID text. An adapter that is not there cannot be opened (error 2).
    std::map<std::wstring, FakeMiniport> adapters;
    int opens = 0;

    // What SendARP answers.
    DWORD arpResult = 0;
    std::vector<std::uint8_t> arpMac = {0x02, 0x00, 0x5E, 0x00, 0x53, 0xFE};
    int arpCalls = 0;
    std::uint32_t arpDestination = 0;
    std::uint32_t arpSource = 0;

    // An Ethernet adapter as most are.
    FakeMiniport& AddEthernet(const std::wstring& guid);

    static MiniportScope* current;
    std::map<HANDLE, std::wstring> open;
};
