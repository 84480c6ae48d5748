#include "host/daemon/agents/agents.h"

#include "host/answer/answer.h"
#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/message_rules.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/health/resources.h"
#include "host/daemon/time/timers.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/daemon.h"
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
    const uint64_t start = host::procfs::Procfs().ReadProcess(pid).startTicks;
    if (TheState().AddAgent(pid, {name, request.uiValue2, start})) {
        host::Log().info("agent {} of process {} has registered", name, pid);
        TheCourier().Send(BringRules, pid);
        TheCourier().Send(BringHealthSwitches, pid);
        TheCourier().Send(BringResources, pid);
        TheCourier().Send(ProbeAgent, pid);
    }
}

void DropEndedAgents() {
    for (const auto &[pid, agent] : TheState().Agents()) {
        if (!host::procfs::Procfs().Runs(pid, agent.processStart) && TheState().RemoveAgent(pid)) {
            host::Log().info("agent {} of process {} has gone with it", agent.name, pid);
        }
    }
}

} // namespace

void WatchAgents() {
    constexpr std::chrono::seconds kPeriod{1};
    TheTimers().Every(TheTimers().Add("agents", DropEndedAgents), kPeriod);
}

} // namespace tarnd

uint32_t AgentRegInfo(const Tarn_sys_diag_AgentRegInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_AgentRegInfoResult>(__func__, replyCtx, [&](auto &reply) {
        reply.uiValue1 = host::Run("AgentRegInfo", [&] { tarnd::Register(*request); });
        host::CopyText(reply.szAgentName, host::TextOf(request->szAgentName));
        reply.uiValue2 = static_cast<uint32_t>(getpid());
    });
}
