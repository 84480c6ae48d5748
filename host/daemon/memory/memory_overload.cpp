#include "host/daemon/memory/memory_overload.h"

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/master/master_link.h"
#include "host/daemon/memory/memory_leaks.h"
#include "host/daemon/store.h"
#include "host/daemon/time/local_clock.h"
#include "host/osal/log.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

constexpr char kDocument[] = "memory-overload";
constexpr uint32_t kVersion = 1;

void Check(const MemoryThresholds &thresholds) {
    if (thresholds.over > 1000) {
        throw host::BadValue("uiValue1", thresholds.over, "0 to 1000 permille");
    }
    if (thresholds.recover > thresholds.over) {
        throw host::BadValue("uiValue2", thresholds.recover, fmt::format("0 to uiValue1, {}", thresholds.over));
    }
}

void ClearEnvironment(const Tarn_sys_diag_ClearEnvActInput &request) {
    const std::string_view what = host::TextOf(request.acValue1);
    const std::string_view pattern = host::TextOf(request.acValue2);
    if (what == "overload" && pattern.empty()) {
        TheMemoryOverload().Clear();
    } else if (what == "leak") {
        TheLeakMarks().Set(std::string(pattern));
    } else if (what == "overload") {
        throw host::BadValue("acValue2", fmt::format("\"{}\"", pattern), "none with overload");
    } else {
        throw host::BadValue("acValue1", fmt::format("\"{}\"", what), "overload or leak");
    }
}

} // namespace

void MemoryOverload::Start() {
    TheStore().Load(kDocument, kVersion, [&](const host::Document &content) {
        const MemoryThresholds thresholds{content.Get<uint32_t>("over"), content.Get<uint32_t>("recover")};
        Check(thresholds);
        thresholds_ = thresholds;
    });
    TheSampler().OnSample("memory overload", [this](const SamplePtr &, const SamplePtr &latest) { Take(*latest); });
}

void MemoryOverload::Set(const MemoryThresholds &thresholds) {
    Check(thresholds);
    const std::lock_guard lock(mutex_);
    TheStore().Save(kDocument, kVersion,
                    host::Document::Object{{"over", thresholds.over}, {"recover", thresholds.recover}});
    thresholds_ = thresholds;
    host::Log().info("memory overload: {}", thresholds.over == 0
                                                ? "off"
                                                : fmt::format("begins at {} permille in use, ends below {}",
                                                              thresholds.over, thresholds.recover));
}

MemoryThresholds MemoryOverload::Thresholds() const {
    const std::lock_guard lock(mutex_);
    return thresholds_;
}

MemoryOverload::Record MemoryOverload::TheRecord() const {
    const std::lock_guard lock(mutex_);
    return record_;
}

void MemoryOverload::Clear() {
    const std::lock_guard lock(mutex_);
    record_ = {};
}

void MemoryOverload::Take(const Sample &sample) {
    const uint32_t used = UsedPermille(sample.system.memory);
    const std::lock_guard lock(mutex_);
    const bool over = thresholds_.over != 0 && used >= (record_.lasts ? thresholds_.recover : thresholds_.over);
    if (over == record_.lasts) {
        return;
    }
    record_.lasts = over;
    record_.overloads += over ? 1 : 0;
    MemoryEvent event{sample.system.time, over, used, 0, {}, 0};
    if (const ProcessSample *const largest = LargestProcess(sample)) {
        event.pid = largest->pid;
        event.name = largest->name;
        event.rssKb = largest->rssKb;
    }
    host::Log().warn("memory overload {}: {} permille in use; process {} ({}) has most, {} KiB",
                     over ? "begins" : "ends", used, event.pid, event.name, event.rssKb);
    if (record_.events.size() == kEvents) {
        record_.events.pop_front();
    }
    record_.events.push_back(std::move(event));
}

uint32_t UsedPermille(const MemorySample &memory) {
    if (memory.total == 0) {
        return 0;
    }
    return static_cast<uint32_t>((memory.total - std::min(memory.total, memory.available)) * 1000 / memory.total);
}

const ProcessSample *LargestProcess(const Sample &sample) {
    const auto largest = std::max_element(sample.processes.begin(), sample.processes.end(),
                                          [](const auto &a, const auto &b) { return a.rssKb < b.rssKb; });
    return largest != sample.processes.end() ? &*largest : nullptr;
}

} // namespace tarnd

uint32_t GetSysMemOverloadStat(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetSysMemOverloadStatOutput>(__func__, replyCtx, [](auto &reply) {
        const tarnd::MemoryOverload::Record record = tarnd::TheMemoryOverload().TheRecord();
        reply.uiValue1 = record.lasts ? 1 : 0;
        std::vector<Tarn_sys_diag_SysMemOverloadStat> events;
        for (const tarnd::MemoryEvent &event : record.events) {
            events.push_back({tarnd::TheClock().LocalTime(event.time), static_cast<uint8_t>(event.begins ? 1 : 0)});
        }
        reply.pstRecord = reply.Keep(std::move(events), reply.uiRecordNum);
    });
}

uint32_t GetSysMemOverloadSw(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetSysMemOverloadSwOutput>(__func__, replyCtx, [](auto &reply) {
        reply.uiSwitch = tarnd::TheMemoryOverload().Thresholds().over != 0 ? 1 : 0;
        reply.ucValue2 = tarnd::Daemon::Serving().overloadDebug.IsOn(TARND_MONITOR_MEMORY) ? 1 : 0;
    });
}

uint32_t GetSysMemOverloadCfg(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetSysMemOverloadCfgOutput>(__func__, replyCtx, [](auto &reply) {
        const tarnd::MemoryThresholds thresholds = tarnd::TheMemoryOverload().Thresholds();
        reply.uiValue1 = thresholds.over;
        reply.uiValue2 = thresholds.recover;
        reply.uiValue3 = tarnd::UsedPermille(tarnd::TheSampler().Latest()->system.memory);
        reply.uiValue4 = static_cast<uint32_t>(tarnd::TheSampler().Interval().count());
        reply.uiValue5 = tarnd::TheMemoryOverload().TheRecord().overloads;
    });
}

uint32_t SysOvLoadMemThresholdSet(const Tarn_sys_diag_SysOvLoadMemThreshold *request, void *replyCtx) {
    return host::AnswerResult<Tarn_sys_diag_OperResult>(__func__, replyCtx, [&] {
        const uint32_t recover = request->uiValue2 == 0 ? request->uiValue1 : request->uiValue2;
        tarnd::TheMemoryOverload().Set({request->uiValue1, recover});
        tarnd::TheMasterLink().TellMemoryThresholds();
    });
}

uint32_t ClearEnvAct(const Tarn_sys_diag_ClearEnvActInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] { tarnd::ClearEnvironment(*request); });
}
