#include "host/daemon/memory/memory_leaks.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <optional>

#include "host/answer/answer.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/daemon/sampling/sampler.h"
#include "host/daemon/time/text.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Seconds = std::chrono::duration<double>;

// Lines for an array of fixed size, without half ones.
class Report {
public:
    explicit Report(const std::string &head) { Add(head); }

    void Add(const std::string &line) {
        if (text_.size() + line.size() + 1 >= sizeof(Tarn_sys_diag_MemLeakQryOut::acLeakInfo)) {
            cut_ = true;
        }
        if (!cut_) {
            text_ += line + "\n";
        }
    }

    void Fill(Tarn_sys_diag_MemLeakQryOut &reply) const {
        host::CopyText(reply.acLeakInfo, text_);
        reply.ucValue2 = cut_ ? 1 : 0;
    }

private:
    std::string text_;
    bool cut_ = false;
};

struct Growth {
    uint32_t pid = 0;
    std::string name;
    uint64_t rssKb = 0;
    uint64_t grownKb = 0;
    Seconds over{};

    double KbPerMinute() const { return static_cast<double>(grownKb) * 60 / over.count(); }
};

// Growth that does not come back: of the quarters of the time each has a higher minimum than the one before. What a
// process takes and frees again and again does not show, nor what it took once at its start.
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

std::vector<ProcessPoint> PointsSince(uint32_t pid, std::chrono::steady_clock::time_point since) {
    std::vector<ProcessPoint> points = TheSampler().HistoryOf(pid);
    const auto first =
        std::find_if(points.begin(), points.end(), [&](const ProcessPoint &point) { return point.at >= since; });
    points.erase(points.begin(), first);
    return points;
}

std::chrono::steady_clock::time_point WindowStart(uint32_t seconds) {
    return seconds == 0 ? std::chrono::steady_clock::time_point{}
                        : std::chrono::steady_clock::now() - std::chrono::seconds(seconds);
}

std::system_error NoProcess(uint32_t pid) {
    return {ESRCH, std::generic_category(), fmt::format("process {}", pid)};
}

Report Suspects(const Tarn_sys_diag_MemLeakQryIn &request, void *replyCtx) {
    const uint64_t leastKb = request.uiValue4 == 0 ? TARND_LEAK_DEFAULT_KIB : request.uiValue4;
    std::vector<Growth> suspects;
    const SamplePtr latest = TheSampler().Latest();
    if (request.uiValue2 != 0 && latest->Find(request.uiValue2) == nullptr) {
        throw NoProcess(request.uiValue2);
    }
    for (const ProcessSample &process : latest->processes) {
        host::CheckWanted(replyCtx);
        if (request.uiValue2 != 0 && process.pid != request.uiValue2) {
            continue;
        }
        const auto since = std::max(WindowStart(request.uiValue3), TheLeakMarks().Of(process.name));
        const std::vector<ProcessPoint> points = PointsSince(process.pid, since);
        if (points.empty()) {
            continue;
        }
        const std::optional<uint64_t> grown = SteadyGrowth(points);
        if (grown && *grown >= leastKb) {
            suspects.push_back(
                {process.pid, process.name, process.rssKb, *grown, points.back().at - points.front().at});
        }
    }
    std::stable_sort(suspects.begin(), suspects.end(),
                     [](const Growth &a, const Growth &b) { return a.grownKb > b.grownKb; });
    Report report(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12} {:>8}", "PID", "NAME", "RSS KiB", "GROWN KiB",
                              "KiB/min", "OVER s"));
    for (const Growth &growth : suspects) {
        report.Add(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12.0f} {:>8.0f}", growth.pid, Printable(growth.name),
                               growth.rssKb, growth.grownKb, growth.KbPerMinute(), growth.over.count()));
    }
    return report;
}

// Evenly chosen ones, the first and the last among them.
template <class Element>
std::vector<Element> Thinned(const std::vector<Element> &elements, size_t most) {
    if (elements.size() <= most) {
        return elements;
    }
    std::vector<Element> thinned;
    for (size_t i = 0; i < most; ++i) {
        thinned.push_back(elements[most == 1 ? elements.size() - 1 : i * (elements.size() - 1) / (most - 1)]);
    }
    return thinned;
}

