#include "host/daemon/agents/agent_registry.h"

#include "host/osal/log.h"

namespace tarnd {

AgentRegistry::AgentRegistry(const host::procfs::Procfs &proc, Journal &journal, AgentLine &line, Timers &timers)
    : proc_(proc), journal_(journal), line_(line) {
    line_.RemoveDeadAgents();
    constexpr std::chrono::seconds kPeriod{1};
    const auto drop = [](void *self) { static_cast<AgentRegistry *>(self)->DropEnded(); };
    timers.Every(timers.Add("agents", drop, this), kPeriod);
}

bool AgentRegistry::Add(const Registrant &process, const std::string &name, uint32_t version) {
    const Agent agent{name, version, process};
    bool isOther = false;
    {
        const host::MutexLock lock(mutex_);
        RequireRoom(agents_, process);
        const auto [known, added] = agents_.try_emplace(process.pid, agent);
        if (!added && known->second == agent) {
            return false;
        }
        isOther = known->second.process.start != process.start;
        known->second = agent;
    }
    isOther ? line_.ForgetProcess(process.pid) : line_.Forget(process.pid);
    host::Log().info("agent {} of process {} has registered", name, process.pid);
    journal_.Add({{}, EventKind::kAgentComes, process.pid, name, fmt::format("of user {}", process.user)});
    return true;
}

bool AgentRegistry::Remove(uint32_t pid) {
    line_.Forget(pid);
    const host::MutexLock lock(mutex_);
    const auto agent = agents_.extract(pid);
    if (agent) {
        const Registrant &process = agent.mapped().process;
        const char *const how = proc_.Runs(pid, process.start) ? "it has left" : "its process has ended";
        journal_.Add({{}, EventKind::kAgentGoes, pid, agent.mapped().name, how});
    }
    return !agent.empty();
}

std::map<uint32_t, Agent> AgentRegistry::Agents() const {
    const host::MutexLock lock(mutex_);
    return agents_;
}

std::vector<uint32_t> AgentRegistry::ThatAnswer() const {
    std::vector<uint32_t> pids;
    for (const auto &[pid, agent] : Agents()) {
        if (Answers(pid)) {
            pids.push_back(pid);
        }
    }
    return pids;
}

void AgentRegistry::DropEnded() {
    bool someEnded = false;
    for (const auto &[pid, agent] : Agents()) {
        if (!proc_.Runs(pid, agent.process.start) && Remove(pid)) {
            line_.ForgetProcess(pid);
            someEnded = true;
            host::Log().info("agent {} of process {} has gone with it", agent.name, pid);
        }
    }
    if (someEnded) {
        line_.RemoveDeadAgents();
    }
}

} // namespace tarnd
