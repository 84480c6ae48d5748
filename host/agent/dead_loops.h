// The watchdog for threads that run without a break.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/agent/periodic.h"
#include "host/agent/tarn_agent.h"

namespace agent {

class DeadLoops {
public:
    struct Config {
        bool on = true;
        std::chrono::milliseconds period{1000};
        std::chrono::milliseconds limit{10000};
        uint32_t cpuPercent = 90;
        std::vector<uint32_t> cpus = {}; // none: all
    };
    struct Thread {
        bool watched = true;
        std::optional<std::chrono::milliseconds> limit = {}; // its own
        uint32_t detectNum = 0;
        // Of the run that goes on:
        uint64_t busyNs = 0; // as the scheduler counted at the last check
        std::chrono::steady_clock::time_point checked{};
        std::chrono::nanoseconds running{0};
        bool detected = false;
    };

    uint32_t Configure(const TarnAgentDeadLoopCfg &config); // 0 or EINVAL
    void Watch(uint32_t tid, uint32_t limitMs);
    void Exempt(uint32_t tid);

    // Threads are checked between these two.
    void Run();
    void Halt();

    Config GetConfig() const;
    Thread GetThread(uint32_t tid) const;
    uint32_t LoopNum() const; // threads that are in one now

private:
    std::chrono::milliseconds CheckAll();
    void Check(uint32_t tid, const std::string &name);
    std::set<uint32_t> Known() const;

    mutable std::mutex mutex_;
    Config config_;
    std::map<uint32_t, Thread> threads_;
    Periodic work_;
};

DeadLoops &TheDeadLoops();

} // namespace agent
