// When to give the system back what a burst of requests has left with the allocator, which keeps it otherwise.
#pragma once

#include <chrono>
#include <cstdint>

namespace host {

class MemoryReturn {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr uint64_t kMostKept = 16 << 20;
    static constexpr std::chrono::seconds kInterval{10};

    // To be asked now and then while the server holds nothing large: by what the process has in memory.
    bool IsDue(uint64_t resident, Clock::time_point now);
    // What is left is in use.
    void Done(uint64_t resident) { inUse_ = resident; }

private:
    uint64_t inUse_ = UINT64_MAX; // the least since the last time
    Clock::time_point next_{};
};

// Has the allocator give back each large block when it is freed, which it does not by itself once it has seen some.
void ReturnLargeBlocks();

// Of this process, in bytes; 0 when the system does not tell.
uint64_t ResidentBytes();

} // namespace host
