#include "clients/halcydctl/Table.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "clients/halcydctl/Text.h"

namespace
{
constexpr std::size_t Gap = 2;

std::size_t Sum(const std::vector<std::size_t>& shown, const std::vector<std::size_t>& widths)
{
    std::size_t total = shown.empty() ? 0 : Gap * (shown.size() - 1);
    for (const std::size_t column : shown)
    {
        total += widths[column];
    }
    return total;
}

std::wstring Joined(const std::vector<std::wstring>& cells, const std::vector<std::size_t>& shown,
                    const std::vector<std::size_t>& widths)
{
    std::wstring line;
    for (const std::size_t column : shown)
    {
        // A cut cell loses its style: half a sequence must not get out.
        const std::wstring& cell = cells[column];
        const bool fits = Text::Width(cell) <= widths[column];
        const std::wstring text = fits ? cell : Text::Cut(Text::WithoutStyles(cell), widths[column]);
        line += text;
        if (column != shown.back())
        {
            line.append(widths[column] - Text::Width(text) + Gap, L' ');
        }
    }
    return line;
}
} // namespace

Table::Table(std::vector<Column> tableColumns) : columns(std::move(tableColumns)) {}

void Table::AddRow(std::vector<std::wstring> cells)
{
    cells.resize(columns.size());
    rows.push_back(std::move(cells));
}

std::size_t Table::NarrowestWidth(std::size_t column, std::size_t naturalWidth) const
{
    const std::size_t shrinkTo = columns[column].shrinkTo;
    return shrinkTo == 0 ? naturalWidth
                         : std::min(naturalWidth, std::max(shrinkTo, Text::Width(columns[column].title)));
}

std::vector<std::size_t> Table::NaturalWidths() const
{
    std::vector<std::size_t> widths;
    for (const Column& column : columns)
    {
        widths.push_back(Text::Width(column.title));
    }
    for (const std::vector<std::wstring>& row : rows)
    {
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            widths[column] = std::max(widths[column], Text::Width(row[column]));
        }
    }
    return widths;
}

Table::Layout Table::Arrange(std::size_t maximumWidth) const
{
    Layout layout{std::vector<std::size_t>(columns.size()), NaturalWidths()};
    std::iota(layout.shown.begin(), layout.shown.end(), std::size_t{0});
    if (maximumWidth == 0)
    {
        return layout;
    }
    std::vector<std::size_t> narrowest;
    for (std::size_t column = 0; column < columns.size(); ++column)
    {
        narrowest.push_back(NarrowestWidth(column, layout.widths[column]));
    }
    while (Sum(layout.shown, narrowest) > maximumWidth)
    {
        const auto next =
            std::ranges::max_element(layout.shown, {}, [&](std::size_t c) { return columns[c].dropOrder; });
        if (next == layout.shown.end() || columns[*next].dropOrder == 0)
        {
            break;
        }
        layout.shown.erase(next);
    }
    while (Sum(layout.shown, layout.widths) > maximumWidth)
    {
        // Take a column off whatever can give most.
        const auto widest =
            std::ranges::max_element(layout.shown, {}, [&](std::size_t c) { return layout.widths[c] - narrowest[c]; });
        if (widest == layout.shown.end() || layout.widths[*widest] == narrowest[*widest])
        {
            break;
        }
        --layout.widths[*widest];
    }
    return layout;
}

bool Table::FitsWhole(std::size_t maximumWidth) const
{
    return Arrange(maximumWidth).shown.size() == columns.size();
}

std::vector<std::wstring> Table::Lines(std::size_t maximumWidth) const
{
    const Layout layout = Arrange(maximumWidth);
    std::vector<std::wstring> titles;
    for (const Column& column : columns)
    {
        titles.push_back(Text::Styled(column.title, Text::Style::Bold));
    }
    std::vector<std::wstring> lines;
    lines.push_back(Joined(titles, layout.shown, layout.widths));
    lines.push_back(Text::Styled(std::wstring(Sum(layout.shown, layout.widths), L'-'), Text::Style::Faint));
    for (const std::vector<std::wstring>& row : rows)
    {
        lines.push_back(Joined(row, layout.shown, layout.widths));
    }
    return lines;
}
