// The agent's C interface: starts and stops the parts.
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

#include "host/agent/app_timers.h"
#include "host/agent/commands.h"
#include "host/agent/dead_loops.h"
#include "host/agent/faults.h"
#include "host/agent/health.h"
#include "host/agent/memory.h"
#include "host/agent/periodic.h"
#include "host/agent/registration.h"
#include "host/agent/resources.h"
#include "host/agent/service.h"
#include "host/answer/answer.h"
#include "host/osal/log.h"
#include "host/runtime/directory.h"
#include "host/runtime/server.h"
#include "types/tarnd_agent.h"

namespace agent {

namespace {

constexpr size_t kMaxName = sizeof(Tarn_sys_diag_AgentRegInfoInput::szAgentName) - 1;

Registry &TheRegistry() {
    static Registry &registry = *new Registry; // the agent's threads may outlive main
    return registry;
}

class Agent {
public:
    Agent(const std::string &name, const std::filesystem::path &runDir)
        : runner_(TheRegistry()), server_({.runDir = runDir, .workers = 2}) {
        ServeCommandsOf(&runner_);
        SetHealthName(name);
        runner_.Start();
        server_.AddService(kServiceSpec);
        server_.Start();
        faults_.emplace(name, host::Directory(runDir).RunDir());
        TheTimers().Run();
        TheDeadLoops().Run();
        TheResources().Run();
        registration_.emplace(name, runDir);
    }
    ~Agent() {
        registration_.reset();
        server_.Stop();
        TheResources().Halt();
        TheDeadLoops().Halt();
        TheTimers().Halt();
        TheMemory().SetScan(false);
        faults_.reset();
    }
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

private:
    Runner runner_;
    host::Server server_;
    std::optional<Faults> faults_;
    std::optional<Registration> registration_;
};

std::mutex agentMutex;
Agent *theAgent; // left alone at exit, when it is not shut down

} // namespace

} // namespace agent

uint32_t TarnAgent_Init(const char *name, const char *runDir) {
    const std::lock_guard lock(agent::agentMutex);
    if (name == nullptr || *name == 0 || strlen(name) > agent::kMaxName) {
        return EINVAL;
    }
    if (agent::theAgent != nullptr) {
        return EALREADY;
    }
    return host::Run(__func__, [&] {
        const agent::SignalsBlocked blocked;
        agent::theAgent = new agent::Agent(name, runDir == nullptr ? "" : runDir);
    });
}

uint32_t TarnAgent_RegisterCommand(const char *name, const char *help, TarnAgentCommand command, void *userData) {
    uint32_t result = 0;
    const uint32_t thrown =
        host::Run(__func__, [&] { result = agent::TheRegistry().Add(name, help, command, userData); });
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_Shutdown(void) {
    const std::lock_guard lock(agent::agentMutex);
    if (agent::theAgent == nullptr) {
        return EINVAL;
    }
    delete std::exchange(agent::theAgent, nullptr);
    return 0;
}
