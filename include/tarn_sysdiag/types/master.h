/*
 * Messages of the diagnosis master, which holds the configuration that the daemon fetches. None owns memory.
 *
 * Members named uiValueN, ucValueN and acNameN carry what the master and the daemon agreed on; the library passes them
 * through. char arrays are copied whole, so a full one has no terminating 0.
 */
#ifndef TARN_TYPES_MASTER_H
#define TARN_TYPES_MASTER_H

#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/time.h"

/* Request of GetPhyNameAndID: a physical address. */
typedef struct Tarn_sys_diag_PhysicalAddrInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_PhysicalAddrInput;
VELTO_TABLE(PhysicalAddrInput, uiValue1, uiValue2, uiValue3)

/* Reply of GetPhyNameAndID: the name and identifiers of what is at the address. */
typedef struct Tarn_sys_diag_PhyNameAndIDOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    char acPhyName[64];
} Tarn_sys_diag_PhyNameAndIDOutput;
VELTO_TABLE(PhyNameAndIDOutput, uiValue1, uiValue2, acPhyName)

/* Reply of GetTimezone: the time zone set on the master. */
typedef struct Tarn_sys_diag_GetTimezoneOutput {
    uint32_t uiValue1;
    Tarn_sys_diag_Timezone stTimezone;
} Tarn_sys_diag_GetTimezoneOutput;
VELTO_TABLE(GetTimezoneOutput, uiValue1, stTimezone)

/* Reply of GetDst: the daylight-saving rule set on the master. */
typedef struct Tarn_sys_diag_GetDstOutput {
    uint32_t uiValue1;
    Tarn_sys_diag_Dst stDst;
} Tarn_sys_diag_GetDstOutput;
VELTO_TABLE(GetDstOutput, uiValue1, stDst)

/* Reply of GetGmt: the master's clock in GMT. */
typedef struct Tarn_sys_diag_GetGmtOutput {
    Tarn_sys_diag_Systime stGmtTime;
} Tarn_sys_diag_GetGmtOutput;
VELTO_TABLE(GetGmtOutput, stGmtTime)

/* Reply of GetLocal: the master's clock in local time. */
typedef struct Tarn_sys_diag_GetLocalOutput {
    uint32_t uiValue1;
    Tarn_sys_diag_Systime stLocalTime;
    uint8_t ucValue;
} Tarn_sys_diag_GetLocalOutput;
VELTO_TABLE(GetLocalOutput, uiValue1, stLocalTime, ucValue)

/* Request of GetCpuOvLoadCfgInfo: whose CPU overload configuration is wanted. */
typedef struct Tarn_sys_diag_OvLoadCpuCtlInput {
    char acName1[32];
    char acName2[32];
} Tarn_sys_diag_OvLoadCpuCtlInput;
VELTO_TABLE(OvLoadCpuCtlInput, acName1, acName2)

/* Reply of GetCpuOvLoadCfgInfo: a CPU overload configuration. */
typedef struct Tarn_sys_diag_OvLoadCpuCtlOutput {
    char acName1[32];
    char acName2[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    uint32_t uiValue4;
} Tarn_sys_diag_OvLoadCpuCtlOutput;
VELTO_TABLE(OvLoadCpuCtlOutput, acName1, acName2, uiValue1, uiValue2, uiValue3, uiValue4)

/* Request of GetMemoryOvLoadCfgInfo: whose memory overload configuration is wanted. */
typedef struct Tarn_sys_diag_OvLoadMemCtlInput {
    char acName1[32];
    char acName2[32];
} Tarn_sys_diag_OvLoadMemCtlInput;
VELTO_TABLE(OvLoadMemCtlInput, acName1, acName2)

/*
 * Reply of GetMemoryOvLoadCfgInfo: a memory overload configuration. Also the request of MemChangeInnerConfig, with
 * which the daemon hands a changed one back to the master.
 */
typedef struct Tarn_sys_diag_OvLoadMemCtlOutput {
    char acName1[32];
    char acName2[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
    char acName3[32];
    uint32_t uiValue4;
    uint32_t uiValue5;
} Tarn_sys_diag_OvLoadMemCtlOutput;
VELTO_TABLE(OvLoadMemCtlOutput, acName1, acName2, uiValue1, uiValue2, uiValue3, acName3, uiValue4, uiValue5)

/* Reply of GetMKAutoUpdCfgInfo: the automatic-update configuration. */
typedef struct Tarn_sys_diag_GetMKAutoUpdCfgInfoOutput {
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_GetMKAutoUpdCfgInfoOutput;
VELTO_TABLE(GetMKAutoUpdCfgInfoOutput, uiValue1, uiValue2, uiValue3)

/* Reply of SysdiagGetMKCfgInfo: the process configuration. */
typedef struct Tarn_sys_diag_MKCfgInfoOutput {
    char acCfgInfo[97]; /* the odd length is what the master sends */
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint32_t uiValue3;
} Tarn_sys_diag_MKCfgInfoOutput;
VELTO_TABLE(MKCfgInfoOutput, acCfgInfo, uiValue1, uiValue2, uiValue3)

/* Request of GetLMProcLPid: a process. */
typedef struct Tarn_sys_diag_GetLMProcLPidInput {
    uint32_t uiPid;
} Tarn_sys_diag_GetLMProcLPidInput;
VELTO_TABLE(GetLMProcLPidInput, uiPid)

/* Reply of GetLMProcLPid: the LPid that the master holds for the process. */
typedef struct Tarn_sys_diag_GetLMProcLPidOutput {
    uint32_t uiValue1;
    uint32_t uiLPid;
} Tarn_sys_diag_GetLMProcLPidOutput;
VELTO_TABLE(GetLMProcLPidOutput, uiValue1, uiLPid)

/* Reply of SysdiagGetDimCfgInfo: the measurement times. Also the daemon's own request to set them. */
typedef struct Tarn_sys_diag_DimTimeCfg {
    uint8_t ucValue1;
    uint8_t ucValue2;
} Tarn_sys_diag_DimTimeCfg;
VELTO_TABLE(DimTimeCfg, ucValue1, ucValue2)

/* Reply of SysdiagGetDimWorkMode: the work mode of measurement. Also the daemon's own request to set it. */
typedef struct Tarn_sys_diag_DimWorkModeCfg {
    uint32_t uiWorkMode;
} Tarn_sys_diag_DimWorkModeCfg;
VELTO_TABLE(DimWorkModeCfg, uiWorkMode)

#endif
