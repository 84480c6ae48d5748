// Records as people read them.
#pragma once

#include <ostream>

#include "host/describe/json.h"

namespace ctl {

// Rows of text in columns of one width, numbers to the right.
class Columns {
public:
    void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void Print(std::ostream &out, size_t indent) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

// kWire shows members and numbers as they travel; kMeaning what they mean, with units and the names of processes.
enum class View { kWire, kMeaning };

// A field a line, nested tables indented, vectors of flat tables as a table of their own.
void PrintRecord(std::ostream &out, const host::describe::Record &record, View view);

} // namespace ctl
