/*
 * Messages of the diagnosis agent, which runs inside each application process. The daemon sends the requests and
 * receives the replies; it answers its own clients with many of the same replies when it relays their queries.
 *
 * Members named uiValueN, ucValueN, ullValue, acValueN, acRuleN, uiPtParamN and the like carry what the agent and its
 * application agreed on; the library passes them through. char arrays are copied whole, so a full one has no
 * terminating 0. A pointer is owned by its record: the type's release function frees it. A vector without elements has
 * count 0 and a null pointer.
 */
#ifndef TARN_TYPES_AGENT_H
#define TARN_TYPES_AGENT_H

#include "tarn_sysdiag/types/common.h"

/* Debug commands. */

/* Request of DBGCmdExecShow: run a debug command in the agent's process; the output is fetched separately. */
typedef struct Tarn_sys_diag_DbgCmdShowInput {
    char *pcCmdStr; /* owned; the command line, null when absent */
} Tarn_sys_diag_DbgCmdShowInput;
VELTO_TABLE(DbgCmdShowInput, pcCmdStr)

/* Request of DBGCmdExecResultGet: fetch the output of the debug command started by DBGCmdExecShow. */
TARN_EMPTY_RECORD(DbgCmdResultGetInput)
VELTO_TABLE(DbgCmdResultGetInput)

/* Reply of DBGCmdExecResultGet: the output of the debug command. */
typedef struct Tarn_sys_diag_DiagResult {
    uint32_t uiResult;
    uint32_t uiValue;
    char *szText; /* owned; null when there is no text */
} Tarn_sys_diag_DiagResult;
VELTO_RELEASES_NULL(DiagResult)
VELTO_TABLE(DiagResult, uiResult, uiValue, szText)

/* Request of DBGCmdExecClean: drop the debug command and its output. */
TARN_EMPTY_RECORD(DbgCmdCleanInput)
VELTO_TABLE(DbgCmdCleanInput)

/* Memory handles and partitions. */

/* Request of GetProcPartitionMemHandleRecod: which partition records to report. */
typedef struct Tarn_sys_diag_ProcPtRecodInput {
    uint32_t uiPtParam1;
    uint32_t uiPtParam2;
    uint32_t uiPtParam3;
    uint32_t uiPtParam4;
    uint32_t uiPtParam5;
} Tarn_sys_diag_ProcPtRecodInput;
VELTO_TABLE(ProcPtRecodInput, uiPtParam1, uiPtParam2, uiPtParam3, uiPtParam4, uiPtParam5)

/* What one memory handle holds in one partition of the process. */
typedef struct Tarn_sys_diag_ProcPtRecod {
    uint32_t uiPtId;
    uint32_t uiHandleId;
    char szHandleName[32];
    uint32_t uiBlockSize;  /* bytes of a block of this partition */
    uint32_t uiBlockNum;   /* blocks that the handle holds now */
    uint32_t uiPeakNum;    /* most blocks that it ever held at once */
    uint32_t uiFailNum;    /* allocations refused since the process started */
    TARN_U64 ullAllocNum;  /* allocations served since the process started */
    TARN_U64 ullUsedBytes; /* bytes asked for, without the rounding up to blocks */
    char *pcOwner;         /* owned; path of the program or shared object that opened the handle, null if unknown */
    uint32_t uiTidNum;     /* elements of puiTid */
    uint32_t *puiTid;      /* owned; threads that allocated through the handle */
} Tarn_sys_diag_ProcPtRecod;
VELTO_TABLE(ProcPtRecod, uiPtId, uiHandleId, szHandleName, uiBlockSize, uiBlockNum, uiPeakNum, uiFailNum, ullAllocNum,
            ullUsedBytes, pcOwner, VELTO_VECTOR(uiTidNum, puiTid))

