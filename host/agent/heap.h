// The C library's heap.
#pragma once

#include <atomic>
#include <cstdint>

namespace agent {

struct HeapUse {
    uint64_t totalBytes = 0;
    uint64_t usedBytes = 0;
    uint64_t peakBytes = 0; // the most that was used when it was looked at
};

class Heap {
public:
    HeapUse Look();

private:
    std::atomic<uint64_t> peak_ = 0;
};

} // namespace agent
