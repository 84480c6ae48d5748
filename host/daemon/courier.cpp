#include "host/daemon/courier.h"

#include <algorithm>
#include <cerrno>

#include "host/answer/answer.h"
#include "host/daemon/state.h"

namespace tarnd {

namespace {

constexpr std::chrono::seconds kRetryAfter{1};

bool IsFinal(uint32_t error) {
    return error == 0 || error == ESRCH || error == ENOSYS;
}

} // namespace

void Courier::Send(Errand errand, uint32_t pid) {
    const std::lock_guard lock(mutex_);
    due_[{pid, errand}] = Clock::now();
    wake_.notify_one();
}

void Courier::SendToAll(Errand errand) {
    for (const auto &[pid, agent] : TheState().Agents()) {
        Send(errand, pid);
    }
}

void Courier::Start() {
    stop_ = false;
    thread_ = std::thread([this] { Run(); });
}

void Courier::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
        wake_.notify_one();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Courier::Run() {
    pthread_setname_np(pthread_self(), "courier");
    std::unique_lock lock(mutex_);
    while (!stop_) {
        const auto next = std::min_element(due_.begin(), due_.end(),
                                           [](const auto &a, const auto &b) { return a.second < b.second; });
        if (next == due_.end()) {
            wake_.wait(lock);
            continue;
        }
        if (const Clock::time_point due = next->second; due > Clock::now()) {
            wake_.wait_until(lock, due);
            continue;
        }
        const auto [pid, errand] = next->first;
        due_.erase(next);
        lock.unlock();
        const uint32_t error = host::Run("courier", [errand = errand, pid = pid] { errand(pid); });
        lock.lock();
        if (!IsFinal(error)) {
            due_.try_emplace({pid, errand}, Clock::now() + kRetryAfter);
        }
    }
}

Courier &TheCourier() {
    static Courier courier;
    return courier;
}

} // namespace tarnd
