// top: the busiest processes and threads again and again, as the daemon sees them.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>

#include "host/ctl/process.h"
#include "host/ctl/screen.h"
#include "host/ctl/server.h"
#include "host/ctl/table.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/moment.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process, delay;
    Repetition repetition;
};

constexpr std::string_view kKeys = "q ends   c m n sort by CPU, memory, name   j k choose a process   t its threads";

class View {
public:
    View(Server &server, uint32_t process) : server_(server), threadsOf_(process) {}

    std::string Frame(size_t lines);
    std::string JsonFrame(); // a line
    void OnKey(char key);

private:
    void PrintSystem(std::ostream &out, const std::string &ofProcesses);
    void PrintProcesses(std::ostream &out, Elements processes, size_t rows);
    void PrintBusiestThreads(std::ostream &out, size_t rows);
    void PrintThreads(std::ostream &out, size_t rows);
    static std::string OnCpu(const Elements &threads, const Json &thread);

    Server &server_;
    std::string_view order_ = "cpu";
    size_t chosen_ = SIZE_MAX;    // row of the processes, from 0; SIZE_MAX for none
    std::vector<uint64_t> shown_; // processes, by rows
    uint64_t threadsOf_;          // in place of the processes and threads of the system, unless 0
};

// "12.3 %" of an item that starts with it; what is said of one that is off, or can't be told.
std::string Pressure(Server &server, const char *item) {
    const Elements items = server.Ask("TarnPadsGetSystemHealthInfoByTarnd", Json{{"item", item}}).In("items");
    if (items.wire.empty()) {
        return "not watched";
    }
    const std::string found = items.Text(items.wire.front(), "found");
    return found.find('%') == found.npos ? "unknown" : found.substr(0, found.find('%') + 1);
}

Json PressurePermille(Server &server, const char *item) {
    unsigned percent = 0, tenths = 0;
    const bool isKnown = sscanf(Pressure(server, item).c_str(), "%u.%u %%", &percent, &tenths) == 2;
    return isKnown ? Json(percent * 10 + tenths) : Json();
}

// What there is to say of the processes does not move them.
void View::PrintSystem(std::ostream &out, const std::string &ofProcesses) {
    const Elements cpus = server_.Ask("MultiCpuUsageQuery").In("cpus");
    const Reply memory = server_.Ask("GetKpiMemoryInfo");
    const Json &all = cpus.wire.at(0);
    out << fmt::format("CPU busy {}: user {}, system {}, waiting for I/O {}\n", cpus.Text(all, "busy"),
                       cpus.Text(all, "user"), cpus.Text(all, "system"), cpus.Text(all, "waiting"));
    out << fmt::format("memory in use {}, available {}\n", memory.Text("now"), memory.Text("available"));
    out << fmt::format("some task waited, last 10 s: for a CPU {}, memory {}, I/O {}\n",
                       Pressure(server_, "cpu-pressure"), Pressure(server_, "memory-pressure"),
                       Pressure(server_, "io-pressure"));
    for (size_t i = 1; i < cpus.wire.size(); ++i) {
        out << fmt::format("{}{} {}", i == 1 ? "" : "  ", cpus.Text(cpus.wire[i], "name"),
                           cpus.Text(cpus.wire[i], "busy"));
    }
    out << (ofProcesses.empty() ? "" : "  processes: " + host::LineOfText(ofProcesses)) << "\n";
}

void View::PrintProcesses(std::ostream &out, Elements processes, size_t rows) {
    const auto number =
        std::ranges::count_if(processes.wire, [&](const Json &one) { return processes.Number(one, "process") != 0; });
    out << fmt::format("\n{} processes\n", number);
    processes.SortBy(order_);
    processes.Keep(rows);
    shown_.clear();
    for (const Json &process : processes.wire) {
        shown_.push_back(processes.Number(process, "process"));
    }
    chosen_ = chosen_ == SIZE_MAX || shown_.empty() ? SIZE_MAX : std::min(chosen_, shown_.size() - 1);
    // A narrow terminal cuts what is looked at least.
    Table table(
        {"PROCESS", "CPU", "NAME", "RESIDENT", "USER", "THREADS", "STATE", "HIGHEST", "USER TIME", "SYSTEM TIME"});
    for (size_t i = 0; i < processes.wire.size(); ++i) {
        std::vector<std::string> row;
        for (const char *member : {"process", "cpu", "name"}) {
            row.push_back(processes.Text(processes.wire[i], member));
        }
        if (i == chosen_) {
            row.back() += " <";
        }
        for (const char *member : {"resident", "user", "threads", "state", "highest", "user-time", "system-time"}) {
            row.push_back(shown_[i] == 0 ? "-" : processes.Text(processes.wire[i], member)); // else it is nobody's
        }
        table.Add(row);
    }
    table.Print(out);
}

// As one byte it has room for 254 of them, and a value for one that is not known.
std::string View::OnCpu(const Elements &threads, const Json &thread) {
    constexpr uint64_t kUnknown = UINT8_MAX;
    return threads.Number(thread, "on-cpu") == kUnknown ? "-" : threads.Text(thread, "on-cpu");
}

