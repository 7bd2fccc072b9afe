#include "clients/halcydctl/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>

#include "NetUtilities/Handles.h"

namespace Text
{
namespace
{
struct StyleCode
{
    Style style;
    std::wstring_view code;
};
constexpr std::array<StyleCode, 8> StyleCodes{{{Style::Plain, L"0"},
                                               {Style::Bold, L"1"},
                                               {Style::Faint, L"90"},
                                               {Style::Green, L"32"},
                                               {Style::Yellow, L"33"},
                                               {Style::Red, L"31"},
                                               {Style::Cyan, L"36"},
                                               {Style::Magenta, L"35"}}};

std::wstring_view CodeOf(Style style)
{
    return std::ranges::find(StyleCodes, style, &StyleCode::style)->code;
}

// Length of the styling sequence at the front of `text`, 0 if there is none; its code goes to `code`.
std::size_t SequenceAt(std::wstring_view text, std::wstring_view& code)
{
    if (!text.starts_with(L"\x1b["))
    {
        return 0;
    }
    const std::size_t end = text.find(L'm', 2);
    if (end == std::wstring_view::npos)
    {
        return 0;
    }
    code = text.substr(2, end - 2);
    return end + 1;
}

bool IsWide(char32_t character)
{
    return (character >= 0x1100 && character <= 0x115F) || (character >= 0x2E80 && character <= 0xA4CF) ||
           (character >= 0xAC00 && character <= 0xD7A3) || (character >= 0xF900 && character <= 0xFAFF) ||
           (character >= 0xFE30 && character <= 0xFE6F) || (character >= 0xFF00 && character <= 0xFF60) ||
           (character >= 0xFFE0 && character <= 0xFFE6) || (character >= 0x1F300 && character <= 0x1FAFF) ||
           (character >= 0x20000 && character <= 0x3FFFD);
}

bool IsCombining(char32_t character)
{
    return (character >= 0x0300 && character <= 0x036F) || (character >= 0x200B && character <= 0x200F) ||
           (character >= 0x20D0 && character <= 0x20FF) || (character >= 0xFE00 && character <= 0xFE0F);
}

// One character off the front, two units for a pair of surrogates.
char32_t Take(std::wstring_view& text)
{
    const char32_t first = text.front();
    text.remove_prefix(1);
    if (first >= 0xD800 && first <= 0xDBFF && !text.empty() && text.front() >= 0xDC00 && text.front() <= 0xDFFF)
    {
        const char32_t second = text.front();
        text.remove_prefix(1);
        return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
    }
    return first;
}

std::size_t ColumnsOf(char32_t character)
{
    return IsCombining(character) ? 0 : IsWide(character) ? 2 : 1;
}
} // namespace

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty() || text.size() > INT_MAX / 4)
    {
        return {};
    }
    const int length = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(std::max(needed, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, bytes.data(), needed, nullptr, nullptr);
    return bytes;
}

