// Has the journal tell of leak suspects when they become suspect.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <utility>

#include "host/daemon/history/event.h"
#include "host/daemon/memory/memory_leaks.h"
#include "host/daemon/time/timers.h"

namespace tarnd {

class LeakWatch {
public:
    static constexpr std::chrono::minutes kPeriod{10}; // a look goes through all that is kept of each process
    static constexpr uint64_t kLeastKb = 10 << 10;

    LeakWatch(const MemoryLeaks &leaks, Journal &journal, Timers &timers);
    LeakWatch(const LeakWatch &) = delete;
    LeakWatch &operator=(const LeakWatch &) = delete;

private:
    void Look();

    const MemoryLeaks &leaks_;
    Journal &journal_;
    std::set<std::pair<uint32_t, std::string>> known_; // process and name
};

} // namespace tarnd
