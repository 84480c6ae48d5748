// events: what happened, from the daemon's journal.
#include <fmt/format.h>

#include <iostream>
#include <thread>

#include "host/ctl/interrupt.h"
#include "host/ctl/journal.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"
#include "host/describe/moment.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    Journal::Wanted wanted;
    std::string since;
    bool follow = false, json = false;
};

using Time = std::chrono::system_clock::time_point;

Time TimeOf(const Json &event) {
    return Time(std::chrono::milliseconds(event.at("time_ms").get<int64_t>()));
}

void Print(const Json &event, bool json) {
    if (json) {
        std::cout << event.dump() << "\n";
        return;
    }
    const auto pid = event.at("pid").get<uint32_t>();
    const auto process = event.at("process").get<std::string>();
    std::string who = process.empty() && pid != 0 ? "?" : process;
    if (pid != 0) {
        who += fmt::format(" ({})", pid);
    }
    std::cout << fmt::format("{} #{} {}: {}{}{}\n", host::describe::ZonedText(TimeOf(event)),
                             event.at("number").get<uint64_t>(), event.at("kind").get<std::string>(), who,
                             who.empty() ? "" : ": ", event.at("text").get<std::string>());
}

class Reader {
public:
    Reader(const Globals &globals, const Options &options)
        : options_(options), since_(options.since.empty() ? Time::min() : SinceOf("--since", options.since)),
          client_({.runDir = globals.runDir}), journal_(client_, options.wanted) {}

    void ReadAll() {
        while (journal_.IsMore()) {
            Next({});
        }
    }

    // Also of what happens, until it is ended or nobody reads it any more. What is missed while there is no daemon is
    // read from the next one.
    void Follow() {
        constexpr std::chrono::seconds kWait{5};  // for something to happen; then for whether somebody reads
        constexpr std::chrono::seconds kRetry{1}; // until a daemon that has gone is looked for again
        for (bool connected = true; !ReaderHasGone();) {
            try {
                Next(kWait);
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
    void Next(std::chrono::milliseconds wait) {
        const std::vector<Json> events = journal_.Next(wait);
        if (!journal_.Gap().empty()) {
            std::cerr << "tarnctl: " << journal_.Gap() << "\n";
        }
        for (const Json &event : events) {
            if (TimeOf(event) >= since_) {
                Print(event, options_.json);
            }
        }
        std::cout.flush();
    }

    const Options &options_;
    const Time since_;
    host::Client client_;
    Journal journal_;
};

void Events(const Globals &globals, const Options &options) {
    Reader reader(globals, options);
    if (options.follow) {
        reader.Follow();
    } else {
        const Output output(!options.json);
        reader.ReadAll();
    }
}

} // namespace

void AddEvents(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("events", "What happened, from the daemon's journal: crashes, overloads, agents, settings",
                    {"events --since 1h", "events --follow --kind crash assertion", "events --last 20 --json"});
    task.Flag("-f,--follow", options->follow, "Wait for what happens, until it is interrupted");
    task.Option("--kind", options->wanted.kinds, "KIND ...",
                "Of these kinds only: \"crash\", \"assertion\", \"cpu-overload-begins\", \"cpu-overload-ends\", "
                "\"memory-overload-begins\", \"memory-overload-ends\", \"dead-loop\", \"starvation\", "
                "\"leak-suspect\", \"memory-damage\", \"integrity\", \"agent-comes\", \"agent-goes\", \"setting\"")
        .SplitAt(',');
    task.Option("--since", options->since, "TIME", "Those of the last so much time, as 1h, or since a time");
    const Parameter from = task.Option("--from", options->wanted.from, "N", "From the event of this number on");
    task.Option("--last", options->wanted.last, "N", "Of the last so many").Excludes(from);
    task.Flag("--json", options->json, "For programs: an object a line");
    task.Run([&globals, options] { Events(globals, *options); });
}

} // namespace ctl
