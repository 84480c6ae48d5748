// The application's timers: their functions run on the agent's thread, one after the other.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/agent/periodic.h"
#include "host/agent/tarn_agent.h"
#include "types/agent.h"

namespace agent {

class Timers {
public:
    // The application's side; errors are errno values.
    uint32_t Create(const char *name, uint32_t periodMs, bool periodic, TarnAgentTimerFunction function, void *userData,
                    uint32_t &id);
    uint32_t Start(uint32_t id);
    uint32_t Stop(uint32_t id);
    uint32_t Delete(uint32_t id);

    // Timers expire between these two.
    void Run();
    void Halt();

    void SetDebug(bool on) { debug_ = on; }
    std::vector<Tarn_sys_diag_TimerInfo> Get(uint32_t id) const; // 0: all

private:
    using Clock = std::chrono::steady_clock;

    enum class State : uint8_t { kStopped = 0, kRunning = 1, kExpired = 2 };

    struct Timer {
        std::string name;
        uint32_t tid;
        State state = State::kStopped;
        bool periodic;
        uint32_t periodMs;
        TarnAgentTimerFunction function;
        void *userData;
        Clock::time_point due{};
        std::chrono::microseconds maxRun{0}, maxDelay{0};
        uint64_t expireNum = 0;
    };

    std::chrono::milliseconds ExpireDue();
    void Expire(std::unique_lock<std::mutex> &lock, uint32_t id, Clock::time_point now);
    uint32_t Set(uint32_t id, State state);

    mutable std::mutex mutex_;
    std::condition_variable expired_;
    std::map<uint32_t, Timer> timers_;
    uint32_t lastId_ = 0;
    uint32_t expiring_ = 0;  // whose function runs; 0: none
    std::thread::id thread_; // that it runs on
    std::atomic<bool> debug_ = false;
    Periodic work_;
};

Timers &TheTimers();

} // namespace agent
