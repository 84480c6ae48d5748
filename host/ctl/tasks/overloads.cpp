// overloads: when the CPUs, one of them, or memory were overloaded, and by whom.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <sstream>

#include "host/ctl/listing.h"
#include "host/ctl/tasks/reports.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"
#include "host/ctl/units.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    bool stacks = false;
    ListOptions list;
};

void AddCpuOverload(Server &server, Listing &listing) {
    const auto last = server.AskUnless({ENODATA}, "DisCpuOvloadInfo");
    if (!last) {
        return;
    }
    const Json named = last->Named();
    listing.Add({"cpu", last->Text("began"), named["ended"].is_null() ? "it lasts" : last->Text("ended"),
                 last->Text("busy"), std::to_string((*last)["process"].get<uint64_t>()), last->Text("name"),
                 last->Text("cpu")},
                {{"kind", "cpu"},
                 {"began", named["began"]},
                 {"ended", named["ended"]},
                 {"used_permille", named["busy_permille"]},
                 {"process", named["process"]},
                 {"name", named["name"]},
                 {"by_it", last->Text("cpu")}});
}

// Of one CPU, mostly by one thread.
void AddCpuEvents(Server &server, Listing &listing) {
    const Elements events = server.Ask("TarnPadsGetCpuEventByTarnd").In("events");
    for (const Json &event : events.wire) {
        const Json named = events.Named(event);
        const std::string thread =
            fmt::format("{} (thread {})", events.Text(event, "cpu"), events.Number(event, "thread"));
        listing.Add({fmt::format("cpu{}", events.Number(event, "on-cpu")), events.Text(event, "began"),
                     "after " + events.Text(event, "duration"), events.Text(event, "busy"),
                     std::to_string(events.Number(event, "process")), events.Text(event, "name"), thread},
                    {{"kind", fmt::format("cpu{}", events.Number(event, "on-cpu"))},
                     {"began", named["began"]},
                     {"duration_us", named["duration_us"]},
                     {"used_permille", named["busy_permille"]},
                     {"process", named["process"]},
                     {"thread", named["thread"]},
                     {"name", named["name"]},
                     {"by_it", thread}});
    }
}

struct MemoryOverload {
    std::string began, ended, name;
    uint64_t usedPermille, process, residentBytes;
};

// Its lines tell when each began or ended: "TIME begins 912 4711 worker 10240".
std::vector<MemoryOverload> MemoryOverloads(Server &server) {
    std::vector<MemoryOverload> overloads;
    for (const std::string &line : ReportLines(server, Json{{"report", "overloads"}})) {
        const auto [time, words] = TimedLineOf(line);
        if (words.size() < 5) {
            continue;
        }
        if (words[0] == "begins") {
            overloads.push_back(
                {time, "", Joined(words, 3, 1), NumberOf(words[1]), NumberOf(words[2]), NumberOf(words.back()) * 1024});
        } else if (!overloads.empty()) {
            overloads.back().ended = time;
        }
    }
    return overloads;
}

void AddMemoryOverloads(Server &server, Listing &listing) {
    for (const MemoryOverload &one : MemoryOverloads(server)) {
        listing.Add({"memory", one.began, one.ended.empty() ? "it lasts" : one.ended, PermilleText(one.usedPermille),
                     std::to_string(one.process), one.name, SizeText(one.residentBytes)},
                    {{"kind", "memory"},
                     {"began", TimeJson(one.began)},
                     {"ended", one.ended.empty() ? Json() : TimeJson(one.ended)},
                     {"used_permille", one.usedPermille},
                     {"process", one.process},
                     {"name", one.name},
                     {"by_it", SizeText(one.residentBytes)}});
    }
}

void PrintStacks(Server &server) {
    const auto last = server.AskUnless({ENODATA}, "DisCpuOvloadCallstackInfo");
    if (!last) {
        std::cout << "no CPU overload\n";
        return;
    }
    const Output output;
    Elements threads = last->In("threads");
    threads.Keep((*last)["found"].get<size_t>());
    for (const Json &thread : threads.wire) {
        std::cout << output.GetStyle().Bold(
                         fmt::format("thread {} ({})", threads.Number(thread, "thread"), threads.Text(thread, "name")))
                  << fmt::format(" of process {}, {} of a CPU\n", threads.Number(thread, "process"),
                                 threads.Text(thread, "cpu"));
        std::istringstream stack(threads.Text(thread, "stack"));
        for (std::string function; std::getline(stack, function);) {
            std::cout << "  " << host::LineOfText(function) << "\n";
        }
    }
}

void Overloads(const Globals &globals, const Options &options) {
    Server server(globals);
    if (options.stacks) {
        PrintStacks(server);
        return;
    }
    Listing listing(options.list, {"kind", "began", "ended", "used", "process", "name", "by-it"});
    AddCpuOverload(server, listing);
    AddCpuEvents(server, listing);
    AddMemoryOverloads(server, listing);
    listing.Show("no overloads");
}

} // namespace

void AddOverloads(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    CLI::App *const task =
        AddTask(app, "overloads", "When CPUs or memory were overloaded, and which process used most then",
                {"overloads", "overloads --stacks", "settings set cpu.begins-at=90% cpu.must-last=10s"});
    task->add_flag("--stacks", options->stacks,
                   "The busiest threads of the last CPU overload and what they were doing");
    AddListOptions(*task, options->list);
    task->callback([&globals, options] { Overloads(globals, *options); });
}

} // namespace ctl
