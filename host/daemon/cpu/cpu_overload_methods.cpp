// The thresholds of CPU overloads, and what has been recorded of them.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/explain_source.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

void SetProcess(const Tarn_sys_diag_SetCpuOvProcThresholdInput &request) {
    const auto &[process, on, beginsAt, mustLast] = request;
    if (on == 0) {
        Daemon::Serving().cpuOverload.Unwatch(process);
        return;
    }
    const size_t cpus = Daemon::Serving().sampler.Latest()->cpus.size();
    if (beginsAt > 1000 * cpus) {
        throw host::meaning::BadMember(host::methods::SetCpuOvProcThreshold, "begins-at", beginsAt,
                                       fmt::format("1 to {}, 1000 for each CPU", 1000 * cpus));
    }
    Daemon::Serving().cpuOverload.Watch(process, {beginsAt, beginsAt, mustLast});
}

Tarn_sys_diag_CpuOvMonThread Describe(uint32_t pid, const WatchedThread &watchedThread, const Watched &watched) {
    Tarn_sys_diag_CpuOvMonThread entry{};
    auto &[thread, cpu, highest, cpuTime, state, overloaded, overloads] = entry;
    thread = watchedThread.tid;
    cpu = watchedThread.permille;
    highest = watchedThread.highest;
    cpuTime = static_cast<uint32_t>(watchedThread.runNs / 1'000'000);
    state = static_cast<uint8_t>(Daemon::Serving().proc.ReadThread(pid, watchedThread.tid).state);
    overloaded = watched.crossing.Over() ? 1 : 0;
    overloads = watched.overloads;
    return entry;
}

std::vector<Tarn_sys_diag_CpuOvMonThread> Describe(uint32_t pid, const Watched &watched) {
    std::vector<Tarn_sys_diag_CpuOvMonThread> threads;
    for (const WatchedThread &thread : watched.threads) {
        host::procfs::SkipEnded([&] { threads.push_back(Describe(pid, thread, watched)); });
    }
    return threads;
}

} // namespace

} // namespace tarnd

uint32_t SysOvLoadCpuThresholdSet(const Tarn_sys_diag_SysOvLoadCpuThreshold *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SysOvLoadCpuThresholdSet, request, replyCtx, [&] {
        const auto &[beginsAt, endsBelow, mustLast] = *request;
        tarnd::Daemon::Serving().cpuOverload.SetSystem({beginsAt, endsBelow, mustLast});
    });
}

uint32_t SetCpuOvProcThreshold(const Tarn_sys_diag_SetCpuOvProcThresholdInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetCpuOvProcThreshold, request, replyCtx,
                              [&] { tarnd::SetProcess(*request); });
}

uint32_t OvloadCpuSwitchState(const Tarn_sys_diag_OvloadCpuSwitchInput *request, void *replyCtx) {
    return host::Answer(host::methods::OvloadCpuSwitchState, request, replyCtx, [](auto &reply) {
        reply.uiSwitch = tarnd::Daemon::Serving().cpuOverload.System().Value().over != 0 ? 1 : 0;
    });
}

uint32_t GetSysCpuOverloadCfg(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysCpuOverloadCfg, request, replyCtx, [&](auto &reply) {
        const tarnd::CpuOverload &overload = tarnd::Daemon::Serving().cpuOverload;
        const tarnd::Setting<tarnd::Thresholds> system = overload.System();
        const tarnd::Thresholds &thresholds = system.Value();
        auto &[beginsAt, endsBelow, mustLast, watched, sampleInterval, overloads] = reply.Members();
        beginsAt = thresholds.over;
        endsBelow = thresholds.recover;
        mustLast = thresholds.seconds;
        watched = static_cast<uint32_t>(overload.WatchedNumber());
        sampleInterval = static_cast<uint32_t>(tarnd::Daemon::Serving().sampler.Interval().count());
        overloads = overload.RecordNumber();
        tarnd::ExplainSource(replyCtx, "thresholds", system.From());
    });
}

uint32_t DisCpuOvloadInfo(const Tarn_sys_diag_DisCpuOvloadInput *request, void *replyCtx) {
    return host::Answer(host::methods::DisCpuOvloadInfo, request, replyCtx, [](auto &reply) {
        const tarnd::Overload overload = tarnd::Daemon::Serving().cpuOverload.Last();
        const tarnd::LocalClock &clock = tarnd::Daemon::Serving().clock;
        auto &[began, name, process, busy, cpu, ended] = reply.Members();
        began = clock.LocalTime(overload.begin);
        host::CopyText(name, overload.name);
        process = overload.pid;
        busy = overload.systemPermille;
        cpu = overload.processPermille;
        ended = overload.end ? clock.LocalTime(*overload.end) : Tarn_sys_diag_Systime{};
    });
}

uint32_t DisCpuOvloadCallstackInfo(const Tarn_sys_diag_CpuOvloadThreadCallstackInput *request, void *replyCtx) {
    return host::Answer(host::methods::DisCpuOvloadCallstackInfo, request, replyCtx, [](auto &reply) {
        const tarnd::Overload overload = tarnd::Daemon::Serving().cpuOverload.Last();
        for (const tarnd::OverloadThread &thread : overload.threads) {
            Tarn_sys_diag_TopCpuOvloadThread &entry = reply.astThread[reply.uiThreadNum++];
            entry.uiPid = thread.pid;
            entry.uiTid = thread.tid;
            host::CopyText(entry.szThreadName, thread.name);
            entry.ullCpuTime = thread.runNs / 1'000'000;
            entry.uiCpuUse = thread.permille;
            entry.pcCallStack = thread.stack ? reply.Keep(*thread.stack) : nullptr;
        }
    });
}

uint32_t GetCpuOvMonProcInfo(const Tarn_sys_diag_Process *request, void *replyCtx) {
    return host::Answer(host::methods::GetCpuOvMonProcInfo, request, replyCtx, [&](auto &reply) {
        const tarnd::Watched watched = tarnd::Daemon::Serving().cpuOverload.WatchedProcess(request->uiPid);
        reply.uiPid = request->uiPid;
        reply.pstThread = reply.Keep(tarnd::Describe(request->uiPid, watched), reply.uiThreadNum);
    });
}
