/*
 * The records of TarnSysdiagTarnd, the daemon's service, in the order of its methods.
 *
 * A request record and all it points to are valid only until the handler returns: copy what is needed later. A reply
 * record and all it points to are the handler's, and must stay valid until <Method>_free is called with the record.
 *
 * Character arrays travel whole, whatever they hold, and need no terminating NUL. Members whose names say only "value"
 * (uiValue1, acValue5, ...) are carried as they are: the daemon and its clients agree on what they mean.
 */
#ifndef TARN_TYPES_TARND_H
#define TARN_TYPES_TARND_H

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/table.h"
#include "tarn_sysdiag/types/time.h"

/* ---- Processes and CPU ---- */

/* Request of PidIsOnline: the process asked about. */
typedef struct Tarn_sys_diag_PidIsOnlineInput {
    uint32_t uiPid;
} Tarn_sys_diag_PidIsOnlineInput;
VELTO_TABLE(PidIsOnlineInput, uiPid)

/* Reply of PidIsOnline. Its name is misspelt on the interface too: peers know the type by the hash of this spelling. */
typedef struct Tarn_sys_diag_PidIsOnlineOuput {
    uint32_t uiPid;
    uint8_t ucIsOnline; /* 0 when no such process runs */
} Tarn_sys_diag_PidIsOnlineOuput;
VELTO_TABLE(PidIsOnlineOuput, uiPid, ucIsOnline)

/* Request of GetProcStatByPid: the process asked about. */
typedef struct Tarn_sys_diag_ProcessStatusInput {
    uint32_t uiPid;
} Tarn_sys_diag_ProcessStatusInput;
VELTO_TABLE(ProcessStatusInput, uiPid)

/* Reply of GetProcStatByPid: the state of the process, in the daemon's coding. */
typedef struct Tarn_sys_diag_ProcessStatusOutput {
    uint8_t ucStatus;
} Tarn_sys_diag_ProcessStatusOutput;
VELTO_TABLE(ProcessStatusOutput, ucStatus)

