// tarnd: the diagnosis daemon.
#include <csignal>
#include <filesystem>

#include <fmt/format.h>

#include "host/clock/clocks.h"
#include "host/daemon/daemon.h"
#include "host/daemon/options.h"
#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "host/runtime/directory.h"
#include "host/serve/serve.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

namespace {

constexpr uint64_t kMega = 1000000;

struct Arguments {
    host::ServeOptions serve;
    tarnd::Options daemon;
    uint32_t sampleIntervalMs = static_cast<uint32_t>(tarnd::Options().sampleInterval.count());
    std::vector<std::string> copyTargets;
    uint64_t measureRateMb = tarnd::Options().measuredBytesPerSecond / kMega;
    bool applyClock = false;
    std::string zoneLink = "/etc/localtime";
    unsigned workers = 16;
    bool printAccounting = false;
};

void Declare(CLI::App &app, Arguments &options) {
    host::Declare(app, options.serve);
    using host::WithDefault;
    app.add_option("--log-dir", options.daemon.logDirectory,
                   WithDefault("Directory that archives are made of and in", options.daemon.logDirectory))
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

tarnd::Options OptionsOf(const Arguments &arguments) {
    tarnd::Options options = arguments.daemon;
    options.runDirectory = host::Directory(arguments.serve.runDir).RunDir();
    options.logDirectory = NormalPath(options.logDirectory);
    if (!arguments.serve.stateDir.empty()) {
        options.stateDirectory = NormalPath(arguments.serve.stateDir);
    }
    for (const std::string &target : arguments.copyTargets) {
        const size_t equals = target.find('=');
        options.copyTargets[target.substr(0, equals)] = NormalPath(target.substr(equals + 1));
    }
    options.sampleInterval = std::chrono::milliseconds(arguments.sampleIntervalMs);
    options.measuredBytesPerSecond = arguments.measureRateMb * kMega;
    if (arguments.applyClock) {
        options.zoneLink = arguments.zoneLink;
    }
    return options;
}

// The daemon outlives the server, whose requests use it.
void Serve(const Arguments &arguments, const host::ServerOptions &serverOptions) {
    // The terminal that it was started on may go: that ends it as well, and leaves no sockets.
    const sigset_t signals = host::BlockSignals({SIGINT, SIGTERM, host::IsIgnored(SIGHUP) ? SIGTERM : SIGHUP});
    host::Client::Default().Configure({.runDir = arguments.serve.runDir});
    const host::SystemClocks clocks;
    const host::procfs::Procfs proc;
    tarnd::Daemon daemon(OptionsOf(arguments), clocks, proc);
    host::Server server(serverOptions);
    server.AddService(__module_spec_TarnSysdiagTarnd);
    server.AddService(__module_spec_TarnSysdiagTarndAgent);
    server.Start();
    host::Log().info("serving in {}", daemon.options.runDirectory.string());
    daemon.masterLink.Start(); // the master may call back at once
    int signal = 0;
    sigwait(&signals, &signal);
    host::Log().info("signal {}: shutting down", signal);
    host::StopOrExit(server);
}

} // namespace

int main(int argc, char **argv) {
    Arguments arguments;
    CLI::App app{"The diagnosis daemon.", "tarnd"};
    Declare(app, arguments);
    if (const std::optional<int> code = host::Parse(app, argc, argv)) {
        return *code;
    }
    host::Log().set_level(arguments.serve.logLevel);
    try {
        host::ServerOptions serverOptions = host::ServerOptionsOf(arguments.serve);
        serverOptions.workers = arguments.workers;
        Serve(arguments, serverOptions);
        host::Client::Default().Shutdown();
    } catch (const std::exception &error) {
        host::Log().error("tarnd: {}", error.what());
        return 1;
    }
    if (arguments.printAccounting) {
        PrintAccounting();
    }
    return 0;
}
