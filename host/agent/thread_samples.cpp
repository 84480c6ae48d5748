#include "host/agent/thread_samples.h"

#include "host/agent/process.h"

namespace agent {

std::vector<ThreadSample> SampleThreads(const host::procfs::Procfs &procfs, const host::Clocks &clocks) {
    std::vector<ThreadSample> samples;
    for (const host::procfs::Task &task : procfs.ReadThreads(OwnPid())) {
        host::procfs::SkipEnded([&] {
            const host::procfs::SchedulerCount count = procfs.ReadSchedulerCount(OwnPid(), task.id);
            const std::chrono::nanoseconds busy(count.runNs + count.waitNs);
            samples.push_back({task.id, task.name, task.lastCpu, busy, clocks.SteadyNow()});
        });
    }
    return samples;
}

} // namespace agent
