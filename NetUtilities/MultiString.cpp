#include "NetUtilities/MultiString.h"

#include <algorithm>
#include <cstring>

std::list<std::wstring> ParseMultiString(std::wstring_view characters)
{
    std::list<std::wstring> result;
    while (!characters.empty())
    {
        const std::size_t end = std::min(characters.find(L'\0'), characters.size());
        if (end == 0)
        {
            break;
        }
        result.emplace_back(characters.substr(0, end));
        characters.remove_prefix(std::min(end + 1, characters.size()));
    }
    return result;
}

std::list<std::wstring> ParseMultiString(std::span<const std::byte> bytes)
{
    // The platform's characters are 16 bits wide whatever this compiler's wchar_t is; bytes need not be aligned.
    std::wstring characters;
    characters.reserve(bytes.size() / sizeof(char16_t));
    for (std::size_t at = 0; at + sizeof(char16_t) <= bytes.size(); at += sizeof(char16_t))
    {
        char16_t character = 0;
        std::memcpy(&character, bytes.data() + at, sizeof(character));
        characters += static_cast<wchar_t>(character);
    }
    return ParseMultiString(std::wstring_view(characters));
}

std::wstring JoinMultiString(const std::list<std::wstring>& strings)
{
    std::wstring result;
    for (const std::wstring& text : strings)
    {
        if (!text.empty())
        {
            result += text;
            result += L'\0';
        }
    }
    result += L'\0';
    return result;
}

std::wstring SplitValuePath(std::wstring_view path, std::wstring& key)
{
    key.clear();
    const std::size_t separator = path.rfind(L'\\');
    if (separator == std::wstring_view::npos)
    {
        return {};
    }
    key = path.substr(0, separator);
    return std::wstring(path.substr(separator + 1));
}

FullPathParts SplitFullPath(std::wstring_view path) noexcept
{
    const std::size_t separator = path.find(L'\\');
    if (separator == std::wstring_view::npos)
    {
        return {};
    }
    return {path.substr(0, separator), path.substr(separator + 1), true};
}
