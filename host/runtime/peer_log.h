// Log records that peers cause as often as they like. The first of a kind is written at once, and of those that follow
// once an interval how many they were.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace host {

class PeerLog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kInterval{60};
    static constexpr size_t kMaxKinds = 256; // peers make up names; what is beyond is of one kind

    // `kind` is what such records have in common: whom it is about, and what.
    void Warn(const std::string &kind, const std::string &record);

    // To be called more often than once an interval.
    void Summarize(Clock::time_point now);

    // Writes what has not been written.
    void Flush() { Summarize(Clock::time_point::max()); }

private:
    struct Kind {
        Clock::time_point since;
        uint64_t more = 0;
    };

    std::mutex mutex_;
    std::map<std::string, Kind> kinds_;
};

} // namespace host