void View::PrintBusiestThreads(std::ostream &out, size_t rows) {
    const Elements threads = server_.Ask("CalculateAllThreadCpuUse", Json{{"most", rows}}).In("threads");
    Table table({"THREAD", "CPU", "NAME", "OF PROCESS", "ON", "CPU TIME"});
    for (const Json &thread : threads.wire) {
        table.Add({threads.Text(thread, "thread"), threads.Text(thread, "cpu"), threads.Text(thread, "name"),
                   fmt::format("{} ({})", threads.Text(thread, "process"), threads.Text(thread, "process-name")),
                   OnCpu(threads, thread), threads.Text(thread, "cpu-time")});
    }
    out << "\nbusiest threads\n";
    table.Print(out);
}

void View::PrintThreads(std::ostream &out, size_t rows) {
    const Json request{{"process", threadsOf_}, {"most", std::max<size_t>(rows, 1)}};
    const auto reply = server_.AskUnless({ESRCH}, "CalculateProcThreadCpuUse", request);
    if (!reply) {
        out << fmt::format("\nprocess {} has ended\n", threadsOf_);
        return;
    }
    const Elements threads = reply->In("threads");
    Table table({"THREAD", "CPU", "NAME", "STATE", "ON", "CPU TIME", "SCHEDULED"});
    for (const Json &thread : threads.wire) {
        std::vector<std::string> row;
        for (const char *member : {"thread", "cpu", "name", "state"}) {
            row.push_back(threads.Text(thread, member));
        }
        row.push_back(OnCpu(threads, thread));
        for (const char *member : {"cpu-time", "scheduled"}) {
            row.push_back(threads.Text(thread, member));
        }
        table.Add(row);
    }
    out << fmt::format("\nthreads of process {}, which uses {} of a CPU\n", threadsOf_, reply->Text("cpu"));
    table.Print(out);
}

std::string View::Frame(size_t lines) {
    constexpr size_t kOtherLines = 10; // of the system, heads and empty ones
    const size_t rows = lines > kOtherLines ? lines - kOtherLines : 2;
    std::ostringstream out;
    if (threadsOf_ != 0) {
        PrintSystem(out, "");
        PrintThreads(out, rows);
    } else {
        const Reply processes = server_.Ask("SysCpuStatInfoQuery");
        PrintSystem(out, processes.explanation);
        PrintProcesses(out, processes.In("processes"), std::max<size_t>(rows / 2, 1));
        PrintBusiestThreads(out, std::max<size_t>(rows / 2, 1));
    }
    return out.str();
}

// All processes, and the busiest threads; or those of the one process.
std::string View::JsonFrame() {
    constexpr uint32_t kThreads = 20;
    Json frame{{"time", host::describe::Rfc3339(std::chrono::system_clock::now())},
               {"cpus", server_.Ask("MultiCpuUsageQuery").In("cpus").Named()},
               {"memory", server_.Ask("GetKpiMemoryInfo").Named()},
               {"cpu_pressure_permille", PressurePermille(server_, "cpu-pressure")},
               {"memory_pressure_permille", PressurePermille(server_, "memory-pressure")},
               {"io_pressure_permille", PressurePermille(server_, "io-pressure")}};
    if (threadsOf_ == 0) {
        Elements processes = server_.Ask("SysCpuStatInfoQuery").In("processes");
        processes.SortBy(order_);
        frame["processes"] = processes.Named();
        frame["threads"] = server_.Ask("CalculateAllThreadCpuUse", Json{{"most", kThreads}}).In("threads").Named();
    } else {
        const Json request{{"process", threadsOf_}, {"most", kThreads}};
        const auto reply = server_.AskUnless({ESRCH}, "CalculateProcThreadCpuUse", request);
        frame["process"] = threadsOf_;
        frame["threads"] = reply ? reply->In("threads").Named() : Json(); // null: it has ended
    }
    return frame.dump() + "\n";
}

void View::OnKey(char key) {
    switch (key) {
    case 'c':
        order_ = "cpu";
        break;
    case 'm':
        order_ = "resident";
        break;
    case 'n':
        order_ = "name";
        break;
    case 'j':
        ++chosen_; // from none to the first
        break;
    case 'k':
        chosen_ -= chosen_ == 0 || chosen_ == SIZE_MAX ? 0 : 1;
        break;
    case 't': // and back
        threadsOf_ = threadsOf_ != 0 || shown_.empty() ? 0 : shown_[chosen_ == SIZE_MAX ? 0 : chosen_];
        break;
    default:
        break;
    }
}

void Top(const Globals &globals, const Options &options) {
    Server server(globals);
    View view(server, options.process.empty() ? 0 : FindProcess(server, options.process).pid);
    Repeat(
        options.repetition,
        [&](size_t lines) { return options.repetition.json ? view.JsonFrame() : view.Frame(lines); },
        [&](char key) { view.OnKey(key); }, kKeys);
}

} // namespace

void AddTop(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("top", "The busiest processes and threads, again and again; q ends it",
                                     {"top", "top worker", "top --batch -n 3 -d 10s", "top --json"});
    task.Operand(kProcess, options->process, "The threads of this process");
    task.Option("-n", options->repetition.times, "N", "How often; default until q, or once when not on a terminal");
    task.Option("-d", options->delay, "TIME",
                "Time between: 500ms, 2s, 1m; default " + TimeText(options->repetition.delay));
    task.Flag("--batch", options->repetition.batch, "Text without control sequences, also on a terminal");
    task.Flag("--json", options->repetition.json,
              "For programs: an object a line for each view, with all processes, and at most 20 threads");
    task.Run([&globals, options, task] {
        if (task.Has("-d")) {
            options->repetition.delay = ParseTime("-d", options->delay);
        }
        Top(globals, *options);
    });
}

} // namespace ctl
