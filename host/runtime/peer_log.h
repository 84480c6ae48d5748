// Log records that peers cause as often as they like. The first on a topic is written at once, and of those that follow
// once an interval how many they were.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "host/osal/mutex.h"

namespace host {

class PeerLog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kInterval{60};
    static constexpr size_t kMaxTopics = 256; // peers make up names; what is beyond is one topic

    // `topic` is what such records have in common: whom it is about, and what.
    void Warn(const std::string &topic, const std::string &record, Clock::time_point now) TARN_EXCLUDES(mutex_);

    // To be called more often than once an interval.
    void Summarize(Clock::time_point now) TARN_EXCLUDES(mutex_);

    // Writes what has not been written.
    void Flush() { Summarize(Clock::time_point::max()); }

private:
    struct Topic {
        Clock::time_point since;
        uint64_t more = 0;
    };

    Mutex mutex_;
    std::map<std::string, Topic> topics_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
