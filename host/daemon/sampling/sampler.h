// Samples the system each second, and its processes while somebody looks at them or needs them, else each minute. What
// was seen is kept: rates are differences of samples, so whoever asks for one need not wait. Every function but
// OnSample, OnProcesses and Take may be called by any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/sampling/sample_source.h"
#include "host/osal/mutex.h"

namespace tarnd {

using SamplePtr = std::shared_ptr<const Sample>;

// What of a process is kept for an hour.
struct ProcessPoint {
    host::WallTime time;
    host::SteadyTime at;
    uint64_t cpuTicks = 0;
    uint64_t rssKb = 0;
    uint32_t threadNum = 0;
};

class Sampler {
public:
    // Kept are, for the default interval of a second: the system for an hour; the last 120 samples with processes, or
    // those of the last hour; one of each minute, without threads, for an hour. That takes about 0.5 MB, 24 KiB for
    // each process and, for those 120, 32 bytes for each thread of the processes that are not idle.
    static constexpr size_t kSystemSamples = 3600;
    static constexpr size_t kWholeSamples = 120;
    static constexpr size_t kCoarseSamples = 60;
    static constexpr size_t kCoarseEvery = kSystemSamples / kCoarseSamples;
    static constexpr std::chrono::milliseconds kDefaultInterval{1000};
    static constexpr std::chrono::seconds kAttention{60}; // that somebody is expected to pay who has looked

    // Takes the first sample at once and throws when it can't.
    Sampler(SampleSource &source, const host::Clocks &clocks, std::chrono::milliseconds interval = kDefaultInterval);
    Sampler(const Sampler &) = delete;
    Sampler &operator=(const Sampler &) = delete;
    ~Sampler();

    // Before the second sample. The function is called after each sample but the first, with the one before it; it
    // delays the next sample while it runs, and what it throws is logged.
    using Hook = std::function<void(const SamplePtr &previous, const SamplePtr &latest)>;
    void OnSample(const char *name, Hook hook);

    // The same after samples that have processes, with the one before that had. They have while they are needed.
    using Need = std::function<bool()>;
    void OnProcesses(const char *name, Need need, Hook hook);

    // Takes the next sample. The interval is that at which it is to be called, by one thread.
    void Take();
    std::chrono::milliseconds Interval() const { return interval_; }

    // Somebody looks at processes: there is a sample that has them and is as young as any, and those that follow have
    // them for a while.
    void Look();

    // The latest with processes, which are read now where the latest sample has none. Never null.
    SamplePtr WithProcesses();
    // The same, but read now as well where it has not this process, which may have started since.
    SamplePtr WithProcess(uint32_t pid);

    // Never null; may have no processes.
    SamplePtr Latest() const;

    // The newest sample with processes that is at least `age` old, or else the oldest that is kept.
    SamplePtr Before(std::chrono::nanoseconds age) const;

    struct Window {
        SamplePtr from;
        SamplePtr to;
        std::chrono::nanoseconds Length() const { return to->system.at - from->system.at; }
    };

    // The latest sample with processes and the newest that is at least `age` older, and no less than half of the
    // interval, or else the oldest that is kept. Throws EAGAIN while there is but one.
    Window Last(std::chrono::nanoseconds age) const;

    // The last two samples, which may have no processes. Throws as above.
    Window LastTwo() const;

    // The same of the system alone, as far back as it is kept.
    struct SystemWindow {
        SystemSample from;
        SystemSample to;
    };
    SystemWindow LastOfSystem(std::chrono::nanoseconds age) const;

    // Those with processes, oldest first, at most the last `number`.
    std::vector<SamplePtr> Recent(size_t number = kWholeSamples) const;

    // The system over the last hour, oldest first.
    std::vector<SystemSample> History() const;

    // The process that now has this id, over the last hour: a point each minute, and one each second while somebody
    // looked; oldest first.
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
    struct Follower {
        const char *name;
        Need need; // none: of each sample
        Hook hook;
    };

    Reading NextReading() const;
    SamplePtr Read(Reading reading) TARN_REQUIRES(readMutex_);
    void Keep(const SamplePtr &sample, std::chrono::nanoseconds cpu, std::chrono::nanoseconds elapsed);
    void KeepTick(const SamplePtr &sample);
    SamplePtr NewestBefore(host::SteadyTime when) const TARN_REQUIRES(mutex_);

    SampleSource &source_;
    const host::Clocks &clocks_;
    const std::chrono::milliseconds interval_;
    std::vector<Follower> followers_;
    uint64_t ticks_ = 0;      // samples that were taken when they were due
    SamplePtr lastProcesses_; // the last of them that had processes
    std::atomic<host::SteadyTime> attentionUntil_{host::SteadyTime{}};

    host::Mutex readMutex_; // of the source
    mutable host::Mutex mutex_;
    Cost cost_ TARN_GUARDED_BY(mutex_);
    SamplePtr previous_ TARN_GUARDED_BY(mutex_); // the last but one that was due
    SamplePtr latest_ TARN_GUARDED_BY(mutex_);
    std::deque<SamplePtr> whole_ TARN_GUARDED_BY(mutex_); // those with processes
    std::deque<SamplePtr> coarse_ TARN_GUARDED_BY(mutex_);
    std::deque<SystemSample> system_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
