#include "host/daemon/memory/memory_leaks.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "host/osal/error.h"

namespace tarnd {

namespace {

// Of a time series, what is not older.
template <class Point>
std::vector<Point> Since(host::SteadyTime since, std::vector<Point> points) {
    const auto first = std::ranges::find_if(points, [&](const Point &point) { return point.at >= since; });
    points.erase(points.begin(), first);
    return points;
}

[[noreturn]] void FailWithoutProcess(uint32_t pid) {
    host::Fail(ESRCH, fmt::format("process {}", pid));
}

} // namespace

std::optional<uint64_t> SteadyGrowth(const std::vector<ProcessPoint> &points) {
    constexpr size_t kParts = 4;
    std::array<uint64_t, kParts> lowest;
    lowest.fill(UINT64_MAX);
    const auto start = points.front().at;
    const auto span = points.back().at - start;
    for (const ProcessPoint &point : points) {
        const auto part = static_cast<size_t>((point.at - start) * kParts / (span + std::chrono::nanoseconds(1)));
        lowest[part] = std::min(lowest[part], point.rssKb);
    }
    for (size_t part = 1; part < kParts; ++part) {
        if (lowest[part] == UINT64_MAX || lowest[part] <= lowest[part - 1]) {
            return std::nullopt;
        }
    }
    return lowest.back() - lowest.front();
}

Trend TrendOf(const std::vector<ProcessPoint> &points) {
    const auto number = static_cast<double>(points.size());
    const auto minutes = [&](const ProcessPoint &point) {
        return std::chrono::duration<double, std::ratio<60>>(point.at - points.front().at).count();
    };
    double meanTime = 0, meanKb = 0;
    for (const ProcessPoint &point : points) {
        meanTime += minutes(point) / number;
        meanKb += static_cast<double>(point.rssKb) / number;
    }
    double ofTime = 0, ofBoth = 0, ofKb = 0; // sums of squares and products
    for (const ProcessPoint &point : points) {
        const double time = minutes(point) - meanTime, kb = static_cast<double>(point.rssKb) - meanKb;
        ofTime += time * time;
        ofBoth += time * kb;
        ofKb += kb * kb;
    }
    const double slope = ofBoth / ofTime;
    const double besideTheLine = std::max(ofKb - slope * ofBoth, 0.0);
    return {slope, 2 * std::sqrt(besideTheLine / (number - 2) / ofTime)};
}

void MemoryLeaks::Mark(const std::string &pattern) {
    const host::MutexLock lock(mutex_);
    if (pattern.empty()) {
        marks_.clear();
    }
    if (marks_.size() >= kPatterns && marks_.count(pattern) == 0) {
        host::Fail(ENOSPC, fmt::format("{} other patterns are marked; an empty one clears them", marks_.size()));
    }
    marks_[pattern] = clocks_.SteadyNow();
}

// The start of time for a process without a mark.
host::SteadyTime MemoryLeaks::MarkOf(const std::string &processName) const {
    const host::MutexLock lock(mutex_);
    host::SteadyTime latest{};
    for (const auto &[pattern, mark] : marks_) {
        if (pattern.empty() || fnmatch(pattern.c_str(), processName.c_str(), 0) == 0) {
            latest = std::max(latest, mark);
        }
    }
    return latest;
}

host::SteadyTime MemoryLeaks::WindowStart(uint32_t seconds) const {
    return seconds == 0 ? host::SteadyTime{} : clocks_.SteadyNow() - std::chrono::seconds(seconds);
}

// The points of a process are closer together where somebody looked.
std::vector<ProcessPoint> MemoryLeaks::EvenPoints(uint32_t pid, host::SteadyTime since) const {
    const std::chrono::nanoseconds step = sampler_.Interval() * Sampler::kCoarseEvery;
    const std::chrono::nanoseconds early = sampler_.Interval() / 2; // samples are not to the nanosecond
    std::vector<ProcessPoint> even;
    for (const ProcessPoint &point : Since(since, sampler_.HistoryOf(pid))) {
        if (even.empty() || point.at - even.back().at >= step - early) {
            even.push_back(point);
        }
    }
    return even;
}

std::optional<LeakSuspect> MemoryLeaks::Suspect(const ProcessSample &process, uint32_t seconds) const {
    const auto since = std::max(WindowStart(seconds), MarkOf(process.name));
    const std::vector<ProcessPoint> points = EvenPoints(process.pid, since);
    if (points.size() < kLeastPoints || points.back().at - points.front().at < kLeastAge) {
        return std::nullopt;
    }
    const std::optional<uint64_t> grown = SteadyGrowth(points);
    const Trend trend = TrendOf(points);
    if (!grown || !trend.Rises()) {
        return std::nullopt;
    }
    return LeakSuspect{process.pid, process.name, process.rssKb, *grown, trend, points.back().at - points.front().at};
}

std::vector<LeakSuspect> MemoryLeaks::Suspects(const Scope &scope, uint64_t leastKb, const host::Check &check) const {
    const SamplePtr latest = scope.pid == 0 ? sampler_.WithProcesses() : sampler_.WithProcess(scope.pid);
    if (scope.pid != 0 && latest->Find(scope.pid) == nullptr) {
        FailWithoutProcess(scope.pid);
    }
    std::vector<LeakSuspect> suspects;
    for (const ProcessSample &process : latest->processes) {
        check();
        if (scope.pid != 0 && process.pid != scope.pid) {
            continue;
        }
        std::optional<LeakSuspect> suspect = Suspect(process, scope.seconds);
        if (suspect && suspect->grownKb >= leastKb) {
            suspects.push_back(std::move(*suspect));
        }
    }
    std::ranges::stable_sort(suspects, std::ranges::greater(), &LeakSuspect::grownKb);
    return suspects;
}

std::vector<ProcessPoint> MemoryLeaks::ProcessHistory(const Scope &scope) const {
    sampler_.WithProcess(scope.pid);
    std::vector<ProcessPoint> points = sampler_.HistoryOf(scope.pid);
    if (points.empty()) {
        FailWithoutProcess(scope.pid);
    }
    return Since(WindowStart(scope.seconds), std::move(points));
}

std::vector<SystemSample> MemoryLeaks::SystemHistory(uint32_t seconds) const {
    return Since(WindowStart(seconds), sampler_.History());
}

} // namespace tarnd
