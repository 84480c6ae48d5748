// Measurement.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "server/tarnd.h"

using tarnd::Daemon;

uint32_t TarnSetDimOpration(const Tarn_sys_diag_DimSetIn *request, void *replyCtx) {
    const auto &method = host::methods::TarnSetDimOpration;
    const auto answer = [&method, replyCtx](const host::Failure &failure) {
        TarnHost_ExplainReply(replyCtx, failure.reason.c_str());
        return host::SendReply<Tarn_sys_diag_Result>(method, replyCtx,
                                                     [&](auto &reply) { reply.uiResult = failure.error; });
    };
    bool later = false;
    const host::Failure failure = host::FailureOf(method.name, [&] {
        host::meaning::Check(*method.request, request);
        later = Daemon::Serving().measurement.Operate(request->uiOperation,
                                                      {[=] { return TarnHost_Cancelled(replyCtx); }, answer});
    });
    return later ? 0 : answer(failure);
}

uint32_t TarnSetDimTimeCfgByTarnd(const Tarn_sys_diag_DimTimeCfg *request) {
    return host::Run(host::methods::TarnSetDimTimeCfgByTarnd, request, [&] {
        Daemon::Serving().measurement.SetTimes({request->ucValue1, request->ucValue2});
    });
}

uint32_t TarnSetDimWorkModeCfgByTarnd(const Tarn_sys_diag_DimWorkModeCfg *request) {
    return host::Run(host::methods::TarnSetDimWorkModeCfgByTarnd, request,
                     [&] { Daemon::Serving().measurement.SetMode(request->uiWorkMode); });
}

uint32_t TarnGetDimMeasRstByTarnd(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::TarnGetDimMeasRstByTarnd, request, replyCtx, [](auto &reply) {
        const tarnd::Measurement::State state = Daemon::Serving().measurement.Last();
        reply.uiValue1 = state.code;
        host::CopyText(reply.acMeasResult, state.text);
        reply.uiValue2 = state.differences;
    });
}
