// Records as people read them.
#pragma once

#include <ostream>

#include "host/ctl/table.h"
#include "host/describe/json.h"
#include "host/meaning/meaning.h"

namespace ctl {

// A member a line, nested tables indented, texts of several lines below each other, vectors of flat tables as a table
// of their own; one that is wider than the terminal, or than a page where it has one row, downwards. With the members
// and the numbers as they travel, or as that record means them.
void PrintRecord(std::ostream &out, const host::describe::Record &record, const Style &style);
void PrintRecord(std::ostream &out, const host::describe::Record &record, const host::meaning::Record &meaning,
                 const Style &style);

// A member of a record for a cell of a table, of its JSON of the wire.
std::string MemberText(const host::describe::Type &type, const host::meaning::Record &meaning, size_t slot,
                       const host::describe::Json &wire);

} // namespace ctl
