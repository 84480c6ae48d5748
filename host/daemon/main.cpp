// tarnd: the diagnosis daemon.
#include <csignal>
#include <filesystem>

#include <fmt/format.h>

#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/agents/agents.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/message_rules.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/cpu/cpu_events.h"
#include "host/daemon/cpu/cpu_overload.h"
#include "host/daemon/cpu/cpu_peaks.h"
#include "host/daemon/cpu/overload_debug.h"
#include "host/daemon/cpu/starvation.h"
#include "host/daemon/files/archive.h"
#include "host/daemon/files/measurement.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/health/resources.h"
#include "host/daemon/master/master_link.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/store.h"
#include "host/daemon/time/local_clock.h"
#include "host/daemon/time/timers.h"
#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "host/runtime/directory.h"
#include "host/serve/serve.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

namespace {

struct Options {
    host::ServeOptions serve;
    std::string logDir = "/var/log/tarn";
    uint32_t sampleIntervalMs = static_cast<uint32_t>(tarnd::Sampler::kDefaultInterval.count());
    std::vector<std::string> copyTargets;
    uint32_t measureRateMb = 100;
    bool applyClock = false;
    std::string zoneLink = "/etc/localtime";
    unsigned workers = 16;
    bool printAccounting = false;
};

void Declare(CLI::App &app, Options &options) {
    host::Declare(app, options.serve);
    using host::WithDefault;
    app.add_option("--log-dir", options.logDir,
                   WithDefault("Directory that archives are made of and in", options.logDir))
        ->option_text("DIR");
    app.add_option("--copy-target", options.copyTargets, "Directory that archives may be copied to, by that name")
        ->option_text("NAME=DIR ...")
        ->check([](const std::string &text) {
            return text.find('=') == 0 || text.find('=') == text.npos || text.ends_with('=')
                       ? fmt::format("\"{}\": expected NAME=DIR", text)
                       : "";
        });
    app.add_option("--sample-interval", options.sampleIntervalMs,
                   WithDefault("Milliseconds between two samples of the system and its processes, 10 to 60000",
                               options.sampleIntervalMs))
        ->check(CLI::Range(10U, 60000U))
        ->option_text("MS");
    app.add_option("--measure-rate", options.measureRateMb,
                   WithDefault("Megabytes that a measurement reads in a second; 0: no limit", options.measureRateMb))
        ->option_text("MB");
    app.add_flag("--apply-clock", options.applyClock,
                 "Set the system's clock and time zone, not only the daemon's own");
    app.add_option("--zone-link", options.zoneLink,
                   WithDefault("With --apply-clock: the link that names the system's time zone", options.zoneLink))
        ->option_text("FILE");
    app.add_option("--workers", options.workers,
                   WithDefault("Requests that are worked on at the same time, 1 to 256", options.workers))
        ->check(CLI::Range(1U, 256U))
        ->option_text("N");
    app.add_flag("--print-accounting", options.printAccounting, "On exit, print what the library has allocated");
}

std::string NormalPath(const std::string &path) {
    return std::filesystem::absolute(path).lexically_normal();
}

void PrintLine(const std::string &tag, const host::MemoryUse &use) {
    fmt::print("{:<60} {:>11} {:>11} {:>11} {:>11}\n", tag, use.liveBlocks, use.liveBytes, use.peakBytes,
               use.allocations);
}

void PrintAccounting() {
    fmt::print("{:<60} {:>11} {:>11} {:>11} {:>11}\n", "tag", "live blocks", "live bytes", "peak bytes", "allocations");
    for (const host::TagUse &use : host::MemoryByTag()) {
        PrintLine(use.tag, use);
    }
    PrintLine("total", host::MemoryTotal());
}

// What the daemon does between calls. It ends before the objects that its threads share, however serving ends.
class Background {
public:
    explicit Background(const Options &options) : options_(options) {}
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;
    ~Background() { Stop(); }

    void Start() {
        StartSampling();
        tarnd::TheMeasurement().Start(options_.measureRateMb * uint64_t{1000000});
        tarnd::TheRules().Load();
        tarnd::WatchAgents();
        tarnd::WatchAgentHealth();
        tarnd::TheCourier().Start();
        tarnd::TheTimers().Start();
    }

    void Stop() {
        tarnd::TheMasterLink().Stop();
        tarnd::TheTimers().Stop();
        tarnd::TheCourier().Stop();
        tarnd::TheMeasurement().Stop();
        tarnd::TheSampler().Stop();
        tarnd::TheCpuOverload().Stop();
    }

private:
    void StartSampling() {
        tarnd::TheCpuPeaks().Start();
        tarnd::TheCpuOverload().Start();
        tarnd::TheMemoryOverload().Start();
        tarnd::TheOverloadDebug().Start();
        tarnd::TheStarvation().Start();
        tarnd::TheHealthSettings().Load();
        tarnd::WatchResources();
        tarnd::TheCpuEvents().Watch();
        tarnd::TheSampler().Start(std::chrono::milliseconds(options_.sampleIntervalMs));
    }

    const Options &options_;
};

void Serve(const Options &options, const host::ServerOptions &serverOptions) {
    host::Server server(serverOptions);
    // The terminal that it was started on may go: that ends it as well, and leaves no sockets.
    const sigset_t signals = host::BlockSignals({SIGINT, SIGTERM, host::IsIgnored(SIGHUP) ? SIGTERM : SIGHUP});
    host::Client::Default().Configure({.runDir = options.serve.runDir});
    Background background(options);
    background.Start();
    server.AddService(__module_spec_TarnSysdiagTarnd);
    server.AddService(__module_spec_TarnSysdiagTarndAgent);
    server.Start();
    host::Log().info("serving in {}", host::Directory(options.serve.runDir).RunDir().string());
    tarnd::TheMasterLink().Start(); // the master may call back at once
    int signal = 0;
    sigwait(&signals, &signal);
    host::Log().info("signal {}: shutting down", signal);
    background.Stop();
    host::StopOrExit(server);
    host::Client::Default().Shutdown();
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"The diagnosis daemon.", "tarnd"};
    Declare(app, options);
    if (const std::optional<int> code = host::Parse(app, argc, argv)) {
        return *code;
    }
    host::Log().set_level(options.serve.logLevel);
    try {
        host::ServerOptions serverOptions = host::ServerOptionsOf(options.serve);
        serverOptions.workers = options.workers;
        tarnd::TheSettings().runDirectory = host::Directory(options.serve.runDir).RunDir();
        tarnd::TheSettings().logDirectory = NormalPath(options.logDir);
        for (const std::string &target : options.copyTargets) {
            const size_t equals = target.find('=');
            tarnd::TheSettings().copyTargets[target.substr(0, equals)] = NormalPath(target.substr(equals + 1));
        }
        tarnd::RemoveUnfinishedArchives();
        if (!options.serve.stateDir.empty()) {
            tarnd::TheStore().Open(options.serve.stateDir);
            tarnd::TheSettings().stateDirectory = std::filesystem::absolute(options.serve.stateDir).lexically_normal();
        }
        if (options.applyClock) {
            tarnd::TheClock().ApplyToSystem(options.zoneLink);
        }
        tarnd::TheClock().Load();
        Serve(options, serverOptions);
    } catch (const std::exception &error) {
        host::Log().error("tarnd: {}", error.what());
        return 1;
    }
    if (options.printAccounting) {
        PrintAccounting();
    }
    return 0;
}
