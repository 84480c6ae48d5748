// tarnd: the diagnosis daemon.
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/daemon/liveness.h"
#include "host/daemon/state.h"
#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "host/runtime/directory.h"
#include "host/runtime/server.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

namespace {

struct Options {
    std::string runDir;
    std::string logDir = "/var/log/tarn";
    spdlog::level::level_enum logLevel = spdlog::level::info;
    bool printAccounting = false;
};

void Declare(CLI::App &app, Options &options) {
    const std::map<std::string, spdlog::level::level_enum> levels{{"debug", spdlog::level::debug},
                                                                  {"info", spdlog::level::info},
                                                                  {"warning", spdlog::level::warn},
                                                                  {"error", spdlog::level::err}};
    app.add_option("--run-dir", options.runDir, "Directory of the sockets [$TARN_RUN_DIR, or /run/tarn]");
    app.add_option("--log-dir", options.logDir, "Directory that archives are made of and in")->capture_default_str();
    app.add_option("--log-level", options.logLevel, "debug, info, warning or error [info]")
        ->transform(CLI::CheckedTransformer(levels))
        ->option_text("LEVEL");
    app.add_flag("--print-accounting", options.printAccounting, "On exit, print what the library has allocated");
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

// Blocked before the first thread starts, so that every thread inherits it and only main takes them.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void Serve(const Options &options) {
    const sigset_t signals = BlockSignals();
    host::Client::Default().Configure({.runDir = options.runDir});
    host::Server server({.runDir = options.runDir});
    server.AddService(__module_spec_TarnSysdiagTarnd);
    server.AddService(__module_spec_TarnSysdiagTarndAgent);
    server.Start();
    host::Log().info("serving in {}", host::Directory(options.runDir).RunDir().string());
    tarnd::GreetMaster();
    int signal = 0;
    sigwait(&signals, &signal);
    host::Log().info("signal {}: shutting down", signal);
    if (!server.Stop()) {
        host::Log().error("a request is still being worked on: cut off");
        std::_Exit(1); // its thread uses what the end of main would destroy
    }
    host::Client::Default().Shutdown();
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"The diagnosis daemon.", "tarnd"};
    Declare(app, options);
    CLI11_PARSE(app, argc, argv);
    host::Log().set_level(options.logLevel);
    try {
        tarnd::TheSettings().logDirectory = std::filesystem::absolute(options.logDir).lexically_normal();
        Serve(options);
    } catch (const std::exception &error) {
        host::Log().error("tarnd: {}", error.what());
        return 1;
    }
    if (options.printAccounting) {
        PrintAccounting();
    }
    return 0;
}
