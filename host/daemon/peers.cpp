#include "host/daemon/peers.h"

#include <signal.h>

#include <cerrno>

#include "host/osal/attempt.h"
#include "host/runtime/client.h"

namespace tarnd {

namespace {

constexpr char kService[] = "TarnSysdiagAgent";

} // namespace

bool RemotePeers::HasAgent(uint32_t pid) {
    return host::Client::Default().Knows(kService, pid);
}

void RemotePeers::Forget(uint32_t pid) {
    host::Client::Default().Forget(kService, pid);
}

void RemotePeers::RemoveDeadAgents() {
    host::Attempt("what agents left that have ended", [] { host::Client::Default().RemoveDeadAgents(); });
}

bool RemotePeers::HasProcess(uint32_t pid) {
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

IdlCallResult RemotePeers::Call(const PeerCall &call) {
    TarnHost_InvokeCtx ctx{call.pid, call.timeoutMs};
    return call.run(&ctx);
}

} // namespace tarnd
