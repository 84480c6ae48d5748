// What is asked of the application's timers from outside.
#include "host/agent/agent.h"
#include "host/agent/methods.h"

namespace agent {

uint32_t SetNoxTimerDebugSwitch(const Tarn_sys_diag_SetNoxTimerDebugSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetNoxTimerDebugSwitch, request, replyCtx,
                              [&] { Agent::OfProcess().timers.SetDebug(request->uiDebugSwitch == 1); });
}

uint32_t TarnAgentGetTimerInfo(const Tarn_sys_diag_GetTimerInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::TarnAgentGetTimerInfo, request, replyCtx, [&](auto &reply) {
        const auto &[number, skip, most, process] = *request;
        CheckProcess(host::methods::TarnAgentGetTimerInfo, process);
        Choice choice(skip, most);
        std::vector<Tarn_sys_diag_TimerInfo> timers;
        for (const Tarn_sys_diag_TimerInfo &timer : Agent::OfProcess().timers.Get(number)) {
            if (choice.Takes()) {
                timers.push_back(timer);
            }
        }
        reply.uiPid = OwnPid();
        reply.uiTotalNum = choice.Matches();
        reply.pstTimer = reply.Keep(std::move(timers), reply.uiTimerNum);
    });
}

} // namespace agent
