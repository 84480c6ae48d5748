#include "host/daemon/agents/state.h"

#include <utility>

namespace tarnd {

bool State::AddAgent(uint32_t pid, Agent agent) {
    const std::lock_guard lock(mutex_);
    const auto [known, added] = agents_.try_emplace(pid, agent);
    const bool changed = added || known->second != agent;
    known->second = std::move(agent);
    return changed;
}

bool State::RemoveAgent(uint32_t pid) {
    const std::lock_guard lock(mutex_);
    return agents_.erase(pid) != 0;
}

std::map<uint32_t, Agent> State::Agents() {
    const std::lock_guard lock(mutex_);
    return agents_;
}

} // namespace tarnd
