#include "host/daemon/state.h"

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
    subscriptions_.erase(pid);
    return agents_.erase(pid) != 0;
}

uint32_t State::Subscribe(uint32_t pid, uint32_t events) {
    const std::lock_guard lock(mutex_);
    const uint32_t before = std::exchange(subscriptions_[pid], events);
    if (events == 0) {
        subscriptions_.erase(pid);
    }
    return before;
}

Timezone State::SetTimezone(Timezone timezone) {
    const std::lock_guard lock(mutex_);
    return std::exchange(timezone_, std::move(timezone));
}

State &TheState() {
    static State state;
    return state;
}

Settings &TheSettings() {
    static Settings settings;
    return settings;
}

} // namespace tarnd
