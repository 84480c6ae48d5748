#include "host/daemon/cpu/cpu_events.h"

#include <algorithm>
#include <optional>

#include "host/daemon/health/health_settings.h"
#include "host/daemon/sampling/pressure.h"
#include "host/daemon/sampling/rates.h"
#include "host/meaning/choices.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

using namespace std::chrono_literals;
namespace system_health_item = host::meaning::system_health_item;
using std::chrono::milliseconds;

// How many of the threads that ran most are asked for the CPU that they run on.
constexpr size_t kCandidates = 16;

const CpuTicks *TicksOf(const Sample &sample, uint32_t cpu) {
    const auto found =
        std::find_if(sample.cpus.begin(), sample.cpus.end(), [&](const CpuSample &c) { return c.id == cpu; });
    return found == sample.cpus.end() ? nullptr : &found->ticks;
}

// How far a CPU was busy between two samples; 0 for one that has just come up.
uint32_t UsePermille(const Sample &before, const CpuSample &cpu) {
    const CpuTicks *const start = TicksOf(before, cpu.id);
    return start == nullptr ? 0 : BusyPermille(*start, cpu.ticks);
}

struct ThreadRun {
    uint32_t pid;
    uint32_t tid;
    uint64_t runNs;
};

uint64_t RunTimeOf(const ProcessSample *process, uint32_t tid) {
    if (process == nullptr || process->threads == nullptr) {
        return 0;
    }
    const auto found = std::lower_bound(process->threads->begin(), process->threads->end(), tid,
                                        [](const ThreadTimes &thread, uint32_t id) { return thread.tid < id; });
    return found == process->threads->end() || found->tid != tid ? 0 : found->count.runNs;
}

// Those that ran most between two samples, the busiest first.
std::vector<ThreadRun> BusiestThreads(const Sample &before, const Sample &latest) {
    std::vector<ThreadRun> runs;
    for (const ProcessSample &process : latest.processes) {
        const ProcessSample *const start = before.Find(process);
        if (process.threads == nullptr || (start != nullptr && start->threads == process.threads)) {
            continue; // hidden, or idle
        }
        for (const ThreadTimes &thread : *process.threads) {
            const uint64_t earlier = RunTimeOf(start, thread.tid);
            if (thread.count.runNs > earlier) {
                runs.push_back({process.pid, thread.tid, thread.count.runNs - earlier});
            }
        }
    }
    const auto end = runs.begin() + std::min<ptrdiff_t>(std::ssize(runs), kCandidates);
    std::partial_sort(runs.begin(), end, runs.end(),
                      [](const ThreadRun &a, const ThreadRun &b) { return a.runNs > b.runNs; });
    runs.erase(end, runs.end());
    return runs;
}

// The busiest thread that is on the CPU now. A thread counts with all its time, wherever it ran before.
CpuEvent::Thread BusiestOn(uint32_t cpu, const Sample &before, const Sample &latest, const host::procfs::Procfs &proc) {
    const auto ns = static_cast<uint64_t>((latest.system.at - before.system.at).count());
    std::optional<CpuEvent::Thread> busiest;
    for (const ThreadRun &run : BusiestThreads(before, latest)) {
        host::procfs::SkipHidden([&] {
            const host::procfs::Task thread = proc.ReadThread(run.pid, run.tid);
            if (!busiest.has_value() && thread.lastCpu == cpu) {
                busiest = {run.pid, run.tid, thread.name, std::min(Permille(run.runNs, ns), 1000U)};
            }
        });
    }
    return busiest.value_or(CpuEvent::Thread{});
}

uint32_t PressureNow(const host::procfs::Procfs &proc) {
    try {
        return ReadPressure(proc, "cpu");
    } catch (const std::system_error &) {
        return 0; // as the record says of a kernel without it
    }
}

} // namespace

CpuEvents::CpuEvents(Sampler &sampler, const HealthSettings &settings, const host::procfs::Procfs &proc,
                     const host::Clocks &clocks)
    : sampler_(sampler), settings_(settings), proc_(proc), clocks_(clocks) {
    sampler.OnSample("cpu events",
                     [this](const SamplePtr &previous, const SamplePtr &latest) { Take(previous, latest); });
}

void CpuEvents::Take(const SamplePtr &previous, const SamplePtr &latest) {
    const bool on = settings_.IsOn(system_health_item::kCpuEvent);
    const uint32_t limit = settings_.LimitOf(system_health_item::kCpuEvent);
    for (const CpuSample &cpu : latest->cpus) {
        if (!on || UsePermille(*previous, cpu) < limit) {
            busy_.erase(cpu.id);
        } else {
            const auto [busy, begins] = busy_.try_emplace(cpu.id, Busy{previous, previous});
            if (begins && !previous->hasProcesses) {
                busy->second.processes = sampler_.WithProcesses();
            }
            Follow(busy->second, cpu, latest);
        }
    }
}

void CpuEvents::Follow(Busy &busy, const CpuSample &cpu, const SamplePtr &latest) {
    CpuEvent event;
    event.duration = std::chrono::duration_cast<milliseconds>(latest->system.at - busy.since->system.at);
    if (event.duration < milliseconds(settings_.LimitOf(system_health_item::kCpuEventTime))) {
        return;
    }
    event.begin = busy.since->system.time;
    event.last = latest->system.at;
    event.cpu = cpu.id;
    event.usePermille = UsePermille(*busy.since, cpu);
    event.pressurePermille = PressureNow(proc_);
    const SamplePtr now = sampler_.WithProcesses(), recent = sampler_.Before(kRecent);
    const SamplePtr start = busy.processes == now ? sampler_.Last({}).from : busy.processes;
    event.overall = BusiestOn(cpu.id, *start, *now, proc_);
    event.lately = recent->system.at <= start->system.at ? event.overall : BusiestOn(cpu.id, *recent, *now, proc_);
    Keep(busy.number, std::move(event));
}

void CpuEvents::Keep(uint64_t &number, CpuEvent event) {
    const host::MutexLock lock(mutex_);
    const auto known =
        std::find_if(events_.begin(), events_.end(), [&](const auto &entry) { return entry.first == number; });
    if (known != events_.end()) {
        known->second = std::move(event);
        return;
    }
    if (number != 0) {
        return; // so many events began since that it is no longer kept
    }
    number = ++lastNumber_;
    host::Log().warn("CPU {} is busy: {} permille, most of it in thread {} ({}) of process {}", event.cpu,
                     event.usePermille, event.lately.tid, host::LineOfText(event.lately.name), event.lately.pid);
    if (events_.size() == kEvents) {
        events_.pop_front();
    }
    events_.emplace_back(number, std::move(event));
}

std::vector<CpuEvent> CpuEvents::List(const CpuEventQuery &query) const {
    const host::SteadyTime now = clocks_.SteadyNow();
    std::vector<CpuEvent> list;
    {
        const host::MutexLock lock(mutex_);
        for (const auto &[number, event] : events_) {
            if ((query.pid == 0 || event.IsOf(query.pid)) && (query.within == 0s || now - event.last <= query.within)) {
                list.push_back(event);
            }
        }
    }
    if (query.limit != 0 && list.size() > query.limit) {
        list.erase(list.begin(), list.end() - static_cast<ptrdiff_t>(query.limit));
    }
    return list;
}

} // namespace tarnd
