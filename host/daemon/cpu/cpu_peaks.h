// The highest CPU use of the system, its CPUs and its processes between two samples, since the start or a reset.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

#include "host/daemon/sampling/sampler.h"

namespace tarnd {

struct Peak {
    uint32_t permille = 0;
    std::chrono::system_clock::time_point time; // when it was reached
};

class CpuPeaks {
public:
    // Follows the samples. Before the sampler starts.
    void Start();

    void Reset();

    Peak OfSystem() const;
    Peak OfCpu(uint32_t id) const;
    Peak OfProcess(const ProcessSample &process) const;

private:
    void Take(const Sample &previous, const Sample &latest);

    struct OfOneProcess {
        uint64_t startTicks = 0;
        Peak peak;
    };
    mutable std::mutex mutex_;
    Peak system_;
    std::map<uint32_t, Peak> cpus_;
    std::map<uint32_t, OfOneProcess> processes_; // those that run
};

CpuPeaks &TheCpuPeaks();

} // namespace tarnd
