#include "host/daemon/memory/memory_overload.h"

#include "host/daemon/memory/memory_use.h"
#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

constexpr char kDocument[] = "memory-overload";
constexpr uint32_t kVersion = 1;

// The master and what was stored keep to what a client must keep to.
const MemoryThresholds &Checked(const MemoryThresholds &thresholds) {
    const Tarn_sys_diag_SysOvLoadMemThreshold request{thresholds.over, thresholds.recover};
    host::meaning::Check(*host::methods::SysOvLoadMemThresholdSet.request, &request);
    return thresholds;
}

MemoryThresholds Kept(host::Store &store) {
    MemoryThresholds thresholds;
    store.Load(kDocument, kVersion, [&](const host::Document &content) {
        thresholds = Checked({content.Get<uint32_t>("over"), content.Get<uint32_t>("recover")});
    });
    return thresholds;
}

} // namespace

MemoryOverload::MemoryOverload(host::Store &store, Sampler &sampler) : store_(store), thresholds_(Kept(store)) {
    sampler.OnSample("memory overload", [this](const SamplePtr &, const SamplePtr &latest) { Take(*latest); });
}

void MemoryOverload::Set(const MemoryThresholds &thresholds) {
    Checked(thresholds);
    const host::MutexLock lock(mutex_);
    store_.Save(kDocument, kVersion,
                host::Document::Object{{"over", thresholds.over}, {"recover", thresholds.recover}});
    thresholds_ = thresholds;
    host::Log().info("memory overload: {}", thresholds.over == 0
                                                ? "off"
                                                : fmt::format("begins at {} permille in use, ends below {}",
                                                              thresholds.over, thresholds.recover));
}

MemoryThresholds MemoryOverload::Thresholds() const {
    const host::MutexLock lock(mutex_);
    return thresholds_;
}

MemoryOverload::Record MemoryOverload::TheRecord() const {
    const host::MutexLock lock(mutex_);
    return record_;
}

void MemoryOverload::Clear() {
    const host::MutexLock lock(mutex_);
    record_ = {};
}

void MemoryOverload::Take(const Sample &sample) {
    const uint32_t used = UsedPermille(sample.system.memory);
    const host::MutexLock lock(mutex_);
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
                     over ? "begins" : "ends", used, event.pid, host::LineOfText(event.name), event.rssKb);
    if (record_.events.size() == kEvents) {
        record_.events.pop_front();
    }
    record_.events.push_back(std::move(event));
}

} // namespace tarnd
