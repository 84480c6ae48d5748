#include "host/ctl/table.h"

#include <algorithm>
#include <cstdio>

#include "host/osal/text.h"

namespace ctl {

namespace {

// The lines of a text, without controls; one that is empty of a text without any.
std::vector<std::string> LinesOf(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(host::LineOfText(text.substr(at, end - at)));
        at = end + 1;
    }
    return lines.empty() ? std::vector<std::string>{""} : lines;
}

// "6m 02s", "2h 05m".
bool IsDuration(const std::string &text) {
    unsigned first = 0, second = 0;
    int end = 0;
    return (sscanf(text.c_str(), "%um %us%n", &first, &second, &end) == 2 && end != 0) ||
           (sscanf(text.c_str(), "%uh %um%n", &first, &second, &end) == 2 && end != 0);
}

// A number, perhaps with a unit: "4711", "-20", "12.5 %", "3.4 MiB".
bool IsQuantity(const std::string &text) {
    constexpr size_t kLongestUnit = 3;
    const size_t end = std::min(text.find_first_not_of("0123456789.", text.starts_with('-') ? 1 : 0), text.size());
    const size_t rest = text.size() - end;
    const bool isNumber = text.find_first_of("0123456789") < end;
    return isNumber && (rest == 0 || (text[end] == ' ' && rest <= kLongestUnit + 1 &&
                                      text.find_first_of("0123456789.()-", end) == text.npos));
}

} // namespace

Table::Table(const std::vector<std::string> &heads) : heads_(RowOf(heads)) {}

Table::Row Table::RowOf(const std::vector<std::string> &texts) {
    Row row;
    std::ranges::transform(texts, std::back_inserter(row), LinesOf);
    return row;
}

void Table::Add(const std::vector<std::string> &row) {
    rows_.push_back(RowOf(row));
}

std::vector<Table::Column> Table::Columns() const {
    std::vector<Column> columns;
    const auto widen = [&columns](const Row &row) {
        columns.resize(std::max(columns.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            for (const std::string &line : row[i]) {
                columns[i].width = std::max(columns[i].width, WidthOf(line));
            }
        }
    };
    widen(heads_);
    std::ranges::for_each(rows_, widen);
    for (size_t i = 0; i < columns.size(); ++i) {
        columns[i].right = IsToTheRight(i);
    }
    return columns;
}

size_t Table::Width() const {
    size_t sum = 0;
    for (const Column &column : Columns()) {
        sum += column.width + (sum == 0 ? 0 : 2);
    }
    return sum;
}

// A number may be missing, but no cell is anything else.
bool Table::IsToTheRight(size_t column) const {
    bool hasNumber = false;
    for (const Row &row : rows_) {
        const std::string text = column < row.size() ? row[column].front() : "";
        const bool isNumber = IsQuantity(text) || IsDuration(text);
        if (!isNumber && !text.empty() && text != "-") {
            return false;
        }
        hasNumber = hasNumber || isNumber;
    }
    return hasNumber;
}

void Table::PrintRow(std::ostream &out, const Row &row, const Form &form, bool head) {
    const auto &[columns, style, indent] = form;
    size_t lines = 1;
    for (const Cell &cell : row) {
        lines = std::max(lines, cell.size());
    }
    for (size_t at = 0; at < lines; ++at) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string text = at < row[i].size() ? row[i][at] : "";
            const std::string padding(columns[i].width - WidthOf(text), ' ');
            line += (i == 0 ? "" : "  ") + (columns[i].right ? padding + text : text + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        line = style.whole ? line : CutTo(line, style.width);
        out << (head ? style.Bold(line) : line) << "\n";
    }
}

void Table::Print(std::ostream &out, const Style &style, size_t indent) const {
    const Form form{Columns(), style, indent};
    if (!heads_.empty()) {
        PrintRow(out, heads_, form, true);
    }
    for (const Row &row : rows_) {
        PrintRow(out, row, form, false);
    }
}

} // namespace ctl
