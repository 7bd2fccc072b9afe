// SendARP from the machine's ARP table:
//   "arp": [ { "address": "192.0.2.1", "mac": "02:00:5E:00:53:FE", "error": 0, "delayMs": 0 } ]
// `error` makes the exchange for that address fail, after the delay.
#include "lab/shims/Shim.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace
{

using lab::Json;

constexpr std::size_t physicalLength = 6;

std::string AddressText(IPAddr address)
{
    char text[16];
    std::snprintf(text, sizeof text, "%lu.%lu.%lu.%lu", address & 0xFF, address >> 8 & 0xFF, address >> 16 & 0xFF,
                  address >> 24);
    return text;
}

// An interface of this machine that is there and has the address.
bool IsOwnAddress(const Json& state, const std::string& text)
{
    for (const Json& adapter : lab::Member(state, "adapters"))
    {
        if (!lab::IsPresent(adapter))
            continue;
        for (const Json& address : lab::Member(adapter, "addresses"))
        {
            if (lab::TextField(address, "address") == text)
                return true;
        }
    }
    return false;
}

std::array<BYTE, physicalLength> ParseMac(const std::string& text)
{
    std::array<unsigned, physicalLength> parts{};
    std::array<BYTE, physicalLength> bytes{};
    if (std::sscanf(text.c_str(), "%x%*[:-]%x%*[:-]%x%*[:-]%x%*[:-]%x%*[:-]%x", &parts[0], &parts[1], &parts[2],
                    &parts[3], &parts[4], &parts[5]) == 6)
        std::transform(parts.begin(), parts.end(), bytes.begin(),
                       [](unsigned part) { return static_cast<BYTE>(part); });
    return bytes;
}

const Json* FindEntry(const Json& state, const std::string& text)
{
    for (const Json& entry : lab::Member(state, "arp"))
    {
        if (lab::TextField(entry, "address") == text)
            return &entry;
    }
    return nullptr;
}

DWORD Exchange(const Json& state, IPAddr destination, IPAddr source, std::array<BYTE, physicalLength>& mac)
{
    if (source != 0 && !IsOwnAddress(state, AddressText(source)))
        return ERROR_NOT_FOUND;
    const Json* const entry = FindEntry(state, AddressText(destination));
    if (entry == nullptr)
        return ERROR_BAD_NET_NAME; // nobody answered
    if (const auto delay = lab::NumberField(*entry, "delayMs", 0); delay > 0)
        Sleep(static_cast<DWORD>(delay));
    if (const auto error = lab::NumberField(*entry, "error", 0); error != 0)
        return static_cast<DWORD>(error);
    mac = ParseMac(lab::TextField(*entry, "mac"));
    return NO_ERROR;
}

} // namespace

SHIM_EXPORT(DWORD, SendARP)(IPAddr destination, IPAddr source, PVOID physical, PULONG length)
{
    lab::Machine& machine = lab::Machine::Attach();
    lab::Call call{"SendARP", machine};
    call.Arg("destination", AddressText(destination)).Arg("source", AddressText(source));
    if (const auto code = call.Fault())
        return call.Result(static_cast<DWORD>(*code));
    if (physical == nullptr || length == nullptr)
        return call.Result(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    if (*length < physicalLength)
        return call.Result(static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));

    std::array<BYTE, physicalLength> mac{};
    const DWORD error = Exchange(*machine.Snapshot(), destination, source, mac);
    if (error == NO_ERROR)
    {
        std::copy(mac.begin(), mac.end(), static_cast<BYTE*>(physical));
        *length = physicalLength;
        char text[20];
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                      mac[5]);
        call.Out("mac", text);
    }
    return call.Result(error);
}
