// Who uses the CPUs. Rates are differences of samples, or of a sample and a reading made for the call.
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>

#include "host/answer/answer.h"
#include "host/daemon/cpu/unattributed.h"
#include "host/daemon/daemon.h"
#include "host/daemon/health/resource_levels.h"
#include "host/daemon/processes/process_age.h"
#include "host/daemon/processes/users.h"
#include "host/daemon/sampling/rates.h"
#include "host/daemon/sampling/thread_times.h"
#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

std::chrono::milliseconds IntervalOf(uint32_t stated) {
    return std::chrono::milliseconds(stated == 0 ? host::meaning::measured_interval::kDefaultMs : stated);
}

Tarn_sys_diag_Systime TimeOf(const Peak &peak) {
    return peak.time == host::WallTime{} ? Tarn_sys_diag_Systime{} : Daemon::Serving().clock.LocalTime(peak.time);
}

// ---- One process ----

ProcessSample ReadNow(const host::procfs::Procfs &proc, uint32_t pid) {
    const host::procfs::Task task = proc.ReadProcess(pid);
    ProcessSample process;
    process.pid = pid;
    process.startTicks = task.startTicks;
    process.cpuTicks = task.CpuTicks();
    process.threads = std::make_shared<const std::vector<ThreadTimes>>(ReadThreadTimes(proc, pid));
    return process;
}

Tarn_sys_diag_OsProcessCpuThread Describe(const ThreadUse &use, uint32_t permille) {
    const host::procfs::Task task = Daemon::Serving().proc.ReadThread(use.pid, use.tid);
    Tarn_sys_diag_OsProcessCpuThread entry{};
    auto &[name, thread, cpu, cpuTime, state, onCpu, scheduled] = entry;
    host::CopyText(name, task.name);
    thread = use.tid;
    cpu = permille;
    cpuTime = use.total.runNs / 1000;
    host::CopyText(state, host::procfs::StateText(task.state));
    onCpu = task.lastCpu;
    host::CopyText(scheduled, host::procfs::SchedulingText(task));
    return entry;
}

// Where it is not about what was asked for: nobody asked before, or the daemon has just started.
void ExplainLength(void *replyCtx, std::chrono::nanoseconds length, std::chrono::nanoseconds asked) {
    const auto seconds = [](std::chrono::nanoseconds time) { return std::chrono::duration<double>(time).count(); };
    const auto interval = Daemon::Serving().sampler.Interval();
    if (length + interval / 2 < asked || length > asked + 2 * interval) {
        TarnHost_ExplainReply(replyCtx, fmt::format("measured over {:.1f} s, not {:.1f}: so far apart are the samples",
                                                    seconds(length), seconds(asked))
                                            .c_str());
    }
}

// What a share is stated of.
enum class Whole { kOneCpu, kAllCpus };

void MeasureProcess(const Tarn_sys_diag_OsProcessCpuInput &request, void *replyCtx, Whole of,
                    host::Reply<Tarn_sys_diag_OsProcessCpuRet> &reply) {
    Daemon &daemon = Daemon::Serving();
    const auto &[process, interval, most] = request;
    daemon.sampler.Look();
    const SamplePtr sample = daemon.sampler.Before(IntervalOf(interval));
    const ProcessSample now = ReadNow(daemon.proc, process);
    const std::chrono::nanoseconds elapsed = daemon.clocks.SteadyNow() - sample->system.at;
    ExplainLength(replyCtx, elapsed, IntervalOf(interval));
    const ProcessSample *const before = sample->Find(now);
    if (before != nullptr && before->threads == nullptr) {
        const int error = before->threadsError == 0 ? ENODATA : before->threadsError;
        throw std::system_error(error, std::generic_category(), "the threads of the process were not sampled");
    }
    std::vector<ThreadUse> uses = ThreadUses(before, now);
    const uint64_t whole = static_cast<uint64_t>(elapsed.count()) * (of == Whole::kOneCpu ? 1 : sample->cpus.size());
    auto &[threadNum, threads, cpu] = reply.Members();
    cpu = Permille(ProcessUsedNs(before, now, uses), whole);
    KeepBusiest(uses, most);
    std::vector<Tarn_sys_diag_OsProcessCpuThread> busiest;
    for (const ThreadUse &use : uses) {
        host::procfs::SkipEnded([&] { busiest.push_back(Describe(use, Permille(use.usedNs, whole))); });
    }
    threads = reply.Keep(std::move(busiest), threadNum);
}

