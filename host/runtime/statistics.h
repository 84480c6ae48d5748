// What a server counts: for each method its calls and how long they took, and what was refused or cut off, by reason.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace host {

// Durations from 1 us to 18 minutes, in buckets an eighth of a power of two wide: a percentile is at most 6 % off.
class Histogram {
public:
    void Add(std::chrono::nanoseconds duration);

    // The duration that `share` of all stay below, from 0 to 1; 0 when there are none.
    std::chrono::nanoseconds Percentile(double share) const;
    std::chrono::nanoseconds Max() const { return std::chrono::nanoseconds(max_.load(std::memory_order_relaxed)); }
    std::chrono::nanoseconds Sum() const { return std::chrono::nanoseconds(sum_.load(std::memory_order_relaxed)); }

    // How many are below each bound; the last bound is above all. The bounds are a power of four apart, so that few
    // tell milliseconds from seconds.
    struct Bound {
        std::chrono::nanoseconds below;
        uint64_t count;
    };
    static constexpr size_t kBounds = 14;
    std::array<Bound, kBounds> Below() const;

private:
    static constexpr unsigned kFirstPower = 10; // of the shortest duration told apart, in ns
    static constexpr unsigned kPowers = 30;
    static constexpr unsigned kParts = 8; // of each power of two
    static size_t BucketOf(uint64_t value);
    static double LowerEnd(size_t bucket);

    std::array<std::atomic<uint32_t>, size_t{kPowers} * kParts> buckets_{};
    std::atomic<uint64_t> max_ = 0, sum_ = 0; // in ns
};

struct MethodStatistics {
    std::atomic<uint64_t> calls = 0;     // that have ended
    std::atomic<uint64_t> errors = 0;    // of them, those that ended with a status or an error
    std::atomic<uint64_t> cancelled = 0; // of them, those whose caller had given up or gone
    Histogram latency;                   // from the arrival of the request to its answer
};

// Why a server refused a connection or a request, or cut a connection off.
enum class Reason {
    kConnections,
    kUserConnections,
    kGarbage,
    kMessageSize,
    kSilent,
    kIdle,
    kSlowReader,
    kQueuedBytes,
    kNoMemory,
    kRequests,
    kReceivedBytes,
    kRequestSize,
    kDenied,
    kUnknown,
    kTypeMismatch,
    kExpired,
    kStopping,
    kEnd_
};

struct ReasonText {
    const char *name;
    const char *meaning;
};
const ReasonText &TextOf(Reason reason);

class Refusals {
public:
    void Count(Reason reason) { At(reason).fetch_add(1, std::memory_order_relaxed); }
    uint64_t Get(Reason reason) const { return counts_[static_cast<size_t>(reason)].load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> &At(Reason reason) { return counts_[static_cast<size_t>(reason)]; }
    std::array<std::atomic<uint64_t>, static_cast<size_t>(Reason::kEnd_)> counts_{};
};

} // namespace host
