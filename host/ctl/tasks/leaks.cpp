// leaks: the processes whose memory grows and isn't given back.
#include <fmt/format.h>

#include <iostream>
#include <set>
#include <thread>

#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/tasks/reports.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/units.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process, last, least, every = "10s";
    bool follow = false;
    ListOptions list;
};

constexpr std::chrono::minutes kLeast{5}; // that growth has to last

std::vector<LeakRow> Suspects(Server &server, const Options &options) {
    Json request{{"report", "suspects"}};
    if (!options.process.empty()) {
        request["process"] = FindProcess(server, options.process).pid;
    }
    if (!options.last.empty()) {
        const auto last = ParseSpan("--last", options.last);
        if (last < kLeast) {
            throw Failure(kUsage, fmt::format("--last: found {}, expected 5m at least: growth is told after that time",
                                              options.last));
        }
        request["interval"] = fmt::format("{}s", last.count());
    }
    if (!options.least.empty()) {
        request["limit"] = NumberOf(options.least);
    }
    std::vector<LeakRow> suspects;
    for (const std::string &line : ReportLines(server, request)) {
        if (const auto suspect = LeakRowOf(line)) {
            suspects.push_back(*suspect);
        }
    }
    return suspects;
}

void Add(Listing &listing, const LeakRow &suspect) {
    listing.Add({std::to_string(suspect.process), suspect.name, SizeText(suspect.residentBytes),
                 SizeText(suspect.grownBytes), SizeText(suspect.bytesPerMinute), SizeText(suspect.errorBytesPerMinute),
                 DurationText(std::chrono::seconds(suspect.overSeconds))},
                {{"process", suspect.process},
                 {"name", suspect.name},
                 {"resident_bytes", suspect.residentBytes},
                 {"grown_bytes", suspect.grownBytes},
                 {"bytes_per_minute", suspect.bytesPerMinute},
                 {"bytes_per_minute_error", suspect.errorBytesPerMinute},
                 {"over_us", suspect.overSeconds * 1'000'000}});
}

Listing NewListing(const ListOptions &options) {
    return {options, {"process", "name", "resident", "grown", "per-minute", "give-or-take", "over"}};
}

// Each suspect when it becomes one.
void Follow(Server &server, Options options) {
    const auto every = ParseTime("--every", options.every);
    for (std::set<uint64_t> known;; std::this_thread::sleep_for(every)) {
        Listing listing = NewListing(options.list);
        std::set<uint64_t> now;
        for (const LeakRow &suspect : Suspects(server, options)) {
            now.insert(suspect.process);
            if (!known.contains(suspect.process)) {
                Add(listing, suspect);
            }
        }
        if (now != known || !options.list.noHeaders) {
            listing.Print(std::cout, StyleOfOutput());
            std::cout << std::flush;
        }
        known = std::move(now);
        options.list.noHeaders = true; // behind the first
    }
}

void Leaks(const Globals &globals, const Options &options) {
    Server server(globals);
    if (options.follow) {
        Follow(server, options);
        return;
    }
    Listing listing = NewListing(options.list);
    for (const LeakRow &suspect : Suspects(server, options)) {
        Add(listing, suspect);
    }
    listing.Show("no process has grown for 5 minutes without giving back");
}

} // namespace

void AddLeaks(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("leaks", "The processes whose memory grows and isn't given back",
                                     {"leaks", "leaks --last 10m --least 512", "leaks worker", "leaks --follow"});
    task.Operand(kProcess, options->process, "A process, as with stack; all if not given");
    task.Option("--last", options->last, "TIME",
                "Growth in the last so much time; default since the start, at most 1h");
    task.Option("--least", options->least, "KIB", "Growth of at least so many KiB; default 1024").Range(1U, UINT32_MAX);
    task.Flag("--follow", options->follow, "Each when it becomes suspect, until interrupted");
    task.Option("--every", options->every, "TIME", "How often to look with --follow; default 10s");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Leaks(globals, *options); });
}

} // namespace ctl
