// CPU events: that a CPU was busy for long, and which thread had most of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "host/daemon/health/health_settings.h"
#include "host/daemon/sampling/sampler.h"
#include "host/osal/mutex.h"

namespace tarnd {

struct CpuEvent {
    host::WallTime begin;
    host::SteadyTime last; // when it was seen to last
    std::chrono::milliseconds duration{0};
    uint32_t cpu = 0;
    uint32_t usePermille = 0;
    uint32_t pressurePermille = 0;
    // The busiest thread of those that were on the CPU at the end; all 0 for none.
    struct Thread {
        uint32_t pid = 0;
        uint32_t tid = 0;
        std::string name;
        uint32_t permille = 0; // of one CPU
    };
    Thread lately; // over the last kRecent of the duration
    Thread overall;

    bool IsOf(uint32_t process) const { return lately.pid == process || overall.pid == process; }
};

// Those wanted; 0: any.
struct CpuEventQuery {
    uint32_t pid = 0;
    std::chrono::seconds within{0}; // of now, seen to last
    size_t limit = 0;               // the newest
};

class CpuEvents {
public:
    static constexpr size_t kEvents = 128;
    static constexpr std::chrono::seconds kRecent{3};

    // Follows the samples.
    CpuEvents(Sampler &sampler, const HealthSettings &settings, const host::procfs::Procfs &proc,
              const host::Clocks &clocks);
    CpuEvents(const CpuEvents &) = delete;
    CpuEvents &operator=(const CpuEvents &) = delete;

    // Oldest first; one that lasts is there with what is known so far.
    std::vector<CpuEvent> List(const CpuEventQuery &query = {}) const;

private:
    // A CPU that has been busy since a sample.
    struct Busy {
        SamplePtr since;
        SamplePtr processes; // the first sample since that has them
        uint64_t number = 0; // of its event, 0 before it has lasted long enough
    };

    void Take(const SamplePtr &previous, const SamplePtr &latest);
    void Follow(Busy &busy, const CpuSample &cpu, const SamplePtr &latest);
    void Keep(uint64_t &number, CpuEvent event);

    Sampler &sampler_;
    const HealthSettings &settings_;
    const host::procfs::Procfs &proc_;
    const host::Clocks &clocks_;
    std::map<uint32_t, Busy> busy_; // by CPU; the sampler's thread only

    mutable host::Mutex mutex_;
    std::deque<std::pair<uint64_t, CpuEvent>> events_ TARN_GUARDED_BY(mutex_); // by number, rising
    uint64_t lastNumber_ TARN_GUARDED_BY(mutex_) = 0;
};

} // namespace tarnd
