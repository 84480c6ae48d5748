#include "host/daemon/cpu/cpu_overload.h"

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/store.h"
#include "host/osal/log.h"
#include "host/osal/thread.h"
#include "host/stacks/stacks.h"

namespace tarnd {

namespace {

constexpr const char *kDocument = "cpu-overload";
constexpr uint32_t kVersion = 1;

// Overloads whose stacks are waited for; of more at a time the stacks would tell little by when they are read.
constexpr size_t kMaxPending = 4;

host::Document ToDocument(const Thresholds &thresholds) {
    return host::Document::Object{
        {"over", thresholds.over}, {"recover", thresholds.recover}, {"seconds", thresholds.seconds}};
}

Thresholds FromDocument(const host::Document &content) {
    return {content.Get<uint32_t>("over"), content.Get<uint32_t>("recover"), content.Get<uint32_t>("seconds")};
}

std::vector<OverloadThread> BusiestThreads(const ProcessSample *from, const ProcessSample &to,
                                           std::chrono::nanoseconds elapsed) {
    std::vector<ThreadUse> uses = ThreadUses(from, to);
    KeepBusiest(uses, CpuOverload::kThreads);
    std::vector<OverloadThread> threads;
    for (const ThreadUse &use : uses) {
        if (use.usedNs != 0) {
            OverloadThread thread;
            thread.tid = use.tid;
            thread.runNs = use.total.runNs;
            thread.permille = ThreadPermille(use, elapsed);
            threads.push_back(std::move(thread));
        }
    }
    return threads;
}

std::string TextOfStack(const host::stacks::Stack &stack) {
    std::string text;
    for (const host::stacks::Frame &frame : stack.frames) {
        text += frame.Text() + "\n";
    }
    return text;
}

// The names and stacks of the threads; one that can't be read is left without.
void ReadStacks(Overload &overload) {
    host::stacks::Process process(overload.pid);
    for (OverloadThread &thread : overload.threads) {
        host::Run("an overload's stack", [&] {
            thread.name = host::procfs::Procfs().ReadThread(overload.pid, thread.tid).name;
            thread.stack = TextOfStack(process.Read(thread.tid));
        });
    }
}

} // namespace

void CpuOverload::Start() {
    TheStore().Load(kDocument, kVersion, [this](const host::Document &content) {
        const Thresholds system = FromDocument(content.At("system"));
        std::map<uint32_t, Watched> watched;
        for (const host::Document &process : content.ArrayAt("processes")) {
            Watched &entry = watched[process.Get<uint32_t>("pid")];
            entry.startTicks = process.Get<uint64_t>("startTicks");
            entry.thresholds = FromDocument(process.At("thresholds"));
        }
        const std::lock_guard lock(mutex_);
        thresholds_ = system;
        watched_ = std::move(watched); // the first sample tells which of them still run
    });
    TheSampler().OnSample("CPU overload",
                          [this](const SamplePtr &previous, const SamplePtr &latest) { Take(previous, latest); });
    thread_ = host::StartThread("overload", [this](const std::stop_token &stop) { ReadStacksOfPending(stop); });
}

void CpuOverload::Stop() {
    thread_ = {};
}

void CpuOverload::SetSystem(const Thresholds &thresholds) {
    const std::lock_guard lock(mutex_);
    const Thresholds before = std::exchange(thresholds_, thresholds);
    try {
        Save();
    } catch (...) {
        thresholds_ = before;
        throw;
    }
}

Thresholds CpuOverload::System() const {
    const std::lock_guard lock(mutex_);
    return thresholds_;
}

void CpuOverload::Watch(uint32_t pid, const Thresholds &thresholds) {
    const uint64_t startTicks = host::procfs::Procfs().ReadProcess(pid).startTicks;
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    return watched_.size();
}

Watched CpuOverload::WatchedProcess(uint32_t pid) const {
    const std::lock_guard lock(mutex_);
    const auto entry = watched_.find(pid);
    if (entry == watched_.end()) {
        throw std::system_error(ENOENT, std::generic_category(), fmt::format("process {} is not watched", pid));
    }
    return entry->second;
}

uint32_t CpuOverload::RecordNumber() const {
    const std::lock_guard lock(mutex_);
    return recordNumber_;
}

Overload CpuOverload::Last() const {
    const std::lock_guard lock(mutex_);
    if (last_ == nullptr) {
        throw std::system_error(ENODATA, std::generic_category(), "there has been no overload");
    }
    return *last_;
}

void CpuOverload::ResetPeaks() {
    const std::lock_guard lock(mutex_);
    for (auto &[pid, watched] : watched_) {
        for (WatchedThread &thread : watched.threads) {
            thread.highest = 0;
        }
    }
}

// Called with the lock held, which keeps documents in the order of their changes.
void CpuOverload::Save() const {
    host::Document::Array processes;
    for (const auto &[pid, watched] : watched_) {
        processes.push_back(host::Document::Object{
            {"pid", pid}, {"startTicks", watched.startTicks}, {"thresholds", ToDocument(watched.thresholds)}});
    }
    TheStore().Save(kDocument, kVersion,
                    host::Document::Object{{"system", ToDocument(thresholds_)}, {"processes", processes}});
}

void CpuOverload::Take(const SamplePtr &previous, const SamplePtr &latest) {
    const std::lock_guard lock(mutex_);
    TakeSystem(previous, latest);
    for (auto entry = watched_.begin(); entry != watched_.end();) {
        const ProcessSample *const process = latest->Find(entry->first);
        if (process == nullptr || process->startTicks != entry->second.startTicks) {
            End(entry->second.crossing, *latest);
            entry = watched_.erase(entry); // has ended; the document loses it with the next change
            continue;
        }
        TakeProcess(entry->second, *process, previous, latest);
        ++entry;
    }
}

void CpuOverload::TakeSystem(const SamplePtr &previous, const SamplePtr &latest) {
    const uint32_t permille = BusyPermille(previous->system.cpu, latest->system.cpu);
    switch (system_.Follow(permille, thresholds_, previous, latest)) {
    case Crossing::Event::kBegins:
        if (const ProcessSample *const busiest = Busiest(*system_.Since(), *latest)) {
            Begin(system_, *busiest, *latest);
        }
        break;
    case Crossing::Event::kEnds:
        End(system_, *latest);
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
        Begin(watched.crossing, process, *latest);
        break;
    case Crossing::Event::kEnds:
        End(watched.crossing, *latest);
        break;
    case Crossing::Event::kNone:
        break;
    }
}

void CpuOverload::Begin(Crossing &crossing, const ProcessSample &process, const Sample &latest) {
    const Sample &since = *crossing.Since();
    const std::chrono::nanoseconds elapsed = latest.system.at - since.system.at;
    const ProcessSample *const before = since.Find(process);
    const auto overload = std::make_shared<Overload>();
    overload->begin = since.system.time;
    overload->pid = process.pid;
    overload->name = process.name;
    overload->systemPermille = BusyPermille(since.system.cpu, latest.system.cpu);
    overload->processPermille = ProcessPermille(before, process, elapsed);
    overload->threads = BusiestThreads(before, process, elapsed);
    crossing.record = overload;
    if (pending_.size() == kMaxPending) {
        host::Log().error("CPU overload by {} ({}): not recorded, {} wait for their stacks", process.name, process.pid,
                          kMaxPending);
        return;
    }
    pending_.push_back(overload);
    wake_.notify_all();
}

void CpuOverload::End(Crossing &crossing, const Sample &latest) {
    if (crossing.record != nullptr) {
        crossing.record->end = latest.system.time;
        host::Log().info("the CPU overload by {} ({}) is over", crossing.record->name, crossing.record->pid);
        crossing.record.reset();
    }
}

// That may take longer than a sample may.
void CpuOverload::ReadStacksOfPending(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, stop, [this] { return !pending_.empty(); });
        if (stop.stop_requested()) {
            return;
        }
        const std::shared_ptr<Overload> overload = pending_.front();
        Overload copy = *overload;
        lock.unlock();
        host::Run("an overload's stacks", [&] { ReadStacks(copy); });
        lock.lock();
        pending_.pop_front();
        overload->threads = std::move(copy.threads);
        last_ = overload;
        ++recordNumber_;
        host::Log().warn("CPU overload: the system uses {} permille, {} ({}) {} permille of a CPU",
                         overload->systemPermille, overload->name, overload->pid, overload->processPermille);
    }
}

} // namespace tarnd