/* Reply of GetProcPartitionMemHandleRecod. */
typedef struct Tarn_sys_diag_ProcPtRecodResult {
    uint32_t uiResult;                   /* 0, or an errno value and no records */
    uint32_t uiPid;                      /* process that the records are of */
    uint32_t uiTotalNum;                 /* records that match the request; more than uiRecodNum if it was cut short */
    uint32_t uiRecodNum;                 /* elements of pstRecod */
    Tarn_sys_diag_ProcPtRecod *pstRecod; /* owned, as is what its elements point to */
} Tarn_sys_diag_ProcPtRecodResult;
VELTO_TABLE(ProcPtRecodResult, uiResult, uiPid, uiTotalNum, VELTO_VECTOR(uiRecodNum, pstRecod))

/* One memory handle, in the reply of GetMirelMemHandleInfo. */
typedef struct Tarn_sys_diag_MirelMemHandleInfo {
    uint32_t uiValue;
    char szName[32];
    TARN_U64 ullValue;
} Tarn_sys_diag_MirelMemHandleInfo;
VELTO_TABLE(MirelMemHandleInfo, uiValue, szName, ullValue)

/* Reply of GetMirelMemHandleInfo: the memory handles of the process. */
typedef struct Tarn_sys_diag_GetMirelMemHandleInfoOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiHandleNum;                        /* elements of pstHandle */
    Tarn_sys_diag_MirelMemHandleInfo *pstHandle; /* owned */
} Tarn_sys_diag_GetMirelMemHandleInfoOutput;
VELTO_TABLE(GetMirelMemHandleInfoOutput, uiValue1, uiValue2, uiValue3, VELTO_VECTOR(uiHandleNum, pstHandle))

/* How much memory one handle holds. */
typedef struct Tarn_sys_diag_MemHandleUse {
    uint32_t uiHandleId;
    char szHandleName[32];
    uint32_t uiBlockNum;   /* blocks held now */
    TARN_U64 ullUsedBytes; /* bytes held now */
    TARN_U64 ullPeakBytes; /* most bytes that it ever held at once */
} Tarn_sys_diag_MemHandleUse;
VELTO_TABLE(MemHandleUse, uiHandleId, szHandleName, uiBlockNum, ullUsedBytes, ullPeakBytes)

/* The free and used blocks of one size. */
typedef struct Tarn_sys_diag_MemBlockClass {
    uint32_t uiBlockSize; /* bytes */
    uint32_t uiUsedNum;
    uint32_t uiFreeNum;
    uint32_t uiPeakNum; /* most blocks ever in use at once */
} Tarn_sys_diag_MemBlockClass;
VELTO_TABLE(MemBlockClass, uiBlockSize, uiUsedNum, uiFreeNum, uiPeakNum)

/* Reply of GetTopNHandleInfo: the handles that hold most memory in the process, the largest first. */
typedef struct Tarn_sys_diag_GetTopNHandleInfoOutput {
    uint32_t uiResult;                     /* 0, or an errno value and no handles */
    uint32_t uiHandleTotal;                /* handles open in the process, of which the vector has the largest */
    TARN_U64 ullTotalBytes;                /* bytes held by all open handles */
    uint32_t uiHandleNum;                  /* elements of pstHandle */
    Tarn_sys_diag_MemHandleUse *pstHandle; /* owned */
} Tarn_sys_diag_GetTopNHandleInfoOutput;
VELTO_TABLE(GetTopNHandleInfoOutput, uiResult, uiHandleTotal, ullTotalBytes, VELTO_VECTOR(uiHandleNum, pstHandle))

/* Request of GetMirelMemPtInfo: the partition to report on. */
typedef struct Tarn_sys_diag_GetMirelMemPtInfoInput {
    uint32_t uiPtId;
} Tarn_sys_diag_GetMirelMemPtInfoInput;
VELTO_TABLE(GetMirelMemPtInfoInput, uiPtId)

