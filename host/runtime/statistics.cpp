#include "host/runtime/statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace host {

size_t Histogram::BucketOf(uint64_t value) {
    value = std::max<uint64_t>(value, 1U << kFirstPower);
    const auto power = static_cast<unsigned>(std::bit_width(value)) - 1;
    const auto part = static_cast<unsigned>(value >> (power - 3)) - kParts; // the three bits behind the first
    return std::min<size_t>(size_t{power - kFirstPower} * kParts + part, size_t{kPowers} * kParts - 1);
}

double Histogram::LowerEnd(size_t bucket) {
    const double power = std::ldexp(1.0, static_cast<int>(kFirstPower + bucket / kParts));
    return power * (1 + static_cast<double>(bucket % kParts) / kParts);
}

void Histogram::Add(std::chrono::nanoseconds duration) {
    const auto value = static_cast<uint64_t>(std::max<int64_t>(duration.count(), 0));
    buckets_[BucketOf(value)].fetch_add(1, std::memory_order_relaxed);
    sum_.fetch_add(value, std::memory_order_relaxed);
    uint64_t most = max_.load(std::memory_order_relaxed);
    while (most < value && !max_.compare_exchange_weak(most, value, std::memory_order_relaxed)) {
    }
}

std::chrono::nanoseconds Histogram::Percentile(double share) const {
    std::array<uint32_t, size_t{kPowers} * kParts> counts;
    uint64_t total = 0;
    for (size_t i = 0; i < counts.size(); ++i) {
        counts[i] = buckets_[i].load(std::memory_order_relaxed);
        total += counts[i];
    }
    double before = share * static_cast<double>(total);
    for (size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] > 0 && before <= counts[i]) {
            const double within = LowerEnd(i) + (LowerEnd(i + 1) - LowerEnd(i)) * before / counts[i];
            return std::min(std::chrono::nanoseconds(std::llround(within)), Max());
        }
        before -= counts[i];
    }
    return Max();
}

std::array<Histogram::Bound, Histogram::kBounds> Histogram::Below() const {
    constexpr unsigned kStep = 2; // powers of two from one bound to the next
    static_assert(kFirstPower + (kBounds - 1) * kStep < kFirstPower + kPowers);
    std::array<Bound, kBounds> bounds;
    uint64_t count = 0;
    size_t bucket = 0;
    for (size_t i = 0; i < kBounds; ++i) {
        const bool isLast = i + 1 == kBounds;
        for (const size_t end = isLast ? buckets_.size() : (i + 1) * kStep * kParts; bucket < end; ++bucket) {
            count += buckets_[bucket].load(std::memory_order_relaxed);
        }
        bounds[i] = {isLast ? std::chrono::nanoseconds::max()
                            : std::chrono::nanoseconds(int64_t{1} << (kFirstPower + (i + 1) * kStep)),
                     count};
    }
    return bounds;
}

const ReasonText &TextOf(Reason reason) {
    static constexpr ReasonText kTexts[] = {
        {"connections", "connections refused: the server has as many as it takes"},
        {"user_connections", "connections refused: their user has his share of them"},
        {"garbage", "connections cut off: what they sent is no frame"},
        {"message_size", "connections cut off: a message beyond the limit"},
        {"silent", "connections cut off: silent in the middle of a frame"},
        {"idle", "connections closed: without a request for too long"},
        {"slow_reader", "connections cut off: they did not take a reply in time"},
        {"queued_bytes", "connections cut off: too many bytes wait to be taken"},
        {"no_memory", "connections cut off: there was no memory for what they asked"},
        {"requests", "requests refused: as many are in flight as the server takes, or as their user's share"},
        {"received_bytes",
         "requests refused: as many bytes are in flight as the server takes, or as their user's share"},
        {"request_size", "requests refused: larger than the method's can be"},
        {"denied", "requests refused: the policy does not allow the method to the caller"},
        {"unknown", "requests refused: no such service or method"},
        {"type_mismatch", "requests refused: of another type than the method's"},
        {"expired", "requests not run: their deadline passed before their turn"},
        {"stopping", "requests refused: the server was stopping"},
    };
    static_assert(std::size(kTexts) == static_cast<size_t>(Reason::kEnd_));
    return kTexts[static_cast<size_t>(reason)];
}

} // namespace host
