// What the OS layer's allocator has given out, by tag. A block counts under the tag that it was allocated with,
// whatever tag it is freed with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct MemoryUse {
    uint64_t liveBlocks = 0;
    uint64_t liveBytes = 0;
    uint64_t peakBytes = 0;   // the most that liveBytes has been
    uint64_t allocations = 0; // since the process started
};

struct TagUse : MemoryUse {
    std::string tag;
};

// Every tag that has been allocated under, sorted by name. Each figure is exact; figures that change meanwhile may be
// of different moments.
std::vector<TagUse> MemoryByTag();

// All tags together. Its peak is that of the sum, not the sum of the peaks.
MemoryUse MemoryTotal();

// While it lives, this thread is refused memory beyond so many bytes in all, the allocator's own in front of each block
// included, whatever it frees meanwhile. A message may ask its decoder for far more than it has bytes.
class AllocationBudget {
public:
    explicit AllocationBudget(uint64_t bytes);
    AllocationBudget(const AllocationBudget &) = delete;
    AllocationBudget &operator=(const AllocationBudget &) = delete;
    ~AllocationBudget();

private:
    const uint64_t outer_;
};

} // namespace host
