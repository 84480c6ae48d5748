#include "host/ctl/journal.h"

#include <fmt/format.h>

#include "host/ctl/own_service.h"

namespace ctl {

using host::describe::Json;

namespace {

std::string GapBetween(const Json &question, const Json &page) {
    if (!question.contains("journal")) {
        return "";
    }
    if (question.at("journal") != page.at("journal")) {
        return "the daemon has another journal now: its events are shown from the first on";
    }
    const auto expected = question.at("from").get<uint64_t>(), found = page.at("from").get<uint64_t>();
    return expected < found ? fmt::format("the events {} to {} are not kept any more", expected, found - 1) : "";
}

} // namespace

Journal::Journal(host::Client &client, const Wanted &wanted)
    : client_(client), question_{{"from", wanted.from}, {"kinds", wanted.kinds}} {
    if (wanted.last) {
        question_["last"] = *wanted.last;
    }
}

std::vector<Json> Journal::Next(std::chrono::milliseconds wait) {
    question_["wait_ms"] = wait.count();
    const Json page = AskOwnService(client_, "Events", question_, wait);
    gap_ = GapBetween(question_, page);
    question_["journal"] = page.at("journal");
    question_["from"] = page.at("next");
    question_.erase("last");
    isMore_ = page.at("next") < page.at("end");
    return page.at("events");
}

} // namespace ctl
