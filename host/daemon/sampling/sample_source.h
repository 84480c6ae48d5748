// Where samples come from: the system, or a test.
#pragma once

#include "host/daemon/sampling/sample.h"

namespace tarnd {

class SampleSource {
public:
    virtual ~SampleSource() = default;

    // A reading of all but the time. `previous`, which may be null, has what is known of processes that have been idle
    // since. Throws when it can't. For one thread at a time.
    virtual Sample Read(const Sample *previous) = 0;
};

} // namespace tarnd
