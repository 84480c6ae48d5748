// A thread that does something again and again. It takes no signals: those are the application's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

namespace agent {

class Periodic {
public:
    Periodic() = default;
    ~Periodic() { Stop(); }
    Periodic(const Periodic &) = delete;
    Periodic &operator=(const Periodic &) = delete;

    // The function returns how long to wait until it runs again.
    void Start(const char *name, std::function<std::chrono::milliseconds()> function);
    void Stop();
    void Wake(); // runs it now
    bool Runs() const { return thread_.joinable(); }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stop_ = false;
    bool wake_ = false;
    std::thread thread_;
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
