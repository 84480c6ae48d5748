/*
 * What the daemon means by the members whose names say only "value", method by method, and which values it takes.
 * Clients may rely on it. All times are milliseconds and all shares are permille unless stated otherwise.
 *
 * Errors: a method whose reply has a uiResult answers with it: 0, or an errno value. Every other method that fails has
 * no reply, and its call ends with the errno value as its status. Often met:
 *
 *   2 ENOENT     no such file
 *   3 ESRCH      no such process or thread, or no agent in that process
 *   13 EACCES    may not be seen, or lies outside the log directory
 *   22 EINVAL    a member of the request has a value that is not allowed
 *   38 ENOSYS    the daemon does not implement the method
 *
 * PidIsOnline                 ucIsOnline 1 while the process runs, though it may not be looked into; 0 when there is
 *                             none, or only its exit status is left (a zombie), or the id is a thread's.
 *
 * GetProcStatByPid            ucStatus is the letter of the kernel, as ASCII: 'R' 82 running, 'S' 83 sleeping, 'D' 68
 *                             waiting for a device, 'T' 84 stopped, 't' 116 traced, 'Z' 90 zombie, 'I' 73 idle.
 *
 * CalculateOsProcCpuUse       The use of CPU time by a process and its threads, measured while the call waits.
 * CalculateProcThreadCpuUse     request uiValue1   time to measure, at most 2000; 0: 200
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
 * GetHugePagesInfo            uiValue1 huge pages of the default size, uiValue2 how many of them are free.
 *
 * GetTaskInfo                 uiTaskParam1 process, 0: all that may be seen; uiTaskParam2 thread, 0: all;
 *                             pcTaskName pattern of the names wanted, "worker*", null or empty: all;
 *                             uiTaskParam3 matches to skip; uiTaskParam4 most matches to return, 0: all.
 *                             uiTaskValue is the number of matches, returned or not; pcTaskInfo has a line for each
 *                             that is returned and pcTaskRecord what the scheduler counted of it, both with a head
 *                             line.
 *
 * ZipLogFile                  Packs a file or a directory into a ZIP archive. szLogPath what to pack and szZipPath the
 *                             directory for the archive, both relative to the log directory or absolute within it,
 *                             empty: the log directory; szZipName the archive's file name, which replaces an older
 *                             one; uiZipOption 0 compressed, 1 stored. Links are not followed, nor packed.
 *
 * SetTimezone                 szTimezoneName letters, digits and "_+-/:,.<>" ("Europe/Berlin", "CET-1CEST");
 *                             uiTimezoneOffset minutes east of UTC, -720 to 840, a negative one as its 32-bit two's
 *                             complement. Kept by the daemon; the system's own zone is not touched.
 *
 * DBGCmd...ByTarnd            Done by the agent in process uiTargetPid; see host/agent/tarn_agent.h for the result.
 *
 * AgentRegInfo                szAgentName the agent's name; request uiValue1 its process, uiValue2 its interface
 *                             version, ucValue3 1 while it runs, 0 when it leaves. Repeated from time to time; reply
 *                             uiValue1 is 0 or an errno value and uiValue2 the daemon's process, so that an agent sees
 *                             that it speaks to a new one.
 *
 * TarnAppSubscribe            uiValue1 the subscriber's process, uiValue2 the events that it wants, one bit each; 0
 *                             ends the subscription.
 */
#ifndef TARN_HOST_DAEMON_VALUES_H
#define TARN_HOST_DAEMON_VALUES_H

#define TARND_MEASURE_DEFAULT_MS 200
#define TARND_MEASURE_MAX_MS 2000

#define TARND_ZIP_COMPRESSED 0
#define TARND_ZIP_STORED 1

#define TARND_ZONE_OFFSET_MIN (-720)
#define TARND_ZONE_OFFSET_MAX 840

#define TARND_AGENT_RUNS 1
#define TARND_AGENT_LEAVES 0

#endif
