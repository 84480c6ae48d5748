#include "host/agent/app_timers.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/agent/methods.h"
#include "host/osal/log.h"

namespace agent {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kIdle{3600000}; // until a timer is started
constexpr uint32_t kMaxPeriodMs = 86400000;

} // namespace

uint32_t Timers::Create(const char *name, uint32_t periodMs, bool periodic, TarnAgentTimerFunction function,
                        void *userData, uint32_t &id) {
    if (name == nullptr || *name == 0 || strlen(name) >= sizeof(Tarn_sys_diag_TimerInfo::szTimerName) ||
        periodMs == 0 || periodMs > kMaxPeriodMs || function == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(mutex_);
    id = ++lastId_;
    Timer &timer = timers_[id];
    timer.name = name;
    timer.tid = static_cast<uint32_t>(gettid());
    timer.periodic = periodic;
    timer.periodMs = periodMs;
    timer.function = function;
    timer.userData = userData;
    return 0;
}

uint32_t Timers::Set(uint32_t id, State state) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = timers_.find(id);
        if (found == timers_.end()) {
            return ENOENT;
        }
        found->second.state = state;
        found->second.due = Clock::now() + milliseconds(found->second.periodMs);
    }
    work_.Wake();
    return 0;
}

uint32_t Timers::Start(uint32_t id) {
    return Set(id, State::kRunning);
}

uint32_t Timers::Stop(uint32_t id) {
    return Set(id, State::kStopped);
}

uint32_t Timers::Delete(uint32_t id) {
    std::unique_lock lock(mutex_);
    if (timers_.erase(id) == 0) {
        return ENOENT;
    }
    if (std::this_thread::get_id() != thread_) {
        expired_.wait(lock, [&] { return expiring_ != id; });
    }
    return 0;
}

void Timers::Run() {
    work_.Start("tarn-timers", [this] { return ExpireDue(); });
}

void Timers::Halt() {
    work_.Stop();
}

// Until the next one is due.
milliseconds Timers::ExpireDue() {
    std::unique_lock lock(mutex_);
    thread_ = std::this_thread::get_id();
    for (;;) {
        auto next = timers_.end();
        for (auto timer = timers_.begin(); timer != timers_.end(); ++timer) {
            if (timer->second.state == State::kRunning &&
                (next == timers_.end() || timer->second.due < next->second.due)) {
                next = timer;
            }
        }
        if (next == timers_.end()) {
            return kIdle;
        }
        const Clock::time_point now = Clock::now();
        if (next->second.due > now) {
            return std::min(kIdle, std::chrono::ceil<milliseconds>(next->second.due - now));
        }
        Expire(lock, next->first, now);
    }
}

void Timers::Expire(std::unique_lock<std::mutex> &lock, uint32_t id, Clock::time_point now) {
    Timer &timer = timers_.at(id);
    const Clock::time_point due = timer.due;
    const auto delay = duration_cast<microseconds>(now - due);
    const std::string name = timer.name;
    const TarnAgentTimerFunction function = timer.function;
    void *const userData = timer.userData;
    timer.maxDelay = std::max(timer.maxDelay, delay);
    ++timer.expireNum;
    timer.state = State::kExpired;
    expiring_ = id;

    lock.unlock();
    host::Run(name.c_str(), [&] { function(id, userData); });
    const auto run = duration_cast<microseconds>(Clock::now() - now);
    if (debug_) {
        host::Log().info("timer {} \"{}\" expired {} us late and ran {} us", id, name, delay.count(), run.count());
    }
    lock.lock();

    expiring_ = 0;
    expired_.notify_all();
    const auto found = timers_.find(id);
    if (found == timers_.end()) {
        return; // deleted meanwhile
    }
    found->second.maxRun = std::max(found->second.maxRun, run);
    if (found->second.state == State::kExpired) { // neither stopped nor started anew meanwhile
        const milliseconds period(timer.periodMs);
        found->second.state = timer.periodic ? State::kRunning : State::kStopped;
        // Keeps its beat; expiries that were missed altogether are left out.
        found->second.due = due + period * ((Clock::now() - due) / period + 1);
    }
}

std::vector<Tarn_sys_diag_TimerInfo> Timers::Get(uint32_t id) const {
    const std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    std::vector<Tarn_sys_diag_TimerInfo> infos;
    for (const auto &[timerId, timer] : timers_) {
        if (id != 0 && timerId != id) {
            continue;
        }
        Tarn_sys_diag_TimerInfo info{};
        info.uiTimerId = timerId;
        host::CopyText(info.szTimerName, timer.name);
        info.uiTid = timer.tid;
        info.ucState = static_cast<uint8_t>(timer.state);
        info.ucPeriodic = timer.periodic ? 1 : 0;
        info.uiPeriodMs = timer.periodMs;
        if (timer.state == State::kRunning && timer.due > now) {
            info.uiRemainMs = static_cast<uint32_t>(std::chrono::ceil<milliseconds>(timer.due - now).count());
        }
        info.uiMaxRunUs = static_cast<uint32_t>(timer.maxRun.count());
        info.uiMaxDelayUs = static_cast<uint32_t>(timer.maxDelay.count());
        info.ullExpireNum = timer.expireNum;
        info.ullCallbackAddr = reinterpret_cast<uint64_t>(timer.function);
        infos.push_back(info);
    }
    return infos;
}

Timers &TheTimers() {
    static Timers &timers = *new Timers; // the application may stop one after the end of main
    return timers;
}

uint32_t SetNoxTimerDebugSwitch(const Tarn_sys_diag_SetNoxTimerDebugSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] {
        if (request->uiDebugSwitch > 1) {
            throw host::BadValue("uiDebugSwitch", request->uiDebugSwitch, "0 or 1");
        }
        TheTimers().SetDebug(request->uiDebugSwitch == 1);
    });
}

uint32_t TarnAgentGetTimerInfo(const Tarn_sys_diag_GetTimerInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetTimerInfoResult>(__func__, replyCtx, [&](auto &reply) {
        CheckProcess("uiValue4", request->uiValue4);
        Choice choice(request->uiValue2, request->uiValue3);
        std::vector<Tarn_sys_diag_TimerInfo> timers;
        for (const Tarn_sys_diag_TimerInfo &timer : TheTimers().Get(request->uiValue1)) {
            if (choice.Takes()) {
                timers.push_back(timer);
            }
        }
        reply.uiPid = static_cast<uint32_t>(getpid());
        reply.uiTotalNum = choice.Matches();
        reply.pstTimer = reply.Keep(std::move(timers), reply.uiTimerNum);
    });
}

} // namespace agent

uint32_t TarnAgent_CreateTimer(const char *name, uint32_t periodMs, int periodic, TarnAgentTimerFunction function,
                               void *userData, uint32_t *id) {
    uint32_t result = EINVAL, created = 0;
    const uint32_t thrown = host::Run(__func__, [&] {
        result = agent::TheTimers().Create(name, periodMs, periodic != 0, function, userData, created);
    });
    if (id != nullptr) {
        *id = created;
    }
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_StartTimer(uint32_t id) {
    return agent::TheTimers().Start(id);
}

uint32_t TarnAgent_StopTimer(uint32_t id) {
    return agent::TheTimers().Stop(id);
}

uint32_t TarnAgent_DeleteTimer(uint32_t id) {
    return agent::TheTimers().Delete(id);
}
