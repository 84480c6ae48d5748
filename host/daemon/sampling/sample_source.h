// Where samples come from: the system, or a test.
#pragma once

#include "host/daemon/sampling/sample.h"

namespace tarnd {

enum class Reading {
    kSystem,
    kProcesses,     // too, those that have been idle as `previous` has them
    kProcessesAnew, // all
};

class SampleSource {
public:
    virtual ~SampleSource() = default;

    // A reading of all but the time. `previous` may be null. Throws when it can't. For one thread at a time.
    virtual Sample Read(Reading reading, const Sample *previous) = 0;
};

} // namespace tarnd
