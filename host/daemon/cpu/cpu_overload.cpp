#include "host/daemon/cpu/cpu_overload.h"

#include <algorithm>

#include "host/osal/attempt.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

constexpr const char *kDocument = "cpu-overload";
constexpr uint32_t kVersion = 2; // 1: who set the system's thresholds was not told

host::Document ToDocument(const Thresholds &thresholds) {
    return host::Document::Object{
        {"over", thresholds.over}, {"recover", thresholds.recover}, {"seconds", thresholds.seconds}};
}

Thresholds FromDocument(const host::Document &content) {
    return {content.Get<uint32_t>("over"), content.Get<uint32_t>("recover"), content.Get<uint32_t>("seconds")};
}

Thresholds Complete(Thresholds thresholds) {
    thresholds.recover = thresholds.recover == 0 ? thresholds.over : thresholds.recover;
    return thresholds;
}

std::vector<OverloadThread> BusiestThreads(std::vector<ThreadUse> uses, std::chrono::nanoseconds elapsed) {
    KeepBusiest(uses, CpuOverload::kThreads);
    std::vector<OverloadThread> threads;
    for (const ThreadUse &use : uses) {
        if (use.usedNs != 0) {
            OverloadThread thread;
            thread.pid = use.pid;
            thread.tid = use.tid;
            thread.runNs = use.total.runNs;
            thread.permille = ThreadPermille(use, elapsed);
            threads.push_back(std::move(thread));
        }
    }
    return threads;
}

void LogEnd(const Overload &overload) {
    host::Log().info("the CPU overload by {} ({}) is over", overload.name, overload.pid);
}

} // namespace

CpuOverload::CpuOverload(host::Store &store, OverloadHistory &history, Journal &journal, Sampler &sampler,
                         const host::procfs::Procfs &proc, ReadStacks readStacks)
    : store_(store), history_(history), journal_(journal), proc_(proc), readStacks_(std::move(readStacks)),
      lastOfSystem_(history.Last(Overload::Of::kSystem)), lastOfProcess_(history.Last(Overload::Of::kProcess)) {
    Load();
    sampler.OnProcesses(
        "CPU overload", [this] { return NeedsProcesses(); },
        [this](const SamplePtr &previous, const SamplePtr &latest) { Take(previous, latest); });
}

void CpuOverload::Load() {
    store_.Load(kDocument, kVersion, [this](const host::Document &content, uint32_t version) {
        Setting<Thresholds> system{Thresholds{}};
        if (version == 1) {
            system.Set(Source::kMaster, Complete(FromDocument(content.At("system"))));
        } else {
            system.Take(content.At("system"), FromDocument);
        }
        std::map<uint32_t, Watched> watched;
        for (const host::Document &process : content.ArrayAt("processes")) {
            Watched &entry = watched[process.Get<uint32_t>("pid")];
            entry.startTicks = process.Get<uint64_t>("startTicks");
            entry.thresholds = FromDocument(process.At("thresholds"));
        }
        const host::MutexLock lock(mutex_);
        thresholds_ = system;
        watched_ = std::move(watched); // the first sample tells which of them still run
    });
}

void CpuOverload::Save() const {
    host::Document::Array processes;
    for (const auto &[pid, watched] : watched_) {
        processes.push_back(host::Document::Object{
            {"pid", pid}, {"startTicks", watched.startTicks}, {"thresholds", ToDocument(watched.thresholds)}});
    }
    store_.Save(kDocument, kVersion,
                host::Document::Object{{"system", thresholds_.ToDocument(ToDocument)}, {"processes", processes}});
}

void CpuOverload::SetSystem(const Thresholds &thresholds, Source source) {
    const host::MutexLock lock(mutex_);
    Setting<Thresholds> changed = thresholds_;
    changed.Set(source, Complete(thresholds));
    Change(changed);
}

void CpuOverload::ForgetClients() {
    const host::MutexLock lock(mutex_);
    Setting<Thresholds> changed = thresholds_;
    changed.ForgetClients();
    Change(changed);
}

