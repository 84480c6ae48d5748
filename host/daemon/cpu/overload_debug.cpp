#include "host/daemon/cpu/overload_debug.h"

#include "host/answer/answer.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/daemon/sampling/rates.h"
#include "host/osal/log.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

void LogCpu(const Sample &previous, const Sample &latest) {
    const uint32_t used = BusyPermille(previous.system.cpu, latest.system.cpu);
    const ProcessSample *const busiest = Busiest(previous, latest);
    if (busiest == nullptr) {
        host::Log().info("overload debug: CPU {} permille in use, by no process that ran for a tick", used);
        return;
    }
    const auto elapsed = latest.system.at - previous.system.at;
    host::Log().info("overload debug: CPU {} permille in use; process {} ({}) most, {} permille of a CPU", used,
                     busiest->pid, busiest->name, ProcessPermille(previous.Find(*busiest), *busiest, elapsed));
}

void LogMemory(const Sample &latest) {
    if (const ProcessSample *const largest = LargestProcess(latest)) {
        const MemorySample &memory = latest.system.memory;
        host::Log().info(
            "overload debug: memory {} permille in use, {} KiB of {} available; process {} ({}) most, {} KiB",
            UsedPermille(memory), memory.available, memory.total, largest->pid, largest->name, largest->rssKb);
    }
}

} // namespace

void OverloadDebug::Start() {
    TheSampler().OnSample("overload debug",
                          [this](const SamplePtr &previous, const SamplePtr &latest) { Take(*previous, *latest); });
}

void OverloadDebug::Take(const Sample &previous, const Sample &latest) const {
    if (IsOn(TARND_MONITOR_CPU)) {
        LogCpu(previous, latest);
    }
    if (IsOn(TARND_MONITOR_MEMORY)) {
        LogMemory(latest);
    }
}

} // namespace tarnd

uint32_t SetOvLoadDebugSwitch(const Tarn_sys_diag_SetOvLoadDebugSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] {
        constexpr uint32_t kAll = TARND_MONITOR_CPU | TARND_MONITOR_MEMORY;
        if (request->uiValue1 == 0 || request->uiValue1 > kAll) {
            throw host::BadValue("uiValue1", request->uiValue1, "1 CPU, 2 memory or 3 both");
        }
        if (request->uiValue2 > 1) {
            throw host::BadValue("uiValue2", request->uiValue2, "0 off or 1 on");
        }
        tarnd::TheOverloadDebug().Switch(request->uiValue1, request->uiValue2 == 1);
    });
}
