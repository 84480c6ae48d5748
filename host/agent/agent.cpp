#include "host/agent/agent.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/agent/faults.h"
#include "host/agent/own_health.h"
#include "host/agent/registration.h"
#include "host/agent/service.h"
#include "host/agent/signals_blocked.h"
#include "host/meaning/choices.h"
#include "host/meaning/reflect.h"
#include "host/osal/attempt.h"
#include "host/runtime/directory.h"
#include "host/runtime/run_directory.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace agent {

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxName = sizeof(Tarn_sys_diag_AgentRegInfoInput::szAgentName) - 1;
constexpr milliseconds kUntilWoken{3600000};

// This user, root, and the daemon, whoever that runs as: its user owns the run directory where it is not root's.
host::Policy PolicyIn(const std::filesystem::path &runDir) {
    host::Policy policy;
    policy.AllowAlso(host::RunDirectory(host::Directory(runDir).RunDir()).Owner());
    if (const std::optional<uid_t> daemon = host::DaemonUser()) {
        policy.AllowAlso(*daemon);
    }
    return policy;
}

// Serves calls while it lives.
class Service {
public:
    explicit Service(const std::filesystem::path &runDir)
        : server_({.runDir = runDir, .workers = 2, .policy = PolicyIn(runDir), .describe = [] {
                       static constexpr const host::meaning::Service *kServices[] = {&host::meaning::kAgent};
                       return host::meaning::Reflect(kServices);
                   }}) {
        server_.AddService(kServiceSpec);
        server_.Start();
    }
    ~Service() { server_.Stop(); }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

private:
    host::Server server_;
};

} // namespace

// What runs, in the order in which it starts.
class Agent::Running {
public:
    Running(Agent &agent, const std::string &name, const std::filesystem::path &runDir)
        : scan_(agent.memoryScan), commands_(agent.commandWork_), service_(runDir),
          faults_(name, host::FaultDir(host::Directory(runDir).RunDir())), timers_(agent.timerWork_),
          watchdog_(agent.watchdog_), resources_(agent.resourceWork_), registration_(name, runDir, agent.resources) {}

private:
    const StoppedAtEnd scan_; // which peers start
    const Started commands_;
    const Service service_;
    const Faults faults_;
    const Started timers_;
    const Started watchdog_;
    const Started resources_;
    const Registration registration_;
};

Agent::Agent(const host::Clocks &theClocks, host::procfs::Procfs theProcfs)
    : clocks(theClocks), procfs(std::move(theProcfs)), commands(commandTable, [this] { commandWork_.Wake(); }),
      messageRules(clocks), timers(clocks, [this] { timerWork_.Wake(); }),
      deadLoops([this] { return SampleThreads(procfs, clocks); }, [this] { watchdog_.Wake(); }),
      resources([this] { resourceWork_.Wake(); }), memory(clocks), health(OwnHealthItems(procfs, deadLoops, memory)),
      memoryScan("tarn-mem-scan",
                 [this] {
                     memory.Scan();
                     return milliseconds(host::meaning::damage_scan::kPeriodMs);
                 }),
      commandWork_("commands", [this] { return commands.RunNext() ? milliseconds(0) : kUntilWoken; }),
      timerWork_("tarn-timers", [this] { return timers.ExpireNext(); }),
      watchdog_("tarn-watchdog", [this] { return deadLoops.Check(); }), resourceWork_("tarn-resources", [this] {
          resources.TellAll();
          return kUntilWoken;
      }) {}

Agent::~Agent() = default;

// Left alone at the end of the process: the application's threads may ask for it after main.
Agent &Agent::OfProcess() {
    static Agent &agent = *new Agent(*new host::SystemClocks, host::procfs::Procfs());
    return agent;
}

uint32_t Agent::Start(const char *name, const std::filesystem::path &runDir) {
    const host::MutexLock lock(startMutex_);
    if (name == nullptr || *name == 0 || strlen(name) > kMaxName) {
        return EINVAL;
    }
    if (running_ != nullptr) {
        return EALREADY;
    }
    std::unique_ptr<Running> started;
    const uint32_t error = host::Attempt("TarnAgent_Init", [&] {
        const SignalsBlocked blocked;
        SetName(name);
        commands.Reset();
        started = std::make_unique<Running>(*this, name, runDir);
    });
    running_ = std::move(started);
    return error;
}

uint32_t Agent::Stop() {
    const host::MutexLock lock(startMutex_);
    if (running_ == nullptr) {
        return EINVAL;
    }
    running_.reset();
    return 0;
}

void Agent::SetName(const char *name) {
    const host::MutexLock lock(nameMutex_);
    name_ = name;
}

std::string Agent::Name() const {
    const host::MutexLock lock(nameMutex_);
    return name_;
}

} // namespace agent
