#include "host/agent/periodic.h"

#include <utility>

#include "host/agent/faults.h"
#include "host/answer/answer.h"
#include "host/osal/thread.h"

namespace agent {

void Periodic::Start(const char *name, Function function) {
    Stop();
    const SignalsBlocked blocked;
    thread_ = host::StartThread(
        name, [this, name, function = std::move(function)](const std::stop_token &stop) { Run(stop, name, function); });
}

void Periodic::Stop() {
    thread_ = {};
}

void Periodic::Run(const std::stop_token &stop, const char *name, const Function &function) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        wake_ = false;
        lock.unlock();
        std::chrono::milliseconds pause{1000}; // after a failure
        host::Run(name, [&] { pause = function(); });
        lock.lock();
        changed_.wait_for(lock, stop, pause, [this] { return wake_; });
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