void CpuOverload::Change(const Setting<Thresholds> &system) {
    if (system == thresholds_) {
        return;
    }
    const Setting<Thresholds> before = std::exchange(thresholds_, system);
    try {
        Save();
    } catch (...) {
        thresholds_ = before;
        throw;
    }
    const Thresholds &value = system.Value();
    const std::string text = fmt::format("CPU overload: {}, from {}",
                                         value.over == 0 ? "off"
                                                         : fmt::format("begins at {} permille for {} s, ends below {}",
                                                                       value.over, value.seconds, value.recover),
                                         NameOf(system.From()));
    host::Log().info("{}", text);
    if (system.From() == Source::kMaster) { // clients are told of with their calls
        journal_.Add({{}, EventKind::kSetting, 0, "", text});
    }
}

Setting<Thresholds> CpuOverload::System() const {
    const host::MutexLock lock(mutex_);
    return thresholds_;
}

void CpuOverload::Watch(uint32_t pid, const Thresholds &thresholds) {
    const uint64_t startTicks = proc_.ReadProcess(pid).startTicks;
    const host::MutexLock lock(mutex_);
    std::map<uint32_t, Watched> before = watched_;
    if (watched_.size() >= kMaxWatched && watched_.count(pid) == 0) {
        throw std::system_error(ENOSPC, std::generic_category(), fmt::format("{} processes are watched", kMaxWatched));
    }
    Watched &watched = watched_[pid];
    if (watched.startTicks != startTicks) {
        watched = {};
        watched.startTicks = startTicks;
    }
    watched.thresholds = thresholds;
    try {
        Save();
    } catch (...) {
        watched_ = std::move(before);
        throw;
    }
}

void CpuOverload::Unwatch(uint32_t pid) {
    const host::MutexLock lock(mutex_);
    auto entry = watched_.extract(pid);
    if (entry.empty()) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("process {} is not watched", pid));
    }
    try {
        Save();
    } catch (...) {
        watched_.insert(std::move(entry));
        throw;
    }
}

size_t CpuOverload::WatchedNumber() const {
    const host::MutexLock lock(mutex_);
    return watched_.size();
}

Watched CpuOverload::WatchedProcess(uint32_t pid) const {
    const host::MutexLock lock(mutex_);
    const auto entry = watched_.find(pid);
    if (entry == watched_.end()) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("process {} is not watched", pid));
    }
    return entry->second;
}

uint32_t CpuOverload::RecordNumber() const {
    const host::MutexLock lock(mutex_);
    return recordNumber_;
}

Overload CpuOverload::Last() const {
    const host::MutexLock lock(mutex_);
    const std::optional<Overload> &last = lastOfSystem_.has_value() ? lastOfSystem_ : lastOfProcess_;
    if (!last.has_value()) {
        throw std::system_error(ENODATA, std::generic_category(), "there has been no overload");
    }
    return *last;
}

void CpuOverload::ResetPeaks() {
    const host::MutexLock lock(mutex_);
    for (auto &[pid, watched] : watched_) {
        for (WatchedThread &thread : watched.threads) {
            thread.highest = 0;
        }
    }
}

// Who has made it is asked of the time from its begin on.
bool CpuOverload::NeedsProcesses() const {
    const host::MutexLock lock(mutex_);
    return thresholds_.Value().over != 0 || system_.Over() || !watched_.empty();
}

void CpuOverload::Take(const SamplePtr &previous, const SamplePtr &latest) {
    const host::MutexLock lock(mutex_);
    TakeSystem(previous, latest);
    for (auto entry = watched_.begin(); entry != watched_.end();) {
        const ProcessSample *const process = latest->Find(entry->first);
        if (process == nullptr || process->startTicks != entry->second.startTicks) {
            End(entry->second.overload, *latest);
            entry = watched_.erase(entry); // has ended; the document loses it with the next change
            continue;
        }
        TakeProcess(entry->second, *process, previous, latest);
        ++entry;
    }
}