/* Reply of GetMirelMemPtInfo: the state of one memory partition, by block size and by handle. */
typedef struct Tarn_sys_diag_GetMirelMemPtInfoOutput {
    uint32_t uiResult; /* 0, or an errno value and nothing else */
    uint32_t uiPtId;
    char szPtName[32];
    TARN_U64 ullTotalBytes; /* size of the partition */
    TARN_U64 ullUsedBytes;
    TARN_U64 ullPeakBytes;                      /* most bytes ever in use at once */
    TARN_U64 ullMaxFreeBytes;                   /* largest free piece, which shows how fragmented the partition is */
    uint32_t uiBlockClassNum;                   /* elements of pstBlockClass */
    Tarn_sys_diag_MemBlockClass *pstBlockClass; /* owned; by rising block size */
    uint32_t uiHandleNum;                       /* elements of pstHandle */
    Tarn_sys_diag_MemHandleUse *pstHandle;      /* owned; handles with blocks of it, largest first */
} Tarn_sys_diag_GetMirelMemPtInfoOutput;
VELTO_TABLE(GetMirelMemPtInfoOutput, uiResult, uiPtId, szPtName, ullTotalBytes, ullUsedBytes, ullPeakBytes,
            ullMaxFreeBytes, VELTO_VECTOR(uiBlockClassNum, pstBlockClass), VELTO_VECTOR(uiHandleNum, pstHandle))

/* Request of MemHandleCallStack: where a memory handle's blocks were allocated. */
typedef struct Tarn_sys_diag_MemHandInfo {
    uint32_t uiHandleId;
    uint32_t uiStackIndex; /* which allocation site of the handle, counted from 0; that with the most bytes is first */
} Tarn_sys_diag_MemHandInfo;
VELTO_TABLE(MemHandInfo, uiHandleId, uiStackIndex)

/* Reply of MemHandleCallStack: one allocation site of a memory handle. */
typedef struct Tarn_sys_diag_MemHandInfoOut {
    uint32_t uiResult; /* 0, or an errno value: 2 if there is no such handle or site */
    uint32_t uiHandleId;
    uint32_t uiStackTotal; /* allocation sites that the agent knows for the handle */
    uint32_t uiBlockNum;   /* blocks held that were allocated here */
    TARN_U64 ullUsedBytes; /* and their bytes */
    char szHandleName[32];
    uint32_t uiAddrNum;         /* addresses used in aullStackAddr */
    TARN_U64 aullStackAddr[32]; /* return addresses, innermost first; the rest is 0 */
} Tarn_sys_diag_MemHandInfoOut;
VELTO_TABLE(MemHandInfoOut, uiResult, uiHandleId, uiStackTotal, uiBlockNum, ullUsedBytes, szHandleName, uiAddrNum,
            aullStackAddr)

/* Request of MemDiag_ma: a memory diagnosis command and its argument. */
typedef struct Tarn_sys_diag_mem_RPCIN {
    uint32_t uiMemCmd;
    uint32_t uiMemDataLen; /* bytes at pucMemData */
    uint8_t *pucMemData;   /* owned; not terminated */
} Tarn_sys_diag_mem_RPCIN;
VELTO_TABLE(mem_RPCIN, uiMemCmd, VELTO_VECTOR(uiMemDataLen, pucMemData))

/* Reply of MemDiag_ma: what the memory diagnosis command returned. */
typedef struct Tarn_sys_diag_mem_PRCOUT {
    uint32_t uiValue1;
    uint32_t uiDataLen; /* bytes at pucData */
    uint8_t *pucData;   /* owned; not terminated */
    uint32_t uiValue2;
} Tarn_sys_diag_mem_PRCOUT;
VELTO_TABLE(mem_PRCOUT, uiValue1, VELTO_VECTOR(uiDataLen, pucData), uiValue2)

/* Memory damage. */

/* Request of SetMemDmgScan: switch the memory-damage scan. */
typedef struct Tarn_sys_diag_MemDmgScanIn {
    uint32_t uiScanSwitch;
} Tarn_sys_diag_MemDmgScanIn;
VELTO_TABLE(MemDmgScanIn, uiScanSwitch)

/* Reply of SetMemDmgScan. */
typedef struct Tarn_sys_diag_MemDmgScanOut {
    uint32_t uiResult;
} Tarn_sys_diag_MemDmgScanOut;
VELTO_TABLE(MemDmgScanOut, uiResult)

