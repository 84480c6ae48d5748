#include "host/daemon/master/master_link.h"

#include <unistd.h>

#include <utility>

#include <fmt/format.h>

#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/values/daemon.h"
#include "host/values/master.h"

namespace tarnd {

namespace {

constexpr const char *kSource = "the master";
constexpr const char *kSystem = "system"; // whose overload configuration the daemon follows

} // namespace

void MasterLink::Greet() {
    const host::MutexLock lock(mutex_);
    greets_ = true;
    TellDue();
}

void MasterLink::TellMemoryThresholds() {
    const host::MutexLock lock(mutex_);
    tells_ = true;
    TellDue();
}

void MasterLink::OnDue(std::function<void(host::SteadyTime due)> tell) {
    const host::MutexLock lock(mutex_);
    tell_ = std::move(tell);
    if (greets_ || tells_) {
        TellDue();
    }
}

void MasterLink::TellDue() {
    if (tell_) {
        tell_(clocks_.SteadyNow());
    }
}

void MasterLink::RunDue() {
    host::MutexLock lock(mutex_);
    const bool tells = std::exchange(tells_, false);
    const bool greets = std::exchange(greets_, false);
    lock.Unlock();
    bool told = !tells;
    try {
        if (tells) { // before the master's are fetched, which would undo the change
            SendMemoryThresholds();
            told = true;
        }
        if (greets) {
            line_.Tell(TarnSysdiagMaster_DetectSysdiagServerOnline_oneway, Tarn_sys_diag_None{});
            FetchClock();
            FetchOverload();
            FetchMeasurement();
        }
    } catch (const MasterUnreachable &error) {
        host::Log().info("no master: {}", error.what());
    }
    lock.Lock();
    tells_ = tells_ || !told; // until the next greeting
}

void MasterLink::SendMemoryThresholds() {
    const MemoryThresholds thresholds = memoryOverload_.Thresholds();
    Tarn_sys_diag_OvLoadMemCtlOutput request{};
    host::CopyText(request.acName1, kSystem);
    host::CopyText(request.acName3, fmt::format("tarnd {}", getpid()));
    request.uiValue1 = thresholds.over;
    request.uiValue2 = thresholds.recover;
    line_.Ask("MemChangeInnerConfig", TarnSysdiagMaster_MemChangeInnerConfig, request, [](const auto &) {});
}

void MasterLink::FetchClock() {
    bool zoned = false;
    line_.Ask("GetTimezone", TarnSysdiagMaster_GetTimezone, Tarn_sys_diag_None{}, [&](const auto &reply) {
        if (reply.uiValue1 == TARN_MASTER_CONFIGURED) {
            localClock_.SetZone(host::FromRecord(reply.stTimezone), kSource);
            zoned = true;
        }
    });
    line_.Ask("GetDst", TarnSysdiagMaster_GetDst, Tarn_sys_diag_None{}, [&](const auto &reply) {
        if (zoned) { // a zone without a rule saves no daylight
            localClock_.SetDst(host::FromRecord(reply.stDst), kSource);
        }
    });
}

void MasterLink::FetchOverload() {
    Tarn_sys_diag_OvLoadCpuCtlInput ofCpu{};
    host::CopyText(ofCpu.acName1, kSystem);
    line_.Ask("GetCpuOvLoadCfgInfo", TarnSysdiagMaster_GetCpuOvLoadCfgInfo, ofCpu, [this](const auto &reply) {
        if (reply.uiValue1 > 1000 || reply.uiValue2 > reply.uiValue1 || reply.uiValue3 > TARND_OVERLOAD_MAX_S) {
            throw host::BadValue("a CPU overload configuration",
                                 fmt::format("{}, {}, {}", reply.uiValue1, reply.uiValue2, reply.uiValue3),
                                 "two shares, the second not above the first, and seconds");
        }
        cpuOverload_.SetSystem({reply.uiValue1, reply.uiValue2, reply.uiValue3});
        host::Log().info("CPU overload {} to {} permille from {}", reply.uiValue1, reply.uiValue2, kSource);
    });
    Tarn_sys_diag_OvLoadMemCtlInput ofMemory{};
    host::CopyText(ofMemory.acName1, kSystem);
    line_.Ask("GetMemoryOvLoadCfgInfo", TarnSysdiagMaster_GetMemoryOvLoadCfgInfo, ofMemory, [this](const auto &reply) {
        memoryOverload_.Set({reply.uiValue1, reply.uiValue2});
        host::Log().info("memory overload {} to {} permille from {}", reply.uiValue1, reply.uiValue2, kSource);
    });
}

void MasterLink::FetchMeasurement() {
    line_.Ask("SysdiagGetDimCfgInfo", TarnSysdiagMaster_SysdiagGetDimCfgInfo, Tarn_sys_diag_None{},
              [this](const auto &reply) {
                  measurement_.SetTimes({reply.ucValue1, reply.ucValue2});
              });
    line_.Ask("SysdiagGetDimWorkMode", TarnSysdiagMaster_SysdiagGetDimWorkMode, Tarn_sys_diag_None{},
              [this](const auto &reply) { measurement_.SetMode(reply.uiWorkMode); });
}

} // namespace tarnd
