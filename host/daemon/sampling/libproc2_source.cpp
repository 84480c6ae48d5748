#include "host/daemon/sampling/libproc2_source.h"

#include <libproc2/meminfo.h>
#include <libproc2/stat.h>

#include <array>
#include <system_error>

namespace tarnd {

namespace {

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

} // namespace

struct Libproc2Source::Handles {
    stat_info *cpus = nullptr;
    meminfo_info *memory = nullptr;

    ~Handles() {
        if (cpus != nullptr) {
            procps_stat_unref(&cpus);
        }
        if (memory != nullptr) {
            procps_meminfo_unref(&memory);
        }
    }
};

Libproc2Source::Libproc2Source(const host::procfs::Procfs &proc)
    : handles_(std::make_unique<Handles>()), processes_(proc), threads_(proc) {
    Check(procps_stat_new(&handles_->cpus), "/proc/stat");
    Check(procps_meminfo_new(&handles_->memory), "/proc/meminfo");
}

Libproc2Source::~Libproc2Source() = default;

Sample Libproc2Source::Read(Reading reading, const Sample *previous) {
    Sample sample;
    ReadCpus(sample);
    ReadMemory(sample.system.memory);
    if (reading != Reading::kSystem) {
        sample.processes = processes_.Read(reading == Reading::kProcessesAnew ? nullptr : previous);
        threads_.AddThreads(sample.processes, previous);
    }
    return sample;
}

void Libproc2Source::ReadCpus(Sample &sample) {
    std::array items = kCpuItems; // the library wants no constants, but does not change them
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

} // namespace tarnd
