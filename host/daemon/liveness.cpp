#include "host/daemon/liveness.h"

#include "client/master.h"
#include "host/answer/answer.h"
#include "host/daemon/clock.h"
#include "host/osal/log.h"
#include "host/runtime/client.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

constexpr uint32_t kMasterTimeoutMs = 1000;

void FetchTimezone(TarnHost_InvokeCtx &ctx) {
    const Tarn_sys_diag_None request{};
    Tarn_sys_diag_GetTimezoneOutput reply{};
    const IdlCallResult result = TarnSysdiagMaster_GetTimezone(&request, &reply, &ctx);
    if (result.uiErrCode != 0 || result.uiStatus != 0) {
        host::Log().warn("no time zone from the master: {}", TarnHost_LastError());
        return;
    }
    TakeTimezone(CheckedTimezone(reply.stTimezone), "the master");
}

} // namespace

void GreetMaster() {
    TarnHost_InvokeCtx ctx{0, kMasterTimeoutMs};
    const Tarn_sys_diag_None request{};
    if (const uint32_t error = TarnSysdiagMaster_DetectSysdiagServerOnline_oneway(&request, &ctx); error != 0) {
        host::Log().info("no master: {}", TarnHost_LastError());
        return;
    }
    host::Run("GetTimezone", [&] { FetchTimezone(ctx); });
}

} // namespace tarnd

uint32_t DetectTarndServerOnline(const Tarn_sys_diag_None *) {
    host::Log().debug("{}: a peer asks whether the daemon is there", __func__);
    return 0;
}
