// How agents register.
#include <unistd.h>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/osal/log.h"
#include "host/values/daemon.h"
#include "server/tarnd_agent.h"

namespace tarnd {

namespace {

void Register(const Tarn_sys_diag_AgentRegInfoInput &request) {
    Daemon &daemon = Daemon::Serving();
    const uint32_t pid = request.uiValue1;
    const std::string name(host::TextOf(request.szAgentName));
    if (name.empty()) {
        throw host::BadValue("szAgentName", "empty", "the agent's name");
    }
    if (request.ucValue3 == TARND_AGENT_LEAVES) {
        if (daemon.registry.Remove(pid)) {
            host::Log().info("agent {} of process {} has left", name, pid);
        }
        return;
    }
    if (request.ucValue3 != TARND_AGENT_RUNS) {
        throw host::BadValue("ucValue3", request.ucValue3, "0 or 1");
    }
    if (daemon.registry.Add(pid, name, request.uiValue2)) {
        daemon.courier.SendEach(pid);
    }
}

} // namespace

} // namespace tarnd

uint32_t AgentRegInfo(const Tarn_sys_diag_AgentRegInfoInput *request, void *replyCtx) {
    const auto &method = host::methods::AgentRegInfo;
    return host::SendReply<Tarn_sys_diag_AgentRegInfoResult>(method, replyCtx, [&](auto &reply) {
        reply.uiValue1 = host::Run(method, request, [&] { tarnd::Register(*request); });
        host::CopyText(reply.szAgentName, host::TextOf(request->szAgentName));
        reply.uiValue2 = static_cast<uint32_t>(getpid());
    });
}