/* Request of CalculateOsProcCpuUse and of CalculateProcThreadCpuUse. */
typedef struct Tarn_sys_diag_OsProcessCpuInput {
    uint32_t uiPid;
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_OsProcessCpuInput;
VELTO_TABLE(OsProcessCpuInput, uiPid, uiValue1, uiValue2)

/* CPU use of one thread of the process that OsProcessCpuInput names. */
typedef struct Tarn_sys_diag_OsProcessCpuThread {
    char acName[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    TARN_U64 ullValue3;
    char acValue4[32];
    uint32_t uiValue5;
    char acValue6[32];
} Tarn_sys_diag_OsProcessCpuThread;
VELTO_TABLE(OsProcessCpuThread, acName, uiValue1, uiValue2, ullValue3, acValue4, uiValue5, acValue6)

/* Reply of CalculateOsProcCpuUse and of CalculateProcThreadCpuUse. */
typedef struct Tarn_sys_diag_OsProcessCpuRet {
    uint32_t uiThreadNum;                        /* elements of pstThread */
    Tarn_sys_diag_OsProcessCpuThread *pstThread; /* owned; null when there are none */
    uint32_t uiValue1;
} Tarn_sys_diag_OsProcessCpuRet;
VELTO_TABLE(OsProcessCpuRet, VELTO_VECTOR(uiThreadNum, pstThread), uiValue1)

/* Request of CalculateAllThreadCpuUse. */
typedef struct Tarn_sys_diag_ThreadCpuInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_ThreadCpuInput;
VELTO_TABLE(ThreadCpuInput, uiValue1, uiValue2)

/* CPU use of one thread of the system. */
typedef struct Tarn_sys_diag_ThreadCpu {
    uint32_t uiTid;
    uint16_t usValue1;
    uint8_t ucValue2;
    uint8_t ucValue3;
    TARN_U64 ullValue4;
    TARN_U64 ullValue5;
    char acName[32];
    uint32_t uiValue6;
    char acValue7[32];
    char acValue8[32];
    uint32_t uiValue9;
} Tarn_sys_diag_ThreadCpu;
VELTO_TABLE(ThreadCpu, uiTid, usValue1, ucValue2, ucValue3, ullValue4, ullValue5, acName, uiValue6, acValue7, acValue8,
            uiValue9)

/* Reply of CalculateAllThreadCpuUse. */
typedef struct Tarn_sys_diag_ThreadCpuRet {
    uint32_t uiThreadNum;               /* elements of pstThread */
    Tarn_sys_diag_ThreadCpu *pstThread; /* owned; null when there are none */
} Tarn_sys_diag_ThreadCpuRet;
VELTO_TABLE(ThreadCpuRet, VELTO_VECTOR(uiThreadNum, pstThread))

/* Reply of GetHugePagesInfo: the system's huge pages. */
typedef struct Tarn_sys_diag_HugePagesOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_HugePagesOutput;
VELTO_TABLE(HugePagesOutput, uiValue1, uiValue2)

/* Request of SysCpuStatInfoQuery. */
TARN_EMPTY_RECORD(SysCpuStatInfoInput)
VELTO_TABLE(SysCpuStatInfoInput)

/* CPU statistics of one process. */
typedef struct Tarn_sys_diag_SysCpuStatProc {
    uint32_t uiPid;
    char acName[50];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    Tarn_sys_diag_Systime stTime1;
    char acValue5[32];
    uint32_t uiValue6;
    uint32_t uiValue7;
    uint32_t uiValue8;
    uint32_t uiValue9;
    Tarn_sys_diag_Systime stTime2;
    char acValue10[50];
    char acValue11[50];
    uint32_t uiValue12;
    uint32_t uiValue13;
    uint32_t uiValue14;
} Tarn_sys_diag_SysCpuStatProc;
VELTO_TABLE(SysCpuStatProc, uiPid, acName, uiValue1, uiValue2, uiValue3, uiValue4, stTime1, acValue5, uiValue6,
            uiValue7, uiValue8, uiValue9, stTime2, acValue10, acValue11, uiValue12, uiValue13, uiValue14)

/* Reply of SysCpuStatInfoQuery. */
typedef struct Tarn_sys_diag_SysCpuStatInfo {
    uint32_t uiProcNum;                    /* elements of pstProc */
    Tarn_sys_diag_SysCpuStatProc *pstProc; /* owned; null when there are none */
} Tarn_sys_diag_SysCpuStatInfo;
VELTO_TABLE(SysCpuStatInfo, VELTO_VECTOR(uiProcNum, pstProc))

/* Request of MultiCpuUsageQuery. */
TARN_EMPTY_RECORD(MultiCpuUsageInput)
VELTO_TABLE(MultiCpuUsageInput)

/* Use of one CPU. */
typedef struct Tarn_sys_diag_MultiCpuUsage {
    char acName[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint32_t uiValue5;
    Tarn_sys_diag_Systime stTime;
} Tarn_sys_diag_MultiCpuUsage;
VELTO_TABLE(MultiCpuUsage, acName, uiValue1, uiValue2, uiValue3, uiValue4, uiValue5, stTime)

/* Reply of MultiCpuUsageQuery. */
typedef struct Tarn_sys_diag_MultiCpuUsageRet {
    uint32_t uiCpuNum;                   /* elements of pstCpu */
    Tarn_sys_diag_MultiCpuUsage *pstCpu; /* owned; null when there are none */
} Tarn_sys_diag_MultiCpuUsageRet;
VELTO_TABLE(MultiCpuUsageRet, VELTO_VECTOR(uiCpuNum, pstCpu))

/* Request of ResetMaxCpuUseInfo. */
TARN_EMPTY_RECORD(ResetMaxCpuCondition)
VELTO_TABLE(ResetMaxCpuCondition)

/* Reply of ResetMaxCpuUseInfo: the status of the reset. */
typedef struct Tarn_sys_diag_ResetMaxCpuResult {
    uint32_t uiResult;
} Tarn_sys_diag_ResetMaxCpuResult;
VELTO_TABLE(ResetMaxCpuResult, uiResult)

/* Request of SysOvLoadCpuThresholdSet: the system's CPU overload thresholds. */
typedef struct Tarn_sys_diag_SysOvLoadCpuThreshold {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_SysOvLoadCpuThreshold;
VELTO_TABLE(SysOvLoadCpuThreshold, uiValue1, uiValue2, uiValue3)

/* Reply of the threshold settings: SysOvLoadCpuThresholdSet, SetCpuOvProcThreshold and SysOvLoadMemThresholdSet. */
typedef struct Tarn_sys_diag_OperResult {
    uint32_t uiResult;
} Tarn_sys_diag_OperResult;
VELTO_TABLE(OperResult, uiResult)

/* Request of OvloadCpuSwitchState. */
TARN_EMPTY_RECORD(OvloadCpuSwitchInput)
VELTO_TABLE(OvloadCpuSwitchInput)

/* Reply of OvloadCpuSwitchState: the state of the CPU overload switch. */
typedef struct Tarn_sys_diag_OvloadCpuSwitchRet {
    uint32_t uiSwitch;
} Tarn_sys_diag_OvloadCpuSwitchRet;
VELTO_TABLE(OvloadCpuSwitchRet, uiSwitch)

/* Request of DisCpuOvloadInfo. */
TARN_EMPTY_RECORD(DisCpuOvloadInput)
VELTO_TABLE(DisCpuOvloadInput)

/* Reply of DisCpuOvloadInfo: a recorded CPU overload. */
typedef struct Tarn_sys_diag_DisCpuOvloadRet {
    Tarn_sys_diag_Systime stTime1;
    char acName[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    Tarn_sys_diag_Systime stTime2;
} Tarn_sys_diag_DisCpuOvloadRet;
VELTO_TABLE(DisCpuOvloadRet, stTime1, acName, uiValue1, uiValue2, uiValue3, stTime2)

/* Request of DisCpuOvloadCallstackInfo. */
TARN_EMPTY_RECORD(CpuOvloadThreadCallstackInput)
VELTO_TABLE(CpuOvloadThreadCallstackInput)

/* One of the busiest threads at a CPU overload and what it was doing. */
typedef struct Tarn_sys_diag_TopCpuOvloadThread {
    uint32_t uiPid;
    uint32_t uiTid;
    char szThreadName[32]; /* /proc/PID/task/TID/comm */
    TARN_U64 ullCpuTime;   /* user and system time since the thread started, ms */
    uint32_t uiCpuUse;     /* share of one CPU over the sampling period, permille */
    char *pcCallStack;     /* owned; one line a frame, innermost first; null when the stack could not be read */
} Tarn_sys_diag_TopCpuOvloadThread;
VELTO_TABLE(TopCpuOvloadThread, uiPid, uiTid, szThreadName, ullCpuTime, uiCpuUse, pcCallStack)

/* Reply of DisCpuOvloadCallstackInfo: the busiest threads of the last CPU overload, busiest first. */
typedef struct Tarn_sys_diag_TopCpuOvloadThreadCallstackRet {
    uint32_t uiThreadNum;                           /* threads found, at most 10 */
    Tarn_sys_diag_TopCpuOvloadThread astThread[10]; /* all 10 travel; those past uiThreadNum are zero */
} Tarn_sys_diag_TopCpuOvloadThreadCallstackRet;
VELTO_TABLE(TopCpuOvloadThreadCallstackRet, uiThreadNum, astThread)

/* Request of GetSysCpuMonitorHistoryInfo. */
TARN_EMPTY_RECORD(SysCpuMonitorHistoryInfoInput)
VELTO_TABLE(SysCpuMonitorHistoryInfoInput)

/* One entry of the CPU monitor's history. */
typedef struct Tarn_sys_diag_SysCpuMonitorHistoryInfo {
    Tarn_sys_diag_Systime stTime;
    uint8_t ucValue1;
    uint8_t ucValue2;
} Tarn_sys_diag_SysCpuMonitorHistoryInfo;
VELTO_TABLE(SysCpuMonitorHistoryInfo, stTime, ucValue1, ucValue2)

/* Reply of GetSysCpuMonitorHistoryInfo. */
typedef struct Tarn_sys_diag_SysCpuMonitorHistoryInfoResult {
    uint32_t uiRecordNum;                              /* elements of pstRecord */
    Tarn_sys_diag_SysCpuMonitorHistoryInfo *pstRecord; /* owned; null when there are none */
} Tarn_sys_diag_SysCpuMonitorHistoryInfoResult;
VELTO_TABLE(SysCpuMonitorHistoryInfoResult, VELTO_VECTOR(uiRecordNum, pstRecord))

/* Reply of GetSysCpuOverloadCfg: the CPU overload configuration in force. */
typedef struct Tarn_sys_diag_GetSysCpuOverloadCfgOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint32_t uiValue5;
    uint32_t uiValue6;
} Tarn_sys_diag_GetSysCpuOverloadCfgOutput;
VELTO_TABLE(GetSysCpuOverloadCfgOutput, uiValue1, uiValue2, uiValue3, uiValue4, uiValue5, uiValue6)

/* Request of SetCpuOvProcThreshold: the CPU overload threshold of a process. */
typedef struct Tarn_sys_diag_SetCpuOvProcThresholdInput {
    uint32_t uiValue1;
    uint8_t ucValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_SetCpuOvProcThresholdInput;
VELTO_TABLE(SetCpuOvProcThresholdInput, uiValue1, ucValue2, uiValue3, uiValue4)

/* Request of GetCpuOvMonProcInfo: the monitored process asked about. */
typedef struct Tarn_sys_diag_Process {
    uint32_t uiPid;
} Tarn_sys_diag_Process;
VELTO_TABLE(Process, uiPid)

/* What the CPU overload monitor knows of one thread. */
typedef struct Tarn_sys_diag_CpuOvMonThread {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint8_t ucValue5;
    uint8_t ucValue6;
    uint32_t uiValue7;
} Tarn_sys_diag_CpuOvMonThread;
VELTO_TABLE(CpuOvMonThread, uiValue1, uiValue2, uiValue3, uiValue4, ucValue5, ucValue6, uiValue7)

/* Reply of GetCpuOvMonProcInfo. */
typedef struct Tarn_sys_diag_GetCpuOvMonProcInfoOutput {
    uint32_t uiPid;
    uint32_t uiThreadNum;                    /* elements of pstThread */
    Tarn_sys_diag_CpuOvMonThread *pstThread; /* owned; null when there are none */
} Tarn_sys_diag_GetCpuOvMonProcInfoOutput;
VELTO_TABLE(GetCpuOvMonProcInfoOutput, uiPid, VELTO_VECTOR(uiThreadNum, pstThread))

/* Request of GetKpiCpuInfo and of GetKpiMemoryInfo. */
TARN_EMPTY_RECORD(DisOsResourceInfoInput)
VELTO_TABLE(DisOsResourceInfoInput)

/* Reply of GetKpiCpuInfo and of GetKpiMemoryInfo: the indicators of one resource. */
typedef struct Tarn_sys_diag_DisOsResourceInfoRet {
    char acName[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_DisOsResourceInfoRet;
VELTO_TABLE(DisOsResourceInfoRet, acName, uiValue1, uiValue2, uiValue3, uiValue4)

/* ---- Fault records and memory statistics; sizes are in KiB of 1024 bytes unless stated otherwise ---- */

/* Request of GetExceptionInfo: which exception records are wanted. */
typedef struct Tarn_sys_diag_ExceptionInfoCondition {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_ExceptionInfoCondition;
VELTO_TABLE(ExceptionInfoCondition, uiValue1, uiValue2, uiValue3, uiValue4)

/* Reply of GetExceptionInfo. */
typedef struct Tarn_sys_diag_ExceptionInfoResult {
    uint32_t uiInfoLen; /* bytes of pucInfo */
    uint8_t *pucInfo;   /* owned, no terminator; null when there are none */
    uint32_t uiValue1;
} Tarn_sys_diag_ExceptionInfoResult;
VELTO_TABLE(ExceptionInfoResult, VELTO_VECTOR(uiInfoLen, pucInfo), uiValue1)

/* Request of GetAssertInfo: which assertion records are wanted. */
typedef struct Tarn_sys_diag_AssertInfoCondition {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_AssertInfoCondition;
VELTO_TABLE(AssertInfoCondition, uiValue1, uiValue2, uiValue3)

/* Reply of GetAssertInfo. */
typedef struct Tarn_sys_diag_AssertInfoResult {
    uint32_t uiInfoLen; /* bytes of pucInfo */
    uint8_t *pucInfo;   /* owned, no terminator; null when there are none */
    uint32_t uiValue1;
} Tarn_sys_diag_AssertInfoResult;
VELTO_TABLE(AssertInfoResult, VELTO_VECTOR(uiInfoLen, pucInfo), uiValue1)

/* Request of ResetBBoxInfo, which resets the black-box record. */
typedef struct Tarn_sys_diag_ResetBBoxCondition {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_ResetBBoxCondition;
VELTO_TABLE(ResetBBoxCondition, uiValue1, uiValue2)

/* Reply of ResetBBoxInfo: the status of the reset. */
typedef struct Tarn_sys_diag_ResetBBoxResult {
    uint32_t uiResult;
} Tarn_sys_diag_ResetBBoxResult;
VELTO_TABLE(ResetBBoxResult, uiResult)

/* Request of GetSysMemStatisPro. The daemon and its clients agree on what the positions are. */
typedef struct Tarn_sys_diag_PositionStr {
    char acPosition1[50];
    char acPosition2[50];
} Tarn_sys_diag_PositionStr;
VELTO_TABLE(PositionStr, acPosition1, acPosition2)

/* Memory of one process, from /proc/PID/status where no other source is named. */
typedef struct Tarn_sys_diag_SysMemStatisPro {
    uint32_t uiPid;
    uint32_t uiPpid;
    char szProcName[50];               /* /proc/PID/comm */
    char szExeName[50];                /* file name of /proc/PID/exe; empty for a kernel thread */
    char szUserName[32];               /* the effective user, as a number when it has no name */
    Tarn_sys_diag_Systime stStartTime; /* when the process started, local time; from /proc/PID/stat */
    uint32_t uiThreadNum;
    uint32_t uiVmPeak; /* from here to uiHugetlb: the lines of the same names */
    uint32_t uiVmSize;
    uint32_t uiVmLck;
    uint32_t uiVmHwm;
    uint32_t uiVmRss;
    uint32_t uiRssAnon;
    uint32_t uiRssFile;
    uint32_t uiRssShmem;
    uint32_t uiVmData;
    uint32_t uiVmStk;
    uint32_t uiVmExe;
    uint32_t uiVmLib;
    uint32_t uiVmPte;
    uint32_t uiVmSwap;
    uint32_t uiHugetlb; /* HugetlbPages */
} Tarn_sys_diag_SysMemStatisPro;
VELTO_TABLE(SysMemStatisPro, uiPid, uiPpid, szProcName, szExeName, szUserName, stStartTime, uiThreadNum, uiVmPeak,
            uiVmSize, uiVmLck, uiVmHwm, uiVmRss, uiRssAnon, uiRssFile, uiRssShmem, uiVmData, uiVmStk, uiVmExe, uiVmLib,
            uiVmPte, uiVmSwap, uiHugetlb)

/* Reply of GetSysMemStatisPro. */
typedef struct Tarn_sys_diag_SysMemStatisProResult {
    uint32_t uiRecordNum;                     /* elements of pstRecord */
    Tarn_sys_diag_SysMemStatisPro *pstRecord; /* owned; null when there are none */
    uint32_t uiMemTotal;                      /* memory of the system, MemTotal of /proc/meminfo */
} Tarn_sys_diag_SysMemStatisProResult;
VELTO_TABLE(SysMemStatisProResult, VELTO_VECTOR(uiRecordNum, pstRecord), uiMemTotal)

/* Request of DumpOsProcMemValue: a range of a process's memory. */
typedef struct Tarn_sys_diag_DumpOsProcMemValueInput {
    uint32_t uiPid;
    TARN_U64 ullAddress;
    TARN_U64 ullLength;
} Tarn_sys_diag_DumpOsProcMemValueInput;
VELTO_TABLE(DumpOsProcMemValueInput, uiPid, ullAddress, ullLength)

/* Reply of DumpOsProcMemValue: the dump as text. */
typedef struct Tarn_sys_diag_DumpOsProcMemValueResult {
    char *szValue; /* owned; null when there is none */
    uint32_t uiValue1;
} Tarn_sys_diag_DumpOsProcMemValueResult;
VELTO_TABLE(DumpOsProcMemValueResult, szValue, uiValue1)

/* Request of MemLeakOrHisQry: which leak report or history is wanted. */
typedef struct Tarn_sys_diag_MemLeakQryIn {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_MemLeakQryIn;
VELTO_TABLE(MemLeakQryIn, uiValue1, uiValue2, uiValue3, uiValue4)

/* Reply of MemLeakOrHisQry. All 40 KiB travel, however little they hold. */
typedef struct Tarn_sys_diag_MemLeakQryOut {
    char acLeakInfo[40960];
    uint8_t ucValue2;
} Tarn_sys_diag_MemLeakQryOut;
VELTO_TABLE(MemLeakQryOut, acLeakInfo, ucValue2)

/* Request of GetOsProcessMemInfo: the process asked about. */
typedef struct Tarn_sys_diag_SysOsMemInfoInput {
    uint32_t uiPid;
} Tarn_sys_diag_SysOsMemInfoInput;
VELTO_TABLE(SysOsMemInfoInput, uiPid)

/* Memory of one process in detail, from /proc/PID/status where no other source is named. */
typedef struct Tarn_sys_diag_SysOsMemInfo {
    uint32_t uiPid;
    uint32_t uiPpid;
    char szProcName[50];    /* /proc/PID/comm */
    char szExeName[50];     /* file name of /proc/PID/exe; empty for a kernel thread */
    char szUserName[32];    /* the effective user, as a number when it has no name */
    char szGroupName[32];   /* the effective group, likewise */
    char szState[32];       /* "S (sleeping)" */
    char szWaitChannel[32]; /* /proc/PID/wchan; "0" when not waiting, or hidden by the kernel */
    uint32_t uiThreadNum;
    uint32_t uiVmPeak; /* from here to uiHugetlb: the lines of the same names */
    uint32_t uiVmSize;
    uint32_t uiVmLck;
    uint32_t uiVmHwm;
    uint32_t uiVmRss;
    uint32_t uiRssAnon;
    uint32_t uiRssFile;
    uint32_t uiRssShmem;
    uint32_t uiVmData;
    uint32_t uiVmStk;
    uint32_t uiVmExe;
    uint32_t uiVmLib;
    uint32_t uiVmPte;
    uint32_t uiVmSwap;
    uint32_t uiHugetlb; /* HugetlbPages */
    uint32_t uiPss;     /* from here to uiSwapPss: /proc/PID/smaps_rollup */
    uint32_t uiSharedClean;
    uint32_t uiSharedDirty;
    uint32_t uiPrivateClean;
    uint32_t uiPrivateDirty;
    uint32_t uiSwapPss;
    TARN_U64 ullMinorFaults; /* page faults since the start that needed no disk; /proc/PID/stat */
    TARN_U64 ullMajorFaults; /* those that did */
    uint32_t uiOomScore;     /* /proc/PID/oom_score: the highest is killed first */
} Tarn_sys_diag_SysOsMemInfo;
VELTO_TABLE(SysOsMemInfo, uiPid, uiPpid, szProcName, szExeName, szUserName, szGroupName, szState, szWaitChannel,
            uiThreadNum, uiVmPeak, uiVmSize, uiVmLck, uiVmHwm, uiVmRss, uiRssAnon, uiRssFile, uiRssShmem, uiVmData,
            uiVmStk, uiVmExe, uiVmLib, uiVmPte, uiVmSwap, uiHugetlb, uiPss, uiSharedClean, uiSharedDirty,
            uiPrivateClean, uiPrivateDirty, uiSwapPss, ullMinorFaults, ullMajorFaults, uiOomScore)

/* Reply of GetOsProcessMemInfo. */
typedef struct Tarn_sys_diag_SysOsMemInfoResult {
    uint32_t uiProcNum;                  /* elements of pstProc */
    Tarn_sys_diag_SysOsMemInfo *pstProc; /* owned; null when there are none */
} Tarn_sys_diag_SysOsMemInfoResult;
VELTO_TABLE(SysOsMemInfoResult, VELTO_VECTOR(uiProcNum, pstProc))

/* Request of GetOsProcessMapsInfo: the process asked about. */
typedef struct Tarn_sys_diag_SysProOsInput {
    uint32_t uiPid;
} Tarn_sys_diag_SysProOsInput;
VELTO_TABLE(SysProOsInput, uiPid)

/* One mapping of a process, from /proc/PID/smaps. Texts that don't fit are cut at the end. */
typedef struct Tarn_sys_diag_SysProOs {
    uint32_t uiPid;
    char szAddrRange[32]; /* "b6f00000-b6f21000", hexadecimal; "ffffffffff600000+1000", where two have no room */
    char szPerms[16];     /* "r-xp" */
    uint32_t uiSize;
    uint32_t uiRss;
    uint32_t uiPss;
    uint32_t uiPrivateDirty;
    uint32_t uiSwap;
    char szDevInode[32]; /* device and inode of the mapped file, "b3:02 1571"; "00:00 0" when there is none */
    char szMapName[32];  /* its name without directories, or "[heap]", "[stack]"; empty for anonymous memory */
} Tarn_sys_diag_SysProOs;
VELTO_TABLE(SysProOs, uiPid, szAddrRange, szPerms, uiSize, uiRss, uiPss, uiPrivateDirty, uiSwap, szDevInode, szMapName)

/* Reply of GetOsProcessMapsInfo, in address order. */
typedef struct Tarn_sys_diag_SysProOsResult {
    uint32_t uiMapNum;              /* elements of pstMap */
    Tarn_sys_diag_SysProOs *pstMap; /* owned; null when there are none */
} Tarn_sys_diag_SysProOsResult;
VELTO_TABLE(SysProOsResult, VELTO_VECTOR(uiMapNum, pstMap))

/* Memory statistics of one file. */
typedef struct Tarn_sys_diag_SysMemStatisFile {
    char acFileName[256];
    uint32_t uiValue1;
    uint32_t uiValue2;
    char acValue3[50];
    char acValue4[50];
} Tarn_sys_diag_SysMemStatisFile;
VELTO_TABLE(SysMemStatisFile, acFileName, uiValue1, uiValue2, acValue3, acValue4)

/* Reply of GetSysMemStatisFile. */
typedef struct Tarn_sys_diag_SysMemStatisFileResult {
    uint32_t uiFileNum;                      /* elements of pstFile */
    Tarn_sys_diag_SysMemStatisFile *pstFile; /* owned; null when there are none */
} Tarn_sys_diag_SysMemStatisFileResult;
VELTO_TABLE(SysMemStatisFileResult, VELTO_VECTOR(uiFileNum, pstFile))

/* Request of GetSysOsMemFileList. */
typedef struct Tarn_sys_diag_SysOsMemFileInput {
    uint32_t uiValue1;
} Tarn_sys_diag_SysOsMemFileInput;
VELTO_TABLE(SysOsMemFileInput, uiValue1)

/* One file of the list. */
typedef struct Tarn_sys_diag_SysOsMemFile {
    char acValue1[50];
    char acValue2[50];
    char acValue3[16];
    char acFileName[256];
    uint32_t uiValue4;
} Tarn_sys_diag_SysOsMemFile;
VELTO_TABLE(SysOsMemFile, acValue1, acValue2, acValue3, acFileName, uiValue4)

/* Reply of GetSysOsMemFileList. */
typedef struct Tarn_sys_diag_SysOsMemFileResult {
    uint32_t uiFileNum;                  /* elements of pstFile */
    Tarn_sys_diag_SysOsMemFile *pstFile; /* owned; null when there are none */
    uint32_t uiValue1;
} Tarn_sys_diag_SysOsMemFileResult;
VELTO_TABLE(SysOsMemFileResult, VELTO_VECTOR(uiFileNum, pstFile), uiValue1)

/* Memory statistics of one piece of shared memory. */
typedef struct Tarn_sys_diag_SysMemStatisShare {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    char acName[50];
    char acValue5[50];
} Tarn_sys_diag_SysMemStatisShare;
VELTO_TABLE(SysMemStatisShare, uiValue1, uiValue2, uiValue3, uiValue4, acName, acValue5)

/* Reply of GetSysMemStatisShare. */
typedef struct Tarn_sys_diag_SysMemStatisShareResult {
    uint32_t uiShareNum;                       /* elements of pstShare */
    Tarn_sys_diag_SysMemStatisShare *pstShare; /* owned; null when there are none */
} Tarn_sys_diag_SysMemStatisShareResult;
VELTO_TABLE(SysMemStatisShareResult, VELTO_VECTOR(uiShareNum, pstShare))

/* One record of the memory overload monitor. */
typedef struct Tarn_sys_diag_SysMemOverloadStat {
    Tarn_sys_diag_Systime stTime;
    uint8_t ucValue1;
} Tarn_sys_diag_SysMemOverloadStat;
VELTO_TABLE(SysMemOverloadStat, stTime, ucValue1)

/* Reply of GetSysMemOverloadStat. */
typedef struct Tarn_sys_diag_GetSysMemOverloadStatOutput {
    uint32_t uiValue1;
    uint32_t uiRecordNum;                        /* elements of pstRecord */
    Tarn_sys_diag_SysMemOverloadStat *pstRecord; /* owned; null when there are none */
} Tarn_sys_diag_GetSysMemOverloadStatOutput;
VELTO_TABLE(GetSysMemOverloadStatOutput, uiValue1, VELTO_VECTOR(uiRecordNum, pstRecord))

/* Reply of GetSysMemOverloadSw: the state of the memory overload switch. */
typedef struct Tarn_sys_diag_GetSysMemOverloadSwOutput {
    uint32_t uiSwitch;
    uint8_t ucValue2;
} Tarn_sys_diag_GetSysMemOverloadSwOutput;
VELTO_TABLE(GetSysMemOverloadSwOutput, uiSwitch, ucValue2)

/* Reply of GetSysMemOverloadCfg: the memory overload configuration in force. */
typedef struct Tarn_sys_diag_GetSysMemOverloadCfgOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
    uint32_t uiValue5;
} Tarn_sys_diag_GetSysMemOverloadCfgOutput;
VELTO_TABLE(GetSysMemOverloadCfgOutput, uiValue1, uiValue2, uiValue3, uiValue4, uiValue5)

/* Request of SysOvLoadMemThresholdSet: the memory overload thresholds. The reply is OperResult. */
typedef struct Tarn_sys_diag_SysOvLoadMemThreshold {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_SysOvLoadMemThreshold;
VELTO_TABLE(SysOvLoadMemThreshold, uiValue1, uiValue2)

/* Request of ClearEnvAct. The reply is Result. */
typedef struct Tarn_sys_diag_ClearEnvActInput {
    char acValue1[50];
    char acValue2[50];
} Tarn_sys_diag_ClearEnvActInput;
VELTO_TABLE(ClearEnvActInput, acValue1, acValue2)

/*
 * Memory use of one NUMA node, from /sys/devices/system/node/nodeN/meminfo. A system without nodes has one record,
 * named "system", from /proc/meminfo.
 */
typedef struct Tarn_sys_diag_SysMemUseInfo {
    uint32_t uiNodeId;
    char szNodeName[50]; /* "node0" */
    char szCpuList[32];  /* the node's CPUs, "0-3,8" */
    uint32_t uiMemTotal;
    uint32_t uiMemFree;
    uint32_t uiMemUsed; /* total less free, page cache included */
    uint32_t uiActive;
    uint32_t uiInactive;
    uint32_t uiFilePages; /* page cache */
    uint32_t uiAnonPages;
    uint32_t uiShmem;
    uint32_t uiSlabReclaimable;
    uint32_t uiSlabUnreclaimable;
    uint32_t uiKernelStack;
    uint32_t uiPageTables;
    uint32_t uiHugePagesTotal; /* pages */
} Tarn_sys_diag_SysMemUseInfo;
VELTO_TABLE(SysMemUseInfo, uiNodeId, szNodeName, szCpuList, uiMemTotal, uiMemFree, uiMemUsed, uiActive, uiInactive,
            uiFilePages, uiAnonPages, uiShmem, uiSlabReclaimable, uiSlabUnreclaimable, uiKernelStack, uiPageTables,
            uiHugePagesTotal)

/* Reply of GetSysMemUseInfo. */
typedef struct Tarn_sys_diag_SysMemUseInfoResult {
    uint32_t uiNodeNum;                   /* elements of pstNode */
    Tarn_sys_diag_SysMemUseInfo *pstNode; /* owned; null when there are none */
} Tarn_sys_diag_SysMemUseInfoResult;
VELTO_TABLE(SysMemUseInfoResult, VELTO_VECTOR(uiNodeNum, pstNode))

/* Request of SetOvLoadDebugSwitch: the debug switch of the overload monitors. The reply is Result. */
typedef struct Tarn_sys_diag_SetOvLoadDebugSwitchInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_SetOvLoadDebugSwitchInput;
VELTO_TABLE(SetOvLoadDebugSwitchInput, uiValue1, uiValue2)

/* Request of AppMemInfo. */
typedef struct Tarn_sys_diag_AppMemInfoInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_AppMemInfoInput;
VELTO_TABLE(AppMemInfoInput, uiValue1, uiValue2)

/* Reply of AppMemInfo: application memory as text. */
typedef struct Tarn_sys_diag_AppMemInfoOutput {
    char *szInfo; /* owned; null when there is none */
} Tarn_sys_diag_AppMemInfoOutput;
VELTO_TABLE(AppMemInfoOutput, szInfo)

/* ---- Log archives and time; every reply is Result ---- */

/* Request of ZipLogFile: which logs to pack, and where the archive goes. */
typedef struct Tarn_sys_diag_ZiploginfoInput {
    char szLogPath[256];
    char szZipPath[256];
    char szZipName[256];
    uint32_t uiZipOption;
} Tarn_sys_diag_ZiploginfoInput;
VELTO_TABLE(ZiploginfoInput, szLogPath, szZipPath, szZipName, uiZipOption)

/* Request of CopyZipLogFile: which archive to copy, and where to. */
typedef struct Tarn_sys_diag_CopyloginfoInput {
    char szCopyTarget[64];
    char szCopyParam1[32];
    char szCopyParam2[32];
    char szSrcPath[256];
    char szDstPath[256];
} Tarn_sys_diag_CopyloginfoInput;
VELTO_TABLE(CopyloginfoInput, szCopyTarget, szCopyParam1, szCopyParam2, szSrcPath, szDstPath)

/* Request of SetTimezone. */
typedef struct Tarn_sys_diag_SetTimezoneInput {
    Tarn_sys_diag_Timezone stTimezone;
} Tarn_sys_diag_SetTimezoneInput;
VELTO_TABLE(SetTimezoneInput, stTimezone)

/* Request of SetDst: the daylight-saving rule. */
typedef struct Tarn_sys_diag_SetDstInput {
    Tarn_sys_diag_Dst stDst;
} Tarn_sys_diag_SetDstInput;
VELTO_TABLE(SetDstInput, stDst)

/* Request of SetGmt: the new GMT time. */
typedef struct Tarn_sys_diag_SetGmtInput {
    Tarn_sys_diag_Systime stTime;
} Tarn_sys_diag_SetGmtInput;
VELTO_TABLE(SetGmtInput, stTime)

/* Request of SetLocalTime: the new local time. */
typedef struct Tarn_sys_diag_SetLocalTimeInput {
    Tarn_sys_diag_Systime stTime;
} Tarn_sys_diag_SetLocalTimeInput;
VELTO_TABLE(SetLocalTimeInput, stTime)

/* Request of SetDateFormat: the format, in the daemon's coding. */
typedef struct Tarn_sys_diag_SetDateFormatInput {
    uint32_t uiDateFormat;
} Tarn_sys_diag_SetDateFormatInput;
VELTO_TABLE(SetDateFormatInput, uiDateFormat)

/*
 * ---- Memory diagnostics and debug commands relayed to an agent ----
 *
 * Each request is the agent's own with uiTargetPid after its last member: it tells the daemon which process's agent
 * is meant. It is 0 when the peer sent the agent's form. The replies are the agent's.
 */

/* Request of GetMirelMemHandleInfoByTarnd. */
typedef struct Tarn_sys_diag_GetMirelMemHandleInfoInput {
    uint32_t uiTargetPid;
} Tarn_sys_diag_GetMirelMemHandleInfoInput;
VELTO_TABLE(GetMirelMemHandleInfoInput, uiTargetPid)

/* Request of GetProcPartitionMemHandleRecodByTarnd. */
typedef struct Tarn_sys_diag_ProcPtRecodByTarndInput {
    uint32_t uiPtParam1;
    uint32_t uiPtParam2;
    uint32_t uiPtParam3;
    uint32_t uiPtParam4;
    uint32_t uiPtParam5;
    uint32_t uiTargetPid;
} Tarn_sys_diag_ProcPtRecodByTarndInput;
VELTO_TABLE(ProcPtRecodByTarndInput, uiPtParam1, uiPtParam2, uiPtParam3, uiPtParam4, uiPtParam5, uiTargetPid)

/* Request of GetMirelMemPtInfoByTarnd. */
typedef struct Tarn_sys_diag_GetMirelMemPtInfoByTarndInput {
    uint32_t uiPtId;
    uint32_t uiTargetPid;
} Tarn_sys_diag_GetMirelMemPtInfoByTarndInput;
VELTO_TABLE(GetMirelMemPtInfoByTarndInput, uiPtId, uiTargetPid)

/* Request of MemDiagMaByTarnd: a memory diagnosis command and its data. */
typedef struct Tarn_sys_diag_mem_RPCIN_input {
    uint32_t uiMemCmd;
    uint32_t uiMemDataLen; /* bytes of pucMemData */
    uint8_t *pucMemData;   /* owned, released when the handler returns; null when there are none */
    uint32_t uiTargetPid;
} Tarn_sys_diag_mem_RPCIN_input;
VELTO_TABLE(mem_RPCIN_input, uiMemCmd, VELTO_VECTOR(uiMemDataLen, pucMemData), uiTargetPid)

/* Request of DBGCmdExecShowByTarnd, which has no reply: the debug command to run. */
typedef struct Tarn_sys_diag_DbgCmdShowByTarndInput {
    char *pcCmdStr; /* owned, released when the handler returns; null when the peer sent none */
    uint32_t uiTargetPid;
} Tarn_sys_diag_DbgCmdShowByTarndInput;
VELTO_TABLE(DbgCmdShowByTarndInput, pcCmdStr, uiTargetPid)

/* Request of DBGCmdExecResultGetByTarnd: fetches what the debug command printed. */
typedef struct Tarn_sys_diag_DbgCmdResultGetByTarndInput {
    uint32_t uiTargetPid;
} Tarn_sys_diag_DbgCmdResultGetByTarndInput;
VELTO_TABLE(DbgCmdResultGetByTarndInput, uiTargetPid)

/* Request of DBGCmdExecCleanByTarnd, which has no reply: drops the debug command's result. */
typedef struct Tarn_sys_diag_DbgCmdCleanByTarndInput {
    uint32_t uiTargetPid;
} Tarn_sys_diag_DbgCmdCleanByTarndInput;
VELTO_TABLE(DbgCmdCleanByTarndInput, uiTargetPid)

/* Request of SetMemDmgScanTarnd: the switch of the memory-damage scan. */
typedef struct Tarn_sys_diag_MemDmgScanInTarnd {
    uint32_t uiScanSwitch;
    uint32_t uiTargetPid;
} Tarn_sys_diag_MemDmgScanInTarnd;
VELTO_TABLE(MemDmgScanInTarnd, uiScanSwitch, uiTargetPid)

/* Request of GetMemDmgInfoTarnd: which memory-damage report is wanted. */
typedef struct Tarn_sys_diag_MemDmgInfoInTarnd {
    uint32_t uiInfoType;
    uint32_t uiTargetPid;
} Tarn_sys_diag_MemDmgInfoInTarnd;
VELTO_TABLE(MemDmgInfoInTarnd, uiInfoType, uiTargetPid)

/* ---- Tasks, call stacks and liveness ---- */

/* Request of GetTaskInfo. The daemon defines the parameters. */
typedef struct Tarn_sys_diag_GetTaskInfoInput {
    uint32_t uiTaskParam1;
    uint32_t uiTaskParam2;
    char *pcTaskName; /* owned, released when the handler returns; null when the peer sent none */
    uint32_t uiTaskParam3;
    uint32_t uiTaskParam4;
} Tarn_sys_diag_GetTaskInfoInput;
VELTO_TABLE(GetTaskInfoInput, uiTaskParam1, uiTaskParam2, pcTaskName, uiTaskParam3, uiTaskParam4)

/* Reply of GetTaskInfo. */
typedef struct Tarn_sys_diag_GetTaskInfoResult {
    char *pcTaskInfo; /* owned; null when there is none */
    uint32_t uiTaskValue;
    char *pcTaskRecord; /* owned; null when there is none */
} Tarn_sys_diag_GetTaskInfoResult;
VELTO_TABLE(GetTaskInfoResult, pcTaskInfo, uiTaskValue, pcTaskRecord)

/* Request of ResetTaskRecord: the task whose records are reset. */
typedef struct Tarn_sys_diag_ResetTaskRecordInput {
    uint32_t uiTaskId;
} Tarn_sys_diag_ResetTaskRecordInput;
VELTO_TABLE(ResetTaskRecordInput, uiTaskId)

/* Request of SetTaskStarvThreshold: the task monitor's starvation threshold. */
typedef struct Tarn_sys_diag_StarvTaskThresholdInput {
    uint32_t uiStarvThreshold;
} Tarn_sys_diag_StarvTaskThresholdInput;
VELTO_TABLE(StarvTaskThresholdInput, uiStarvThreshold)

/* Request of SetTaskSwitch: switches the task monitor on or off. */
typedef struct Tarn_sys_diag_TaskSwitchInput {
    uint32_t uiTaskSwitch;
} Tarn_sys_diag_TaskSwitchInput;
VELTO_TABLE(TaskSwitchInput, uiTaskSwitch)

/* Reply of ResetTaskRecord, SetTaskStarvThreshold and SetTaskSwitch. */
typedef struct Tarn_sys_diag_TaskResult {
    uint32_t uiTaskResult;
} Tarn_sys_diag_TaskResult;
VELTO_TABLE(TaskResult, uiTaskResult)

/* Request of GetAllTidsByPid. */
typedef struct Tarn_sys_diag_Pid {
    uint32_t uiPid;
} Tarn_sys_diag_Pid;
VELTO_TABLE(Pid, uiPid)

/* Reply of GetAllTidsByPid: the thread ids of the process. */
typedef struct Tarn_sys_diag_Tids {
    uint32_t uiTidNum; /* elements of puiTids */
    uint32_t *puiTids; /* owned; null when there are none */
} Tarn_sys_diag_Tids;
VELTO_TABLE(Tids, VELTO_VECTOR(uiTidNum, puiTids))

/* Request of GetCallStackInfoByTid. */
typedef struct Tarn_sys_diag_Tid {
    uint32_t uiPid;
    uint32_t uiTid;
} Tarn_sys_diag_Tid;
VELTO_TABLE(Tid, uiPid, uiTid)

/* The call stack of one thread. It takes more than 4 KB: allocate arrays of it, the stack is no place for them. */
typedef struct Tarn_sys_diag_CallStackThreadInfo {
    uint32_t uiTid;
    char szThreadName[32];
    TARN_U64 ullValue1;
    char szName2[32];
    uint32_t uiValue2;
    uint32_t uiValue3;
    TARN_U64 aullStackAddr[32];             /* stack addresses */
    Tarn_sys_diag_FuncName astFuncName[32]; /* the functions of aullStackAddr, element by element */
} Tarn_sys_diag_CallStackThreadInfo;
VELTO_TABLE(CallStackThreadInfo, uiTid, szThreadName, ullValue1, szName2, uiValue2, uiValue3, aullStackAddr,
            astFuncName)

/* Reply of GetCallStackInfoByTid. */
typedef struct Tarn_sys_diag_CallStackContext {
    uint32_t uiValue1;
    uint32_t uiThreadNum;                             /* elements of pstThreadInfo */
    Tarn_sys_diag_CallStackThreadInfo *pstThreadInfo; /* owned; null when there are none */
} Tarn_sys_diag_CallStackContext;
VELTO_TABLE(CallStackContext, uiValue1, VELTO_VECTOR(uiThreadNum, pstThreadInfo))

/* Request of SetNoxTimerDebugSwitchByTarnd: the agent's SetNoxTimerDebugSwitch, relayed. The reply is Result. */
typedef struct Tarn_sys_diag_SetNoxTimerDebugSwitchTarndInput {
    uint32_t uiDebugSwitch;
    uint32_t uiTargetPid; /* the process whose agent is meant */
} Tarn_sys_diag_SetNoxTimerDebugSwitchTarndInput;
VELTO_TABLE(SetNoxTimerDebugSwitchTarndInput, uiDebugSwitch, uiTargetPid)

/* ---- Measurement, health and process table ---- */

/* Request of TarnSetDimOpration: what the measurement (DIM) shall do. The reply is Result. */
typedef struct Tarn_sys_diag_DimSetIn {
    uint32_t uiOperation;
} Tarn_sys_diag_DimSetIn;
VELTO_TABLE(DimSetIn, uiOperation)

/* Reply of TarnGetDimMeasRstByTarnd: the result of the measurement. */
typedef struct Tarn_sys_diag_DimMeasRst {
    uint32_t uiValue1;
    char acMeasResult[128];
    uint32_t uiValue2;
} Tarn_sys_diag_DimMeasRst;
VELTO_TABLE(DimMeasRst, uiValue1, acMeasResult, uiValue2)

/* Request of TarnPadsGetSystemHealthInfoByTarnd. The reply is the agent's PadsSystemHealthResult. */
typedef struct Tarn_sys_diag_PadsSystemHealthInput {
    uint8_t ucValue;
    uint32_t uiValue;
} Tarn_sys_diag_PadsSystemHealthInput;
VELTO_TABLE(PadsSystemHealthInput, ucValue, uiValue)

/* Request of TarnPadsGetCpuEventByTarnd: which CPU events are wanted. */
typedef struct Tarn_sys_diag_PadsCpuEventInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_PadsCpuEventInput;
VELTO_TABLE(PadsCpuEventInput, uiValue1, uiValue2, uiValue3)

/* A CPU event that the health function (PADS) recorded: a CPU was busy too long, mostly with one thread. */
typedef struct Tarn_sys_diag_PadsCpuEvent {
    Tarn_sys_diag_Systime stTime; /* when it began, local time */
    uint32_t uiDuration;          /* ms */
    uint32_t uiCpuId;
    uint32_t uiCpuUse;   /* use of the CPU over the duration, permille; /proc/stat */
    uint32_t uiPressure; /* "some avg10" of /proc/pressure/cpu at its end, permille; 0 when the kernel has none */
    uint32_t uiPid;      /* the thread that took most of the CPU's time lately */
    uint32_t uiTid;
    char szThreadName[32]; /* /proc/PID/task/TID/comm */
    uint32_t uiThreadUse;  /* its share of the CPU lately, permille */
} Tarn_sys_diag_PadsCpuEvent;
VELTO_TABLE(PadsCpuEvent, stTime, uiDuration, uiCpuId, uiCpuUse, uiPressure, uiPid, uiTid, szThreadName, uiThreadUse)

/* Reply of TarnPadsGetCpuEventByTarnd, oldest event first. */
typedef struct Tarn_sys_diag_PadsCpuEventResult {
    uint32_t uiEventNum;                  /* elements of pstEvent */
    Tarn_sys_diag_PadsCpuEvent *pstEvent; /* owned; null when there are none */
} Tarn_sys_diag_PadsCpuEventResult;
VELTO_TABLE(PadsCpuEventResult, VELTO_VECTOR(uiEventNum, pstEvent))

/* Request of ProcTableBuild: builds the daemon's process table. */
typedef struct Tarn_sys_diag_ProcTableBuildInput {
    uint8_t ucBuildFlag;
} Tarn_sys_diag_ProcTableBuildInput;
VELTO_TABLE(ProcTableBuildInput, ucBuildFlag)

/* Reply of ProcTableBuild: the status of the build. */
typedef struct Tarn_sys_diag_ProcTableBuildOutput {
    uint32_t uiResult;
} Tarn_sys_diag_ProcTableBuildOutput;
VELTO_TABLE(ProcTableBuildOutput, uiResult)

/* Request of GetProcTable. */
TARN_EMPTY_RECORD(GetProcTableInput)
VELTO_TABLE(GetProcTableInput)

/* One process of the table, as it was when the table was built. */
typedef struct Tarn_sys_diag_ProcTableEntry {
    uint32_t uiPid;
    uint32_t uiPpid;
    uint32_t uiUid;      /* real user */
    char szProcName[32]; /* /proc/PID/comm */
    uint8_t ucState;     /* state letter of /proc/PID/stat: 'R', 'S', 'D', 'Z', ... */
    uint32_t uiThreadNum;
    uint32_t uiRss;        /* KiB */
    TARN_U64 ullStartTime; /* ms from boot to the start of the process */
    TARN_U64 ullCpuTime;   /* user and system time since then, ms */
    char *pcCmdLine;       /* owned; arguments separated by spaces; null for a kernel thread */
} Tarn_sys_diag_ProcTableEntry;
VELTO_TABLE(ProcTableEntry, uiPid, uiPpid, uiUid, szProcName, ucState, uiThreadNum, uiRss, ullStartTime, ullCpuTime,
            pcCmdLine)

/* Reply of GetProcTable, in the order that the build asked for. */
typedef struct Tarn_sys_diag_GetProcTableResult {
    uint32_t uiProcNum;                    /* elements of pstProc */
    Tarn_sys_diag_ProcTableEntry *pstProc; /* owned, with each element's pcCmdLine; null when there are none */
} Tarn_sys_diag_GetProcTableResult;
VELTO_TABLE(GetProcTableResult, VELTO_VECTOR(uiProcNum, pstProc))

/* Request of GetQ5ProcInfo: the process of the Q5 platform asked about. */
typedef struct Tarn_sys_diag_GetQ5ProcInfoInput {
    uint32_t uiPid;
} Tarn_sys_diag_GetQ5ProcInfoInput;
VELTO_TABLE(GetQ5ProcInfoInput, uiPid)

/* Reply of GetQ5ProcInfo. */
typedef struct Tarn_sys_diag_GetQ5ProcInfoOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_GetQ5ProcInfoOutput;
VELTO_TABLE(GetQ5ProcInfoOutput, uiValue1, uiValue2)

#endif
