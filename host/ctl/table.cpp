#include "host/ctl/table.h"

#include <algorithm>

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

} // namespace

bool IsQuantity(const std::string &text) {
    constexpr size_t kLongestUnit = 3;
    const size_t end = std::min(text.find_first_not_of("0123456789.", text.starts_with('-') ? 1 : 0), text.size());
    const size_t rest = text.size() - end;
    return text.find_first_of("0123456789") < end &&
           (rest == 0 ||
            (text[end] == ' ' && rest <= kLongestUnit + 1 && text.find_first_of("0123456789.()-", end) == text.npos));
}

Table::Table(const std::vector<std::string> &heads) : heads_(RowOf(heads)) {}

Table::Row Table::RowOf(const std::vector<std::string> &texts) {
    Row row;
    std::ranges::transform(texts, std::back_inserter(row), LinesOf);
    return row;
}

void Table::Add(const std::vector<std::string> &row) {
    rows_.push_back(RowOf(row));
}

std::vector<size_t> Table::Widths() const {
    std::vector<size_t> widths;
    const auto widen = [&widths](const Row &row) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            for (const std::string &line : row[i]) {
                widths[i] = std::max(widths[i], WidthOf(line));
            }
        }
    };
    widen(heads_);
    std::ranges::for_each(rows_, widen);
    return widths;
}

size_t Table::Width() const {
    size_t sum = 0;
    for (const size_t width : Widths()) {
        sum += width + (sum == 0 ? 0 : 2);
    }
    return sum;
}

// A head stands as what is below it.
bool Table::IsToTheRight(const Row &row, size_t column, bool head) const {
    const Row &looked = head && !rows_.empty() && column < rows_.front().size() ? rows_.front() : row;
    return IsQuantity(looked[column].front());
}

void Table::PrintRow(std::ostream &out, const Row &row, const Form &form, bool head) const {
    const auto &[widths, style, indent] = form;
    size_t lines = 1;
    for (const Cell &cell : row) {
        lines = std::max(lines, cell.size());
    }
    for (size_t at = 0; at < lines; ++at) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string text = at < row[i].size() ? row[i][at] : "";
            const std::string padding(widths[i] - WidthOf(text), ' ');
            line += (i == 0 ? "" : "  ") + (IsToTheRight(row, i, head) ? padding + text : text + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        line = style.whole ? line : CutTo(line, style.width);
        out << (head ? style.Bold(line) : line) << "\n";
    }
}

void Table::Print(std::ostream &out, const Style &style, size_t indent) const {
    const Form form{Widths(), style, indent};
    if (!heads_.empty()) {
        PrintRow(out, heads_, form, true);
    }
    for (const Row &row : rows_) {
        PrintRow(out, row, form, false);
    }
}

} // namespace ctl
