// watch: tells when the system or a process uses too much, and runs a command then.
#include <fmt/format.h>

#include <cstdlib>
#include <fnmatch.h>
#include <iostream>
#include <map>
#include <thread>

#include "host/ctl/process.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/units.h"
#include "host/describe/moment.h"
#include "host/describe/quantity.h"
#include "host/meaning/meaning.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string cpu, memory, process, lasts, every = "1s", command;
    uint32_t times = 0;
    bool json = false;
};

struct Limits {
    std::optional<uint64_t> cpuPermille, memory; // permille of the system's memory, or a process's KiB
};

// What is watched: the system, or each process that is meant.
struct Subject {
    uint64_t process; // 0: the system
    std::string name;
    uint64_t cpuPermille, memory;
};

uint64_t Parse(const char *option, const std::string &text, host::meaning::Kind kind) {
    // A bare number would be of thousandths, which nobody means who writes 90.
    if (kind == host::meaning::Kind::kPermille && !text.ends_with('%')) {
        throw Failure(kUsage, fmt::format("{}: found {}, expected a share, such as 90%", option,
                                          text.empty() ? "nothing" : text));
    }
    host::meaning::Value value;
    value.kind = kind;
    try {
        return host::describe::ParseQuantity(value, text);
    } catch (const host::describe::QuantityError &error) {
        throw Failure(kUsage, fmt::format("{}: {}", option, error.what()));
    }
}

Limits LimitsOf(const Options &options) {
    using host::meaning::Kind;
    Limits limits;
    if (!options.cpu.empty()) {
        limits.cpuPermille = Parse("--cpu", options.cpu, Kind::kPermille);
    }
    if (!options.memory.empty()) {
        limits.memory = Parse("--mem", options.memory, options.process.empty() ? Kind::kPermille : Kind::kKib);
    }
    if (!limits.cpuPermille && !limits.memory) {
        throw Failure(kUsage, "found neither --cpu nor --mem, expected a limit to watch for");
    }
    return limits;
}

std::vector<Subject> SubjectsOf(Server &server, const std::string &process) {
    if (process.empty()) {
        return {{0, "system", server.Ask("GetKpiCpuInfo")["now"], server.Ask("GetKpiMemoryInfo")["now"]}};
    }
    std::vector<Subject> subjects;
    const std::vector<Process> agents = Agents(server);
    const auto isAgent = [&](uint64_t pid) {
        const auto agent = std::ranges::find(agents, pid, &Process::pid);
        return agent != agents.end() && agent->name == process;
    };
    const Elements processes = server.Ask("SysCpuStatInfoQuery").In("processes");
    for (const Json &one : processes.wire) {
        const std::string name = processes.Text(one, "name");
        const uint64_t pid = processes.Number(one, "process"); // 0: of what has ended
        if (pid == 0) {
            continue;
        }
        if (process == std::to_string(pid) || fnmatch(KernelName(process).c_str(), name.c_str(), 0) == 0 ||
            isAgent(pid)) {
            subjects.push_back({pid, name, processes.Number(one, "cpu"), processes.Number(one, "resident")});
        }
    }
    return subjects;
}

bool IsBeyond(const Subject &subject, const Limits &limits) {
    return (!limits.cpuPermille || subject.cpuPermille >= *limits.cpuPermille) &&
           (!limits.memory || subject.memory >= *limits.memory);
}

void Tell(const Subject &subject, bool begins, const Options &options) {
    const std::string now = host::describe::ZonedText(std::chrono::system_clock::now());
    const std::string memory = subject.process == 0 ? PermilleText(subject.memory) : SizeText(subject.memory * 1024);
    if (options.json) {
        std::cout << Json{{"time", host::describe::Rfc3339(std::chrono::system_clock::now())},
                          {"begins", begins},
                          {"process", subject.process},
                          {"name", subject.name},
                          {"cpu_permille", subject.cpuPermille},
                          {subject.process == 0 ? "memory_permille" : "resident_bytes",
                           subject.process == 0 ? subject.memory : subject.memory * 1024}}
                         .dump()
                  << std::endl;
    } else {
        std::cout << fmt::format("{}  {}  {} {}: CPU {}, memory {}", now, begins ? "begins" : "ends  ",
                                 subject.process == 0 ? "the" : std::to_string(subject.process), subject.name,
                                 PermilleText(subject.cpuPermille), memory)
                  << std::endl;
    }
}