// ---- All threads ----

// A thread that has ended since the sample is told from that.
constexpr char kEnded = 'X';
constexpr uint8_t kUnknownCpu = UINT8_MAX;

uint16_t ToU16(uint32_t permille) {
    return static_cast<uint16_t>(std::min<uint32_t>(permille, UINT16_MAX));
}

Tarn_sys_diag_ThreadCpu Describe(const ThreadUse &use, const std::string &itsProcess, uint32_t permille) {
    std::optional<host::procfs::Task> task;
    host::procfs::SkipHidden([&] { task = Daemon::Serving().proc.ReadThread(use.pid, use.tid); });
    const std::string nameThen = use.tid == use.pid ? itsProcess : "";
    Tarn_sys_diag_ThreadCpu entry{};
    auto &[thread, cpu, state, onCpu, cpuTime, waited, name, process, processName, scheduled, timeslices] = entry;
    thread = use.tid;
    cpu = ToU16(permille);
    state = static_cast<uint8_t>(task ? task->state : kEnded);
    onCpu = task ? static_cast<uint8_t>(std::min<uint32_t>(task->lastCpu, UINT8_MAX)) : kUnknownCpu;
    cpuTime = use.total.runNs / 1000;
    waited = use.total.waitNs / 1000;
    host::CopyText(name, task ? task->name : nameThen);
    process = use.pid;
    host::CopyText(processName, itsProcess);
    host::CopyText(scheduled, task ? host::procfs::SchedulingText(*task) : "");
    timeslices = static_cast<uint32_t>(use.total.sliceNum);
    return entry;
}

Tarn_sys_diag_ThreadCpu DescribeThread(const Unattributed &rest) {
    Tarn_sys_diag_ThreadCpu entry{};
    auto &[thread, cpu, state, onCpu, cpuTime, waited, name, process, processName, scheduled, timeslices] = entry;
    cpu = ToU16(rest.permille);
    onCpu = kUnknownCpu;
    host::CopyText(name, rest.name);
    return entry;
}

// What threads of a process used that are not told one by one: they have ended since, or could not be sampled.
ThreadUse OfUntoldThreads(const ProcessSample *from, const ProcessSample &to, const std::vector<ThreadUse> &uses) {
    uint64_t told = 0;
    for (const ThreadUse &use : uses) {
        told += use.usedNs;
    }
    return {to.pid, 0, {}, ProcessUsedNs(from, to, uses) - told};
}

std::vector<ThreadUse> UsesOfAllThreads(const Sampler::Window &window) {
    std::vector<ThreadUse> uses;
    for (const ProcessSample &process : window.to->processes) {
        const ProcessSample *const before = window.from->Find(process);
        const std::vector<ThreadUse> ofProcess = ThreadUses(before, process);
        uses.insert(uses.end(), ofProcess.begin(), ofProcess.end());
        if (const ThreadUse untold = OfUntoldThreads(before, process, ofProcess); untold.usedNs != 0) {
            uses.push_back(untold);
        }
    }
    return uses;
}

// Several threads may have more than a CPU.
uint32_t ShareOf(const ThreadUse &use, std::chrono::nanoseconds elapsed) {
    return use.tid == 0 ? Permille(use.usedNs, static_cast<uint64_t>(elapsed.count())) : ThreadPermille(use, elapsed);
}

std::vector<Tarn_sys_diag_ThreadCpu> MeasureAllThreads(std::chrono::nanoseconds interval, size_t limit,
                                                       void *replyCtx) {
    Daemon::Serving().sampler.Look();
    const Sampler::Window window = Daemon::Serving().sampler.Last(interval);
    ExplainLength(replyCtx, window.Length(), interval);
    std::vector<ThreadUse> uses = UsesOfAllThreads(window);
    uint64_t shown = 0;
    for (const ThreadUse &use : uses) {
        shown += ShareOf(use, window.Length());
    }
    KeepBusiest(uses, limit);
    std::vector<Tarn_sys_diag_ThreadCpu> rows;
    for (const ThreadUse &use : uses) {
        rows.push_back(Describe(use, window.to->Find(use.pid)->name, ShareOf(use, window.Length())));
    }
    for (const Unattributed &rest : UnattributedUse(*window.from, *window.to, shown)) {
        if (rest.permille != 0) {
            rows.push_back(DescribeThread(rest));
        }
    }
    std::ranges::stable_sort(rows, std::ranges::greater(), &Tarn_sys_diag_ThreadCpu::usValue1);
    rows.resize(limit == 0 ? rows.size() : std::min(limit, rows.size()));
    return rows;
}

