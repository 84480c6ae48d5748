// When a share of CPU time is an overload.
#pragma once

#include <cstdint>

#include "host/daemon/sampling/sampler.h"

namespace tarnd {

// Shares in permille: of all CPUs for the system, of one CPU for a process.
struct Thresholds {
    uint32_t over = 0;    // an overload begins at this; 0: none does
    uint32_t recover = 0; // and ends below this
    uint32_t seconds = 0; // that the use must last

    bool operator==(const Thresholds &) const = default;
};

// Follows a share over the samples.
class Crossing {
public:
    enum class Event { kNone, kBegins, kEnds };
    Event Follow(uint32_t permille, const Thresholds &thresholds, const SamplePtr &previous, const SamplePtr &latest);

    bool Over() const { return over_; }
    const SamplePtr &Since() const { return since_; } // the sample before the first that was over

private:
    SamplePtr since_;
    bool over_ = false;
};

} // namespace tarnd
