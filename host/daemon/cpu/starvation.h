// Threads that were ready to run, but waited for a CPU for longer than a threshold.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "host/daemon/sampling/sampler.h"

namespace tarnd {

struct StarvationRecord {
    uint32_t times = 0;
    std::chrono::nanoseconds longest{};
    std::chrono::system_clock::time_point last; // when the last wait was seen
};

struct StarvationSettings {
    bool on = false;
    std::chrono::milliseconds threshold{1000};
};

class Starvation {
public:
    // Loads what was set before a restart, and follows the samples. Before the sampler starts.
    void Start();

    // Kept beyond a restart.
    void Switch(bool on);
    void SetThreshold(std::chrono::milliseconds threshold);

    // None of a thread that has not starved since it started, or since Reset.
    std::optional<StarvationRecord> Of(uint32_t pid, uint32_t tid) const;
    void Reset();
    void Reset(uint32_t tid); // throws ENOENT when the thread has no record

private:
    using Steady = std::chrono::steady_clock::time_point;

    struct Thread {
        uint32_t pid = 0;
        host::procfs::SchedulerCount count;
        std::optional<Steady> readySince; // seen ready, and not run since
        bool counted = false;             // the wait that lasts is in the record
        StarvationRecord record;
    };

    void Set(const StarvationSettings &settings);
    void Take(const Sample &previous, const Sample &latest);
    void Follow(Thread &thread, uint32_t tid, const host::procfs::SchedulerCount &count, const Sample &previous,
                const Sample &latest) const;
    void Record(Thread &thread, uint32_t tid, std::chrono::nanoseconds waited, const Sample &latest) const;

    mutable std::mutex mutex_;
    StarvationSettings settings_;
    std::map<uint32_t, Thread> threads_; // all that run; none while it is off
};

Starvation &TheStarvation();

} // namespace tarnd
