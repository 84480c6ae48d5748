// What the daemon's service means.
#pragma once

#include "host/meaning/agent.h"
#include "host/meaning/master.h"
#include "host/meaning/shared_records.h"
#include "tarn_sysdiag/types/tarnd.h"

namespace host::meaning {

// ---- Processes and CPU ----

METHOD(PidIsOnline, Group::kReading, "Tells whether a process runs.", "process=1")
RECORD(PidIsOnlineInput, {"uiPid", "process", Pid(), "The process."})
RECORD(PidIsOnlineOuput, {"uiPid", "process", Pid(), "The process."},
       {"ucIsOnline", "online", Switch(),
        "On while the process runs, though it may not be looked into; off when there is none, or only its exit status "
        "is left (a zombie), or the id is a thread's."})

METHOD(GetProcStatByPid, Group::kReading, "Tells the state of a process.", "process=1")
RECORD(ProcessStatusInput, {"uiPid", "process", Pid(), "The process."})
RECORD(ProcessStatusOutput,
       {"ucStatus", "state", Letter(),
        "The kernel's letter for its state: R running, S sleeping, D waiting for a device, T stopped, t traced, Z "
        "zombie, I idle."})

METHOD(CalculateOsProcCpuUse, Group::kReading,
       "Measures what a process and its threads use of all CPUs, from some time ago until now. What was used before "
       "comes from samples of processes, which the daemon takes each second, or as --sample-interval says, while "
       "somebody asks for them or they are needed, and else with each 60th sample of the system; 120 are kept. "
       "The reply explains over which time it was measured, where that is not what was asked for.",
       "process=1 interval=2s most=5")
RECORD(OsProcessCpuInput, {"uiPid", "process", Pid(), "The process."},
       {"uiValue1", "interval", Milliseconds().UpTo(measured_interval::kMostMs).Default(measured_interval::kDefaultMs),
        "The last so much time, or a little more; at most as far back as samples reach."},
       {"uiValue2", "most", Count().Zero("all"), "How many threads to return, the busiest first."})
RECORD(OsProcessCpuRet, {"pstThread", "threads", Records(), "Its threads, the busiest first."},
       {"uiValue1", "cpu", Permille(), "The process's share of all CPUs."})
RECORD(OsProcessCpuThread, {"acName", "name", Text(), "The thread's name."},
       {"uiValue1", "thread", Tid(), "The thread."}, {"uiValue2", "cpu", Permille(), "Its share of all CPUs."},
       {"ullValue3", "cpu-time", Microseconds(), "The CPU time that it took since it started."},
       {"acValue4", "state", Text(), "Its state, as \"S (sleeping)\"."},
       {"uiValue5", "on-cpu", Number(), "The CPU that it ran on last."},
       {"acValue6", "scheduled", Text(), "How it is scheduled: \"SCHED_OTHER nice 0\", \"SCHED_FIFO 50\"."})

METHOD(CalculateAllThreadCpuUse, Group::kReading,
       "Measures what the threads of all processes that may be seen use of one CPU, from some time ago until the "
       "latest sample. What no thread has used that runs still is there as well, in elements without a thread, so "
       "that the shares of all add up to what the system used: what threads had of a process that have ended, in one "
       "for the process; what processes had that have ended, named \"(ended)\"; \"(interrupts)\"; time \"(stolen)\" by "
       "a hypervisor; and \"(other)\" that the system counted. It fails with 11 EAGAIN in the first tenth of a second "
       "of the daemon, which has one sample then.",
       "interval=5s most=10")
RECORD(ThreadCpuInput,
       {"uiValue1", "interval", Milliseconds().UpTo(measured_interval::kMostMs).Default(measured_interval::kDefaultMs),
        "The last so much time before the latest sample, or a little more; at most as far back as samples reach."},
       {"uiValue2", "most", Count().Zero("all"), "How many threads to return, the busiest first."})
RECORD(ThreadCpuRet, {"pstThread", "threads", Records(), "The threads, the busiest first."})
RECORD(ThreadCpu, {"uiTid", "thread", Tid().Zero("threads of the process that are not told one by one"), "The thread."},
       {"usValue1", "cpu", Permille(), "Its share of one CPU."},
       {"ucValue2", "state", Letter(), "The kernel's letter for its state; X where it has ended since the sample."},
       {"ucValue3", "on-cpu", Number(),
        "The CPU that it ran on last; 255 stands for that or a higher one, and for an unknown one."},
       {"ullValue4", "cpu-time", Microseconds(), "The CPU time that it took since it started."},
       {"ullValue5", "waited", Microseconds(), "How long it was ready since it started, but waited for a CPU."},
       {"acName", "name", Text(), "The thread's name, or that of time which is no running process's."},
       {"uiValue6", "process", Pid().Zero("none"), "Its process."},
       {"acValue7", "process-name", Text(), "The name of its process."},
       {"acValue8", "scheduled", Text().Zero("it has ended"),
        "How it is scheduled: \"SCHED_OTHER nice 0\", \"SCHED_FIFO 50\"."},
       {"uiValue9", "timeslices", Count(), "How often it was given a CPU."})

METHOD(CalculateProcThreadCpuUse, Group::kReading,
       "Measures what a process and its threads use of one CPU, from some time ago until now. It reads the same "
       "samples as CalculateOsProcCpuUse.",
       "process=1 interval=2s most=5")
VARIANT(CalculateProcThreadCpuUse, OsProcessCpuRet,
        {"uiValue1", "cpu", Permille(),
         "The process's share of one CPU: with several threads it may be more than the whole."})
VARIANT(CalculateProcThreadCpuUse, OsProcessCpuThread, {"uiValue2", "cpu", Permille(), "Its share of one CPU."})

METHOD(GetHugePagesInfo, Group::kReading, "Counts the system's huge pages of the default size.", "")
RECORD(HugePagesOutput, {"uiValue1", "total", Count(), "How many huge pages there are."},
       {"uiValue2", "free", Count(), "How many of them are free."})

METHOD(
    SysCpuStatInfoQuery, Group::kReading,
    "Shows what all processes that may be seen use of the CPUs, with their states, users and programs. Behind them "
    "is what no running process used: elements with the process 0, so that the shares of all add up to what the "
    "system used. They are named \"(ended)\", for processes that have ended since; \"(interrupts)\"; \"(stolen)\", by "
    "a "
    "hypervisor; and \"(other)\", for what the system counted besides. It fails with 11 EAGAIN in the first tenth of "
    "a second of the daemon, which has one sample then.",
    "")
RECORD(SysCpuStatInfo, {"pstProc", "processes", Records(), "The processes."})
RECORD(SysCpuStatProc, {"uiPid", "process", Pid().Zero("no running process"), "The process."},
       {"acName", "name", Text(), "Its name."},
       {"uiValue1", "cpu", Permille(), "Its share of one CPU between the last two samples."},
       {"uiValue2", "highest", Permille(),
        "The highest such share between two samples since the daemon's start, or since ResetMaxCpuUseInfo."},
       {"uiValue3", "user-time", Milliseconds(), "The CPU time that it took in user mode since it started."},
       {"uiValue4", "system-time", Milliseconds(), "The CPU time that it took in system mode since it started."},
       {"stTime1", "highest-at", LocalTime().Zero("not sampled yet"), "When the highest share was reached."},
       {"acValue5", "state", Text(), "Its state, as \"S (sleeping)\"."},
       {"uiValue6", "parent", Pid().Zero("none"), "Its parent."},
       {"uiValue7", "threads", Count(), "How many threads it has."}, {"uiValue8", "nice", Signed(), "Its nice value."},
       {"uiValue9", "on-cpu", Number(), "The CPU that it ran on last."},
       {"stTime2", "started", LocalTime().Zero("no process"), "When it started."},
       {"acValue10", "user", Text().Zero("it has ended"), "The effective user, as a number when it has no name."},
       {"acValue11", "program", Text().Zero("may not be seen, or a kernel thread"),
        "The program's path; its end when it is long."},
       {"uiValue12", "cpu-since-start", Permille(), "Its share of one CPU since it started."},
       {"uiValue13", "major-faults", Count(), "The pages that it had to wait for since it started."},
       {"uiValue14", "resident", Kib(), "What it has in memory."})

METHOD(MultiCpuUsageQuery, Group::kReading,
       "Shows how busy each CPU was between the last two samples, and all of them together. It fails with 11 EAGAIN in "
       "the first tenth of a second of the daemon, which has one sample then.",
       "")
RECORD(MultiCpuUsageRet, {"pstCpu", "cpus", Records(), "All CPUs together, then one by one."})
RECORD(MultiCpuUsage, {"acName", "name", Text(), "\"cpu\" for all CPUs together, \"cpu0\", \"cpu1\" for one."},
       {"uiValue1", "busy", Permille(), "The share of time in which it was busy."},
       {"uiValue2", "user", Permille(), "The share in user mode."},
       {"uiValue3", "system", Permille(), "The share in system mode and in interrupts."},
       {"uiValue4", "waiting", Permille(), "The share in which it was idle, but something waited for a device."},
       {"uiValue5", "highest", Permille(),
        "The highest busy share between two samples since the daemon's start, or since ResetMaxCpuUseInfo."},
       {"stTime", "highest-at", LocalTime().Zero("not sampled yet"), "When the highest share was reached."})

METHOD(ResetMaxCpuUseInfo, Group::kSettings,
       "Forgets the highest shares of CPU time, so that they are found anew. Those of the system, the CPUs, the "
       "processes and the threads of processes that are watched start with the next sample.",
       "")
RECORD(ResetMaxCpuResult, {"uiResult", "result", Errno(), "0, or why it was not done."})

METHOD(SysOvLoadCpuThresholdSet, Group::kSettings,
       "Sets from which share of busy time on the system is overloaded. Until it is set no overload is detected; it "
       "outlives a restart.",
       "begins-at=90% ends-below=80% must-last=10s")
RECORD(SysOvLoadCpuThreshold,
       {"uiValue1", "begins-at", Permille().UpTo(1000).Zero("detect none"),
        "The busy share of all CPUs with which an overload begins."},
       {"uiValue2", "ends-below", Permille().NotAbove("uiValue1").Zero("as begins-at"),
        "The share below which it ends."},
       {"uiValue3", "must-last", Seconds().UpTo(cpu_overload::kMostSeconds).Zero("counts at once"),
        "How long the share must last to count as an overload."})
RECORD(OperResult, {"uiResult", "result", Errno(), "0, or why it was not done."})

METHOD(OvloadCpuSwitchState, Group::kReading, "Tells whether CPU overloads of the system are detected.", "")
RECORD(OvloadCpuSwitchRet, {"uiSwitch", "on", Switch(), "On when a threshold for the system is set."})

METHOD(
    DisCpuOvloadInfo, Group::kReading,
    "Shows the last CPU overload of the system, also of before a restart; where it had none, the last one of a "
    "process that is watched. It is recorded with the process that used most, or that is watched. The call fails with "
    "61 ENODATA when there was none.",
    "")
RECORD(DisCpuOvloadRet, {"stTime1", "began", LocalTime(), "When it began."},
       {"acName", "name", Text(), "The name of the process that used most, or that is watched."},
       {"uiValue1", "process", Pid(), "That process."},
       {"uiValue2", "busy", Permille(),
        "The share of all CPUs that was busy, in the time until it counted as an overload."},
       {"uiValue3", "cpu", Permille(), "The process's share of one CPU in that time."},
       {"stTime2", "ended", LocalTime().Zero("it lasts"), "When it ended."})

METHOD(DisCpuOvloadCallstackInfo, Group::kMemory,
       "Shows the busiest threads of the last CPU overload and what they were doing. They are those of the process "
       "that DisCpuOvloadInfo tells. The call fails with 61 ENODATA when there was no overload.",
       "")
RECORD(TopCpuOvloadThreadCallstackRet, {"uiThreadNum", "found", Count(), "How many threads there are of the ten."},
       {"astThread", "threads", Records(), "The threads, the busiest first; those that there are not are empty."})
RECORD(TopCpuOvloadThread, {"uiPid", "process", Pid(), "Its process."}, {"uiTid", "thread", Tid(), "The thread."},
       {"szThreadName", "name", Text().Zero("it could not be read"), "The thread's name."},
       {"ullCpuTime", "cpu-time", Milliseconds(), "The CPU time that it took since it started."},
       {"uiCpuUse", "cpu", Permille(), "Its share of one CPU in the time until the use counted as an overload."},
       {"pcCallStack", "stack", Lines().Zero("it could not be read"),
        "Its stack, \"function+0x1c\" in each line, the innermost first; where no function's name is known the forms "
        "of GetCallStackInfoByTid."})

METHOD(GetSysCpuMonitorHistoryInfo, Group::kReading,
       "Shows how busy the CPUs were at each sample of the last hour, and before that in each minute of the last week. "
       "The last 3600 samples are kept, which is an hour at the default interval; the minutes also beyond a restart.",
       "")
RECORD(SysCpuMonitorHistoryInfoResult,
       {"pstRecord", "samples", Records(), "The minutes and the samples, the oldest first."})
RECORD(SysCpuMonitorHistoryInfo, {"stTime", "time", LocalTime(), "When the sample was taken, or the minute ended."},
       {"ucValue1", "busy", Percent(),
        "The share of all CPUs that was busy since the sample before, or over the minute."},
       {"ucValue2", "waiting", Percent(), "The share that was idle, but something waited for a device."})

METHOD(GetSysCpuOverloadCfg, Group::kReading, "Shows what is set for CPU overloads, and how many there were.", "")
RECORD(GetSysCpuOverloadCfgOutput,
       {"uiValue1", "begins-at", Permille().Zero("none is detected"),
        "The busy share of all CPUs with which an overload begins."},
       {"uiValue2", "ends-below", Permille(), "The share below which it ends."},
       {"uiValue3", "must-last", Seconds().Zero("counts at once"),
        "How long the share must last to count as an overload."},
       {"uiValue4", "watched", Count(), "How many processes are watched."},
       {"uiValue5", "sample-interval", Milliseconds(), "The time between two samples."},
       {"uiValue6", "overloads", Count(), "The overloads that were recorded since the daemon's start."})

METHOD(SetCpuOvProcThreshold, Group::kSettings,
       "Watches a process for CPU overloads of its own, or no longer. A process is watched until it ends, also beyond "
       "a restart of the daemon. It fails with 28 ENOSPC for more than 256 processes, and with 2 ENOENT when a process "
       "that is to be watched no longer is not watched.",
       "process=1 on=on begins-at=50% must-last=10s")
RECORD(SetCpuOvProcThresholdInput, {"uiValue1", "process", Pid(), "The process."},
       {"ucValue2", "on", Switch(), "Whether it is watched from now on."},
       {"uiValue3", "begins-at", Permille().From(1).Where("ucValue2", 1),
        "The share of one CPU with which an overload begins and below which it ends; at most all of each CPU that "
        "there is."},
       {"uiValue4", "must-last", Seconds().UpTo(cpu_overload::kMostSeconds).Zero("counts at once").Where("ucValue2", 1),
        "How long the share must last to count as an overload."})

METHOD(GetCpuOvMonProcInfo, Group::kReading,
       "Shows the threads of a process that is watched for CPU overloads. It fails with 2 ENOENT for another process.",
       "process=1")
RECORD(Process, {"uiPid", "process", Pid(), "The process."})
RECORD(GetCpuOvMonProcInfoOutput, {"uiPid", "process", Pid(), "The process."},
       {"pstThread", "threads", Records(), "Its threads, in the order of their ids; none before the next sample."})
RECORD(CpuOvMonThread, {"uiValue1", "thread", Tid(), "The thread."},
       {"uiValue2", "cpu", Permille(), "Its share of one CPU between the last two samples."},
       {"uiValue3", "highest", Permille(),
        "The highest such share since the process is watched, or since ResetMaxCpuUseInfo."},
       {"uiValue4", "cpu-time", Milliseconds(), "The CPU time that it took since it started."},
       {"ucValue5", "state", Letter(), "The kernel's letter for its state."},
       {"ucValue6", "overloaded", Switch(), "On while an overload of the process lasts."},
       {"uiValue7", "overloads", Count(), "The overloads of the process."})

METHOD(GetKpiCpuInfo, Group::kReading,
       "Shows how busy the CPUs are, in four figures. It fails with 11 EAGAIN in the first tenth of a second of the "
       "daemon, which has one sample then.",
       "")
RECORD(DisOsResourceInfoRet, {"acName", "name", Text(), "The resource, \"cpu\"."},
       {"uiValue1", "now", Permille(), "The share of all CPUs that was busy between the last two samples."},
       {"uiValue2", "last-minute", Permille(), "The share that was busy over the last minute."},
       {"uiValue3", "highest", Permille(),
        "The highest share between two samples since the daemon's start, or since ResetMaxCpuUseInfo."},
       {"uiValue4", "load", Thousandths(), "The load average over a minute."})

// ---- Fault records and memory statistics ----

METHOD(GetExceptionInfo, Group::kMemory,
       "Shows what agents recorded of fatal signals, the newest first. The records outlive the agent and the daemon.",
       "process=1 most=5")
RECORD(ExceptionInfoCondition, {"uiValue1", "process", Pid().Zero("all"), "The process that got the signal."},
       {"uiValue2", "skip", Count().Zero("none"), "How many records that match to leave out, the newest first."},
       {"uiValue3", "most", Count().Zero("all"), "How many records to return."},
       {"uiValue4", "signal", Number().Zero("all"), "The signal's number."})
RECORD(
    ExceptionInfoResult,
    {"pucInfo", "text", Lines().Zero("no record"),
     "The records with time, process, signal, registers and stack. Lines at the end name files that may not be read, "
     "and tell how many records were found damaged. Of more than 2 MiB of records the reply explains where to go on."},
    {"uiValue1", "matches", Count(), "How many records match, returned or not."})

METHOD(GetAssertInfo, Group::kMemory,
       "Shows what agents recorded of failed assertions, the newest first. The records outlive the agent and the "
       "daemon.",
       "process=1 most=5")
RECORD(AssertInfoCondition, {"uiValue1", "process", Pid().Zero("all"), "The process in which the assertion failed."},
       {"uiValue2", "skip", Count().Zero("none"), "How many records that match to leave out, the newest first."},
       {"uiValue3", "most", Count().Zero("all"), "How many records to return."})
RECORD(AssertInfoResult,
       {"pucInfo", "text", Lines().Zero("no record"),
        "The records with time, process, expression and stack. Lines at the end name files that may not be "
        "read, and tell how many records were found damaged. Of more than 2 MiB of records the reply explains where to "
        "go on."},
       {"uiValue1", "matches", Count(), "How many records match, returned or not."})

METHOD(ResetBBoxInfo, Group::kSettings, "Erases records of fatal signals and of failed assertions.",
       "records=exceptions process=1")
RECORD(ResetBBoxCondition, {"uiValue1", "records", OneOf(black_box::kAll), "Which records are erased."},
       {"uiValue2", "process", Pid().Zero("all"), "The process whose records are erased."})
RECORD(ResetBBoxResult, {"uiResult", "result", Errno(), "0, or why it was not done."})

// The members that both records of a process's memory have, by the lines of /proc/PID/status.
namespace process_memory {
constexpr Member kProgram{"szExeName", "program", Text().Zero("a kernel thread"),
                          "The file name of its program; \"?\" for one that may not be seen."};
constexpr Member kUser{"szUserName", "user", Text(), "The effective user, as a number when it has no name."};
constexpr Member kThreads{"uiThreadNum", "threads", Count(), "How many threads it has."};
constexpr Member kVirtualPeak{"uiVmPeak", "virtual-peak", Kib(), "The most address space that it had (VmPeak)."};
constexpr Member kVirtual{"uiVmSize", "virtual", Kib(), "The address space that it has (VmSize)."};
constexpr Member kLocked{"uiVmLck", "locked", Kib(), "What is locked in memory (VmLck)."};
constexpr Member kResidentPeak{"uiVmHwm", "resident-peak", Kib(), "The most that it had in memory (VmHWM)."};
constexpr Member kResident{"uiVmRss", "resident", Kib(), "What it has in memory (VmRSS)."};
constexpr Member kAnonymous{"uiRssAnon", "resident-anonymous", Kib(),
                            "What it has in memory that has no file (RssAnon)."};
constexpr Member kOfFiles{"uiRssFile", "resident-files", Kib(), "What it has in memory of files (RssFile)."};
constexpr Member kShared{"uiRssShmem", "resident-shared", Kib(), "What it has in memory of shared memory (RssShmem)."};
constexpr Member kData{"uiVmData", "data", Kib(), "Its data (VmData)."};
constexpr Member kStack{"uiVmStk", "stack", Kib(), "Its stack (VmStk)."};
constexpr Member kCode{"uiVmExe", "code", Kib(), "The code of its program (VmExe)."};
constexpr Member kLibraries{"uiVmLib", "libraries", Kib(), "The code of its libraries (VmLib)."};
constexpr Member kPageTables{"uiVmPte", "page-tables", Kib(), "Its page tables (VmPTE)."};
constexpr Member kSwapped{"uiVmSwap", "swapped", Kib(), "What is in swap space (VmSwap)."};
constexpr Member kHugePages{"uiHugetlb", "huge-pages", Kib(), "What it has in huge pages (HugetlbPages)."};
} // namespace process_memory

METHOD(GetSysMemStatisPro, Group::kReading,
       "Shows how much memory processes have and of what kind, the largest in memory first.", "process=tarn* user=root")
RECORD(PositionStr,
       {"acPosition1", "process", Pattern().Zero("all that may be seen"),
        "The process, or a pattern of the names wanted: \"worker*\"."},
       {"acPosition2", "user", Text().Zero("all"), "The effective user whose processes are wanted, by name or number."})
RECORD(SysMemStatisProResult, {"pstRecord", "processes", Records(), "The processes, the largest in memory first."},
       {"uiMemTotal", "total", Kib(), "The memory of the system."})
RECORD(SysMemStatisPro, {"uiPid", "process", Pid(), "The process."},
       {"uiPpid", "parent", Pid().Zero("none"), "Its parent."}, {"szProcName", "name", Text(), "Its name."},
       process_memory::kProgram, process_memory::kUser, {"stStartTime", "started", LocalTime(), "When it started."},
       process_memory::kThreads, process_memory::kVirtualPeak, process_memory::kVirtual, process_memory::kLocked,
       process_memory::kResidentPeak, process_memory::kResident, process_memory::kAnonymous, process_memory::kOfFiles,
       process_memory::kShared, process_memory::kData, process_memory::kStack, process_memory::kCode,
       process_memory::kLibraries, process_memory::kPageTables, process_memory::kSwapped, process_memory::kHugePages)

METHOD(DumpOsProcMemValue, Group::kMemory,
       "Shows the bytes in a range of a process's memory. It fails with 14 EFAULT when none of them can be read.",
       "process=1 address=0x7f0c52a01000 length=64B")
RECORD(DumpOsProcMemValueInput, {"uiPid", "process", Pid(), "The process."},
       {"ullAddress", "address", Address(), "Where the range starts; it may not pass the last address."},
       {"ullLength", "length", Bytes().From(1).UpTo(memory_dump::kMostBytes), "How long the range is."})
RECORD(DumpOsProcMemValueResult,
       {"szValue", "dump", Lines(),
        "A line for every 16 bytes: the address, the bytes in hexadecimal, and as ASCII with a dot for what can't be "
        "printed. A run of pages that can't be read has a line of its own, \"7f0c52a01000-7f0c52a03000 can't be "
        "read\"."},
       {"uiValue1", "read", Bytes(), "How much was read."})

METHOD(
    MemLeakOrHisQry, Group::kReading,
    "Shows which processes may leak memory, what memory was like before, or its overloads. A leak suspect is a "
    "process that was seen for 5 minutes at least, whose resident memory was at its lowest higher in each quarter of "
    "the time than in the one before, and for which a straight line through a point of each minute rises by more than "
    "two standard errors, which the report tells beside it.",
    "report=suspects interval=10m", Duration::kLong)
RECORD(MemLeakQryIn,
       {"uiValue1", "report", OneOf(memory_report::kAll).Default(memory_report::kSuspects), "Which report is wanted."},
       {"uiValue2", "process", Pid().Zero("all suspects, or the system's history"),
        "The process; not looked at for overloads."},
       {"uiValue3", "interval", Seconds().Zero("since the process started, an hour at most"),
        "The last so much time, 5 minutes at least for suspects; not looked at for overloads."},
       {"uiValue4", "limit", Number().Zero("1024 KiB for suspects, 60 lines for the history"),
        "For suspects the least growth in KiB; for the history how many lines to return at most, chosen evenly; not "
        "looked at for overloads."})
RECORD(MemLeakQryOut, {"acLeakInfo", "text", Lines(), "The report, with a head line."},
       {"ucValue2", "cut", Switch(), "On when not all of it had room."})

METHOD(GetOsProcessMemInfo, Group::kMemory, "Shows the memory of a process, or of all, in detail.", "process=1",
       Duration::kLong)
RECORD(SysOsMemInfoInput, {"uiPid", "process", Pid().Zero("all that may be seen"), "The process."})
RECORD(SysOsMemInfoResult, {"pstProc", "processes", Records(), "The processes."})
RECORD(SysOsMemInfo, {"uiPid", "process", Pid(), "The process."},
       {"uiPpid", "parent", Pid().Zero("none"), "Its parent."}, {"szProcName", "name", Text(), "Its name."},
       process_memory::kProgram, process_memory::kUser,
       {"szGroupName", "group", Text(), "The effective group, as a number when it has no name."},
       {"szState", "state", Text(), "Its state, as \"S (sleeping)\"."},
       {"szWaitChannel", "wait-channel", Text(),
        "The kernel's function that it waits in; \"0\" when it does not wait, or the kernel hides it."},
       process_memory::kThreads, process_memory::kVirtualPeak, process_memory::kVirtual, process_memory::kLocked,
       process_memory::kResidentPeak, process_memory::kResident, process_memory::kAnonymous, process_memory::kOfFiles,
       process_memory::kShared, process_memory::kData, process_memory::kStack, process_memory::kCode,
       process_memory::kLibraries, process_memory::kPageTables, process_memory::kSwapped, process_memory::kHugePages,
       {"uiPss", "proportional", Kib(),
        "What it has in memory, with its part of what it shares with others (Pss of /proc/PID/smaps_rollup)."},
       {"uiSharedClean", "shared-clean", Kib(), "What it shares and has not been changed (Shared_Clean)."},
       {"uiSharedDirty", "shared-dirty", Kib(), "What it shares and has been changed (Shared_Dirty)."},
       {"uiPrivateClean", "private-clean", Kib(), "What is its own and has not been changed (Private_Clean)."},
       {"uiPrivateDirty", "private-dirty", Kib(), "What is its own and has been changed (Private_Dirty)."},
       {"uiSwapPss", "swapped-proportional", Kib(),
        "What is in swap space, with its part of what it shares with others (SwapPss)."},
       {"ullMinorFaults", "minor-faults", Count(), "Its page faults since the start that needed no disk."},
       {"ullMajorFaults", "major-faults", Count(), "The pages that it had to wait for since it started."},
       {"uiOomScore", "oom-score", Number(), "How soon it is killed when memory runs out: the highest is first."})

METHOD(GetOsProcessMapsInfo, Group::kMemory,
       "Shows the mappings of a process and how much of each is in memory. A kernel thread has none. It fails with 90 "
       "EMSGSIZE for more than 65536, and for a client with the default limit on replies for more than about 22000. "
       "Texts that don't fit are cut at the end.",
       "process=1", Duration::kLong)
RECORD(SysProOsInput, {"uiPid", "process", Pid(), "The process."})
RECORD(SysProOsResult, {"pstMap", "mappings", Records(), "The mappings, in the order of their addresses."})
RECORD(SysProOs, {"uiPid", "process", Pid(), "The process."},
       {"szAddrRange", "range", Text(),
        "Its addresses in hexadecimal, \"b6f00000-b6f21000\"; two of 16 digits as the first and the size, "
        "\"ffffffffff600000+1000\"."},
       {"szPerms", "permissions", Text(), "What is allowed there, \"r-xp\"."},
       {"uiSize", "size", Kib(), "The size of the range."}, {"uiRss", "resident", Kib(), "What of it is in memory."},
       {"uiPss", "proportional", Kib(), "The same, with the process's part of what it shares with others."},
       {"uiPrivateDirty", "private-dirty", Kib(), "What of it is the process's own and has been changed."},
       {"uiSwap", "swapped", Kib(), "What of it is in swap space."},
       {"szDevInode", "device-inode", Text(),
        "Device and inode of the mapped file, \"b3:02 1571\"; \"00:00 0\" when there is none."},
       {"szMapName", "name", Text().Zero("anonymous memory"),
        "Its file's name without directories, or \"[heap]\", \"[stack]\"."})

METHOD(GetSysMemStatisFile, Group::kMemory,
       "Shows the files that processes map: programs, libraries, data, and shared memory with and without a name. "
       "There are 8000 at most.",
       "", Duration::kLong)
RECORD(SysMemStatisFileResult, {"pstFile", "files", Records(), "The files, the largest in memory first."})
RECORD(SysMemStatisFile, {"acFileName", "path", Text(), "Its path."},
       {"uiValue1", "resident", Kib(),
        "What the processes that may be seen have of it in memory; what several share counts once."},
       {"uiValue2", "mapped-by", Count(), "How many processes map it."},
       {"acValue3", "largest-user", Text(), "The process that has most of it, \"name (4711)\"."},
       {"acValue4", "device-inode", Text(), "Its device and inode, \"b3:02 1571\"."})

METHOD(GetSysOsMemFileList, Group::kMemory,
       "Lists the files on file systems in memory: tmpfs, ramfs, hugetlbfs. There are 8000 at most.", "least=1MiB",
       Duration::kLong)
RECORD(SysOsMemFileInput, {"uiValue1", "least", Kib().Zero("all"), "Files that take less are left out."})
RECORD(SysOsMemFileResult, {"pstFile", "files", Records(), "The files, the largest first."},
       {"uiValue1", "taken", Kib(),
        "What these file systems take in all, also for files that were removed while they are open."})
RECORD(SysOsMemFile, {"acValue1", "changed", LocalTime(), "When it was changed last, \"2024-02-29 23:59:58\"."},
       {"acValue2", "owner", Text(), "User and group, \"root:adm\"."},
       {"acValue3", "permissions", Text(), "Its mode, \"-rw-r--r--\"."},
       {"acFileName", "path", Text(), "Its path, or the end of it."},
       {"uiValue4", "taken", Kib(), "What it takes; the holes of a sparse file take nothing."})

METHOD(GetSysMemStatisShare, Group::kReading,
       "Lists shared memory: System V segments and the files of /dev/shm. There are 20000 at most.", "",
       Duration::kLong)
RECORD(SysMemStatisShareResult, {"pstShare", "pieces", Records(), "The pieces, the largest in memory first."})
RECORD(SysMemStatisShare, {"uiValue1", "id", Number(), "The identifier of the segment, or the inode of the file."},
       {"uiValue2", "size", Kib(), "Its size."}, {"uiValue3", "resident", Kib(), "What of it is in memory."},
       {"uiValue4", "users", Count(),
        "How often the segment is attached, or how many processes map the file of those that may be seen."},
       {"acName", "name", Text(), "\"key 0x0000162e\" of a segment, \"/name\" of a file."},
       {"acValue5", "kind", Text(),
        "Kind, permissions and owner: \"sysv 0640 root\", \"posix 0600 root\"; \" removed\" behind a segment that goes "
        "with its last user."})

METHOD(GetSysMemOverloadStat, Group::kReading, "Shows when memory was overloaded.", "")
RECORD(GetSysMemOverloadStatOutput, {"uiValue1", "overloaded", Switch(), "On while memory is overloaded."},
       {"pstRecord", "events", Records(), "The last 256 events, the oldest first."})
RECORD(SysMemOverloadStat, {"stTime", "time", LocalTime(), "When it happened."},
       {"ucValue1", "event", OneOf(overload_event::kAll), "Whether an overload began or ended."})

METHOD(GetSysMemOverloadSw, Group::kReading,
       "Tells whether memory overloads are watched for, and whether that is logged.", "")
RECORD(GetSysMemOverloadSwOutput, {"uiSwitch", "on", Switch(), "On while memory overloads are watched for."},
       {"ucValue2", "debug", Switch(), "On while what the monitor sees of each sample is logged."})

METHOD(GetSysMemOverloadCfg, Group::kReading,
       "Shows what is set for memory overloads, how much is in use, and how many there were.", "")
RECORD(GetSysMemOverloadCfgOutput,
       {"uiValue1", "begins-at", Permille().Zero("not watched for"),
        "The share of memory in use, that which is not available, at which an overload begins; 90 % until it is set."},
       {"uiValue2", "ends-below", Permille(), "The share below which it ends; 85 % until it is set."},
       {"uiValue3", "in-use", Permille(), "The share that is in use now."},
       {"uiValue4", "sample-interval", Milliseconds(), "The time between two samples."},
       {"uiValue5", "overloads", Count(), "The overloads since the daemon's start, or since they were cleared."})

METHOD(SysOvLoadMemThresholdSet, Group::kSettings,
       "Sets from which share in use on memory is overloaded. It outlives a restart, and the master is told of it.",
       "begins-at=90% ends-below=85%")
RECORD(SysOvLoadMemThreshold,
       {"uiValue1", "begins-at", Permille().UpTo(1000).Zero("don't watch"),
        "The share of memory in use, that which is not available, at which an overload begins."},
       {"uiValue2", "ends-below", Permille().NotAbove("uiValue1").Zero("as begins-at"),
        "The share below which it ends."})

METHOD(ClearEnvAct, Group::kSettings,
       "Starts a record of memory anew, or gives up what clients have set for what the master has or the default. It "
       "fails with 28 ENOSPC for more than 64 patterns; an empty one clears the others.",
       "what=leak pattern=worker*")
RECORD(ClearEnvActInput, {"acValue1", "what", Words(fresh_start::kAll), "What starts anew."},
       {"acValue2", "pattern", Pattern().Zero("all"),
        "The names of the processes whose growth counts from now on, \"worker*\"; empty for the record of overloads "
        "and settings."})

METHOD(GetSysMemUseInfo, Group::kReading,
       "Shows how the memory of each NUMA node is used. A system without nodes has one record, \"system\". The reply "
       "explains where the nodes are not the whole system.",
       "")
RECORD(SysMemUseInfoResult, {"pstNode", "nodes", Records(), "The nodes, in the order of their numbers."})
RECORD(SysMemUseInfo, {"uiNodeId", "node", Number(), "The node's number."},
       {"szNodeName", "name", Text(), "\"node0\", or \"system\"."},
       {"szCpuList", "cpus", Text(), "The node's CPUs, \"0-3,8\"."}, {"uiMemTotal", "total", Kib(), "Its memory."},
       {"uiMemFree", "free", Kib(), "What of it is free."},
       {"uiMemUsed", "used", Kib(), "What of it is not free, page cache included."},
       {"uiActive", "active", Kib(), "What was used lately."},
       {"uiInactive", "inactive", Kib(), "What was not used lately, and is given up first."},
       {"uiFilePages", "page-cache", Kib(), "What holds the contents of files."},
       {"uiAnonPages", "anonymous", Kib(), "What processes have that has no file."},
       {"uiShmem", "shared", Kib(), "Shared memory and files of tmpfs."},
       {"uiSlabReclaimable", "slab-reclaimable", Kib(), "What the kernel has for objects and can give up."},
       {"uiSlabUnreclaimable", "slab-unreclaimable", Kib(), "What the kernel has for objects and can't give up."},
       {"uiKernelStack", "kernel-stacks", Kib(), "The stacks that threads have in the kernel."},
       {"uiPageTables", "page-tables", Kib(), "Page tables."},
       {"uiHugePagesTotal", "huge-pages", Count(), "How many huge pages there are."})

METHOD(SetOvLoadDebugSwitch, Group::kSettings,
       "Switches on or off that overload monitors log what they see of each sample. They are off after a restart.",
       "monitors=cpu on=off")
RECORD(SetOvLoadDebugSwitchInput,
       {"uiValue1", "monitors", SumOf(overload_monitor::kAll).From(1), "The monitors that are switched."},
       {"uiValue2", "on", Switch(), "Whether they log from now on."})

METHOD(AppMemInfo, Group::kMemory, "Shows the memory of an application, as its agent tells it.", "process=1 view=units")
RECORD(AppMemInfoInput, {"uiValue1", "process", Pid().From(1), "The process whose agent is asked."},
       {"uiValue2", "view", OneOf(app_memory::kAll).Default(app_memory::kUnits), "What is listed."})
RECORD(AppMemInfoOutput, {"szInfo", "text", Lines(), "The report, with a head line."})

METHOD(GetKpiMemoryInfo, Group::kReading, "Shows how much memory is in use, in four figures.", "")
VARIANT(GetKpiMemoryInfo, DisOsResourceInfoRet, {"acName", "name", Text(), "The resource, \"memory\"."},
        {"uiValue1", "now", Permille(), "The share of memory that is in use now."},
        {"uiValue2", "last-minute", Permille(), "The mean of that share over the last minute."},
        {"uiValue3", "highest", Permille(), "The highest in the last hour, of which 3600 samples are kept at most."},
        {"uiValue4", "available", Kib(), "What is available."})

// ---- Log archives and time ----

METHOD(
    ZipLogFile, Group::kCommands,
    "Packs a file or a directory into a ZIP archive. Left out are links, files that may not be read, what lies more "
    "than 32 directories deep, and what is beyond 200000 files or 16 GiB, of which 256 MiB may be holes; the reply "
    "explains how many were left out, and the log names the first. A file that grows meanwhile is packed as far as "
    "it went at first, the end of one that shrinks as zeros. Earlier archives are left out as well but for one that is "
    "the source itself. The archive is there only when it is complete. It "
    "fails with EEXIST (17) where its name is that of a file which is no archive of the daemon's, and with "
    "ESHUTDOWN (108), ETIMEDOUT (110) or ECANCELED (125) "
    "where it is given up since the daemon stops, or the caller's time is over, or the caller is gone.",
    "source=app name=app.zip", Duration::kLong)
RECORD(ZiploginfoInput,
       {"szLogPath", "source", Text().Zero("the log directory"),
        "What to pack: a file or a directory, relative to the log directory or absolute within it."},
       {"szZipPath", "directory", Text().Zero("the log directory"),
        "The directory for the archive, relative to the log directory or absolute within it."},
       {"szZipName", "name", Text(), "The archive's file name, without a directory; it replaces an older archive."},
       {"uiZipOption", "compression", OneOf(archive_compression::kAll).Default(archive_compression::kCompressed),
        "Whether files are compressed."})

METHOD(CopyZipLogFile, Group::kCommands,
       "Copies an archive of the log directory to another directory. The copy is there only when it is complete. It "
       "fails with ESHUTDOWN (108), ETIMEDOUT (110) or ECANCELED (125) where it is given up since the daemon stops, or "
       "the caller's time is over, or the caller is gone.",
       "target=usb archive=app.zip destination=logs/", Duration::kLong)
RECORD(CopyloginfoInput,
       {"szCopyTarget", "target", Text(), "The name of a directory that tarnd --copy-target NAME=DIR names."},
       {"szCopyParam1", "if-exists", Words(if_exists::kAll).Zero("the older file stays, and EEXIST (17) is answered"),
        "What becomes of an older file of the copy's name."},
       {"szCopyParam2", "mode", Words(copy_mode::kAll).Zero("the archive stays"),
        "What becomes of the archive that was copied."},
       {"szSrcPath", "archive", Text(), "The ZIP archive, relative to the log directory or absolute within it."},
       {"szDstPath", "destination", Text().Zero("in the target's directory, under the archive's name"),
        "The copy's path within the target; one that ends with \"/\" is a directory, where the copy has the archive's "
        "name. Directories must exist."})

METHOD(
    SetTimezone, Group::kSettings,
    "Sets the time zone of the daemon's clock. The local times in its replies and texts follow it, also beyond a "
    "restart. Until a zone is set, the system's zone and daylight saving hold, and a rule of daylight saving that "
    "a client set before is kept for it. EINVAL (22) is answered to an offset that the system does not have for a zone "
    "of which it has a file; other names are labels. With --apply-clock the system's zone is set as well, of which the "
    "system must "
    "have a file: ENOENT (2) where it has none, and EPERM (1) where the daemon may not.",
    "zone.name=Europe/Berlin zone.offset=60")
RECORD(SetTimezoneInput, {"stTimezone", "zone", OneRecord(), "The time zone."})

METHOD(SetDst, Group::kSettings,
       "Sets the daylight saving of the daemon's clock. The local times in its replies and texts follow it, also "
       "beyond a restart, once a time zone is set.",
       "rule.on=0")
RECORD(SetDstInput, {"stDst", "rule", OneRecord(), "The rule of daylight saving."})
VARIANT(SetDst, Systime,
        {"usYear", "year", Number().From(calendar::kFirstYear).UpTo(calendar::kLastYear).Zero("each year"),
         "The year in which clocks change: both the start and the end have one, or neither."},
        {"ucMonth", "month", Number().From(1).UpTo(12), "The month, from 1."},
        {"ucDay", "day", Number().From(1).UpTo(31), "The day of the month, which must have so many."},
        {"ucWeek", "weekday", Unused(), "The date says it."},
        {"uiMillisecond", "millisecond", Unused(), "Clocks change at a full second."})

METHOD(SetGmt, Group::kSettings,
       "Sets the daemon's clock to a time in GMT. The times in its replies and texts follow its clock, also beyond a "
       "restart. With --apply-clock the system's clock is set instead: EPERM (1) where the daemon may not.",
       "time=2026-11-21T12:00:00Z")
RECORD(SetGmtInput, {"stTime", "time", GmtTime(), "What time it is, in GMT."})

METHOD(SetLocalTime, Group::kSettings,
       "Sets the daemon's clock to a local time, by its time zone and daylight saving. Of a time that occurs twice it "
       "is the first; one that the clock skips when it goes forward is refused. The times in the daemon's replies and "
       "texts follow its clock, also beyond a restart. With --apply-clock the system's clock is set instead: EPERM (1) "
       "where the daemon may not.",
       "time=2026-11-21T13:00:00")
RECORD(SetLocalTimeInput, {"stTime", "time", LocalTime(), "What time it is, by the daemon's time zone."})

#define MOMENTS_OF(method)                                                                                             \
    VARIANT(method, Systime,                                                                                           \
            {"usYear", "year", Number().From(calendar::kFirstYear).UpTo(calendar::kLastYear), "The year."},            \
            {"ucMonth", "month", Number().From(1).UpTo(12), "The month, from 1."},                                     \
            {"ucDay", "day", Number().From(1).UpTo(31), "The day of the month, which must have so many."},             \
            {"ucWeek", "weekday", Number().UpTo(6).Zero("Sunday, or unknown"),                                         \
             "The day of the week from Sunday, 0, which must be the date's."})
MOMENTS_OF(SetGmt)
MOMENTS_OF(SetLocalTime)
#undef MOMENTS_OF

METHOD(SetDateFormat, Group::kSettings, "Sets how the daemon writes dates, also beyond a restart.",
       "format=year-month-day")
RECORD(SetDateFormatInput, {"uiDateFormat", "format", OneOf(date_format::kAll), "The order of a date's parts."})

// ---- Memory diagnostics and debug commands relayed to an agent ----

METHOD(GetMirelMemHandleInfoByTarnd, Group::kMemory, "Lists the memory handles of an application, by its agent.",
       "process=4711")
RECORD(GetMirelMemHandleInfoInput, {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(GetProcPartitionMemHandleRecodByTarnd, Group::kMemory,
       "Lists what the memory handles of an application hold in their partitions, by its agent.",
       "process=4711 most=20")
RECORD(ProcPtRecodByTarndInput, {"uiPtParam1", "partition", Number().Zero("all"), "Handles of this partition."},
       {"uiPtParam2", "handle", Number().Zero("all"), "This handle."},
       {"uiPtParam3", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiPtParam4", "most", Count().Zero("all"), "How many matches to return."},
       // any number but 0 is on
       {"uiPtParam5", "in-use", Switch().UpTo(UINT32_MAX).Default(0), "Only handles that hold blocks."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(GetMirelMemPtInfoByTarnd, Group::kMemory,
       "Tells the state of a memory partition of an application, by block size and by handle, by its agent.",
       "process=4711 partition=1")
RECORD(GetMirelMemPtInfoByTarndInput, {"uiPtId", "partition", Number(), "The partition."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(MemDiagMaByTarnd, Group::kMemory,
       "Runs a diagnosis command on an application's memory, by its agent, and answers with text.",
       "process=4711 command=summary")
RECORD(mem_RPCIN_input, {"uiMemCmd", "command", OneOf(memory_command::kAll), "The command."},
       {"pucMemData", "argument", Text().Zero("none"),
        "Its argument, where it takes one: a decimal number, or a hexadecimal one behind 0x."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(DBGCmdExecShowByTarnd, Group::kCommands,
       "Has an application's agent run a debug command; DBGCmdExecResultGetByTarnd fetches what becomes of it. "
       "Commands run one after the other.",
       "process=4711 command=help")
RECORD(DbgCmdShowByTarndInput,
       {"pcCmdStr", "command", Text().Zero("no command: the result is 22"),
        "The command's name and its arguments, words separated by blanks; \"help\" lists the commands."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(DBGCmdExecResultGetByTarnd, Group::kCommands,
       "Tells what became of the last debug command that an application's agent has taken.", "process=4711")
RECORD(DbgCmdResultGetByTarndInput, {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(DBGCmdExecCleanByTarnd, Group::kCommands,
       "Has an application's agent forget the debug commands that wait and the last result. A running command's output "
       "is dropped.",
       "process=4711")
RECORD(DbgCmdCleanByTarndInput, {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(SetMemDmgScanTarnd, Group::kSettings,
       "Switches the scan for damaged blocks in an application, by its agent. Each block has guard bytes before and "
       "behind it, which nobody may write; a scan finds those that were overwritten.",
       "process=4711 scan=once")
RECORD(MemDmgScanInTarnd, {"uiScanSwitch", "scan", OneOf(damage_scan::kAll), "Whether blocks are scanned."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(GetMemDmgInfoTarnd, Group::kMemory,
       "Tells which memory blocks of an application were found damaged, or are hostages, by its agent.",
       "process=4711 report=damages")
RECORD(MemDmgInfoInTarnd,
       {"uiInfoType", "report", OneOf(damage_report::kAll).Default(damage_report::kBoth), "What to report."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

// ---- Tasks, call stacks and liveness ----

METHOD(GetTaskInfo, Group::kReading,
       "Lists threads, with what the scheduler counted of them and how often they starved.", "process=1 most=20",
       Duration::kLong)
RECORD(GetTaskInfoInput,
       {"uiTaskParam1", "process", Pid().Zero("all that may be seen"), "The process whose threads are wanted."},
       {"uiTaskParam2", "thread", Tid().Zero("all"), "The thread that is wanted: ESRCH (3) where there is none."},
       {"pcTaskName", "names", Pattern().Zero("all"), "The threads' names that are wanted."},
       {"uiTaskParam3", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiTaskParam4", "most", Count().Zero("all"), "How many matches to return."})
RECORD(GetTaskInfoResult,
       {"pcTaskInfo", "threads", Lines(), "A head line and a line for each thread that is returned."},
       {"uiTaskValue", "matches", Count(), "The threads that match, returned or not."},
       {"pcTaskRecord", "counts", Lines(),
        "A head line and, for each thread that is returned, what the scheduler counted of it and how often it "
        "starved."})

METHOD(ResetTaskRecord, Group::kSettings, "Forgets what was recorded of threads that starved.", "thread=4711")
RECORD(ResetTaskRecordInput,
       {"uiTaskId", "thread", Tid().Zero("all"), "The thread whose record is forgotten: ENOENT (2) where it has none."})
RECORD(TaskResult, {"uiTaskResult", "result", Errno(), "0, or why it was not done."})

METHOD(SetTaskStarvThreshold, Group::kSettings,
       "Sets how long a thread must wait for a CPU to starve, also beyond a restart.", "threshold=1s")
RECORD(StarvTaskThresholdInput, {"uiStarvThreshold", "threshold", Milliseconds().From(1).UpTo(starvation::kMostMs),
                                 "The shortest wait with which a ready thread starves; one second until it is set."})

METHOD(SetTaskSwitch, Group::kSettings,
       "Switches the watch for threads that starve, also beyond a restart. A thread starves that was "
       "ready, but waited for a CPU for at least the threshold at a stretch. Of several waits between two samples the "
       "longest is not known: the least that it can have been is taken.",
       "on=1")
RECORD(TaskSwitchInput,
       {"uiTaskSwitch", "on", Switch(),
        "On: the counts of every thread are read with each sample; off, as at first: nothing is watched, and the "
        "records are forgotten."})

METHOD(GetAllTidsByPid, Group::kReading, "Lists the threads of a process.", "process=1")
RECORD(Pid, {"uiPid", "process", Pid(), "The process."})
RECORD(Tids, {"puiTids", "threads", Tids(), "Its threads, by rising ids."})

METHOD(
    GetCallStackInfoByTid, Group::kMemory,
    "Reads the call stacks of a process's threads. A thread is held up for as long as its registers and 256 KiB of "
    "its stack take to copy, no longer. It fails with EPERM (1) where the process may not be looked into, or is "
    "traced by another one; with EOPNOTSUPP (95) for a thread of the kernel; with ETIMEDOUT (110) for a thread asked "
    "for that waits for a device and does not stop; and with ESRCH (3) for a process that ends meanwhile. The reply "
    "explains which threads have more than 32 frames, where each module begins, and its build id.",
    "process=4711", Duration::kLong)
RECORD(Tid, {"uiPid", "process", Pid(), "The process."},
       {"uiTid", "thread", Tid().Zero("all of the process"), "The thread whose stack is wanted."})
RECORD(CallStackContext,
       {"uiValue1", "held-up", Microseconds(), "How long the threads were held up, all of their times together."},
       {"pstThreadInfo", "threads", Records(), "The threads and their stacks."})
RECORD(CallStackThreadInfo, {"uiTid", "thread", Tid(), "The thread."},
       {"szThreadName", "name", Text(), "The thread's name."},
       {"ullValue1", "cpu-time", Microseconds(), "The CPU time that it took since it started."},
       {"szName2", "process-name", Text(), "The name of its process."},
       {"uiValue2", "frames", Count().UpTo(32),
        "How many frames there are; 0, where all threads are asked for, of one that waits for a device and does not "
        "stop."},
       {"uiValue3", "held-up", Microseconds(), "How long it was held up."},
       {"aullStackAddr", "stack", Address().Zero("none"), "The frames' addresses, the innermost first."},
       {"astFuncName", "functions", Records(), "The function of each address, in their order."})
VARIANT(GetCallStackInfoByTid, FuncName,
        {"szFuncName", "function", Text().Zero("there is no such frame"),
         "The function and the address's distance from its start, as \"Worker::Run(int)+0x1c\"; "
         "\"libfoo.so.1+0x4c10\" where there is no function's name, \"0x7f0012345678\" where nothing is mapped."})

METHOD(TarnGetDlpCfgFromAgent, Group::kReading,
       "Tells how an application's threads are watched for dead loops, and which ran into some, by its agent.",
       "process=4711")
VARIANT(TarnGetDlpCfgFromAgent, GetDeadLoopCfgInput,
        {"uiValue3", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(SetNoxTimerDebugSwitchByTarnd, Group::kSettings,
       "Switches the log of an application's timers on or off, by its agent.", "process=4711 on=1")
RECORD(SetNoxTimerDebugSwitchTarndInput,
       {"uiDebugSwitch", "on", Switch(), "Whether each expiry of a timer is logged with its delay and run time."},
       {"uiTargetPid", "process", Pid().From(1), "The process whose agent is asked."})

METHOD(DetectTarndServerOnline, Group::kReading,
       "Tells the daemon that a peer is there, or has something new. The daemon announces itself to the master and "
       "takes over what the master has, as at its own start: the time, time zone and daylight saving, the overload "
       "thresholds of \"system\", times and mode of measurement. What a client has set holds before what the master "
       "has, until ClearEnvAct gives it up; what the master has not configured stays. Memory thresholds that a client "
       "sets are told to the master, which keeps them.",
       "")

// ---- Measurement ----

METHOD(
    TarnSetDimOpration, Group::kCommands,
    "Measures what runs, or records a baseline for it. Measurement compares the SHA-256 digests of the executables "
    "and libraries that all processes run with the baseline. A process that may not be looked into is hidden, a file "
    "whose content can't be reached unread. A file of more than 2 GiB is left out, and what goes beyond 4 GiB of a "
    "user's files or 32 GiB of all users' but root's; one that is recorded and has become too large has changed. The "
    "log tells what differs as soon as it is found. Code in memory that has no file is not measured. What is answered "
    "when it is done is given up when the caller gives up, with ETIMEDOUT (110) or ECANCELED (125). EBUSY (16) is "
    "answered while 16 measurements wait.",
    "operation=measure", Duration::kLong)
RECORD(DimSetIn, {"uiOperation", "operation", OneOf(measurement_operation::kAll), "What is done."})

METHOD(TarnSetDimTimeCfgByTarnd, Group::kSettings,
       "Sets when the daemon measures by itself, also beyond a restart. Hours are those of the daemon's clock and "
       "zone. At the start it never measures by itself.",
       "hour=3 minute=30")

METHOD(TarnSetDimWorkModeCfgByTarnd, Group::kSettings,
       "Sets whether the daemon measures by time, and what becomes of new files, also beyond a restart.", "mode=report")

METHOD(TarnGetDimMeasRstByTarnd, Group::kMemory, "Tells the result of the last measurement. The log names all files.",
       "")
RECORD(DimMeasRst, {"uiValue1", "state", OneOf(measurement_state::kAll), "What was found."},
       {"acMeasResult", "text", Text(), "The counts, with the name of one file that differs."},
       {"uiValue2", "differences", Count(),
        "The files that differ or are new; of a measurement that runs, those found so far."})

// ---- Health ----

METHOD(TarnPadsGetSystemHealthInfoByTarnd, Group::kReading,
       "Looks at the health of the system, or at that of a process, by its agent. Times are the daemon's, also of what "
       "an agent tells; the reply explains how far they are from GMT.",
       "item=memory")
RECORD(PadsSystemHealthInput,
       {"ucValue", "item", OneOf(system_health_item::kAll).Zero("all").Where("uiValue", 0), "What is looked at."},
       {"uiValue", "process", Pid().Zero("the system"), "The process whose agent is asked, for all of its items."})
VARIANT(TarnPadsGetSystemHealthInfoByTarnd, SysHealthInfo,
        {"acValue2", "source", Text(), "\"system\", or the agent's name."},
        {"acValue4", "found", Text(), "What was found, or why nothing was."})

METHOD(TarnPadsSetPadsGlobalSwitchByTarnd, Group::kSettings,
       "Switches all health items together, of the daemon and of the agents, also beyond a restart. It is on at the "
       "start, and each item has a switch besides.",
       "on=1")

METHOD(TarnPadsSetPadsAppFunSwitchByTarnd, Group::kSettings,
       "Switches a health item of the daemon or of the agents, and sets its limit, also beyond a restart. An item of "
       "the daemon is degraded from its limit on; it is bad from twice of it or, for a share, from the middle between "
       "it and the whole. Subscribers (TarnAppSubscribe) that have an agent are notified through its "
       "TarnUpdateResourceInfo of each change of the level of \"cpu\", \"memory\" or \"descriptors\".",
       "item=disk on=1 limit=850")
VARIANT(
    TarnPadsSetPadsAppFunSwitchByTarnd, PadsAppFunSwitch,
    {"ucFunction", "item",
     OneOf(system_health_item::kAll).Open().UpTo(system_health_item::kLast).Zero("all, of the daemon and the agents"),
     "The item: one of the daemon or, from 1 to 127, one of the agents."},
    {"uiValue", "limit", Number().Zero("as it was"),
     "Its limit, in what the item measures: at most 1000 of a share, and none for all items together."})

METHOD(TarnPadsGetCpuEventByTarnd, Group::kReading,
       "Lists CPU events: a CPU was busy too long, mostly with one thread. An event that lasts is there as it is so "
       "far. The health items \"cpu-event\" and \"cpu-event-time\" say what is too long.",
       "within=1h most=10")
RECORD(PadsCpuEventInput, {"uiValue1", "process", Pid().Zero("all"), "The process whose events are wanted."},
       {"uiValue2", "within", Seconds().Zero("all that are kept"), "Only the events of the last so much time."},
       {"uiValue3", "most", Count().Zero("all"), "How many to return at most, the newest."})
RECORD(PadsCpuEventResult, {"pstEvent", "events", Records(), "The events, the oldest first."})
RECORD(PadsCpuEvent, {"stTime", "began", LocalTime(), "When it began."},
       {"uiDuration", "duration", Milliseconds(), "How long it lasted, so far."},
       {"uiCpuId", "on-cpu", Number(), "The number of the CPU."},
       {"uiCpuUse", "busy", Permille(), "The CPU's use over the duration."},
       {"uiPressure", "pressure", Permille(),
        "The share of the last 10 s of it in which some task waited for a CPU; 0 where the kernel can't tell."},
       {"uiPid", "process", Pid(), "The thread's process."},
       {"uiTid", "thread", Tid(),
        "The busiest thread of those that were on the CPU at the end, over the last 3 s; the reply explains which had "
        "most over the duration, where that is another."},
       {"szThreadName", "name", Text(), "The thread's name."},
       {"uiThreadUse", "cpu", Permille(),
        "The thread's share of one CPU over the last 3 s of the duration; its time on other CPUs counts."})

// ---- Process table ----

METHOD(ProcTableBuild, Group::kCommands,
       "Keeps a table of all processes that may be seen, which replaces an older one.", "options=as-tree",
       Duration::kLong)
RECORD(ProcTableBuildInput, {"ucBuildFlag", "options", SumOf(process_table::kAll).Zero("all processes, by rising ids"),
                             "Which processes the table has, and in which order."})
RECORD(ProcTableBuildOutput, {"uiResult", "result", Errno(), "0, or why it was not done."})

METHOD(GetProcTable, Group::kReading, "Lists the process table as it was built: ENODATA (61) before ProcTableBuild.",
       "")
RECORD(GetProcTableResult, {"pstProc", "processes", Records(), "The processes, in the order that the build asked for."})
RECORD(ProcTableEntry, {"uiPid", "process", Pid(), "The process."}, {"uiPpid", "parent", Pid(), "Its parent."},
       {"uiUid", "user", Uid(), "Its real user."}, {"szProcName", "name", Text(), "Its name."},
       {"ucState", "state", Letter(), "The kernel's letter for its state."},
       {"uiThreadNum", "threads", Count(), "Its threads."}, {"uiRss", "resident", Kib(), "What it has in memory."},
       {"ullStartTime", "started", Milliseconds(), "When it started, counted from the system's boot."},
       {"ullCpuTime", "cpu-time", Milliseconds(), "The CPU time that it took since it started."},
       {"pcCmdLine", "command-line", Text(),
        "Its arguments with blanks between them, the first 4096 bytes; none for a thread of the kernel."})

METHOD(GetQ5ProcInfo, Group::kReading, "Tells the parent and the session of a process.", "process=4711")
RECORD(GetQ5ProcInfoInput, {"uiPid", "process", Pid(), "The process."})
RECORD(GetQ5ProcInfoOutput, {"uiValue1", "parent", Pid(), "Its parent; 0 for one that has none here."},
       {"uiValue2", "session", Pid(), "The process that leads its session."})

// ---- Message control, subscriptions and timers ----

METHOD(UpdateMsgCtrlRuleTarnd, Group::kSettings,
       "Sets a message-control rule in all agents: a new one, or in place of the one of its number. It is kept beyond "
       "a restart and brought to the agents that are there, and to those that register later. One for a process ends "
       "with it. Its patterns are of printable ASCII characters. EINVAL (22) is answered to a rule that makes no "
       "sense, ENOSPC (28) where there would be more than 64, "
       "and ESRCH (3) where there is no such process.",
       "rule=7 priority=10 action=limit rate=100 sender=worker*")
VARIANT(UpdateMsgCtrlRuleTarnd, UpdateMsgCtrlRuleInput,
        {"uiValue9", "process", Pid().Zero("all"), "The process that it is for."})

METHOD(ClearMsgCtrlRuleTarnd, Group::kSettings, "Removes all message-control rules, also from the agents.", "")

METHOD(TarnGetMsgRuleInfoTarnd, Group::kReading,
       "Lists the message-control rules that the daemon keeps, or those of an agent, by rising priority.", "rule=7")
VARIANT(TarnGetMsgRuleInfoTarnd, GetMsgRuleInfoInput,
        {"uiValue3", "process", Pid().Zero("the rules that the daemon keeps"), "The process whose agent is asked."})
VARIANT(TarnGetMsgRuleInfoTarnd, MsgRuleInfo,
        {"ullMatchNum", "matched", Count(),
         "The messages that it matched since it was set, as the agents have counted that answer in time."},
        {"ullDropNum", "dropped", Count(), "Those of them that it stopped."})

METHOD(TarnGetSubscribeInfoTarnd, Group::kReading, "Lists the subscriptions to the daemon, or those to an agent.",
       "events=memory")
VARIANT(TarnGetSubscribeInfoTarnd, GetSubscribeInfoInput,
        {"uiValue3", "process", Pid().Zero("the subscriptions to the daemon"), "The process whose agent is asked."})
VARIANT(TarnGetSubscribeInfoTarnd, SubscribeInfo, {"szName1", "name", Text(), "The subscriber's name."},
        {"uiValue2", "process-or-notified", Number(),
         "The subscriber's process; where an agent is asked, how often the subscriber was notified."})
VARIANT(TarnGetSubscribeInfoTarnd, GetSubscribeInfoResult,
        {"uiValue2", "events", SumOf(event::kAll), "All events that anybody subscribes to."})

METHOD(
    TarnGetTimerInfoTarnd, Group::kMemory,
    "Lists the timers of the daemon and of all applications, by their agents; or of one of them. Where all are listed, "
    "an application's have its process before their names, \"4711:flush\", and the reply explains whose agents did not "
    "answer.",
    "skip=0 most=10")
VARIANT(TarnGetTimerInfoTarnd, GetTimerInput,
        {"uiValue4", "process", Pid().Zero("all"),
         "The process whose timers are wanted: the daemon's own, or one whose agent is asked."})

} // namespace host::meaning
