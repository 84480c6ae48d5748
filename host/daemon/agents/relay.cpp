#include "host/daemon/agents/relay.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>

#include "host/daemon/agents/state.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

// Left of a request's time for telling the caller how the agent failed.
constexpr uint32_t kAnswerMs = 100;

[[noreturn]] void FailWithoutAgent(uint32_t pid) {
    throw std::system_error(ESRCH, std::generic_category(), fmt::format("no agent in process {}", pid));
}

bool HasEnded(uint32_t pid) {
    return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

} // namespace

uint32_t RelayTimeout(void *replyCtx) {
    const uint32_t remaining = TarnHost_RemainingMs(replyCtx);
    const uint32_t forTheAnswer = std::min(remaining / 10, kAnswerMs);
    if (remaining == 0) {
        throw std::system_error(ETIMEDOUT, std::generic_category(), "no time is left to ask an agent");
    }
    return std::min(kRelayTimeoutMs, remaining - forTheAnswer);
}

TarnHost_InvokeCtx AgentOf(uint32_t pid, uint32_t timeoutMs) {
    if (pid == 0) {
        throw host::BadValue("the target process", pid, "the process of an agent");
    }
    if (!host::Client::Default().Knows("TarnSysdiagAgent", pid)) {
        FailWithoutAgent(pid);
    }
    return {pid, timeoutMs};
}

void CheckAgent(const IdlCallResult &result, uint32_t pid) {
    if (result.uiErrCode == ECONNREFUSED || result.uiErrCode == ENOENT) {
        FailWithoutAgent(pid); // killed, and its socket left behind; or gone since it was looked up
    }
    if (result.uiErrCode == ECONNRESET && HasEnded(pid)) {
        FailWithoutAgent(pid); // killed while it worked on the call
    }
    const uint32_t error = result.uiErrCode != 0 ? result.uiErrCode : result.uiStatus;
    if (error != 0) {
        throw std::system_error(static_cast<int>(error), std::generic_category(),
                                fmt::format("the agent of process {}: {}", pid, TarnHost_LastError()));
    }
}

std::vector<AgentOutcome> ForAllAgents(const char *what, const std::function<void(uint32_t pid)> &function) {
    std::vector<AgentOutcome> outcomes;
    for (const auto &[pid, agent] : TheState().Agents()) {
        const uint32_t error = host::Run(what, [&, to = pid] { function(to); });
        outcomes.push_back({pid, agent.name, error});
    }
    return outcomes;
}

} // namespace tarnd

// The relayed methods: the request of the agent's own method, and the process whose agent is meant.

uint32_t GetMirelMemHandleInfoByTarnd(const Tarn_sys_diag_GetMirelMemHandleInfoInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetMirelMemHandleInfo), request->uiTargetPid,
                        Tarn_sys_diag_None{});
}

uint32_t GetProcPartitionMemHandleRecodByTarnd(const Tarn_sys_diag_ProcPtRecodByTarndInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetProcPartitionMemHandleRecod), request->uiTargetPid,
                        Tarn_sys_diag_ProcPtRecodInput{request->uiPtParam1, request->uiPtParam2, request->uiPtParam3,
                                                       request->uiPtParam4, request->uiPtParam5});
}

uint32_t GetMirelMemPtInfoByTarnd(const Tarn_sys_diag_GetMirelMemPtInfoByTarndInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetMirelMemPtInfo), request->uiTargetPid,
                        Tarn_sys_diag_GetMirelMemPtInfoInput{request->uiPtId});
}

uint32_t MemDiagMaByTarnd(const Tarn_sys_diag_mem_RPCIN_input *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(MemDiag_ma), request->uiTargetPid,
                        Tarn_sys_diag_mem_RPCIN{request->uiMemCmd, request->uiMemDataLen, request->pucMemData});
}

uint32_t DBGCmdExecShowByTarnd(const Tarn_sys_diag_DbgCmdShowByTarndInput *request) {
    return host::Run(__func__, [&] {
        tarnd::TellAgent(TarnSysdiagAgent_DBGCmdExecShow_oneway, request->uiTargetPid,
                         Tarn_sys_diag_DbgCmdShowInput{request->pcCmdStr});
    });
}

uint32_t DBGCmdExecResultGetByTarnd(const Tarn_sys_diag_DbgCmdResultGetByTarndInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(DBGCmdExecResultGet), request->uiTargetPid,
                        Tarn_sys_diag_DbgCmdResultGetInput{});
}

uint32_t DBGCmdExecCleanByTarnd(const Tarn_sys_diag_DbgCmdCleanByTarndInput *request) {
    return host::Run(__func__, [&] {
        tarnd::TellAgent(TarnSysdiagAgent_DBGCmdExecClean_oneway, request->uiTargetPid,
                         Tarn_sys_diag_DbgCmdCleanInput{});
    });
}

uint32_t SetMemDmgScanTarnd(const Tarn_sys_diag_MemDmgScanInTarnd *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(SetMemDmgScan), request->uiTargetPid,
                        Tarn_sys_diag_MemDmgScanIn{request->uiScanSwitch});
}

uint32_t GetMemDmgInfoTarnd(const Tarn_sys_diag_MemDmgInfoInTarnd *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetMemDmgInfo), request->uiTargetPid,
                        Tarn_sys_diag_MemDmgInfoIn{request->uiInfoType});
}

uint32_t TarnGetDlpCfgFromAgent(const Tarn_sys_diag_GetDeadLoopCfgInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetDeadLoopCfg), request->uiValue3, *request);
}

uint32_t SetNoxTimerDebugSwitchByTarnd(const Tarn_sys_diag_SetNoxTimerDebugSwitchTarndInput *request, void *replyCtx) {
    return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(SetNoxTimerDebugSwitch), request->uiTargetPid,
                        Tarn_sys_diag_SetNoxTimerDebugSwitchInput{request->uiDebugSwitch});
}
