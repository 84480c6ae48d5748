#include "host/daemon/agents/agent_probe.h"

#include <map>
#include <mutex>

#include "host/answer/answer.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/time/timers.h"
#include "host/osal/log.h"
#include "host/values/agent.h"
#include "host/values/daemon.h"

namespace tarnd {

namespace {

constexpr std::chrono::seconds kPeriod{2};

std::mutex probeMutex;
std::map<uint32_t, AgentHealth> probed; // by process

void Ask(uint32_t pid, AgentHealth &health) {
    const auto reply = AskAgent(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), pid, Tarn_sys_diag_None{},
                                TheHealthSettings().LimitOf(TARND_HEALTH_AGENTS));
    health.worstLevel = reply->record.uiValue1;
    for (uint32_t i = 0; i < reply->record.uiHealthInfoNum && health.complaint.empty(); ++i) {
        const Tarn_sys_diag_SysHealthInfo &item = reply->record.pstHealthInfo[i];
        if (item.ucValue1 != TARN_AGENT_HEALTH_GOOD) {
            health.complaint = fmt::format("{}: {}", host::TextOf(item.acValue1), host::TextOf(item.acValue4));
        }
    }
}

void ProbeAll() {
    if (TheHealthSettings().IsOn(TARND_HEALTH_AGENTS)) {
        TheCourier().SendToAll(ProbeAgent);
    }
}

} // namespace

// What goes wrong is the finding.
void ProbeAgent(uint32_t pid) {
    AgentHealth health{pid, {}, std::chrono::system_clock::now(), true, 0, TARN_AGENT_HEALTH_GOOD, {}};
    const auto start = std::chrono::steady_clock::now();
    try {
        Ask(pid, health);
    } catch (const std::system_error &error) {
        health.answers = error.code().value() == ENOSYS; // an agent that has nothing to say of it
        health.complaint = health.answers ? "" : error.what();
    }
    const auto took = std::chrono::steady_clock::now() - start;
    health.answerMs = static_cast<uint32_t>(std::chrono::ceil<std::chrono::milliseconds>(took).count());
    const std::lock_guard lock(probeMutex);
    const auto before = probed.find(pid);
    if (const bool answered = before == probed.end() || before->second.answers; answered != health.answers) {
        host::Log().warn("the agent of process {} {}", pid,
                         health.answers ? "answers again" : "does not answer: " + health.complaint);
    }
    probed[pid] = std::move(health);
}

void WatchAgentHealth() {
    TheTimers().Every(TheTimers().Add("agent health", ProbeAll), kPeriod);
}

std::vector<AgentHealth> AgentsHealth() {
    const std::map<uint32_t, Agent> agents = TheState().Agents();
    const std::lock_guard lock(probeMutex);
    std::erase_if(probed, [&](const auto &entry) { return agents.count(entry.first) == 0; });
    std::vector<AgentHealth> list;
    for (const auto &[pid, health] : probed) {
        list.push_back(health);
        list.back().name = agents.at(pid).name;
    }
    return list;
}

} // namespace tarnd
