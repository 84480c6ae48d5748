// What the threads of sampled processes have used so far.
#pragma once

#include <vector>

#include "host/daemon/sampling/sample.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// Reads the threads of one process.
std::vector<ThreadTimes> ReadThreadTimes(const host::procfs::Procfs &proc, uint32_t pid);

// At most this many processes and threads are sampled: the oldest. The machine that has more is told of in the log.
constexpr size_t kMaxSampledProcesses = 8192;
constexpr size_t kMaxSampledThreads = 16384;

class ThreadSampler {
public:
    explicit ThreadSampler(const host::procfs::Procfs &proc) : proc_(proc) {}

    // Adds their threads to the processes, but for those beyond the limits. `previous`, which may be null, has what is
    // known of processes that have been idle since.
    void AddThreads(std::vector<ProcessSample> &processes, const Sample *previous);

private:
    void Read(ProcessSample &process) const;

    const host::procfs::Procfs &proc_;
    bool toldOfMany_ = false;
};

} // namespace tarnd
