// The debug switches of the overload monitors.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

uint32_t SetOvLoadDebugSwitch(const Tarn_sys_diag_SetOvLoadDebugSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetOvLoadDebugSwitch, request, replyCtx, [&] {
        constexpr uint32_t kAll = TARND_MONITOR_CPU | TARND_MONITOR_MEMORY;
        if (request->uiValue1 == 0 || request->uiValue1 > kAll) {
            throw host::BadValue("uiValue1", request->uiValue1, "1 CPU, 2 memory or 3 both");
        }
        if (request->uiValue2 > 1) {
            throw host::BadValue("uiValue2", request->uiValue2, "0 off or 1 on");
        }
        tarnd::Daemon::Serving().overloadDebug.Switch(request->uiValue1, request->uiValue2 == 1);
    });
}
