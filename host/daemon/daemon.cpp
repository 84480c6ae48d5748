#include "host/daemon/daemon.h"

#include <cassert>

#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/agents/agents.h"
#include "host/daemon/health/resources.h"

namespace tarnd {

namespace {

Daemon *serving = nullptr;

} // namespace

Daemon::Publication::Publication(Daemon &daemon) {
    assert(serving == nullptr);
    serving = &daemon;
}

Daemon::Publication::~Publication() {
    serving = nullptr;
}

Daemon &Daemon::Serving() {
    assert(serving != nullptr);
    return *serving;
}

Daemon::Daemon(Options theOptions, const host::Clocks &theClocks, const host::procfs::Procfs &theProc,
               SampleSource &sampleSource)
    : options(std::move(theOptions)), clocks(theClocks), proc(theProc),
      sampler(sampleSource, clocks, options.sampleInterval) {
    if (options.zoneLink) {
        clock.ApplyToSystem(*options.zoneLink);
    }
    clock.Load();
    healthSettings.Load();
    WatchResources();
    measurement.Start(options.measuredBytesPerSecond);
    rules.Load();
    WatchAgents();
    WatchAgentHealth();
    courier.Start();
    timers.Start();
    if (options.takesSamples) {
        sampleDriver.emplace(sampler);
    }
}

Daemon::~Daemon() {
    sampleDriver.reset();
    masterLink.Stop();
    timers.Stop();
    courier.Stop();
    measurement.Stop();
}

// ---- Until every part is handed what it needs ----

host::Store &TheStore() {
    return Daemon::Serving().store;
}
Clock &TheClock() {
    return Daemon::Serving().clock;
}
Timers &TheTimers() {
    return Daemon::Serving().timers;
}
State &TheState() {
    return Daemon::Serving().state;
}
const Options &TheSettings() {
    return Daemon::Serving().options;
}
Courier &TheCourier() {
    return Daemon::Serving().courier;
}
Subscriptions &TheSubscriptions() {
    return Daemon::Serving().subscriptions;
}
Rules &TheRules() {
    return Daemon::Serving().rules;
}
HealthSettings &TheHealthSettings() {
    return Daemon::Serving().healthSettings;
}
Sampler &TheSampler() {
    return Daemon::Serving().sampler;
}
Measurement &TheMeasurement() {
    return Daemon::Serving().measurement;
}
MasterLink &TheMasterLink() {
    return Daemon::Serving().masterLink;
}

} // namespace tarnd