// ---- All processes ----

// What the samples don't have, read for the call.
struct ProcessDetails {
    host::procfs::Task task;
    uint32_t effectiveUser = 0;
    std::string exe; // empty for none, or one that may not be seen, by the daemon or by the caller
};

// "Uid: real effective saved ..."
uint32_t EffectiveUser(const std::string &status) {
    constexpr std::string_view kKey = "\nUid:";
    const size_t at = status.find(kKey);
    std::istringstream ids(at == status.npos ? "" : status.substr(at + kKey.size()));
    uint32_t real = 0;
    uint32_t effective = 0;
    if (!(ids >> real >> effective)) {
        throw std::system_error(EPROTO, std::generic_category(), "no two numbers for \"Uid\"");
    }
    return effective;
}

ProcessDetails ReadDetails(const host::procfs::Procfs &proc, uint32_t pid) {
    std::error_code none;
    return {proc.ReadProcess(pid), EffectiveUser(proc.Read(pid, "status")),
            host::MayLookInto(pid) ? std::filesystem::read_symlink(proc.Path(pid, "exe"), none).string() : ""};
}

// The end of a text tells more of a path than its start.
template <size_t kSize>
void CopyEnd(char (&to)[kSize], std::string_view text) {
    host::CopyText(to, text.size() < kSize ? text : text.substr(text.size() - (kSize - 1)));
}

// The same process in the latest sample; null where it has started since.
const ProcessSample *FindSampled(const host::procfs::Task &task, const Sampler::Window &window) {
    ProcessSample process;
    process.pid = task.id;
    process.startTicks = task.startTicks;
    return window.to->Find(process);
}

struct Shares {
    uint32_t cpu = 0;
    Peak highest;
};

Shares SharesOf(const ProcessSample &sampled, const Sampler::Window &window) {
    return {ProcessPermille(window.from->Find(sampled), sampled, window.Length()),
            Daemon::Serving().cpuPeaks.OfProcess(sampled)};
}

Tarn_sys_diag_SysCpuStatProc Describe(const ProcessDetails &details, UserNames &users, const Sampler::Window &window) {
    const Daemon &daemon = Daemon::Serving();
    const auto ms = [](uint64_t ticks) { return static_cast<uint32_t>(TicksToNs(ticks) / 1'000'000); };
    const host::procfs::Task &task = details.task;
    const std::chrono::nanoseconds age = AgeOf(daemon.proc, task.startTicks);
    Tarn_sys_diag_SysCpuStatProc entry{};
    auto &[process, name, cpu, highest, userTime, systemTime, highestAt, state, parent, threads, nice, onCpu, started,
           user, program, cpuSinceStart, majorFaults, resident] = entry;
    process = task.id;
    host::CopyText(name, task.name);
    if (const ProcessSample *const sampled = FindSampled(task, window)) {
        const Shares shares = SharesOf(*sampled, window);
        cpu = shares.cpu;
        highest = shares.highest.permille;
        highestAt = TimeOf(shares.highest);
    }
    userTime = ms(task.userTicks);
    systemTime = ms(task.systemTicks);
    host::CopyText(state, host::procfs::StateText(task.state));
    parent = task.parent;
    threads = task.threadNum;
    nice = static_cast<uint32_t>(task.nice);
    onCpu = task.lastCpu;
    started = daemon.clock.LocalTime(StartOf(age, daemon.clocks));
    host::CopyText(user, users.User(details.effectiveUser));
    CopyEnd(program, details.exe);
    cpuSinceStart = age.count() <= 0 ? 0 : Permille(TicksToNs(task.CpuTicks()), static_cast<uint64_t>(age.count()));
    majorFaults = static_cast<uint32_t>(task.majorFaults);
    resident = static_cast<uint32_t>(task.residentKb);
    return entry;
}

