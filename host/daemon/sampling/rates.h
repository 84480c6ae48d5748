// What was used between two samples.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

#include "host/daemon/sampling/sample.h"

namespace tarnd {

// Counts of idle time and of processes that end may go back.
inline uint64_t Growth(uint64_t from, uint64_t to) {
    return to - std::min(from, to);
}

// Rounded; 0 of nothing.
inline uint32_t Permille(uint64_t part, uint64_t whole) {
    return whole == 0 ? 0 : static_cast<uint32_t>((part * 1000 + whole / 2) / whole);
}

inline uint32_t BusyPermille(const CpuTicks &from, const CpuTicks &to) {
    return std::min(Permille(Growth(from.Busy(), to.Busy()), Growth(from.Total(), to.Total())), 1000U);
}

inline uint64_t TicksToNs(uint64_t ticks) {
    return ticks * (1'000'000'000 / host::procfs::TicksPerSecond());
}

// A process's share of one CPU. `from` is null for one that has started since.
inline uint32_t ProcessPermille(const ProcessSample *from, const ProcessSample &to, std::chrono::nanoseconds elapsed) {
    const uint64_t ticks = Growth(from == nullptr ? 0 : from->cpuTicks, to.cpuTicks);
    return Permille(TicksToNs(ticks), static_cast<uint64_t>(elapsed.count()));
}

// The process that used most; null when none used a tick.
inline const ProcessSample *Busiest(const Sample &from, const Sample &to) {
    const ProcessSample *busiest = nullptr;
    uint64_t most = 0;
    for (const ProcessSample &process : to.processes) {
        const ProcessSample *const before = from.Find(process);
        const uint64_t ticks = Growth(before == nullptr ? 0 : before->cpuTicks, process.cpuTicks);
        if (ticks > most) {
            busiest = &process;
            most = ticks;
        }
    }
    return busiest;
}

struct ThreadUse {
    uint32_t pid = 0;
    uint32_t tid = 0;
    host::procfs::SchedulerCount total; // since the thread started
    uint64_t usedNs = 0;
};

// Of one CPU, and no more: each thread is read a little later than its sample says, on a busy machine much later.
inline uint32_t ThreadPermille(const ThreadUse &use, std::chrono::nanoseconds elapsed) {
    return std::min(Permille(use.usedNs, static_cast<uint64_t>(elapsed.count())), 1000U);
}

// The threads that `to` has; one that has started since has used all its time since. Empty where either sample could
// not read the threads.
inline std::vector<ThreadUse> ThreadUses(const ProcessSample *from, const ProcessSample &to) {
    std::vector<ThreadUse> uses;
    if (to.threads == nullptr || (from != nullptr && from->threads == nullptr)) {
        return uses;
    }
    static const std::vector<ThreadTimes> kNone;
    const std::vector<ThreadTimes> &before = from == nullptr ? kNone : *from->threads;
    auto at = before.begin();
    for (const ThreadTimes &thread : *to.threads) {
        at = std::find_if(at, before.end(), [&](const ThreadTimes &other) { return other.tid >= thread.tid; });
        const bool known = at != before.end() && at->tid == thread.tid;
        uses.push_back({to.pid, thread.tid, thread.count, Growth(known ? at->count.runNs : 0, thread.count.runNs)});
    }
    return uses;
}

// The same of all processes that have used anything.
inline std::vector<ThreadUse> SystemThreadUses(const Sample &from, const Sample &to) {
    std::vector<ThreadUse> uses;
    for (const ProcessSample &process : to.processes) {
        const ProcessSample *const before = from.Find(process);
        if (before == nullptr || before->threads != process.threads) {
            const std::vector<ThreadUse> ofProcess = ThreadUses(before, process);
            uses.insert(uses.end(), ofProcess.begin(), ofProcess.end());
        }
    }
    return uses;
}

// What a process used, of whose threads `uses` tells. What has been used by threads that have ended since is only in
// its ticks: user and system time, each rounded down at both ends.
inline uint64_t ProcessUsedNs(const ProcessSample *from, const ProcessSample &to, const std::vector<ThreadUse> &uses) {
    constexpr uint64_t kRounding = 2;
    const uint64_t ticks = Growth(from == nullptr ? 0 : from->cpuTicks, to.cpuTicks);
    uint64_t ofThreads = 0;
    for (const ThreadUse &use : uses) {
        ofThreads += use.usedNs;
    }
    return std::max(ofThreads, TicksToNs(ticks - std::min(ticks, kRounding)));
}

// The busiest first; at most `limit`, 0: all.
inline void KeepBusiest(std::vector<ThreadUse> &uses, size_t limit) {
    std::stable_sort(uses.begin(), uses.end(),
                     [](const ThreadUse &a, const ThreadUse &b) { return a.usedNs > b.usedNs; });
    if (limit != 0 && limit < uses.size()) {
        uses.resize(limit);
    }
}

} // namespace tarnd
