#include "host/agent/periodic.h"

#include <pthread.h>

#include <utility>

#include "host/agent/faults.h"
#include "host/answer/answer.h"

namespace agent {

void Periodic::Start(const char *name, std::function<std::chrono::milliseconds()> function) {
    Stop();
    const SignalsBlocked blocked;
    stop_ = false;
    thread_ = std::thread([this, name, function = std::move(function)] {
        pthread_setname_np(pthread_self(), name);
        std::unique_lock lock(mutex_);
        while (!stop_) {
            wake_ = false;
            lock.unlock();
            std::chrono::milliseconds pause{1000}; // after a failure
            host::Run(name, [&] { pause = function(); });
            lock.lock();
            changed_.wait_for(lock, pause, [this] { return stop_ || wake_; });
        }
    });
}

void Periodic::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Periodic::Wake() {
    {
        const std::lock_guard lock(mutex_);
        wake_ = true;
    }
    changed_.notify_one();
}

SignalsBlocked::SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : kFaultSignals) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace agent
