// A machine that uses its CPUs and its memory as a test says, for as long as the test says that it does.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/daemon/sampling/sampler.h"
#include "tests/host/manual_clocks.h"

namespace kit {

using namespace std::chrono_literals;

// A CPU counts a thousand ticks a second, so that a second shows each permille of its use. A process counts as many
// as the system does: its shares are exact over ten seconds.
class ScriptedMachine final : public tarnd::SampleSource {
public:
    struct Thread {
        uint32_t runPermille = 0;  // of a CPU, from now on
        uint32_t waitPermille = 0; // ready, without one
        uint32_t slicesPerSecond = 10;
        host::procfs::SchedulerCount count;
    };
    struct Process {
        std::string name;
        uint64_t startTicks = 0;
        uint64_t rssKb = 0;
        char state = 'S';
        std::map<uint32_t, Thread> threads;
        uint64_t usedNs = 0;  // also by threads that have ended
        int threadsError = 0; // set where the threads can't be read
        bool leftOut = false; // there are more threads than are sampled
        uint64_t childNs = 0; // used by children that it has waited for
    };

    explicit ScriptedMachine(uint32_t cpuNum = 2) : busyPermille(cpuNum, 0) {
        for (uint32_t id = 0; id < cpuNum; ++id) {
            cpus.push_back({id, {}});
        }
        memory.total = 1'000'000;
        memory.available = 600'000;
    }

    // A process with one thread, its first. Another that had the id has ended.
    Process &Add(uint32_t pid, std::string name, uint32_t runPermille = 0) {
        Process &process = processes[pid];
        process = {std::move(name), ++lastStart_, 1000, 'S', {}, 0, 0, false};
        process.threads[pid].runPermille = runPermille;
        return process;
    }

    void Pass(std::chrono::nanoseconds time) {
        for (size_t i = 0; i < cpus.size(); ++i) {
            const auto ticks = static_cast<uint64_t>(time / 1ms);
            const uint64_t busy = ticks * busyPermille[i] / 1000;
            cpus[i].ticks.user += busy;
            cpus[i].ticks.idle += ticks - busy;
        }
        for (auto &[pid, process] : processes) {
            for (auto &[tid, thread] : process.threads) {
                Pass(process, thread, time);
            }
        }
    }

    tarnd::Sample Read(tarnd::Reading reading, const tarnd::Sample *previous) override {
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), "the machine");
        }
        tarnd::Sample sample;
        sample.cpus = cpus;
        for (const tarnd::CpuSample &cpu : cpus) {
            Add(sample.system.cpu, cpu.ticks);
        }
        sample.system.memory = memory;
        sample.system.contextSwitches = contextSwitches;
        sample.system.runnable = runnable;
        if (reading == tarnd::Reading::kSystem) {
            return sample;
        }
        ++processReadings;
        for (const auto &[pid, process] : processes) {
            sample.processes.push_back(Describe(pid, process, previous));
        }
        return sample;
    }

    std::vector<uint32_t> busyPermille; // of each CPU, from now on
    std::vector<tarnd::CpuSample> cpus;
    tarnd::MemorySample memory;
    uint64_t contextSwitches = 0;
    uint32_t runnable = 0;
    std::map<uint32_t, Process> processes;
    int error = 0; // that a reading fails with
    size_t processReadings = 0;

private:
    static void Pass(Process &process, Thread &thread, std::chrono::nanoseconds time) {
        const auto ns = static_cast<uint64_t>(time.count());
        const uint64_t ran = ns / 1000 * thread.runPermille;
        thread.count.runNs += ran;
        thread.count.waitNs += ns / 1000 * thread.waitPermille;
        thread.count.sliceNum += ran == 0 ? 0 : thread.slicesPerSecond * static_cast<uint64_t>(time / 1ms) / 1000;
        process.usedNs += ran;
    }

    static void Add(tarnd::CpuTicks &sum, const tarnd::CpuTicks &ticks) {
        sum.user += ticks.user;
        sum.system += ticks.system;
        sum.interrupt += ticks.interrupt;
        sum.stolen += ticks.stolen;
        sum.idle += ticks.idle;
        sum.ioWait += ticks.ioWait;
    }

    static tarnd::ProcessSample Describe(uint32_t pid, const Process &process, const tarnd::Sample *previous) {
        tarnd::ProcessSample sample;
        sample.pid = pid;
        sample.threadNum = static_cast<uint32_t>(process.threads.size());
        sample.startTicks = process.startTicks;
        sample.cpuTicks = process.usedNs * host::procfs::TicksPerSecond() / 1'000'000'000;
        sample.childTicks = process.childNs * host::procfs::TicksPerSecond() / 1'000'000'000;
        sample.rssKb = process.rssKb;
        sample.state = process.state;
        sample.name = process.name;
        sample.threadsError = process.threadsError;
        const tarnd::ProcessSample *const before = previous == nullptr ? nullptr : previous->Find(sample);
        if (process.threadsError != 0 || process.leftOut) {
            return sample;
        }
        if (before != nullptr && before->cpuTicks == sample.cpuTicks && before->threadNum == sample.threadNum) {
            sample.threads = before->threads;
        }
        if (sample.threads == nullptr) {
            auto threads = std::make_shared<std::vector<tarnd::ThreadTimes>>();
            for (const auto &[tid, thread] : process.threads) {
                threads->push_back({tid, thread.count});
            }
            sample.threads = std::move(threads);
        }
        return sample;
    }

    uint64_t lastStart_ = 0;
};

// Such a machine, sampled when its time passes.
struct SampledMachine {
    explicit SampledMachine(uint32_t cpuNum = 2) : machine(cpuNum) {}

    // So many times, each with a sample at its end.
    void Pass(std::chrono::nanoseconds time, int times = 1) {
        for (int i = 0; i < times; ++i) {
            machine.Pass(time);
            clocks.Advance(time);
            if (somebodyLooks) {
                sampler.Look();
            }
            sampler.Take();
        }
    }

    bool somebodyLooks = true;
    ManualClocks clocks;
    ScriptedMachine machine;
    tarnd::Sampler sampler{machine, clocks};
};

} // namespace kit
