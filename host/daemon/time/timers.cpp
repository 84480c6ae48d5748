#include "host/daemon/time/timers.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/osal/attempt.h"

namespace tarnd {

namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;

} // namespace

uint32_t Timers::Add(const char *name, Work work, void *context) {
    const host::MutexLock lock(mutex_);
    const auto id = static_cast<uint32_t>(timers_.size() + 1);
    timers_.push_back({id, name, work, context, static_cast<uint32_t>(gettid())});
    return id;
}

void Timers::Every(uint32_t id, Milliseconds period) {
    Set(id, period, true, clocks_.SteadyNow() + period);
}

void Timers::Once(uint32_t id, Milliseconds delay) {
    Set(id, delay, false, clocks_.SteadyNow() + delay);
}

void Timers::Cancel(uint32_t id) {
    Set(id, {}, false, host::SteadyTime::max());
}

void Timers::Set(uint32_t id, Milliseconds period, bool periodic, host::SteadyTime due) {
    const host::MutexLock lock(mutex_);
    Timer &timer = timers_.at(id - 1);
    timer.period = period;
    timer.periodic = periodic;
    timer.due = due;
    TellDue();
}

std::vector<Timers::Timer> Timers::List() const {
    const host::MutexLock lock(mutex_);
    return timers_;
}

void Timers::OnDue(std::function<void(host::SteadyTime due)> tell) {
    const host::MutexLock lock(mutex_);
    tell_ = std::move(tell);
    told_ = host::SteadyTime::max();
    TellDue();
}

void Timers::RunDue() {
    host::MutexLock lock(mutex_);
    told_ = host::SteadyTime::max();
    for (Timer *first = FirstDue(); first != nullptr && first->due <= clocks_.SteadyNow(); first = FirstDue()) {
        const Timer expired = *first;
        const host::SteadyTime start = Begin(*first);
        lock.Unlock();
        host::Attempt(expired.name, [&] { expired.work(expired.context); });
        lock.Lock();
        End(timers_[expired.id - 1], start); // more may have been added
    }
    TellDue();
}

Timers::Timer *Timers::FirstDue() {
    const auto first = std::ranges::min_element(timers_, {}, &Timer::due);
    return first == timers_.end() ? nullptr : &*first;
}

void Timers::TellDue() {
    const Timer *const first = FirstDue();
    if (tell_ && first != nullptr && first->due < told_) {
        told_ = first->due;
        tell_(told_);
    }
}

host::SteadyTime Timers::Begin(Timer &timer) const {
    const host::SteadyTime start = clocks_.SteadyNow(), next = timer.due + timer.period;
    timer.longestDelay = std::max(timer.longestDelay, duration_cast<microseconds>(start - timer.due));
    // After a pause of the whole machine a periodic timer expires once, not as often as it would have.
    timer.due = !timer.periodic ? host::SteadyTime::max() : next > start ? next : start + timer.period;
    timer.running = true;
    ++timer.expiries;
    return start;
}

void Timers::End(Timer &timer, host::SteadyTime start) const {
    timer.running = false;
    timer.longestRun = std::max(timer.longestRun, duration_cast<microseconds>(clocks_.SteadyNow() - start));
}

} // namespace tarnd
