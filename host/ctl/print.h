// Records as people read them.
#pragma once

#include <ostream>

#include "host/describe/json.h"

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

// What is in an array of characters, for a line on a terminal.
std::string NameText(const host::describe::Json &name);

// kWire shows members and numbers as they travel; kMeaning what they mean, with units and the names of processes.
enum class View { kWire, kMeaning };

// A field a line, nested tables indented, vectors of flat tables as a table of their own.
void PrintRecord(std::ostream &out, const host::describe::Record &record, View view);

} // namespace ctl