// One that has ended since the sample.
Tarn_sys_diag_SysCpuStatProc Describe(const ProcessSample &sampled, const Sampler::Window &window) {
    const Daemon &daemon = Daemon::Serving();
    const Shares shares = SharesOf(sampled, window);
    Tarn_sys_diag_SysCpuStatProc entry{};
    auto &[process, name, cpu, highest, userTime, systemTime, highestAt, state, parent, threads, nice, onCpu, started,
           user, program, cpuSinceStart, majorFaults, resident] = entry;
    process = sampled.pid;
    host::CopyText(name, sampled.name);
    cpu = shares.cpu;
    highest = shares.highest.permille;
    highestAt = TimeOf(shares.highest);
    host::CopyText(state, host::procfs::StateText(kEnded));
    threads = sampled.threadNum;
    started = daemon.clock.LocalTime(StartOf(AgeOf(daemon.proc, sampled.startTicks), daemon.clocks));
    resident = static_cast<uint32_t>(sampled.rssKb);
    return entry;
}

Tarn_sys_diag_SysCpuStatProc DescribeProcess(const Unattributed &rest) {
    Tarn_sys_diag_SysCpuStatProc entry{};
    entry.uiValue1 = rest.permille; // the share
    host::CopyText(entry.acName, rest.name);
    return entry;
}

std::vector<Tarn_sys_diag_SysCpuStatProc> DescribeProcesses(void *replyCtx) {
    Daemon &daemon = Daemon::Serving();
    daemon.sampler.Look();
    const Sampler::Window window = daemon.sampler.Last({});
    daemon.cpuPeaks.TakeProcesses(*window.from, *window.to);
    ExplainLength(replyCtx, window.Length(), daemon.sampler.Interval());
    UserNames users;
    std::vector<Tarn_sys_diag_SysCpuStatProc> processes;
    std::set<std::pair<uint32_t, uint64_t>> there;
    for (const uint32_t pid : daemon.proc.ProcessIds()) {
        host::procfs::SkipHidden([&] {
            const ProcessDetails details = ReadDetails(daemon.proc, pid);
            processes.push_back(Describe(details, users, window));
            there.emplace(pid, details.task.startTicks);
        });
    }
    uint64_t shown = 0;
    for (const ProcessSample &sampled : window.to->processes) {
        shown += ProcessPermille(window.from->Find(sampled), sampled, window.Length());
        if (!there.contains({sampled.pid, sampled.startTicks})) {
            processes.push_back(Describe(sampled, window));
        }
    }
    for (const Unattributed &rest : UnattributedUse(*window.from, *window.to, shown)) {
        if (rest.permille != 0) {
            processes.push_back(DescribeProcess(rest));
        }
    }
    return processes;
}

// ---- The system ----

Tarn_sys_diag_MultiCpuUsage Describe(const std::string &cpu, const CpuTicks &from, const CpuTicks &to, Peak peak) {
    const uint64_t total = Growth(from.Total(), to.Total());
    Tarn_sys_diag_MultiCpuUsage entry{};
    auto &[name, busy, user, system, waiting, highest, highestAt] = entry;
    host::CopyText(name, cpu);
    busy = BusyPermille(from, to);
    user = Permille(Growth(from.user, to.user), total);
    system = Permille(Growth(from.system + from.interrupt, to.system + to.interrupt), total);
    waiting = Permille(Growth(from.ioWait, to.ioWait), total);
    highest = peak.permille;
    highestAt = TimeOf(peak);
    return entry;
}

std::vector<Tarn_sys_diag_MultiCpuUsage> MeasureCpus() {
    const Sampler::Window window = Daemon::Serving().sampler.LastTwo();
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
    const std::string text = Daemon::Serving().proc.Read("loadavg");
    double load = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), load).ec != std::errc{}) {
        throw std::system_error(EPROTO, std::generic_category(), "the load average");
    }
    return static_cast<uint32_t>(load * 1000 + 0.5);
}

Tarn_sys_diag_SysCpuMonitorHistoryInfo Figures(host::WallTime when, uint32_t busyPermille, uint32_t waitingPermille) {
    const auto percent = [](uint32_t permille) { return static_cast<uint8_t>(std::min((permille + 5) / 10, 100U)); };
    return {Daemon::Serving().clock.LocalTime(when), percent(busyPermille), percent(waitingPermille)};
}

