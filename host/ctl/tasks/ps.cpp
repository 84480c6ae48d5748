// ps: which processes there are, and what each uses.
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <iostream>
#include <sstream>

#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/screen.h"
#include "host/ctl/server.h"
#include "host/ctl/tasks/tasks.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string pattern, user, sort = "cpu", delay;
    uint32_t most = 0;
    ListOptions list;
};

constexpr char kMethod[] = "SysCpuStatInfoQuery";
// A narrow terminal cuts what is looked at least.
const std::vector<std::string> kShown{"process", "user",  "cpu",       "resident",   "name",
                                      "threads", "state", "user-time", "system-time"};
constexpr char kNone[] = "no such process";

// Of all that the daemon tells.
Elements Chosen(const Reply &told, const Options &options) {
    Elements processes = told.In("processes");
    Json chosen = Json::array();
    const std::string pattern = KernelName(options.pattern);
    for (const Json &process : processes.wire) {
        const bool named = options.pattern.empty() ||
                           options.pattern == std::to_string(processes.Number(process, "process")) ||
                           fnmatch(pattern.c_str(), processes.Text(process, "name").c_str(), 0) == 0;
        if (named && (options.user.empty() || options.user == processes.Text(process, "user"))) {
            chosen.push_back(process);
        }
    }
    processes.wire = std::move(chosen);
    try {
        processes.SortBy(options.sort);
    } catch (const Failure &failure) {
        throw Failure(failure.Code(), fmt::format("--sort: {}", failure.what()));
    }
    if (options.most != 0) {
        processes.Keep(options.most);
    }
    return processes;
}

Listing ListingOf(const Reply &told, const Options &options) {
    const Elements processes = Chosen(told, options);
    Listing listing(options.list, processes.meaning, kShown);
    listing.Add(processes);
    return listing;
}

void Watch(Server &server, const Options &options) {
    const auto frame = [&](size_t) {
        std::ostringstream out;
        const Reply told = server.Ask(kMethod);
        ListingOf(told, options).Print(out, {}, kNone);
        if (!told.explanation.empty() && !options.list.json) {
            out << host::LineOfText(told.explanation) << "\n";
        }
        return out.str();
    };
    const Repetition repetition{.times = Screen::IsThere() && !options.list.json ? 0 : UINT32_MAX,
                                .delay = ParseTime("--watch", options.delay),
                                .json = options.list.json};
    Repeat(
        repetition, frame, [](char) {}, "q ends");
}

void Ps(const Globals &globals, const Options &options) {
    Server server(globals);
    if (!options.delay.empty()) {
        Watch(server, options);
    } else {
        const Reply told = server.Ask(kMethod);
        ListingOf(told, options).Show(kNone);
        if (!told.explanation.empty()) {
            std::cerr << "tarnctl: " << host::LineOfText(told.explanation) << "\n";
        }
    }
}

} // namespace

void AddPs(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("ps", "Which processes there are, and what each uses",
                    {"ps --sort resident -n 10", "ps 'worker*' --columns process,cpu,name", "ps --user root --watch"});
    task.Operand("PATTERN", options->pattern,
                 "A process's id, its name or a pattern such as 'worker*'; all if not given");
    task.Option("--user", options->user, "USER", "Processes of this effective user");
    task.Option("--sort", options->sort, "COLUMN",
                "By this column: what is used most first, names and ids rising; default cpu");
    task.Option("-n", options->most, "N", "The first so many");
    task.Flag("--watch{1s}", options->delay, "Again and again, each second or --watch=TIME; q ends it");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Ps(globals, *options); });
}

} // namespace ctl
