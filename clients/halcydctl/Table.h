#pragma once
// A text table. Pure.

#include <cstddef>
#include <string>
#include <vector>

class Table
{
public:
    struct Column
    {
        std::wstring title;
        // Columns that may be cut when the table is wider than wanted, down to this width; 0 for never.
        std::size_t shrinkTo = 0;
        // When cutting is not enough, columns go altogether, the highest of these first; 0 for never.
        int dropOrder = 0;
    };

    explicit Table(std::vector<Column> tableColumns);

    // One cell per column; cells may be styled but carry no line breaks.
    void AddRow(std::vector<std::wstring> cells);
    [[nodiscard]] bool Empty() const noexcept { return rows.empty(); }

    // The table's lines without line breaks: titles, a rule, the rows. Wider than `maximumWidth` only if no column can
    // shrink or go any more; 0 for no limit.
    [[nodiscard]] std::vector<std::wstring> Lines(std::size_t maximumWidth) const;

    // True if all columns have their place in this width, some of them cut perhaps.
    [[nodiscard]] bool FitsWhole(std::size_t maximumWidth) const;

private:
    // Which columns are shown, and how wide.
    struct Layout
    {
        std::vector<std::size_t> shown;
        std::vector<std::size_t> widths; // of all columns
    };
    [[nodiscard]] std::size_t NarrowestWidth(std::size_t column, std::size_t naturalWidth) const;
    [[nodiscard]] std::vector<std::size_t> NaturalWidths() const;
    [[nodiscard]] Layout Arrange(std::size_t maximumWidth) const;

    std::vector<Column> columns;
    std::vector<std::vector<std::wstring>> rows;
};
