// Work that a thread of its own does again and again, between Start and Stop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>

#include "host/clock/clocks.h"
#include "host/osal/mutex.h"
#include "host/osal/work_queue.h"

namespace agent {

class Periodic {
public:
    // Returns how long to wait until it runs again. What it throws is logged, and it runs again after a second.
    using Function = std::function<std::chrono::milliseconds()>;

    Periodic(const char *name, Function function) : name_(name), function_(std::move(function)) {}

    void Start(); // runs it at once
    void Stop();  // waits for it when it runs
    bool IsStarted() const;

    // Has it run now, or once more when it runs; without effect unless it is started.
    void Wake();

private:
    void PostAt(host::SteadyTime due) TARN_REQUIRES(mutex_);
    void Run(host::SteadyTime due);

    const char *const name_; // of the thread
    const Function function_;
    mutable host::Mutex mutex_;
    std::set<host::SteadyTime> posted_ TARN_GUARDED_BY(mutex_); // the runs that the queue holds
    std::unique_ptr<host::WorkQueue> queue_ TARN_GUARDED_BY(mutex_);
};

// Stops it at the end of a scope, whoever has started it.
class StoppedAtEnd {
public:
    explicit StoppedAtEnd(Periodic &work) : work_(work) {}
    ~StoppedAtEnd() { work_.Stop(); }
    StoppedAtEnd(const StoppedAtEnd &) = delete;
    StoppedAtEnd &operator=(const StoppedAtEnd &) = delete;

private:
    Periodic &work_;
};

// Keeps it started.
class Started : StoppedAtEnd {
public:
    explicit Started(Periodic &work) : StoppedAtEnd(work) { work.Start(); }
};

} // namespace agent
