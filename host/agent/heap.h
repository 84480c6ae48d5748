// The C library's heap.
#pragma once

#include <cstdint>

#include "host/procfs/procfs.h"

namespace agent {

struct HeapUse {
    uint64_t totalBytes = 0;
    uint64_t usedBytes = 0;
    // The C library keeps none: the most of the whole process that was in memory, or what is used now if that is more.
    uint64_t peakBytes = 0;
};

HeapUse LookAtHeap(const host::procfs::Procfs &proc);

} // namespace agent
