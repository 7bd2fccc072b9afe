#include "clients/halcydctl/Table.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "clients/halcydctl/Text.h"

namespace
{
constexpr std::size_t Gap = 2;

std::wstring Joined(const std::vector<std::wstring>& cells, const std::vector<std::size_t>& widths)
{
    std::wstring line;
    for (std::size_t index = 0; index < cells.size(); ++index)
    {
        // A cut cell loses its style: half a sequence must not get out.
        const std::wstring& cell = cells[index];
        const bool fits = Text::Width(cell) <= widths[index];
        const std::wstring shown = fits ? cell : Text::Cut(Text::WithoutStyles(cell), widths[index]);
        line += shown;
        if (index + 1 < cells.size())
        {
            line.append(widths[index] - Text::Width(shown) + Gap, L' ');
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

std::vector<std::wstring> Table::Lines(std::size_t maximumWidth) const
{
    std::vector<std::size_t> widths;
    for (const Column& column : columns)
    {
        widths.push_back(Text::Width(column.title));
    }
    for (const std::vector<std::wstring>& row : rows)
    {
        for (std::size_t index = 0; index < row.size(); ++index)
        {
            widths[index] = std::max(widths[index], Text::Width(row[index]));
        }
    }
    const auto total = [&] {
        return std::accumulate(widths.begin(), widths.end(), columns.empty() ? 0 : Gap * (columns.size() - 1));
    };
    while (maximumWidth != 0 && total() > maximumWidth)
    {
        // Take a column off whatever can give most.
        std::size_t widest = columns.size();
        std::size_t most = 0;
        for (std::size_t index = 0; index < columns.size(); ++index)
        {
            const std::size_t floor = std::max(columns[index].shrinkTo, Text::Width(columns[index].title));
            if (columns[index].shrinkTo != 0 && widths[index] > floor && widths[index] - floor > most)
            {
                widest = index;
                most = widths[index] - floor;
            }
        }
        if (widest == columns.size())
        {
            break;
        }
        --widths[widest];
    }
    std::vector<std::wstring> lines;
    std::vector<std::wstring> titles;
    for (const Column& column : columns)
    {
        titles.push_back(Text::Styled(column.title, Text::Style::Bold));
    }
    lines.push_back(Joined(titles, widths));
    lines.push_back(Text::Styled(std::wstring(total(), L'-'), Text::Style::Faint));
    for (const std::vector<std::wstring>& row : rows)
    {
        lines.push_back(Joined(row, widths));
    }
    return lines;
}
