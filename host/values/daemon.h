/*
 * What the daemon means by the members whose names say only "value", method by method, and which values it takes.
 * Clients may rely on it. All times are milliseconds and all shares are permille unless stated otherwise.
 *
 * Errors: a method whose reply has a uiResult answers with it: 0, or an errno value. Every other method that fails has
 * no reply, and its call ends with the errno value as its status. Often met:
 *
 *   2 ENOENT     no such file
 *   3 ESRCH      no such process or thread, or no agent in that process
 *   14 EFAULT    no memory at that address
 *   13 EACCES    may not be seen, or lies outside the log directory
 *   22 EINVAL    a member of the request has a value that is not allowed
 *
 * PidIsOnline                 ucIsOnline 1 while the process runs, though it may not be looked into; 0 when there is
 *                             none, or only its exit status is left (a zombie), or the id is a thread's.
 *
 * GetProcStatByPid            ucStatus is the letter of the kernel, as ASCII: 'R' 82 running, 'S' 83 sleeping, 'D' 68
 *                             waiting for a device, 'T' 84 stopped, 't' 116 traced, 'Z' 90 zombie, 'I' 73 idle.
 *
 * CPU use                     Rates come from samples that the daemon takes each second (--sample-interval), and keeps
 *                             whole for 120 of them. A share is measured over the interval asked for or a little
 *                             longer, at most as far back as samples reach. 11 EAGAIN in the tenth of a second after
 *                             the daemon's start. The highest shares are those between two samples since the start,
 *                             or since ResetMaxCpuUseInfo.
 *
 * CalculateOsProcCpuUse       The use of CPU time by a process and its threads up to now.
 * CalculateProcThreadCpuUse     request uiValue1   the last so many ms, at most 120000; 0: 1000
 *                               request uiValue2   threads to return, the busiest first; 0: all
 *                               reply uiValue1     share of the process
 *                               acName             name of the thread
 *                               uiValue1           its id
 *                               uiValue2           its share
 *                               ullValue3          CPU time since it started, in microseconds
 *                               acValue4           its state, "S (sleeping)"
 *                               uiValue5           number of the CPU that it ran on last
 *                               acValue6           how it is scheduled, "SCHED_OTHER nice 0", "SCHED_FIFO 50"
 *                             CalculateOsProcCpuUse states shares of the whole machine: 1000 is all its CPUs.
 *                             CalculateProcThreadCpuUse states shares of one CPU: a process of several threads may
 *                             have more than 1000.
 *
 * CalculateAllThreadCpuUse    The threads of all processes that may be seen, up to the latest sample.
 *                               request uiValue1   the last so many ms, at most 120000; 0: 1000
 *                               request uiValue2   threads to return, the busiest first; 0: all
 *                               usValue1           share of one CPU
 *                               ucValue2           state, as GetProcStatByPid has it
 *                               ucValue3           number of the CPU that it ran on last; 255: that or a higher one
 *                               ullValue4          CPU time since it started, in microseconds
 *                               ullValue5          time that it was ready but waited for a CPU, in microseconds
 *                               uiValue6           its process
 *                               acValue7           the process's name
 *                               acValue8           how it is scheduled
 *                               uiValue9           how often it was given a CPU
 *
 * SysCpuStatInfoQuery         All processes that may be seen.
 *                               uiValue1, 2        share of one CPU between the last two samples; the highest
 *                               stTime1            when the highest was reached
 *                               uiValue3, 4        CPU time since it started, in user and in system mode
 *                               acValue5           state, "S (sleeping)"
 *                               uiValue6 to 9      parent; number of threads; nice value, a negative one as its
 *                                                  32-bit two's complement; CPU that it ran on last
 *                               stTime2            when it started
 *                               acValue10          effective user, as a number when it has no name
 *                               acValue11          the program's path, its end when it is long; empty when it may not
 *                                                  be seen and for a kernel thread
 *                               uiValue12          share of one CPU since it started
 *                               uiValue13          pages that it had to wait for (major faults)
 *                               uiValue14          resident memory in KiB
 *
 * MultiCpuUsageQuery          acName "cpu" for all CPUs together, then "cpu0", "cpu1", ...; between the last two
 *                             samples uiValue1 share that was busy, uiValue2 in user mode, uiValue3 in system mode and
 *                             interrupts, uiValue4 idle but waiting for a device; uiValue5 the highest busy share and
 *                             stTime when it was reached.
 *
 * GetSysCpuMonitorHistoryInfo A record for each sample of the last hour, oldest first: ucValue1 percent of all CPUs
 *                             that was busy, ucValue2 that waited for a device.
 *
 * GetKpiCpuInfo               acName "cpu"; share of all CPUs that was busy: uiValue1 between the last two samples,
 *                             uiValue2 over the last minute, uiValue3 the highest; uiValue4 the load average over a
 *                             minute, in thousandths.
 *
 * CPU overloads               Detected when thresholds are set, which outlive a restart; none are set at first. The
 *                             last overload is kept with the process that used most, or that was watched, and the
 *                             stacks of its ten busiest threads.
 *
 * SysOvLoadCpuThresholdSet    uiValue1 busy share of all CPUs with which an overload begins, 0: detect none; uiValue2
 *                             share below which it ends, 0: uiValue1; uiValue3 seconds that it must last to count, at
 *                             most 3600.
 *
 * SetCpuOvProcThreshold       uiValue1 process; ucValue2 1 watches it until it ends, 0 no longer; uiValue3 share of
 *                             one CPU, 1 to 1000 for each CPU; uiValue4 seconds that it must last, at most 3600.
 *
 * GetSysCpuOverloadCfg        uiValue1 to 3 as SysOvLoadCpuThresholdSet set them; uiValue4 number of processes that
 *                             are watched; uiValue5 time between two samples; uiValue6 overloads recorded since the
 *                             daemon's start.
 *
 * OvloadCpuSwitchState        uiSwitch 1 when a threshold for the system is set.
 *
 * DisCpuOvloadInfo            The last overload; 61 ENODATA when there was none. stTime1 when it began, stTime2 when
 *                             it ended, all 0 while it lasts; acName and uiValue1 the process; in the time until it
 *                             counted as an overload, uiValue2 busy share of all CPUs and uiValue3 the process's share
 *                             of one CPU.
 *
 * DisCpuOvloadCallstackInfo   Its threads: uiCpuUse over the same time; pcCallStack "function+0x1c" in each line, as
 *                             GetCallStackInfoByTid has it.
 *
 * GetCpuOvMonProcInfo         The threads of a process that is watched; 2 ENOENT for another. uiValue1 thread;
 *                             uiValue2 share of one CPU between the last two samples, uiValue3 the highest; uiValue4
 *                             CPU time since it started; ucValue5 state, as GetProcStatByPid has it; ucValue6 1 while
 *                             the process is over its threshold; uiValue7 overloads of the process.
 *
 * GetHugePagesInfo            uiValue1 huge pages of the default size, uiValue2 how many of them are free.
 *
 * GetSysMemStatisPro          acPosition1 the process wanted, or a pattern of the names wanted, "worker*"; empty: all
 *                             that may be seen. acPosition2 the user whose processes are wanted, a name or a number;
 *                             empty: all. The largest by uiVmRss comes first. A process that may be seen, but whose
 *                             program may not, has szExeName "?".
 *
 * DumpOsProcMemValue          szValue has a line for every 16 bytes: the address, the bytes in hexadecimal, and as
 *                             ASCII with a dot for what can't be printed. A run of pages that can't be read has a line
 *                             of its own, "7f0c52a01000-7f0c52a03000 can't be read"; when that is all, the status is
 *                             EFAULT. ullLength 1 to 65536; uiValue1 is how many bytes were read.
 *
 * MemLeakOrHisQry             acLeakInfo is text with a head line; ucValue2 1 when not all of it had room. By uiValue1:
 *                               0   leak suspects, the largest growth first: processes whose resident memory was at
 *                                   its lowest higher in each quarter of the time than in the one before. uiValue2
 *                                   process, 0: all; uiValue3 the last so many seconds, 0: since the process started,
 *                                   an hour at most; uiValue4 least growth in KiB, 0: 1024
 *                               1   history of the process uiValue2, or of the system when that is 0; uiValue3 as
 *                                   above; uiValue4 most lines, 0: 60, chosen evenly
 *                               2   memory overloads: when they began and ended, and which process had most
 *
 * GetOsProcessMemInfo         uiPid 0: all processes that may be seen.
 *
 * GetOsProcessMapsInfo        A kernel thread has no mappings. More than 65536 are EMSGSIZE, and so are, to a client
 *                             with the default limit on replies, more than about 22000.
 *
 * GetSysMemStatisFile         The files that processes map, among them named and unnamed shared memory: programs and
 *                             libraries, data. The largest come first, 8000 at most.
 *                               uiValue1   what the processes that may be seen have of it in memory; what several
 *                                          share counts once
 *                               uiValue2   how many processes map it
 *                               acValue3   the one that has most of it, "name (4711)"
 *                               acValue4   its device and inode, "b3:02 1571"
 *
 * GetSysOsMemFileList         The files on file systems in memory (tmpfs, ramfs, hugetlbfs). The largest come first,
 *                             8000 at most. request uiValue1: smaller ones are left out; reply uiValue1: what these
 *                             file systems take in all, also for files that were removed while they are open.
 *                               acValue1   when it was changed last, "2024-02-29 23:59:58", local time
 *                               acValue2   user and group
 *                               acValue3   "-rw-r--r--"
 *                               acFileName its path, or the end of it
 *                               uiValue4   what it takes; the holes of a sparse file take nothing
 *
 * GetSysMemStatisShare        System V segments and the files of /dev/shm. The largest in memory come first, 20000 at
 *                             most.
 *                               uiValue1   identifier of the segment, or inode of the file
 *                               uiValue2   size
 *                               uiValue3   what is in memory
 *                               uiValue4   how often it is attached, or how many processes map it of those that may
 *                                          be seen
 *                               acName     "key 0x0000162e" or "/name"
 *                               acValue5   kind, permissions, owner: "sysv 0640 root", "posix 0600 root"; " removed"
 *                                          behind a segment that goes with its last user
 *
 * GetExceptionInfo            What agents recorded of fatal signals and of failed assertions, the newest first: text
 * GetAssertInfo               with time, process, signal or expression, registers and stack. The records outlive the
 *                             agent and the daemon. Request of both: uiValue1 process, 0: all; uiValue2 records to
 *                             skip; uiValue3 most to return, 0: all. GetExceptionInfo: uiValue4 signal, 0: all. Reply
 *                             uiValue1: records that match. Lines at the end name files that may not be read, and how
 *                             many records were found damaged.
 *
 * ResetBBoxInfo               Erases such records: uiValue1 0 all, and what is left of damaged ones; 1 exceptions; 2
 *                             assertions. uiValue2 process, 0: all.
 *
 * GetSysMemOverloadStat       uiValue1 1 while memory is overloaded. The last 256 events, oldest first: ucValue1 1 an
 *                             overload began, 0 it ended.
 *
 * GetSysMemOverloadSw         uiSwitch 1 while overloads are watched for; ucValue2 1 while the debug switch is on.
 *
 * GetSysMemOverloadCfg          uiValue1   share of memory in use, that which is not available, at which an overload
 *                                          begins; 900 until it is set
 *                               uiValue2   share below which it ends; 850 until it is set
 *                               uiValue3   share in use now
 *                               uiValue4   time between measurements
 *                               uiValue5   overloads since the start of the daemon, or since they were cleared
 *
 * SysOvLoadMemThresholdSet    uiValue1 share at which an overload begins, 0: don't watch; uiValue2 share below which it
 *                             ends, at most uiValue1, 0: the same. Kept beyond a restart.
 *
 * ClearEnvAct                 acValue1 what is to start anew: "overload", the record of memory overloads; "leak", the
 *                             growth that makes a process a suspect, of those whose names match the pattern acValue2,
 *                             empty: of all.
 *
 * SetOvLoadDebugSwitch        uiValue1 overload monitors, 1 CPU, 2 memory, 3 both; uiValue2 1 on, 0 off. While on, what
 *                             a monitor sees of each sample goes to the log. Off after a restart.
 *
 * GetKpiMemoryInfo            acName "memory"; uiValue1 share in use now, uiValue2 its mean over the last minute,
 *                             uiValue3 its highest in the last hour; uiValue4 KiB that are available.
 *
 * GetTaskInfo                 uiTaskParam1 process, 0: all that may be seen; uiTaskParam2 thread, 0: all;
 *                             pcTaskName pattern of the names wanted, "worker*", null or empty: all;
 *                             uiTaskParam3 matches to skip; uiTaskParam4 most matches to return, 0: all.
 *                             uiTaskValue is the number of matches, returned or not; pcTaskInfo has a line for each
 *                             that is returned and pcTaskRecord what the scheduler counted of it and how often it
 *                             starved, both with a head line.
 *
 * SetTaskSwitch               uiTaskSwitch 1 watches for threads that starve, 0 does not, and forgets the records; off
 *                             at first. While it is on, the counts of every thread are read with each sample. A thread
 *                             starves that was ready, but waited for a CPU for at least the threshold at a stretch. Of
 *                             several waits between two samples the longest is not known: the least that it can have
 *                             been is taken.
 * SetTaskStarvThreshold       uiStarvThreshold 1 to 3600000; 1000 at first. It outlives a restart, as the switch does.
 * ResetTaskRecord             uiTaskId the thread whose record is forgotten, 0: all; 2 ENOENT when it has none.
 *
 * GetCallStackInfoByTid       uiTid 0: all threads of the process. 1 EPERM when it may not be looked into, or is traced
 *                             by another process; 95 EOPNOTSUPP for a thread of the kernel; 110 ETIMEDOUT for a thread
 *                             asked for that waits for a device and does not stop. A thread is held up for as long as
 *                             its registers and 256 KiB of its stack take to copy, no longer.
 *                               reply uiValue1     how long the threads were held up in all, in microseconds
 *                               ullValue1          CPU time of the thread since it started, in microseconds
 *                               szName2            name of the process
 *                               uiValue2           number of frames, innermost first, at most 32; 0, of all threads,
 *                                                  for one that waits for a device and does not stop
 *                               uiValue3           how long it was held up, in microseconds
 *                               astFuncName        "Worker::Run(int)+0x1c"; "libfoo.so.1+0x4c10" where there is no
 *                                                  function's name, "0x7f0012345678" where nothing is mapped
 *
 * ZipLogFile                  Packs a file or a directory into a ZIP archive. szLogPath what to pack and szZipPath the
 *                             directory for the archive, both relative to the log directory or absolute within it,
 *                             empty: the log directory; szZipName the archive's file name, which replaces an older
 *                             one; uiZipOption 0 compressed, 1 stored. Links are not followed, nor packed; files that
 *                             may not be read are left out, which the log tells. A file that grows meanwhile is packed
 *                             as far as it went at first, the end of one that shrinks as zeros. The archive is there
 *                             only when it is complete. 36 ENAMETOOLONG for more than 32 directories within each
 *                             other; 108 ESHUTDOWN, 110 ETIMEDOUT, 125 ECANCELED: given up since the daemon stops, or
 *                             the caller's time is over, or the caller is gone.
 *
 * CopyZipLogFile              Copies an archive, with the same promises. szSrcPath the archive, as above; szCopyTarget
 *                             the name of a directory that tarnd --copy-target NAME=DIR names; szDstPath where in it,
 *                             empty: under the same name, ending with "/": so in that directory, which must exist.
 *                             szCopyParam1 empty: an older file stays, 17 EEXIST; "replace": it is replaced.
 *                             szCopyParam2 empty, or "move": the archive is removed when the copy is complete.
 *
 * SetTimezone                 szTimezoneName letters, digits and "_+-/:,.<>" ("Europe/Berlin", "CET-1CEST");
 *                             uiTimezoneOffset minutes east of Greenwich, -720 to 840, a negative one as its 32-bit
 *                             two's complement.
 *
 * SetDst                      ucDstFlag 0: no daylight saving, and nothing else is looked at; 1: by this rule.
 *                             szDstName its name ("CEST"); uiDstOffset how far clocks go forward, 1 to 180 minutes;
 *                             stDstAdjust the same as a time of day, or 0:00:00. ucDstMode 0: stDstStart and stDstEnd
 *                             say when, ucDstMode 1: stDstWeek, with weeks 1 to 4 of the month, 5 for the last, and
 *                             weekdays 0 Sunday to 6. Both moments as the clock shows them before it changes; both
 *                             years 0: each year. Of stDstStart and stDstEnd ucWeek and uiMillisecond are not used.
 *
 * SetGmt, SetLocalTime        stTime from the year 1970 to 2199; ucWeek the date's weekday from Sunday, 0, or 0 for
 *                             unknown; a local time by the settings above, and of one that occurs twice the first.
 *
 * SetDateFormat               uiDateFormat 0 2026-11-21, 1 21-11-2026, 2 11-21-2026: how the daemon writes dates.
 *
 *                             These settings are the daemon's: the local times in its replies and texts follow them,
 *                             from its own clock if that was set. They are kept beyond a restart. With --apply-clock
 *                             the system's clock is set as well, and for SetTimezone the system's zone, of which the
 *                             system must have a file (2 ENOENT); 1 EPERM where the daemon may not. Until a zone is
 *                             set, the system's zone and daylight saving hold, and a rule set before is kept for it.
 *
 * ...ByTarnd, ...Tarnd        with a uiTargetPid: done by the agent in that process; see host/values/agent.h.
 *
 * AppMemInfo                  The memory of the application in process uiValue1, as its agent tells it: uiValue2 0 by
 *                             unit, 1 every block that it holds, 2 by the program or library that allocated.
 *
 * TarnGetDlpCfgFromAgent      The agent's GetDeadLoopCfg; uiValue3 is the process whose agent is asked.
 *
 * TarnSetDimOpration          Measurement compares the SHA-256 digests of the executables and libraries that all
 *                             processes run with a baseline. A process that may not be looked into is hidden, a file
 *                             whose content can't be reached unread. Code in memory that has no file is not measured.
 *                               1 measure, 2 record a baseline: answered when it is done, and given up when the caller
 *                                 gives up; uiResult 110 or 125 then
 *                               3 forget baseline and result
 *                               4 give up what runs and waits
 *                               5 measure, answered at once
 *
 * TarnSetDimTimeCfgByTarnd    ucValue1 and ucValue2: hour (0 to 23) and minute of a measurement each day, by the
 *                             daemon's clock and zone; or 254 and every so many seconds, 255 and every so many minutes;
 *                             0 of these: never, as at the start.
 *
 * TarnSetDimWorkModeCfgByTarnd   uiWorkMode 0 no measurements by time; 1, at the start, also by time; 2 the same, and
 *                             files that are new are taken into the baseline.
 *
 * TarnGetDimMeasRstByTarnd    uiValue1 TARND_DIM_STATE_..., uiValue2 the files that differ, acMeasResult the counts,
 *                             with the name of one that differs; the log names all.
 *
 * TarnPadsGetSystemHealthInfoByTarnd   ucValue a function of the daemon, 0: all; uiValue a process whose agent is
 *                             asked, 0: the system. uiValue1 the worst level, uiValue2 the global switch. Of an item:
 *                             ucValue1 its level, TARN_AGENT_HEALTH_... or 3 when it can't be told; acValue1 its name,
 *                             acValue2 "system" or the agent's name, acValue3 when it was looked at, local time,
 *                             YYYYMMDDhhmmss, acValue4 what was found, or why nothing.
 *
 * TarnPadsSetPadsGlobalSwitchByTarnd   ucGlobalSwitch 0: nothing is looked at; 1, at the start: all that is on. Kept
 *                             beyond a restart, and brought to the agents.
 *
 * TarnPadsSetPadsAppFunSwitchByTarnd   The same of one function: ucFunction, ucSwitch, and uiValue its limit, 0: as it
 *                             was. 1 to 127 are the agents' (host/values/agent.h), 0 stands for all, and the daemon's
 *                             are below, with the limits at the start. From the limit on it is degraded; bad from twice
 *                             of it or, for a share, from the middle between it and the whole.
 *                               128 CPU time of all CPUs in the last 10 s (900)
 *                               129 CPU pressure (300): time in which some task waited, in the last 10 s
 *                               130 memory in use (900)
 *                               131 memory pressure (100)
 *                               132 I/O pressure (300)
 *                               133 disk (900): space or files, where the log, run and state directories are
 *                               134 descriptors of the system (800)
 *                               135 load of the last minute for each CPU, in thousandths (2000)
 *                               136 ms for an agent to answer (1000); one that does not is bad, and one that does has
 *                                   the worst level of its own items
 *                               137 use of one CPU from which on it is a CPU event (950)
 *                               138 ms for which it has to last (3000)
 *                             Subscribers (TarnAppSubscribe) that have an agent are notified through its
 *                             TarnUpdateResourceInfo of each change of the level of 128, 130 or 134: to degraded (1),
 *                             bad (2) or good (0).
 *
 * TarnPadsGetCpuEventByTarnd  uiValue1 process, 0: all; uiValue2 only of the last so many seconds, 0: all that are
 *                             kept; uiValue3 most to return, the newest, 0: all. An event that lasts is there as it is
 *                             so far. Its thread is the busiest that was on the CPU at the end; its time on other CPUs
 *                             counts.
 *
 * ProcTableBuild              Keeps a table of all processes that may be seen, which replaces an older one. ucBuildFlag
 *                             is a sum: 1 without the kernel's own threads, 2 as a tree, each process behind its parent
 *                             and before its parent's later children; without 2 in the order of the ids. A command line
 *                             beyond 4096 bytes is cut.
 *
 * GetProcTable                The table as it was built; 61 ENODATA before the first build.
 *
 * GetQ5ProcInfo               uiValue1 the parent of a process, 0 for one that has none here; uiValue2 the process that
 *                             leads its session.
 *
 * UpdateMsgCtrlRuleTarnd      A rule as in host/values/agent.h, UpdateMsgCtrlRule. It is kept beyond a restart and
 *                             brought to the agents that are there, and to those that register later. One for a process
 *                             ends with it. uiResult 22 for a rule that makes no sense, 28 for more than
 *                             TARND_RULES_MAX.
 *
 * ClearMsgCtrlRuleTarnd       Removes all rules, also from the agents.
 *
 * TarnGetMsgRuleInfoTarnd     uiValue1 rule, 0: all; uiValue2 rules to skip; uiValue3 process whose agent is asked, 0:
 *                             the rules that the daemon keeps, with the sums of what the agents counted that answer in
 *                             time.
 *
 * TarnGetSubscribeInfoTarnd   uiValue1 events as bits: subscriptions to at least one of them, 0: to any event; uiValue2
 *                             subscriptions to skip; uiValue3 process whose agent is asked, 0: those to the daemon.
 *                             Reply of the daemon: uiValue1 0, uiValue2 the union of the events that are subscribed to,
 *                             uiValue3 subscriptions that match, uiValue4 the daemon's process. Of a subscription:
 *                             szName1 the process's name, szName2 the events in words, uiValue1 the same as bits,
 *                             uiValue2 the process.
 *
 * TarnGetTimerInfoTarnd       uiValue1 timer, 0: all; uiValue2 timers to skip; uiValue3 most to return, 0: all;
 *                             uiValue4 process whose agent is asked, 0 or the daemon's: its own.
 *
 * AgentRegInfo                szAgentName the agent's name; request uiValue1 its process, uiValue2 its interface
 *                             version, ucValue3 1 while it runs, 0 when it leaves. Repeated from time to time; reply
 *                             uiValue1 is 0 or an errno value and uiValue2 the daemon's process, so that an agent sees
 *                             that it speaks to a new one.
 *
 * TarnAppSubscribe            uiValue1 the subscriber's process, uiValue2 the events that it wants, a sum of
 *                             TARN_AGENT_EVENT_..., host/values/agent.h; 0 ends the subscription, and so does the
 *                             process's end.
 *
 * DetectTarndServerOnline     A peer is there: the daemon announces itself to the master and takes over what the master
 *                             has configured, as at its own start (see host/values/master.h): time zone and daylight
 *                             saving, the overload thresholds of "system", times and mode of measurement. What the
 *                             master has not configured stays. Memory thresholds that a client sets are told to the
 *                             master, which keeps them.
 */
