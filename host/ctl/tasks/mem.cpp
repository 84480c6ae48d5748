// mem: the memory of the system or of a process, now, before, and by its mappings.
#include <fmt/format.h>

#include <iostream>

#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/tasks/reports.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/units.h"
#include "host/meaning/meaning.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process, last;
    bool history = false, maps = false;
    ListOptions list;
};

// What a report of KiB has, as people and as programs read it.
std::string Size(const std::string &kib) {
    return SizeText(NumberOf(kib) * 1024);
}

Json Bytes(const std::string &kib) {
    return NumberOf(kib) * 1024;
}

void ShowHistory(Server &server, uint32_t pid, const Options &options) {
    const Listing system(options.list, {"time", "in-use", "available", "free", "cached", "swapped"});
    Listing listing = pid == 0 ? system : Listing(options.list, {"time", "resident", "threads"});
    Json request{{"report", "history"}, {"process", pid}};
    if (!options.last.empty()) {
        request["interval"] = fmt::format("{}s", ParseSpan("--last", options.last).count());
    }
    for (const std::string &line : ReportLines(server, request)) {
        const auto [time, words] = TimedLineOf(line);
        if (pid != 0 && words.size() == 2) {
            listing.Add({time, Size(words[0]), words[1]}, {{"time", TimeJson(time)},
                                                           {"process", pid},
                                                           {"resident_bytes", Bytes(words[0])},
                                                           {"threads", NumberOf(words[1])}});
        } else if (pid == 0 && words.size() == 5) {
            listing.Add({time, PermilleText(NumberOf(words[0])), Size(words[1]), Size(words[2]), Size(words[3]),
                         Size(words[4])},
                        {{"time", TimeJson(time)},
                         {"in_use_permille", NumberOf(words[0])},
                         {"available_bytes", Bytes(words[1])},
                         {"free_bytes", Bytes(words[2])},
                         {"cached_bytes", Bytes(words[3])},
                         {"swapped_bytes", Bytes(words[4])}});
        }
    }
    listing.Show("no sample in that time");
}

void ShowMaps(Server &server, uint32_t pid, const Options &options) {
    const Elements maps = server.Ask("GetOsProcessMapsInfo", Json{{"process", pid}}).In("mappings");
    Listing listing(options.list, maps.meaning,
                    {"range", "permissions", "size", "resident", "proportional", "private-dirty", "swapped", "name"});
    listing.Add(maps);
    listing.Show("no mappings: it is the kernel's");
}

void PrintMembers(const Elements &elements, const Json &element) {
    size_t width = 0;
    for (const host::meaning::Member &member : elements.meaning.members) {
        width = std::max(width, member.name.size());
    }
    for (const host::meaning::Member &member : elements.meaning.members) {
        std::cout << fmt::format("{:<{}}  {}\n", member.name, width, elements.Text(element, member.name));
    }
}

// A member a line, unless columns are chosen.
void ShowElements(const Elements &elements, const Options &options) {
    if (!options.list.json && options.list.columns.empty()) {
        for (const Json &element : elements.wire) {
            PrintMembers(elements, element);
        }
        return;
    }
    Listing listing(options.list, elements.meaning, {});
    listing.Add(elements);
    listing.Show("");
}

void ShowSystem(Server &server, const Options &options) {
    if (!options.list.json && options.list.columns.empty()) {
        const Reply now = server.Ask("GetKpiMemoryInfo");
        std::cout << fmt::format("in use {} (last minute {}, highest in an hour {}), available {}\n\n", now.Text("now"),
                                 now.Text("last-minute"), now.Text("highest"), now.Text("available"));
    }
    ShowElements(server.Ask("GetSysMemUseInfo").In("nodes"), options);
}

void Mem(const Globals &globals, const Options &options) {
    Server server(globals);
    const uint32_t pid = options.process.empty() ? 0 : FindProcess(server, options.process).pid;
    if (options.history) {
        ShowHistory(server, pid, options);
    } else if (options.maps && pid == 0) {
        throw Failure(kUsage, "--maps: expected a PROCESS with it");
    } else if (options.maps) {
        ShowMaps(server, pid, options);
    } else if (pid == 0) {
        ShowSystem(server, options);
    } else {
        ShowElements(server.Ask("GetOsProcessMemInfo", Json{{"process", pid}}).In("processes"), options);
    }
}

} // namespace

void AddMem(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("mem", "The memory of the system or of a process: now, before, its mappings",
                                     {"mem", "mem worker", "mem worker --history --last 10m", "mem worker --maps"});
    task.Operand(kProcess, options->process, "A process, as with stack; the system if not given");
    const Parameter history = task.Flag("--history", options->history, "What it was like before");
    task.Option("--last", options->last, "TIME", "Of the history the last so much time: 10m, 1h").Needs(history);
    task.Flag("--maps", options->maps, "The mappings of the process").Excludes(history);
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Mem(globals, *options); });
}

} // namespace ctl
