#include "host/daemon/agents/agent_line.h"

#include <cerrno>

namespace tarnd {

namespace {

[[noreturn]] void FailWithoutAgent(uint32_t pid) {
    host::Fail(ESRCH, fmt::format("no agent in process {}", pid));
}

} // namespace

void AgentLine::Call(const PeerCall &call) {
    if (!peers_.HasAgent(call.pid)) {
        FailWithoutAgent(call.pid);
    }
    const IdlCallResult result = peers_.Call(call);
    if (result.uiErrCode == ECONNREFUSED || result.uiErrCode == ENOENT) {
        FailWithoutAgent(call.pid); // killed, and its socket left behind; or gone since it was looked up
    }
    if (result.uiErrCode == ECONNRESET && !peers_.HasProcess(call.pid)) {
        FailWithoutAgent(call.pid); // killed while it worked on the call
    }
    if (const uint32_t error = result.uiErrCode != 0 ? result.uiErrCode : result.uiStatus; error != 0) {
        host::Fail(static_cast<int>(error), fmt::format("the agent of process {}: {}", call.pid, peers_.LastError()));
    }
}

} // namespace tarnd
