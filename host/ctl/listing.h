// What tasks that list have in common: columns that can be chosen, and an object a line for programs.
#pragma once

#include "host/ctl/command.h"
#include "host/ctl/server.h"
#include "host/ctl/table.h"

namespace ctl {

struct ListOptions {
    std::vector<std::string> columns; // empty for those that the task shows by itself
    bool noHeaders = false;
    bool json = false;
};

void AddListOptions(const Command &task, ListOptions &options);

// Of the whole program's tasks: what answers with one record.
void AddJson(const Command &task, bool &json);

class Listing {
public:
    // With all columns that there are, and those that are shown unless others are chosen; none for all.
    Listing(const ListOptions &options, std::vector<std::string> columns, const std::vector<std::string> &shown = {});
    // Of records, whose members are the columns.
    Listing(const ListOptions &options, const host::meaning::Record &meaning, const std::vector<std::string> &shown);

    void Add(const std::vector<std::string> &cells, host::describe::Json json);
    void Add(const Elements &elements);

    // JSON, or the table; for one that would be empty, what there is none of, unless that is nothing.
    void Print(std::ostream &out, const Style &style, const std::string &none = "") const;
    // The same on standard output, through a pager.
    void Show(const std::string &none) const;

private:
    static std::vector<std::string> ColumnsOf(const host::meaning::Record &meaning);

    const ListOptions &options_;
    const std::vector<std::string> columns_;
    std::vector<size_t> shown_;
    std::vector<std::vector<std::string>> rows_;
    std::vector<host::describe::Json> objects_;
};

} // namespace ctl
