// What becomes of the daemon's own timers, and of an agent's.
#include <unistd.h>

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

template <class Duration>
uint32_t Count(Duration duration) {
    return static_cast<uint32_t>(std::clamp<int64_t>(duration.count(), 0, UINT32_MAX));
}

Tarn_sys_diag_TimerInfo Describe(const Timers::Timer &timer, host::SteadyTime now) {
    constexpr uint8_t kStopped = 0, kRunning = 1, kInCallback = 2;
    Tarn_sys_diag_TimerInfo info{};
    info.uiTimerId = timer.id;
    host::CopyText(info.szTimerName, timer.name);
    info.uiTid = timer.creator;
    info.ucState = timer.running ? kInCallback : timer.IsStopped() ? kStopped : kRunning;
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
    const auto now = Daemon::Serving().clocks.SteadyNow();
    std::vector<Tarn_sys_diag_TimerInfo> infos;
    for (const Timers::Timer &timer : Daemon::Serving().timers.List()) {
        if (request.uiValue1 != 0 && timer.id != request.uiValue1) {
            continue;
        }
        const uint32_t index = reply.uiTotalNum++;
        if (index >= request.uiValue2 && (request.uiValue3 == 0 || index - request.uiValue2 < request.uiValue3)) {
            infos.push_back(Describe(timer, now));
        }
    }
    reply.uiPid = static_cast<uint32_t>(getpid());
    reply.pstTimer = reply.Keep(std::move(infos), reply.uiTimerNum);
}

} // namespace

} // namespace tarnd

uint32_t TarnGetTimerInfoTarnd(const Tarn_sys_diag_GetTimerInput *request, void *replyCtx) {
    if (request->uiValue4 != 0 && request->uiValue4 != static_cast<uint32_t>(getpid())) {
        return tarnd::Relay(host::methods::TarnGetTimerInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnAgentGetTimerInfo), request->uiValue4, *request);
    }
    return host::Answer(host::methods::TarnGetTimerInfoTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::ListTimers(*request, reply); });
}
