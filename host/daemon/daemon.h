// The daemon: one object that owns its parts. They start in the order in which they are declared, each with what it
// needs of those before it, and stop in the reverse order.
#pragma once

#include <optional>

#include "host/clock/clocks.h"
#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/agents/agent_registry.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/message_rules.h"
#include "host/daemon/agents/subscriptions.h"
#include "host/daemon/cpu/cpu_events.h"
#include "host/daemon/cpu/cpu_overload.h"
#include "host/daemon/cpu/cpu_peaks.h"
#include "host/daemon/cpu/overload_debug.h"
#include "host/daemon/cpu/overload_stacks.h"
#include "host/daemon/cpu/starvation.h"
#include "host/daemon/driver.h"
#include "host/daemon/files/archives.h"
#include "host/daemon/files/measurement.h"
#include "host/daemon/health/health_examiner.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/health/resource_levels.h"
#include "host/daemon/history/history.h"
#include "host/daemon/history/minutes.h"
#include "host/daemon/master/master_link.h"
#include "host/daemon/memory/leak_watch.h"
#include "host/daemon/memory/memory_leaks.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/daemon/options.h"
#include "host/daemon/peers.h"
#include "host/daemon/processes/erased_faults.h"
#include "host/daemon/processes/fault_watch.h"
#include "host/daemon/processes/process_table.h"
#include "host/daemon/sampling/sample_driver.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/time/local_clock.h"
#include "host/daemon/time/timers.h"
#include "host/procfs/procfs.h"
#include "host/store/store.h"

namespace tarnd {

// Its last member begins the work that nobody asks for.
class Daemon {
public:
    Daemon(Options theOptions, const host::Clocks &theClocks, const host::procfs::Procfs &theProc,
           SampleSource &sampleSource, Peers &peers, host::stacks::Helpers &theHelpers);
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;
    ~Daemon();

    // The one that serves: the library calls the methods without saying whose they are.
    static Daemon &Serving();

private:
    // The pointer that Serving follows.
    struct Publication {
        explicit Publication(Daemon &daemon);
        ~Publication();
    };
    const Publication publication_{*this};

public:
    const Options options;
    const host::Clocks &clocks;
    const host::procfs::Procfs &proc;
    host::stacks::Helpers &helpers;
    const Archives archives{options.logDirectory, options.copyTargets, clocks};
    host::Store store{options.stateDirectory};
    History history{options.stateDirectory, clocks};
    LocalClock clock{clocks, store, history, options.zoneLink};
    Timers timers{clocks};
    AgentLine agentLine;
    AgentRegistry registry{proc, history, agentLine, timers};
    Courier courier{clocks, registry};
    Subscriptions subscriptions{proc};
    MessageRules messageRules{clocks, proc, store, registry, agentLine, courier};
    HealthSettings healthSettings{store, agentLine, courier};
    ProcessTable processTable{proc};
    ErasedFaults erasedFaults{store};
    FaultWatch faultWatch{options.faultDirectory, erasedFaults, history, timers};
    Sampler sampler;
    Minutes minutes{sampler, [this](const MinuteFigures &minute) { history.AddMinute(minute); }};
    CpuPeaks cpuPeaks{sampler};
    host::stacks::Tracer tracer{proc};
    CpuOverload cpuOverload{store,   history,
                            history, sampler,
                            proc,    [this](Overload &overload) { ReadOverloadStacks(tracer, helpers, overload); }};
    CpuEvents cpuEvents{sampler, healthSettings, proc, clocks};
    Starvation starvation{store, history, sampler, proc};
    OverloadDebug overloadDebug{sampler};
    MemoryOverload memoryOverload{store, history, sampler};
    MemoryLeaks memoryLeaks{clocks, sampler};
    LeakWatch leakWatch{memoryLeaks, history, timers};
    Measurement measurement{clocks, proc, store, clock, timers, history, options.measuredBytesPerSecond};
    ResourceLevels resourceLevels{sampler, proc, healthSettings, subscriptions, agentLine, courier};
    AgentProbe agentProbe{clocks, registry, healthSettings, agentLine, courier, timers, history};
    HealthExaminer healthExaminer;
    MasterLine masterLine;
    MasterLink masterLink{clocks, masterLine, clock, cpuOverload, memoryOverload, measurement};

private:
    // The threads of those that need some.
    struct Drivers {
        explicit Drivers(Daemon &daemon);
        Driver<History> history;
        SampleDriver samples;
        Driver<Timers> timers;
        Driver<Courier> courier;
        Driver<MasterLink> masterLink;
    };
    std::optional<Drivers> drivers_;
};

} // namespace tarnd
