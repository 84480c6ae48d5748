#include "host/agent/heap.h"

#include <malloc.h>

namespace agent {

HeapUse Heap::Look() {
    const struct mallinfo2 info = mallinfo2();
    const uint64_t used = info.uordblks + info.hblkhd;
    for (uint64_t before = peak_; before < used && !peak_.compare_exchange_weak(before, used);) {
    }
    return {info.arena + info.hblkhd, used, peak_};
}

} // namespace agent
