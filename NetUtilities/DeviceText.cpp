#include "NetUtilities/DeviceText.h"

#include <algorithm>
#include <cstring>
#include <cwctype>

#include "NetUtilities/MultiString.h"

namespace
{
// Registry type codes; the platform's header is not at hand in native builds.
constexpr std::uint32_t StringType = 1;
constexpr std::uint32_t NumberType = 4;
constexpr std::uint32_t MultiStringType = 7;

constexpr std::size_t PrefixLength = 4; // "vid_", "pid_"

// From `start` to the first "_" or "&" behind the prefix.
std::wstring Part(const std::wstring& id, std::size_t start)
{
    const std::size_t end = id.find_first_of(L"_&", start + PrefixLength);
    return id.substr(start, end == std::wstring::npos ? end : end - start);
}
} // namespace

bool DeviceText::FindUsbIdentity(const std::list<std::wstring>& hardwareIds, std::wstring& vid, std::wstring& pid)
{
    for (std::wstring id : hardwareIds)
    {
        std::transform(id.begin(), id.end(), id.begin(),
                       [](wchar_t c) { return static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c))); });
        const std::size_t vidStart = id.find(L"vid_");
        const std::size_t pidStart = id.find(L"pid_");
        if (vidStart != std::wstring::npos && pidStart != std::wstring::npos)
        {
            vid = Part(id, vidStart);
            pid = Part(id, pidStart);
            return true;
        }
    }
    return false;
}

std::wstring DeviceText::StringOf(std::span<const std::byte> bytes)
{
    std::wstring text;
    for (std::size_t at = 0; at + sizeof(char16_t) <= bytes.size(); at += sizeof(char16_t))
    {
        char16_t character = 0;
        std::memcpy(&character, bytes.data() + at, sizeof(character));
        if (character == u'\0')
        {
            break;
        }
        text += static_cast<wchar_t>(character);
    }
    return text;
}

std::optional<std::uint32_t> DeviceText::NumberOf(std::span<const std::byte> bytes)
{
    std::uint32_t number = 0;
    if (bytes.size() < sizeof(number))
    {
        return std::nullopt;
    }
    std::memcpy(&number, bytes.data(), sizeof(number));
    return number;
}

std::optional<std::list<std::wstring>> DeviceText::PropertyStrings(std::uint32_t type, std::span<const std::byte> bytes)
{
    switch (type)
    {
    case StringType:
        return std::list<std::wstring>{StringOf(bytes)};
    case NumberType:
        return std::list<std::wstring>{std::to_wstring(NumberOf(bytes).value_or(0))};
    case MultiStringType:
        return ParseMultiString(bytes);
    default:
        return std::nullopt;
    }
}
