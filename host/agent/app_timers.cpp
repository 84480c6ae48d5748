#include "host/agent/app_timers.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "host/osal/attempt.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace agent {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kIdle{3600000}; // until a timer is started
constexpr uint32_t kMaxPeriodMs = 86400000;

} // namespace

uint32_t AppTimers::Create(const char *name, uint32_t periodMs, bool periodic, TarnAgentTimerFunction function,
                           void *userData, uint32_t &id) {
    if (name == nullptr || *name == 0 || strlen(name) >= sizeof(Tarn_sys_diag_TimerInfo::szTimerName) ||
        periodMs == 0 || periodMs > kMaxPeriodMs || function == nullptr) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    id = ++lastId_;
    Timer &timer = timers_[id];
    timer.name = name;
    timer.tid = static_cast<uint32_t>(gettid());
    timer.periodic = periodic;
    timer.period = milliseconds(periodMs);
    timer.function = function;
    timer.userData = userData;
    return 0;
}

uint32_t AppTimers::Set(uint32_t id, State state) {
    {
        const host::MutexLock lock(mutex_);
        const auto found = timers_.find(id);
        if (found == timers_.end()) {
            return ENOENT;
        }
        found->second.state = state;
        found->second.due = clocks_.SteadyNow() + found->second.period;
    }
    wake_();
    return 0;
}

uint32_t AppTimers::Start(uint32_t id) {
    return Set(id, State::kRunning);
}

uint32_t AppTimers::Stop(uint32_t id) {
    return Set(id, State::kStopped);
}

uint32_t AppTimers::Delete(uint32_t id) {
    host::MutexLock lock(mutex_);
    if (timers_.erase(id) == 0) {
        return ENOENT;
    }
    if (std::this_thread::get_id() != thread_) {
        expired_.Wait(lock, [&]() TARN_REQUIRES(mutex_) { return expiring_ != id; });
    }
    return 0;
}

milliseconds AppTimers::ExpireNext() {
    if (const std::optional<Expiry> expiry = TakeDue()) {
        Call(*expiry);
    }
    return UntilNext();
}

// The running timer that is due first, or the end.
std::map<uint32_t, AppTimers::Timer>::iterator AppTimers::Next() {
    auto next = timers_.end();
    for (auto timer = timers_.begin(); timer != timers_.end(); ++timer) {
        if (timer->second.state == State::kRunning && (next == timers_.end() || timer->second.due < next->second.due)) {
            next = timer;
        }
    }
    return next;
}

milliseconds AppTimers::UntilNext() {
    const host::MutexLock lock(mutex_);
    const auto next = Next();
    return next == timers_.end()
               ? kIdle
               : std::min(kIdle, std::chrono::ceil<milliseconds>(next->second.due - clocks_.SteadyNow()));
}

std::optional<AppTimers::Expiry> AppTimers::TakeDue() {
    const host::MutexLock lock(mutex_);
    thread_ = std::this_thread::get_id();
    const auto next = Next();
    const host::SteadyTime now = clocks_.SteadyNow();
    if (next == timers_.end() || next->second.due > now) {
        return {};
    }
    auto &[id, timer] = *next;
    timer.maxDelay = std::max(timer.maxDelay, duration_cast<microseconds>(now - timer.due));
    ++timer.expireNum;
    timer.state = State::kExpired;
    expiring_ = id;
    return Expiry{id, timer.name, timer.function, timer.userData, timer.due, now};
}

void AppTimers::Call(const Expiry &expiry) {
    host::Attempt(expiry.name.c_str(), [&] { expiry.function(expiry.id, expiry.userData); });
    Finish(expiry, duration_cast<microseconds>(clocks_.SteadyNow() - expiry.began));
}

void AppTimers::Finish(const Expiry &expiry, microseconds run) {
    const host::MutexLock lock(mutex_);
    if (debug_) {
        host::Log().info("timer {} \"{}\" expired {} us late and ran {} us", expiry.id, expiry.name,
                         duration_cast<microseconds>(expiry.began - expiry.due).count(), run.count());
    }
    expiring_ = 0;
    expired_.NotifyAll();
    const auto found = timers_.find(expiry.id);
    if (found == timers_.end()) {
        return; // deleted meanwhile
    }
    Timer &timer = found->second;
    timer.maxRun = std::max(timer.maxRun, run);
    if (timer.state == State::kExpired) { // neither stopped nor started anew meanwhile
        timer.state = timer.periodic ? State::kRunning : State::kStopped;
        // Keeps its beat; expiries that were missed altogether are left out.
        timer.due = expiry.due + timer.period * ((clocks_.SteadyNow() - expiry.due) / timer.period + 1);
    }
}

void AppTimers::SetDebug(bool on) {
    const host::MutexLock lock(mutex_);
    debug_ = on;
}

std::vector<Tarn_sys_diag_TimerInfo> AppTimers::Get(uint32_t id) const {
    const host::MutexLock lock(mutex_);
    std::vector<Tarn_sys_diag_TimerInfo> infos;
    for (const auto &[timerId, timer] : timers_) {
        if (id == 0 || timerId == id) {
            infos.push_back(InfoOf(timerId, timer));
        }
    }
    return infos;
}

Tarn_sys_diag_TimerInfo AppTimers::InfoOf(uint32_t id, const Timer &timer) const {
    const host::SteadyTime now = clocks_.SteadyNow();
    Tarn_sys_diag_TimerInfo info{};
    info.uiTimerId = id;
    host::CopyText(info.szTimerName, timer.name);
    info.uiTid = timer.tid;
    info.ucState = static_cast<uint8_t>(timer.state);
    info.ucPeriodic = timer.periodic ? 1 : 0;
    info.uiPeriodMs = static_cast<uint32_t>(timer.period.count());
    if (timer.state == State::kRunning && timer.due > now) {
        info.uiRemainMs = static_cast<uint32_t>(std::chrono::ceil<milliseconds>(timer.due - now).count());
    }
    info.uiMaxRunUs = static_cast<uint32_t>(timer.maxRun.count());
    info.uiMaxDelayUs = static_cast<uint32_t>(timer.maxDelay.count());
    info.ullExpireNum = timer.expireNum;
    info.ullCallbackAddr = reinterpret_cast<uintptr_t>(timer.function);
    return info;
}

} // namespace agent
