#include "host/master/master.h"

#include <cassert>
#include <utility>

#include "host/master/service.h"
#include "host/meaning/reflect.h"
#include "host/osal/log.h"
#include "host/runtime/directory.h"

namespace master {

namespace {

Master *serving = nullptr;

host::ServerOptions Completed(host::ServerOptions options) {
    options.workers = 2;
    options.describe = [] {
        static constexpr const host::meaning::Service *kServices[] = {&host::meaning::kMaster};
        return host::meaning::Reflect(kServices);
    };
    return options;
}

} // namespace

Master &Master::Serving() {
    return *serving;
}

Master::Master(const host::Clocks &theClocks, host::procfs::Procfs theProcfs, const std::filesystem::path &file,
               const std::filesystem::path &stateDirectory, const host::ServerOptions &options)
    : clocks(theClocks), procfs(std::move(theProcfs)), settings(clocks, file, stateDirectory), file_(file),
      runDir_(options.runDir), client_({.runDir = runDir_}), server(Completed(options)) {
    assert(serving == nullptr);
    serving = this;
    server.AddService(kServiceSpec);
}

Master::~Master() {
    server.Stop();
    serving = nullptr;
}

void Master::Start() {
    server.Start();
    GreetDaemon(client_);
}

bool Master::Reload() {
    const std::string mistake = settings.Reload();
    server.NoteReload(file_, mistake);
    if (!mistake.empty()) {
        return false;
    }
    GreetDaemon(client_);
    return true;
}

} // namespace master
