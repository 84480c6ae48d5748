// The daemon's own timers: work that is due at times, run by one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace tarnd {

class Timers {
public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;
    using Work = void (*)(); // short, as it delays the other timers; what it throws is logged

    struct Timer {
        uint32_t id; // counted from 1
        const char *name;
        Work work;
        uint32_t creator; // thread
        bool periodic = false;
        bool running = false; // its work, that is
        Milliseconds period{0};
        Clock::time_point due = Clock::time_point::max(); // stopped
        std::chrono::microseconds longestRun{0};
        std::chrono::microseconds longestDelay{0};
        uint64_t expiries = 0;

        bool IsStopped() const { return due == Clock::time_point::max(); }
    };

    // A timer that is stopped yet.
    uint32_t Add(const char *name, Work work);

    // Starts a timer, or starts it anew. May be called from the work.
    void Every(uint32_t id, Milliseconds period);
    void Once(uint32_t id, Milliseconds delay);
    void Cancel(uint32_t id);

    std::vector<Timer> List() const;

    void Start();
    void Stop(); // waits for work that runs

private:
    void Set(uint32_t id, Milliseconds period, bool periodic, Clock::time_point due);
    void Run(const std::stop_token &stop);
    Clock::time_point NextDue() const;
    void Expire(std::unique_lock<std::mutex> &lock, Timer &timer);

    mutable std::mutex mutex_;
    std::condition_variable_any wake_;
    std::vector<Timer> timers_;
    std::jthread thread_; // ends before what it uses
};

Timers &TheTimers();

} // namespace tarnd
