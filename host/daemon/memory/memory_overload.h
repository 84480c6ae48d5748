// Memory overloads: the moments at which the share of memory in use crosses a threshold, and who had most of it then.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

#include "host/daemon/history/event.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/setting.h"
#include "host/osal/mutex.h"
#include "host/store/store.h"

namespace tarnd {

// Shares of all memory, in permille.
struct MemoryThresholds {
    uint32_t over = 900;    // an overload begins at this; 0: none does
    uint32_t recover = 850; // and ends below this; 0: below the same

    bool operator==(const MemoryThresholds &) const = default;
};

struct MemoryEvent {
    std::chrono::system_clock::time_point time;
    bool begins = false;
    uint32_t usedPermille = 0;
    uint32_t pid = 0; // the process that had most memory
    std::string name;
    uint64_t rssKb = 0;
};

class MemoryOverload {
public:
    static constexpr size_t kEvents = 256;

    // With the thresholds that were set before a restart. Follows the samples.
    MemoryOverload(host::Store &store, Journal &journal, Sampler &sampler);

    // Kept beyond a restart; what is thrown when that fails leaves the thresholds as they were.
    void Set(const MemoryThresholds &thresholds, Source source = Source::kClient);
    void ForgetClients();
    Setting<MemoryThresholds> Thresholds() const;

    struct Record {
        bool lasts = false;             // an overload, at this moment
        uint32_t overloads = 0;         // since the start or the last Clear
        std::deque<MemoryEvent> events; // the newest of them, oldest first
    };
    Record TheRecord() const;

    // Forgets what was recorded. An overload that lasts is recorded anew with the next sample.
    void Clear();

    void Take(const Sample &sample);

private:
    void Change(const Setting<MemoryThresholds> &changed) TARN_REQUIRES(mutex_);

    host::Store &store_;
    Journal &journal_;
    Sampler &sampler_;
    mutable host::Mutex mutex_;
    Setting<MemoryThresholds> thresholds_ TARN_GUARDED_BY(mutex_);
    Record record_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
