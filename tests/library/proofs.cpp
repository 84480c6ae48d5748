// What of the interface the compiler can prove: sizes, shapes, counts and hashes. Nothing here runs.
#define VELTO_ON_TABLE(type) // descriptions only, no codecs
#include "server/frame.h"

#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/client/master.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

using server::Shape;

// Native sizes of the requests that wrappers clear and copy, in the order of their methods.
#define NATIVE_SIZE(type, size)                                                                                        \
    static_assert(velto::kNativeSize<Tarn_sys_diag_##type> == size, "the native size of " #type " has changed");
NATIVE_SIZE(Systime, 12)
NATIVE_SIZE(PidIsOnlineInput, 4)
NATIVE_SIZE(ProcessStatusInput, 4)
NATIVE_SIZE(OsProcessCpuInput, 12)
NATIVE_SIZE(ThreadCpuInput, 8)
NATIVE_SIZE(None, 0)
NATIVE_SIZE(SysCpuStatInfoInput, 0)
NATIVE_SIZE(MultiCpuUsageInput, 0)
NATIVE_SIZE(ResetMaxCpuCondition, 0)
NATIVE_SIZE(SysOvLoadCpuThreshold, 12)
NATIVE_SIZE(OvloadCpuSwitchInput, 0)
NATIVE_SIZE(DisCpuOvloadInput, 0)
NATIVE_SIZE(CpuOvloadThreadCallstackInput, 0)
NATIVE_SIZE(SysCpuMonitorHistoryInfoInput, 0)
NATIVE_SIZE(SetCpuOvProcThresholdInput, 16)
NATIVE_SIZE(Process, 4)
NATIVE_SIZE(DisOsResourceInfoInput, 0)
NATIVE_SIZE(ExceptionInfoCondition, 16)
NATIVE_SIZE(AssertInfoCondition, 12)
NATIVE_SIZE(ResetBBoxCondition, 8)
NATIVE_SIZE(PositionStr, 100)
NATIVE_SIZE(DumpOsProcMemValueInput, 24)
NATIVE_SIZE(MemLeakQryIn, 16)
NATIVE_SIZE(SysOsMemInfoInput, 4)
NATIVE_SIZE(SysProOsInput, 4)
NATIVE_SIZE(SysOsMemFileInput, 4)
NATIVE_SIZE(SysOvLoadMemThreshold, 8)
NATIVE_SIZE(ClearEnvActInput, 100)
NATIVE_SIZE(SetOvLoadDebugSwitchInput, 8)
NATIVE_SIZE(AppMemInfoInput, 8)
NATIVE_SIZE(ZiploginfoInput, 772)
NATIVE_SIZE(CopyloginfoInput, 640)
NATIVE_SIZE(SetTimezoneInput, 132)
NATIVE_SIZE(SetDstInput, 176)
NATIVE_SIZE(SetGmtInput, 12)
NATIVE_SIZE(SetLocalTimeInput, 12)
NATIVE_SIZE(SetDateFormatInput, 4)
NATIVE_SIZE(GetMirelMemHandleInfoInput, 4)
NATIVE_SIZE(ProcPtRecodByTarndInput, 24)
NATIVE_SIZE(GetMirelMemPtInfoByTarndInput, 8)
NATIVE_SIZE(DbgCmdResultGetByTarndInput, 4)
NATIVE_SIZE(DbgCmdCleanByTarndInput, 4)
NATIVE_SIZE(MemDmgScanInTarnd, 8)
NATIVE_SIZE(MemDmgInfoInTarnd, 8)
NATIVE_SIZE(ResetTaskRecordInput, 4)
NATIVE_SIZE(StarvTaskThresholdInput, 4)
NATIVE_SIZE(TaskSwitchInput, 4)
NATIVE_SIZE(Pid, 4)
NATIVE_SIZE(Tid, 8)
NATIVE_SIZE(GetDeadLoopCfgInput, 12)
NATIVE_SIZE(SetNoxTimerDebugSwitchTarndInput, 8)
NATIVE_SIZE(DimSetIn, 4)
NATIVE_SIZE(DimTimeCfg, 2)
NATIVE_SIZE(DimWorkModeCfg, 4)
NATIVE_SIZE(PadsSystemHealthInput, 8)
NATIVE_SIZE(PadsGlobalSwitch, 1)
NATIVE_SIZE(PadsAppFunSwitch, 8)
NATIVE_SIZE(PadsCpuEventInput, 12)
NATIVE_SIZE(ProcTableBuildInput, 1)
NATIVE_SIZE(GetProcTableInput, 0)
NATIVE_SIZE(GetQ5ProcInfoInput, 4)
NATIVE_SIZE(UpdateMsgCtrlRuleInput, 420)
NATIVE_SIZE(GetMsgRuleInfoInput, 12)
NATIVE_SIZE(GetSubscribeInfoInput, 12)
NATIVE_SIZE(GetTimerInput, 16)

// Records with pointers are as the devices know them only where pointers have 32 bits.
#if UINTPTR_MAX == UINT32_MAX
NATIVE_SIZE(mem_RPCIN_input, 16)
NATIVE_SIZE(DbgCmdShowByTarndInput, 8)
NATIVE_SIZE(GetTaskInfoInput, 20)
static_assert(sizeof(IdlCodecTable) == 24 && sizeof(IdlServerCodecTable) == 28);
static_assert(sizeof(IdlMethodName) == 8 && sizeof(IdlAsyncCtx) == 40 && sizeof(IdlServerAddr) == 56);
static_assert(sizeof(IdlModuleSpec) == 84 && sizeof(IdlInterfaceEntry) == 80);
#endif
static_assert(sizeof(IdlCallResult) == 8 && sizeof(IdlMessageEntry) == 16);
static_assert(sizeof(Tarn_sys_diag_SysHealthInfo) == 1 + 64 + 64 + 15 + 1024, "packed, by its members alone");
static_assert(alignof(Tarn_sys_diag_DumpOsProcMemValueInput) == 8, "64-bit members are aligned to 8 everywhere");

// Fixed sizes of the requests of the agent service, in the order of its methods.
#define FIXED_SIZE(type, size)                                                                                         \
    static_assert(velto::kFixedSize<Tarn_sys_diag_##type> == size, "the fixed size of " #type " has changed");
FIXED_SIZE(DbgCmdResultGetInput, 16)
FIXED_SIZE(DbgCmdCleanInput, 16)
FIXED_SIZE(ProcPtRecodInput, 48)
FIXED_SIZE(MemDmgScanIn, 24)
FIXED_SIZE(MemDmgInfoIn, 24)
FIXED_SIZE(None, 16)
FIXED_SIZE(GetMirelMemPtInfoInput, 24)
FIXED_SIZE(MemHandInfo, 24)
FIXED_SIZE(CallStackInput, 288)
FIXED_SIZE(GetDeadLoopCfgInput, 32)
FIXED_SIZE(SetNoxTimerDebugSwitchInput, 24)
FIXED_SIZE(PadsGlobalSwitch, 24)
FIXED_SIZE(PadsAppFunSwitch, 32)
FIXED_SIZE(UpdateMsgCtrlRuleInput, 480)
FIXED_SIZE(GetMsgRuleInfoInput, 32)
FIXED_SIZE(UpdateResourceInfoInput, 24)
FIXED_SIZE(GetSubscribeInfoInput, 32)
FIXED_SIZE(GetTimerInput, 40)
FIXED_SIZE(GetAppMemInfoInput, 240)
static_assert(!velto::kHasFixed<Tarn_sys_diag_DbgCmdShowInput>);
static_assert(!velto::kHasFixed<Tarn_sys_diag_mem_RPCIN>);

// Those of the requests of the master service that have its own types: their fields say them.
FIXED_SIZE(PhysicalAddrInput, 32)
FIXED_SIZE(GetLMProcLPidInput, 24)
static_assert(velto::kLayout<Tarn_sys_diag_OvLoadMemCtlOutput, velto::Form::kFixed>.tableEnd == 144);

// Fixed sizes of the replies.
FIXED_SIZE(PidIsOnlineOuput, 24)
FIXED_SIZE(ProcessStatusOutput, 24)
FIXED_SIZE(OperResult, 24)
FIXED_SIZE(OvloadCpuSwitchRet, 24)
FIXED_SIZE(ResetBBoxResult, 24)
FIXED_SIZE(MemDmgScanOut, 24)
FIXED_SIZE(GetSysMemOverloadSwOutput, 24)
FIXED_SIZE(Result, 24)
FIXED_SIZE(TaskResult, 24)
FIXED_SIZE(ResetMaxCpuResult, 24)
FIXED_SIZE(HugePagesOutput, 24)
FIXED_SIZE(ProcTableBuildOutput, 24)
FIXED_SIZE(GetQ5ProcInfoOutput, 24)
FIXED_SIZE(GetSysCpuOverloadCfgOutput, 48)
FIXED_SIZE(GetSysMemOverloadCfgOutput, 48)
FIXED_SIZE(AgentRegInfoResult, 72)
FIXED_SIZE(DisOsResourceInfoRet, 80)
FIXED_SIZE(DisCpuOvloadRet, 160)
FIXED_SIZE(DimMeasRst, 168)
FIXED_SIZE(MemLeakQryOut, 40992)
static_assert(velto::kLayout<Tarn_sys_diag_DimMeasRst, velto::Form::kFixed>.tableEnd == 148);

// How many wrappers there are of each shape.
constexpr uint32_t CountShapes(Shape shape) {
    const Shape shapes[] = {
#define TARN_METHOD(method, request, response) server::ShapeOf<Tarn_sys_diag_##request, Tarn_sys_diag_##response>(),
#define TARN_METHOD_NO_REPLY(method, request) server::ShapeOf<Tarn_sys_diag_##request, server::NoReply>(),
#include "tarn_sysdiag/server/tarnd_methods.h"
#define TARN_METHOD(method, request, response) server::ShapeOf<Tarn_sys_diag_##request, Tarn_sys_diag_##response>(),
#define TARN_METHOD_NO_REPLY(method, request) server::ShapeOf<Tarn_sys_diag_##request, server::NoReply>(),
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
    };
    uint32_t num = 0;
    for (const Shape each : shapes) {
        num += each == shape ? 1 : 0;
    }
    return num;
}
#define SHAPES(shape, num)                                                                                             \
    static_assert(CountShapes(Shape::shape) == num, "the number of wrappers of " #shape " has changed");
SHAPES(kFixedReply, 35)
SHAPES(kVariableReply, 34)
SHAPES(kOwningRequest, 2)
SHAPES(kLargeRequest, 3)
SHAPES(kOneway, 6)
SHAPES(kOnewayOwningRequest, 1)

// Entries of the registration tables.
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(1
#include "tarn_sysdiag/server/tarnd_methods.h"
                  == 80,
              "the entries of the interface table of tarn_sysdiag/server/tarnd_methods.h have changed");
#define TARN_METHOD(method, request, response) +2
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(1
#include "tarn_sysdiag/server/tarnd_methods.h"
                  == 152,
              "the entries of the message table of tarn_sysdiag/server/tarnd_methods.h have changed");
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(1
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
                  == 3,
              "the entries of the interface table of tarn_sysdiag/server/tarnd_agent_methods.h have changed");
#define TARN_METHOD(method, request, response) +2
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(1
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
                  == 5,
              "the entries of the message table of tarn_sysdiag/server/tarnd_agent_methods.h have changed");

// Methods of the remote services.
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(0
#include "tarn_sysdiag/client/agent_methods.h"
                  == 26,
              "the methods of tarn_sysdiag/client/agent_methods.h have changed");
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request) +1
static_assert(0
#include "tarn_sysdiag/client/master_methods.h"
                  == 15,
              "the methods of tarn_sysdiag/client/master_methods.h have changed");

static_assert(velto::TypeHash("None") == 0x87D7088A);
static_assert(velto::TypeHash("Result") == 0x10D68351);
static_assert(velto::TypeHash("AgentRegInfoInput") == 0xAC85A4AF);
static_assert(velto::TypeHash("AgentRegInfoResult") == 0x690940A8);
static_assert(velto::TypeHash("AppSubscribeInput") == 0x9E88ED43);

// A handler without reply is called with the record alone.
static_assert(std::is_same_v<decltype(&DetectTarndServerOnline), uint32_t (*)(const Tarn_sys_diag_None *)>);
static_assert(std::is_same_v<decltype(&PidIsOnline), uint32_t (*)(const Tarn_sys_diag_PidIsOnlineInput *, void *)>);
