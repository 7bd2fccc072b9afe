#pragma once
// How a trace line stands in a file, and back. Pure functions.
//
// One line of the file is "source level text", both numbers in decimal, one blank behind each. A line break inside a
// text is kept as a line break followed by a tab, so a physical line that starts with a tab belongs to the record
// before it. Lines that start with '#' are notes of the trace service. The file is UTF-8 without a byte order mark;
// unpaired surrogates become U+FFFD.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TraceFile
{
// One record, apart from its number.
struct Line
{
    std::uint16_t source = 0;
    std::uint16_t level = 0;
    std::wstring text;
};

// Characters that are kept of one text; what is longer is cut and ends in CutMark.
inline constexpr std::size_t MaximumText = std::size_t{256} * 1024;
inline constexpr std::wstring_view CutMark = L" [cut]";

[[nodiscard]] std::string ToUtf8(std::wstring_view text);
// Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::wstring FromUtf8(std::string_view bytes);

// The text itself, or its first MaximumText characters with CutMark behind; a pair of surrogates is never parted.
[[nodiscard]] std::wstring Limit(std::wstring_view text);

// Appends the record, its final line break included, to `out`.
void AppendRecord(std::string& out, std::uint16_t source, std::uint16_t level, std::wstring_view text);

// Reads records back. Notes are skipped; a torn first or last line (a tail without line break, a start in the middle of
// a record) is dropped rather than guessed.
[[nodiscard]] std::vector<Line> ParseRecords(std::string_view bytes);
} // namespace TraceFile
