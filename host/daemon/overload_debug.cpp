#include "host/daemon/overload_debug.h"

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/memory_overload.h"
#include "host/daemon/values.h"
#include "host/osal/log.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

void LogCpu(const Sample &previous, const Sample &latest) {
    const uint64_t total = latest.system.cpu.Total() - previous.system.cpu.Total();
    const uint64_t busy = latest.system.cpu.Busy() - previous.system.cpu.Busy();
    const ProcessSample *busiest = nullptr;
    uint64_t most = 0;
    for (const ProcessSample &process : latest.processes) {
        const ProcessSample *const before = previous.Find(process);
        const uint64_t ticks = process.cpuTicks - (before != nullptr ? before->cpuTicks : 0);
        if (busiest == nullptr || ticks > most) {
            busiest = &process;
            most = ticks;
        }
    }
    if (busiest != nullptr) {
        host::Log().info("overload debug: CPU {} permille in use; process {} ({}) most, {} of {} ticks",
                         total == 0 ? 0 : busy * 1000 / total, busiest->pid, busiest->name, most, total);
    }
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

OverloadDebug &TheOverloadDebug() {
    static OverloadDebug debug;
    return debug;
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
