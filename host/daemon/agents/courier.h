// Brings the agents what the daemon has for them, on threads of its own: an agent that hangs delays no caller, and no
// other agent.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace tarnd {

class Courier {
public:
    // What there is to do with the agent of a process. It finds out by itself what the agent has to be told, so one
    // that was asked for twice is run once. May throw; it is then run again later, unless the agent is gone or does not
    // know the method. An agent has one at a time; those of several agents run at the same time.
    using Errand = void (*)(uint32_t pid);

    // How long an agent has for one call.
    static constexpr uint32_t kTimeoutMs = 1000;

    // Agents that may hang at the same time before the others are delayed.
    static constexpr size_t kMaxThreads = 32;

    ~Courier() { Stop(); }

    void Send(Errand errand, uint32_t pid);
    void SendToAll(Errand errand);

    void Start();
    void Stop(); // waits for the errands that run

private:
    using Clock = std::chrono::steady_clock;
    using Errands = std::map<std::pair<uint32_t, Errand>, Clock::time_point>; // and when they are due

    void AddThread();
    void TellAnother();
    void Run(const std::stop_token &stop);
    Errands::iterator Next();
    void Do(std::unique_lock<std::mutex> &lock, Errands::iterator next);

    std::mutex mutex_;
    std::condition_variable_any wake_;
    Errands due_;
    std::set<uint32_t> visited_; // agents that a thread is with
    uint64_t changes_ = 0;       // of what is due or visited
    size_t idle_ = 0;            // threads that wait
    std::vector<std::jthread> threads_;
};

Courier &TheCourier();

} // namespace tarnd
