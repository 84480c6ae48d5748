// Measurement.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "server/tarnd.h"

using tarnd::Daemon;

uint32_t TarnSetDimOpration(const Tarn_sys_diag_DimSetIn *request, void *replyCtx) {
    const char *const method = __func__;
    const auto answer = [=](const host::Failure &failure) {
        TarnHost_ExplainReply(replyCtx, failure.reason.c_str());
        return host::Answer<Tarn_sys_diag_Result>(method, replyCtx,
                                                  [&](auto &reply) { reply.uiResult = failure.error; });
    };
    bool later = false;
    const host::Failure failure = host::FailureOf(method, [&] {
        later = Daemon::Serving().measurement.Operate(request->uiOperation,
                                                      {[=] { return TarnHost_Cancelled(replyCtx); }, answer});
    });
    return later ? 0 : answer(failure);
}

uint32_t TarnSetDimTimeCfgByTarnd(const Tarn_sys_diag_DimTimeCfg *request) {
    return host::Run(__func__, [&] { Daemon::Serving().measurement.SetTimes({request->ucValue1, request->ucValue2}); });
}

uint32_t TarnSetDimWorkModeCfgByTarnd(const Tarn_sys_diag_DimWorkModeCfg *request) {
    return host::Run(__func__, [&] { Daemon::Serving().measurement.SetMode(request->uiWorkMode); });
}

uint32_t TarnGetDimMeasRstByTarnd(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DimMeasRst>(__func__, replyCtx, [](auto &reply) {
        const tarnd::Measurement::State state = Daemon::Serving().measurement.Last();
        reply.uiValue1 = state.code;
        host::CopyText(reply.acMeasResult, state.text);
        reply.uiValue2 = state.differences;
    });
}
