#include "host/daemon/sampling/sampler.h"

#include <time.h>

#include <algorithm>
#include <utility>

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
    const host::MutexLock reading(readMutex_);
    KeepTick(lastProcesses_ = Read(Reading::kProcessesAnew));
}

Sampler::~Sampler() {
    const auto us = [](std::chrono::nanoseconds time) { return time.count() / 1000; };
    const host::MutexLock lock(mutex_);
    host::Log().info("{} samples of {} processes: {} us of CPU time each, {} us the longest", cost_.samples,
                     whole_.back()->processes.size(), us(cost_.cpu) / static_cast<int64_t>(cost_.samples),
                     us(cost_.longest));
}

void Sampler::OnSample(const char *name, Hook hook) {
    followers_.push_back({name, {}, std::move(hook)});
}

void Sampler::OnProcesses(const char *name, Need need, Hook hook) {
    followers_.push_back({name, std::move(need), std::move(hook)});
}

Reading Sampler::NextReading() const {
    if (ticks_ % kCoarseEvery == 0) {
        return Reading::kProcessesAnew;
    }
    const bool needed = std::ranges::any_of(
        followers_, [](const Follower &follower) { return follower.need != nullptr && follower.need(); });
    return needed || clocks_.SteadyNow() < attentionUntil_.load() ? Reading::kProcesses : Reading::kSystem;
}

void Sampler::Take() {
    const Reading reading = NextReading();
    const SamplePtr previous = Latest();
    const SamplePtr latest = [&] {
        const host::MutexLock one(readMutex_);
        const SamplePtr sample = Read(reading);
        KeepTick(sample);
        return sample;
    }();
    const SamplePtr before = latest->hasProcesses ? std::exchange(lastProcesses_, latest) : nullptr;
    for (const Follower &follower : followers_) {
        if (follower.need == nullptr) {
            host::Attempt(follower.name, [&] { follower.hook(previous, latest); });
        } else if (latest->hasProcesses) {
            host::Attempt(follower.name, [&] { follower.hook(before, latest); });
        }
    }
}

void Sampler::Look() {
    attentionUntil_ = clocks_.SteadyNow() + kAttention;
    WithProcesses();
}

SamplePtr Sampler::WithProcesses() {
    const host::MutexLock one(readMutex_);
    {
        const host::MutexLock lock(mutex_);
        if (whole_.back()->system.at >= latest_->system.at) {
            return whole_.back();
        }
    }
    return Read(Reading::kProcesses);
}

SamplePtr Sampler::WithProcess(uint32_t pid) {
    const SamplePtr latest = WithProcesses();
    if (latest->Find(pid) != nullptr) {
        return latest;
    }
    const host::MutexLock one(readMutex_);
    return Read(Reading::kProcesses);
}

SamplePtr Sampler::Latest() const {
    const host::MutexLock lock(mutex_);
    return latest_;
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
    const std::chrono::nanoseconds least = std::max<std::chrono::nanoseconds>(age, interval_ / 2);
    return {NewestBefore(std::min(last, latest->system.at - least)), latest};
}

Sampler::Window Sampler::LastTwo() const {
    const host::MutexLock lock(mutex_);
    RequireTwo(system_.size());
    return {previous_, latest_};
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

SamplePtr Sampler::Read(Reading reading) {
    const SamplePtr previous = [this]() -> SamplePtr {
        const host::MutexLock lock(mutex_);
        return whole_.empty() ? nullptr : whole_.back();
    }();
    const std::chrono::nanoseconds cpuStart = CpuTimeOfThread();
    const host::WallTime time = clocks_.WallNow();
    const host::SteadyTime at = clocks_.SteadyNow();
    auto sample = std::make_shared<Sample>(source_.Read(reading, previous.get()));
    sample->system.time = time;
    sample->system.at = at;
    sample->hasProcesses = reading != Reading::kSystem;
    Keep(sample, CpuTimeOfThread() - cpuStart, clocks_.SteadyNow() - at);
    return sample;
}

void Sampler::Keep(const SamplePtr &sample, std::chrono::nanoseconds cpu, std::chrono::nanoseconds elapsed) {
    const host::MutexLock lock(mutex_);
    ++cost_.samples;
    cost_.cpu += cpu;
    cost_.longest = std::max(cost_.longest, elapsed);
    if (sample->hasProcesses) {
        Push(whole_, sample, kWholeSamples);
        while (sample->system.at - whole_.front()->system.at > interval_ * kSystemSamples) {
            whole_.pop_front();
        }
    }
}

void Sampler::KeepTick(const SamplePtr &sample) {
    const host::MutexLock lock(mutex_);
    if (ticks_++ % kCoarseEvery == 0) {
        Push(coarse_, WithoutThreads(*sample), kCoarseSamples);
    }
    Push(system_, sample->system, kSystemSamples);
    previous_ = std::exchange(latest_, sample);
}

} // namespace tarnd
