// How much memory is in use, and by whom.
#pragma once

#include <cstdint>
#include <vector>

#include "host/daemon/sampling/sample.h"

namespace tarnd {

uint32_t UsedPermille(const MemorySample &memory);

// Null when the sample has no process.
const ProcessSample *LargestProcess(const Sample &sample);

// Shares of all memory that were in use, in permille.
struct MemoryIndicators {
    uint32_t now = 0;
    uint32_t lastMinute = 0; // on average
    uint32_t highest = 0;
    uint64_t availableKib = 0; // now
};

// Of samples, the oldest first, of which there is one at least.
MemoryIndicators IndicatorsOf(const std::vector<SystemSample> &samples);

} // namespace tarnd
