// The agent's C interface, but for memory and faults: finds the agent, and lets nothing be thrown at the application.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/agent/agent.h"
#include "host/meaning/choices.h"
#include "host/osal/attempt.h"

using agent::Agent;

namespace {

uint32_t OwnTid() {
    return static_cast<uint32_t>(gettid());
}

// What a function returns, or what it throws as an errno value.
template <class Function>
uint32_t ResultOf(const char *name, Function function) {
    uint32_t result = 0;
    const uint32_t thrown = host::Attempt(name, [&] { result = function(Agent::OfProcess()); });
    return thrown != 0 ? thrown : result;
}

} // namespace

uint32_t TarnAgent_Init(const char *name, const char *runDir) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.Start(name, runDir == nullptr ? "" : runDir); });
}

uint32_t TarnAgent_Shutdown(void) {
    return ResultOf(__func__, [](Agent &agent) { return agent.Stop(); });
}

uint32_t TarnAgent_RegisterCommand(const char *name, const char *help, TarnAgentCommand command, void *userData) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.commandTable.Add(name, help, command, userData); });
}

int TarnAgent_MessagePasses(const TarnAgentMessage *message) {
    bool passes = true; // what keeps a rule from being tried must not stop the application's messages
    if (message != nullptr) {
        host::Attempt(__func__, [&] { passes = Agent::OfProcess().messageRules.Passes(*message); });
    }
    return passes ? 1 : 0;
}

uint32_t TarnAgent_CreateTimer(const char *name, uint32_t periodMs, int periodic, TarnAgentTimerFunction function,
                               void *userData, uint32_t *id) {
    uint32_t created = 0;
    const uint32_t result = ResultOf(__func__, [&](Agent &agent) {
        return agent.timers.Create(name, periodMs, periodic != 0, function, userData, created);
    });
    if (id != nullptr) {
        *id = created;
    }
    return result;
}

uint32_t TarnAgent_StartTimer(uint32_t id) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.timers.Start(id); });
}

uint32_t TarnAgent_StopTimer(uint32_t id) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.timers.Stop(id); });
}

uint32_t TarnAgent_DeleteTimer(uint32_t id) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.timers.Delete(id); });
}

uint32_t TarnAgent_SetDeadLoopCfg(const TarnAgentDeadLoopCfg *config) {
    return ResultOf(__func__, [&](Agent &agent) {
        return config == nullptr ? uint32_t{EINVAL} : agent.deadLoops.Configure(*config);
    });
}

uint32_t TarnAgent_WatchThread(uint32_t limitMs) {
    return host::Attempt(__func__, [&] { Agent::OfProcess().deadLoops.Watch(OwnTid(), limitMs); });
}

uint32_t TarnAgent_ExemptThread(void) {
    return host::Attempt(__func__, [] { Agent::OfProcess().deadLoops.Exempt(OwnTid()); });
}

uint32_t TarnAgent_AddHealthItem(uint8_t function, const char *name, uint32_t limit, TarnAgentHealthCheck check,
                                 void *userData) {
    if (check == nullptr) {
        return EINVAL;
    }
    const auto look = [check, userData](uint32_t now) {
        char text[sizeof(Tarn_sys_diag_SysHealthInfo::acValue4)] = "";
        const uint32_t level = check(now, text, sizeof text, userData);
        return agent::Health::Finding{
            static_cast<uint8_t>(std::min<uint32_t>(level, host::meaning::health_level::kBad)),
            std::string(text, strnlen(text, sizeof text))};
    };
    return ResultOf(__func__, [&](Agent &agent) { return agent.health.Add(function, name, limit, look); });
}

uint32_t TarnAgent_Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData) {
    return ResultOf(__func__,
                    [&](Agent &agent) { return agent.resources.Subscribe(name, events, function, userData); });
}

uint32_t TarnAgent_Unsubscribe(const char *name) {
    return ResultOf(__func__, [&](Agent &agent) { return agent.resources.Unsubscribe(name); });
}

uint8_t TarnAgent_ResourceLevel(uint8_t resource) {
    return Agent::OfProcess().resources.LevelOf(resource);
}