#ifndef TARN_HOST_VALUES_DAEMON_H
#define TARN_HOST_VALUES_DAEMON_H

#define TARND_MEASURE_DEFAULT_MS 1000
#define TARND_MEASURE_MAX_MS 120000

#define TARND_OVERLOAD_MAX_S 3600

#define TARND_STARVATION_MAX_MS 3600000

#define TARND_HIDDEN "?"
#define TARND_DUMP_MAX 65536
#define TARND_MAPPINGS_MAX 65536
#define TARND_FILES_MAX 8000
#define TARND_SHARED_MAX 20000

#define TARND_BLACK_BOX_ALL 0
#define TARND_BLACK_BOX_EXCEPTIONS 1
#define TARND_BLACK_BOX_ASSERTIONS 2

#define TARND_LEAK_SUSPECTS 0
#define TARND_LEAK_HISTORY 1
#define TARND_LEAK_OVERLOADS 2
#define TARND_LEAK_DEFAULT_KIB 1024
#define TARND_HISTORY_DEFAULT_LINES 60

#define TARND_MONITOR_CPU 1U
#define TARND_MONITOR_MEMORY 2U

#define TARND_ZIP_COMPRESSED 0
#define TARND_ZIP_STORED 1

#define TARND_COPY_REPLACE "replace"
#define TARND_COPY_MOVE "move"

