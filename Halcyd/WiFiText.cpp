#include "Halcyd/WiFiText.h"

#include <windows.h>

#include <cstring>

#include "NetUtilities/Format.h"

std::wstring WiFiDeviceName(std::wstring_view deviceId)
{
    return std::wstring(L"\\DEVICE\\").append(deviceId);
}

std::wstring MacAddressText(const std::array<std::uint8_t, 6>& mac)
{
    return FormatText(L"{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::vector<std::wstring> SplitAtCommas(std::wstring_view text)
{
    std::vector<std::wstring> items;
    while (!text.empty())
    {
        const auto comma = text.find(L',');
        items.emplace_back(text.substr(0, comma));
        if (comma == std::wstring_view::npos)
        {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    return items;
}

std::wstring WidenProfileName(const char (&name)[260])
{
    const auto length = static_cast<int>(strnlen(name, sizeof name));
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    const int written = MultiByteToWideChar(CP_ACP, 0, name, length, wide.data(), length);
    wide.resize(static_cast<std::size_t>(written));
    return wide;
}
