// What sets the daemon's clock.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd.h"

using tarnd::Daemon;

uint32_t SetTimezone(const Tarn_sys_diag_SetTimezoneInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetTimezone, request, replyCtx, [&] {
        Daemon::Serving().clock.SetZone(host::FromRecord(request->stTimezone), tarnd::Source::kClient);
    });
}

uint32_t SetDst(const Tarn_sys_diag_SetDstInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetDst, request, replyCtx, [&] {
        Daemon::Serving().clock.SetDst(host::FromRecord(request->stDst), tarnd::Source::kClient);
    });
}

uint32_t SetGmt(const Tarn_sys_diag_SetGmtInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetGmt, request, replyCtx,
                              [&] { Daemon::Serving().clock.SetGmt(request->stTime); });
}

uint32_t SetLocalTime(const Tarn_sys_diag_SetLocalTimeInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetLocalTime, request, replyCtx,
                              [&] { Daemon::Serving().clock.SetLocal(request->stTime); });
}

uint32_t SetDateFormat(const Tarn_sys_diag_SetDateFormatInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetDateFormat, request, replyCtx,
                              [&] { Daemon::Serving().clock.SetDateFormat(host::DateFormat{request->uiDateFormat}); });
}
