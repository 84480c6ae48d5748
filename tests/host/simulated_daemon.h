// A daemon whose time, samples and /proc are a test's; its methods are called with method_kit.h.
#pragma once

#include <optional>

#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd_agent.h"
#include "tests/host/fake_peers.h"
#include "tests/host/fake_proc.h"
#include "tests/host/manual_driver.h"
#include "tests/host/method_kit.h"
#include "tests/host/scripted_samples.h"

namespace kit {

// Where such a daemon keeps what outlives it: a base before it, as the daemon goes first.
struct StateDirectory {
    tarnd::Options Kept() const {
        tarnd::Options options;
        options.stateDirectory = state.Path();
        return options;
    }
    const TempDir state;
};

struct SimulatedDaemon {
    explicit SimulatedDaemon(const tarnd::Options &more = {}) : options(more) {
        options.runsByItself = false;
        options.runDirectory = options.faultDirectory = dir.Path();
        if (options.logDirectory == tarnd::Options().logDirectory) {
            options.logDirectory = dir.Path();
        }
        Start();
    }

    // So many times, each with a sample at its end, and with what is due then.
    void Pass(std::chrono::nanoseconds time, int times = 1) {
        for (int i = 0; i < times; ++i) {
            machine.Pass(time);
            clocks.Advance(time);
            if (somebodyLooks) {
                daemon->sampler.Look();
            }
            daemon->sampler.Take();
            RunDue();
        }
    }

    void Stop() {
        drivers.reset();
        daemon.reset();
    }

    // Another that has what the first kept, where there is a state directory.
    void Restart() {
        Stop();
        Start();
    }

    // Until nothing is due.
    void RunDue() {
        while (drivers->history.RunDue() + drivers->timers.RunDue() + drivers->courier.RunDue() +
                   drivers->masterLink.RunDue() !=
               0) {
        }
    }

    // A process that runs an agent, which registers: the result.
    uint32_t AddAgent(uint32_t pid, const std::string &name) {
        proc.SetThread(pid, FakeProc::MakeTask(pid, name));
        peers.agents.insert(pid);
        Tarn_sys_diag_AgentRegInfoInput request{};
        host::CopyText(request.szAgentName, name);
        request.uiValue1 = pid;
        request.uiValue2 = 1;
        request.ucValue3 = 1;
        return CallMethod<Tarn_sys_diag_AgentRegInfoResult>(AgentRegInfo, request)->uiValue1;
    }

    bool somebodyLooks = true; // at processes, all the time
    const TempDir dir;
    tarnd::Options options;
    ManualClocks clocks;
    FakeProc proc;
    ScriptedMachine machine;
    FakePeers peers;
    host::stacks::Helpers helpers; // none
    std::optional<tarnd::Daemon> daemon;

    struct Drivers {
        explicit Drivers(SimulatedDaemon &of)
            : history(of.daemon->history, of.clocks), timers(of.daemon->timers, of.clocks),
              courier(of.daemon->courier, of.clocks), masterLink(of.daemon->masterLink, of.clocks) {}
        ManualDriver<tarnd::History> history;
        ManualDriver<tarnd::Timers> timers;
        ManualDriver<tarnd::Courier> courier;
        ManualDriver<tarnd::MasterLink> masterLink;
    };
    std::optional<Drivers> drivers;

private:
    void Start() {
        daemon.emplace(options, clocks, proc, machine, peers, helpers);
        drivers.emplace(*this);
    }
};

} // namespace kit
