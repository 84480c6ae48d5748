#include "host/agent/dead_loops.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/osal/log.h"

namespace agent {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

constexpr milliseconds kMinPeriod{10};
constexpr milliseconds kMaxPeriod{60000};

} // namespace

uint32_t DeadLoops::Configure(const TarnAgentDeadLoopCfg &config) {
    const milliseconds period(config.uiPeriodMs);
    if (config.ucSwitch > 1 || period < kMinPeriod || period > kMaxPeriod || config.uiLimitMs < config.uiPeriodMs ||
        config.uiCpuPercent == 0 || config.uiCpuPercent > 100 || (config.uiCpuNum != 0 && config.puiCpu == nullptr)) {
        return EINVAL;
    }
    {
        const host::MutexLock lock(mutex_);
        config_ = {config.ucSwitch == 1, period, milliseconds(config.uiLimitMs), config.uiCpuPercent,
                   std::vector<uint32_t>(config.puiCpu, config.puiCpu + config.uiCpuNum)};
        for (auto &[tid, thread] : threads_) {
            thread.running = {};
            thread.last.reset();
        }
    }
    wake_();
    return 0;
}

void DeadLoops::Watch(uint32_t tid, uint32_t limitMs) {
    const host::MutexLock lock(mutex_);
    Thread &thread = threads_[tid];
    thread.watched = true;
    thread.limit = limitMs == 0 ? std::nullopt : std::optional(milliseconds(limitMs));
}

void DeadLoops::Exempt(uint32_t tid) {
    const host::MutexLock lock(mutex_);
    threads_[tid].watched = false;
}

milliseconds DeadLoops::Check() {
    const Config config = GetConfig();
    if (!config.on) {
        return config.period;
    }
    std::set<uint32_t> ended = Known(); // before the threads are read: one that asks to be watched meanwhile has not
    const std::vector<ThreadSample> samples = sampler_();
    const host::MutexLock lock(mutex_);
    for (const ThreadSample &sample : samples) {
        ended.erase(sample.tid);
        if (config.cpus.empty() || std::count(config.cpus.begin(), config.cpus.end(), sample.lastCpu) != 0) {
            CheckThread(sample);
        }
    }
    std::erase_if(threads_, [&](const auto &entry) { return ended.count(entry.first) != 0; });
    return config.period;
}

std::set<uint32_t> DeadLoops::Known() const {
    const host::MutexLock lock(mutex_);
    std::set<uint32_t> tids;
    for (const auto &[tid, thread] : threads_) {
        tids.insert(tid);
    }
    return tids;
}

// A thread that is ready to run but waits for a CPU has no break either.
void DeadLoops::CheckThread(const ThreadSample &sample) {
    Thread &thread = threads_[sample.tid];
    const std::optional<ThreadSample> last = std::exchange(thread.last, sample);
    const nanoseconds passed = last ? sample.when - last->when : nanoseconds{};
    if (!last || !thread.watched || (sample.busy - last->busy) * 100 < passed * config_.cpuPercent) {
        thread.running = {};
        thread.detected = false;
        return;
    }
    thread.running += passed;
    if (!thread.detected && thread.running >= thread.limit.value_or(config_.limit)) {
        thread.detected = true;
        ++thread.detectNum;
        host::Log().error("dead loop: thread {} \"{}\" has run without a break for {} ms", sample.tid, sample.name,
                          duration_cast<milliseconds>(thread.running).count());
    }
}

DeadLoops::Config DeadLoops::GetConfig() const {
    const host::MutexLock lock(mutex_);
    return config_;
}

DeadLoops::Thread DeadLoops::GetThread(uint32_t tid) const {
    const host::MutexLock lock(mutex_);
    const auto found = threads_.find(tid);
    return found == threads_.end() ? Thread{} : found->second;
}

uint32_t DeadLoops::LoopNum() const {
    const host::MutexLock lock(mutex_);
    return static_cast<uint32_t>(
        std::count_if(threads_.begin(), threads_.end(), [](const auto &entry) { return entry.second.detected; }));
}

} // namespace agent