// The command knows by its environment what it is about.
void Run(const Subject &subject, const std::string &command) {
    setenv("TARN_WATCH_PROCESS", std::to_string(subject.process).c_str(), 1);
    setenv("TARN_WATCH_NAME", subject.name.c_str(), 1);
    setenv("TARN_WATCH_CPU", PermilleText(subject.cpuPermille).c_str(), 1);
    const int status = std::system(command.c_str());
    if (WIFSIGNALED(status)) {
        std::cerr << fmt::format("tarnctl: {}: ended by signal {}\n", command, WTERMSIG(status));
    } else if (status != 0) {
        std::cerr << fmt::format("tarnctl: {}: ended with status {}\n", command, WEXITSTATUS(status));
    }
}

class Watcher {
public:
    explicit Watcher(const Options &options) : options_(options), limits_(LimitsOf(options)) {
        lasts_ = options.lasts.empty() ? std::chrono::milliseconds(0) : ParseTime("--for", options.lasts);
    }

    // How often the limit was passed for long enough, until now.
    uint32_t Look(Server &server) {
        std::map<uint64_t, State> still;
        for (const Subject &subject : SubjectsOf(server, options_.process)) {
            const auto before = beyond_.find(subject.process);
            State state = before != beyond_.end() ? before->second : State{};
            if (IsBeyond(subject, limits_)) {
                state.last = subject;
                Pass(subject, state);
                still[subject.process] = state;
            } else if (state.told) {
                Tell(subject, false, options_);
            }
            beyond_.erase(subject.process);
        }
        for (const auto &[process, state] : beyond_) {
            if (state.told) { // and has ended since
                Tell(state.last, false, options_);
            }
        }
        beyond_ = std::move(still);
        return passed_;
    }

private:
    using Clock = std::chrono::steady_clock;
    struct State {
        Clock::time_point since = Clock::now();
        bool told = false;
        Subject last{};
    };

    void Pass(const Subject &subject, State &state) {
        if (state.told || Clock::now() - state.since < lasts_) {
            return;
        }
        state.told = true;
        ++passed_;
        Tell(subject, true, options_);
        if (!options_.command.empty()) {
            Run(subject, options_.command);
        }
    }

    const Options &options_;
    const Limits limits_;
    std::chrono::milliseconds lasts_;
    std::map<uint64_t, State> beyond_; // by processes
    uint32_t passed_ = 0;
};

void Watch(const Globals &globals, const Options &options) {
    const auto every = ParseTime("--every", options.every);
    Watcher watcher(options);
    Server server(globals);
    for (;;) {
        const uint32_t passed = watcher.Look(server);
        if (options.times != 0 && passed >= options.times) {
            return;
        }
        std::this_thread::sleep_for(every);
    }
}

} // namespace

void AddWatch(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add(
        "watch", "Tells when the system or a process uses too much, and runs a command then",
        {"watch --cpu 90% --for 10s", "watch --process 'worker*' --mem 512MiB",
         "watch --process worker --cpu 80% --for 5s -n 1 --exec 'tarnctl stack $TARN_WATCH_PROCESS --all'"});
    task.Option("--cpu", options->cpu, "SHARE", "From this share on: of all CPUs, or of one with --process");
    task.Option("--mem", options->memory, "AMOUNT", "From this share of memory in use on, or this size with --process");
    task.Option("--process", options->process, kProcess,
                "Processes of this id, name, pattern or agent's name in place of the system");
    task.Option("--for", options->lasts, "TIME", "When it lasts so long; default at once");
    task.Option("--every", options->every, "TIME", "How often to look; default 1s");
    task.Option("--exec", options->command, "COMMAND",
                "A command for the shell, each time that it begins: it finds "
                "TARN_WATCH_PROCESS, TARN_WATCH_NAME and TARN_WATCH_CPU");
    task.Option("-n", options->times, "N", "End after so many times; default when interrupted");
    task.Flag("--json", options->json, "For programs: an object a line");
    task.Run([&globals, options] { Watch(globals, *options); });
}

} // namespace ctl
