// The master: its settings, and the service that tells them.
#pragma once

#include <atomic>
#include <filesystem>

#include "host/clock/clocks.h"
#include "host/master/settings.h"
#include "host/procfs/procfs.h"
#include "host/runtime/client.h"
#include "host/runtime/server.h"

namespace master {

class Master {
public:
    // The one that serves, which the C functions get here that the runtime calls for its peers.
    static Master &Serving();

    // Reads the configuration file and the state; throws what is wrong with them.
    Master(const host::Clocks &clocks, host::procfs::Procfs procfs, const std::filesystem::path &file,
           const std::filesystem::path &stateDirectory, const host::ServerOptions &options);
    ~Master();
    Master(const Master &) = delete;
    Master &operator=(const Master &) = delete;

    void Start(); // serves, and greets the daemon

    // Reads the file again and greets the daemon, which then fetches what is new. False, with the reason in the log and
    // in the server's status, when the file is refused.
    bool Reload();

    const host::Clocks &clocks;
    const host::procfs::Procfs procfs;
    Settings settings;
    std::atomic<uint64_t> announcementNum = 0; // of daemons

private:
    const std::filesystem::path file_;
    const std::filesystem::path runDir_;
    host::Client client_;

public:
    host::Server server; // stops before anything that its handlers use ends
};

} // namespace master
