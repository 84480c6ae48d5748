// Rows of text in columns, for people.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "host/ctl/terminal.h"

namespace ctl {

// Columns are as wide as the terminal shows what is in them, numbers and what stands above them to the right. Controls
// never get out of a cell; lines of one do, below each other.
class Table {
public:
    Table() = default;
    explicit Table(const std::vector<std::string> &heads);

    void Add(const std::vector<std::string> &row);
    bool IsEmpty() const { return rows_.empty(); }

    // Of its longest line.
    size_t Width() const;
    void Print(std::ostream &out, const Style &style = {}, size_t indent = 0) const;

private:
    using Cell = std::vector<std::string>; // its lines
    using Row = std::vector<Cell>;
    struct Form {
        std::vector<size_t> widths;
        const Style &style;
        size_t indent;
    };

    static Row RowOf(const std::vector<std::string> &texts);
    std::vector<size_t> Widths() const;
    void PrintRow(std::ostream &out, const Row &row, const Form &form, bool head) const;
    bool IsToTheRight(const Row &row, size_t column, bool head) const;

    Row heads_;
    std::vector<Row> rows_;
};

// A number, perhaps with a unit: "4711", "-20", "12.5 %", "3.4 MiB".
bool IsQuantity(const std::string &text);

} // namespace ctl
