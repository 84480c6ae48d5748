// The daemon's reports of memory, which are text, as rows.
#pragma once

#include "host/ctl/server.h"
#include "host/ctl/tasks/rows.h"

namespace ctl {

// The lines of a report behind its head.
std::vector<std::string> ReportLines(Server &server, const host::describe::Json &request);

// A line that starts with a time: that, and the words behind it.
struct TimedLine {
    std::string time;
    std::vector<std::string> words;
};
TimedLine TimedLineOf(const std::string &line);

// As programs read it: RFC 3339 where the daemon's order of dates allows that.
host::describe::Json TimeJson(const std::string &time);

// Of a time in the daemon's text; nothing where its order of dates can't be known.
std::optional<std::chrono::system_clock::time_point> TimeOf(const std::string &time);

} // namespace ctl
