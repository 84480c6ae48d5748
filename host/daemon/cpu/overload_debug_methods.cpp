// The debug switches of the overload monitors.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd.h"

uint32_t SetOvLoadDebugSwitch(const Tarn_sys_diag_SetOvLoadDebugSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetOvLoadDebugSwitch, request, replyCtx, [&] {
        const auto &[monitors, on] = *request;
        tarnd::Daemon::Serving().overloadDebug.Switch(monitors, on == 1);
    });
}
