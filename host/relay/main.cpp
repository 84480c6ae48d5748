// tarn-relay: makes a device's daemon part of a fleet.
#include <csignal>
#include <iostream>
#include <unistd.h>

#include <atomic>

#include "host/osal/log.h"
#include "host/relay/relay.h"
#include "host/serve/main_loop.h"
#include "host/serve/serve.h"
#include "host/serve/service_manager.h"

namespace {

struct Options {
    std::string config, runDir;
    bool makeStreams = false;
    host::LogLevel logLevel = host::LogLevel::kInfo;
};

constexpr std::chrono::hours kKeptEvents{30 * 24};

int Run(const Options &options) {
    relay::Config config = relay::LoadConfig(options.config);
    config.runDir = options.runDir;
    host::BlockSignals();
    std::atomic<bool> refused = false;
    {
        const std::string device = config.device;
        const relay::Relay relay(std::move(config), [&refused] {
            host::Log().error(
                "the fleet's server does not take this relay: another user, key or certificate is expected");
            refused = true;
            kill(getpid(), SIGTERM);
        });
        host::service_manager::TellReady("relays " + device);
        const int signal = host::AwaitEnd();
        host::Log().info("signal {}: shutting down", signal);
        host::service_manager::TellStopping();
    }
    return refused ? 1 : 0;
}

// What the fleet's server keeps: once, with an account that may do it.
int MakeStreams(const Options &options) {
    const relay::Config config = relay::LoadConfig(options.config);
    fleet::Connection connection(
        {.account = config.account, .name = "tarn-relay --make-streams", .onError = [](const std::string &what) {
             host::Log().error("the fleet's server: {}", what);
         }});
    connection.MakeStream({fleet::kEventStream, fleet::SubjectOf("*", "event"), kKeptEvents});
    connection.MakeStream({fleet::kHelloStream, fleet::SubjectOf("*", "hello"), std::chrono::hours(0), 1});
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    host::CommandLine line("tarn-relay", "Makes this machine's diagnosis daemon part of a fleet");
    line.Operand("CONFIG", options.config, "File that names the fleet's server, as tarn-relay(8) says");
    line.Option("--run-dir", options.runDir, "DIR", "Directory of the daemon's sockets [$TARN_RUN_DIR, or /run/tarn]");
    line.Flag("--make-streams", options.makeStreams, "Make the streams that a new server of a fleet has, and end");
    line.LogLevelOption("--log-level", options.logLevel);
    if (const auto code = line.Parse(argc, argv)) {
        return *code;
    }
    host::Log().set_level(options.logLevel);
    try {
        return options.makeStreams ? MakeStreams(options) : Run(options);
    } catch (const std::exception &error) {
        std::cerr << "tarn-relay: " << error.what() << "\n";
        return 1;
    }
}