#define TARND_DIM_MEASURE 1
#define TARND_DIM_RECORD 2
#define TARND_DIM_FORGET 3
#define TARND_DIM_CANCEL 4
#define TARND_DIM_START 5

#define TARND_DIM_EVERY_SECONDS 254
#define TARND_DIM_EVERY_MINUTES 255

#define TARND_DIM_MODE_OFF 0
#define TARND_DIM_MODE_REPORT 1
#define TARND_DIM_MODE_LEARN 2

#define TARND_DIM_STATE_NONE 0 /* nothing was measured yet */
#define TARND_DIM_STATE_RUNS 1
#define TARND_DIM_STATE_AS_RECORDED 2
#define TARND_DIM_STATE_DIFFERS 3
#define TARND_DIM_STATE_NO_BASELINE 4
#define TARND_DIM_STATE_FAILED 5 /* or was given up */

#define TARND_HEALTH_UNKNOWN 3

#define TARND_HEALTH_FIRST 128
#define TARND_HEALTH_CPU 128
#define TARND_HEALTH_CPU_PRESSURE 129
#define TARND_HEALTH_MEMORY 130
#define TARND_HEALTH_MEMORY_PRESSURE 131
#define TARND_HEALTH_IO_PRESSURE 132
#define TARND_HEALTH_DISK 133
#define TARND_HEALTH_DESCRIPTORS 134
#define TARND_HEALTH_LOAD 135
#define TARND_HEALTH_AGENTS 136
#define TARND_HEALTH_ONE_CPU 137
#define TARND_HEALTH_CPU_TIME 138
#define TARND_HEALTH_LAST 138

#define TARND_TABLE_WITHOUT_KERNEL 1
#define TARND_TABLE_AS_TREE 2

#define TARND_RULES_MAX 64

#define TARND_AGENT_RUNS 1
#define TARND_AGENT_LEAVES 0

#endif
