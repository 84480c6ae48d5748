// Who uses the CPUs. Rates are differences of samples, or of a sample and a reading made for the call.
#include <libproc2/pids.h>
#include <stdlib.h>

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/health/resources.h"
#include "host/daemon/processes/users.h"
#include "host/daemon/sampling/rates.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

std::chrono::milliseconds IntervalOf(uint32_t ms) {
    if (ms > TARND_MEASURE_MAX_MS) {
        throw host::BadValue("uiValue1", ms, "0 to " + std::to_string(TARND_MEASURE_MAX_MS) + " ms");
    }
    return std::chrono::milliseconds(ms == 0 ? TARND_MEASURE_DEFAULT_MS : ms);
}

// ---- One process ----

ProcessSample ReadNow(uint32_t pid) {
    const host::procfs::Task task = host::procfs::Procfs().ReadProcess(pid);
    auto threads = std::make_shared<std::vector<ThreadTimes>>();
    for (const uint32_t tid : host::procfs::Procfs().ThreadIds(pid)) {
        host::procfs::SkipEnded([&] {
            threads->push_back({tid, host::procfs::Procfs().ReadSchedulerCount(pid, tid)});
        });
    }
    ProcessSample process;
    process.pid = pid;
    process.startTicks = task.startTicks;
    process.cpuTicks = task.CpuTicks();
    process.threads = std::move(threads);
    return process;
}

Tarn_sys_diag_OsProcessCpuThread Describe(const ThreadUse &use, uint32_t permille) {
    const host::procfs::Task task = host::procfs::Procfs().ReadThread(use.pid, use.tid);
    Tarn_sys_diag_OsProcessCpuThread thread{};
    host::CopyText(thread.acName, task.name);
    thread.uiValue1 = use.tid;
    thread.uiValue2 = permille;
    thread.ullValue3 = use.total.runNs / 1000;
    host::CopyText(thread.acValue4, host::procfs::StateText(task.state));
    thread.uiValue5 = task.lastCpu;
    host::CopyText(thread.acValue6, host::procfs::SchedulingText(task));
    return thread;
}

// `cpuNum` is how many CPUs make up the whole that shares are stated of.
void MeasureProcess(const Tarn_sys_diag_OsProcessCpuInput &request, uint64_t cpuNum,
                    host::Reply<Tarn_sys_diag_OsProcessCpuRet> &reply) {
    const SamplePtr sample = Daemon::Serving().sampler.Before(IntervalOf(request.uiValue1));
    const ProcessSample now = ReadNow(request.uiPid);
    const std::chrono::nanoseconds elapsed = std::chrono::steady_clock::now() - sample->system.at;
    const ProcessSample *const before = sample->Find(now);
    if (before != nullptr && before->threads == nullptr) {
        const int error = before->threadsError == 0 ? ENODATA : before->threadsError;
        throw std::system_error(error, std::generic_category(), "the threads of the process were not sampled");
    }
    std::vector<ThreadUse> uses = ThreadUses(before, now);
    const uint64_t whole = static_cast<uint64_t>(elapsed.count()) * cpuNum;
    reply.uiValue1 = Permille(ProcessUsedNs(before, now, uses), whole);
    KeepBusiest(uses, request.uiValue2);
    std::vector<Tarn_sys_diag_OsProcessCpuThread> threads;
    for (const ThreadUse &use : uses) {
        host::procfs::SkipEnded([&] { threads.push_back(Describe(use, Permille(use.usedNs, whole))); });
    }
    reply.pstThread = reply.Keep(std::move(threads), reply.uiThreadNum);
}

// ---- All threads ----

Tarn_sys_diag_ThreadCpu Describe(const ThreadUse &use, const std::string &process, std::chrono::nanoseconds elapsed) {
    const host::procfs::Task task = host::procfs::Procfs().ReadThread(use.pid, use.tid);
    Tarn_sys_diag_ThreadCpu thread{};
    thread.uiTid = use.tid;
    thread.usValue1 = static_cast<uint16_t>(ThreadPermille(use, elapsed));
    thread.ucValue2 = static_cast<uint8_t>(task.state);
    thread.ucValue3 = static_cast<uint8_t>(std::min<uint32_t>(task.lastCpu, UINT8_MAX));
    thread.ullValue4 = use.total.runNs / 1000;
    thread.ullValue5 = use.total.waitNs / 1000;
    host::CopyText(thread.acName, task.name);
    thread.uiValue6 = use.pid;
    host::CopyText(thread.acValue7, process);
    host::CopyText(thread.acValue8, host::procfs::SchedulingText(task));
    thread.uiValue9 = static_cast<uint32_t>(use.total.sliceNum);
    return thread;
}

