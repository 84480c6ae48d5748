#include "host/agent/periodic.h"

#include <utility>

#include "host/agent/signals_blocked.h"
#include "host/osal/attempt.h"

namespace agent {

namespace {

constexpr std::chrono::milliseconds kAfterFailure{1000};

} // namespace

void Periodic::Start() {
    const SignalsBlocked blocked; // the first post starts the thread
    const host::MutexLock lock(mutex_);
    if (queue_ == nullptr) {
        queue_ = std::make_unique<host::WorkQueue>(name_);
        PostAt(host::WorkQueue::Clock::now());
    }
}

void Periodic::Stop() {
    std::unique_ptr<host::WorkQueue> queue; // ends without the lock: what runs may ask for it
    const host::MutexLock lock(mutex_);
    queue = std::move(queue_);
    posted_.clear();
}

bool Periodic::IsStarted() const {
    const host::MutexLock lock(mutex_);
    return queue_ != nullptr;
}

void Periodic::Wake() {
    const host::MutexLock lock(mutex_);
    PostAt(host::WorkQueue::Clock::now());
}

// A run that comes no later makes another one superfluous: when it ends, it knows when the next is due.
void Periodic::PostAt(host::SteadyTime due) {
    if (queue_ != nullptr && (posted_.empty() || due < *posted_.begin())) {
        posted_.insert(due);
        queue_->PostAt(due, [this, due](const std::stop_token &) { Run(due); });
    }
}

void Periodic::Run(host::SteadyTime due) {
    {
        const host::MutexLock lock(mutex_);
        posted_.erase(due); // from now on, waking it asks for one more
    }
    std::chrono::milliseconds pause = kAfterFailure;
    host::Attempt(name_, [&] { pause = function_(); });
    const host::MutexLock lock(mutex_);
    PostAt(host::WorkQueue::Clock::now() + pause);
}

} // namespace agent
