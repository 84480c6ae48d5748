// The CPU events that are kept.
#include <algorithm>
#include <iterator>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

Tarn_sys_diag_PadsCpuEvent Describe(const CpuEvent &event) {
    Tarn_sys_diag_PadsCpuEvent record{};
    record.stTime = Daemon::Serving().clock.LocalTime(event.begin);
    record.uiDuration = static_cast<uint32_t>(std::min<int64_t>(event.duration.count(), UINT32_MAX));
    record.uiCpuId = event.cpu;
    record.uiCpuUse = event.usePermille;
    record.uiPressure = event.pressurePermille;
    record.uiPid = event.lately.pid;
    record.uiTid = event.lately.tid;
    host::CopyText(record.szThreadName, event.lately.name);
    record.uiThreadUse = event.lately.permille;
    return record;
}

// Of the newest first: an explanation has little room.
std::string WhoHadMostOverall(const std::vector<CpuEvent> &events) {
    std::string text;
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        if (const CpuEvent::Thread &thread = event->overall; thread.tid != event->lately.tid) {
            text += fmt::format("{}over all of the event of {} on CPU {}, thread {} ({}) of process {} had most: "
                                "{} permille",
                                text.empty() ? "" : "; ", Daemon::Serving().clock.TextWithoutZone(event->begin),
                                event->cpu, thread.tid, host::LineOfText(thread.name), thread.pid, thread.permille);
        }
    }
    return text;
}

void ListEvents(const Tarn_sys_diag_PadsCpuEventInput &request, void *replyCtx,
                host::Reply<Tarn_sys_diag_PadsCpuEventResult> &reply) {
    const auto &[process, within, most] = request;
    CpuEventQuery query;
    query.pid = process;
    query.within = std::chrono::seconds(within);
    query.limit = most;
    const std::vector<CpuEvent> events = Daemon::Serving().cpuEvents.List(query);
    std::vector<Tarn_sys_diag_PadsCpuEvent> records;
    std::transform(events.begin(), events.end(), std::back_inserter(records), Describe);
    reply.pstEvent = reply.Keep(std::move(records), reply.uiEventNum);
    TarnHost_ExplainReply(replyCtx, WhoHadMostOverall(events).c_str());
}

} // namespace

} // namespace tarnd

uint32_t TarnPadsGetCpuEventByTarnd(const Tarn_sys_diag_PadsCpuEventInput *request, void *replyCtx) {
    return host::Answer(host::methods::TarnPadsGetCpuEventByTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::ListEvents(*request, replyCtx, reply); });
}
