// Who uses the CPUs: measured by two readings with a pause between them, during which the caller waits.
#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

#include "host/answer/answer.h"
#include "host/daemon/values.h"
#include "host/procfs/procfs.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

struct ThreadUse {
    host::procfs::Task task;
    uint64_t runNs = 0;      // since the thread started
    uint64_t measuredNs = 0; // between the two readings
};

std::map<uint32_t, uint64_t> ReadRunTimes(uint32_t pid) {
    std::map<uint32_t, uint64_t> times;
    for (const uint32_t tid : host::procfs::ThreadIds(pid)) {
        host::procfs::SkipEnded([&] { times[tid] = host::procfs::ReadSchedulerCount(pid, tid).runNs; });
    }
    return times;
}

// The threads that run at the end of the interval; one that started within it has all its time in it.
std::vector<ThreadUse> MeasureThreads(uint32_t pid, Nanoseconds interval, Nanoseconds &elapsed) {
    std::map<uint32_t, uint64_t> before = ReadRunTimes(pid);
    const auto start = Clock::now();
    std::this_thread::sleep_for(interval);
    std::vector<ThreadUse> threads;
    for (const host::procfs::Task &task : host::procfs::ReadThreads(pid)) {
        host::procfs::SkipEnded([&] {
            const uint64_t runNs = host::procfs::ReadSchedulerCount(pid, task.id).runNs;
            threads.push_back({task, runNs, runNs - std::min(runNs, before[task.id])});
        });
    }
    elapsed = Clock::now() - start;
    return threads;
}

Nanoseconds IntervalOf(uint32_t ms) {
    if (ms > TARND_MEASURE_MAX_MS) {
        throw host::BadValue("uiValue1", ms, "0 to " + std::to_string(TARND_MEASURE_MAX_MS) + " ms");
    }
    return std::chrono::milliseconds(ms == 0 ? TARND_MEASURE_DEFAULT_MS : ms);
}

Tarn_sys_diag_OsProcessCpuThread Describe(const ThreadUse &use, uint32_t permille) {
    Tarn_sys_diag_OsProcessCpuThread thread{};
    host::CopyText(thread.acName, use.task.name);
    thread.uiValue1 = use.task.id;
    thread.uiValue2 = permille;
    thread.ullValue3 = use.runNs / 1000;
    host::CopyText(thread.acValue4, host::procfs::StateText(use.task.state));
    thread.uiValue5 = use.task.lastCpu;
    host::CopyText(thread.acValue6, host::procfs::SchedulingText(use.task));
    return thread;
}

// `cpuNum` is how many CPUs make up the whole that shares are stated of.
void MeasureProcess(const Tarn_sys_diag_OsProcessCpuInput &request, uint64_t cpuNum,
                    host::Reply<Tarn_sys_diag_OsProcessCpuRet> &reply) {
    Nanoseconds elapsed;
    std::vector<ThreadUse> uses = MeasureThreads(request.uiPid, IntervalOf(request.uiValue1), elapsed);
    const uint64_t whole = static_cast<uint64_t>(elapsed.count()) * cpuNum;
    const auto permille = [&](uint64_t ns) { return static_cast<uint32_t>((ns * 1000 + whole / 2) / whole); };
    uint64_t total = 0;
    for (const ThreadUse &use : uses) {
        total += use.measuredNs;
    }
    reply.uiValue1 = permille(total);
    std::stable_sort(uses.begin(), uses.end(),
                     [](const ThreadUse &a, const ThreadUse &b) { return a.measuredNs > b.measuredNs; });
    if (request.uiValue2 != 0 && request.uiValue2 < uses.size()) {
        uses.resize(request.uiValue2);
    }
    std::vector<Tarn_sys_diag_OsProcessCpuThread> threads;
    for (const ThreadUse &use : uses) {
        threads.push_back(Describe(use, permille(use.measuredNs)));
    }
    reply.pstThread = reply.Keep(std::move(threads), reply.uiThreadNum);
}

} // namespace

} // namespace tarnd

uint32_t CalculateOsProcCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_OsProcessCpuRet>(__func__, replyCtx, [&](auto &reply) {
        tarnd::MeasureProcess(*request, static_cast<uint64_t>(sysconf(_SC_NPROCESSORS_ONLN)), reply);
    });
}

uint32_t CalculateProcThreadCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_OsProcessCpuRet>(__func__, replyCtx,
                                                       [&](auto &reply) { tarnd::MeasureProcess(*request, 1, reply); });
}
