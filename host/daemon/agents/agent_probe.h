// Which agents answer, and what they say of their processes' health.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnd {

struct AgentHealth {
    uint32_t pid;
    std::string name;
    std::chrono::system_clock::time_point lookedAt;
    bool answers;
    uint32_t answerMs;     // how long it took
    uint32_t worstLevel;   // of what it says
    std::string complaint; // the first of its items that is not good; or why it does not answer
};

// An errand of the courier: asks an agent how it is.
void ProbeAgent(uint32_t pid);

// Has all agents asked from time to time.
void WatchAgentHealth();

// Of the registered agents that were asked already.
std::vector<AgentHealth> AgentsHealth();

} // namespace tarnd
