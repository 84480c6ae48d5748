#include "host/daemon/agents/agent_line.h"

#include <cerrno>

namespace tarnd {

namespace {

[[noreturn]] void FailWithoutAgent(uint32_t pid) {
    host::Fail(ESRCH, fmt::format("no agent in process {}", pid));
}

} // namespace

// What a call that has no answer ended with says that the agent is silent; any other end, that it is not.
void AgentLine::Note(const PeerCall &call, uint32_t error) {
    if (error == ETIMEDOUT) {
        silent_.NoteSilence(call.pid, std::chrono::milliseconds(call.timeoutMs));
    } else {
        silent_.Forget(call.pid);
    }
}

void AgentLine::Call(const PeerCall &call, Whom whom) {
    if (!peers_.HasAgent(call.pid)) {
        FailWithoutAgent(call.pid);
    }
    if (whom == Whom::kThatAnswer && silent_.IsSetAside(call.pid)) {
        host::Fail(ETIMEDOUT,
                   fmt::format("the agent of process {} has not answered {} times, and is set aside until it "
                               "does",
                               call.pid, SilentAgents::kMost));
    }
    const IdlCallResult result = peers_.Call(call);
    if (call.response != nullptr) { // else it is only that the socket took it
        Note(call, result.uiErrCode);
    }
    if (result.uiErrCode == ECONNREFUSED || result.uiErrCode == ENOENT) {
        FailWithoutAgent(call.pid); // killed, and its socket left behind; or gone since it was looked up
    }
    if (result.uiErrCode != 0 && result.uiErrCode != ETIMEDOUT && !peers_.HasAgent(call.pid)) {
        FailWithoutAgent(call.pid); // left meanwhile: its proxy has nobody to call
    }
    if (result.uiErrCode == ECONNRESET && !peers_.HasProcess(call.pid)) {
        FailWithoutAgent(call.pid); // killed while it worked on the call
    }
    if (const uint32_t error = result.uiErrCode != 0 ? result.uiErrCode : result.uiStatus; error != 0) {
        host::Fail(static_cast<int>(error), fmt::format("the agent of process {}: {}", call.pid, peers_.LastError()));
    }
}

} // namespace tarnd
