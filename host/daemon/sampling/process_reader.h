// What processes have used so far: of those that have not run since they were last read, what they had used then.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "host/daemon/sampling/sample.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// The time that a process has been on a CPU, in ns; 0 where it can't be told. It costs a tenth of what reading a file
// of the process does, and takes no descriptor.
uint64_t CpuTimeOf(uint32_t pid);

class ProcessReader {
public:
    explicit ProcessReader(const host::procfs::Procfs &proc, std::function<uint64_t(uint32_t pid)> cpuTime = CpuTimeOf)
        : proc_(proc), cpuTime_(std::move(cpuTime)) {}

    // In rising order of their ids, without threads. `previous`, which may be null, has what is known of processes; all
    // are read anew where it is. What others do to a process that does not run, as taking its memory, does not show
    // until it runs or is read anew.
    std::vector<ProcessSample> Read(const Sample *previous) const;

private:
    const host::procfs::Procfs &proc_;
    const std::function<uint64_t(uint32_t pid)> cpuTime_;
};

} // namespace tarnd