std::vector<Tarn_sys_diag_ThreadCpu> MeasureAllThreads(std::chrono::nanoseconds interval, size_t limit) {
    const Sampler::Window window = Daemon::Serving().sampler.Last(interval);
    std::vector<ThreadUse> uses;
    for (const ProcessSample &process : window.to->processes) {
        const std::vector<ThreadUse> ofProcess = ThreadUses(window.from->Find(process), process);
        uses.insert(uses.end(), ofProcess.begin(), ofProcess.end());
    }
    KeepBusiest(uses, limit);
    std::vector<Tarn_sys_diag_ThreadCpu> threads;
    for (const ThreadUse &use : uses) {
        host::procfs::SkipHidden(
            [&] { threads.push_back(Describe(use, window.to->Find(use.pid)->name, window.Length())); });
    }
    return threads;
}

// ---- All processes ----

// What the samples don't have, read for the call.
class ProcessDetails {
public:
    ProcessDetails() {
        if (const int status = procps_pids_new(&info_, kItems, std::size(kItems)); status < 0) {
            throw std::system_error(-status, std::generic_category(), "the list of processes");
        }
    }
    ~ProcessDetails() { procps_pids_unref(&info_); }
    ProcessDetails(const ProcessDetails &) = delete;
    ProcessDetails &operator=(const ProcessDetails &) = delete;

    template <class Function>
    void ForEach(Function function) {
        const pids_fetch *const read = procps_pids_reap(info_, PIDS_FETCH_TASKS_ONLY);
        if (read == nullptr) {
            throw std::system_error(errno, std::generic_category(), "the list of processes");
        }
        for (int i = 0; i < read->counts->total; ++i) {
            process_ = read->stacks[i];
            function();
        }
    }

    enum Item {
        kPid,
        kParent,
        kUserTicks,
        kSystemTicks,
        kState,
        kThreadNum,
        kNice,
        kCpu,
        kStart,
        kUser,
        kExe,
        kFaults,
        kRss,
        kName
    };
    const auto &Get(Item item) const { return process_->head[item].result; }
    uint32_t Number(Item item) const { return static_cast<uint32_t>(Get(item).s_int); }

private:
    // In the order of Item.
    static inline enum pids_item kItems[] = {PIDS_ID_PID, PIDS_ID_PPID, PIDS_TICS_USER, PIDS_TICS_SYSTEM, PIDS_STATE,
                                             PIDS_NLWP,   PIDS_NICE,    PIDS_PROCESSOR, PIDS_TICS_BEGAN,  PIDS_ID_EUID,
                                             PIDS_EXE,    PIDS_FLT_MAJ, PIDS_MEM_RES,   PIDS_CMD};
    pids_info *info_ = nullptr;
    const pids_stack *process_ = nullptr;
};

