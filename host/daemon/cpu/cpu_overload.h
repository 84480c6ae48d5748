// CPU overloads: of the system, and of processes that are watched one by one. Each is recorded with the moment, the
// process that used most and the stacks of the busiest threads, in a history.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/daemon/cpu/crossing.h"
#include "host/daemon/cpu/overload.h"
#include "host/daemon/history/event.h"
#include "host/daemon/sampling/rates.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/setting.h"
#include "host/osal/mutex.h"
#include "host/osal/work_queue.h"
#include "host/store/store.h"

namespace tarnd {

struct WatchedThread {
    uint32_t tid = 0;
    uint64_t runNs = 0;
    uint32_t permille = 0; // between the last two samples
    uint32_t highest = 0;
};

// A process with thresholds of its own, until it ends.
struct Watched {
    uint64_t startTicks = 0;
    Thresholds thresholds;
    Crossing crossing;
    std::shared_ptr<Overload> overload; // that lasts
    uint32_t overloads = 0;
    std::vector<WatchedThread> threads; // in rising order of their ids; empty until the next sample
};

class CpuOverload {
public:
    static constexpr size_t kThreads = 10;
    static constexpr size_t kMaxWatched = 256;
    // Overloads whose stacks are waited for; of more at a time the stacks would tell little by when they are read.
    static constexpr size_t kMaxPending = 4;

    // Adds the names and stacks of the threads; is called by a thread of its own, since that takes longer than a sample
    // may.
    using ReadStacks = std::function<void(Overload &)>;

    // Loads what was set before a restart, and follows the samples.
    CpuOverload(host::Store &store, OverloadHistory &history, Journal &journal, Sampler &sampler,
                const host::procfs::Procfs &proc, ReadStacks readStacks);
    CpuOverload(const CpuOverload &) = delete;
    CpuOverload &operator=(const CpuOverload &) = delete;

    // Without a share to end below, an overload ends below the one that it begins at. What is thrown when they can't be
    // kept leaves the thresholds as they were; so for all that are set.
    void SetSystem(const Thresholds &thresholds, Source source = Source::kClient);
    void ForgetClients(); // what they have set for the system
    Setting<Thresholds> System() const;
    void Watch(uint32_t pid, const Thresholds &thresholds);
    void Unwatch(uint32_t pid); // throws ENOENT
    size_t WatchedNumber() const;
    Watched WatchedProcess(uint32_t pid) const; // throws ENOENT

    uint32_t RecordNumber() const; // since the start
    // The system's last one; where it had none, the last of the watched processes. Throws ENODATA.
    Overload Last() const;
    void ResetPeaks(); // of the watched threads

private:
    void Load();
    void Save() const TARN_REQUIRES(mutex_); // which keeps documents in the order of their changes
    void Change(const Setting<Thresholds> &system) TARN_REQUIRES(mutex_);
    bool NeedsProcesses() const;
    void Take(const SamplePtr &previous, const SamplePtr &latest);
    void TakeSystem(const SamplePtr &previous, const SamplePtr &latest) TARN_REQUIRES(mutex_);
    void TakeProcess(Watched &watched, const ProcessSample &process, const SamplePtr &previous, const SamplePtr &latest)
        TARN_REQUIRES(mutex_);
    std::shared_ptr<Overload> Begin(Overload::Of of, const Sample &since, const ProcessSample &process,
                                    std::vector<ThreadUse> uses, const Sample &latest) TARN_REQUIRES(mutex_);
    void End(std::shared_ptr<Overload> &overload, const Sample &latest) TARN_REQUIRES(mutex_);
    void Keep(Overload &overload) TARN_REQUIRES(mutex_);
    void Record(const std::shared_ptr<Overload> &overload, Overload withStacks);

    host::Store &store_;
    OverloadHistory &history_;
    Journal &journal_;
    const host::procfs::Procfs &proc_;
    const ReadStacks readStacks_;

    mutable host::Mutex mutex_;
    Setting<Thresholds> thresholds_ TARN_GUARDED_BY(mutex_){Thresholds{}};
    Crossing system_ TARN_GUARDED_BY(mutex_);
    std::shared_ptr<Overload> ofSystem_ TARN_GUARDED_BY(mutex_); // that lasts
    std::map<uint32_t, Watched> watched_ TARN_GUARDED_BY(mutex_);
    uint32_t recordNumber_ TARN_GUARDED_BY(mutex_) = 0;
    std::optional<Overload> lastOfSystem_ TARN_GUARDED_BY(mutex_), lastOfProcess_ TARN_GUARDED_BY(mutex_);
    size_t pendingNum_ TARN_GUARDED_BY(mutex_) = 0; // their stacks are to be read

    host::WorkQueue queue_{"overload"}; // that reads them; ends before what it uses
};

} // namespace tarnd
