#include "host/runtime/memory_return.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/osal/descriptor.h"
#include "host/runtime/bytes.h"

namespace host {

bool MemoryReturn::IsDue(uint64_t resident, bool isIdle, Clock::time_point now) {
    inUse_ = std::min(inUse_, resident);
    const bool hasGrown = resident - inUse_ > inUse_ / kPartKept;
    if (now < next_ || !(hasGrown || (isIdle && !isSettled_))) {
        return false;
    }
    next_ = now + kInterval;
    return true;
}

void MemoryReturn::Done(uint64_t resident, bool isIdle) {
    inUse_ = resident;
    isSettled_ = isIdle;
}

void KeepOneHeap() {
    constexpr int kLarge = 1 << 20; // of smaller ones the runtime keeps a few itself
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, kLarge);
    mallopt(M_TRIM_THRESHOLD, 4 * kLarge);
}

void TrimHeap() {
    FreeKeptBlocks();
    malloc_trim(0);
}

uint64_t ResidentBytes() {
    const Descriptor file(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    char text[128] = {};
    unsigned long resident = 0;
    if (!file || read(file.Fd(), text, sizeof text - 1) <= 0 || sscanf(text, "%*u %lu", &resident) != 1) {
        return 0;
    }
    return uint64_t{resident} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

} // namespace host
