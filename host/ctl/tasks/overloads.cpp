// overloads: when the CPUs, one of them, or memory were overloaded, and by whom.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iostream>
#include <sstream>

#include "host/ctl/listing.h"
#include "host/ctl/own_service.h"
#include "host/ctl/tasks/reports.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"
#include "host/ctl/units.h"
#include "host/describe/moment.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::vector<std::string> words;
    ListOptions list;
};

using Time = std::chrono::system_clock::time_point;

struct Row {
    Time began;
    std::vector<std::string> cells;
    Json json;
};

Time TimeOfMs(const Json &ms) {
    return Time(std::chrono::milliseconds(ms.get<int64_t>()));
}

std::string EndText(const Json &overload) {
    const Json &end = overload.at("ended_ms");
    return end.is_null() ? "it lasts" : host::describe::ZonedText(TimeOfMs(end));
}

// ---- Of the CPUs, by a process ----

void AddCpuOverloads(Server &server, std::vector<Row> &rows) {
    server.UseZone();
    for (const Json &one : CpuOverloads(server.GetClient())) {
        const Time began = TimeOfMs(one.at("began_ms"));
        const Json &end = one.at("ended_ms");
        const std::string kind = one.at("of") == "system" ? "cpu" : "process";
        const auto name = one.at("process").get<std::string>();
        rows.push_back(
            {began,
             {one.at("number").dump(), kind, host::describe::ZonedText(began), EndText(one),
              PermilleText(one.at("busy_permille")), one.at("pid").dump(), name, PermilleText(one.at("cpu_permille"))},
             {{"number", one.at("number")},
              {"kind", kind},
              {"began", host::describe::Rfc3339(began)},
              {"ended", end.is_null() ? Json() : Json(host::describe::Rfc3339(TimeOfMs(end)))},
              {"used_permille", one.at("busy_permille")},
              {"process", one.at("pid")},
              {"name", name},
              {"by_it_permille", one.at("cpu_permille")}}});
    }
}

// ---- Of one CPU, mostly by one thread ----

void AddCpuEvents(Server &server, std::vector<Row> &rows) {
    const Elements events = server.Ask("TarnPadsGetCpuEventByTarnd").In("events");
    for (const Json &event : events.wire) {
        const Json named = events.Named(event);
        const std::string cpu = fmt::format("cpu{}", events.Number(event, "on-cpu"));
        const std::string thread =
            fmt::format("{} (thread {})", events.Text(event, "cpu"), events.Number(event, "thread"));
        rows.push_back({host::describe::ParseStatedTime(named["began"].get<std::string>(), {}).value_or(Time()),
                        {"-", cpu, events.Text(event, "began"), "after " + events.Text(event, "duration"),
                         events.Text(event, "busy"), std::to_string(events.Number(event, "process")),
                         events.Text(event, "name"), thread},
                        {{"kind", cpu},
                         {"began", named["began"]},
                         {"duration_us", named["duration_us"]},
                         {"used_permille", named["busy_permille"]},
                         {"process", named["process"]},
                         {"thread", named["thread"]},
                         {"name", named["name"]},
                         {"by_it_permille", events.Number(event, "cpu")}}});
    }
}

// ---- Of memory ----

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

void AddMemoryOverloads(Server &server, std::vector<Row> &rows) {
    for (const MemoryOverload &one : MemoryOverloads(server)) {
        rows.push_back(
            {TimeOf(one.began).value_or(Time()),
             {"-", "memory", one.began, one.ended.empty() ? "it lasts" : one.ended, PermilleText(one.usedPermille),
              std::to_string(one.process), one.name, SizeText(one.residentBytes)},
             {{"kind", "memory"},
              {"began", TimeJson(one.began)},
              {"ended", one.ended.empty() ? Json() : TimeJson(one.ended)},
              {"used_permille", one.usedPermille},
              {"process", one.process},
              {"name", one.name},
              {"by_it_bytes", one.residentBytes}}});
    }
}

