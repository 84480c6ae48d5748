// The client side of the runtime. The library's proxies come here through RPC_*; tools call Client.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/bytes.h"
#include "host/runtime/limits.h"
#include "tarn_sysdiag/host/call.h"

namespace host {

struct ClientOptions {
    std::filesystem::path runDir = {}; // empty: DefaultRunDir()
    Limits limits = {};
};

// How a call ended. The transport's errors:
//   2 ENOENT        no such service, agent or method          74 EBADMSG      a message that is not well-formed
//   1 EPERM         the socket is not held by who should, as the text says
//   90 EMSGSIZE     a message beyond the limit                91 EPROTOTYPE   another type hash than the server's
//   104 ECONNRESET  the peer went before it answered          110 ETIMEDOUT   the deadline
//   111 ECONNREFUSED nobody listens                           125 ECANCELED   client or server shut down
struct CallOutcome {
    uint32_t status = 0;          // the method's, 0 for success
    uint32_t errCode = 0;         // errno value of the transport or of either runtime, 0 for success
    std::string text = {};        // what went wrong; empty after success
    std::string explanation = {}; // why the result in the response is a failure, where the method says so
    Bytes bytes = {};             // the encoded response; empty for a method without reply

    bool Ok() const { return status == 0 && errCode == 0; }
};

// A call as it goes out. The views are read until the function that takes it returns.
struct CallRequest {
    std::string_view service;
    uint32_t pid = 0; // whose agent; 0 for the service's own socket
    std::string_view method;
    uint32_t requestHash = 0;
    std::span<const uint8_t> request = {}; // encoded
    std::chrono::milliseconds deadline{0}; // from now; 0 for the default
    std::string_view socketOf = {};        // another service, on whose socket to ask; empty for its own
};

// Calls any method with encoded messages. All functions are thread-safe. A service is called only where root holds its
// socket, or the own user, the run directory's owner or the daemon's user (run_directory.h); an agent only where its
// process does.
class Client {
public:
    explicit Client(ClientOptions options = {});
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client(); // shuts down

    // The one behind the library's proxies.
    static Client &Default();

    // Shuts down, and takes other options. For Default(), before the first call.
    void Configure(ClientOptions options);

    // Sends and waits, on the calling thread.
    CallOutcome Call(const CallRequest &call);
    CallOutcome Call(std::string_view service, uint32_t pid, std::string_view method, uint32_t requestHash,
                     std::span<const uint8_t> request, std::chrono::milliseconds deadline = {});

    // Sends, and returns when the bytes are in the socket. What becomes of the request is not told.
    CallOutcome Oneway(const CallRequest &call);

    // Sends, and calls back exactly once, from the client's own thread, or from this one after or during Shutdown. The
    // callback must not throw; while it blocks, no other is called. Returns the call's number for Cancel.
    uint64_t CallAsync(const CallRequest &call, std::function<void(CallOutcome &&)> done);

    // Gives up an asynchronous call that has not ended: it ends with ECANCELED, and the server is told.
    void Cancel(uint64_t call);

    // Calls back with a failure found before the call, in the way of CallAsync.
    void FailAsync(CallOutcome failure, std::function<void(CallOutcome &&)> done);

    // Whether the service, or the agent of a process, has a socket.
    bool Knows(std::string_view service, uint32_t pid) const;

    // The processes that hold the sockets of agents, as the kernel names them; of one that takes no connection, the one
    // in the socket's name.
    std::vector<uint32_t> Agents() const;

    // Removes the sockets of agents that have ended, where the run directory is this user's. Throws std::runtime_error.
    void RemoveDeadAgents() const;

    // Connections to the agent of a process, or to a service, that no call uses are not used again.
    void Forget(std::string_view service, uint32_t pid);

    // Closes all connections and ends every asynchronous call with ECANCELED; returns when all have been called back.
    // Not from a callback. The next call starts anew.
    void Shutdown();

    Limits GetLimits() const;

private:
    class Core;
    std::shared_ptr<Core> GetCore() const;
    mutable Mutex mutex_;
    std::shared_ptr<Core> core_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
