#include "host/daemon/cpu/overload_debug.h"

#include "host/daemon/memory/memory_use.h"
#include "host/daemon/sampling/rates.h"
#include "host/meaning/choices.h"
#include "host/osal/log.h"

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

OverloadDebug::OverloadDebug(Sampler &sampler) {
    sampler.OnProcesses(
        "overload debug", [this] { return on_ != 0; },
        [this](const SamplePtr &previous, const SamplePtr &latest) { Take(*previous, *latest); });
}

void OverloadDebug::Take(const Sample &previous, const Sample &latest) const {
    using namespace host::meaning;
    if (IsOn(overload_monitor::kCpu)) {
        LogCpu(previous, latest);
    }
    if (IsOn(overload_monitor::kMemory)) {
        LogMemory(latest);
    }
}

} // namespace tarnd