// By the minute until the first of the samples, then by them.
std::vector<Tarn_sys_diag_SysCpuMonitorHistoryInfo> DescribeHistory() {
    const Daemon &daemon = Daemon::Serving();
    const std::vector<SystemSample> history = daemon.sampler.History();
    std::vector<Tarn_sys_diag_SysCpuMonitorHistoryInfo> records;
    for (const MinuteFigures &minute : daemon.history.Minutes({})) {
        if (minute.time <= history.front().time) {
            records.push_back(Figures(minute.time, minute.busyPermille, minute.waitingPermille));
        }
    }
    for (size_t i = 1; i < history.size(); ++i) {
        const CpuTicks &from = history[i - 1].cpu;
        const CpuTicks &to = history[i].cpu;
        const uint64_t total = Growth(from.Total(), to.Total());
        records.push_back(
            Figures(history[i].time, BusyPermille(from, to), Permille(Growth(from.ioWait, to.ioWait), total)));
    }
    return records;
}

} // namespace

} // namespace tarnd

uint32_t CalculateOsProcCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer(host::methods::CalculateOsProcCpuUse, request, replyCtx,
                        [&](auto &reply) { tarnd::MeasureProcess(*request, replyCtx, tarnd::Whole::kAllCpus, reply); });
}

uint32_t CalculateProcThreadCpuUse(const Tarn_sys_diag_OsProcessCpuInput *request, void *replyCtx) {
    return host::Answer(host::methods::CalculateProcThreadCpuUse, request, replyCtx,
                        [&](auto &reply) { tarnd::MeasureProcess(*request, replyCtx, tarnd::Whole::kOneCpu, reply); });
}

uint32_t CalculateAllThreadCpuUse(const Tarn_sys_diag_ThreadCpuInput *request, void *replyCtx) {
    return host::Answer(host::methods::CalculateAllThreadCpuUse, request, replyCtx, [&](auto &reply) {
        const auto &[interval, most] = *request;
        reply.pstThread =
            reply.Keep(tarnd::MeasureAllThreads(tarnd::IntervalOf(interval), most, replyCtx), reply.uiThreadNum);
    });
}

uint32_t SysCpuStatInfoQuery(const Tarn_sys_diag_SysCpuStatInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::SysCpuStatInfoQuery, request, replyCtx, [&](auto &reply) {
        reply.pstProc = reply.Keep(tarnd::DescribeProcesses(replyCtx), reply.uiProcNum);
    });
}

uint32_t MultiCpuUsageQuery(const Tarn_sys_diag_MultiCpuUsageInput *request, void *replyCtx) {
    return host::Answer(host::methods::MultiCpuUsageQuery, request, replyCtx,
                        [](auto &reply) { reply.pstCpu = reply.Keep(tarnd::MeasureCpus(), reply.uiCpuNum); });
}

uint32_t ResetMaxCpuUseInfo(const Tarn_sys_diag_ResetMaxCpuCondition *request, void *replyCtx) {
    return host::Answer(host::methods::ResetMaxCpuUseInfo, request, replyCtx, [](auto &) {
        tarnd::Daemon::Serving().cpuPeaks.Reset();
        tarnd::Daemon::Serving().cpuOverload.ResetPeaks();
    });
}

uint32_t GetSysCpuMonitorHistoryInfo(const Tarn_sys_diag_SysCpuMonitorHistoryInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysCpuMonitorHistoryInfo, request, replyCtx,
                        [](auto &reply) { reply.pstRecord = reply.Keep(tarnd::DescribeHistory(), reply.uiRecordNum); });
}

uint32_t GetKpiCpuInfo(const Tarn_sys_diag_DisOsResourceInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetKpiCpuInfo, request, replyCtx, [&](auto &reply) {
        auto &[name, now, lastMinute, highest, load] = reply.Members();
        host::CopyText(name, "cpu");
        now = tarnd::CpuUseOver(tarnd::Daemon::Serving().sampler, {}).permille;
        const tarnd::CpuUse ofMinute = tarnd::CpuUseOver(tarnd::Daemon::Serving().sampler, std::chrono::minutes(1));
        lastMinute = ofMinute.permille;
        if (ofMinute.over < std::chrono::minutes(1)) {
            const double seconds = std::chrono::duration<double>(ofMinute.over).count();
            TarnHost_ExplainReply(replyCtx, fmt::format("of the last minute {:.1f} s were sampled", seconds).c_str());
        }
        highest = tarnd::Daemon::Serving().cpuPeaks.OfSystem().permille;
        load = tarnd::LoadAverage();
    });
}
