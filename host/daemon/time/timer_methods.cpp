// What becomes of the daemon's own timers, and of an agent's.
#include <unistd.h>

#include <algorithm>

#include "host/answer/answer.h"
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

void ListTimers(const Tarn_sys_diag_GetTimerInput &request, host::Reply<Tarn_sys_diag_GetTimerInfoResult> &reply) {
    const auto &[wanted, skip, most, process] = request;
    const auto now = Daemon::Serving().clocks.SteadyNow();
    std::vector<Tarn_sys_diag_TimerInfo> infos;
    for (const Timers::Timer &timer : Daemon::Serving().timers.List()) {
        if (wanted != 0 && timer.id != wanted) {
            continue;
        }
        const uint32_t index = reply.uiTotalNum++;
        if (index >= skip && (most == 0 || index - skip < most)) {
            infos.push_back(Describe(timer, now));
        }
    }
    reply.uiPid = static_cast<uint32_t>(getpid());
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
                        [&](auto &reply) { tarnd::ListTimers(*request, reply); });
}
