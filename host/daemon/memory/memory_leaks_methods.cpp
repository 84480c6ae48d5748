// Memory leaks and the history of memory, as text for people.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_use.h"
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
    Report report(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12} {:>8}", "PID", "NAME", "RSS KiB", "GROWN KiB",
                              "KiB/min", "OVER s"));
    for (const LeakSuspect &suspect :
         Daemon::Serving().memoryLeaks.Suspects(scope, leastKib, [&] { host::CheckWanted(replyCtx); })) {
        report.Add(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12.0f} {:>8.0f}", suspect.pid,
                               host::LineOfText(suspect.name), suspect.rssKb, suspect.grownKb, suspect.KbPerMinute(),
                               suspect.over.count()));
    }
    return report;
}

// So many at most, evenly chosen, the first and the last among them.
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
