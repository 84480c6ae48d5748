// tarnd: the diagnosis daemon.
#include <linux/capability.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include <fmt/format.h>

#include "host/clock/clocks.h"
#include "host/daemon/daemon.h"
#include "host/daemon/history/setting_event.h"
#include "host/daemon/options.h"
#include "host/daemon/own_service.h"
#include "host/daemon/sampling/libproc2_source.h"
#include "host/meaning/reflect.h"
#include "host/osal/accounting.h"
#include "host/osal/directories.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "host/runtime/directory.h"
#include "host/serve/main_loop.h"
#include "host/serve/privilege.h"
#include "host/serve/serve.h"
#include "host/stacks/helpers.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace {

constexpr uint64_t kMega = 1000000;

// /var/log/tarn for root or where it exists, else the user's own.
std::string DefaultLogDirectory() {
    const std::string system = tarnd::Options().logDirectory;
    std::error_code unknown;
    if (geteuid() == 0 || std::filesystem::is_directory(system, unknown)) {
        return system;
    }
    const std::filesystem::path state = host::UserStateDir();
    return state.empty() ? system : (state / "tarn/log").string();
}

struct Arguments {
    host::ServeOptions serve;
    std::string logDirectory;
    uint32_t sampleIntervalMs = static_cast<uint32_t>(tarnd::Options().sampleInterval.count());
    std::vector<std::string> copyTargets;
    uint64_t measureRateMb = tarnd::Options().measuredBytesPerSecond / kMega;
    bool applyClock = false;
    std::string zoneLink = "/etc/localtime";
    std::string unwinder;
    uint32_t workers = 16;
    bool printAccounting = false;
};

std::string CheckCopyTarget(const std::string &text) {
    const bool whole = text.find('=') != 0 && text.find('=') != text.npos && !text.ends_with('=');
    return whole ? "" : fmt::format("\"{}\": expected NAME=DIR", text);
}

void Declare(host::CommandLine &line, Arguments &options) {
    host::Declare(line, options.serve);
    using host::WithDefault;
    line.Option("--log-dir", options.logDirectory, "DIR",
                "Directory that archives are made of and in [/var/log/tarn, or the user's own]");
    line.List("--copy-target", options.copyTargets, "NAME=DIR ...",
              "Directory that archives may be copied to, by that name", CheckCopyTarget);
    line.Option("--sample-interval", options.sampleIntervalMs, {10, 60000}, "MS",
                WithDefault("Milliseconds between two samples of the system and its processes, 10 to 60000",
                            options.sampleIntervalMs));
    line.Option("--measure-rate", options.measureRateMb, "MB",
                WithDefault("Megabytes that a measurement reads in a second; 0: no limit", options.measureRateMb));
    line.Flag("--apply-clock", options.applyClock, "Set the system's clock and time zone, not only the daemon's own");
    line.Option("--zone-link", options.zoneLink, "FILE",
                WithDefault("With --apply-clock: the link that names the system's time zone", options.zoneLink));
    line.Option("--unwinder", options.unwinder, "FILE",
                "Program that looks into other processes [tarn-unwind, beside this one or where it is installed]");
    line.Option("--workers", options.workers, {1, 256}, "N",
                WithDefault("Requests that are worked on at the same time, 1 to 256", options.workers));
    line.Flag("--print-accounting", options.printAccounting, "On exit, print what the library has allocated");
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
    tarnd::Options options;
    options.runDirectory = host::Directory(arguments.serve.runDir).RunDir();
    options.faultDirectory = host::FaultDir(options.runDirectory);
    options.logDirectory = NormalPath(arguments.logDirectory.empty() ? DefaultLogDirectory() : arguments.logDirectory);
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

std::optional<mode_t> ModeOf(const std::filesystem::path &directory) {
    struct stat status {};
    return stat(directory.c_str(), &status) == 0 ? std::optional(status.st_mode & 07777) : std::nullopt;
}

// Who may have an agent may record faults. Without the directory none are recorded, which is no reason not to serve.
bool MakeFaultDirectory(const tarnd::Options &options) {
    const mode_t mode = ModeOf(options.runDirectory).value_or(0755);
    const std::error_code error = host::MakeDirectories(options.faultDirectory, mode);
    if (error) {
        host::Log().warn("fault directory {}: {}; no fault will be recorded: make it, or name another with "
                         "TARN_FAULT_DIR",
                         options.faultDirectory.string(), error.message());
    }
    return !error;
}

// Processes and files of all users are looked at, and nobody's are changed.
void DropPrivileges(const Arguments &arguments, const tarnd::Options &options) {
    using Given = host::NeededDirectory::Given;
    std::vector<host::NeededDirectory> directories = host::DirectoriesOf(arguments.serve);
    directories.insert(directories.begin(),
                       {"log directory", options.logDirectory, "--log-dir", 0750, Given::kNothing});
    if (options.faultDirectory != options.runDirectory && MakeFaultDirectory(options)) {
        directories.push_back({"fault directory", options.faultDirectory, "TARN_FAULT_DIR", 0755, Given::kDirectory});
    }
    std::vector<unsigned> capabilities{CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH};
    if (options.zoneLink) {
        capabilities.insert(capabilities.end(), {CAP_SYS_TIME, CAP_DAC_OVERRIDE}); // the zone's link is root's
    }
    host::Become(host::UserToBecome(arguments.serve.user), directories, capabilities);
}

// The daemon outlives the server, whose requests use it.
std::string Describe() {
    static constexpr const host::meaning::Service *kServices[] = {&host::meaning::kTarnd, &host::meaning::kTarndAgent};
    return host::meaning::Reflect(kServices);
}

void Serve(const Arguments &arguments, host::ServerOptions serverOptions) {
    const tarnd::Options options = OptionsOf(arguments);
    host::stacks::Helpers helpers(arguments.unwinder); // keep the right to become other users
    DropPrivileges(arguments, options);
    host::OpenLog(arguments.serve);
    host::BlockSignals();
    host::Client::Default().Configure({.runDir = arguments.serve.runDir});
    const host::SystemClocks clocks;
    const host::procfs::Procfs proc;
    tarnd::Libproc2Source samples(proc);
    tarnd::RemotePeers peers;
    tarnd::Daemon daemon(options, clocks, proc, samples, peers, helpers);
    tarnd::OwnService ownService(daemon);
    serverOptions.describe = Describe;
    serverOptions.ownMethods = &ownService;
    serverOptions.onSetting = [&](const host::Peer &peer, const host::meaning::Method &method, const void *request) {
        daemon.history.Add(tarnd::SettingEvent(proc, peer, method, request));
    };
    serverOptions.timezone = [&daemon] {
        const std::string zone = daemon.clock.PosixZone();
        return zone.empty() ? host::SystemsPosixText() : zone; // who asks may be in another
    };
    host::Server server(std::move(serverOptions));
    server.AddService(__module_spec_TarnSysdiagTarnd);
    server.AddService(__module_spec_TarnSysdiagTarndAgent);
    server.Start();
    daemon.masterLink.Greet(); // the master may call back at once
    host::RunMainLoop({arguments.serve, server, "TarnSysdiagTarnd", [&] { daemon.masterLink.Refresh(); }});
}

} // namespace

int main(int argc, char **argv) {
    Arguments arguments;
    host::CommandLine line("tarnd", "The diagnosis daemon.");
    Declare(line, arguments);
    if (const std::optional<int> code = line.Parse(argc, argv)) {
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
