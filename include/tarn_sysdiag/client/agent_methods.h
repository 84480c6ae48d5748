/*
 * The methods of TarnSysdiagAgent, in export order: TARN_METHOD(Method, Request, Response), and
 * TARN_METHOD_NO_REPLY(Method, Request) for those that are not answered. Included once for each use of the list, with
 * both macros defined; it undefines them.
 */
#if !defined(TARN_METHOD) || !defined(TARN_METHOD_NO_REPLY)
#error "tarn_sysdiag/client/agent_methods.h: define TARN_METHOD and TARN_METHOD_NO_REPLY before including the list"
#endif

TARN_METHOD_NO_REPLY(DBGCmdExecShow, DbgCmdShowInput)
TARN_METHOD(DBGCmdExecResultGet, DbgCmdResultGetInput, DiagResult)
TARN_METHOD_NO_REPLY(DBGCmdExecClean, DbgCmdCleanInput)
TARN_METHOD(GetProcPartitionMemHandleRecod, ProcPtRecodInput, ProcPtRecodResult)
TARN_METHOD(SetMemDmgScan, MemDmgScanIn, MemDmgScanOut)
TARN_METHOD(GetMemDmgInfo, MemDmgInfoIn, MemDmgInfoOut)
TARN_METHOD(GetMirelMemHandleInfo, None, GetMirelMemHandleInfoOutput)
TARN_METHOD(GetTopNHandleInfo, None, GetTopNHandleInfoOutput)
TARN_METHOD(GetMirelMemPtInfo, GetMirelMemPtInfoInput, GetMirelMemPtInfoOutput)
TARN_METHOD(MemDiag_ma, mem_RPCIN, mem_PRCOUT)
TARN_METHOD(MemHandleCallStack, MemHandInfo, MemHandInfoOut)
TARN_METHOD(GetCallStackFunction, CallStackInput, CallStackOutput)
TARN_METHOD(GetDeadLoopCfg, GetDeadLoopCfgInput, GetDeadLoopCfgResult)
TARN_METHOD(SetNoxTimerDebugSwitch, SetNoxTimerDebugSwitchInput, Result)
TARN_METHOD_NO_REPLY(TarnDetectMemHostage, None)
TARN_METHOD(TarnPadsGetProcSystemHealthInfo, None, PadsSystemHealthResult)
TARN_METHOD_NO_REPLY(TarnPadsSetProcPadsGlobalSwitch, PadsGlobalSwitch)
TARN_METHOD_NO_REPLY(TarnPadsSetProcPadsAppFunSwitch, PadsAppFunSwitch)
TARN_METHOD(UpdateMsgCtrlRule, UpdateMsgCtrlRuleInput, Result)
TARN_METHOD(ClearMsgCtrlRule, None, Result)
TARN_METHOD(GetMsgCtrlRule, GetMsgRuleInfoInput, GetMsgRuleInfoResult)
TARN_METHOD(TarnUpdateResourceInfo, UpdateResourceInfoInput, Result)
TARN_METHOD(TarnGetSubscribe, GetSubscribeInfoInput, GetSubscribeInfoResult)
TARN_METHOD(TarnAgentGetTimerInfo, GetTimerInput, GetTimerInfoResult)
TARN_METHOD(TarnGetAppMemUnitInfo, GetAppMemInfoInput, GetAppMemUnitInfoOutput)
TARN_METHOD(TarnGetAppMemDetailOrModuleInfo, GetAppMemInfoInput, GetAppMemDetailOrModuleInfoOutput)

#undef TARN_METHOD
#undef TARN_METHOD_NO_REPLY
