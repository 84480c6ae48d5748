// What the threads of the process have done so far.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/procfs/procfs.h"

namespace agent {

struct ThreadSample {
    uint32_t tid = 0;
    std::string name;
    uint32_t lastCpu = 0;
    std::chrono::nanoseconds busy{}; // it ran, or was ready to but had to wait for a CPU
    host::SteadyTime when{};
};

// One that ends meanwhile is left out.
std::vector<ThreadSample> SampleThreads(const host::procfs::Procfs &procfs, const host::Clocks &clocks);

} // namespace agent
