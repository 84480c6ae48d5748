#include "host/daemon/cpu/cpu_peaks.h"

#include "host/daemon/sampling/rates.h"

namespace tarnd {

namespace {

void Raise(Peak &peak, uint32_t permille, const Sample &sample) {
    // The first value is one even when it is 0.
    if (permille > peak.permille || peak.time == host::WallTime{}) {
        peak = {permille, sample.system.time};
    }
}

} // namespace

CpuPeaks::CpuPeaks(Sampler &sampler) {
    sampler.OnSample("CPU peaks",
                     [this](const SamplePtr &previous, const SamplePtr &latest) { Take(*previous, *latest); });
    sampler.OnProcesses(
        "CPU peaks of processes", [] { return false; },
        [this](const SamplePtr &previous, const SamplePtr &latest) { TakeProcesses(*previous, *latest); });
}

void CpuPeaks::Take(const Sample &previous, const Sample &latest) {
    const host::MutexLock lock(mutex_);
    Raise(system_, BusyPermille(previous.system.cpu, latest.system.cpu), latest);
    for (const CpuSample &cpu : latest.cpus) {
        for (const CpuSample &before : previous.cpus) {
            if (before.id == cpu.id) {
                Raise(cpus_[cpu.id], BusyPermille(before.ticks, cpu.ticks), latest);
            }
        }
    }
}

void CpuPeaks::TakeProcesses(const Sample &previous, const Sample &latest) {
    const host::MutexLock lock(mutex_);
    // The same sample may end a longer time, in which a share was higher.
    if (latest.system.at < processesSeen_ || latest.system.at <= resetAfter_) {
        return;
    }
    processesSeen_ = latest.system.at;
    std::map<uint32_t, OfOneProcess> running;
    const auto elapsed = latest.system.at - previous.system.at;
    for (const ProcessSample &process : latest.processes) {
        OfOneProcess &now = running[process.pid];
        const auto known = processes_.find(process.pid);
        if (known != processes_.end() && known->second.startTicks == process.startTicks) {
            now = known->second;
        }
        now.startTicks = process.startTicks;
        Raise(now.peak, ProcessPermille(previous.Find(process), process, elapsed), latest);
    }
    processes_ = std::move(running);
}

void CpuPeaks::Reset() {
    const host::MutexLock lock(mutex_);
    system_ = {};
    cpus_.clear();
    processes_.clear();
    resetAfter_ = processesSeen_;
}

Peak CpuPeaks::OfSystem() const {
    const host::MutexLock lock(mutex_);
    return system_;
}

Peak CpuPeaks::OfCpu(uint32_t id) const {
    const host::MutexLock lock(mutex_);
    const auto at = cpus_.find(id);
    return at == cpus_.end() ? Peak{} : at->second;
}

Peak CpuPeaks::OfProcess(const ProcessSample &process) const {
    const host::MutexLock lock(mutex_);
    const auto at = processes_.find(process.pid);
    return at == processes_.end() || at->second.startTicks != process.startTicks ? Peak{} : at->second.peak;
}

} // namespace tarnd
