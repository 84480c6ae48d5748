#include "host/daemon/agents/agent_registry.h"

#include "host/osal/log.h"

namespace tarnd {

AgentRegistry::AgentRegistry(const host::procfs::Procfs &proc, Timers &timers) : proc_(proc) {
    constexpr std::chrono::seconds kPeriod{1};
    const auto drop = [](void *self) { static_cast<AgentRegistry *>(self)->DropEnded(); };
    timers.Every(timers.Add("agents", drop, this), kPeriod);
}

bool AgentRegistry::Add(uint32_t pid, const std::string &name, uint32_t version) {
    const Agent agent{name, version, proc_.ReadProcess(pid).startTicks};
    const host::MutexLock lock(mutex_);
    const auto [known, added] = agents_.try_emplace(pid, agent);
    const bool changed = added || known->second != agent;
    known->second = agent;
    if (changed) {
        host::Log().info("agent {} of process {} has registered", name, pid);
    }
    return changed;
}

bool AgentRegistry::Remove(uint32_t pid) {
    const host::MutexLock lock(mutex_);
    return agents_.erase(pid) != 0;
}

std::map<uint32_t, Agent> AgentRegistry::Agents() const {
    const host::MutexLock lock(mutex_);
    return agents_;
}

void AgentRegistry::DropEnded() {
    for (const auto &[pid, agent] : Agents()) {
        if (!proc_.Runs(pid, agent.processStart) && Remove(pid)) {
            host::Log().info("agent {} of process {} has gone with it", agent.name, pid);
        }
    }
}

} // namespace tarnd
