// CPU overloads: of the system, and of processes that are watched one by one. Each is recorded with the moment, the
// process that used most and the stacks of its busiest threads; the last one is kept.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/daemon/cpu/crossing.h"
#include "host/daemon/sampling/rates.h"
#include "host/daemon/sampling/sampler.h"

namespace tarnd {

struct OverloadThread {
    uint32_t tid = 0;
    std::string name;
    uint64_t runNs = 0; // since the thread started
    uint32_t permille = 0;
    std::optional<std::string> stack; // none when it could not be read
};

struct Overload {
    std::chrono::system_clock::time_point begin;
    std::optional<std::chrono::system_clock::time_point> end; // none while it lasts
    uint32_t pid = 0;                                         // the process that used most
    std::string name;
    uint32_t systemPermille = 0;
    uint32_t processPermille = 0;
    std::vector<OverloadThread> threads; // the busiest first
};

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
    uint32_t overloads = 0;
    std::vector<WatchedThread> threads; // in rising order of their ids; empty until the next sample
};

class CpuOverload {
public:
    static constexpr size_t kThreads = 10;
    static constexpr size_t kMaxWatched = 256;

    // Loads what was set before a restart, follows the samples, and starts the thread that reads stacks. Before the
    // sampler starts.
    void Start();
    void Stop();

    void SetSystem(const Thresholds &thresholds);
    Thresholds System() const;
    void Watch(uint32_t pid, const Thresholds &thresholds);
    void Unwatch(uint32_t pid); // throws ENOENT
    size_t WatchedNumber() const;
    Watched WatchedProcess(uint32_t pid) const; // throws ENOENT

    uint32_t RecordNumber() const; // since the start
    Overload Last() const;         // throws ENODATA
    void ResetPeaks();             // of the watched threads

private:
    void Take(const SamplePtr &previous, const SamplePtr &latest);
    void TakeSystem(const SamplePtr &previous, const SamplePtr &latest);
    void TakeProcess(Watched &watched, const ProcessSample &process, const SamplePtr &previous,
                     const SamplePtr &latest);
    void Begin(Crossing &crossing, const ProcessSample &process, const Sample &latest);
    static void End(Crossing &crossing, const Sample &latest);
    void Save() const;
    void ReadStacksOfPending(const std::stop_token &stop);

    mutable std::mutex mutex_;
    Thresholds thresholds_;
    Crossing system_;
    std::map<uint32_t, Watched> watched_;
    uint32_t recordNumber_ = 0;
    std::shared_ptr<Overload> last_;

    std::condition_variable_any wake_;
    std::deque<std::shared_ptr<Overload>> pending_; // their stacks are to be read
    std::jthread thread_;                           // that reads them; ends before what it uses
};

CpuOverload &TheCpuOverload();

} // namespace tarnd
