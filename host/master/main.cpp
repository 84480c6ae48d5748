// tarn-master: the diagnosis master, which holds the daemon's configuration.
#include <csignal>

#include "host/master/service.h"
#include "host/master/settings.h"
#include "host/runtime/directory.h"
#include "host/serve/serve.h"

namespace {

struct Options {
    std::string config;
    host::ServeOptions serve;
    bool check = false;
};

void Declare(CLI::App &app, Options &options) {
    app.add_option("CONFIG", options.config, "Configuration file; read again on SIGHUP")->required()->option_text(" ");
    host::Declare(app, options.serve);
    app.add_flag("--check", options.check, "Check the configuration file and the options, and end");
}

void Serve(host::ServerOptions options) {
    const sigset_t signals = host::BlockSignals({SIGHUP, SIGINT, SIGTERM});
    host::Client client({.runDir = options.runDir});
    master::GreetWith(&client);
    options.workers = 2;
    host::Server server(options);
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
    host::StopOrExit(server);
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"The diagnosis master.", "tarn-master"};
    Declare(app, options);
    if (const std::optional<int> code = host::Parse(app, argc, argv)) {
        return *code;
    }
    host::Log().set_level(options.serve.logLevel);
    try {
        const host::ServerOptions server = host::ServerOptionsOf(options.serve);
        if (options.check) {
            master::LoadConfig(options.config);
            return 0;
        }
        master::TheMaster().Start(options.config, options.serve.stateDir);
        Serve(server);
    } catch (const std::exception &error) {
        host::Log().error("tarn-master: {}", error.what());
        return 1;
    }
    return 0;
}