std::chrono::system_clock::time_point StartOf(uint64_t startTicks) {
    timespec boot{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    const std::chrono::nanoseconds sinceBoot(boot.tv_sec * 1'000'000'000LL + boot.tv_nsec);
    const std::chrono::nanoseconds age = sinceBoot - std::chrono::nanoseconds(TicksToNs(startTicks));
    return std::chrono::system_clock::now() - std::chrono::duration_cast<std::chrono::system_clock::duration>(age);
}

// The end of a text tells more of a path than its start.
template <size_t kSize>
void CopyEnd(char (&to)[kSize], std::string_view text) {
    host::CopyText(to, text.size() < kSize ? text : text.substr(text.size() - (kSize - 1)));
}

Tarn_sys_diag_SysCpuStatProc Describe(const ProcessDetails &details, UserNames &users, const Sampler::Window &window) {
    using D = ProcessDetails;
    const auto ms = [](uint64_t ticks) { return static_cast<uint32_t>(TicksToNs(ticks) / 1'000'000); };
    ProcessSample process;
    process.pid = details.Number(D::kPid);
    process.startTicks = details.Get(D::kStart).ull_int;
    const ProcessSample *const sampled = window.to->Find(process);
    const auto started = StartOf(process.startTicks);
    const uint64_t userTicks = details.Get(D::kUserTicks).ull_int;
    const uint64_t systemTicks = details.Get(D::kSystemTicks).ull_int;
    const auto ageNs = std::chrono::nanoseconds(std::chrono::system_clock::now() - started).count();

    Tarn_sys_diag_SysCpuStatProc stat{};
    stat.uiPid = process.pid;
    host::CopyText(stat.acName, details.Get(D::kName).str);
    if (sampled != nullptr) {
        const Peak peak = Daemon::Serving().cpuPeaks.OfProcess(process);
        stat.uiValue1 = ProcessPermille(window.from->Find(process), *sampled, window.Length());
        stat.uiValue2 = peak.permille;
        stat.stTime1 =
            peak.time == decltype(peak.time){} ? Tarn_sys_diag_Systime{} : Daemon::Serving().clock.LocalTime(peak.time);
    }
    stat.uiValue3 = ms(userTicks);
    stat.uiValue4 = ms(systemTicks);
    host::CopyText(stat.acValue5, host::procfs::StateText(static_cast<char>(details.Get(D::kState).s_ch)));
    stat.uiValue6 = details.Number(D::kParent);
    stat.uiValue7 = details.Number(D::kThreadNum);
    stat.uiValue8 = details.Number(D::kNice);
    stat.uiValue9 = details.Number(D::kCpu);
    stat.stTime2 = Daemon::Serving().clock.LocalTime(started);
    host::CopyText(stat.acValue10, users.User(details.Get(D::kUser).u_int));
    const std::string_view exe = details.Get(D::kExe).str;
    CopyEnd(stat.acValue11, exe == "-" ? "" : exe); // the library's word for none
    stat.uiValue12 = ageNs <= 0 ? 0 : Permille(TicksToNs(userTicks + systemTicks), static_cast<uint64_t>(ageNs));
    stat.uiValue13 = static_cast<uint32_t>(details.Get(D::kFaults).ul_int);
    stat.uiValue14 = static_cast<uint32_t>(details.Get(D::kRss).ul_int);
    return stat;
}

// ---- The system ----

Tarn_sys_diag_MultiCpuUsage Describe(const std::string &name, const CpuTicks &from, const CpuTicks &to, Peak peak) {
    const uint64_t total = Growth(from.Total(), to.Total());
    Tarn_sys_diag_MultiCpuUsage cpu{};
    host::CopyText(cpu.acName, name);
    cpu.uiValue1 = BusyPermille(from, to);
    cpu.uiValue2 = Permille(Growth(from.user, to.user), total);
    cpu.uiValue3 = Permille(Growth(from.system + from.interrupt, to.system + to.interrupt), total);
    cpu.uiValue4 = Permille(Growth(from.ioWait, to.ioWait), total);
    if (peak.time != decltype(peak.time){}) {
        cpu.uiValue5 = peak.permille;
        cpu.stTime = Daemon::Serving().clock.LocalTime(peak.time);
    }
    return cpu;
}

std::vector<Tarn_sys_diag_MultiCpuUsage> MeasureCpus() {
    const Sampler::Window window = Daemon::Serving().sampler.Last({});
    std::vector<Tarn_sys_diag_MultiCpuUsage> cpus{
        Describe("cpu", window.from->system.cpu, window.to->system.cpu, Daemon::Serving().cpuPeaks.OfSystem())};
    for (const CpuSample &cpu : window.to->cpus) {
        for (const CpuSample &before : window.from->cpus) {
            if (before.id == cpu.id) {
                cpus.push_back(Describe("cpu" + std::to_string(cpu.id), before.ticks, cpu.ticks,
                                        Daemon::Serving().cpuPeaks.OfCpu(cpu.id)));
            }
        }
    }
    return cpus;
}

uint32_t LoadAverage() {
    double load = 0;
    if (getloadavg(&load, 1) != 1) {
        throw std::system_error(EIO, std::generic_category(), "the load average");
    }
    return static_cast<uint32_t>(load * 1000 + 0.5);
}

// A percentage in a byte, between each two samples.
std::vector<Tarn_sys_diag_SysCpuMonitorHistoryInfo> DescribeHistory() {
    const std::vector<SystemSample> history = Daemon::Serving().sampler.History();
    std::vector<Tarn_sys_diag_SysCpuMonitorHistoryInfo> records;
    for (size_t i = 1; i < history.size(); ++i) {
        const CpuTicks &from = history[i - 1].cpu;
        const CpuTicks &to = history[i].cpu;
        const uint64_t total = Growth(from.Total(), to.Total());
        Tarn_sys_diag_SysCpuMonitorHistoryInfo record{};
        record.stTime = Daemon::Serving().clock.LocalTime(history[i].time);
        record.ucValue1 = static_cast<uint8_t>((BusyPermille(from, to) + 5) / 10);
        record.ucValue2 =
            static_cast<uint8_t>(std::min<uint32_t>((Permille(Growth(from.ioWait, to.ioWait), total) + 5) / 10, 100));
        records.push_back(record);
    }
    return records;
}

} // namespace

} // namespace tarnd

