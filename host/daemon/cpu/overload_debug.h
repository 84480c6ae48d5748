// The debug switches of the overload monitors: what a monitor that is on sees of each sample goes to the log.
#pragma once

#include <atomic>
#include <cstdint>

#include "host/daemon/sampling/sampler.h"

namespace tarnd {

// Monitors are a sum of host::meaning::overload_monitor.
class OverloadDebug {
public:
    // Follows the samples.
    explicit OverloadDebug(Sampler &sampler);
    OverloadDebug(const OverloadDebug &) = delete;
    OverloadDebug &operator=(const OverloadDebug &) = delete;

    void Switch(uint32_t monitors, bool on) { on ? on_ |= monitors : on_ &= ~monitors; }
    bool IsOn(uint32_t monitor) const { return (on_ & monitor) != 0; }

private:
    void Take(const Sample &previous, const Sample &latest) const;

    std::atomic<uint32_t> on_ = 0;
};

} // namespace tarnd
