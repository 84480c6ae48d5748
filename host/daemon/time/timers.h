// The daemon's own timers: work that is due at times.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "host/clock/clocks.h"
#include "host/osal/mutex.h"

namespace tarnd {

class Timers {
public:
    using Milliseconds = std::chrono::milliseconds;
    // Short, as it delays the other timers; what it throws is logged.
    using Work = void (*)(void *context);

    struct Timer {
        uint32_t id; // counted from 1
        const char *name;
        Work work;
        void *context;
        uint32_t creator; // thread
        bool periodic = false;
        bool running = false; // its work, that is
        Milliseconds period{0};
        host::SteadyTime due = host::SteadyTime::max(); // stopped
        std::chrono::microseconds longestRun{0};
        std::chrono::microseconds longestDelay{0};
        uint64_t expiries = 0;

        bool IsStopped() const { return due == host::SteadyTime::max(); }
    };

    explicit Timers(const host::Clocks &clocks) : clocks_(clocks) {}

    // A timer that is stopped yet.
    uint32_t Add(const char *name, Work work, void *context);

    // Starts a timer, or starts it anew. May be called from the work.
    void Every(uint32_t id, Milliseconds period);
    void Once(uint32_t id, Milliseconds delay);
    void Cancel(uint32_t id);

    std::vector<Timer> List() const;

    // Who drives the timers is told when RunDue has something to do sooner than was told before, and again after each.
    void OnDue(std::function<void(host::SteadyTime due)> tell);
    void RunDue();

private:
    void Set(uint32_t id, Milliseconds period, bool periodic, host::SteadyTime due);
    Timer *FirstDue() TARN_REQUIRES(mutex_);
    void TellDue() TARN_REQUIRES(mutex_);
    host::SteadyTime Begin(Timer &timer) const TARN_REQUIRES(mutex_); // its work; returns when
    void End(Timer &timer, host::SteadyTime start) const TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    mutable host::Mutex mutex_;
    std::vector<Timer> timers_ TARN_GUARDED_BY(mutex_);
    std::function<void(host::SteadyTime)> tell_ TARN_GUARDED_BY(mutex_);
    host::SteadyTime told_ TARN_GUARDED_BY(mutex_) = host::SteadyTime::max();
};

} // namespace tarnd
