// Log records that users cause as often as they like. Of each user the first record on a topic is written at once, and
// of those that follow once an interval how many they were; of what his calls have written he has so many an interval.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/osal/mutex.h"

namespace host {

class PeerLog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kInterval{60};
    static constexpr size_t kMaxTopics = 1024; // what is beyond is one
    static constexpr uint64_t kCallRecords = 60;

    // A topic says what such records have in common. It is a literal, never what a peer has sent.
    void Warn(uid_t user, std::string_view topic, const std::string &record, Clock::time_point now)
        TARN_EXCLUDES(mutex_);

    // Whether a record of what a call of the user does may be written; one that may not is counted.
    bool MayWrite(uid_t user, Clock::time_point now) TARN_EXCLUDES(mutex_);

    // To be called more often than once an interval.
    void Summarize(Clock::time_point now) TARN_EXCLUDES(mutex_);

    // Writes what has not been written.
    void Flush() { Summarize(Clock::time_point::max()); }

private:
    struct Topic {
        Clock::time_point since;
        uint64_t written = 0;
        uint64_t more = 0;
    };

    bool Counts(uid_t user, std::string_view topic, uint64_t most, Clock::time_point now) TARN_REQUIRES(mutex_);
    std::vector<std::string> SummariesAt(Clock::time_point now) TARN_REQUIRES(mutex_);

    Mutex mutex_;
    std::map<std::pair<uid_t, std::string_view>, Topic> topics_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