uint32_t CalculateOsProcCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_OsProcessCpuRet>(
        __func__, replyCtx, [&](auto &reply) { tarnd::MeasureProcess(*request, tarnd::CpuNumber(), reply); });
}

uint32_t CalculateProcThreadCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_OsProcessCpuRet>(__func__, replyCtx,
                                                       [&](auto &reply) { tarnd::MeasureProcess(*request, 1, reply); });
}

uint32_t CalculateAllThreadCpuUse(const Tarn_sys_diag_ThreadCpuInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_ThreadCpuRet>(__func__, replyCtx, [&](auto &reply) {
        reply.pstThread = reply.Keep(tarnd::MeasureAllThreads(tarnd::IntervalOf(request->uiValue1), request->uiValue2),
                                     reply.uiThreadNum);
    });
}

uint32_t SysCpuStatInfoQuery(const Tarn_sys_diag_SysCpuStatInfoInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysCpuStatInfo>(__func__, replyCtx, [](auto &reply) {
        const tarnd::Sampler::Window window = tarnd::Daemon::Serving().sampler.Last({});
        tarnd::ProcessDetails details;
        tarnd::UserNames users;
        std::vector<Tarn_sys_diag_SysCpuStatProc> processes;
        details.ForEach([&] { processes.push_back(tarnd::Describe(details, users, window)); });
        reply.pstProc = reply.Keep(std::move(processes), reply.uiProcNum);
    });
}

uint32_t MultiCpuUsageQuery(const Tarn_sys_diag_MultiCpuUsageInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_MultiCpuUsageRet>(
        __func__, replyCtx, [](auto &reply) { reply.pstCpu = reply.Keep(tarnd::MeasureCpus(), reply.uiCpuNum); });
}

uint32_t ResetMaxCpuUseInfo(const Tarn_sys_diag_ResetMaxCpuCondition *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_ResetMaxCpuResult>(__func__, replyCtx, [](auto &) {
        tarnd::Daemon::Serving().cpuPeaks.Reset();
        tarnd::Daemon::Serving().cpuOverload.ResetPeaks();
    });
}

uint32_t GetSysCpuMonitorHistoryInfo(const Tarn_sys_diag_SysCpuMonitorHistoryInfoInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysCpuMonitorHistoryInfoResult>(__func__, replyCtx, [](auto &reply) {
        reply.pstRecord = reply.Keep(tarnd::DescribeHistory(), reply.uiRecordNum);
    });
}

uint32_t GetKpiCpuInfo(const Tarn_sys_diag_DisOsResourceInfoInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DisOsResourceInfoRet>(__func__, replyCtx, [](auto &reply) {
        host::CopyText(reply.acName, "cpu");
        reply.uiValue1 = tarnd::CpuUsePermille({});
        reply.uiValue2 = tarnd::CpuUsePermille(std::chrono::minutes(1));
        reply.uiValue3 = tarnd::Daemon::Serving().cpuPeaks.OfSystem().permille;
        reply.uiValue4 = tarnd::LoadAverage();
    });
}
