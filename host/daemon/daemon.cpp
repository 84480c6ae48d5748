#include "host/daemon/daemon.h"

#include <cassert>

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
               SampleSource &sampleSource, Peers &peers, host::stacks::Helpers &theHelpers)
    : options(std::move(theOptions)), clocks(theClocks), proc(theProc), helpers(theHelpers), agentLine(clocks, peers),
      sampler(sampleSource, clocks, options.sampleInterval),
      healthExaminer(clocks, proc, sampler, healthSettings, agentProbe,
                     {options.logDirectory, options.stateDirectory, options.runDirectory}),
      masterLine(peers) {
    if (options.runsByItself) {
        drivers_.emplace(*this);
    }
}

Daemon::~Daemon() = default;

Daemon::Drivers::Drivers(Daemon &daemon)
    : history("history", daemon.history), samples(daemon.sampler), timers("timers", daemon.timers),
      courier("courier", daemon.courier, Courier::kMaxThreads), masterLink("master link", daemon.masterLink) {}

} // namespace tarnd