/* Request of GetMemDmgInfo: the kind of memory-damage report wanted. */
typedef struct Tarn_sys_diag_MemDmgInfoIn {
    uint32_t uiInfoType;
} Tarn_sys_diag_MemDmgInfoIn;
VELTO_TABLE(MemDmgInfoIn, uiInfoType)

/* Reply of GetMemDmgInfo: a memory-damage report. */
typedef struct Tarn_sys_diag_MemDmgInfoOut {
    uint32_t uiInfoLen; /* bytes at pucInfo */
    uint8_t *pucInfo;   /* owned; not terminated */
    uint32_t uiValue1;
} Tarn_sys_diag_MemDmgInfoOut;
VELTO_TABLE(MemDmgInfoOut, VELTO_VECTOR(uiInfoLen, pucInfo), uiValue1)

/* Application memory. */

/*
 * Request of TarnGetAppMemUnitInfo and TarnGetAppMemDetailOrModuleInfo: the part of the application's memory to report
 * on. An empty name, or an id of 0, matches all.
 */
typedef struct Tarn_sys_diag_GetAppMemInfoInput {
    uint32_t uiPid;
    uint32_t uiQueryType; /* 0 units, 1 every block in detail, 2 sums by module */
    uint32_t uiUnitId;
    uint32_t uiModuleId; /* 0: the host kit gives modules no numbers */
    uint32_t uiStart;    /* matches to skip, so that a long answer can be fetched in parts */
    uint32_t uiMaxNum;   /* most matches to return; 0 leaves it to the agent */
    char szAppName[32];
    char szUnitName[64];
    char szModuleName[64]; /* program or shared object */
} Tarn_sys_diag_GetAppMemInfoInput;
VELTO_TABLE(GetAppMemInfoInput, uiPid, uiQueryType, uiUnitId, uiModuleId, uiStart, uiMaxNum, szAppName, szUnitName,
            szModuleName)

/* One memory unit of an application: a pool or arena from which it serves its allocations. */
typedef struct Tarn_sys_diag_AppMemUnit {
    uint32_t uiUnitId;
    char szUnitName[64];
    TARN_U64 ullTotalBytes;                     /* memory that the unit took from the system */
    TARN_U64 ullUsedBytes;                      /* of which the application uses now */
    TARN_U64 ullPeakBytes;                      /* most that it ever used at once; of malloc, see the reference */
    uint32_t uiBlockClassNum;                   /* elements of pstBlockClass */
    Tarn_sys_diag_MemBlockClass *pstBlockClass; /* owned; by rising block size */
} Tarn_sys_diag_AppMemUnit;
VELTO_TABLE(AppMemUnit, uiUnitId, szUnitName, ullTotalBytes, ullUsedBytes, ullPeakBytes,
            VELTO_VECTOR(uiBlockClassNum, pstBlockClass))

/* Reply of TarnGetAppMemUnitInfo: the memory units that match the request. */
typedef struct Tarn_sys_diag_GetAppMemUnitInfoOutput {
    uint32_t uiResult;                 /* 0, or an errno value and no units */
    uint32_t uiTotalNum;               /* units that match, of which the vector has uiUnitNum from uiStart on */
    uint32_t uiUnitNum;                /* elements of pstUnit */
    Tarn_sys_diag_AppMemUnit *pstUnit; /* owned, as is what its elements point to */
} Tarn_sys_diag_GetAppMemUnitInfoOutput;
VELTO_TABLE(GetAppMemUnitInfoOutput, uiResult, uiTotalNum, VELTO_VECTOR(uiUnitNum, pstUnit))

