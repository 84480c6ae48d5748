// What a device costs while nobody asks it: its relay, and the fleet's server. Relays say every 10 s that they are
// there, six times as often as they do unless told otherwise, so that it takes less long to measure.
//
//   bench_fleet_idle [DEVICES [SECONDS]]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <list>
#include <optional>
#include <thread>

#include "bench/fleet_server.h"
#include "host/fleet/wire.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/relay/relay.h"

namespace {

using namespace std::chrono_literals;

// Of a process.
struct Cost {
    double cpu = 0; // us
    double kib = 0; // resident
};

Cost CostOf(pid_t pid) {
    const host::procfs::Procfs proc;
    const auto id = static_cast<uint32_t>(pid);
    const host::procfs::Task task = proc.ReadProcess(id);
    return {static_cast<double>(task.userTicks + task.systemTicks) * 1e6 /
                static_cast<double>(host::procfs::TicksPerSecond()),
            static_cast<double>(host::procfs::FieldOf(proc.Read(id, "status"), "VmRSS"))};
}

void Print(const char *what, const Cost &empty, const Cost &before, const Cost &after, size_t devices, double seconds) {
    const auto number = static_cast<double>(devices);
    std::printf("%-10s %8.1f KiB %8.2f us of a CPU each second\n", what, (after.kib - empty.kib) / number,
                (after.cpu - before.cpu) / seconds / number);
}

int Measure(size_t devices, std::chrono::seconds time, const std::string &directory) {
    bench::StartChild([&] { // one for all of them
        execl(TARND, "tarnd", "--run-dir", directory.c_str(), "--log-dir", directory.c_str(), "--log-level", "error",
              "--limit", "connections=8192", nullptr);
    });
    const pid_t server = bench::StartFleetServer(directory);
    const std::string url = bench::AwaitUrl(directory);
    fleet::Connection connection({.account = {.url = url}});
    connection.MakeStream({fleet::kEventStream, fleet::SubjectOf("*", "event"), 24h});
    connection.MakeStream({fleet::kHelloStream, fleet::SubjectOf("*", "hello"), 0h, 1});
    const Cost serverEmpty = CostOf(server), empty = CostOf(getpid());
    std::list<relay::Relay> relays;
    for (size_t i = 0; i < devices; ++i) {
        relays.emplace_back(
            relay::Config{
                .account = {.url = url}, .device = "press-" + std::to_string(i), .hello = 10s, .runDir = directory},
            [] {});
    }
    std::this_thread::sleep_for(10s); // until all have said hello
    if (!std::ranges::all_of(relays, &relay::Relay::IsConnected)) {
        std::cerr << "not all devices are connected\n";
        return 1;
    }
    const Cost serverBefore = CostOf(server), before = CostOf(getpid());
    std::this_thread::sleep_for(time);
    const auto seconds = static_cast<double>(time.count());
    std::printf("%zu devices that nobody asks; for each:\n", devices);
    Print("server", serverEmpty, serverBefore, CostOf(server), devices, seconds);
    Print("relay", empty, before, CostOf(getpid()), devices, seconds);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    host::Log().set_level(host::LogLevel::kError);
    std::string directory = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
    try {
        if (mkdtemp(directory.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        const int code = Measure(argc > 1 ? std::stoul(argv[1]) : 200,
                                 std::chrono::seconds(argc > 2 ? std::stoul(argv[2]) : 60), directory);
        std::filesystem::remove_all(directory);
        return code;
    } catch (const std::exception &error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
}
