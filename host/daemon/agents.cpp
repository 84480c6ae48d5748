// The agents that have registered with the daemon, and what processes have subscribed to.
#include "host/answer/answer.h"
#include "host/daemon/state.h"
#include "host/daemon/values.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "server/tarnd_agent.h"

namespace tarnd {

namespace {

void Register(const Tarn_sys_diag_AgentRegInfoInput &request) {
    const uint32_t pid = request.uiValue1;
    const std::string name(host::TextOf(request.szAgentName));
    if (name.empty()) {
        throw host::BadValue("szAgentName", "empty", "the agent's name");
    }
    if (request.ucValue3 == TARND_AGENT_LEAVES) {
        if (TheState().RemoveAgent(pid)) {
            host::Log().info("agent {} of process {} has left", name, pid);
        }
        return;
    }
    if (request.ucValue3 != TARND_AGENT_RUNS) {
        throw host::BadValue("ucValue3", request.ucValue3, "0 or 1");
    }
    host::procfs::ReadProcess(pid);
    if (TheState().AddAgent(pid, {name, request.uiValue2})) {
        host::Log().info("agent {} of process {} has registered", name, pid);
    }
}

} // namespace

} // namespace tarnd

uint32_t AgentRegInfo(const Tarn_sys_diag_AgentRegInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_AgentRegInfoResult>(__func__, replyCtx, [&](auto &reply) {
        reply.uiValue1 = host::Run(__func__, [&] { tarnd::Register(*request); });
        host::CopyText(reply.szAgentName, host::TextOf(request->szAgentName));
        reply.uiValue2 = static_cast<uint32_t>(getpid());
    });
}

uint32_t TarnAppSubscribe(const Tarn_sys_diag_AppSubscribeInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] {
        host::procfs::ReadProcess(request->uiValue1);
        const uint32_t before = tarnd::TheState().Subscribe(request->uiValue1, request->uiValue2);
        host::Log().info("process {} subscribes to events {:#x}, before to {:#x}", request->uiValue1, request->uiValue2,
                         before);
    });
}
