#include "host/runtime/groups.h"

#include <algorithm>
#include <unordered_map>

namespace host {
namespace {

constexpr std::string_view kReading[] = {
    "PidIsOnline", "GetProcStatByPid", "CalculateOsProcCpuUse", "CalculateAllThreadCpuUse", "CalculateProcThreadCpuUse",
    "GetHugePagesInfo", "SysCpuStatInfoQuery", "MultiCpuUsageQuery", "DisCpuOvloadInfo", "GetSysCpuMonitorHistoryInfo",
    "GetSysCpuOverloadCfg", "GetCpuOvMonProcInfo", "GetKpiCpuInfo", "GetSysMemStatisPro", "MemLeakOrHisQry",
    "GetOsProcessMemInfo", "GetSysMemStatisFile", "GetSysOsMemFileList", "GetSysMemStatisShare",
    "GetSysMemOverloadStat", "GetSysMemOverloadSw", "GetSysMemOverloadCfg", "GetSysMemUseInfo", "AppMemInfo",
    "GetKpiMemoryInfo", "GetTaskInfo", "GetAllTidsByPid", "TarnGetDlpCfgFromAgent", "DetectTarndServerOnline",
    "TarnGetDimMeasRstByTarnd", "TarnPadsGetSystemHealthInfoByTarnd", "TarnPadsGetCpuEventByTarnd", "GetProcTable",
    "GetQ5ProcInfo", "TarnGetMsgRuleInfoTarnd", "TarnGetSubscribeInfoTarnd", "TarnGetTimerInfoTarnd",
    // agents
    "GetDeadLoopCfg", "TarnPadsGetProcSystemHealthInfo", "GetMsgCtrlRule", "TarnGetSubscribe", "TarnAgentGetTimerInfo",
    "TarnGetAppMemUnitInfo",
    // the master
    "GetPhyNameAndID", "GetTimezone", "GetDst", "GetGmt", "GetLocal", "GetCpuOvLoadCfgInfo", "GetMemoryOvLoadCfgInfo",
    "GetMKAutoUpdCfgInfo", "SysdiagGetMKCfgInfo", "GetLMProcLPid", "DetectSysdiagServerOnline", "SysdiagGetDimCfgInfo",
    "SysdiagGetDimWorkMode",
    // the runtime's own
    "Health", "Status"};

constexpr std::string_view kMemory[] = {
    "DisCpuOvloadCallstackInfo", "GetExceptionInfo", "GetAssertInfo", "DumpOsProcMemValue", "GetOsProcessMapsInfo",
    "GetMirelMemHandleInfoByTarnd", "GetProcPartitionMemHandleRecodByTarnd", "GetMirelMemPtInfoByTarnd",
    "MemDiagMaByTarnd", "GetMemDmgInfoTarnd", "GetCallStackInfoByTid",
    // agents
    "GetProcPartitionMemHandleRecod", "GetMemDmgInfo", "GetMirelMemHandleInfo", "GetTopNHandleInfo",
    "GetMirelMemPtInfo", "MemDiag_ma", "MemHandleCallStack", "GetCallStackFunction", "TarnDetectMemHostage",
    "TarnGetAppMemDetailOrModuleInfo"};

constexpr std::string_view kSettings[] = {
    "ResetMaxCpuUseInfo", "SysOvLoadCpuThresholdSet", "OvloadCpuSwitchState", "SetCpuOvProcThreshold", "ResetBBoxInfo",
    "SysOvLoadMemThresholdSet", "ClearEnvAct", "SetOvLoadDebugSwitch", "SetTimezone", "SetDst", "SetGmt",
    "SetLocalTime", "SetDateFormat", "SetMemDmgScanTarnd", "ResetTaskRecord", "SetTaskStarvThreshold", "SetTaskSwitch",
    "SetNoxTimerDebugSwitchByTarnd", "TarnSetDimTimeCfgByTarnd", "TarnSetDimWorkModeCfgByTarnd",
    "TarnPadsSetPadsGlobalSwitchByTarnd", "TarnPadsSetPadsAppFunSwitchByTarnd", "UpdateMsgCtrlRuleTarnd",
    "ClearMsgCtrlRuleTarnd",
    // agents
    "SetMemDmgScan", "SetNoxTimerDebugSwitch", "TarnPadsSetProcPadsGlobalSwitch", "TarnPadsSetProcPadsAppFunSwitch",
    "UpdateMsgCtrlRule", "ClearMsgCtrlRule", "TarnUpdateResourceInfo",
    // the master
    "UpdateInnerConfig", "MemChangeInnerConfig"};

constexpr std::string_view kCommands[] = {"ZipLogFile", "CopyZipLogFile", "DBGCmdExecShowByTarnd",
                                          "DBGCmdExecResultGetByTarnd", "DBGCmdExecCleanByTarnd", "TarnSetDimOpration",
                                          "ProcTableBuild",
                                          // agents
                                          "DBGCmdExecShow", "DBGCmdExecResultGet", "DBGCmdExecClean"};

constexpr std::string_view kAgents[] = {"AgentRegInfo", "TarnAppSubscribe"};

// --- Every method is in one list, and every entry of a list is a method.

constexpr size_t Count(std::string_view method) {
    return static_cast<size_t>(std::ranges::count(kReading, method) + std::ranges::count(kMemory, method) +
                               std::ranges::count(kSettings, method) + std::ranges::count(kCommands, method) +
                               std::ranges::count(kAgents, method));
}

#define GROUPED(service, method)                                                                                       \
    static_assert(Count(#method) != 0, "host/runtime/groups.cpp: " #method ", a method of " #service                   \
                                       ", is in no group: add it to kReading, kMemory, kSettings, kCommands or "       \
                                       "kAgents");                                                                     \
    static_assert(Count(#method) <= 1, "host/runtime/groups.cpp: " #method " is in more than one group");
#define TARN_SERVICE_METHOD(service, method, request, response) GROUPED(service, method)
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request) GROUPED(service, method)
#include "host/runtime/all_methods.h"

constexpr size_t kMethods = 0
#define TARN_SERVICE_METHOD(service, method, request, response) +1
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request) +1
#include "host/runtime/all_methods.h"
    ;
constexpr size_t kRuntimesOwn = 2;
static_assert(std::size(kReading) + std::size(kMemory) + std::size(kSettings) + std::size(kCommands) +
                      std::size(kAgents) <=
                  kMethods + kRuntimesOwn,
              "host/runtime/groups.cpp: a group has an entry that is no method");

} // namespace

std::string_view NameOf(Group group) {
    constexpr std::string_view kNames[] = {"reading", "memory", "settings", "commands", "agents"};
    static_assert(std::size(kNames) == std::size(kGroups));
    return kNames[static_cast<size_t>(group)];
}

std::optional<Group> GroupNamed(std::string_view name) {
    const auto found = std::ranges::find(kGroups, name, NameOf);
    return found == std::end(kGroups) ? std::nullopt : std::optional(*found);
}

Group GroupOf(std::string_view method) {
    static const auto groups = [] {
        std::unordered_map<std::string_view, Group> all;
        const auto add = [&](const auto &methods, Group group) {
            for (const std::string_view name : methods) {
                all.emplace(name, group);
            }
        };
        add(kReading, Group::kReading);
        add(kMemory, Group::kMemory);
        add(kSettings, Group::kSettings);
        add(kCommands, Group::kCommands);
        add(kAgents, Group::kAgents);
        return all;
    }();
    const auto found = groups.find(method);
    return found == groups.end() ? Group::kCommands : found->second;
}

} // namespace host
