// Waits for sockets and moments, on any number of threads, each of which runs what it was woken for.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "host/clock/clocks.h"
#include "host/osal/descriptor.h"
#include "host/osal/mutex.h"

namespace host {

// What has a descriptor that is waited for.
class Pollable {
public:
    virtual ~Pollable() = default;
    // An event has come, and possibly more than one thread is told. Events are those of epoll.
    virtual void OnReady(uint32_t events) = 0;
};

// Descriptors are edge-triggered: one is reported once when it becomes ready, and is to be used until it is not. All
// functions are thread-safe.
class Loop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;

    explicit Loop(const Clocks &clocks);
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    Clock::time_point Now() const { return clocks_.SteadyNow(); }

    // Sets what to name it with. False when the system refuses, with errno set.
    bool Add(int fd, uint32_t events, std::weak_ptr<Pollable> pollable, uint64_t &id);
    // Asks for other events, and for those again that it is ready for now.
    void Change(int fd, uint32_t events, uint64_t id);
    // While the descriptor is open. OnReady may still be called, or run, for a moment.
    void Remove(int fd, uint64_t id);

    // Has one of the threads run the task.
    void Post(Task task);
    uint64_t At(Clock::time_point time, Task task);
    // Nothing when it has run, or runs.
    void CancelTimer(uint64_t timer);

    // Runs the tasks whose time has come. Run does it too, but can't see that a clock has been set forward.
    void RunDue() TARN_EXCLUDES(mutex_);

    // Returns after Stop, when no tasks are left.
    void Run();
    void Stop();

private:
    // Does a piece of work. There may be no memory for it: the others are done all the same.
    template <class Work>
    static void Do(const Work &work);
    bool Ended();
    void OnEvent(uint64_t id, uint32_t events);
    void RunTask();
    void SetTimer() TARN_REQUIRES(mutex_);

    const Clocks &clocks_;
    Descriptor epoll_;
    Descriptor tasksComing_;
    Descriptor timerDue_;
    Descriptor stop_;
    std::atomic<bool> stopping_ = false;
    Mutex mutex_;
    uint64_t lastId_ TARN_GUARDED_BY(mutex_);
    std::unordered_map<uint64_t, std::weak_ptr<Pollable>> pollables_ TARN_GUARDED_BY(mutex_);
    std::deque<Task> tasks_ TARN_GUARDED_BY(mutex_);
    std::map<std::pair<Clock::time_point, uint64_t>, Task> timers_ TARN_GUARDED_BY(mutex_);
    std::unordered_map<uint64_t, Clock::time_point> timerTimes_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
