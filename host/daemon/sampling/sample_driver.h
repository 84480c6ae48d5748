// Has a sampler take its samples at its interval.
#pragma once

#include "host/daemon/sampling/sampler.h"
#include "host/osal/work_queue.h"

namespace tarnd {

class SampleDriver {
public:
    static constexpr std::chrono::milliseconds kFirstInterval{100}; // so that there are rates soon after the start

    explicit SampleDriver(Sampler &sampler);

private:
    void TakeAt(host::WorkQueue::Clock::time_point due);

    Sampler &sampler_;
    host::WorkQueue queue_{"sampler"};
};

} // namespace tarnd
