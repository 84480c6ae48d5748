#include "host/daemon/sampling/thread_times.h"

#include <system_error>

#include "host/osal/log.h"

namespace tarnd {

namespace {

// The threads that an earlier sample has of a process that has been idle since; null for another.
std::shared_ptr<const std::vector<ThreadTimes>> ThreadsOfIdle(const ProcessSample &process, const Sample *previous) {
    const ProcessSample *const before = previous == nullptr ? nullptr : previous->Find(process);
    const bool idle =
        before != nullptr && before->cpuTicks == process.cpuTicks && before->threadNum == process.threadNum;
    return idle ? before->threads : nullptr;
}

} // namespace

std::vector<ThreadTimes> ReadThreadTimes(const host::procfs::Procfs &proc, uint32_t pid) {
    std::vector<ThreadTimes> threads;
    for (const uint32_t tid : proc.ThreadIds(pid)) {
        host::procfs::SkipEnded([&] { threads.push_back({tid, proc.ReadSchedulerCount(pid, tid)}); });
    }
    return threads;
}

void ThreadSampler::AddThreads(std::vector<ProcessSample> &processes, const Sample *previous) {
    bool many = processes.size() > kMaxSampledProcesses;
    if (many) {
        processes.resize(kMaxSampledProcesses);
    }
    size_t threadNum = 0;
    for (ProcessSample &process : processes) {
        if (threadNum + process.threadNum > kMaxSampledThreads) {
            many = true;
            break;
        }
        threadNum += process.threadNum;
        process.threadsError = 0;
        process.threads = ThreadsOfIdle(process, previous);
        if (process.threads == nullptr) {
            Read(process);
        }
    }
    if (many && !toldOfMany_) {
        host::Log().warn("more processes or threads than are sampled: {} and {}", kMaxSampledProcesses,
                         kMaxSampledThreads);
    }
    toldOfMany_ = many;
}

void ThreadSampler::Read(ProcessSample &process) const {
    try {
        process.threads = std::make_shared<const std::vector<ThreadTimes>>(ReadThreadTimes(proc_, process.pid));
    } catch (const std::system_error &error) { // ended meanwhile, not ours to see, or no descriptor is left
        process.threadsError = error.code().value();
    }
}

} // namespace tarnd