size_t MostLines(const Tarn_sys_diag_MemLeakQryIn &request) {
    return request.uiValue4 == 0 ? TARND_HISTORY_DEFAULT_LINES : request.uiValue4;
}

Report ProcessHistory(const Tarn_sys_diag_MemLeakQryIn &request) {
    if (TheSampler().HistoryOf(request.uiValue2).empty()) {
        throw NoProcess(request.uiValue2);
    }
    Report report(fmt::format("{:<19} {:>12} {:>8}", "TIME", "RSS KiB", "THREADS"));
    const auto points = PointsSince(request.uiValue2, WindowStart(request.uiValue3));
    for (const ProcessPoint &point : Thinned(points, MostLines(request))) {
        report.Add(fmt::format("{:<19} {:>12} {:>8}", TimeText(point.time), point.rssKb, point.threadNum));
    }
    return report;
}

Report SystemHistory(const Tarn_sys_diag_MemLeakQryIn &request) {
    Report report(fmt::format("{:<19} {:>7} {:>12} {:>12} {:>12} {:>12}", "TIME", "IN USE", "AVAIL KiB", "FREE KiB",
                              "CACHED KiB", "SWAP KiB"));
    std::vector<SystemSample> samples = TheSampler().History();
    const auto since = WindowStart(request.uiValue3);
    samples.erase(samples.begin(), std::find_if(samples.begin(), samples.end(),
                                                [&](const SystemSample &sample) { return sample.at >= since; }));
    for (const SystemSample &sample : Thinned(samples, MostLines(request))) {
        const MemorySample &memory = sample.memory;
        report.Add(fmt::format("{:<19} {:>7} {:>12} {:>12} {:>12} {:>12}", TimeText(sample.time), UsedPermille(memory),
                               memory.available, memory.free, memory.cached, memory.swapTotal - memory.swapFree));
    }
    return report;
}

Report Overloads() {
    Report report(
        fmt::format("{:<19} {:<8} {:>7} {:>8} {:<16} {:>12}", "TIME", "OVERLOAD", "IN USE", "PID", "NAME", "RSS KiB"));
    for (const MemoryEvent &event : TheMemoryOverload().TheRecord().events) {
        report.Add(fmt::format("{:<19} {:<8} {:>7} {:>8} {:<16} {:>12}", TimeText(event.time),
                               event.begins ? "begins" : "ends", event.usedPermille, event.pid, Printable(event.name),
                               event.rssKb));
    }
    return report;
}

Report Query(const Tarn_sys_diag_MemLeakQryIn &request, void *replyCtx) {
    switch (request.uiValue1) {
    case TARND_LEAK_SUSPECTS:
        return Suspects(request, replyCtx);
    case TARND_LEAK_HISTORY:
        return request.uiValue2 != 0 ? ProcessHistory(request) : SystemHistory(request);
    case TARND_LEAK_OVERLOADS:
        return Overloads();
    default:
        throw host::BadValue("uiValue1", request.uiValue1, "0 leak suspects, 1 history or 2 overloads");
    }
}

} // namespace

void LeakMarks::Set(const std::string &pattern) {
    const std::lock_guard lock(mutex_);
    if (pattern.empty()) {
        marks_.clear();
    }
    if (marks_.size() >= kPatterns && marks_.count(pattern) == 0) {
        throw std::system_error(ENOSPC, std::generic_category(),
                                fmt::format("{} other patterns are marked; an empty one clears them", marks_.size()));
    }
    marks_[pattern] = std::chrono::steady_clock::now();
}

std::chrono::steady_clock::time_point LeakMarks::Of(const std::string &processName) const {
    const std::lock_guard lock(mutex_);
    std::chrono::steady_clock::time_point latest{};
    for (const auto &[pattern, mark] : marks_) {
        if (pattern.empty() || fnmatch(pattern.c_str(), processName.c_str(), 0) == 0) {
            latest = std::max(latest, mark);
        }
    }
    return latest;
}

} // namespace tarnd

uint32_t MemLeakOrHisQry(const Tarn_sys_diag_MemLeakQryIn *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_MemLeakQryOut>(
        __func__, replyCtx, [&](auto &reply) { tarnd::Query(*request, replyCtx).Fill(reply); });
}
