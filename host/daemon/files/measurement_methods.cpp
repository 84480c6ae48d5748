// Measurement.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/explain_source.h"
#include "tarn_sysdiag/server/tarnd.h"

using tarnd::Daemon;

uint32_t TarnSetDimOpration(const Tarn_sys_diag_DimSetIn *request, void *replyCtx) {
    const auto answer = [replyCtx](const host::Failure &failure) {
        TarnHost_ExplainReply(replyCtx, failure.reason.c_str());
        return host::SendReply<Tarn_sys_diag_Result>(host::methods::TarnSetDimOpration, replyCtx,
                                                     [&](auto &reply) { reply.uiResult = failure.error; });
    };
    bool later = false;
    const host::Failure failure = host::FailureOf(host::methods::TarnSetDimOpration.name, [&] {
        host::meaning::Check(*host::methods::TarnSetDimOpration.request, request);
        later = Daemon::Serving().measurement.Operate(request->uiOperation,
                                                      {[=] { return TarnHost_Cancelled(replyCtx); }, answer});
    });
    return later ? 0 : answer(failure);
}

uint32_t TarnSetDimTimeCfgByTarnd(const Tarn_sys_diag_DimTimeCfg *request) {
    return host::Run(host::methods::TarnSetDimTimeCfgByTarnd, request, [&] {
        const auto &[hour, minute] = *request;
        Daemon::Serving().measurement.SetTimes({hour, minute});
    });
}

uint32_t TarnSetDimWorkModeCfgByTarnd(const Tarn_sys_diag_DimWorkModeCfg *request) {
    return host::Run(host::methods::TarnSetDimWorkModeCfgByTarnd, request,
                     [&] { Daemon::Serving().measurement.SetMode(request->uiWorkMode); });
}

uint32_t TarnGetDimMeasRstByTarnd(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::TarnGetDimMeasRstByTarnd, request, replyCtx, [&](auto &reply) {
        const tarnd::Measurement::State last = Daemon::Serving().measurement.Last();
        auto &[state, text, differences] = reply.Members();
        state = last.code;
        host::CopyText(text, last.text);
        differences = last.differences;
        tarnd::ExplainSource(replyCtx, "times", Daemon::Serving().measurement.Times().From());
    });
}