/* Reply of TarnGetAppMemDetailOrModuleInfo: the application's memory in detail, or summed by module. */
typedef struct Tarn_sys_diag_GetAppMemDetailOrModuleInfoOutput {
    uint32_t uiInfoLen; /* bytes at pucInfo */
    uint8_t *pucInfo;   /* owned; not terminated */
    uint32_t uiValue1;
} Tarn_sys_diag_GetAppMemDetailOrModuleInfoOutput;
VELTO_TABLE(GetAppMemDetailOrModuleInfoOutput, VELTO_VECTOR(uiInfoLen, pucInfo), uiValue1)

/* Call stacks, dead loops and timers. */

/* Request of GetCallStackFunction: the addresses whose functions are wanted. */
typedef struct Tarn_sys_diag_CallStackInput {
    uint32_t uiPid;
    TARN_U64 aullStackAddr[32];
} Tarn_sys_diag_CallStackInput;
VELTO_TABLE(CallStackInput, uiPid, aullStackAddr)

/* The name of the function at one address of a call stack. */
typedef struct Tarn_sys_diag_FuncName {
    char szFuncName[128];
} Tarn_sys_diag_FuncName;
VELTO_TABLE(FuncName, szFuncName)

/* Reply of GetCallStackFunction: the functions at the addresses of the request, all 32 always present. */
typedef struct Tarn_sys_diag_CallStackOutput {
    Tarn_sys_diag_FuncName astFuncName[32];
} Tarn_sys_diag_CallStackOutput;
VELTO_TABLE(CallStackOutput, astFuncName)

/* Request of GetDeadLoopCfg. */
typedef struct Tarn_sys_diag_GetDeadLoopCfgInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_GetDeadLoopCfgInput;
VELTO_TABLE(GetDeadLoopCfgInput, uiValue1, uiValue2, uiValue3)

/* How one thread is watched for dead loops. */
typedef struct Tarn_sys_diag_DeadLoopThreadCfg {
    uint32_t uiTid;
    char szThreadName[16]; /* as the kernel knows it */
    uint8_t ucSwitch;      /* 1 watched, 0 exempt */
    uint32_t uiLimitMs;    /* milliseconds of unbroken running that count as a dead loop */
    uint32_t uiDetectNum;  /* dead loops seen since the process started */
} Tarn_sys_diag_DeadLoopThreadCfg;
VELTO_TABLE(DeadLoopThreadCfg, uiTid, szThreadName, ucSwitch, uiLimitMs, uiDetectNum)

/* Reply of GetDeadLoopCfg: how the process is watched for threads that run without a break. */
typedef struct Tarn_sys_diag_GetDeadLoopCfgResult {
    uint32_t uiResult;                          /* 0, or an errno value and nothing else */
    uint8_t ucSwitch;                           /* 1 detection on, 0 off */
    uint32_t uiPeriodMs;                        /* milliseconds between two checks */
    uint32_t uiLimitMs;                         /* limit of a thread without one of its own */
    uint32_t uiCpuPercent;                      /* share of one CPU from which a thread counts as running unbroken */
    uint32_t uiCpuNum;                          /* elements of puiCpu */
    uint32_t *puiCpu;                           /* owned; CPUs whose threads are watched, none for all */
    uint32_t uiThreadNum;                       /* elements of pstThread */
    Tarn_sys_diag_DeadLoopThreadCfg *pstThread; /* owned */
} Tarn_sys_diag_GetDeadLoopCfgResult;
VELTO_TABLE(GetDeadLoopCfgResult, uiResult, ucSwitch, uiPeriodMs, uiLimitMs, uiCpuPercent,
            VELTO_VECTOR(uiCpuNum, puiCpu), VELTO_VECTOR(uiThreadNum, pstThread))

/* Request of SetNoxTimerDebugSwitch: set the debug switch of the process's Nox timers. */
typedef struct Tarn_sys_diag_SetNoxTimerDebugSwitchInput {
    uint32_t uiDebugSwitch;
} Tarn_sys_diag_SetNoxTimerDebugSwitchInput;
VELTO_TABLE(SetNoxTimerDebugSwitchInput, uiDebugSwitch)

/* Request of TarnAgentGetTimerInfo. */
typedef struct Tarn_sys_diag_GetTimerInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_GetTimerInput;
VELTO_TABLE(GetTimerInput, uiValue1, uiValue2, uiValue3, uiValue4)

