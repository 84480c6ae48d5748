// A daemon whose time, samples and /proc are a test's; its methods are called with method_kit.h.
#pragma once

#include "host/daemon/daemon.h"
#include "tests/host/fake_proc.h"
#include "tests/host/scripted_samples.h"

namespace kit {

struct SimulatedDaemon {
    explicit SimulatedDaemon(const tarnd::Options &more = {}) : options(more) {
        options.takesSamples = false;
        options.runDirectory = dir.Path();
        options.logDirectory = dir.Path();
        daemon.emplace(options, clocks, proc, machine);
    }

    // So many times, each with a sample at its end.
    void Pass(std::chrono::nanoseconds time, int times = 1) {
        for (int i = 0; i < times; ++i) {
            machine.Pass(time);
            clocks.Advance(time);
            daemon->sampler.Take();
        }
    }

    // Another that has what the first kept, where there is a state directory.
    void Restart() {
        daemon.reset();
        daemon.emplace(options, clocks, proc, machine);
    }

    const TempDir dir;
    tarnd::Options options;
    ManualClocks clocks;
    FakeProc proc;
    ScriptedMachine machine;
    std::optional<tarnd::Daemon> daemon;
};

} // namespace kit
