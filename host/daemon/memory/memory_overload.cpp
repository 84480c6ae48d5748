#include "host/daemon/memory/memory_overload.h"

#include "host/daemon/memory/memory_use.h"
#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

constexpr char kDocument[] = "memory-overload";
constexpr uint32_t kVersion = 2; // 1: who set the thresholds was not told

// The master and what was stored keep to what a client must keep to.
MemoryThresholds Checked(MemoryThresholds thresholds) {
    const Tarn_sys_diag_SysOvLoadMemThreshold request{thresholds.over, thresholds.recover};
    host::meaning::Check(*host::methods::SysOvLoadMemThresholdSet.request, &request);
    thresholds.recover = thresholds.recover == 0 ? thresholds.over : thresholds.recover;
    return thresholds;
}

MemoryThresholds FromDocument(const host::Document &content) {
    return Checked({content.Get<uint32_t>("over"), content.Get<uint32_t>("recover")});
}

host::Document ToDocument(const MemoryThresholds &thresholds) {
    return host::Document::Object{{"over", thresholds.over}, {"recover", thresholds.recover}};
}

Setting<MemoryThresholds> Kept(host::Store &store) {
    Setting<MemoryThresholds> thresholds{MemoryThresholds{}};
    store.Load(kDocument, kVersion, [&](const host::Document &content, uint32_t version) {
        Setting<MemoryThresholds> kept{MemoryThresholds{}};
        if (version == 1) {
            kept.Set(Source::kMaster, FromDocument(content));
        } else {
            kept.Take(content, FromDocument);
        }
        thresholds = kept;
    });
    return thresholds;
}

} // namespace

MemoryOverload::MemoryOverload(host::Store &store, Journal &journal, Sampler &sampler)
    : store_(store), journal_(journal), sampler_(sampler), thresholds_(Kept(store)) {
    sampler.OnSample("memory overload", [this](const SamplePtr &, const SamplePtr &latest) { Take(*latest); });
}

void MemoryOverload::Set(const MemoryThresholds &thresholds, Source source) {
    const host::MutexLock lock(mutex_);
    Setting<MemoryThresholds> changed = thresholds_;
    changed.Set(source, Checked(thresholds));
    Change(changed);
}

void MemoryOverload::ForgetClients() {
    const host::MutexLock lock(mutex_);
    Setting<MemoryThresholds> changed = thresholds_;
    changed.ForgetClients();
    Change(changed);
}

void MemoryOverload::Change(const Setting<MemoryThresholds> &changed) {
    if (changed == thresholds_) {
        return;
    }
    store_.Save(kDocument, kVersion, changed.ToDocument(ToDocument));
    thresholds_ = changed;
    const MemoryThresholds &value = changed.Value();
    const std::string text = fmt::format(
        "memory overload: {}, from {}",
        value.over == 0 ? "off" : fmt::format("begins at {} permille in use, ends below {}", value.over, value.recover),
        NameOf(changed.From()));
    host::Log().info("{}", text);
    if (changed.From() == Source::kMaster) { // clients are told of with their calls
        journal_.Add({{}, EventKind::kSetting, 0, "", text});
    }
}

Setting<MemoryThresholds> MemoryOverload::Thresholds() const {
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
    const MemoryThresholds &thresholds = thresholds_.Value();
    const bool over = thresholds.over != 0 && used >= (record_.lasts ? thresholds.recover : thresholds.over);
    if (over == record_.lasts) {
        return;
    }
    record_.lasts = over;
    record_.overloads += over ? 1 : 0;
    MemoryEvent event{sample.system.time, over, used, 0, {}, 0};
    const SamplePtr processes = sampler_.WithProcesses();
    if (const ProcessSample *const largest = LargestProcess(*processes)) {
        event.pid = largest->pid;
        event.name = largest->name;
        event.rssKb = largest->rssKb;
    }
    host::Log().warn("memory overload {}: {} permille in use; process {} ({}) has most, {} KiB",
                     over ? "begins" : "ends", used, event.pid, host::LineOfText(event.name), event.rssKb);
    journal_.Add({event.time, over ? EventKind::kMemoryOverloadBegins : EventKind::kMemoryOverloadEnds, event.pid,
                  event.name, fmt::format("{} permille in use; this process has most, {} KiB", used, event.rssKb)});
    if (record_.events.size() == kEvents) {
        record_.events.pop_front();
    }
    record_.events.push_back(std::move(event));
}

} // namespace tarnd
