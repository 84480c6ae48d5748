// Which agents answer, and what they say of their processes' health.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/agent_registry.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/history/event.h"
#include "host/daemon/time/timers.h"
#include "host/osal/mutex.h"

namespace tarnd {

struct AgentHealth {
    uint32_t pid;
    std::string name;
    host::WallTime lookedAt;
    bool answers;
    bool hasAnswered;                          // since it registered: else there may be none
    uint32_t answerMs;                         // how long it took
    uint32_t worstLevel;                       // of what it says
    std::string complaint;                     // the first of its items that is not good; or why it does not answer
    std::map<EventKind, std::string> troubles; // of the items that are events: what is found
};

class AgentProbe {
public:
    // Has all agents asked from time to time, those that are set aside more and more rarely.
    AgentProbe(const host::Clocks &clocks, AgentRegistry &registry, const HealthSettings &settings, AgentLine &line,
               Courier &courier, Timers &timers, Journal &journal);

    // Of the registered agents that were asked already.
    std::vector<AgentHealth> Health();

private:
    void ProbeAll();
    void Probe(uint32_t pid);
    void Ask(uint32_t pid, AgentHealth &health);
    void TellTroubles(const AgentHealth *before, const AgentHealth &now);

    const host::Clocks &clocks_;
    AgentRegistry &registry_;
    const HealthSettings &settings_;
    AgentLine &line_;
    Courier &courier_;
    const Courier::Errand errand_;
    Journal &journal_;
    host::Mutex mutex_;
    std::map<uint32_t, AgentHealth> probed_ TARN_GUARDED_BY(mutex_); // by process
};

} // namespace tarnd
