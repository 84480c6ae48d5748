// Which processes grow and grow, and what memory was like before.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/sampling/sampler.h"
#include "host/osal/check.h"
#include "host/osal/mutex.h"

namespace tarnd {

// The straight line that is nearest to points.
struct Trend {
    double kbPerMinute = 0;
    double error = 0; // two standard errors, in KiB a minute

    bool Rises() const { return kbPerMinute > error; }
};

// A process that has grown.
struct LeakSuspect {
    uint32_t pid = 0;
    std::string name;
    uint64_t rssKb = 0;
    uint64_t grownKb = 0;
    Trend trend;
    std::chrono::duration<double> over{};
};

// Growth that does not come back: of the quarters of the time each has a higher minimum than the one before. What a
// process takes and frees again and again does not show, nor what it took once at its start. `points` are not empty.
std::optional<uint64_t> SteadyGrowth(const std::vector<ProcessPoint> &points);

// Of three points or more.
Trend TrendOf(const std::vector<ProcessPoint> &points);

class MemoryLeaks {
public:
    static constexpr size_t kPatterns = 64;
    // What starts grows. Before a process has been seen for so long, and so often, nobody can tell.
    static constexpr std::chrono::minutes kLeastAge{5};
    static constexpr size_t kLeastPoints = 6;

    MemoryLeaks(const host::Clocks &clocks, Sampler &sampler) : clocks_(clocks), sampler_(sampler) {}

    // From now on only growth counts that is yet to come, of the processes whose names match a pattern; empty: of all.
    // Throws ENOSPC beyond kPatterns.
    void Mark(const std::string &pattern);

    // Of the last `seconds`; 0: of all that is kept.
    struct Scope {
        uint32_t pid = 0; // 0: all
        uint32_t seconds = 0;
    };

    // Those that have grown by `leastKb` or more, the one that has grown most first. Throws ESRCH when there is no such
    // process.
    std::vector<LeakSuspect> Suspects(const Scope &scope, uint64_t leastKb, const host::Check &check) const;

    // Oldest first.
    std::vector<ProcessPoint> ProcessHistory(const Scope &scope) const; // ESRCH as above
    std::vector<SystemSample> SystemHistory(uint32_t seconds) const;

private:
    host::SteadyTime WindowStart(uint32_t seconds) const;
    host::SteadyTime MarkOf(const std::string &processName) const;
    std::vector<ProcessPoint> EvenPoints(uint32_t pid, host::SteadyTime since) const;
    std::optional<LeakSuspect> Suspect(const ProcessSample &process, uint32_t seconds) const;

    const host::Clocks &clocks_;
    Sampler &sampler_;
    mutable host::Mutex mutex_;
    std::map<std::string, host::SteadyTime> marks_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
