#include "host/agent/heap.h"

#include <malloc.h>

#include <algorithm>

namespace agent {

HeapUse LookAtHeap(const host::procfs::Procfs &proc) {
    const struct mallinfo2 info = mallinfo2();
    const uint64_t used = info.uordblks + info.hblkhd;
    const uint64_t resident = host::procfs::FieldOf(proc.Read("self/status"), "VmHWM") << 10;
    return {info.arena + info.hblkhd, used, std::max(used, resident)};
}

} // namespace agent