/* One timer of the process. */
typedef struct Tarn_sys_diag_TimerInfo {
    uint32_t uiTimerId;
    char szTimerName[32];
    uint32_t uiTid;           /* thread that created the timer */
    uint8_t ucState;          /* 0 stopped, 1 running, 2 expired and its callback running */
    uint8_t ucPeriodic;       /* 1 starts again by itself, 0 expires once */
    uint32_t uiPeriodMs;      /* milliseconds from start to expiry */
    uint32_t uiRemainMs;      /* milliseconds to the next expiry; 0 when stopped */
    uint32_t uiMaxRunUs;      /* longest run of the callback, microseconds */
    uint32_t uiMaxDelayUs;    /* latest expiry behind its due time, microseconds */
    TARN_U64 ullExpireNum;    /* expiries since the timer was created */
    TARN_U64 ullCallbackAddr; /* address of the callback in the process */
} Tarn_sys_diag_TimerInfo;
VELTO_TABLE(TimerInfo, uiTimerId, szTimerName, uiTid, ucState, ucPeriodic, uiPeriodMs, uiRemainMs, uiMaxRunUs,
            uiMaxDelayUs, ullExpireNum, ullCallbackAddr)

/* Reply of TarnAgentGetTimerInfo: the timers that match the request. */
typedef struct Tarn_sys_diag_GetTimerInfoResult {
    uint32_t uiResult;                 /* 0, or an errno value and no timers */
    uint32_t uiPid;                    /* process that the timers are of */
    uint32_t uiTotalNum;               /* timers that match; more than uiTimerNum if the answer was cut short */
    uint32_t uiTimerNum;               /* elements of pstTimer */
    Tarn_sys_diag_TimerInfo *pstTimer; /* owned */
} Tarn_sys_diag_GetTimerInfoResult;
VELTO_TABLE(GetTimerInfoResult, uiResult, uiPid, uiTotalNum, VELTO_VECTOR(uiTimerNum, pstTimer))

/* Health and resources. */

/* Request of TarnPadsSetProcPadsGlobalSwitch: set the process's global PADS switch. */
typedef struct Tarn_sys_diag_PadsGlobalSwitch {
    uint8_t ucGlobalSwitch;
} Tarn_sys_diag_PadsGlobalSwitch;
VELTO_TABLE(PadsGlobalSwitch, ucGlobalSwitch)

/* Request of TarnPadsSetProcPadsAppFunSwitch: set the PADS switch of one function. */
typedef struct Tarn_sys_diag_PadsAppFunSwitch {
    uint8_t ucFunction;
    uint8_t ucSwitch;
    uint32_t uiValue;
} Tarn_sys_diag_PadsAppFunSwitch;
VELTO_TABLE(PadsAppFunSwitch, ucFunction, ucSwitch, uiValue)

/* One health record, in the reply of TarnPadsGetProcSystemHealthInfo. All members are bytes, so there are no gaps. */
typedef struct Tarn_sys_diag_SysHealthInfo {
    uint8_t ucValue1;
    char acValue1[64];
    char acValue2[64];
    char acValue3[15]; /* the odd length is what peers send */
    char acValue4[1024];
} Tarn_sys_diag_SysHealthInfo;
VELTO_TABLE(SysHealthInfo, ucValue1, acValue1, acValue2, acValue3, acValue4)

/* Reply of TarnPadsGetProcSystemHealthInfo: the health of the process. */
typedef struct Tarn_sys_diag_PadsSystemHealthResult {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiHealthInfoNum;                   /* elements of pstHealthInfo */
    Tarn_sys_diag_SysHealthInfo *pstHealthInfo; /* owned */
} Tarn_sys_diag_PadsSystemHealthResult;
VELTO_TABLE(PadsSystemHealthResult, uiValue1, uiValue2, VELTO_VECTOR(uiHealthInfoNum, pstHealthInfo))

