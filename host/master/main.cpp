// tarn-master: the diagnosis master, which holds the daemon's configuration.
#include <csignal>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "host/master/master.h"
#include "host/master/service.h"
#include "host/osal/log.h"
#include "host/runtime/directory.h"
#include "host/runtime/server.h"

namespace {

struct Options {
    std::string config;
    std::string runDir;
    std::string stateDir;
    bool check = false;
};

void Declare(CLI::App &app, Options &options) {
    app.add_option("CONFIG", options.config, "Configuration file; read again on SIGHUP")->required();
    app.add_option("--run-dir", options.runDir, "Directory of the sockets [$TARN_RUN_DIR, or /run/tarn]");
    app.add_option("--state-dir", options.stateDir,
                   "Directory of what is kept beyond a restart [none: nothing is kept]");
    app.add_flag("--check", options.check, "Check the configuration file, and end");
}

// Blocked before the first thread starts, so that every thread inherits it and only main takes them.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void Serve(const Options &options) {
    const sigset_t signals = BlockSignals();
    host::Client client({.runDir = options.runDir});
    master::GreetWith(&client);
    host::Server server({.runDir = options.runDir, .workers = 2});
    server.AddService(master::kServiceSpec);
    server.Start();
    host::Log().info("serving in {}", host::Directory(options.runDir).RunDir().string());
    master::GreetDaemon(client);
    for (int signal = 0; signal != SIGINT && signal != SIGTERM;) {
        sigwait(&signals, &signal);
        host::Log().info("signal {}", signal);
        if (signal == SIGHUP && master::TheMaster().Reload()) {
            master::GreetDaemon(client);
        }
    }
    if (!server.Stop()) {
        host::Log().error("a request is still being worked on: cut off");
        std::_Exit(1); // its thread uses what the end of main would destroy
    }
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"The diagnosis master.", "tarn-master"};
    Declare(app, options);
    CLI11_PARSE(app, argc, argv);
    try {
        if (options.check) {
            master::LoadConfig(options.config);
            return 0;
        }
        master::TheMaster().Start(options.config, options.stateDir);
        Serve(options);
    } catch (const std::exception &error) {
        host::Log().error("tarn-master: {}", error.what());
        return 1;
    }
    return 0;
}
