// Brings the agents what the daemon has for them: an agent that hangs delays no caller, and no other agent.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/agents/agent_registry.h"
#include "host/osal/mutex.h"

namespace tarnd {

class Courier {
public:
    // How long an agent has for one call.
    static constexpr uint32_t kTimeoutMs = 1000;

    // Agents that may hang at the same time before the others are delayed.
    static constexpr size_t kMaxThreads = 32;

    Courier(const host::Clocks &clocks, AgentRegistry &registry) : clocks_(clocks), registry_(registry) {}

    // What there is to do with the agent of a process. It finds out by itself what the agent has to be told, so one
    // that was asked for twice is run once. May throw; it is then run again later, unless the agent does not know the
    // method, is gone, until it resumes, or is set aside: all are sent to one that is back. An agent has one at a time;
    // those of several agents run at the same time.
    using Errand = size_t;
    Errand Add(std::function<void(uint32_t pid)> run);

    void Send(Errand errand, uint32_t pid);
    void SendToAll(Errand errand);
    void SendEach(uint32_t pid); // all that there are, in the order in which they were added
    void Resume(uint32_t pid);   // those that found the agent gone, which is back

    // Who drives the courier is told from when on RunDue has an errand to run, once for each. Threads may run several
    // at the same time.
    void OnDue(std::function<void(host::SteadyTime due)> tell);
    void RunDue();

private:
    using Errands = std::map<std::pair<uint32_t, Errand>, host::SteadyTime>; // and when they are due

    void SendNow(Errand errand, uint32_t pid) TARN_REQUIRES(mutex_);
    Errands::iterator Next() TARN_REQUIRES(mutex_);
    void TellNextOf(uint32_t pid) TARN_REQUIRES(mutex_);
    void NoteMissed(Errand errand, uint32_t pid) TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    AgentRegistry &registry_;
    host::Mutex mutex_;
    std::vector<std::function<void(uint32_t pid)>> runs_ TARN_GUARDED_BY(mutex_);
    Errands due_ TARN_GUARDED_BY(mutex_);
    std::set<std::pair<uint32_t, Errand>> missed_ TARN_GUARDED_BY(mutex_); // of registered agents, that were gone
    std::set<uint32_t> visited_ TARN_GUARDED_BY(mutex_);                   // agents that an errand is with
    std::function<void(host::SteadyTime)> tell_ TARN_GUARDED_BY(mutex_) = [](host::SteadyTime) {};
};

} // namespace tarnd
