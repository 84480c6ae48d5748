// One reading of what the system and its processes have used so far.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/procfs/procfs.h"

namespace tarnd {

// What a CPU, or all of them, spent its time on since the system started, in clock ticks.
struct CpuTicks {
    uint64_t user = 0; // with the time of nice processes
    uint64_t system = 0;
    uint64_t interrupt = 0; // hard and soft
    uint64_t stolen = 0;    // by the hypervisor
    uint64_t idle = 0;
    uint64_t ioWait = 0;

    uint64_t Busy() const { return user + system + interrupt + stolen; }
    uint64_t Total() const { return Busy() + idle + ioWait; }
};

struct CpuSample {
    uint32_t id = 0;
    CpuTicks ticks;
};

struct MemorySample { // KiB
    uint64_t total = 0;
    uint64_t available = 0;
    uint64_t free = 0;
    uint64_t buffers = 0;
    uint64_t cached = 0;
    uint64_t slab = 0;
    uint64_t shared = 0;
    uint64_t swapTotal = 0;
    uint64_t swapFree = 0;
};

struct ThreadTimes {
    uint32_t tid = 0;
    host::procfs::SchedulerCount count;
};

struct ProcessSample {
    uint32_t pid = 0;
    uint32_t threadNum = 0;
    uint64_t startTicks = 0; // since the system started; tells apart two processes that had the same id
    uint64_t cpuTicks = 0;
    uint64_t cpuNs = 0;      // the same by the process's own clock, a little earlier; 0: not known
    uint64_t childTicks = 0; // of children that have ended and were waited for, and of theirs
    uint64_t rssKb = 0;
    char state = 0; // as procfs::Task has it
    std::string name;
    // In rising order of the ids. Read again only when the process has used CPU time, so a thread may have run for
    // less than a tick more than is told here. Null where the threads could not be read, or there are too many.
    std::shared_ptr<const std::vector<ThreadTimes>> threads;
    int threadsError = 0; // of the system, when it refused
};

// What is kept for longest.
struct SystemSample {
    std::chrono::system_clock::time_point time;
    std::chrono::steady_clock::time_point at;
    CpuTicks cpu; // of all CPUs
    MemorySample memory;
    uint64_t contextSwitches = 0;
    uint32_t runnable = 0; // threads that run or wait for a CPU
};

struct Sample {
    SystemSample system;
    std::vector<CpuSample> cpus;
    bool hasProcesses = false;            // else they were not read; the sampler says so
    std::vector<ProcessSample> processes; // in rising order of their ids

    // Null when there was no such process.
    const ProcessSample *Find(uint32_t pid) const;
    // The same process, not another one of the same id.
    const ProcessSample *Find(const ProcessSample &process) const;
};

} // namespace tarnd
