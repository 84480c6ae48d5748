// The server side of the runtime: serves the services of module specifications on Unix-domain stream sockets.
//
//   host::Server server({.runDir = dir});
//   server.AddService(__module_spec_TarnSysdiagTarnd);
//   server.Start();
//   ...
//   server.Stop();
//
// Each service has a socket of its own (see directory.h; TarnSysdiagAgent listens for the calling process), and all
// services answer on all of them, also the runtime's own (status.h). Any worker thread runs any wrapper. Of one
// connection, a request waits for the one-way requests before it; otherwise its requests run at the same time.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/runtime/limits.h"
#include "host/runtime/own_methods.h"
#include "host/runtime/policy.h"
#include "host/runtime/settings.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace host {

struct ServerOptions {
    std::filesystem::path runDir = {}; // empty: DefaultRunDir(); created when missing
    unsigned workers = 4;              // requests that run at the same time; the others wait
    Limits limits = {};
    Policy policy = {};
    std::chrono::milliseconds stopBound{5000}; // how long Stop waits for handlers and unanswered requests
    const Clocks *clocks = nullptr;            // for deadlines and limits in time; null: the system's
    bool returnsMemory = false;                // to the system after a burst; for a process that is the server's own
    // What Describe answers (host/meaning/reflect.h); asked for when the first peer asks, and never again. Null: the
    // server doesn't describe its services.
    std::function<std::string()> describe = {};
    // What the runtime's own service has besides; outlives the server. Null: nothing.
    OwnMethods *ownMethods = nullptr;
    // Is told of changes of settings, on the threads that make them.
    OnSetting onSetting = {};
    // The zone of the local times in replies, as POSIX has it for TZ; null, or empty: the system's.
    std::function<std::string()> timezone = {};
};

class ServerCore;

class Server {
public:
    explicit Server(ServerOptions options = {});
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server(); // stops

    // Before Start. The module specification and its tables stay the caller's and must outlive the server. Throws
    // std::invalid_argument for one that is not well-formed, or whose service is already there.
    void AddService(const IdlModuleSpec &spec);

    // Listens and serves. A socket that a dead server left behind is replaced. Throws std::runtime_error when a live
    // server holds one, std::system_error when the system refuses; nothing is served then.
    void Start();

    // Removes the sockets, refuses new requests, waits for handlers and unanswered requests up to the bound, answers
    // the rest with ECANCELED. False when a handler is still running: its thread is left behind. May be called twice,
    // and Start may follow.
    bool Stop();

    // Who may call what from now on, and so who may connect. Requests that run go on.
    void SetPolicy(Policy policy);

    // For the server's status: what is wrong with a file that the program has read again, so that what was in force
    // before holds; empty when nothing is.
    void NoteReload(const std::string &file, const std::string &mistake);

    std::vector<std::string> Mistakes() const; // that have been noted

    // Does what has come due because a clock of one's own has been set forward.
    void RunDue();

    // The sockets that the server listens on.
    std::vector<std::filesystem::path> Sockets() const;

private:
    ServerOptions options_;
    std::vector<const IdlModuleSpec *> specs_;
    std::shared_ptr<ServerCore> core_;
};

} // namespace host
