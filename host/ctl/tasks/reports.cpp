#include "host/ctl/tasks/reports.h"

#include <iostream>
#include <sstream>

#include "host/describe/moment.h"

namespace ctl {

using host::describe::Json;

std::vector<std::string> ReportLines(Server &server, const Json &request) {
    const Reply reply = server.Ask("MemLeakOrHisQry", request);
    if (reply["cut"] != 0) {
        std::cerr << "tarnctl: not all of the report had room: ask for less, or for one process\n";
    }
    std::istringstream text(reply.Named()["text"].get<std::string>());
    std::vector<std::string> lines;
    std::string line;
    for (bool head = true; std::getline(text, line); head = false) {
        if (!head) {
            lines.push_back(line);
        }
    }
    return lines;
}

TimedLine TimedLineOf(const std::string &line) {
    constexpr size_t kTimeWords = 3; // the date, the time, the zone
    std::vector<std::string> words = WordsOf(line);
    const size_t most = std::min(words.size(), kTimeWords);
    const std::string time = Joined(words, 0, words.size() - most);
    return {time, {words.begin() + static_cast<std::ptrdiff_t>(most), words.end()}};
}

Json TimeJson(const std::string &time) {
    const auto rfc = host::describe::Rfc3339OfText(time);
    return rfc ? Json(*rfc) : Json(time);
}

std::optional<std::chrono::system_clock::time_point> TimeOf(const std::string &time) {
    const auto rfc = host::describe::Rfc3339OfText(time);
    return rfc ? host::describe::ParseStatedTime(*rfc, {}) : std::nullopt;
}

} // namespace ctl
