// CPU events: that a CPU was busy for long, and which thread had most of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/daemon/sampling/sampler.h"

namespace tarnd {

struct CpuEvent {
    std::chrono::system_clock::time_point begin;
    std::chrono::steady_clock::time_point last; // when it was seen to last
    std::chrono::milliseconds duration{0};
    uint32_t cpu = 0;
    uint32_t usePermille = 0;
    uint32_t pressurePermille = 0;
    uint32_t pid = 0;
    uint32_t tid = 0;
    std::string threadName;
    uint32_t threadPermille = 0; // of one CPU
};

class CpuEvents {
public:
    static constexpr size_t kEvents = 128;

    // Follows the samples. Before the sampler starts.
    void Watch();

    // Oldest first; one that lasts is there with what is known so far.
    std::vector<CpuEvent> List() const;

private:
    // A CPU that has been busy since a sample.
    struct Busy {
        SamplePtr since;
        uint64_t number = 0; // of its event, 0 before it has lasted long enough
    };

    void Take(const SamplePtr &previous, const SamplePtr &latest);
    void Follow(Busy &busy, const CpuSample &cpu, const SamplePtr &latest);
    void Keep(uint64_t &number, CpuEvent event);

    std::map<uint32_t, Busy> busy_; // by CPU; the sampler's thread only

    mutable std::mutex mutex_;
    std::deque<std::pair<uint64_t, CpuEvent>> events_; // by number, rising
    uint64_t lastNumber_ = 0;
};

CpuEvents &TheCpuEvents();

} // namespace tarnd
