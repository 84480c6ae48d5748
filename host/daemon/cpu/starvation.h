// Threads that were ready to run, but waited for a CPU for longer than a threshold.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

#include "host/daemon/history/event.h"
#include "host/daemon/sampling/sampler.h"
#include "host/osal/mutex.h"
#include "host/store/store.h"

namespace tarnd {

struct StarvationRecord {
    uint32_t times = 0;
    std::chrono::nanoseconds longest{};
    host::WallTime last; // when the last wait was seen
};

struct StarvationSettings {
    bool on = false;
    std::chrono::milliseconds threshold{1000};

    bool operator==(const StarvationSettings &) const = default;
};

class Starvation {
public:
    // Loads what was set before a restart, and follows the samples.
    Starvation(host::Store &store, Journal &journal, Sampler &sampler, const host::procfs::Procfs &proc);
    Starvation(const Starvation &) = delete;
    Starvation &operator=(const Starvation &) = delete;

    // Kept beyond a restart.
    void Switch(bool on);
    void SetThreshold(std::chrono::milliseconds threshold);
    StarvationSettings Settings() const;

    // None of a thread that has not starved since it started, or since Reset.
    std::optional<StarvationRecord> Of(uint32_t pid, uint32_t tid) const;
    void Reset();
    void Reset(uint32_t tid); // throws ENOENT when the thread has no record

private:
    struct Thread {
        uint32_t pid = 0;
        host::procfs::SchedulerCount count;
        std::optional<host::SteadyTime> readySince; // seen ready, and not run since
        bool counted = false;                       // the wait that lasts is in the record
        StarvationRecord record;
    };

    void Set(const StarvationSettings &settings) TARN_REQUIRES(mutex_);
    void Take(const Sample &previous, const Sample &latest);
    // Throws where the thread has ended or is hidden.
    Thread Look(uint32_t pid, uint32_t tid, const Sample &previous, const Sample &latest) const TARN_REQUIRES(mutex_);
    void Follow(Thread &thread, uint32_t tid, const host::procfs::SchedulerCount &count, const Sample &previous,
                const Sample &latest) const TARN_REQUIRES(mutex_);
    void Record(Thread &thread, uint32_t tid, std::chrono::nanoseconds waited, const Sample &latest) const
        TARN_REQUIRES(mutex_);

    host::Store &store_;
    Journal &journal_;
    const host::procfs::Procfs &proc_;
    mutable host::Mutex mutex_;
    StarvationSettings settings_ TARN_GUARDED_BY(mutex_);
    std::map<uint32_t, Thread> threads_ TARN_GUARDED_BY(mutex_); // all that run; none while it is off
};

} // namespace tarnd
