// How agents register.
#include <unistd.h>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace tarnd {

namespace {

void Register(const Tarn_sys_diag_AgentRegInfoInput &request, void *replyCtx) {
    const auto &[name, named, version, announces] = request;
    Daemon &daemon = Daemon::Serving();
    const Registrant process = RegistrantOf(daemon.proc, named, replyCtx);
    const std::string agent(host::TextOf(name));
    if (announces == host::meaning::agent_announces::kLeaves) {
        if (daemon.registry.Remove(process.pid)) {
            host::Log().info("agent {} of process {} has left", agent, process.pid);
        }
    } else if (daemon.registry.Add(process, agent, version)) {
        daemon.courier.SendEach(process.pid);
    } else {
        daemon.courier.Resume(process.pid);
    }
}

} // namespace

} // namespace tarnd

uint32_t AgentRegInfo(const Tarn_sys_diag_AgentRegInfoInput *request, void *replyCtx) {
    const auto &method = host::methods::AgentRegInfo;
    return host::SendReply<Tarn_sys_diag_AgentRegInfoResult>(method, replyCtx, [&](auto &reply) {
        auto &[result, name, process] = reply.Members();
        result = host::Run(method, request, [&] { tarnd::Register(*request, replyCtx); });
        host::CopyText(name, host::TextOf(request->szAgentName));
        process = static_cast<uint32_t>(getpid());
    });
}
