#include "host/daemon/cpu/starvation.h"

#include <algorithm>

#include "host/daemon/sampling/rates.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

constexpr const char *kDocument = "starvation";
constexpr uint32_t kVersion = 1;

} // namespace

Starvation::Starvation(host::Store &store, Journal &journal, Sampler &sampler, const host::procfs::Procfs &proc)
    : store_(store), journal_(journal), proc_(proc) {
    store_.Load(kDocument, kVersion, [this](const host::Document &content) {
        const StarvationSettings settings{content.Get<bool>("on"),
                                          std::chrono::milliseconds(content.Get<uint32_t>("thresholdMs"))};
        const host::MutexLock lock(mutex_);
        settings_ = settings;
    });
    sampler.OnProcesses(
        "starvation", [this] { return Settings().on; },
        [this](const SamplePtr &previous, const SamplePtr &latest) { Take(*previous, *latest); });
}

StarvationSettings Starvation::Settings() const {
    const host::MutexLock lock(mutex_);
    return settings_;
}

void Starvation::Switch(bool on) {
    const host::MutexLock lock(mutex_);
    Set({on, settings_.threshold});
    if (!on) {
        threads_.clear();
    }
}

void Starvation::SetThreshold(std::chrono::milliseconds threshold) {
    const host::MutexLock lock(mutex_);
    Set({settings_.on, threshold});
}

void Starvation::Set(const StarvationSettings &settings) {
    store_.Save(kDocument, kVersion,
                host::Document::Object{{"on", settings.on}, {"thresholdMs", settings.threshold.count()}});
    settings_ = settings;
}

std::optional<StarvationRecord> Starvation::Of(uint32_t pid, uint32_t tid) const {
    const host::MutexLock lock(mutex_);
    const auto thread = threads_.find(tid);
    if (thread == threads_.end() || thread->second.pid != pid || thread->second.record.times == 0) {
        return std::nullopt;
    }
    return thread->second.record;
}

void Starvation::Reset() {
    const host::MutexLock lock(mutex_);
    for (auto &[tid, thread] : threads_) {
        thread.record = {};
    }
}

void Starvation::Reset(uint32_t tid) {
    const host::MutexLock lock(mutex_);
    const auto thread = threads_.find(tid);
    if (thread == threads_.end() || thread->second.record.times == 0) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("thread {} has no record", tid));
    }
    thread->second.record = {};
}

// The samples leave out threads of processes that are idle, as one that starves may be: each thread's counts are read.
void Starvation::Take(const Sample &previous, const Sample &latest) {
    const host::MutexLock lock(mutex_);
    if (!settings_.on) {
        return;
    }
    std::map<uint32_t, Thread> running;
    for (const ProcessSample &process : latest.processes) {
        if (process.threads == nullptr) {
            continue;
        }
        for (const ThreadTimes &times : *process.threads) {
            try {
                running.emplace(times.tid, Look(process.pid, times.tid, previous, latest));
            } catch (const std::system_error &error) {
                if (!host::procfs::IsEndedOrHidden(error)) {
                    throw;
                }
            }
        }
    }
    threads_ = std::move(running);
}

Starvation::Thread Starvation::Look(uint32_t pid, uint32_t tid, const Sample &previous, const Sample &latest) const {
    const host::procfs::SchedulerCount count = proc_.ReadSchedulerCount(pid, tid);
    const auto known = threads_.find(tid);
    Thread thread;
    // Counts that went back are those of a new thread that has the id of one that has ended.
    if (known != threads_.end() && known->second.pid == pid && known->second.count.runNs <= count.runNs) {
        thread = known->second;
        Follow(thread, tid, count, previous, latest);
    }
    thread.pid = pid;
    thread.count = count;
    return thread;
}

void Starvation::Follow(Thread &thread, uint32_t tid, const host::procfs::SchedulerCount &count, const Sample &previous,
                        const Sample &latest) const {
    const uint64_t slices = Growth(thread.count.sliceNum, count.sliceNum);
    const bool ran = slices != 0 || count.runNs != thread.count.runNs;
    if (slices != 0) {
        // The longest of several waits is no shorter than their mean, and what does not fit between the samples
        // belongs to a wait that had begun before them.
        const uint64_t waited = Growth(thread.count.waitNs, count.waitNs);
        const auto elapsed = static_cast<uint64_t>((latest.system.at - previous.system.at).count());
        Record(thread, tid, std::chrono::nanoseconds(std::max(waited / slices, Growth(elapsed, waited))), latest);
    }
    const bool mayWait = !ran && latest.system.runnable > latest.cpus.size();
    if (!mayWait || proc_.ReadThread(thread.pid, tid).state != 'R') {
        thread.readySince.reset();
        thread.counted = false;
        return;
    }
    if (!thread.readySince) {
        thread.readySince = latest.system.at;
    }
    if (latest.system.at - *thread.readySince >= settings_.threshold) {
        Record(thread, tid, latest.system.at - *thread.readySince, latest);
        thread.counted = true;
    }
}

void Starvation::Record(Thread &thread, uint32_t tid, std::chrono::nanoseconds waited, const Sample &latest) const {
    if (waited < settings_.threshold) {
        return;
    }
    if (!thread.counted) {
        ++thread.record.times;
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(waited).count();
        host::Log().warn("thread {} of process {} starves: ready for {} ms without a CPU", tid, thread.pid, ms);
        const ProcessSample *const process = latest.Find(thread.pid);
        journal_.Add({latest.system.time, EventKind::kStarvation, thread.pid, process == nullptr ? "" : process->name,
                      fmt::format("thread {} was ready for {} ms without a CPU", tid, ms)});
    }
    thread.record.longest = std::max(thread.record.longest, waited);
    thread.record.last = latest.system.time;
}

} // namespace tarnd
