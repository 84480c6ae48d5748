// Debug commands, relayed to the agent of the process that the request names.
#include <cstdlib>

#include "client/agent.h"
#include "host/answer/answer.h"
#include "host/daemon/state.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

// Shorter than the default, so that the caller hears of an agent that hangs before its own deadline.
constexpr uint32_t kRelayTimeoutMs = 3000;

[[noreturn]] void FailWithoutAgent(uint32_t pid) {
    TheState().RemoveAgent(pid);
    throw std::system_error(ESRCH, std::generic_category(), fmt::format("no agent in process {}", pid));
}

// Throws what an agent's call ended with.
void Check(const IdlCallResult &result, uint32_t pid) {
    const uint32_t error = result.uiErrCode != 0 ? result.uiErrCode : result.uiStatus;
    if (result.uiErrCode == ECONNREFUSED || result.uiErrCode == ENOENT) {
        FailWithoutAgent(pid); // killed, and its socket left behind; or gone since it was looked up
    }
    if (error != 0) {
        throw std::system_error(static_cast<int>(error), std::generic_category(),
                                fmt::format("the agent of process {}: {}", pid, TarnHost_LastError()));
    }
}

// How the runtime chooses the agent.
TarnHost_InvokeCtx AgentOf(uint32_t pid) {
    if (pid == 0) {
        throw host::BadValue("uiTargetPid", pid, "the process of an agent");
    }
    if (!host::Client::Default().Knows("TarnSysdiagAgent", pid)) {
        FailWithoutAgent(pid);
    }
    return {pid, kRelayTimeoutMs};
}

// A reply that a proxy decoded, released in the way that the proxy's codec table says.
struct AgentReply {
    Tarn_sys_diag_DiagResult record{};

    AgentReply() = default;
    AgentReply(const AgentReply &) = delete;
    AgentReply &operator=(const AgentReply &) = delete;
    ~AgentReply() {
        IdlCodecTable codec{};
        TarnSysdiagAgent_DBGCmdExecResultGetSetIdl(&codec);
        codec.pfnFreeUnpacked(&record);
    }
};

} // namespace

} // namespace tarnd

uint32_t DBGCmdExecShowByTarnd(const Tarn_sys_diag_DbgCmdShowByTarndInput *request) {
    return host::Run(__func__, [&] {
        TarnHost_InvokeCtx ctx = tarnd::AgentOf(request->uiTargetPid);
        const Tarn_sys_diag_DbgCmdShowInput show{request->pcCmdStr};
        tarnd::Check({0, TarnSysdiagAgent_DBGCmdExecShow_oneway(&show, &ctx)}, request->uiTargetPid);
    });
}

uint32_t DBGCmdExecResultGetByTarnd(const Tarn_sys_diag_DbgCmdResultGetByTarndInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DiagResult>(__func__, replyCtx, [&](auto &reply) {
        TarnHost_InvokeCtx ctx = tarnd::AgentOf(request->uiTargetPid);
        const Tarn_sys_diag_DbgCmdResultGetInput get{};
        tarnd::AgentReply answer;
        tarnd::Check(TarnSysdiagAgent_DBGCmdExecResultGet(&get, &answer.record, &ctx), request->uiTargetPid);
        reply.uiResult = answer.record.uiResult;
        reply.uiValue = answer.record.uiValue;
        reply.szText = answer.record.szText == nullptr ? nullptr : reply.Keep(std::string(answer.record.szText));
    });
}

uint32_t DBGCmdExecCleanByTarnd(const Tarn_sys_diag_DbgCmdCleanByTarndInput *request) {
    return host::Run(__func__, [&] {
        TarnHost_InvokeCtx ctx = tarnd::AgentOf(request->uiTargetPid);
        const Tarn_sys_diag_DbgCmdCleanInput clean{};
        tarnd::Check({0, TarnSysdiagAgent_DBGCmdExecClean_oneway(&clean, &ctx)}, request->uiTargetPid);
    });
}
