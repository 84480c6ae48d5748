#include "host/daemon/agents/agent_probe.h"

#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "host/meaning/choices.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace health_level = host::meaning::health_level;
namespace system_health_item = host::meaning::system_health_item;
namespace system_health_level = host::meaning::system_health_level;

namespace {

// The items of which the journal tells.
std::optional<EventKind> TroubleOf(std::string_view item) {
    namespace health_item = host::meaning::health_item;
    return item == health_item::kDeadLoops.name      ? std::optional(EventKind::kDeadLoop)
           : item == health_item::kMemoryDamage.name ? std::optional(EventKind::kMemoryDamage)
                                                     : std::nullopt;
}

} // namespace

AgentProbe::AgentProbe(const host::Clocks &clocks, AgentRegistry &registry, const HealthSettings &settings,
                       AgentLine &line, Courier &courier, Timers &timers, Journal &journal)
    : clocks_(clocks), registry_(registry), settings_(settings), line_(line), courier_(courier),
      errand_(courier.Add([this](uint32_t pid) { Probe(pid); })), journal_(journal) {
    constexpr std::chrono::seconds kPeriod{2};
    const auto probe = [](void *self) { static_cast<AgentProbe *>(self)->ProbeAll(); };
    timers.Every(timers.Add("agent health", probe, this), kPeriod);
}

void AgentProbe::ProbeAll() {
    const bool isOn = settings_.IsOn(system_health_item::kAgents);
    for (const auto &[pid, agent] : registry_.Agents()) {
        if (line_.Silent().IsSetAside(pid) ? line_.Silent().IsDue(pid) : isOn) {
            courier_.Send(errand_, pid);
        }
    }
}

// What goes wrong is the finding.
void AgentProbe::Probe(uint32_t pid) {
    AgentHealth health{pid, {}, clocks_.WallNow(), true, true, 0, health_level::kGood, {}, {}};
    const host::SteadyTime start = clocks_.SteadyNow();
    const bool wasSetAside = line_.Silent().IsSetAside(pid);
    try {
        Ask(pid, health);
    } catch (const std::system_error &error) {
        health.answers = error.code().value() == ENOSYS; // an agent that has nothing to say of it
        health.complaint = health.answers ? "" : error.what();
    }
    if (wasSetAside && !line_.Silent().IsSetAside(pid)) {
        courier_.SendEach(pid); // what it has missed
    }
    const auto took = std::chrono::ceil<std::chrono::milliseconds>(clocks_.SteadyNow() - start);
    health.answerMs = static_cast<uint32_t>(took.count());
    const host::MutexLock lock(mutex_);
    const auto before = probed_.find(pid);
    health.hasAnswered = health.answers || (before != probed_.end() && before->second.hasAnswered);
    if (const bool answered = before == probed_.end() || before->second.answers; answered != health.answers) {
        host::Log().warn("the agent of process {} {}", pid,
                         health.answers ? "answers again" : "does not answer: " + health.complaint);
    }
    TellTroubles(before == probed_.end() ? nullptr : &before->second, health);
    probed_[pid] = std::move(health);
}

// Those that there were not before, or of which something else is found now.
void AgentProbe::TellTroubles(const AgentHealth *before, const AgentHealth &now) {
    const std::map<uint32_t, Agent> agents = registry_.Agents();
    const auto agent = agents.find(now.pid);
    for (const auto &[kind, found] : now.troubles) {
        const bool isKnown =
            before != nullptr && before->troubles.count(kind) != 0 && before->troubles.at(kind) == found;
        if (!isKnown) {
            journal_.Add({now.lookedAt, kind, now.pid, agent == agents.end() ? "" : agent->second.name, found});
        }
    }
}

void AgentProbe::Ask(uint32_t pid, AgentHealth &health) {
    const auto reply = line_.Ask(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), pid, Tarn_sys_diag_None{},
                                 settings_.LimitOf(system_health_item::kAgents), AgentLine::Whom::kAlsoSilent);
    const auto &[worst, on, itemNum, items] = reply->record;
    health.worstLevel = worst;
    for (uint32_t i = 0; i < itemNum; ++i) {
        const auto &[level, name, source, lookedAt, found] = items[i];
        if (level == health_level::kGood || level == system_health_level::kUnknown) {
            continue;
        }
        if (health.complaint.empty()) {
            health.complaint = fmt::format("{}: {}", host::TextOf(name), host::TextOf(found));
        }
        if (const auto trouble = TroubleOf(host::TextOf(name))) {
            health.troubles[*trouble] = host::TextOf(found);
        }
    }
    if (worst == system_health_level::kUnknown) {
        health.complaint = "none of its items is known";
    }
}

std::vector<AgentHealth> AgentProbe::Health() {
    const std::map<uint32_t, Agent> agents = registry_.Agents();
    const host::MutexLock lock(mutex_);
    std::erase_if(probed_, [&](const auto &entry) { return agents.count(entry.first) == 0; });
    std::vector<AgentHealth> list;
    for (const auto &[pid, health] : probed_) {
        list.push_back(health);
        list.back().name = agents.at(pid).name;
    }
    return list;
}

} // namespace tarnd
