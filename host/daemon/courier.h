// Brings the agents what the daemon has for them, on a thread of its own: an agent that hangs delays no caller.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace tarnd {

class Courier {
public:
    // What there is to do with the agent of a process. It finds out by itself what the agent has to be told, so one
    // that was asked for twice is run once. May throw; it is then run again later, unless the agent is gone or does not
    // know the method.
    using Errand = void (*)(uint32_t pid);

    // How long an agent has for one call.
    static constexpr uint32_t kTimeoutMs = 1000;

    ~Courier() { Stop(); }

    void Send(Errand errand, uint32_t pid);
    void SendToAll(Errand errand);

    void Start();
    void Stop(); // waits for the errand that runs

private:
    using Clock = std::chrono::steady_clock;

    void Run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::pair<uint32_t, Errand>, Clock::time_point> due_;
    std::thread thread_;
    bool stop_ = false;
};

Courier &TheCourier();

} // namespace tarnd
