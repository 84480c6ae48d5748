// Memory overloads: what was recorded, and the thresholds.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_use.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

void ClearEnvironment(const Tarn_sys_diag_ClearEnvActInput &request) {
    const std::string_view what = host::TextOf(request.acValue1);
    const std::string_view pattern = host::TextOf(request.acValue2);
    if (what == "overload" && pattern.empty()) {
        Daemon::Serving().memoryOverload.Clear();
    } else if (what == "leak") {
        Daemon::Serving().memoryLeaks.Mark(std::string(pattern));
    } else if (what == "overload") {
        throw host::BadValue("acValue2", fmt::format("\"{}\"", pattern), "none with overload");
    } else {
        throw host::BadValue("acValue1", fmt::format("\"{}\"", what), "overload or leak");
    }
}

} // namespace

} // namespace tarnd

using tarnd::Daemon;

uint32_t GetSysMemOverloadStat(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadStat, request, replyCtx, [](auto &reply) {
        const tarnd::MemoryOverload::Record record = Daemon::Serving().memoryOverload.TheRecord();
        reply.uiValue1 = record.lasts ? 1 : 0;
        std::vector<Tarn_sys_diag_SysMemOverloadStat> events;
        for (const tarnd::MemoryEvent &event : record.events) {
            events.push_back(
                {Daemon::Serving().clock.LocalTime(event.time), static_cast<uint8_t>(event.begins ? 1 : 0)});
        }
        reply.pstRecord = reply.Keep(std::move(events), reply.uiRecordNum);
    });
}

uint32_t GetSysMemOverloadSw(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadSw, request, replyCtx, [](auto &reply) {
        reply.uiSwitch = Daemon::Serving().memoryOverload.Thresholds().over != 0 ? 1 : 0;
        reply.ucValue2 = Daemon::Serving().overloadDebug.IsOn(TARND_MONITOR_MEMORY) ? 1 : 0;
    });
}

uint32_t GetSysMemOverloadCfg(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemOverloadCfg, request, replyCtx, [](auto &reply) {
        const Daemon &daemon = Daemon::Serving();
        const tarnd::MemoryThresholds thresholds = daemon.memoryOverload.Thresholds();
        reply.uiValue1 = thresholds.over;
        reply.uiValue2 = thresholds.recover;
        reply.uiValue3 = tarnd::UsedPermille(daemon.sampler.Latest()->system.memory);
        reply.uiValue4 = static_cast<uint32_t>(daemon.sampler.Interval().count());
        reply.uiValue5 = daemon.memoryOverload.TheRecord().overloads;
    });
}

uint32_t SysOvLoadMemThresholdSet(const Tarn_sys_diag_SysOvLoadMemThreshold *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SysOvLoadMemThresholdSet, request, replyCtx, [&] {
        const uint32_t recover = request->uiValue2 == 0 ? request->uiValue1 : request->uiValue2;
        Daemon::Serving().memoryOverload.Set({request->uiValue1, recover});
        Daemon::Serving().masterLink.TellMemoryThresholds();
    });
}

uint32_t ClearEnvAct(const Tarn_sys_diag_ClearEnvActInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ClearEnvAct, request, replyCtx,
                              [&] { tarnd::ClearEnvironment(*request); });
}
