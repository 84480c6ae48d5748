#include "host/daemon/time/timers.h"

#include <unistd.h>

#include <algorithm>

#include "host/answer/answer.h"
#include "host/osal/thread.h"

namespace tarnd {

uint32_t Timers::Add(const char *name, Work work) {
    const std::lock_guard lock(mutex_);
    const auto id = static_cast<uint32_t>(timers_.size() + 1);
    timers_.push_back({id, name, work, static_cast<uint32_t>(gettid())});
    return id;
}

void Timers::Every(uint32_t id, Milliseconds period) {
    Set(id, period, true, Clock::now() + period);
}

void Timers::Once(uint32_t id, Milliseconds delay) {
    Set(id, delay, false, Clock::now() + delay);
}

void Timers::Cancel(uint32_t id) {
    Set(id, {}, false, Clock::time_point::max());
}

void Timers::Set(uint32_t id, Milliseconds period, bool periodic, Clock::time_point due) {
    const std::lock_guard lock(mutex_);
    Timer &timer = timers_.at(id - 1);
    timer.period = period;
    timer.periodic = periodic;
    timer.due = due;
    wake_.notify_one();
}

std::vector<Timers::Timer> Timers::List() const {
    const std::lock_guard lock(mutex_);
    return timers_;
}

void Timers::Start() {
    thread_ = host::StartThread("timers", [this](const std::stop_token &stop) { Run(stop); });
}

void Timers::Stop() {
    thread_ = {};
}

Timers::Clock::time_point Timers::NextDue() const {
    const auto next = std::ranges::min_element(timers_, {}, &Timer::due);
    return next == timers_.end() ? Clock::time_point::max() : next->due;
}

void Timers::Run(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        const Clock::time_point due = NextDue(), now = Clock::now();
        if (due <= now) {
            Expire(lock, *std::ranges::min_element(timers_, {}, &Timer::due));
        } else { // bounded, as the system's clocks don't reach the end of time
            wake_.wait_until(lock, stop, std::min(due, now + std::chrono::hours(1)), [&] { return NextDue() < due; });
        }
    }
}

void Timers::Expire(std::unique_lock<std::mutex> &lock, Timer &timer) {
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    const uint32_t id = timer.id;
    const Work work = timer.work;
    const char *const name = timer.name;
    const auto start = Clock::now();
    timer.longestDelay = std::max(timer.longestDelay, duration_cast<microseconds>(start - timer.due));
    // After a pause of the whole machine a periodic timer expires once, not as often as it would have.
    timer.due = timer.periodic ? std::max(timer.due + timer.period, start) : Clock::time_point::max();
    timer.running = true;
    ++timer.expiries;
    lock.unlock();
    host::Run(name, work);
    lock.lock();
    Timer &after = timers_[id - 1]; // more may have been added
    after.running = false;
    after.longestRun = std::max(after.longestRun, duration_cast<microseconds>(Clock::now() - start));
}

} // namespace tarnd
