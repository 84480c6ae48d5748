// The thresholds of CPU overloads, and what has been recorded of them.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

Thresholds CheckedThresholds(const Tarn_sys_diag_SysOvLoadCpuThreshold &request) {
    if (request.uiValue1 > 1000) {
        throw host::BadValue("uiValue1", request.uiValue1, "0 to 1000 permille");
    }
    if (request.uiValue2 > request.uiValue1) {
        throw host::BadValue("uiValue2", request.uiValue2, fmt::format("0 to uiValue1, {}", request.uiValue1));
    }
    if (request.uiValue3 > TARND_OVERLOAD_MAX_S) {
        throw host::BadValue("uiValue3", request.uiValue3, fmt::format("0 to {} s", TARND_OVERLOAD_MAX_S));
    }
    return {request.uiValue1, request.uiValue2 == 0 ? request.uiValue1 : request.uiValue2, request.uiValue3};
}

void SetProcess(const Tarn_sys_diag_SetCpuOvProcThresholdInput &request) {
    if (request.ucValue2 > 1) {
        throw host::BadValue("ucValue2", request.ucValue2, "0 or 1");
    }
    if (request.ucValue2 == 0) {
        Daemon::Serving().cpuOverload.Unwatch(request.uiValue1);
        return;
    }
    const uint64_t highest = 1000 * Daemon::Serving().sampler.Latest()->cpus.size();
    if (request.uiValue3 == 0 || request.uiValue3 > highest) {
        throw host::BadValue("uiValue3", request.uiValue3, fmt::format("1 to {} permille of a CPU", highest));
    }
    if (request.uiValue4 > TARND_OVERLOAD_MAX_S) {
        throw host::BadValue("uiValue4", request.uiValue4, fmt::format("0 to {} s", TARND_OVERLOAD_MAX_S));
    }
    Daemon::Serving().cpuOverload.Watch(request.uiValue1, {request.uiValue3, request.uiValue3, request.uiValue4});
}

std::vector<Tarn_sys_diag_CpuOvMonThread> Describe(uint32_t pid, const Watched &watched) {
    std::vector<Tarn_sys_diag_CpuOvMonThread> threads;
    for (const WatchedThread &thread : watched.threads) {
        host::procfs::SkipEnded([&] {
            const char state = Daemon::Serving().proc.ReadThread(pid, thread.tid).state;
            Tarn_sys_diag_CpuOvMonThread entry{};
            entry.uiValue1 = thread.tid;
            entry.uiValue2 = thread.permille;
            entry.uiValue3 = thread.highest;
            entry.uiValue4 = static_cast<uint32_t>(thread.runNs / 1'000'000);
            entry.ucValue5 = static_cast<uint8_t>(state);
            entry.ucValue6 = watched.crossing.Over() ? 1 : 0;
            entry.uiValue7 = watched.overloads;
            threads.push_back(entry);
        });
    }
    return threads;
}

} // namespace

} // namespace tarnd

uint32_t SysOvLoadCpuThresholdSet(const Tarn_sys_diag_SysOvLoadCpuThreshold *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SysOvLoadCpuThresholdSet, request, replyCtx, [&] {
        tarnd::Daemon::Serving().cpuOverload.SetSystem(tarnd::CheckedThresholds(*request));
    });
}

uint32_t SetCpuOvProcThreshold(const Tarn_sys_diag_SetCpuOvProcThresholdInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetCpuOvProcThreshold, request, replyCtx,
                              [&] { tarnd::SetProcess(*request); });
}

uint32_t OvloadCpuSwitchState(const Tarn_sys_diag_OvloadCpuSwitchInput *request, void *replyCtx) {
    return host::Answer(host::methods::OvloadCpuSwitchState, request, replyCtx, [](auto &reply) {
        reply.uiSwitch = tarnd::Daemon::Serving().cpuOverload.System().over != 0 ? 1 : 0;
    });
}

uint32_t GetSysCpuOverloadCfg(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysCpuOverloadCfg, request, replyCtx, [](auto &reply) {
        const tarnd::CpuOverload &overload = tarnd::Daemon::Serving().cpuOverload;
        const tarnd::Thresholds thresholds = overload.System();
        reply.uiValue1 = thresholds.over;
        reply.uiValue2 = thresholds.recover;
        reply.uiValue3 = thresholds.seconds;
        reply.uiValue4 = static_cast<uint32_t>(overload.WatchedNumber());
        reply.uiValue5 = static_cast<uint32_t>(tarnd::Daemon::Serving().sampler.Interval().count());
        reply.uiValue6 = overload.RecordNumber();
    });
}

uint32_t DisCpuOvloadInfo(const Tarn_sys_diag_DisCpuOvloadInput *request, void *replyCtx) {
    return host::Answer(host::methods::DisCpuOvloadInfo, request, replyCtx, [](auto &reply) {
        const tarnd::Overload overload = tarnd::Daemon::Serving().cpuOverload.Last();
        reply.stTime1 = tarnd::Daemon::Serving().clock.LocalTime(overload.begin);
        host::CopyText(reply.acName, overload.name);
        reply.uiValue1 = overload.pid;
        reply.uiValue2 = overload.systemPermille;
        reply.uiValue3 = overload.processPermille;
        reply.stTime2 =
            overload.end ? tarnd::Daemon::Serving().clock.LocalTime(*overload.end) : Tarn_sys_diag_Systime{};
    });
}

uint32_t DisCpuOvloadCallstackInfo(const Tarn_sys_diag_CpuOvloadThreadCallstackInput *request, void *replyCtx) {
    return host::Answer(host::methods::DisCpuOvloadCallstackInfo, request, replyCtx, [](auto &reply) {
        const tarnd::Overload overload = tarnd::Daemon::Serving().cpuOverload.Last();
        for (const tarnd::OverloadThread &thread : overload.threads) {
            Tarn_sys_diag_TopCpuOvloadThread &entry = reply.astThread[reply.uiThreadNum++];
            entry.uiPid = overload.pid;
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