std::wstring FromUtf8(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > INT_MAX)
    {
        return {};
    }
    const int length = static_cast<int>(bytes.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, nullptr, 0);
    std::wstring text(static_cast<std::size_t>(std::max(needed, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, text.data(), needed);
    return text;
}

std::wstring_view View(const wchar_t* text) noexcept
{
    return text != nullptr ? std::wstring_view(text) : std::wstring_view();
}

std::wstring Printable(std::wstring_view text)
{
    std::wstring result(text);
    for (wchar_t& character : result)
    {
        if (character < 0x20 || (character >= 0x7F && character <= 0x9F))
        {
            character = 0xFFFD;
        }
    }
    return result;
}

std::size_t Width(std::wstring_view text) noexcept
{
    std::size_t columns = 0;
    while (!text.empty())
    {
        std::wstring_view code;
        if (const std::size_t length = SequenceAt(text, code))
        {
            text.remove_prefix(length);
            continue;
        }
        columns += ColumnsOf(Take(text));
    }
    return columns;
}

std::wstring Cut(std::wstring_view text, std::size_t columns)
{
    if (Width(text) <= columns)
    {
        return std::wstring(text);
    }
    std::wstring kept;
    std::size_t used = 0;
    while (!text.empty() && columns != 0)
    {
        const std::wstring_view before = text;
        const std::size_t wide = ColumnsOf(Take(text));
        if (used + wide > columns - 1)
        {
            break;
        }
        used += wide;
        kept.append(before.substr(0, before.size() - text.size()));
    }
    return columns != 0 ? kept + L"\x2026" : kept;
}

std::wstring Styled(std::wstring_view text, Style style)
{
    if (style == Style::Plain || text.empty())
    {
        return std::wstring(text);
    }
    std::wstring result = L"\x1b[";
    result += CodeOf(style);
    result += L'm';
    result += text;
    result += L"\x1b[0m";
    return result;
}

std::vector<Segment> Segments(std::wstring_view styled)
{
    std::vector<Segment> segments;
    Style style = Style::Plain;
    while (!styled.empty())
    {
        std::wstring_view code;
        if (const std::size_t length = SequenceAt(styled, code))
        {
            const auto known = std::ranges::find(StyleCodes, code, &StyleCode::code);
            style = known != StyleCodes.end() ? known->style : Style::Plain;
            styled.remove_prefix(length);
            continue;
        }
        const std::size_t next = styled.find(L'\x1b', 1);
        const std::wstring_view piece = styled.substr(0, next);
        if (!segments.empty() && segments.back().style == style)
        {
            segments.back().text += piece;
        }
        else
        {
            segments.push_back({std::wstring(piece), style});
        }
        styled.remove_prefix(piece.size());
    }
    return segments;
}

std::wstring WithoutStyles(std::wstring_view styled)
{
    std::wstring plain;
    for (const Segment& segment : Segments(styled))
    {
        plain += segment.text;
    }
    return plain;
}

std::wstring Hex(std::uint32_t value)
{
    std::wstring digits = L"0x00000000";
    for (std::size_t place = digits.size() - 1; place >= 2; --place)
    {
        digits[place] = L"0123456789ABCDEF"[value & 0xF];
        value >>= 4;
    }
    return digits;
}

std::wstring Speed(std::uint32_t bitsPerSecond)
{
    struct Unit
    {
        std::uint32_t size;
        const wchar_t* name;
    };
    for (const Unit unit : {Unit{1000000000, L" Gbit/s"}, Unit{1000000, L" Mbit/s"}, Unit{1000, L" kbit/s"}})
    {
        if (bitsPerSecond >= unit.size)
        {
            const std::uint32_t whole = bitsPerSecond / unit.size;
            const std::uint32_t tenth = bitsPerSecond % unit.size / (unit.size / 10);
            std::wstring text = std::to_wstring(whole);
            if (tenth != 0)
            {
                text += L'.';
                text += std::to_wstring(tenth);
            }
            return text + unit.name;
        }
    }
    return bitsPerSecond == 0 ? L"-" : std::to_wstring(bitsPerSecond) + L" bit/s";
}

int PrefixLength(std::wstring_view mask)
{
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part)
    {
        std::uint32_t number = 0;
        std::size_t digits = 0;
        while (digits < mask.size() && digits < 3 && mask[digits] >= L'0' && mask[digits] <= L'9')
        {
            number = number * 10 + static_cast<std::uint32_t>(mask[digits] - L'0');
            ++digits;
        }
        if (digits == 0 || number > 255)
        {
            return -1;
        }
        mask.remove_prefix(digits);
        if (part < 3)
        {
            if (mask.empty() || mask.front() != L'.')
            {
                return -1;
            }
            mask.remove_prefix(1);
        }
        value = value << 8 | number;
    }
    const std::uint32_t rest = ~value;
    if (!mask.empty() || (rest & (rest + 1)) != 0)
    {
        return -1;
    }
    int length = 0;
    for (; value != 0; value <<= 1)
    {
        ++length;
    }
    return length;
}

std::wstring MacText(const unsigned char (&address)[6])
{
    std::wstring text;
    for (const unsigned char byte : address)
    {
        if (!text.empty())
        {
            text += L':';
        }
        text += L"0123456789ABCDEF"[byte >> 4];
        text += L"0123456789ABCDEF"[byte & 0xF];
    }
    return text;
}

std::wstring SystemText(std::uint32_t code)
{
    UniqueLocalMemory<wchar_t> buffer;
    constexpr DWORD English = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                            FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                                        nullptr, code, English, reinterpret_cast<wchar_t*>(buffer.put()), 0, nullptr);
    std::wstring text = length != 0 ? std::wstring(buffer.get(), length) : std::wstring();
    text.erase(
        std::find_if_not(text.rbegin(), text.rend(), [](wchar_t c) { return c == L' ' || c == L'\r' || c == L'\n'; })
            .base(),
        text.end());
    return text;
}
} // namespace Text
