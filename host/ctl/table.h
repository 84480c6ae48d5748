// Rows of text in columns, for people.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "host/ctl/terminal.h"

namespace ctl {

// Columns are as wide as the terminal shows what is in them; those of numbers stand to the right. Controls never get
// out of a cell; lines of one do, below each other.
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
    struct Column {
        size_t width = 0;
        bool right = false; // where its cells stand
    };
    struct Form {
        std::vector<Column> columns;
        const Style &style;
        size_t indent;
    };

    static Row RowOf(const std::vector<std::string> &texts);
    std::vector<Column> Columns() const;
    bool IsToTheRight(size_t column) const;
    static void PrintRow(std::ostream &out, const Row &row, const Form &form, bool head);

    Row heads_;
    std::vector<Row> rows_;
};

} // namespace ctl
