// What becomes of the daemon's own timers, and of the agents'.
#include <unistd.h>

#include <algorithm>
#include <map>

#include <fmt/ranges.h>

#include "host/answer/answer.h"
#include "host/daemon/agents/at_once.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

template <class Duration>
uint32_t Count(Duration duration) {
    return static_cast<uint32_t>(std::clamp<int64_t>(duration.count(), 0, UINT32_MAX));
}

host::meaning::Choice StateOf(const Timers::Timer &timer) {
    namespace timer_state = host::meaning::timer_state;
    return timer.running ? timer_state::kExpired : timer.IsStopped() ? timer_state::kStopped : timer_state::kRunning;
}

Tarn_sys_diag_TimerInfo Describe(const Timers::Timer &timer, host::SteadyTime now) {
    Tarn_sys_diag_TimerInfo info{};
    info.uiTimerId = timer.id;
    host::CopyText(info.szTimerName, timer.name);
    info.uiTid = timer.creator;
    info.ucState = static_cast<uint8_t>(StateOf(timer));
    info.ucPeriodic = timer.periodic;
    info.uiPeriodMs = Count(timer.period);
    info.uiRemainMs = timer.IsStopped() ? 0 : Count(std::chrono::ceil<std::chrono::milliseconds>(timer.due - now));
    info.uiMaxRunUs = Count(timer.longestRun);
    info.uiMaxDelayUs = Count(timer.longestDelay);
    info.ullExpireNum = timer.expiries;
    info.ullCallbackAddr = reinterpret_cast<uintptr_t>(timer.work);
    return info;
}

std::vector<Tarn_sys_diag_TimerInfo> OwnTimers(uint32_t wanted) {
    const auto now = Daemon::Serving().clocks.SteadyNow();
    std::vector<Tarn_sys_diag_TimerInfo> infos;
    for (const Timers::Timer &timer : Daemon::Serving().timers.List()) {
        if (wanted == 0 || timer.id == wanted) {
            infos.push_back(Describe(timer, now));
        }
    }
    return infos;
}

using TimersOfProcesses = std::map<uint32_t, std::vector<Tarn_sys_diag_TimerInfo>>;

// Of the agents that answer; their process is before their names.
TimersOfProcesses TimersOfAgents(uint32_t wanted, uint32_t timeoutMs) {
    const Tarn_sys_diag_GetTimerInput all{wanted, 0, 0, kAgentsOwn};
    host::Mutex mutex;
    TimersOfProcesses timers;
    AskAtOnce("TarnAgentGetTimerInfo", Daemon::Serving().registry.ThatAnswer(), [&](uint32_t pid) {
        const auto answer =
            Daemon::Serving().agentLine.Ask(TARND_AGENT_METHOD(TarnAgentGetTimerInfo), pid, all, timeoutMs);
        answer->RequireResult(fmt::format("the agent of process {}", pid));
        const host::MutexLock lock(mutex);
        std::vector<Tarn_sys_diag_TimerInfo> &infos = timers[pid];
        for (uint32_t i = 0; i < answer->record.uiTimerNum; ++i) {
            Tarn_sys_diag_TimerInfo &info = infos.emplace_back(answer->record.pstTimer[i]);
            host::CopyText(info.szTimerName, fmt::format("{}:{}", pid, host::TextOf(info.szTimerName)));
        }
    });
    return timers;
}

void ExplainMissing(const TimersOfProcesses &timers, void *replyCtx) {
    std::vector<uint32_t> missing;
    for (const auto &[pid, agent] : Daemon::Serving().registry.Agents()) {
        if (timers.count(pid) == 0) {
            missing.push_back(pid);
        }
    }
    if (!missing.empty()) {
        const std::string text = fmt::format("without the timers of processes {}", fmt::join(missing, ", "));
        TarnHost_ExplainReply(replyCtx, text.c_str());
    }
}

void ListTimers(const Tarn_sys_diag_GetTimerInput &request, void *replyCtx,
                host::Reply<Tarn_sys_diag_GetTimerInfoResult> &reply) {
    constexpr uint32_t kMostMs = 500; // for the agents
    const auto &[wanted, skip, most, process] = request;
    std::vector<Tarn_sys_diag_TimerInfo> infos = OwnTimers(wanted);
    if (process == 0) {
        const TimersOfProcesses ofAgents = TimersOfAgents(wanted, std::min(RelayTimeout(replyCtx), kMostMs));
        for (const auto &[pid, ofProcess] : ofAgents) {
            infos.insert(infos.end(), ofProcess.begin(), ofProcess.end());
        }
        ExplainMissing(ofAgents, replyCtx);
    }
    reply.uiPid = static_cast<uint32_t>(getpid());
    reply.uiTotalNum = static_cast<uint32_t>(infos.size());
    infos.erase(infos.begin(), infos.begin() + std::min<ptrdiff_t>(std::ssize(infos), skip));
    if (most != 0 && infos.size() > most) {
        infos.resize(most);
    }
    reply.pstTimer = reply.Keep(std::move(infos), reply.uiTimerNum);
}

} // namespace

} // namespace tarnd

uint32_t TarnGetTimerInfoTarnd(const Tarn_sys_diag_GetTimerInput *request, void *replyCtx) {
    const auto &[timer, skip, most, process] = *request;
    if (process != 0 && process != static_cast<uint32_t>(getpid())) {
        return tarnd::Relay(host::methods::TarnGetTimerInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnAgentGetTimerInfo), process, {timer, skip, most, tarnd::kAgentsOwn});
    }
    return host::Answer(host::methods::TarnGetTimerInfoTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::ListTimers(*request, replyCtx, reply); });
}
