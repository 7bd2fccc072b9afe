#include "clients/TraceStore/LineFormat.h"

#include <windows.h>

#include <charconv>
#include <climits>
#include <optional>

namespace TraceFile
{
namespace
{
// Reads one of the two leading numbers and the blank behind it off the front of `line`.
std::optional<std::uint16_t> TakeNumber(std::string_view& line)
{
    std::uint16_t value = 0;
    const char* const begin = line.data();
    const char* const end = begin + line.size();
    const auto [stopped, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || stopped == end || *stopped != ' ')
    {
        return std::nullopt;
    }
    line.remove_prefix(static_cast<std::size_t>(stopped - begin) + 1);
    return value;
}

bool IsHighSurrogate(wchar_t character)
{
    return character >= 0xD800 && character <= 0xDBFF;
}
} // namespace

std::string ToUtf8(std::wstring_view text)
{
    std::string bytes;
    while (!text.empty())
    {
        // The platform counts in int; pieces stay far below that and never part a pair of surrogates.
        std::size_t piece = text.size() < 0x1000000 ? text.size() : 0x1000000;
        if (piece < text.size() && IsHighSurrogate(text[piece - 1]))
        {
            --piece;
        }
        const std::size_t before = bytes.size();
        const int needed =
            WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(piece), nullptr, 0, nullptr, nullptr);
        if (needed <= 0)
        {
            break;
        }
        bytes.resize(before + static_cast<std::size_t>(needed));
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(piece), bytes.data() + before, needed, nullptr,
                            nullptr);
        text.remove_prefix(piece);
    }
    return bytes;
}

std::wstring FromUtf8(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > INT_MAX)
    {
        return {};
    }
    const int needed = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    if (needed <= 0)
    {
        return {};
    }
    std::wstring text(static_cast<std::size_t>(needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), needed);
    return text;
}

std::wstring Limit(std::wstring_view text)
{
    if (text.size() <= MaximumText)
    {
        return std::wstring(text);
    }
    const std::size_t kept = IsHighSurrogate(text[MaximumText - 1]) ? MaximumText - 1 : MaximumText;
    std::wstring cut(text.substr(0, kept));
    cut += CutMark;
    return cut;
}

void AppendRecord(std::string& out, std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    out += std::to_string(source);
    out += ' ';
    out += std::to_string(level);
    out += ' ';
    const std::string bytes = ToUtf8(text);
    std::size_t start = 0;
    for (std::size_t found = bytes.find('\n'); found != std::string::npos; found = bytes.find('\n', start))
    {
        out.append(bytes, start, found + 1 - start);
        out += '\t';
        start = found + 1;
    }
    out.append(bytes, start);
    out += '\n';
}

std::vector<Line> ParseRecords(std::string_view bytes)
{
    std::vector<Line> lines;
    std::string text;
    bool open = false; // lines.back() still gathers its text
    const auto close = [&]
    {
        if (open)
        {
            lines.back().text = FromUtf8(text);
            open = false;
        }
    };
    while (!bytes.empty())
    {
        const std::size_t end = bytes.find('\n');
        if (end == std::string_view::npos)
        {
            // Torn tail: if it continues a record, the record is torn as well.
            if (open && bytes.front() == '\t')
            {
                lines.pop_back();
                open = false;
            }
            break;
        }
        std::string_view line = bytes.substr(0, end);
        bytes.remove_prefix(end + 1);
        if (!line.empty() && line.front() == '\t')
        {
            if (open)
            {
                text += '\n';
                text += line.substr(1);
            }
            continue;
        }
        close();
        const std::optional<std::uint16_t> source = TakeNumber(line);
        const std::optional<std::uint16_t> level = source ? TakeNumber(line) : std::nullopt;
        if (!source || !level)
        {
            continue;
        }
        lines.push_back({*source, *level, {}});
        text = line;
        open = true;
    }
    close();
    return lines;
}
} // namespace TraceFile
