#include "host/daemon/master/master_link.h"

#include <unistd.h>

#include <utility>

#include <fmt/format.h>

#include "host/meaning/methods.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

constexpr const char *kSystem = "system"; // whose overload configuration the daemon follows

} // namespace

void MasterLink::Greet() {
    const host::MutexLock lock(mutex_);
    greets_ = true;
    TellDue();
}

void MasterLink::Refresh() {
    const host::MutexLock lock(mutex_);
    refreshes_ = greets_ = true;
    TellDue();
}

void MasterLink::ForgetClients() {
    localClock_.ForgetClients();
    cpuOverload_.ForgetClients();
    memoryOverload_.ForgetClients();
    measurement_.ForgetClients();
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
    const bool refreshes = std::exchange(refreshes_, false);
    lock.Unlock();
    bool told = !tells;
    try {
        if (tells) { // before the master's are fetched, which would undo the change
            SendMemoryThresholds();
            told = true;
        }
        if (refreshes) { // so that what is fetched is what the file has now
            line_.Ask("UpdateInnerConfig", TarnSysdiagMaster_UpdateInnerConfig, Tarn_sys_diag_None{},
                      [](const auto &) {});
        }
        if (greets) {
            line_.Tell(TarnSysdiagMaster_DetectSysdiagServerOnline_oneway, Tarn_sys_diag_None{});
            FetchClock();
            FetchOverload();
            FetchMeasurement();
            FetchTime();
        }
    } catch (const MasterUnreachable &error) {
        host::Log().info("no master: {}", error.what());
    }
    lock.Lock();
    tells_ = tells_ || !told; // until the next greeting
}

void MasterLink::SendMemoryThresholds() {
    const MemoryThresholds thresholds = memoryOverload_.Thresholds().Value();
    Tarn_sys_diag_OvLoadMemCtlOutput request{};
    auto &[name, variant, beginsAt, endsBelow, state, changedBy, changes, changedAt] = request;
    host::CopyText(name, kSystem);
    host::CopyText(changedBy, fmt::format("tarnd {}", getpid()));
    beginsAt = thresholds.over;
    endsBelow = thresholds.recover;
    line_.Ask("MemChangeInnerConfig", TarnSysdiagMaster_MemChangeInnerConfig, request, [](const auto &) {});
}

// What the master has configured is checked as a client's request is.
void MasterLink::FetchClock() {
    bool zoned = false;
    line_.Ask("GetTimezone", TarnSysdiagMaster_GetTimezone, Tarn_sys_diag_None{}, [&](const auto &reply) {
        const auto &[source, zone] = reply;
        if (source == host::meaning::settings_source::kConfigured) {
            host::meaning::Check(host::methods::SetTimezone, {zone});
            localClock_.SetZone(host::FromRecord(zone), Source::kMaster);
            zoned = true;
        }
    });
    line_.Ask("GetDst", TarnSysdiagMaster_GetDst, Tarn_sys_diag_None{}, [&](const auto &reply) {
        if (zoned) { // a zone without a rule saves no daylight
            host::meaning::Check(host::methods::SetDst, {reply.stDst});
            localClock_.SetDst(host::FromRecord(reply.stDst), Source::kMaster);
        }
    });
}

void MasterLink::FetchTime() {
    line_.Ask("GetGmt", TarnSysdiagMaster_GetGmt, Tarn_sys_diag_None{},
              [this](const auto &reply) { localClock_.TakeMastersGmt(reply.stGmtTime); });
}

void MasterLink::FetchOverload() {
    Tarn_sys_diag_OvLoadCpuCtlInput ofCpu{};
    host::CopyText(ofCpu.acName1, kSystem);
    line_.Ask("GetCpuOvLoadCfgInfo", TarnSysdiagMaster_GetCpuOvLoadCfgInfo, ofCpu, [this](const auto &reply) {
        const auto &[name, variant, beginsAt, endsBelow, mustLast, timesRead] = reply;
        host::meaning::Check(host::methods::SysOvLoadCpuThresholdSet, {beginsAt, endsBelow, mustLast});
        cpuOverload_.SetSystem({beginsAt, endsBelow, mustLast}, Source::kMaster);
    });
    Tarn_sys_diag_OvLoadMemCtlInput ofMemory{};
    host::CopyText(ofMemory.acName1, kSystem);
    line_.Ask("GetMemoryOvLoadCfgInfo", TarnSysdiagMaster_GetMemoryOvLoadCfgInfo, ofMemory, [this](const auto &reply) {
        const auto &[name, variant, beginsAt, endsBelow, state, changedBy, changes, changedAt] = reply;
        host::meaning::Check(host::methods::SysOvLoadMemThresholdSet, {beginsAt, endsBelow});
        memoryOverload_.Set({beginsAt, endsBelow}, Source::kMaster);
    });
}

void MasterLink::FetchMeasurement() {
    line_.Ask("SysdiagGetDimCfgInfo", TarnSysdiagMaster_SysdiagGetDimCfgInfo, Tarn_sys_diag_None{},
              [this](const auto &reply) {
                  host::meaning::Check(host::methods::TarnSetDimTimeCfgByTarnd, reply);
                  const auto &[hour, minute] = reply;
                  measurement_.SetTimes({hour, minute}, Source::kMaster);
              });
    line_.Ask("SysdiagGetDimWorkMode", TarnSysdiagMaster_SysdiagGetDimWorkMode, Tarn_sys_diag_None{},
              [this](const auto &reply) {
                  host::meaning::Check(host::methods::TarnSetDimWorkModeCfgByTarnd, reply);
                  measurement_.SetMode(reply.uiWorkMode, Source::kMaster);
              });
}

} // namespace tarnd
