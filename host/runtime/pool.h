// The idle connections of a client, by target.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/channel.h"

namespace host {

class Pool {
public:
    using Clock = std::chrono::steady_clock;
    using Target = std::pair<uint32_t, std::string_view>; // the process, or 0, and the service whose socket it is

    // The connection that was given back last, so that a thread's calls go out in order; or null.
    std::unique_ptr<Channel> Take(const Target &target, Clock::time_point now);
    // A connection whose last use began then.
    void Give(const Target &target, std::unique_ptr<Channel> channel, Clock::time_point used);
    void Forget(const Target &target);
    void Clear();

private:
    struct Idle {
        std::unique_ptr<Channel> channel;
        Clock::time_point since;
    };
    struct ByTarget {
        using is_transparent = void;
        bool operator()(const Target &left, const Target &right) const { return left < right; }
    };

    Mutex mutex_;
    std::map<std::pair<uint32_t, std::string>, std::vector<Idle>, ByTarget> idle_ TARN_GUARDED_BY(mutex_);
    Clock::time_point lastSweep_ TARN_GUARDED_BY(mutex_) = Clock::now();
};

} // namespace host
