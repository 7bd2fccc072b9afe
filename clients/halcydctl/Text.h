#pragma once
// Small text helpers of the console client. Pure functions.

#include <windows.h>
#include <oleauto.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Text
{
// Unpaired surrogates become U+FFFD, bytes that are not UTF-8 as well.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);
[[nodiscard]] std::wstring FromUtf8(std::string_view bytes);

// A BSTR or another wide text as it is; null gives an empty text.
[[nodiscard]] std::wstring_view View(const wchar_t* text) noexcept;

// Text up to its first null character, at most `capacity` characters: for the fixed arrays of the records.
template <class Character, std::size_t capacity>
[[nodiscard]] std::basic_string_view<Character> Fixed(const Character (&text)[capacity]) noexcept
{
    std::size_t length = 0;
    while (length < capacity && text[length] != Character{})
    {
        ++length;
    }
    return {text, length};
}

// What may go to a terminal: control characters become U+FFFD, so that a network name cannot send escape sequences.
[[nodiscard]] std::wstring Printable(std::wstring_view text);

// Columns that the text takes on a terminal: 2 for wide East Asian characters, 0 for combining ones. Styling (below)
// counts 0.
[[nodiscard]] std::size_t Width(std::wstring_view text) noexcept;

// The text cut to `columns`, the last of them "…" if something was cut.
[[nodiscard]] std::wstring Cut(std::wstring_view text, std::size_t columns);

enum class Style : std::uint8_t
{
    Plain,
    Bold,
    Faint,
    Green,
    Yellow,
    Red,
    Cyan,
    Magenta,
};

// Text with its style written as a select-graphic-rendition sequence. Output that has no colours takes it out again.
[[nodiscard]] std::wstring Styled(std::wstring_view text, Style style);

// A text with styling, taken apart.
struct Segment
{
    std::wstring text;
    Style style = Style::Plain;
    bool operator==(const Segment&) const = default;
};
[[nodiscard]] std::vector<Segment> Segments(std::wstring_view styled);
[[nodiscard]] std::wstring WithoutStyles(std::wstring_view styled);

// "0x8004A024"
[[nodiscard]] std::wstring Hex(std::uint32_t value);

// "100 Mbit/s", "2.5 Gbit/s", "-" for 0.
[[nodiscard]] std::wstring Speed(std::uint32_t bitsPerSecond);

// "255.255.255.0" gives 24, anything that is no mask gives -1.
[[nodiscard]] int PrefixLength(std::wstring_view mask);

// "AA:BB:CC:DD:EE:FF"
[[nodiscard]] std::wstring MacText(const unsigned char (&address)[6]);

// The system's English text for a code, one line; empty if it has none.
[[nodiscard]] std::wstring SystemText(std::uint32_t code);
} // namespace Text
