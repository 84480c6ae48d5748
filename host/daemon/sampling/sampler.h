// Samples the system each second, and keeps what was seen: rates are differences of samples, so whoever asks for one
// need not wait. Every function may be called by any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/daemon/sampling/sample.h"

namespace tarnd {

using SamplePtr = std::shared_ptr<const Sample>;

// What of a process is kept for an hour.
struct ProcessPoint {
    std::chrono::system_clock::time_point time;
    std::chrono::steady_clock::time_point at;
    uint64_t cpuTicks = 0;
    uint64_t rssKb = 0;
    uint32_t threadNum = 0;
};

class Sampler {
public:
    // Kept are, for the default interval of a second: the system for an hour; whole samples for two minutes; every
    // 60th sample, without threads, for an hour. That takes about 0.5 MB, 24 KiB for each process and, for two
    // minutes, 32 bytes a second for each thread of the processes that are not idle.
    static constexpr size_t kSystemSamples = 3600;
    static constexpr size_t kWholeSamples = 120;
    static constexpr size_t kCoarseSamples = 60;
    static constexpr size_t kCoarseEvery = kSystemSamples / kCoarseSamples;
    static constexpr std::chrono::milliseconds kDefaultInterval{1000};
    static constexpr std::chrono::milliseconds kFirstInterval{100}; // so that there are rates soon after the start

    // To be called before Start. The function is called on the sampler's thread after each sample but the first, with
    // the one before it; it delays the next sample while it runs, and what it throws is logged.
    using Hook = std::function<void(const SamplePtr &previous, const SamplePtr &latest)>;
    void OnSample(const char *name, Hook hook);

    // Takes the first sample at once and throws when it can't.
    void Start(std::chrono::milliseconds interval = kDefaultInterval);
    void Stop();

    std::chrono::milliseconds Interval() const { return interval_; }

    // Never null after Start.
    SamplePtr Latest() const;

    // The newest whole sample that is at least `age` old, or else the oldest that is kept.
    SamplePtr Before(std::chrono::nanoseconds age) const;

    // The latest sample and the newest that is at least `age` older, or else the oldest that is kept. Throws EAGAIN
    // while there is but one sample.
    struct Window {
        SamplePtr from;
        SamplePtr to;
        std::chrono::nanoseconds Length() const { return to->system.at - from->system.at; }
    };
    Window Last(std::chrono::nanoseconds age) const;

    // The whole samples, oldest first, at most the last `number`.
    std::vector<SamplePtr> Recent(size_t number = kWholeSamples) const;

    // The system over the last hour, oldest first.
    std::vector<SystemSample> History() const;

    // The process that now has this id, over the last hour: a point each minute, then one each second; oldest first.
    // Empty when no sample has it.
    std::vector<ProcessPoint> HistoryOf(uint32_t pid) const;

    // What the samples took so far.
    struct Cost {
        uint64_t samples = 0;
        std::chrono::nanoseconds cpu{};     // in all
        std::chrono::nanoseconds longest{}; // from start to end, while others ran too
    };
    Cost TheCost() const;

private:
    SamplePtr NewestBefore(std::chrono::steady_clock::time_point when) const;
    void Run(const std::stop_token &stop);
    void TakeSample();
    void Keep(SamplePtr sample, std::chrono::nanoseconds cpu, std::chrono::nanoseconds elapsed);

    std::chrono::milliseconds interval_ = kDefaultInterval;
    std::vector<std::pair<const char *, Hook>> hooks_;
    SampleReader reader_;

    mutable std::mutex mutex_;
    std::condition_variable_any wake_;
    Cost cost_;
    std::deque<SamplePtr> whole_;
    std::deque<SamplePtr> coarse_;
    std::deque<SystemSample> system_;

    std::jthread thread_; // ends before what it uses
};

Sampler &TheSampler();

} // namespace tarnd
