// Results of a run by the name of the row, and the table that a person reads.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "bench/messages.h"

namespace bench {

struct Row {
    double time = 0; // ns
    double bytes = 0;
    double allocations = 0;
};
using Rows = std::map<std::string, Row>;
using Instructions = std::map<std::string, double>; // on ARM, by the name of the row

Instructions ReadInstructions(const std::string &path);

void PrintReport(std::ostream &out, const std::vector<Message> &messages, const Rows &rows,
                 const Instructions &instructions);

} // namespace bench
