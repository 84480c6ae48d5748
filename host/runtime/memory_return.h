// When to give the system back what requests have left with the allocator, which keeps it otherwise.
#pragma once

#include <chrono>
#include <cstdint>

namespace host {

class MemoryReturn {
public:
    using Clock = std::chrono::steady_clock;
    // What may be left, as a part of what is in use: to fetch less again would cost more than it is worth.
    static constexpr uint64_t kPartKept = 16;
    static constexpr std::chrono::seconds kInterval{10};

    // To be asked now and then while the server holds nothing large: by what the process has in memory, and whether no
    // request is in flight.
    bool IsDue(uint64_t resident, bool isIdle, Clock::time_point now);
    // What is left is in use; for good where no request was in flight.
    void Done(uint64_t resident, bool isIdle);

private:
    uint64_t inUse_ = UINT64_MAX; // the least since the last time
    bool isSettled_ = true;       // what was in use then was not a request's
    Clock::time_point next_{};
};

// Has the allocator take all from one heap, since only the first one's end is given back, and give back each large
// block when it is freed, which it does not by itself once it has seen some. Before the threads that allocate start.
void KeepOneHeap();

// Gives back what is not in use, also what is kept for messages.
void TrimHeap();

// Of this process, in bytes; 0 when the system does not tell.
uint64_t ResidentBytes();

} // namespace host
