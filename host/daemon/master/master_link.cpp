#include "host/daemon/master/master_link.h"

#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "client/master.h"
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/time/local_clock.h"
#include "host/osal/log.h"
#include "host/osal/thread.h"
#include "host/runtime/client.h"
#include "host/values/daemon.h"
#include "host/values/master.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

constexpr uint32_t kMasterTimeoutMs = 1000;
constexpr const char *kSource = "the master";
constexpr const char *kSystem = "system"; // whose overload configuration the daemon follows

struct Unreachable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

template <class Request, class Response>
using Method = IdlCallResult (*)(const Request *, Response *, void *);

// Has a function take a reply over. What the master has not configured, or is wrong with it, is only logged.
template <class Request, class Response, class Take>
void Ask(const char *name, Method<Request, Response> method, const Request &request, Take take) {
    TarnHost_InvokeCtx ctx{0, kMasterTimeoutMs};
    Response reply{}; // none of the master's owns memory
    const IdlCallResult result = method(&request, &reply, &ctx);
    if (result.uiErrCode != 0) {
        throw Unreachable(fmt::format("{}: {}", name, TarnHost_LastError()));
    }
    if (result.uiStatus == ENODATA || result.uiStatus == ENOENT) {
        host::Log().debug("{}: not configured on the master", name);
    } else if (result.uiStatus != 0) {
        host::Log().warn("{}: {}", name, TarnHost_LastError());
    } else {
        host::Run(name, [&] { take(reply); });
    }
}

void FetchClock() {
    bool zoned = false;
    Ask("GetTimezone", TarnSysdiagMaster_GetTimezone, Tarn_sys_diag_None{}, [&](const auto &reply) {
        if (reply.uiValue1 == TARN_MASTER_CONFIGURED) {
            TheClock().SetZone(host::FromRecord(reply.stTimezone), kSource);
            zoned = true;
        }
    });
    Ask("GetDst", TarnSysdiagMaster_GetDst, Tarn_sys_diag_None{}, [&](const auto &reply) {
        if (zoned) { // a zone without a rule saves no daylight
            TheClock().SetDst(host::FromRecord(reply.stDst), kSource);
        }
    });
}

void FetchOverload() {
    Tarn_sys_diag_OvLoadCpuCtlInput ofCpu{};
    host::CopyText(ofCpu.acName1, kSystem);
    Ask("GetCpuOvLoadCfgInfo", TarnSysdiagMaster_GetCpuOvLoadCfgInfo, ofCpu, [](const auto &reply) {
        if (reply.uiValue1 > 1000 || reply.uiValue2 > reply.uiValue1 || reply.uiValue3 > TARND_OVERLOAD_MAX_S) {
            throw host::BadValue("a CPU overload configuration",
                                 fmt::format("{}, {}, {}", reply.uiValue1, reply.uiValue2, reply.uiValue3),
                                 "two shares, the second not above the first, and seconds");
        }
        Daemon::Serving().cpuOverload.SetSystem({reply.uiValue1, reply.uiValue2, reply.uiValue3});
        host::Log().info("CPU overload {} to {} permille from {}", reply.uiValue1, reply.uiValue2, kSource);
    });
    Tarn_sys_diag_OvLoadMemCtlInput ofMemory{};
    host::CopyText(ofMemory.acName1, kSystem);
    Ask("GetMemoryOvLoadCfgInfo", TarnSysdiagMaster_GetMemoryOvLoadCfgInfo, ofMemory, [](const auto &reply) {
        Daemon::Serving().memoryOverload.Set({reply.uiValue1, reply.uiValue2});
        host::Log().info("memory overload {} to {} permille from {}", reply.uiValue1, reply.uiValue2, kSource);
    });
}

void FetchMeasurement() {
    Ask("SysdiagGetDimCfgInfo", TarnSysdiagMaster_SysdiagGetDimCfgInfo, Tarn_sys_diag_None{}, [](const auto &reply) {
        Daemon::Serving().measurement.SetTimes({reply.ucValue1, reply.ucValue2});
    });
    Ask("SysdiagGetDimWorkMode", TarnSysdiagMaster_SysdiagGetDimWorkMode, Tarn_sys_diag_None{},
        [](const auto &reply) { Daemon::Serving().measurement.SetMode(reply.uiWorkMode); });
}

void Announce() {
    TarnHost_InvokeCtx ctx{0, kMasterTimeoutMs};
    const Tarn_sys_diag_None request{};
    if (TarnSysdiagMaster_DetectSysdiagServerOnline_oneway(&request, &ctx) != 0) {
        throw Unreachable(TarnHost_LastError());
    }
}

void SendMemoryThresholds() {
    const MemoryThresholds thresholds = Daemon::Serving().memoryOverload.Thresholds();
    Tarn_sys_diag_OvLoadMemCtlOutput request{};
    host::CopyText(request.acName1, kSystem);
    host::CopyText(request.acName3, fmt::format("tarnd {}", getpid()));
    request.uiValue1 = thresholds.over;
    request.uiValue2 = thresholds.recover;
    Ask("MemChangeInnerConfig", TarnSysdiagMaster_MemChangeInnerConfig, request, [](const auto &) {});
}

} // namespace

void MasterLink::Start() {
    thread_ = host::StartThread("master link", [this](const std::stop_token &stop) { Run(stop); });
    Greet();
}

void MasterLink::Stop() {
    thread_ = {};
}

void MasterLink::Greet() {
    const std::lock_guard lock(mutex_);
    greet_ = due_ = true;
    wake_.notify_one();
}

void MasterLink::TellMemoryThresholds() {
    const std::lock_guard lock(mutex_);
    tell_ = due_ = true;
    wake_.notify_one();
}

void MasterLink::Run(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, stop, [this] { return due_; });
        if (stop.stop_requested()) {
            return;
        }
        due_ = false;
        const bool tell = std::exchange(tell_, false);
        const bool greet = std::exchange(greet_, false);
        lock.unlock();
        bool told = !tell;
        try {
            if (tell) { // before the master's are fetched, which would undo the change
                SendMemoryThresholds();
                told = true;
            }
            if (greet) {
                Announce();
                FetchClock();
                FetchOverload();
                FetchMeasurement();
            }
        } catch (const Unreachable &error) {
            host::Log().info("no master: {}", error.what());
        }
        lock.lock();
        tell_ = tell_ || !told; // until the next greeting
    }
}

} // namespace tarnd

uint32_t DetectTarndServerOnline(const Tarn_sys_diag_None *) {
    host::Log().debug("{}: a peer is there, or has something new", __func__);
    tarnd::TheMasterLink().Greet();
    return 0;
}