/* Request of TarnUpdateResourceInfo: how far a resource of the machine is used, so that the agent can hold back. */
typedef struct Tarn_sys_diag_UpdateResourceInfoInput {
    uint8_t ucResource; /* 1 CPU, 2 memory, 3 file descriptors */
    uint8_t ucLevel;    /* 0 normal, 1 near its limit, 2 overloaded */
    uint16_t usUsage;   /* tenths of a percent */
} Tarn_sys_diag_UpdateResourceInfoInput;
VELTO_TABLE(UpdateResourceInfoInput, ucResource, ucLevel, usUsage)

/* Message control and subscriptions. */

/* Request of UpdateMsgCtrlRule: add or change a message-control rule. */
typedef struct Tarn_sys_diag_UpdateMsgCtrlRuleInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint32_t uiValue5;
    uint32_t uiValue6;
    uint32_t uiValue7;
    uint32_t uiValue8;
    uint32_t uiValue9;
    char acRule1[128];
    char acRule2[128];
    char acRule3[128];
} Tarn_sys_diag_UpdateMsgCtrlRuleInput;
VELTO_TABLE(UpdateMsgCtrlRuleInput, uiValue1, uiValue2, uiValue3, uiValue4, uiValue5, uiValue6, uiValue7, uiValue8,
            uiValue9, acRule1, acRule2, acRule3)

/* Request of GetMsgCtrlRule: which message-control rules to report. */
typedef struct Tarn_sys_diag_GetMsgRuleInfoInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_GetMsgRuleInfoInput;
VELTO_TABLE(GetMsgRuleInfoInput, uiValue1, uiValue2, uiValue3)

/* One message-control rule in force, and what it did. */
typedef struct Tarn_sys_diag_MsgRuleInfo {
    Tarn_sys_diag_UpdateMsgCtrlRuleInput stRule; /* as it was set */
    TARN_U64 ullMatchNum;                        /* messages that it matched since it was set */
    TARN_U64 ullDropNum;                         /* of which it stopped */
    uint32_t uiAgeSec;                           /* seconds since it was set */
} Tarn_sys_diag_MsgRuleInfo;
VELTO_TABLE(MsgRuleInfo, stRule, ullMatchNum, ullDropNum, uiAgeSec)

/* Reply of GetMsgCtrlRule: the message-control rules in force that match the request. */
typedef struct Tarn_sys_diag_GetMsgRuleInfoResult {
    uint32_t uiResult;                  /* 0, or an errno value and no rules */
    uint32_t uiRuleNum;                 /* elements of pstRule */
    Tarn_sys_diag_MsgRuleInfo *pstRule; /* owned; in the order in which they are tried */
} Tarn_sys_diag_GetMsgRuleInfoResult;
VELTO_TABLE(GetMsgRuleInfoResult, uiResult, VELTO_VECTOR(uiRuleNum, pstRule))

/* Request of TarnGetSubscribe: which subscriptions to report. */
typedef struct Tarn_sys_diag_GetSubscribeInfoInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_GetSubscribeInfoInput;
VELTO_TABLE(GetSubscribeInfoInput, uiValue1, uiValue2, uiValue3)

/* One subscription, in the reply of TarnGetSubscribe. */
typedef struct Tarn_sys_diag_SubscribeInfo {
    char szName1[32];
    char szName2[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_SubscribeInfo;
VELTO_TABLE(SubscribeInfo, szName1, szName2, uiValue1, uiValue2)

/* Reply of TarnGetSubscribe: the subscriptions of the process. */
typedef struct Tarn_sys_diag_GetSubscribeInfoResult {
    uint32_t uiSubscribeNum;                   /* elements of pstSubscribe */
    Tarn_sys_diag_SubscribeInfo *pstSubscribe; /* owned */
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_GetSubscribeInfoResult;
VELTO_TABLE(GetSubscribeInfoResult, VELTO_VECTOR(uiSubscribeNum, pstSubscribe), uiValue1, uiValue2, uiValue3, uiValue4)

#endif
