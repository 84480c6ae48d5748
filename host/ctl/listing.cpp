#include "host/ctl/listing.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/ctl/print.h"
#include "host/describe/named.h"

namespace ctl {

using namespace host::describe;

void AddListOptions(const Command &task, ListOptions &options) {
    task.Option("--columns", options.columns, "NAMES", "Which columns, and in which order: a,b,c; \"all\" for all")
        .SplitAt(',');
    task.Flag("--no-headers", options.noHeaders, "Rows only");
    task.Flag("--json", options.json, "For programs: an object a line, with all members");
}

void AddJson(const Command &task, bool &json) {
    task.Flag("--json", json, "For programs");
}

Listing::Listing(const ListOptions &options, std::vector<std::string> columns, const std::vector<std::string> &shown)
    : options_(options), columns_(std::move(columns)) {
    const std::vector<std::string> &wanted = !options.columns.empty() ? options.columns : shown;
    if (wanted.empty() || wanted == std::vector<std::string>{"all"}) {
        for (size_t i = 0; i < columns_.size(); ++i) {
            shown_.push_back(i);
        }
        return;
    }
    for (const std::string &name : wanted) {
        const auto found = std::ranges::find(columns_, name);
        if (found == columns_.end()) {
            throw Failure(kUsage, fmt::format("--columns: found {}, expected names of: {}",
                                              name.empty() ? "nothing" : name, fmt::join(columns_, ", ")));
        }
        shown_.push_back(static_cast<size_t>(found - columns_.begin()));
    }
}

Listing::Listing(const ListOptions &options, const host::meaning::Record &meaning,
                 const std::vector<std::string> &shown)
    : Listing(options, ColumnsOf(meaning), shown) {}

std::vector<std::string> Listing::ColumnsOf(const host::meaning::Record &meaning) {
    std::vector<std::string> names;
    for (const host::meaning::Member &member : meaning.members) {
        names.emplace_back(member.name);
    }
    return names;
}

void Listing::Add(const std::vector<std::string> &cells, Json json) {
    rows_.push_back(cells);
    objects_.push_back(std::move(json));
}

void Listing::Add(const Elements &elements) {
    for (const Json &element : elements.wire) {
        std::vector<std::string> cells;
        for (size_t i = 0; i < elements.type.slots.size(); ++i) {
            cells.push_back(MemberText(elements.type, elements.meaning, i, element[elements.type.slots[i].name]));
        }
        Add(cells, ToNamed(element, elements.meaning));
    }
}

void Listing::Print(std::ostream &out, const Style &style, const std::string &none) const {
    if (rows_.empty() && !none.empty() && !options_.json && !options_.noHeaders) {
        out << none << "\n";
        return;
    }
    if (options_.json) {
        for (const Json &object : objects_) {
            out << object.dump() << "\n";
        }
        return;
    }
    const auto chosen = [&](const std::vector<std::string> &cells) {
        std::vector<std::string> row;
        std::ranges::transform(shown_, std::back_inserter(row), [&](size_t column) { return cells[column]; });
        return row;
    };
    Table table(options_.noHeaders ? std::vector<std::string>() : chosen(columns_));
    for (const auto &row : rows_) {
        table.Add(chosen(row));
    }
    table.Print(out, style);
}

void Listing::Show(const std::string &none) const {
    const Output output(!options_.json && !rows_.empty());
    Print(std::cout, output.GetStyle(), none);
}

} // namespace ctl
