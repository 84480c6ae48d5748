// The watchdog for threads that run without a break.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "host/agent/thread_samples.h"
#include "host/osal/mutex.h"
#include "tarn_sysdiag/agent.h"

namespace agent {

class DeadLoops {
public:
    struct Config {
        bool on = true;
        std::chrono::milliseconds period{1000};
        std::chrono::milliseconds limit{10000};
        uint32_t cpuPercent = 90;
        std::vector<uint32_t> cpus = {}; // none: all
    };
    struct Thread {
        bool watched = true;
        std::optional<std::chrono::milliseconds> limit = {}; // its own
        uint32_t detectNum = 0;
        // Of the run that goes on:
        std::optional<ThreadSample> last = {}; // at the last check
        std::chrono::nanoseconds running{0};
        bool detected = false;
    };
    using Sampler = std::function<std::vector<ThreadSample>()>;

    // `wake` is called when Check would say something else than it did.
    DeadLoops(Sampler sampler, std::function<void()> wake) : sampler_(std::move(sampler)), wake_(std::move(wake)) {}

    uint32_t Configure(const TarnAgentDeadLoopCfg &config); // 0 or EINVAL
    void Watch(uint32_t tid, uint32_t limitMs);
    void Exempt(uint32_t tid);

    // Looks at all threads. How long until it should again.
    std::chrono::milliseconds Check();

    Config GetConfig() const;
    Thread GetThread(uint32_t tid) const;
    uint32_t LoopNum() const; // threads that are in one now

private:
    void CheckThread(const ThreadSample &sample) TARN_REQUIRES(mutex_);
    std::set<uint32_t> Known() const;

    const Sampler sampler_;
    const std::function<void()> wake_;
    mutable host::Mutex mutex_;
    Config config_ TARN_GUARDED_BY(mutex_);
    std::map<uint32_t, Thread> threads_ TARN_GUARDED_BY(mutex_);
};

} // namespace agent
