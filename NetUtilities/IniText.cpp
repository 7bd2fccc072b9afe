#include "NetUtilities/IniText.h"

#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <limits>
#include <stdexcept>

namespace
{
constexpr std::uint32_t Replacement = 0xFFFD;

// One code point of UTF-8 from the front of `text`; U+FFFD for a broken sequence, of which one byte is taken.
std::uint32_t TakeCodePoint(std::string_view& text) noexcept
{
    const auto byteAt = [&](std::size_t at)
    { return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at])); };
    const std::uint32_t first = byteAt(0);
    std::size_t length = 1;
    std::uint32_t value = first;
    std::uint32_t smallest = 0;
    if (first >= 0xF0 && first < 0xF8)
    {
        length = 4, value = first & 0x07, smallest = 0x10000;
    }
    else if (first >= 0xE0 && first < 0xF0)
    {
        length = 3, value = first & 0x0F, smallest = 0x800;
    }
    else if (first >= 0xC0 && first < 0xE0)
    {
        length = 2, value = first & 0x1F, smallest = 0x80;
    }
    else if (first >= 0x80)
    {
        text.remove_prefix(1);
        return Replacement;
    }
    for (std::size_t at = 1; at < length; ++at)
    {
        if (at >= text.size() || (byteAt(at) & 0xC0) != 0x80)
        {
            text.remove_prefix(1);
            return Replacement;
        }
        value = (value << 6) | (byteAt(at) & 0x3F);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value < 0xE000))
    {
        text.remove_prefix(1);
        return Replacement;
    }
    text.remove_prefix(length);
    return value;
}

// Wide text of at most 16 bits a unit, as the platform has it.
std::wstring Widen(std::string_view utf8)
{
    std::wstring wide;
    while (!utf8.empty())
    {
        const std::uint32_t value = TakeCodePoint(utf8);
        if (value < 0x10000)
        {
            wide += static_cast<wchar_t>(value);
        }
        else
        {
            wide += static_cast<wchar_t>(0xD800 + ((value - 0x10000) >> 10));
            wide += static_cast<wchar_t>(0xDC00 + ((value - 0x10000) & 0x3FF));
        }
    }
    return wide;
}

bool EqualWithoutCase(std::wstring_view left, std::wstring_view right) noexcept
{
    if (left.size() != right.size())
    {
        return false;
    }
    for (std::size_t at = 0; at < left.size(); ++at)
    {
        if (std::towlower(static_cast<wint_t>(left[at])) != std::towlower(static_cast<wint_t>(right[at])))
        {
            return false;
        }
    }
    return true;
}
} // namespace

std::vector<std::wstring> IniText::Lines(std::string_view utf8)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (utf8.starts_with(byteOrderMark))
    {
        utf8.remove_prefix(byteOrderMark.size());
    }
    std::vector<std::wstring> lines;
    while (!utf8.empty())
    {
        const std::size_t end = std::min(utf8.find('\n'), utf8.size());
        std::string_view line = utf8.substr(0, end);
        utf8.remove_prefix(std::min(end + 1, utf8.size()));
        if (line.ends_with('\r'))
        {
            line.remove_suffix(1); // as reading in text mode does
        }
        if (!line.empty() && !line.starts_with(';'))
        {
            lines.push_back(Widen(line));
        }
    }
    return lines;
}

std::optional<std::wstring> IniText::Find(const std::vector<std::wstring>& lines, std::wstring_view section,
                                          std::wstring_view key)
{
    const std::wstring header = L"[" + std::wstring(section) + L"]";
    bool inside = false;
    for (const std::wstring& line : lines)
    {
        if (!inside)
        {
            inside = line == header;
            continue;
        }
        if (line.starts_with(L'['))
        {
            break;
        }
        const std::size_t equals = line.find(L'=');
        if (equals != std::wstring::npos && EqualWithoutCase(std::wstring_view(line).substr(0, equals), key))
        {
            return line.substr(equals + 1);
        }
    }
    return std::nullopt;
}

std::uint64_t IniText::ToNumber(std::wstring_view text)
{
    // Reads as the C library's conversion does: leading blanks, a sign (a minus negates modulo 2^64), digits, and
    // whatever stands behind them is left alone.
    const auto isBlank = [](wchar_t c) { return c == L' ' || (c >= L'\t' && c <= L'\r'); };
    const auto isDigit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    while (!text.empty() && isBlank(text.front()))
    {
        text.remove_prefix(1);
    }
    bool negative = false;
    if (!text.empty() && (text.front() == L'+' || text.front() == L'-'))
    {
        negative = text.front() == L'-';
        text.remove_prefix(1);
    }
    if (text.empty() || !isDigit(text.front()))
    {
        throw std::invalid_argument("invalid stoull argument");
    }
    std::uint64_t value = 0;
    for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1))
    {
        const auto digit = static_cast<std::uint64_t>(text.front() - L'0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10)
        {
            throw std::out_of_range("stoull argument out of range");
        }
        value = value * 10 + digit;
    }
    return negative ? 0 - value : value;
}
