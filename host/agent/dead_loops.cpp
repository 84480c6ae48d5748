#include "host/agent/dead_loops.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/agent/methods.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"

namespace agent {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds kMinPeriod{10};
constexpr milliseconds kMaxPeriod{60000};

uint32_t Pid() {
    return static_cast<uint32_t>(getpid());
}

} // namespace

uint32_t DeadLoops::Configure(const TarnAgentDeadLoopCfg &config) {
    const milliseconds period(config.uiPeriodMs);
    if (config.ucSwitch > 1 || period < kMinPeriod || period > kMaxPeriod || config.uiLimitMs < config.uiPeriodMs ||
        config.uiCpuPercent == 0 || config.uiCpuPercent > 100 || (config.uiCpuNum != 0 && config.puiCpu == nullptr)) {
        return EINVAL;
    }
    {
        const std::lock_guard lock(mutex_);
        config_ = {config.ucSwitch == 1, period, milliseconds(config.uiLimitMs), config.uiCpuPercent,
                   std::vector<uint32_t>(config.puiCpu, config.puiCpu + config.uiCpuNum)};
        for (auto &[tid, thread] : threads_) {
            thread.running = {};
            thread.checked = {};
        }
    }
    work_.Wake();
    return 0;
}

void DeadLoops::Watch(uint32_t tid, uint32_t limitMs) {
    const std::lock_guard lock(mutex_);
    Thread &thread = threads_[tid];
    thread.watched = true;
    thread.limit = limitMs == 0 ? std::nullopt : std::optional(milliseconds(limitMs));
}

void DeadLoops::Exempt(uint32_t tid) {
    const std::lock_guard lock(mutex_);
    threads_[tid].watched = false;
}

void DeadLoops::Run() {
    work_.Start("tarn-watchdog", [this] { return CheckAll(); });
}

void DeadLoops::Halt() {
    work_.Stop();
}

milliseconds DeadLoops::CheckAll() {
    const Config config = GetConfig();
    if (!config.on) {
        return config.period;
    }
    std::set<uint32_t> ended = Known(); // before the threads are read: one that asks to be watched meanwhile has not
    for (const host::procfs::Task &task : host::procfs::Procfs().ReadThreads(Pid())) {
        ended.erase(task.id);
        if (config.cpus.empty() || std::count(config.cpus.begin(), config.cpus.end(), task.lastCpu) != 0) {
            host::procfs::SkipEnded([&] { Check(task.id, task.name); });
        }
    }
    const std::lock_guard lock(mutex_);
    std::erase_if(threads_, [&](const auto &entry) { return ended.count(entry.first) != 0; });
    return config.period;
}

std::set<uint32_t> DeadLoops::Known() const {
    const std::lock_guard lock(mutex_);
    std::set<uint32_t> tids;
    for (const auto &[tid, thread] : threads_) {
        tids.insert(tid);
    }
    return tids;
}

// A thread that is ready to run but waits for a CPU has no break either.
void DeadLoops::Check(uint32_t tid, const std::string &name) {
    const host::procfs::SchedulerCount count = host::procfs::Procfs().ReadSchedulerCount(Pid(), tid);
    const uint64_t busyNs = count.runNs + count.waitNs;
    const steady_clock::time_point now = steady_clock::now();
    const std::lock_guard lock(mutex_);
    Thread &thread = threads_[tid];
    const nanoseconds busy(busyNs - thread.busyNs);
    const nanoseconds passed = now - thread.checked;
    const bool first = thread.checked == steady_clock::time_point{};
    thread.busyNs = busyNs;
    thread.checked = now;
    if (first || !thread.watched || busy * 100 < passed * config_.cpuPercent) {
        thread.running = {};
        thread.detected = false;
        return;
    }
    thread.running += passed;
    if (!thread.detected && thread.running >= thread.limit.value_or(config_.limit)) {
        thread.detected = true;
        ++thread.detectNum;
        host::Log().error("dead loop: thread {} \"{}\" has run without a break for {} ms", tid, name,
                          duration_cast<milliseconds>(thread.running).count());
    }
}

DeadLoops::Config DeadLoops::GetConfig() const {
    const std::lock_guard lock(mutex_);
    return config_;
}

DeadLoops::Thread DeadLoops::GetThread(uint32_t tid) const {
    const std::lock_guard lock(mutex_);
    const auto found = threads_.find(tid);
    return found == threads_.end() ? Thread{} : found->second;
}

uint32_t DeadLoops::LoopNum() const {
    const std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(
        std::count_if(threads_.begin(), threads_.end(), [](const auto &entry) { return entry.second.detected; }));
}

DeadLoops &TheDeadLoops() {
    static DeadLoops &loops = *new DeadLoops; // the application may call after the end of main
    return loops;
}

uint32_t GetDeadLoopCfg(const Tarn_sys_diag_GetDeadLoopCfgInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetDeadLoopCfgResult>(__func__, replyCtx, [&](auto &reply) {
        CheckProcess("uiValue3", request->uiValue3);
        const DeadLoops::Config config = TheDeadLoops().GetConfig();
        std::vector<Tarn_sys_diag_DeadLoopThreadCfg> threads;
        for (const host::procfs::Task &task : host::procfs::Procfs().ReadThreads(Pid())) {
            const DeadLoops::Thread thread = TheDeadLoops().GetThread(task.id);
            if ((request->uiValue1 == 0 || request->uiValue1 == task.id) &&
                (request->uiValue2 == 0 || thread.detectNum != 0)) {
                Tarn_sys_diag_DeadLoopThreadCfg one{};
                one.uiTid = task.id;
                host::CopyText(one.szThreadName, task.name);
                one.ucSwitch = thread.watched ? 1 : 0;
                one.uiLimitMs = static_cast<uint32_t>(thread.limit.value_or(config.limit).count());
                one.uiDetectNum = thread.detectNum;
                threads.push_back(one);
            }
        }
        if (request->uiValue1 != 0 && threads.empty() && request->uiValue2 == 0) {
            throw std::system_error(ESRCH, std::generic_category(), fmt::format("thread {}", request->uiValue1));
        }
        reply.ucSwitch = config.on ? 1 : 0;
        reply.uiPeriodMs = static_cast<uint32_t>(config.period.count());
        reply.uiLimitMs = static_cast<uint32_t>(config.limit.count());
        reply.uiCpuPercent = config.cpuPercent;
        reply.puiCpu = reply.Keep(config.cpus, reply.uiCpuNum);
        reply.pstThread = reply.Keep(std::move(threads), reply.uiThreadNum);
    });
}

} // namespace agent

uint32_t TarnAgent_SetDeadLoopCfg(const TarnAgentDeadLoopCfg *config) {
    uint32_t result = EINVAL;
    const uint32_t thrown =
        host::Run(__func__, [&] { result = config == nullptr ? EINVAL : agent::TheDeadLoops().Configure(*config); });
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_WatchThread(uint32_t limitMs) {
    return host::Run(__func__, [&] { agent::TheDeadLoops().Watch(static_cast<uint32_t>(gettid()), limitMs); });
}

uint32_t TarnAgent_ExemptThread(void) {
    return host::Run(__func__, [] { agent::TheDeadLoops().Exempt(static_cast<uint32_t>(gettid())); });
}
