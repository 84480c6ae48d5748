// Records as people read them.
#pragma once

#include <ostream>

#include "host/describe/json.h"
#include "host/meaning/meaning.h"

namespace ctl {

// Rows of text in columns of one width, numbers and what stands above them to the right. Whatever a text holds, it
// stays in its line.
class Columns {
public:
    void Add(const std::vector<std::string> &row);
    void Print(std::ostream &out, size_t indent) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

// A member a line, nested tables indented, vectors of flat tables as a table of their own: with the members and the
// numbers as they travel, or as that record means them.
void PrintRecord(std::ostream &out, const host::describe::Record &record);
void PrintRecord(std::ostream &out, const host::describe::Record &record, const host::meaning::Record &meaning);

} // namespace ctl
