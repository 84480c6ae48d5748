#include "host/osal/work_queue.h"

#include <algorithm>

#include "host/osal/attempt.h"
#include "host/osal/thread.h"

namespace host {

namespace {

using namespace std::chrono_literals;

// The last thread that is idle leaves work to the busy ones for so long: most work takes less, so few threads do.
constexpr auto kPatience = 20ms;

} // namespace

WorkQueue::WorkQueue(std::string name, size_t maxThreads) : name_(std::move(name)), maxThreads_(maxThreads) {}

WorkQueue::~WorkQueue() {
    std::vector<std::jthread> threads;
    {
        const std::lock_guard lock(mutex_);
        ends_ = true; // no thread is added from now on
        for (std::jthread &thread : threads_) {
            thread.request_stop(); // all before one is waited for
        }
        threads.swap(threads_);
    }
}

void WorkQueue::PostAt(Clock::time_point due, Work work) {
    const std::lock_guard lock(mutex_);
    if (ends_) {
        return;
    }
    due_.emplace(due, std::move(work));
    ++posted_;
    if (threads_.empty()) {
        AddThread();
    }
    wake_.notify_one();
}

void WorkQueue::AddThread() {
    threads_.push_back(StartThread(name_.substr(0, 15), [this](const std::stop_token &stop) { Run(stop); }));
}

void WorkQueue::Run(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        const bool isLastIdle = idle_ == 0 && threads_.size() < maxThreads_ && threads_.size() > 1;
        const auto now = Clock::now();
        const auto when = due_.empty() ? now + 1h : due_.begin()->first + (isLastIdle ? kPatience : 0ms);
        if (when > now) {
            ++idle_;
            wake_.wait_until(lock, stop, std::min(when, now + 1h), [this, seen = posted_] { return posted_ != seen; });
            --idle_;
            continue;
        }
        if (idle_ == 0 && threads_.size() < maxThreads_) {
            AddThread(); // it takes over while this one works
        }
        Work work = std::move(due_.extract(due_.begin()).mapped());
        lock.unlock();
        Attempt(name_.c_str(), [&] { work(stop); });
        work = nullptr; // with what it holds, which may post work when it goes
        lock.lock();
    }
}

} // namespace host
