#include "host/daemon/sampling/sample_driver.h"

#include <algorithm>

#include "host/osal/attempt.h"

namespace tarnd {

SampleDriver::SampleDriver(Sampler &sampler) : sampler_(sampler) {
    TakeAt(host::WorkQueue::Clock::now() + std::min(kFirstInterval, sampler_.Interval()));
}

void SampleDriver::TakeAt(host::WorkQueue::Clock::time_point due) {
    queue_.PostAt(due, [this, due](const std::stop_token &) {
        host::Attempt("the sampler", [this] { sampler_.Take(); });
        // Without a burst of those missed when one takes long.
        TakeAt(std::max(due + sampler_.Interval(), host::WorkQueue::Clock::now()));
    });
}

} // namespace tarnd