void CpuOverload::TakeSystem(const SamplePtr &previous, const SamplePtr &latest) {
    const uint32_t permille = BusyPermille(previous->system.cpu, latest->system.cpu);
    switch (system_.Follow(permille, thresholds_.Value(), previous, latest)) {
    case Crossing::Event::kBegins:
        if (const ProcessSample *const busiest = Busiest(*system_.Since(), *latest)) {
            ofSystem_ = Begin(Overload::Of::kSystem, *system_.Since(), *busiest,
                              SystemThreadUses(*system_.Since(), *latest), *latest);
        }
        break;
    case Crossing::Event::kEnds:
        End(ofSystem_, *latest);
        break;
    case Crossing::Event::kNone:
        break;
    }
}

void CpuOverload::TakeProcess(Watched &watched, const ProcessSample &process, const SamplePtr &previous,
                              const SamplePtr &latest) {
    const std::chrono::nanoseconds elapsed = latest->system.at - previous->system.at;
    std::vector<WatchedThread> threads;
    for (const ThreadUse &use : ThreadUses(previous->Find(process), process)) {
        const uint32_t permille = ThreadPermille(use, elapsed);
        const auto known = std::find_if(watched.threads.begin(), watched.threads.end(),
                                        [&](const WatchedThread &thread) { return thread.tid == use.tid; });
        const uint32_t highest = known == watched.threads.end() ? 0 : known->highest;
        threads.push_back({use.tid, use.total.runNs, permille, std::max(highest, permille)});
    }
    watched.threads = std::move(threads);

    const uint32_t permille = ProcessPermille(previous->Find(process), process, elapsed);
    switch (watched.crossing.Follow(permille, watched.thresholds, previous, latest)) {
    case Crossing::Event::kBegins:
        ++watched.overloads;
        watched.overload = Begin(Overload::Of::kProcess, *watched.crossing.Since(), process,
                                 ThreadUses(watched.crossing.Since()->Find(process), process), *latest);
        break;
    case Crossing::Event::kEnds:
        End(watched.overload, *latest);
        break;
    case Crossing::Event::kNone:
        break;
    }
}

// Null when it is not recorded.
std::shared_ptr<Overload> CpuOverload::Begin(Overload::Of of, const Sample &since, const ProcessSample &process,
                                             std::vector<ThreadUse> uses, const Sample &latest) {
    if (pendingNum_ == kMaxPending) {
        host::Log().error("CPU overload by {} ({}): not recorded, {} wait for their stacks", process.name, process.pid,
                          kMaxPending);
        return nullptr;
    }
    const std::chrono::nanoseconds elapsed = latest.system.at - since.system.at;
    auto overload = std::make_shared<Overload>();
    overload->of = of;
    overload->begin = since.system.time;
    overload->pid = process.pid;
    overload->name = process.name;
    overload->systemPermille = BusyPermille(since.system.cpu, latest.system.cpu);
    overload->processPermille = ProcessPermille(since.Find(process), process, elapsed);
    overload->threads = BusiestThreads(std::move(uses), elapsed);
    ++pendingNum_;
    queue_.Post([this, overload, copy = *overload](const std::stop_token &) mutable {
        host::Attempt("an overload's stacks", [&] { readStacks_(copy); });
        Record(overload, std::move(copy));
    });
    return overload;
}

void CpuOverload::Record(const std::shared_ptr<Overload> &overload, Overload withStacks) {
    const host::MutexLock lock(mutex_);
    --pendingNum_;
    overload->threads = std::move(withStacks.threads);
    overload->recorded = true;
    ++recordNumber_;
    host::Log().warn("CPU overload: the system uses {} permille, {} ({}) {} permille of a CPU",
                     overload->systemPermille, overload->name, overload->pid, overload->processPermille);
    Keep(*overload);
    if (overload->end.has_value()) {
        LogEnd(*overload);
    }
}

void CpuOverload::Keep(Overload &overload) {
    history_.Keep(overload);
    (overload.of == Overload::Of::kSystem ? lastOfSystem_ : lastOfProcess_) = overload;
}

void CpuOverload::End(std::shared_ptr<Overload> &overload, const Sample &latest) {
    if (overload == nullptr) {
        return; // it was not recorded
    }
    overload->end = latest.system.time;
    if (overload->recorded) {
        Keep(*overload);
        LogEnd(*overload);
    }
    overload.reset();
}

} // namespace tarnd