// ---- The commands ----

void List(Server &server, const Options &options) {
    std::vector<Row> rows;
    AddCpuOverloads(server, rows);
    AddCpuEvents(server, rows);
    AddMemoryOverloads(server, rows);
    std::ranges::stable_sort(rows, std::ranges::greater(), &Row::began);
    Listing listing(options.list, {"number", "kind", "began", "ended", "used", "process", "name", "by-it"});
    for (const Row &row : rows) {
        listing.Add(row.cells, row.json);
    }
    listing.Show("no overloads");
}

void PrintThread(const Json &thread, const Style &style) {
    std::cout << style.Bold(fmt::format("thread {} ({})", thread.at("tid").get<uint32_t>(),
                                        host::LineOfText(thread.at("name").get<std::string>())))
              << fmt::format(" of process {}, {} of a CPU\n", thread.at("pid").get<uint32_t>(),
                             PermilleText(thread.at("permille")));
    std::istringstream stack(thread.at("stack").is_null() ? "no stack: it could not be read"
                                                          : thread.at("stack").get<std::string>());
    for (std::string function; std::getline(stack, function);) {
        std::cout << "  " << host::LineOfText(function) << "\n";
    }
}

// The newest where no number is given.
Json Chosen(Server &server, const std::string &number) {
    server.UseZone();
    const Json all = CpuOverloads(server.GetClient());
    const auto numberOf = [](const Json &one) { return one.at("number").get<uint64_t>(); };
    const auto found =
        number.empty() ? std::ranges::max_element(all, {}, numberOf)
                       : std::ranges::find_if(all, [&](const Json &one) { return one.at("number").dump() == number; });
    if (found == all.end()) {
        throw Failure(kUsage, number.empty()
                                  ? "no overload of the CPUs"
                                  : fmt::format("{}: no such overload; tarnctl overloads lists them", number));
    }
    return WithThreads(server.GetClient(), *found);
}

void Show(Server &server, const std::string &number, bool json) {
    const Json overload = Chosen(server, number);
    if (json) {
        std::cout << overload.dump() << "\n";
        return;
    }
    const Output output;
    std::cout << fmt::format("overload {} of {}, began {}, {}{}, {} of the CPUs in use\n", overload.at("number").dump(),
                             overload.at("of") == "system" ? "the system" : "a watched process",
                             host::describe::ZonedText(TimeOfMs(overload.at("began_ms"))),
                             overload.at("ended_ms").is_null() ? "" : "ended ", EndText(overload),
                             PermilleText(overload.at("busy_permille")));
    if (!overload.contains("threads")) {
        std::cout << "its threads are not for this user to see: the policy keeps stacks to others\n";
        return;
    }
    for (const Json &thread : overload.at("threads")) {
        PrintThread(thread, output.GetStyle());
    }
}

void Overloads(const Globals &globals, const Options &options) {
    const std::vector<std::string> &words = options.words;
    const bool show = !words.empty() && words.front() == "show";
    if (words.size() > (show ? 2 : 1) || (!words.empty() && !show && words.front() != "list")) {
        throw Failure(kUsage, fmt::format("found {}, expected list, or show N", fmt::join(words, " ")));
    }
    Server server(globals);
    if (show) {
        Show(server, words.size() == 2 ? words[1] : "", options.list.json);
    } else {
        List(server, options);
    }
}

} // namespace

void AddOverloads(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("overloads", "When CPUs or memory were overloaded, and which process used most then",
                    {"overloads", "overloads show 7", "settings set cpu.begins-at=90% cpu.must-last=10s"});
    task.Operand("WHAT", options->words,
                 "\"list\", as if nothing is given; \"show N\" for the busiest threads of the one of that number, "
                 "and what they were doing; without N of the newest");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Overloads(globals, *options); });
}

} // namespace ctl
