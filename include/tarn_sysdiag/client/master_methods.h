/*
 * The methods of TarnSysdiagMaster, in export order: TARN_METHOD(Method, Request, Response), and
 * TARN_METHOD_NO_REPLY(Method, Request) for the one that is not answered. Included once for each use of the list, with
 * both macros defined; it undefines them.
 */
#if !defined(TARN_METHOD) || !defined(TARN_METHOD_NO_REPLY)
#error "tarn_sysdiag/client/master_methods.h: define TARN_METHOD and TARN_METHOD_NO_REPLY before including the list"
#endif

TARN_METHOD(UpdateInnerConfig, None, None)
TARN_METHOD(GetPhyNameAndID, PhysicalAddrInput, PhyNameAndIDOutput)
TARN_METHOD(GetTimezone, None, GetTimezoneOutput)
TARN_METHOD(GetDst, None, GetDstOutput)
TARN_METHOD(GetGmt, None, GetGmtOutput)
TARN_METHOD(GetLocal, None, GetLocalOutput)
TARN_METHOD(GetCpuOvLoadCfgInfo, OvLoadCpuCtlInput, OvLoadCpuCtlOutput)
TARN_METHOD(GetMemoryOvLoadCfgInfo, OvLoadMemCtlInput, OvLoadMemCtlOutput)
TARN_METHOD(MemChangeInnerConfig, OvLoadMemCtlOutput, None)
TARN_METHOD(GetMKAutoUpdCfgInfo, None, GetMKAutoUpdCfgInfoOutput)
TARN_METHOD(SysdiagGetMKCfgInfo, None, MKCfgInfoOutput)
TARN_METHOD(GetLMProcLPid, GetLMProcLPidInput, GetLMProcLPidOutput)
TARN_METHOD_NO_REPLY(DetectSysdiagServerOnline, None)
TARN_METHOD(SysdiagGetDimCfgInfo, None, DimTimeCfg)
TARN_METHOD(SysdiagGetDimWorkMode, None, DimWorkModeCfg)

#undef TARN_METHOD
#undef TARN_METHOD_NO_REPLY
