// Memory leaks and the history of memory, as text for people.
#include <algorithm>
#include <iterator>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_use.h"
#include "host/meaning/check.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

namespace memory_report = host::meaning::memory_report;

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
        auto &[text, cut] = reply;
        host::CopyText(text, text_);
        cut = cut_ ? 1 : 0;
    }

private:
    std::string text_;
    bool cut_ = false;
};

Report Suspects(const MemoryLeaks::Scope &scope, uint32_t leastKib, void *replyCtx) {
    Report report(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>10} {:>8} {:>8}", "PID", "NAME", "RSS KiB", "GROWN KiB",
                              "KiB/min", "+/-", "OVER s"));
    for (const LeakSuspect &suspect :
         Daemon::Serving().memoryLeaks.Suspects(scope, leastKib, [&] { host::CheckWanted(replyCtx); })) {
        report.Add(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>10.0f} {:>8.0f} {:>8.0f}", suspect.pid,
                               host::LineOfText(suspect.name), suspect.rssKb, suspect.grownKb,
                               suspect.trend.kbPerMinute, suspect.trend.error, suspect.over.count()));
    }
    return report;
}

// So many at most, the first and the last among them, at times that are as even as there are points.
template <class Point>
std::vector<Point> Thinned(const std::vector<Point> &points, size_t most) {
    if (points.size() <= most) {
        return points;
    }
    if (most == 1) {
        return {points.back()};
    }
    const auto span = points.back().at - points.front().at;
    std::vector<Point> thinned;
    for (size_t i = 0; i < most; ++i) {
        const host::SteadyTime wanted = points.front().at + span * i / (most - 1);
        const auto after = std::ranges::upper_bound(points, wanted, {}, &Point::at);
        if (const Point &point = *std::prev(after); thinned.empty() || thinned.back().at != point.at) {
            thinned.push_back(point);
        }
    }
    return thinned;
}

Report ProcessHistory(const MemoryLeaks::Scope &scope, size_t most) {
    const Daemon &daemon = Daemon::Serving();
    Report report(fmt::format("{:<25} {:>12} {:>8}", "TIME", "RSS KiB", "THREADS"));
    for (const ProcessPoint &point : Thinned(daemon.memoryLeaks.ProcessHistory(scope), most)) {
        report.Add(fmt::format("{:<25} {:>12} {:>8}", daemon.clock.Text(point.time), point.rssKb, point.threadNum));
    }
    return report;
}

Report SystemHistory(uint32_t seconds, size_t most) {
    const Daemon &daemon = Daemon::Serving();
    Report report(fmt::format("{:<25} {:>7} {:>12} {:>12} {:>12} {:>12}", "TIME", "IN USE", "AVAIL KiB", "FREE KiB",
                              "CACHED KiB", "SWAP KiB"));
    for (const SystemSample &sample : Thinned(daemon.memoryLeaks.SystemHistory(seconds), most)) {
        const MemorySample &memory = sample.memory;
        report.Add(fmt::format("{:<25} {:>7} {:>12} {:>12} {:>12} {:>12}", daemon.clock.Text(sample.time),
                               UsedPermille(memory), memory.available, memory.free, memory.cached,
                               memory.swapTotal - memory.swapFree));
    }
    return report;
}

Report Overloads() {
    const Daemon &daemon = Daemon::Serving();
    Report report(
        fmt::format("{:<25} {:<8} {:>7} {:>8} {:<16} {:>12}", "TIME", "OVERLOAD", "IN USE", "PID", "NAME", "RSS KiB"));
    for (const MemoryEvent &event : daemon.memoryOverload.TheRecord().events) {
        report.Add(fmt::format("{:<25} {:<8} {:>7} {:>8} {:<16} {:>12}", daemon.clock.Text(event.time),
                               event.begins ? "begins" : "ends", event.usedPermille, event.pid,
                               host::LineOfText(event.name), event.rssKb));
    }
    return report;
}

Report Query(const Tarn_sys_diag_MemLeakQryIn &request, void *replyCtx) {
    const auto &[report, process, interval, limit] = request;
    if (report == memory_report::kOverloads) {
        return Overloads();
    }
    if (report == memory_report::kSuspects) {
        constexpr std::chrono::seconds kLeast = MemoryLeaks::kLeastAge;
        if (interval != 0 && std::chrono::seconds(interval) < kLeast) {
            throw host::meaning::BadMember(host::methods::MemLeakOrHisQry, "interval", interval,
                                           fmt::format("at least {} s for suspects", kLeast.count()));
        }
        return Suspects({process, interval}, limit == 0 ? memory_report::kDefaultGrowthKib : limit, replyCtx);
    }
    const size_t lines = limit == 0 ? memory_report::kDefaultLines : limit;
    return process == 0 ? SystemHistory(interval, lines) : ProcessHistory({process, interval}, lines);
}

} // namespace

} // namespace tarnd

uint32_t MemLeakOrHisQry(const Tarn_sys_diag_MemLeakQryIn *request, void *replyCtx) {
    return host::Answer(host::methods::MemLeakOrHisQry, request, replyCtx,
                        [&](auto &reply) { tarnd::Query(*request, replyCtx).Fill(reply); });
}
