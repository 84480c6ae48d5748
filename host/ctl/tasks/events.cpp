// events: what happened, from the daemon's journal.
#include <fmt/format.h>

#include <cerrno>
#include <iostream>
#include <thread>

#include "host/ctl/outcome.h"
#include "host/describe/moment.h"
#include "host/runtime/status.h"

namespace ctl {

using namespace host::describe;

namespace {

constexpr std::string_view kService = "TarnSysdiagTarnd";
constexpr std::chrono::seconds kWait{60};  // for something to happen
constexpr std::chrono::seconds kRetry{1};  // until a daemon that has gone is looked for again
constexpr std::chrono::seconds kAnswer{5}; // that an answer may take

// Reads the journal page by page, and knows where it goes on.
class Reader {
public:
    explicit Reader(const EventsOptions &options) : options_(options), client_({.runDir = options.runDir}) {
        question_ = Json{{"from", options.from}, {"kinds", options.kinds}};
        if (options.last) {
            question_["last"] = *options.last;
        }
    }

    // Prints what there is, and returns whether there is more. Waits for it where it is followed.
    bool Next() {
        const host::CallOutcome outcome = Ask();
        if (!outcome.Ok()) {
            throw FailureOf(host::kRuntimeService, "Events", outcome);
        }
        const Json page = Json::parse(outcome.bytes);
        TellGap(page);
        for (const Json &event : page.at("events")) {
            Print(event);
        }
        std::cout.flush();
        question_["journal"] = page.at("journal");
        question_["from"] = page.at("next");
        question_.erase("last");
        return page.at("next") < page.at("end");
    }

    // The same, until it is ended. What is missed while there is no daemon is read from the next one.
    void Follow() {
        bool connected = true;
        for (;;) {
            try {
                Next();
                connected = true;
            } catch (const Failure &failure) {
                if (failure.Code() != kConnection && failure.Code() != kDeadline) {
                    throw;
                }
                if (std::exchange(connected, false)) {
                    std::cerr << "tarnctl: " << failure.what() << "; waiting for the daemon\n";
                }
                std::this_thread::sleep_for(kRetry);
            }
        }
    }

private:
    host::CallOutcome Ask() {
        const auto wait = std::chrono::milliseconds(options_.follow ? kWait : std::chrono::seconds(0));
        question_["wait_ms"] = wait.count();
        const std::string text = question_.dump();
        return client_.Call({.service = host::kRuntimeService,
                             .method = "Events",
                             .request = {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                             .deadline = wait + kAnswer,
                             .socketOf = kService});
    }

    void TellGap(const Json &page) const {
        if (question_.contains("journal") && question_.at("journal") != page.at("journal")) {
            std::cerr << "tarnctl: the daemon has another journal now: its events are shown from the first on\n";
        } else if (question_.contains("journal") && question_.at("from") < page.at("from")) {
            std::cerr << fmt::format("tarnctl: the events {} to {} are not kept any more\n",
                                     question_.at("from").get<uint64_t>(), page.at("from").get<uint64_t>() - 1);
        }
    }

    void Print(const Json &event) const {
        if (options_.json) {
            std::cout << event.dump() << "\n";
            return;
        }
        const std::chrono::system_clock::time_point time(std::chrono::milliseconds(event.at("time_ms").get<int64_t>()));
        const auto pid = event.at("pid").get<uint32_t>();
        const auto process = event.at("process").get<std::string>();
        std::string who = process.empty() && pid != 0 ? "?" : process;
        if (pid != 0) {
            who += fmt::format(" ({})", pid);
        }
        std::cout << fmt::format("{} #{} {}: {}{}{}\n", ZonedText(time), event.at("number").get<uint64_t>(),
                                 event.at("kind").get<std::string>(), who, who.empty() ? "" : ": ",
                                 event.at("text").get<std::string>());
    }

    const EventsOptions &options_;
    host::Client client_;
    Json question_;
};

} // namespace

void Events(const EventsOptions &options) {
    Reader reader(options);
    if (options.follow) {
        reader.Follow();
    }
    while (reader.Next()) {
    }
}

} // namespace ctl
