#include "host/daemon/agents/courier.h"

#include <cerrno>

#include "host/answer/answer.h"
#include "host/daemon/agents/state.h"
#include "host/osal/thread.h"

namespace tarnd {

namespace {

using namespace std::chrono_literals;

constexpr auto kRetryAfter = 1s;

// An errand that has waited for so long waits for an agent that hangs. Most take less, so two threads do.
constexpr auto kPatience = 20ms;

bool IsFinal(uint32_t error) {
    return error == 0 || error == ESRCH || error == ENOSYS;
}

} // namespace

void Courier::Send(Errand errand, uint32_t pid) {
    const std::lock_guard lock(mutex_);
    due_[{pid, errand}] = Clock::now();
    TellAnother();
}

void Courier::SendToAll(Errand errand) {
    for (const auto &[pid, agent] : TheState().Agents()) {
        Send(errand, pid);
    }
}

void Courier::Start() {
    const std::lock_guard lock(mutex_);
    AddThread();
    AddThread();
}

void Courier::Stop() {
    std::vector<std::jthread> threads;
    {
        const std::lock_guard lock(mutex_);
        for (std::jthread &thread : threads_) {
            thread.request_stop(); // all before one is waited for; and none adds another from now on
        }
        threads.swap(threads_);
    }
}

void Courier::AddThread() {
    threads_.push_back(host::StartThread("courier", [this](const std::stop_token &stop) { Run(stop); }));
}

void Courier::TellAnother() {
    ++changes_;
    wake_.notify_one();
}

// The last thread that is idle leaves an errand to the busy ones for a moment. When it goes all the same, another takes
// its place.
void Courier::Run(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        const auto next = Next();
        const Clock::time_point now = Clock::now();
        const Clock::time_point when = next == due_.end() ? now + 1h : next->second + (idle_ == 0 ? kPatience : 0ms);
        if (when > now) {
            ++idle_;
            wake_.wait_until(lock, stop, when, [this, seen = changes_] { return changes_ != seen; });
            --idle_;
            continue;
        }
        if (idle_ == 0 && threads_.size() < kMaxThreads) {
            AddThread();
        }
        Do(lock, next);
    }
}

// The errand that is due first, of the agents that no thread is with.
Courier::Errands::iterator Courier::Next() {
    auto first = due_.end();
    for (auto at = due_.begin(); at != due_.end(); ++at) {
        if (visited_.count(at->first.first) == 0 && (first == due_.end() || at->second < first->second)) {
            first = at;
        }
    }
    return first;
}

void Courier::Do(std::unique_lock<std::mutex> &lock, Errands::iterator next) {
    const auto [pid, errand] = next->first;
    due_.erase(next);
    visited_.insert(pid);
    lock.unlock();
    const uint32_t error = host::Run("courier", [errand = errand, pid = pid] { errand(pid); });
    lock.lock();
    visited_.erase(pid);
    if (!IsFinal(error)) {
        due_.try_emplace({pid, errand}, Clock::now() + kRetryAfter);
    }
    TellAnother(); // this one may go on with another agent
}

} // namespace tarnd
