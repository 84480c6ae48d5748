#include "host/daemon/sampling/sampler.h"

#include <time.h>

#include <algorithm>

#include "host/osal/attempt.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

template <class Element>
void Push(std::deque<Element> &ring, Element element, size_t capacity) {
    if (ring.size() == capacity) {
        ring.pop_front();
    }
    ring.push_back(std::move(element));
}

// A sample to be kept long: the threads are what takes most room, and nobody asks for them after two minutes.
SamplePtr WithoutThreads(const Sample &sample) {
    auto coarse = std::make_shared<Sample>(sample);
    for (ProcessSample &process : coarse->processes) {
        process.threads.reset();
    }
    return coarse;
}

std::chrono::nanoseconds CpuTimeOfThread() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void RequireTwo(size_t samples) {
    if (samples < 2) {
        throw std::system_error(EAGAIN, std::generic_category(), "the second sample has not been taken yet");
    }
}

} // namespace

Sampler::Sampler(SampleSource &source, const host::Clocks &clocks, std::chrono::milliseconds interval)
    : source_(source), clocks_(clocks), interval_(interval) {
    Read(nullptr);
}

Sampler::~Sampler() {
    const auto us = [](std::chrono::nanoseconds time) { return time.count() / 1000; };
    const host::MutexLock lock(mutex_);
    host::Log().info("{} samples of {} processes: {} us of CPU time each, {} us the longest", cost_.samples,
                     whole_.back()->processes.size(), us(cost_.cpu) / static_cast<int64_t>(cost_.samples),
                     us(cost_.longest));
}

void Sampler::OnSample(const char *name, Hook hook) {
    hooks_.emplace_back(name, std::move(hook));
}

void Sampler::Take() {
    const SamplePtr previous = Latest();
    const SamplePtr latest = Read(previous.get());
    for (const auto &[name, hook] : hooks_) {
        host::Attempt(name, [&, &call = hook] { call(previous, latest); });
    }
}

SamplePtr Sampler::Latest() const {
    const host::MutexLock lock(mutex_);
    return whole_.back();
}

SamplePtr Sampler::Before(std::chrono::nanoseconds age) const {
    const host::MutexLock lock(mutex_);
    return NewestBefore(clocks_.SteadyNow() - age);
}

Sampler::Window Sampler::Last(std::chrono::nanoseconds age) const {
    const host::MutexLock lock(mutex_);
    RequireTwo(whole_.size());
    const SamplePtr latest = whole_.back();
    const auto &last = whole_[whole_.size() - 2]->system.at;
    return {NewestBefore(std::min(last, latest->system.at - age)), latest};
}

SamplePtr Sampler::NewestBefore(host::SteadyTime when) const {
    const auto sample = std::find_if(whole_.rbegin(), whole_.rend(),
                                     [&](const SamplePtr &candidate) { return candidate->system.at <= when; });
    return sample == whole_.rend() ? whole_.front() : *sample;
}

Sampler::SystemWindow Sampler::LastOfSystem(std::chrono::nanoseconds age) const {
    const host::MutexLock lock(mutex_);
    RequireTwo(system_.size());
    const SystemSample &latest = system_.back();
    const auto from = std::find_if(system_.rbegin() + 1, system_.rend(),
                                   [&](const SystemSample &candidate) { return latest.at - candidate.at >= age; });
    return {from == system_.rend() ? system_.front() : *from, latest};
}

std::vector<SamplePtr> Sampler::Recent(size_t number) const {
    const host::MutexLock lock(mutex_);
    const size_t skip = whole_.size() - std::min(number, whole_.size());
    return {whole_.begin() + static_cast<ptrdiff_t>(skip), whole_.end()};
}

std::vector<SystemSample> Sampler::History() const {
    const host::MutexLock lock(mutex_);
    return {system_.begin(), system_.end()};
}

std::vector<ProcessPoint> Sampler::HistoryOf(uint32_t pid) const {
    std::vector<SamplePtr> samples;
    {
        const host::MutexLock lock(mutex_);
        for (const SamplePtr &sample : coarse_) {
            if (sample->system.at < whole_.front()->system.at) {
                samples.push_back(sample);
            }
        }
        samples.insert(samples.end(), whole_.begin(), whole_.end());
    }
    std::vector<ProcessPoint> points;
    const ProcessSample *const now = samples.empty() ? nullptr : samples.back()->Find(pid);
    if (now == nullptr) {
        return points;
    }
    for (const SamplePtr &sample : samples) {
        if (const ProcessSample *const process = sample->Find(*now)) {
            points.push_back(
                {sample->system.time, sample->system.at, process->cpuTicks, process->rssKb, process->threadNum});
        }
    }
    return points;
}

Sampler::Cost Sampler::TheCost() const {
    const host::MutexLock lock(mutex_);
    return cost_;
}

SamplePtr Sampler::Read(const Sample *previous) {
    const std::chrono::nanoseconds cpuStart = CpuTimeOfThread();
    const host::WallTime time = clocks_.WallNow();
    const host::SteadyTime at = clocks_.SteadyNow();
    auto sample = std::make_shared<Sample>(source_.Read(previous));
    sample->system.time = time;
    sample->system.at = at;
    Keep(sample, CpuTimeOfThread() - cpuStart, clocks_.SteadyNow() - at);
    return sample;
}

void Sampler::Keep(SamplePtr sample, std::chrono::nanoseconds cpu, std::chrono::nanoseconds elapsed) {
    const host::MutexLock lock(mutex_);
    if (cost_.samples++ % kCoarseEvery == 0) {
        Push(coarse_, WithoutThreads(*sample), kCoarseSamples);
    }
    cost_.cpu += cpu;
    cost_.longest = std::max(cost_.longest, elapsed);
    Push(system_, sample->system, kSystemSamples);
    Push(whole_, std::move(sample), kWholeSamples);
}

} // namespace tarnd
