#include "host/daemon/sampling/libproc2_source.h"

#include <libproc2/meminfo.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>

namespace tarnd {

namespace {

constexpr std::array<pids_item, 8> kProcessItems{PIDS_ID_PID,     PIDS_NLWP, PIDS_TICS_BEGAN, PIDS_TICS_ALL,
                                                 PIDS_TICS_ALL_C, PIDS_RSS,  PIDS_STATE,      PIDS_CMD};
enum ProcessItem { kPid, kThreadNum, kStart, kTicks, kTicksWithChildren, kRss, kState, kName };

constexpr std::array<stat_item, 8> kCpuItems{STAT_TIC_ID,      STAT_TIC_SUM_USER, STAT_TIC_SYSTEM, STAT_TIC_IRQ,
                                             STAT_TIC_SOFTIRQ, STAT_TIC_STOLEN,   STAT_TIC_IDLE,   STAT_TIC_IOWAIT};
enum CpuItem { kId, kUser, kSystem, kIrq, kSoftIrq, kStolen, kIdle, kIoWait };

constexpr std::array<meminfo_item, 9> kMemoryItems{MEMINFO_MEM_TOTAL,   MEMINFO_MEM_AVAILABLE, MEMINFO_MEM_FREE,
                                                   MEMINFO_MEM_BUFFERS, MEMINFO_MEM_CACHED,    MEMINFO_MEM_SLAB,
                                                   MEMINFO_MEM_SHARED,  MEMINFO_SWAP_TOTAL,    MEMINFO_SWAP_FREE};

// The library tells of a failure by a negative errno or by a null and errno.
void Check(int status, const char *what) {
    if (status < 0) {
        throw std::system_error(-status, std::generic_category(), what);
    }
}

template <class Pointer>
Pointer Check(Pointer result, const char *what) {
    if (result == nullptr) {
        throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), what);
    }
    return result;
}

CpuTicks TicksOf(const stat_stack *stack) {
    const auto ticks = [&](CpuItem item) { return uint64_t{stack->head[item].result.ull_int}; };
    CpuTicks cpu;
    cpu.user = ticks(kUser);
    cpu.system = ticks(kSystem);
    cpu.interrupt = ticks(kIrq) + ticks(kSoftIrq);
    cpu.stolen = ticks(kStolen);
    cpu.idle = ticks(kIdle);
    cpu.ioWait = ticks(kIoWait);
    return cpu;
}

ProcessSample ProcessOf(const pids_stack *stack) {
    const uint64_t pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
    const auto item = [&](ProcessItem which) -> const auto & {
        return stack->head[which].result;
    };
    ProcessSample process;
    process.pid = static_cast<uint32_t>(item(kPid).s_int);
    process.threadNum = static_cast<uint32_t>(item(kThreadNum).s_int);
    process.startTicks = item(kStart).ull_int;
    process.cpuTicks = item(kTicks).ull_int;
    process.childTicks = item(kTicksWithChildren).ull_int - process.cpuTicks;
    process.rssKb = item(kRss).ul_int * pageKb;
    process.state = static_cast<char>(item(kState).s_ch);
    process.name = item(kName).str;
    return process;
}

} // namespace

struct Libproc2Source::Handles {
    pids_info *processes = nullptr;
    stat_info *cpus = nullptr;
    meminfo_info *memory = nullptr;

    ~Handles() {
        if (processes != nullptr) {
            procps_pids_unref(&processes);
        }
        if (cpus != nullptr) {
            procps_stat_unref(&cpus);
        }
        if (memory != nullptr) {
            procps_meminfo_unref(&memory);
        }
    }
};

Libproc2Source::Libproc2Source(const host::procfs::Procfs &proc)
    : handles_(std::make_unique<Handles>()), threads_(proc) {
    std::array items = kProcessItems; // the library wants no constants, but does not change them
    Check(procps_pids_new(&handles_->processes, items.data(), items.size()), "the list of processes");
    Check(procps_stat_new(&handles_->cpus), "/proc/stat");
    Check(procps_meminfo_new(&handles_->memory), "/proc/meminfo");
}

Libproc2Source::~Libproc2Source() = default;

Sample Libproc2Source::Read(const Sample *previous) {
    Sample sample;
    ReadCpus(sample);
    ReadMemory(sample.system.memory);
    ReadProcesses(sample.processes);
    threads_.AddThreads(sample.processes, previous);
    return sample;
}

void Libproc2Source::ReadCpus(Sample &sample) {
    std::array items = kCpuItems;
    const stat_reaped *const read =
        Check(procps_stat_reap(handles_->cpus, STAT_REAP_CPUS_ONLY, items.data(), items.size()), "/proc/stat");
    sample.system.cpu = TicksOf(read->summary);
    for (int i = 0; i < read->cpus->total; ++i) {
        const stat_stack *const stack = read->cpus->stacks[i];
        sample.cpus.push_back({static_cast<uint32_t>(stack->head[kId].result.s_int), TicksOf(stack)});
    }
    const auto count = [&](stat_item item) {
        return Check(procps_stat_get(handles_->cpus, item), "/proc/stat")->result.ul_int;
    };
    sample.system.contextSwitches = count(STAT_SYS_CTX_SWITCHES);
    sample.system.runnable = static_cast<uint32_t>(count(STAT_SYS_PROC_RUNNING));
}

void Libproc2Source::ReadMemory(MemorySample &memory) {
    std::array items = kMemoryItems;
    const meminfo_stack *const read =
        Check(procps_meminfo_select(handles_->memory, items.data(), items.size()), "/proc/meminfo");
    uint64_t *const to[] = {&memory.total, &memory.available, &memory.free,      &memory.buffers, &memory.cached,
                            &memory.slab,  &memory.shared,    &memory.swapTotal, &memory.swapFree};
    static_assert(std::size(to) == kMemoryItems.size());
    for (size_t i = 0; i < std::size(to); ++i) {
        *to[i] = read->head[i].result.ul_int;
    }
}

void Libproc2Source::ReadProcesses(std::vector<ProcessSample> &processes) {
    const pids_fetch *const read =
        Check(procps_pids_reap(handles_->processes, PIDS_FETCH_TASKS_ONLY), "the list of processes");
    for (int i = 0; i < read->counts->total; ++i) {
        processes.push_back(ProcessOf(read->stacks[i]));
    }
    std::sort(processes.begin(), processes.end(),
              [](const ProcessSample &a, const ProcessSample &b) { return a.pid < b.pid; });
}

} // namespace tarnd
