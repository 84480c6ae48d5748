// tarn-master: the diagnosis master, which holds the daemon's configuration.
#include "host/master/master.h"
#include "host/master/service.h"
#include "host/runtime/directory.h"
#include "host/serve/main_loop.h"
#include "host/serve/privilege.h"
#include "host/serve/serve.h"

namespace {

struct Options {
    std::string config;
    host::ServeOptions serve;
    bool check = false;
};

void Declare(host::CommandLine &line, Options &options) {
    line.Operand("CONFIG", options.config, "Configuration file; read again on SIGHUP");
    host::Declare(line, options.serve);
    line.Flag("--check", options.check, "Check the configuration file and the options, and end");
}

// It needs nothing that its user has not.
void DropPrivileges(const host::ServeOptions &options) {
    host::Become(host::UserToBecome(options.user), host::DirectoriesOf(options), {});
}

void Serve(const Options &options, const host::ServerOptions &server) {
    DropPrivileges(options.serve);
    host::OpenLog(options.serve);
    host::BlockSignals();
    const host::SystemClocks clocks;
    master::Master master(clocks, host::procfs::Procfs(), options.config, options.serve.stateDir, server);
    master.Start();
    host::RunMainLoop({options.serve, master.server, "TarnSysdiagMaster", [&master] { master.Reload(); }});
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    host::CommandLine line("tarn-master", "The diagnosis master.");
    Declare(line, options);
    if (const std::optional<int> code = line.Parse(argc, argv)) {
        return *code;
    }
    host::Log().set_level(options.serve.logLevel);
    try {
        const host::ServerOptions server = host::ServerOptionsOf(options.serve);
        if (options.check) {
            master::LoadConfig(options.config);
            return 0;
        }
        Serve(options, server);
    } catch (const std::exception &error) {
        host::Log().error("tarn-master: {}", error.what());
        return 1;
    }
    return 0;
}
