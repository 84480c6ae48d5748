// Round trips to another process, of the host's runtime and of peers: how long a call takes, how many there are in a
// second, and how much of the processors' time both sides take for one, which other load changes least. Each row is
// measured several times, in turn with the others; the tables have the best of each figure. With one caller, caller and
// server share a processor: they never run at the same time, and what waking another processor takes depends on how
// soundly it slept, not on the system that is measured.
//
//   bench_roundtrip FILE               all systems, into a JSON file that report.py reads; bench_fleet the same
//   bench_roundtrip --against OTHER    the runtime's server here and that of another build of this program, in turn
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "bench/roundtrip.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kSizes[] = {64, 4096, 102400};
constexpr unsigned kCallers[] = {1, 8};
constexpr int kRepetitions = 7;
constexpr auto kTime = 250ms; // of one measurement
constexpr auto kWarmUp = 50ms;

double ReadClock(clockid_t clock) { // us
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// Keeps this thread, and the threads and processes that it starts, on the processor that it is on.
class OneProcessor {
public:
    OneProcessor() {
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(static_cast<unsigned>(sched_getcpu()), &here);
        if (sched_getaffinity(0, sizeof before_, &before_) != 0 || sched_setaffinity(0, sizeof here, &here) != 0) {
            throw std::runtime_error("can't stay on one processor");
        }
    }
    ~OneProcessor() { sched_setaffinity(0, sizeof before_, &before_); }
    OneProcessor(const OneProcessor &) = delete;
    OneProcessor &operator=(const OneProcessor &) = delete;

private:
    cpu_set_t before_;
};

// A server in a process of its own.
class Server {
public:
    // `program` is this one, or another build of it.
    Server(const bench::System &system, size_t size, const std::string &program) : system_(system), size_(size) {
        std::string name = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        directory_ = name;
        std::string file = program, serve = "--serve", which = system.Name(), bytes = std::to_string(size);
        char *const arguments[] = {file.data(), serve.data(), which.data(), bytes.data(), name.data(), nullptr};
        if (posix_spawn(&pid_, file.c_str(), nullptr, nullptr, arguments, environ) != 0) {
            throw std::runtime_error("can't start " + file);
        }
    }
    ~Server() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        std::filesystem::remove_all(directory_);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // A caller whose first call has been answered.
    std::unique_ptr<bench::Caller> Connect() const {
        for (int attempt = 0;; ++attempt) {
            try {
                auto caller = system_.Connect(directory_, pid_);
                if (caller->Call() != size_) {
                    throw std::logic_error(std::string(system_.Name()) + ": a reply of another size");
                }
                return caller;
            } catch (const std::runtime_error &) {
                if (attempt == 1000) {
                    throw;
                }
                std::this_thread::sleep_for(10ms);
            }
        }
    }

    // That it has taken of the processors, in us.
    double CpuTime() const {
        clockid_t clock;
        if (clock_getcpuclockid(pid_, &clock) != 0) {
            throw std::runtime_error(std::string(system_.Name()) + ": the server has gone");
        }
        return ReadClock(clock);
    }

private:
    const bench::System &system_;
    const size_t size_;
    std::string directory_;
    pid_t pid_ = 0;
};

struct Figures {
    double p50 = INFINITY; // us
    double p99 = INFINITY;
    double rate = 0;       // calls in a second
    double cpu = INFINITY; // us of a call, on both sides

    void TakeBest(const Figures &other) {
        p50 = std::min(p50, other.p50);
        p99 = std::min(p99, other.p99);
        rate = std::max(rate, other.rate);
        cpu = std::min(cpu, other.cpu);
    }
};

struct Calls {
    std::vector<double> times; // us, of those that count
    size_t all = 0;
};

Calls CallUntil(bench::Caller &caller, Clock::time_point begin, Clock::time_point end) {
    Calls calls;
    for (auto now = Clock::now(); now < end; ++calls.all) {
        caller.Call();
        const auto after = Clock::now();
        if (now >= begin) {
            calls.times.push_back(std::chrono::duration<double, std::micro>(after - now).count());
        }
        now = after;
    }
    return calls;
}

const std::string &Self() {
    static const std::string self = std::filesystem::canonical("/proc/self/exe");
    return self;
}

Figures Measure(const bench::System &system, size_t size, unsigned callers, const std::string &program = Self()) {
    std::optional<OneProcessor> one;
    if (callers == 1) {
        one.emplace();
    }
    const Server server(system, size, program);
    std::vector<std::unique_ptr<bench::Caller>> connected;
    for (unsigned i = 0; i < callers; ++i) {
        connected.push_back(server.Connect());
    }
    const auto cpuTime = [&] { return ReadClock(CLOCK_PROCESS_CPUTIME_ID) + server.CpuTime(); };
    const double cpuBefore = cpuTime();
    const auto begin = Clock::now() + kWarmUp, end = begin + kTime;
    std::vector<Calls> calls(callers);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < callers; ++i) {
        threads.emplace_back([&, i] { calls[i] = CallUntil(*connected[i], begin, end); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const double cpu = cpuTime() - cpuBefore;
    std::vector<double> all;
    size_t allCalls = 0;
    for (const Calls &one : calls) {
        all.insert(all.end(), one.times.begin(), one.times.end());
        allCalls += one.all;
    }
    if (all.empty()) {
        throw std::runtime_error(std::string(system.Name()) + ": no call ended");
    }
    std::sort(all.begin(), all.end());
    return {all[all.size() / 2], all[all.size() * 99 / 100],
            static_cast<double>(all.size()) / std::chrono::duration<double>(kTime).count(),
            cpu / static_cast<double>(allCalls)};
}

using Row = std::map<std::string, Figures>; // by system

// Rows as Google Benchmark's files have them.
void Write(std::ostream &out, size_t size, unsigned callers, const Row &row) {
    for (const bench::System *const system : bench::Systems()) {
        const Figures &figures = row.at(system->Name());
        out << fmt::format("  {{\"name\": \"{0}/{1}/{2}\", \"system\": \"{0}\", \"bytes\": {1}, \"callers\": {2}, "
                           "\"p50\": {3:.3f}, \"p99\": {4:.3f}, \"rate\": {5:.1f}, \"cpu\": {6:.3f}}}",
                           system->Name(), size, callers, figures.p50, figures.p99, figures.rate, figures.cpu)
            << (system == bench::Systems().back() ? "" : ",\n");
    }
}

void MeasureAll(const std::string &file) {
    std::ofstream out(file);
    out << "{\"time_unit\": \"us\", \"benchmarks\": [\n";
    const char *between = "";
    for (const size_t size : kSizes) {
        for (const unsigned callers : kCallers) {
            Row row;
            for (int i = 0; i < kRepetitions; ++i) {
                for (const bench::System *const system : bench::Systems()) {
                    row[system->Name()].TakeBest(Measure(*system, size, callers));
                }
            }
            Write(out << std::exchange(between, ",\n"), size, callers, row);
        }
    }
    if (!(out << "\n]}\n").flush()) {
        throw std::runtime_error(file + ": not written");
    }
}

double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// The callers are this build's on both sides. The ratio is of neighbours in time, which other load slows alike.
void MeasureAgainst(const std::string &other) {
    constexpr int kTurns = 31;
    printf("%7s %7s %10s %10s %10s %10s %14s %10s\n", "bytes", "callers", "p50 us", "other's", "cpu us", "other's",
           "median of p50", "of cpu");
    for (const size_t size : kSizes) {
        for (const unsigned callers : kCallers) {
            Figures here, there;
            std::vector<double> ratios, cpuRatios;
            for (int i = 0; i < kTurns; ++i) {
                const Figures first = Measure(bench::RuntimeSystem(), size, callers);
                const Figures second = Measure(bench::RuntimeSystem(), size, callers, other);
                ratios.push_back(first.p50 / second.p50);
                cpuRatios.push_back(first.cpu / second.cpu);
                here.TakeBest(first);
                there.TakeBest(second);
            }
            printf("%7zu %7u %10.1f %10.1f %10.1f %10.1f %14.2f %10.2f\n", size, callers, here.p50, there.p50, here.cpu,
                   there.cpu, Median(ratios), Median(cpuRatios));
            fflush(stdout);
        }
    }
}

void Serve(const std::string &name, size_t size, const std::string &directory) {
    for (const bench::System *const system : bench::Systems()) {
        if (name == system->Name()) {
            system->Serve(directory, size);
            return;
        }
    }
    throw std::runtime_error("no such system: " + name);
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (argc == 5 && strcmp(argv[1], "--serve") == 0) {
            Serve(argv[2], std::stoul(argv[3]), argv[4]);
        } else if (argc == 3 && strcmp(argv[1], "--against") == 0) {
            MeasureAgainst(argv[2]);
        } else if (argc == 2 && argv[1][0] != '-') {
            MeasureAll(argv[1]);
        } else {
            throw std::invalid_argument(
                "expected a file for the figures, or --against and another build of this program");
        }
    } catch (const std::exception &error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
    return 0;
}
