#include "Halcyd/AdapterGates.h"

#include <windows.h>
#include <ntddndis.h>

#include <set>

namespace
{
const std::set<std::wstring, std::less<>> adapterIgnoreList{
    L"",        L"tvnic", L"TUNMP",  L"VMnetAdapter", L"Eacfilt",  L"IPSECSHM", L"VPCNetS2",
    L"SymIMMP", L"tmcfw", L"tunnel", L"usb_rndisx",   L"AsyncMac", L"FirehkMP",
};
} // namespace

bool IsIgnoredAdapterService(std::wstring_view serviceName)
{
    return adapterIgnoreList.find(serviceName) != adapterIgnoreList.end();
}

bool NamesComPort(std::wstring_view deviceId)
{
    return SameTextAnyCase(deviceId.substr(0, 3), L"COM");
}

MediumDecision DecideByMedium(std::uint32_t medium) noexcept
{
    switch (medium)
    {
    case NdisMedium802_3:
        return {enumEthernet, true};
    case NdisMediumWirelessWan:
        return {enumUnknown, true};
    case NdisMediumIrda:
        return {enumInfrared, false};
    case NdisMedium1394:
        return {enum1394, false};
    default:
        return {enumUnknown, false};
    }
}

PhysicalMediumDecision DecideByPhysicalMedium(_ADAPTER_TYPE type, std::uint32_t physicalMedium) noexcept
{
    switch (physicalMedium)
    {
    case NdisPhysicalMediumWirelessLan:
    case NdisPhysicalMediumNative802_11:
        return {enumWiFi, true};
    case NdisPhysicalMedium1394:
        return {enum1394, true};
    case NdisPhysicalMediumBluetooth:
        return {enumBluetooth, true};
    default:
        return {type, false};
    }
}

std::wstring_view FromFirstBrace(std::wstring_view text) noexcept
{
    const auto brace = text.find(L'{');
    return brace == std::wstring_view::npos ? text : text.substr(brace);
}

std::wstring_view WithoutBracketedIndex(std::wstring_view text) noexcept
{
    if (text.empty() || text.front() != L'[')
    {
        return text;
    }
    const auto blank = text.find(L' ');
    return blank == std::wstring_view::npos ? text : text.substr(blank + 1);
}

bool SameTextAnyCase(std::wstring_view left, std::wstring_view right) noexcept
{
    if (left.size() != right.size())
    {
        return false;
    }
    // The platform takes an empty text without an address for an error.
    return left.empty() || CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                                static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}
