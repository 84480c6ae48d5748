// The methods that are the agents' own: the request of the agent's method, and the process whose agent is meant.
#include "host/daemon/agents/relay.h"

#include <algorithm>
#include <cerrno>

#include "host/daemon/processes/helper_time.h"
#include "host/stacks/readable.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

// A report of the agent's, in which functions have the names of their symbols: it can't make others of them.
template <class Reply>
void MakeReadable(Reply &reply, uint8_t *&bytes, uint32_t &length, void *replyCtx) {
    if (bytes != nullptr) {
        host::stacks::Demangler names(Daemon::Serving().helpers, HelperDeadline(replyCtx));
        const std::string text =
            host::stacks::WithReadableNames({reinterpret_cast<const char *>(bytes), length}, names);
        bytes = reply.Keep(std::vector<uint8_t>(text.begin(), text.end()), length);
    }
}

} // namespace

uint32_t RelayTimeout(void *replyCtx) {
    constexpr uint32_t kAnswerMs = 100; // of the request's time, to tell the caller how the agent failed
    const uint32_t remaining = TarnHost_RemainingMs(replyCtx);
    if (remaining == 0) {
        host::Fail(ETIMEDOUT, "no time is left to ask an agent");
    }
    return std::min(kRelayTimeoutMs, remaining - std::min(remaining / 10, kAnswerMs));
}

} // namespace tarnd

uint32_t GetMirelMemHandleInfoByTarnd(const Tarn_sys_diag_GetMirelMemHandleInfoInput *request, void *replyCtx) {
    return tarnd::Relay(host::methods::GetMirelMemHandleInfoByTarnd, request, replyCtx,
                        TARND_AGENT_METHOD(GetMirelMemHandleInfo), request->uiTargetPid, Tarn_sys_diag_None{});
}

uint32_t GetProcPartitionMemHandleRecodByTarnd(const Tarn_sys_diag_ProcPtRecodByTarndInput *request, void *replyCtx) {
    const auto &[partition, handle, skip, most, inUse, process] = *request;
    return tarnd::Relay(host::methods::GetProcPartitionMemHandleRecodByTarnd, request, replyCtx,
                        TARND_AGENT_METHOD(GetProcPartitionMemHandleRecod), process,
                        Tarn_sys_diag_ProcPtRecodInput{partition, handle, skip, most, inUse});
}

uint32_t GetMirelMemPtInfoByTarnd(const Tarn_sys_diag_GetMirelMemPtInfoByTarndInput *request, void *replyCtx) {
    return tarnd::Relay(host::methods::GetMirelMemPtInfoByTarnd, request, replyCtx,
                        TARND_AGENT_METHOD(GetMirelMemPtInfo), request->uiTargetPid,
                        Tarn_sys_diag_GetMirelMemPtInfoInput{request->uiPtId});
}

uint32_t MemDiagMaByTarnd(const Tarn_sys_diag_mem_RPCIN_input *request, void *replyCtx) {
    return tarnd::Relay(host::methods::MemDiagMaByTarnd, request, replyCtx, TARND_AGENT_METHOD(MemDiag_ma),
                        request->uiTargetPid,
                        Tarn_sys_diag_mem_RPCIN{request->uiMemCmd, request->uiMemDataLen, request->pucMemData},
                        [&](auto &reply) { tarnd::MakeReadable(reply, reply.pucData, reply.uiDataLen, replyCtx); });
}

uint32_t DBGCmdExecShowByTarnd(const Tarn_sys_diag_DbgCmdShowByTarndInput *request) {
    return host::Run(host::methods::DBGCmdExecShowByTarnd, request, [&] {
        tarnd::Daemon::Serving().agentLine.Tell(TarnSysdiagAgent_DBGCmdExecShow_oneway, request->uiTargetPid,
                                                Tarn_sys_diag_DbgCmdShowInput{request->pcCmdStr});
    });
}

uint32_t DBGCmdExecResultGetByTarnd(const Tarn_sys_diag_DbgCmdResultGetByTarndInput *request, void *replyCtx) {
    return tarnd::Relay(host::methods::DBGCmdExecResultGetByTarnd, request, replyCtx,
                        TARND_AGENT_METHOD(DBGCmdExecResultGet), request->uiTargetPid,
                        Tarn_sys_diag_DbgCmdResultGetInput{});
}

uint32_t DBGCmdExecCleanByTarnd(const Tarn_sys_diag_DbgCmdCleanByTarndInput *request) {
    return host::Run(host::methods::DBGCmdExecCleanByTarnd, request, [&] {
        tarnd::Daemon::Serving().agentLine.Tell(TarnSysdiagAgent_DBGCmdExecClean_oneway, request->uiTargetPid,
                                                Tarn_sys_diag_DbgCmdCleanInput{});
    });
}

uint32_t SetMemDmgScanTarnd(const Tarn_sys_diag_MemDmgScanInTarnd *request, void *replyCtx) {
    return tarnd::Relay(host::methods::SetMemDmgScanTarnd, request, replyCtx, TARND_AGENT_METHOD(SetMemDmgScan),
                        request->uiTargetPid, Tarn_sys_diag_MemDmgScanIn{request->uiScanSwitch});
}

uint32_t GetMemDmgInfoTarnd(const Tarn_sys_diag_MemDmgInfoInTarnd *request, void *replyCtx) {
    return host::Answer(host::methods::GetMemDmgInfoTarnd, request, replyCtx, [&](auto &reply) {
        const auto &[report, process] = *request;
        tarnd::AgentLine &line = tarnd::Daemon::Serving().agentLine;
        if (report != host::meaning::damage_report::kDamages) { // hostages are those of the last look for them
            line.Do(TarnSysdiagAgent_TarnDetectMemHostage, process, Tarn_sys_diag_None{},
                    tarnd::RelayTimeout(replyCtx));
        }
        auto answer = line.Ask(TARND_AGENT_METHOD(GetMemDmgInfo), process, Tarn_sys_diag_MemDmgInfoIn{report},
                               tarnd::RelayTimeout(replyCtx));
        static_cast<Tarn_sys_diag_MemDmgInfoOut &>(reply) = answer->record;
        reply.KeepOwner(std::move(answer));
        tarnd::MakeReadable(reply, reply.pucInfo, reply.uiInfoLen, replyCtx);
    });
}

uint32_t TarnGetDlpCfgFromAgent(const Tarn_sys_diag_GetDeadLoopCfgInput *request, void *replyCtx) {
    const auto &[thread, withLoops, process] = *request;
    return tarnd::Relay(host::methods::TarnGetDlpCfgFromAgent, request, replyCtx, TARND_AGENT_METHOD(GetDeadLoopCfg),
                        process, {thread, withLoops, tarnd::kAgentsOwn});
}

uint32_t SetNoxTimerDebugSwitchByTarnd(const Tarn_sys_diag_SetNoxTimerDebugSwitchTarndInput *request, void *replyCtx) {
    return tarnd::Relay(host::methods::SetNoxTimerDebugSwitchByTarnd, request, replyCtx,
                        TARND_AGENT_METHOD(SetNoxTimerDebugSwitch), request->uiTargetPid,
                        Tarn_sys_diag_SetNoxTimerDebugSwitchInput{request->uiDebugSwitch});
}
