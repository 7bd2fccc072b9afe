#include "clients/halcydctl/TraceText.h"

#include "clients/halcydctl/Options.h"
#include "clients/halcydctl/Text.h"

namespace
{
constexpr std::size_t SourceWidth = 13;

Text::Style StyleOf(std::uint16_t level)
{
    return level <= 2   ? Text::Style::Red
           : level == 3 ? Text::Style::Yellow
           : level >= 5 ? Text::Style::Faint
                        : Text::Style::Plain;
}
} // namespace

std::vector<std::wstring> TraceLines(std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    std::wstring head = std::to_wstring(level) + L" " + Text::FromUtf8(SourceName(source));
    head.append(head.size() < SourceWidth + 2 ? SourceWidth + 2 - head.size() : 1, L' ');
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r'))
    {
        text.remove_suffix(1);
    }
    std::vector<std::wstring> lines;
    for (;;)
    {
        const std::size_t end = text.find(L'\n');
        std::wstring_view piece = text.substr(0, end);
        if (piece.ends_with(L'\r'))
        {
            piece.remove_suffix(1);
        }
        std::wstring shown(piece);
        for (wchar_t& character : shown)
        {
            character = character == L'\t' ? L' ' : character;
        }
        lines.push_back(Text::Styled(head + Text::Printable(shown), StyleOf(level)));
        if (end == std::wstring_view::npos)
        {
            return lines;
        }
        text.remove_prefix(end + 1);
        head.assign(SourceWidth + 2, L' ');
    }
}

nlohmann::ordered_json TraceJson(std::int64_t number, std::uint16_t source, std::uint16_t level, std::wstring_view text)
{
    return {{"number", number},
            {"source", source},
            {"sourceName", SourceName(source)},
            {"level", level},
            {"text", Text::ToUtf8(text)}};
}
