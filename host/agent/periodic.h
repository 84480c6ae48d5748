// A thread that does something again and again. It takes no signals: those are the application's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace agent {

class Periodic {
public:
    // Returns how long to wait until it runs again.
    using Function = std::function<std::chrono::milliseconds()>;

    void Start(const char *name, Function function);
    void Stop();
    void Wake(); // runs it now
    bool Runs() const { return thread_.joinable(); }

private:
    void Run(const std::stop_token &stop, const char *name, const Function &function);

    std::mutex mutex_;
    std::condition_variable_any changed_;
    bool wake_ = false;
    std::jthread thread_; // ends before what it uses
};

// Threads started while this lives take no signals but those of their own faults.
class SignalsBlocked {
public:
    SignalsBlocked();
    ~SignalsBlocked();
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_;
};

} // namespace agent
