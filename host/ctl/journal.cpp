#include "host/ctl/journal.h"

#include <fmt/format.h>

#include <cerrno>

#include "host/ctl/outcome.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Json;

namespace {

constexpr std::string_view kService = "TarnSysdiagTarnd";

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
    const host::CallOutcome outcome = Ask(wait);
    if (outcome.errCode == ENOENT && client_.Knows(kService, 0)) {
        throw Failure(kRemote, "this daemon keeps no journal of events: it is older than that");
    }
    if (!outcome.Ok()) {
        throw FailureOf(host::kRuntimeService, "Events", outcome);
    }
    const Json page = Json::parse(outcome.bytes);
    gap_ = GapBetween(question_, page);
    question_["journal"] = page.at("journal");
    question_["from"] = page.at("next");
    question_.erase("last");
    isMore_ = page.at("next") < page.at("end");
    return page.at("events");
}

host::CallOutcome Journal::Ask(std::chrono::milliseconds wait) {
    constexpr std::chrono::seconds kAnswer{5}; // that an answer may take
    question_["wait_ms"] = wait.count();
    const std::string text = question_.dump();
    return client_.Call({.service = host::kRuntimeService,
                         .method = "Events",
                         .request = {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                         .deadline = wait + kAnswer,
                         .socketOf = kService});
}

} // namespace ctl
