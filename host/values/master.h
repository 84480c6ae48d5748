/*
 * What the master means by the members whose names say only "value" and "name", method by method. Shares are permille.
 * A method that fails has no reply; its call ends with an errno value: 61 ENODATA for what is not configured, 22 EINVAL
 * for a request that makes no sense.
 *
 * UpdateInnerConfig         The configuration file is read again. 22 EINVAL when it is refused: the log says why, and
 *                           what was configured before holds.
 *
 * GetPhyNameAndID           uiValue1 to uiValue3 frame, slot and port. Reply: uiValue1 type and uiValue2 number of what
 *                           is there, and its name. 2 ENOENT for nothing.
 *
 * GetTimezone, GetLocal     uiValue1 1: by the configured zone, 0: by the system's, when none is configured.
 *                           GetLocal's ucValue is 1 while daylight saving is in force.
 *
 * GetDst                    uiValue1 1: this rule is configured, 0: none is.
 *
 * GetCpuOvLoadCfgInfo       acName1 whose configuration, "system" or empty: the system's; acName2 a variant of it, or
 * GetMemoryOvLoadCfgInfo    empty. Without a configuration of that variant the one without variant is answered, with
 *                           its own names. 2 ENOENT when there is neither.
 *                             CPU      uiValue1 share at which an overload begins, uiValue2 share below which it ends,
 *                                      uiValue3 seconds that it must last, uiValue4 how often the file has been read
 *                             memory   uiValue1 and uiValue2 the same; uiValue3 0: as in the file, 1: changed since by
 *                                      MemChangeInnerConfig, then acName3 who changed it, uiValue4 how often it was
 *                                      changed, and uiValue5 when, in seconds since 1970
 *
 * MemChangeInnerConfig      A configuration that was answered before, with other shares in uiValue1 and uiValue2 and
 *                           acName3 who changes it. Kept beyond a restart, until the file says something new. 2 ENOENT
 *                           for names that are not configured.
 *
 * GetMKAutoUpdCfgInfo       uiValue1 1: on, 0: off; uiValue2 hours between updates; uiValue3 hour of the day.
 *
 * SysdiagGetMKCfgInfo       acCfgInfo the text; uiValue1 instances, uiValue2 restarts allowed in an hour, uiValue3
 *                           seconds to wait for a start.
 *
 * GetLMProcLPid             uiValue1 the process's parent, 0 for none; uiLPid the process that leads its session. 3
 *                           ESRCH for no such process.
 *
 * SysdiagGetDimCfgInfo,     As the daemon's TarnSetDimTimeCfgByTarnd and TarnSetDimWorkModeCfgByTarnd.
 * SysdiagGetDimWorkMode
 *
 * DetectSysdiagServerOnline   Counted, and told in the log.
 */
#ifndef TARN_HOST_VALUES_MASTER_H
#define TARN_HOST_VALUES_MASTER_H

#define TARN_MASTER_OF_SYSTEM 0
#define TARN_MASTER_CONFIGURED 1

#define TARN_MASTER_AS_IN_FILE 0
#define TARN_MASTER_CHANGED 1

#endif
