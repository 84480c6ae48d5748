#include "host/daemon/sampling/process_reader.h"

#include <sys/types.h>
#include <time.h>

namespace tarnd {

namespace {

ProcessSample ToSample(const host::procfs::Task &task) {
    ProcessSample process;
    process.pid = task.id;
    process.threadNum = task.threadNum;
    process.startTicks = task.startTicks;
    process.cpuTicks = task.CpuTicks();
    process.childTicks = task.childTicks;
    process.rssKb = task.residentKb;
    process.state = task.state;
    process.name = task.name;
    return process;
}

} // namespace

uint64_t CpuTimeOf(uint32_t pid) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(static_cast<pid_t>(pid), &clock) != 0 || clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

std::vector<ProcessSample> ProcessReader::Read(const Sample *previous) const {
    std::vector<ProcessSample> processes;
    for (const uint32_t pid : proc_.ProcessIds()) {
        const uint64_t cpuNs = cpuTime_(pid);
        const ProcessSample *const before = previous == nullptr ? nullptr : previous->Find(pid);
        // Another process that has its id has used another time, to the nanosecond.
        if (before != nullptr && cpuNs != 0 && cpuNs == before->cpuNs) {
            processes.push_back(*before);
            continue;
        }
        host::procfs::SkipHidden([&] {
            processes.push_back(ToSample(host::procfs::ParseStat(proc_.Read(pid, "stat"))));
            processes.back().cpuNs = cpuNs; // from before: what runs meanwhile is read again
        });
    }
    return processes;
}

} // namespace tarnd
