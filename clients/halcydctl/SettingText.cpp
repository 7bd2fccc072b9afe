#include "clients/halcydctl/SettingText.h"

#include <charconv>
#include <string_view>

namespace
{
std::optional<std::uint32_t> ParseIpv4(std::string_view text)
{
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part)
    {
        std::uint32_t number = 0;
        const auto [stopped, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        const std::size_t digits = static_cast<std::size_t>(stopped - text.data());
        if (error != std::errc() || digits > 3 || number > 255)
        {
            return std::nullopt;
        }
        text.remove_prefix(digits);
        value = value << 8 | number;
        if (part < 3)
        {
            if (text.empty() || text.front() != '.')
            {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
    }
    return text.empty() ? std::optional(value) : std::nullopt;
}

std::string Ipv4Mask(unsigned bits)
{
    const std::uint32_t mask = bits == 0 ? 0 : 0xFFFFFFFFu << (32 - bits);
    return std::to_string(mask >> 24) + "." + std::to_string(mask >> 16 & 0xFF) + "." +
           std::to_string(mask >> 8 & 0xFF) + "." + std::to_string(mask & 0xFF);
}
} // namespace

std::wstring SettingResultWords(std::uint32_t result)
{
    switch (result)
    {
    case 1:
        return L"It was done and takes effect after a restart of the machine.";
    case 2:
        return L"The adapter has no such setting in the registry.";
    case 64:
        return L"The method is not supported on this platform.";
    case 65:
        return L"Unknown failure of the adapter's configuration.";
    case 66:
        return L"The mask is not valid.";
    case 68:
        return L"A parameter is not valid.";
    case 70:
        return L"An address is not valid.";
    case 71:
        return L"A gateway is not valid.";
    case 81:
        return L"DHCP could not be configured.";
    case 82:
        return L"The DHCP lease could not be renewed.";
    case 83:
        return L"The DHCP lease could not be released.";
    case 84:
        return L"IP is not enabled on the adapter.";
    case 91:
        return L"Access was denied.";
    case 100:
        return L"DHCP is not enabled on the adapter.";
    case 0x80041017:
        return L"No adapter has this id, or more than one has.";
    default:
        return {};
    }
}

std::wstring SettingResultCure(std::uint32_t result)
{
    switch (result)
    {
    case 1:
        return L"Restart the machine.";
    case 66:
    case 68:
    case 70:
    case 71:
        return L"Look at what was typed: --help tells the form.";
    case 84:
        return L"Plug the adapter in, or bind TCP/IP to it.";
    case 100:
        return L"First: halcydctl dhcp enable.";
    case 0x80041017:
        return L"The ids stand in: halcydctl list --json.";
    default:
        return L"The trace tells more: halcydctl trace --level 3.";
    }
}

std::optional<AddressAndMask> SplitAddress(const std::string& text)
{
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == text.size())
    {
        return std::nullopt;
    }
    AddressAndMask parts{text.substr(0, slash), text.substr(slash + 1)};
    if (parts.address.find(':') != std::string::npos)
    {
        const std::optional<std::uint64_t> prefix = NumberFromText(parts.mask, 128);
        return prefix ? std::optional(parts) : std::nullopt;
    }
    if (!ParseIpv4(parts.address))
    {
        return std::nullopt;
    }
    if (parts.mask.find('.') == std::string::npos)
    {
        const std::optional<std::uint64_t> prefix = NumberFromText(parts.mask, 32);
        if (!prefix)
        {
            return std::nullopt;
        }
        parts.mask = Ipv4Mask(static_cast<unsigned>(*prefix));
        return parts;
    }
    const std::optional<std::uint32_t> mask = ParseIpv4(parts.mask);
    return mask && (~*mask & (~*mask + 1)) == 0 ? std::optional(parts) : std::nullopt;
}

std::optional<std::uint64_t> NumberFromText(const std::string& text, std::uint64_t highest)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = std::string_view(text).substr(hexadecimal ? 2 : 0);
    std::uint64_t number = 0;
    const auto [stopped, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number, hexadecimal ? 16 : 10);
    if (digits.empty() || error != std::errc() || stopped != digits.data() + digits.size() || number > highest)
    {
        return std::nullopt;
    }
    return number;
}

std::wstring ServiceStateWords(std::uint32_t state)
{
    constexpr const wchar_t* Words[] = {L"stopped",          L"start pending", L"stop pending", L"running",
                                        L"continue pending", L"pause pending", L"paused"};
    return state >= 1 && state <= 7 ? Words[state - 1] : L"state " + std::to_wstring(state);
}

bool ServiceStateFollows(std::uint32_t state, bool stop)
{
    constexpr std::uint32_t stopped = 1;
    constexpr std::uint32_t startPending = 2;
    constexpr std::uint32_t stopPending = 3;
    constexpr std::uint32_t running = 4;
    return stop ? state == stopped || state == stopPending : state == running || state == startPending;
}

std::wstring StartTypeWords(std::uint32_t startType)
{
    constexpr const wchar_t* Words[] = {L"boot", L"system", L"automatic", L"on demand", L"disabled"};
    return startType <= 4 ? Words[startType] : L"start type " + std::to_wstring(startType);
}
