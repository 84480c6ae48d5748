// The highest CPU use of the system, its CPUs and its processes between two samples that have them, since the start or
// a reset.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>

#include "host/daemon/sampling/sampler.h"
#include "host/osal/mutex.h"

namespace tarnd {

struct Peak {
    uint32_t permille = 0;
    host::WallTime time; // when it was reached
};

class CpuPeaks {
public:
    // Follows the samples.
    explicit CpuPeaks(Sampler &sampler);
    CpuPeaks(const CpuPeaks &) = delete;
    CpuPeaks &operator=(const CpuPeaks &) = delete;

    void Reset();

    // Processes between two samples that have them, of which the later may have been taken out of turn.
    void TakeProcesses(const Sample &previous, const Sample &latest);

    Peak OfSystem() const;
    Peak OfCpu(uint32_t id) const;
    Peak OfProcess(const ProcessSample &process) const;

private:
    void Take(const Sample &previous, const Sample &latest);

    struct OfOneProcess {
        uint64_t startTicks = 0;
        Peak peak;
    };
    mutable host::Mutex mutex_;
    Peak system_ TARN_GUARDED_BY(mutex_);
    std::map<uint32_t, Peak> cpus_ TARN_GUARDED_BY(mutex_);
    std::map<uint32_t, OfOneProcess> processes_ TARN_GUARDED_BY(mutex_); // those that run
    host::SteadyTime processesSeen_ TARN_GUARDED_BY(mutex_){};           // in the latest sample that was taken over
    host::SteadyTime resetAfter_ TARN_GUARDED_BY(mutex_){};              // times that ended by then do not count
};

} // namespace tarnd
