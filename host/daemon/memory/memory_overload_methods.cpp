// Memory overloads: what was recorded, and the thresholds.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/explain_source.h"
#include "host/daemon/memory/memory_use.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

namespace fresh_start = host::meaning::fresh_start;
namespace overload_event = host::meaning::overload_event;

void ClearEnvironment(const Tarn_sys_diag_ClearEnvActInput &request) {
    const auto &[what, pattern] = request;
    const std::string_view names = host::TextOf(pattern);
    if (host::TextOf(what) == fresh_start::kLeak.name) {
        Daemon::Serving().memoryLeaks.Mark(std::string(names));
    } else if (!names.empty()) {
        throw host::meaning::BadMember(host::methods::ClearEnvAct, "pattern", names, "none for overloads and settings");
    } else if (host::TextOf(what) == fresh_start::kSettings.name) {
        Daemon::Serving().masterLink.ForgetClients();
    } else {
        Daemon::Serving().memoryOverload.Clear();
    }
}

std::vector<Tarn_sys_diag_SysMemOverloadStat> Described(const std::deque<MemoryEvent> &found) {
    std::vector<Tarn_sys_diag_SysMemOverloadStat> events;
    for (const MemoryEvent &one : found) {
        auto &[time, event] = events.emplace_back();
        time = Daemon::Serving().clock.LocalTime(one.time);
        event = static_cast<uint8_t>(one.begins ? overload_event::kBegins : overload_event::kEnds);
    }
    return events;
}

} // namespace

} // namespace tarnd

using tarnd::Daemon;

uint32_t GetSysMemOverloadStat(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadStat, request, replyCtx, [](auto &reply) {
        const tarnd::MemoryOverload::Record record = Daemon::Serving().memoryOverload.TheRecord();
        auto &[overloaded, eventNum, events] = reply.Members();
        overloaded = record.lasts ? 1 : 0;
        events = reply.Keep(tarnd::Described(record.events), eventNum);
    });
}

uint32_t GetSysMemOverloadSw(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadSw, request, replyCtx, [](auto &reply) {
        auto &[on, debug] = reply.Members();
        on = Daemon::Serving().memoryOverload.Thresholds().Value().over != 0 ? 1 : 0;
        debug = Daemon::Serving().overloadDebug.IsOn(host::meaning::overload_monitor::kMemory) ? 1 : 0;
    });
}

uint32_t GetSysMemOverloadCfg(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadCfg, request, replyCtx, [&](auto &reply) {
        const Daemon &daemon = Daemon::Serving();
        const tarnd::Setting<tarnd::MemoryThresholds> setting = daemon.memoryOverload.Thresholds();
        const tarnd::MemoryThresholds &thresholds = setting.Value();
        auto &[beginsAt, endsBelow, inUse, sampleInterval, overloads] = reply.Members();
        beginsAt = thresholds.over;
        endsBelow = thresholds.recover;
        inUse = tarnd::UsedPermille(daemon.sampler.Latest()->system.memory);
        sampleInterval = static_cast<uint32_t>(daemon.sampler.Interval().count());
        overloads = daemon.memoryOverload.TheRecord().overloads;
        tarnd::ExplainSource(replyCtx, "thresholds", setting.From());
    });
}

uint32_t SysOvLoadMemThresholdSet(const Tarn_sys_diag_SysOvLoadMemThreshold *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SysOvLoadMemThresholdSet, request, replyCtx, [&] {
        const auto &[beginsAt, endsBelow] = *request;
        Daemon::Serving().memoryOverload.Set({beginsAt, endsBelow});
        Daemon::Serving().masterLink.TellMemoryThresholds();
    });
}

uint32_t ClearEnvAct(const Tarn_sys_diag_ClearEnvActInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ClearEnvAct, request, replyCtx,
                              [&] { tarnd::ClearEnvironment(*request); });
}
