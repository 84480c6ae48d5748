// Memory leaks and the history of memory, as text for people.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_use.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

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

Report Suspects(const Tarn_sys_diag_MemLeakQryIn &request, void *replyCtx) {
    const uint64_t leastKb = request.uiValue4 == 0 ? TARND_LEAK_DEFAULT_KIB : request.uiValue4;
    Report report(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12} {:>8}", "PID", "NAME", "RSS KiB", "GROWN KiB",
                              "KiB/min", "OVER s"));
    for (const LeakSuspect &suspect : Daemon::Serving().memoryLeaks.Suspects(
             {request.uiValue2, request.uiValue3}, leastKb, [&] { host::CheckWanted(replyCtx); })) {
        report.Add(fmt::format("{:>8} {:<16} {:>12} {:>12} {:>12.0f} {:>8.0f}", suspect.pid,
                               host::Printable(suspect.name), suspect.rssKb, suspect.grownKb, suspect.KbPerMinute(),
                               suspect.over.count()));
    }
    return report;
}

// As many as the request wants, evenly chosen, the first and the last among them.
template <class Element>
std::vector<Element> Thinned(const std::vector<Element> &elements, const Tarn_sys_diag_MemLeakQryIn &request) {
    const size_t most = request.uiValue4 == 0 ? TARND_HISTORY_DEFAULT_LINES : request.uiValue4;
    if (elements.size() <= most) {
        return elements;
    }
    std::vector<Element> thinned;
    for (size_t i = 0; i < most; ++i) {
        thinned.push_back(elements[most == 1 ? elements.size() - 1 : i * (elements.size() - 1) / (most - 1)]);
    }
    return thinned;
}

Report ProcessHistory(const Tarn_sys_diag_MemLeakQryIn &request) {
    const Daemon &daemon = Daemon::Serving();
    Report report(fmt::format("{:<19} {:>12} {:>8}", "TIME", "RSS KiB", "THREADS"));
    const auto points = daemon.memoryLeaks.ProcessHistory({request.uiValue2, request.uiValue3});
    for (const ProcessPoint &point : Thinned(points, request)) {
        report.Add(fmt::format("{:<19} {:>12} {:>8}", daemon.clock.Text(point.time), point.rssKb, point.threadNum));
    }
    return report;
}

Report SystemHistory(const Tarn_sys_diag_MemLeakQryIn &request) {
    const Daemon &daemon = Daemon::Serving();
    Report report(fmt::format("{:<19} {:>7} {:>12} {:>12} {:>12} {:>12}", "TIME", "IN USE", "AVAIL KiB", "FREE KiB",
                              "CACHED KiB", "SWAP KiB"));
    for (const SystemSample &sample : Thinned(daemon.memoryLeaks.SystemHistory(request.uiValue3), request)) {
        const MemorySample &memory = sample.memory;
        report.Add(fmt::format("{:<19} {:>7} {:>12} {:>12} {:>12} {:>12}", daemon.clock.Text(sample.time),
                               UsedPermille(memory), memory.available, memory.free, memory.cached,
                               memory.swapTotal - memory.swapFree));
    }
    return report;
}

Report Overloads() {
    const Daemon &daemon = Daemon::Serving();
    Report report(
        fmt::format("{:<19} {:<8} {:>7} {:>8} {:<16} {:>12}", "TIME", "OVERLOAD", "IN USE", "PID", "NAME", "RSS KiB"));
    for (const MemoryEvent &event : daemon.memoryOverload.TheRecord().events) {
        report.Add(fmt::format("{:<19} {:<8} {:>7} {:>8} {:<16} {:>12}", daemon.clock.Text(event.time),
                               event.begins ? "begins" : "ends", event.usedPermille, event.pid,
                               host::Printable(event.name), event.rssKb));
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

} // namespace tarnd

uint32_t MemLeakOrHisQry(const Tarn_sys_diag_MemLeakQryIn *request, void *replyCtx) {
    return host::Answer(host::methods::MemLeakOrHisQry, request, replyCtx,
                        [&](auto &reply) { tarnd::Query(*request, replyCtx).Fill(reply); });
}
