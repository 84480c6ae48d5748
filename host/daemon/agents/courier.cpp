#include "host/daemon/agents/courier.h"

#include <algorithm>
#include <cerrno>

#include "host/osal/attempt.h"

namespace tarnd {

namespace {

constexpr std::chrono::seconds kRetryAfter{1};

bool IsFinal(uint32_t error) {
    return error == 0 || error == ENOSYS;
}

} // namespace

Courier::Errand Courier::Add(std::function<void(uint32_t pid)> run) {
    const host::MutexLock lock(mutex_);
    runs_.push_back(std::move(run));
    return runs_.size() - 1;
}

void Courier::Send(Errand errand, uint32_t pid) {
    const host::MutexLock lock(mutex_);
    SendNow(errand, pid);
}

void Courier::SendToAll(Errand errand) {
    for (const auto &[pid, agent] : registry_.Agents()) {
        Send(errand, pid);
    }
}

void Courier::SendEach(uint32_t pid) {
    const host::MutexLock lock(mutex_);
    for (Errand errand = 0; errand < runs_.size(); ++errand) {
        SendNow(errand, pid);
    }
}

void Courier::Resume(uint32_t pid) {
    const host::MutexLock lock(mutex_);
    for (Errand errand = 0; errand < runs_.size(); ++errand) {
        if (missed_.count({pid, errand}) != 0) {
            SendNow(errand, pid);
        }
    }
}

void Courier::SendNow(Errand errand, uint32_t pid) {
    missed_.erase({pid, errand});
    const host::SteadyTime now = clocks_.SteadyNow();
    due_[{pid, errand}] = now;
    tell_(now);
}

void Courier::OnDue(std::function<void(host::SteadyTime due)> tell) {
    const host::MutexLock lock(mutex_);
    tell_ = tell ? std::move(tell) : [](host::SteadyTime) {};
    for (const auto &[errand, due] : due_) {
        tell_(due);
    }
}

void Courier::RunDue() {
    host::MutexLock lock(mutex_);
    const auto next = Next();
    if (next == due_.end() || next->second > clocks_.SteadyNow()) {
        return; // its agent is being visited: the visit's end tells of it
    }
    const auto [pid, errand] = next->first;
    const auto run = runs_[errand];
    due_.erase(next);
    visited_.insert(pid);
    lock.Unlock();
    const uint32_t error = host::Attempt("courier", [&run, pid = pid] { run(pid); });
    lock.Lock();
    visited_.erase(pid);
    if (error == ESRCH) {
        NoteMissed(errand, pid);
    } else if (!IsFinal(error) && registry_.Answers(pid)) {
        due_.try_emplace({pid, errand}, clocks_.SteadyNow() + kRetryAfter);
    }
    TellNextOf(pid);
}

// One that has gone for good is no longer registered, or soon won't be.
void Courier::NoteMissed(Errand errand, uint32_t pid) {
    const std::map<uint32_t, Agent> agents = registry_.Agents();
    missed_.insert({pid, errand});
    std::erase_if(missed_, [&](const auto &entry) { return agents.count(entry.first) == 0; });
}

// The errand that is due first, of the agents that none is with.
Courier::Errands::iterator Courier::Next() {
    auto first = due_.end();
    for (auto at = due_.begin(); at != due_.end(); ++at) {
        if (visited_.count(at->first.first) == 0 && (first == due_.end() || at->second < first->second)) {
            first = at;
        }
    }
    return first;
}

void Courier::TellNextOf(uint32_t pid) {
    const auto begin = due_.lower_bound({pid, 0});
    const auto end = std::find_if(begin, due_.end(), [pid](const auto &entry) { return entry.first.first != pid; });
    const auto first = std::min_element(begin, end, [](const auto &a, const auto &b) { return a.second < b.second; });
    if (first != end) {
        tell_(first->second);
    }
}

} // namespace tarnd
