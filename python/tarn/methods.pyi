"""Written by python3 -m tarn.stubs from what the daemon says of itself."""

from collections.abc import Iterable, Mapping, Sequence
from datetime import datetime, timedelta
from typing import Any, Literal, overload

from .values import Record


class PidIsOnlineOuput(Record):
    process: int
    online: bool

class ProcessStatusOutput(Record):
    state: str | int

class OsProcessCpuThread(Record):
    name: str
    thread: int
    cpu_permille: int
    cpu_time_us: int
    state: str
    on_cpu: int
    scheduled: str

class OsProcessCpuRet(Record):
    threads: list[OsProcessCpuThread]
    cpu_permille: int

class ThreadCpu(Record):
    thread: int
    cpu_permille: int
    state: str | int
    on_cpu: int
    cpu_time_us: int
    waited_us: int
    name: str
    process: int
    process_name: str
    scheduled: str
    timeslices: int

class ThreadCpuRet(Record):
    threads: list[ThreadCpu]

class OsProcessCpuThread_2(Record):
    name: str
    thread: int
    cpu_permille: int
    cpu_time_us: int
    state: str
    on_cpu: int
    scheduled: str

class OsProcessCpuRet_2(Record):
    threads: list[OsProcessCpuThread_2]
    cpu_permille: int

class HugePagesOutput(Record):
    total: int
    free: int

class SysCpuStatProc(Record):
    process: int
    name: str
    cpu_permille: int
    highest_permille: int
    user_time_us: int
    system_time_us: int
    highest_at: datetime | Record | None
    state: str
    parent: int
    threads: int
    nice: int
    on_cpu: int
    started: datetime | Record | None
    user: str
    program: str
    cpu_since_start_permille: int
    major_faults: int
    resident_bytes: int

class SysCpuStatInfo(Record):
    processes: list[SysCpuStatProc]

class MultiCpuUsage(Record):
    name: str
    busy_permille: int
    user_permille: int
    system_permille: int
    waiting_permille: int
    highest_permille: int
    highest_at: datetime | Record | None

class MultiCpuUsageRet(Record):
    cpus: list[MultiCpuUsage]

class ResetMaxCpuResult(Record):
    result: str | int

class OperResult(Record):
    result: str | int

class OvloadCpuSwitchRet(Record):
    on: bool

class DisCpuOvloadRet(Record):
    began: datetime | Record | None
    name: str
    process: int
    busy_permille: int
    cpu_permille: int
    ended: datetime | Record | None

class TopCpuOvloadThread(Record):
    process: int
    thread: int
    name: str
    cpu_time_us: int
    cpu_permille: int
    stack: str | None

class TopCpuOvloadThreadCallstackRet(Record):
    found: int
    threads: list[TopCpuOvloadThread]

class SysCpuMonitorHistoryInfo(Record):
    time: datetime | Record | None
    busy_percent: int
    waiting_percent: int

class SysCpuMonitorHistoryInfoResult(Record):
    samples: list[SysCpuMonitorHistoryInfo]

class GetSysCpuOverloadCfgOutput(Record):
    begins_at_permille: int
    ends_below_permille: int
    must_last_us: int
    watched: int
    sample_interval_us: int
    overloads: int

class CpuOvMonThread(Record):
    thread: int
    cpu_permille: int
    highest_permille: int
    cpu_time_us: int
    state: str | int
    overloaded: bool
    overloads: int

class GetCpuOvMonProcInfoOutput(Record):
    process: int
    threads: list[CpuOvMonThread]

class DisOsResourceInfoRet(Record):
    name: str
    now_permille: int
    last_minute_permille: int
    highest_permille: int
    load_thousandths: int

class ExceptionInfoResult(Record):
    text: str | None
    matches: int

class AssertInfoResult(Record):
    text: str | None
    matches: int

class ResetBBoxResult(Record):
    result: str | int

class SysMemStatisPro(Record):
    process: int
    parent: int
    name: str
    program: str
    user: str
    started: datetime | Record | None
    threads: int
    virtual_peak_bytes: int
    virtual_bytes: int
    locked_bytes: int
    resident_peak_bytes: int
    resident_bytes: int
    resident_anonymous_bytes: int
    resident_files_bytes: int
    resident_shared_bytes: int
    data_bytes: int
    stack_bytes: int
    code_bytes: int
    libraries_bytes: int
    page_tables_bytes: int
    swapped_bytes: int
    huge_pages_bytes: int

class SysMemStatisProResult(Record):
    processes: list[SysMemStatisPro]
    total_bytes: int

class DumpOsProcMemValueResult(Record):
    dump: str | None
    read_bytes: int

class MemLeakQryOut(Record):
    text: str
    cut: bool

class SysOsMemInfo(Record):
    process: int
    parent: int
    name: str
    program: str
    user: str
    group: str
    state: str
    wait_channel: str
    threads: int
    virtual_peak_bytes: int
    virtual_bytes: int
    locked_bytes: int
    resident_peak_bytes: int
    resident_bytes: int
    resident_anonymous_bytes: int
    resident_files_bytes: int
    resident_shared_bytes: int
    data_bytes: int
    stack_bytes: int
    code_bytes: int
    libraries_bytes: int
    page_tables_bytes: int
    swapped_bytes: int
    huge_pages_bytes: int
    proportional_bytes: int
    shared_clean_bytes: int
    shared_dirty_bytes: int
    private_clean_bytes: int
    private_dirty_bytes: int
    swapped_proportional_bytes: int
    minor_faults: int
    major_faults: int
    oom_score: int

class SysOsMemInfoResult(Record):
    processes: list[SysOsMemInfo]

class SysProOs(Record):
    process: int
    range: str
    permissions: str
    size_bytes: int
    resident_bytes: int
    proportional_bytes: int
    private_dirty_bytes: int
    swapped_bytes: int
    device_inode: str
    name: str

class SysProOsResult(Record):
    mappings: list[SysProOs]

class SysMemStatisFile(Record):
    path: str
    resident_bytes: int
    mapped_by: int
    largest_user: str
    device_inode: str

class SysMemStatisFileResult(Record):
    files: list[SysMemStatisFile]

class SysOsMemFile(Record):
    changed: datetime | str | None
    owner: str
    permissions: str
    path: str
    taken_bytes: int

class SysOsMemFileResult(Record):
    files: list[SysOsMemFile]
    taken_bytes: int

class SysMemStatisShare(Record):
    id: int
    size_bytes: int
    resident_bytes: int
    users: int
    name: str
    kind: str

class SysMemStatisShareResult(Record):
    pieces: list[SysMemStatisShare]

class SysMemOverloadStat(Record):
    time: datetime | Record | None
    event: Literal["ends", "begins"] | int

class GetSysMemOverloadStatOutput(Record):
    overloaded: bool
    events: list[SysMemOverloadStat]

class GetSysMemOverloadSwOutput(Record):
    on: bool
    debug: bool

class GetSysMemOverloadCfgOutput(Record):
    begins_at_permille: int
    ends_below_permille: int
    in_use_permille: int
    sample_interval_us: int
    overloads: int

class Result(Record):
    result: str | int

class SysMemUseInfo(Record):
    node: int
    name: str
    cpus: str
    total_bytes: int
    free_bytes: int
    used_bytes: int
    active_bytes: int
    inactive_bytes: int
    page_cache_bytes: int
    anonymous_bytes: int
    shared_bytes: int
    slab_reclaimable_bytes: int
    slab_unreclaimable_bytes: int
    kernel_stacks_bytes: int
    page_tables_bytes: int
    huge_pages: int

class SysMemUseInfoResult(Record):
    nodes: list[SysMemUseInfo]

class AppMemInfoOutput(Record):
    text: str | None

class DisOsResourceInfoRet_2(Record):
    name: str
    now_permille: int
    last_minute_permille: int
    highest_permille: int
    available_bytes: int

class MirelMemHandleInfo(Record):
    handle: int
    name: str
    used_bytes: int

class GetMirelMemHandleInfoOutput(Record):
    open_handles: int
    partitions: int
    damages: int
    handles: list[MirelMemHandleInfo]

class ProcPtRecod(Record):
    partition: int
    handle: int
    name: str
    block_size_bytes: int
    blocks: int
    peak_blocks: int
    failed: int
    allocations: int
    used_bytes: int
    owner: str | None
    threads: list[int]

class ProcPtRecodResult(Record):
    result: str | int
    process: int
    matches: int
    handles: list[ProcPtRecod]

class MemBlockClass(Record):
    block_size_bytes: int
    used_blocks: int
    free_blocks: int
    peak_blocks: int

class MemHandleUse(Record):
    handle: int
    name: str
    blocks: int
    used_bytes: int
    peak_bytes: int

class GetMirelMemPtInfoOutput(Record):
    result: str | int
    partition: int
    name: str
    total_bytes: int
    used_bytes: int
    peak_bytes: int
    largest_free_bytes: int
    block_sizes: list[MemBlockClass]
    handles: list[MemHandleUse]

class mem_PRCOUT(Record):
    result: str | int
    text: str | None
    lines: int

class DiagResult(Record):
    result: str | int
    number: int
    output: str | None

class MemDmgScanOut(Record):
    result: str | int

class MemDmgInfoOut(Record):
    text: str | None
    lines: int

class GetTaskInfoResult(Record):
    threads: str | None
    matches: int
    counts: str | None

class TaskResult(Record):
    result: str | int

class Tids(Record):
    threads: list[int]

class FuncName(Record):
    function: str

class CallStackThreadInfo(Record):
    thread: int
    name: str
    cpu_time_us: int
    process_name: str
    frames: int
    held_up_us: int
    stack: list[int]
    functions: list[FuncName]

class CallStackContext(Record):
    held_up_us: int
    threads: list[CallStackThreadInfo]

class DeadLoopThreadCfg(Record):
    thread: int
    name: str
    on: bool
    limit_us: int
    dead_loops: int

class GetDeadLoopCfgResult(Record):
    result: str | int
    on: bool
    period_us: int
    limit_us: int
    least_cpu_percent: int
    cpus: list[int]
    threads: list[DeadLoopThreadCfg]

class DimMeasRst(Record):
    state: Literal["none", "runs", "as-recorded", "differs", "no-baseline", "failed"] | int
    text: str
    differences: int

class SysHealthInfo(Record):
    level: Literal["good", "degraded", "bad", "unknown"] | int
    name: str
    source: str
    looked_at: datetime | str | None
    found: str

class PadsSystemHealthResult(Record):
    level: Literal["good", "degraded", "bad", "unknown"] | int
    on: bool

class PadsCpuEvent(Record):
    began: datetime | Record | None
    duration_us: int
    on_cpu: int
    busy_permille: int
    pressure_permille: int
    process: int
    thread: int
    name: str
    cpu_permille: int

class PadsCpuEventResult(Record):
    events: list[PadsCpuEvent]

class ProcTableBuildOutput(Record):
    result: str | int

class ProcTableEntry(Record):
    process: int
    parent: int
    user: int
    name: str
    state: str | int
    threads: int
    resident_bytes: int
    started_us: int
    cpu_time_us: int
    command_line: str | None

class GetProcTableResult(Record):
    processes: list[ProcTableEntry]

class GetQ5ProcInfoOutput(Record):
    parent: int
    session: int

class UpdateMsgCtrlRuleInput(Record):
    rule: int
    priority: int
    action: Literal["pass", "drop", "limit"] | int
    first_type: int
    last_type: int
    rate: int
    burst: int
    lasts_us: int
    process: int
    sender: str
    receiver: str
    message: str

class MsgRuleInfo(Record):
    definition: UpdateMsgCtrlRuleInput
    matched: int
    dropped: int
    age_us: int

class GetMsgRuleInfoResult(Record):
    result: str | int
    rules: list[MsgRuleInfo]

class SubscribeInfo(Record):
    name: str
    event_names: str
    events: list[Literal["cpu", "memory", "descriptors"] | int]
    process_or_notified: int

class GetSubscribeInfoResult(Record):
    subscriptions: list[SubscribeInfo]
    events: list[Literal["cpu", "memory", "descriptors"] | int]
    matches: int
    process: int

class TimerInfo(Record):
    timer: int
    name: str
    thread: int
    state: Literal["stopped", "running", "expired"] | int
    periodic: bool
    period_us: int
    remaining_us: int
    longest_run_us: int
    longest_delay_us: int
    expiries: int
    function: int

class GetTimerInfoResult(Record):
    result: str | int
    process: int
    matches: int
    timers: list[TimerInfo]

class AgentRegInfoResult(Record):
    result: str | int
    name: str
    process: int

class Methods:
    @overload
    def call(
        self,
        method: Literal["PidIsOnline"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> PidIsOnlineOuput:
        """Tells whether a process runs.
        """
    @overload
    def call(
        self,
        method: Literal["GetProcStatByPid"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> ProcessStatusOutput:
        """Tells the state of a process.
        """
    @overload
    def call(
        self,
        method: Literal["CalculateOsProcCpuUse"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        interval: int | str | timedelta = ...,
        most: int = ...,
    ) -> OsProcessCpuRet:
        """Measures what a process and its threads use of all CPUs, from some time ago until now. What was used before
        comes from samples of processes, which the daemon takes each second, or as --sample-interval says, while
        somebody asks for them or they are needed, and else with each 60th sample of the system; 120 are kept. The reply
        explains over which time it was measured, where that is not what was asked for.
        """
    @overload
    def call(
        self,
        method: Literal["CalculateAllThreadCpuUse"],
        /,
        *,
        deadline: float | None = ...,
        interval: int | str | timedelta = ...,
        most: int = ...,
    ) -> ThreadCpuRet:
        """Measures what the threads of all processes that may be seen use of one CPU, from some time ago until the
        latest sample. What no thread has used that runs still is there as well, in elements without a thread, so that
        the shares of all add up to what the system used: what threads had of a process that have ended, in one for the
        process; what processes had that have ended, named "(ended)"; "(interrupts)"; time "(stolen)" by a hypervisor;
        and "(other)" that the system counted. It fails with 11 EAGAIN in the first tenth of a second of the daemon,
        which has one sample then.
        """
    @overload
    def call(
        self,
        method: Literal["CalculateProcThreadCpuUse"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        interval: int | str | timedelta = ...,
        most: int = ...,
    ) -> OsProcessCpuRet_2:
        """Measures what a process and its threads use of one CPU, from some time ago until now. It reads the same
        samples as CalculateOsProcCpuUse.
        """
    @overload
    def call(
        self,
        method: Literal["GetHugePagesInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> HugePagesOutput:
        """Counts the system's huge pages of the default size.
        """
    @overload
    def call(
        self,
        method: Literal["SysCpuStatInfoQuery"],
        /,
        *,
        deadline: float | None = ...,
    ) -> SysCpuStatInfo:
        """Shows what all processes that may be seen use of the CPUs, with their states, users and programs. Behind them
        is what no running process used: elements with the process 0, so that the shares of all add up to what the
        system used. They are named "(ended)", for processes that have ended since; "(interrupts)"; "(stolen)", by a
        hypervisor; and "(other)", for what the system counted besides. It fails with 11 EAGAIN in the first tenth of a
        second of the daemon, which has one sample then.
        """
    @overload
    def call(
        self,
        method: Literal["MultiCpuUsageQuery"],
        /,
        *,
        deadline: float | None = ...,
    ) -> MultiCpuUsageRet:
        """Shows how busy each CPU was between the last two samples, and all of them together. It fails with 11 EAGAIN
        in the first tenth of a second of the daemon, which has one sample then.
        """
    @overload
    def call(
        self,
        method: Literal["ResetMaxCpuUseInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> ResetMaxCpuResult:
        """Forgets the highest shares of CPU time, so that they are found anew. Those of the system, the CPUs, the
        processes and the threads of processes that are watched start with the next sample.
        """
    @overload
    def call(
        self,
        method: Literal["SysOvLoadCpuThresholdSet"],
        /,
        *,
        deadline: float | None = ...,
        begins_at: int | str = ...,
        ends_below: int | str = ...,
        must_last: int | str | timedelta = ...,
    ) -> OperResult:
        """Sets from which share of busy time on the system is overloaded. Until it is set no overload is detected; it
        outlives a restart.
        """
    @overload
    def call(
        self,
        method: Literal["OvloadCpuSwitchState"],
        /,
        *,
        deadline: float | None = ...,
    ) -> OvloadCpuSwitchRet:
        """Tells whether CPU overloads of the system are detected.
        """
    @overload
    def call(
        self,
        method: Literal["DisCpuOvloadInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> DisCpuOvloadRet:
        """Shows the last CPU overload of the system, also of before a restart; where it had none, the last one of a
        process that is watched. It is recorded with the process that used most, or that is watched. The call fails with
        61 ENODATA when there was none.
        """
    @overload
    def call(
        self,
        method: Literal["DisCpuOvloadCallstackInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> TopCpuOvloadThreadCallstackRet:
        """Shows the busiest threads of the last CPU overload and what they were doing. They are those of the process
        that DisCpuOvloadInfo tells. The call fails with 61 ENODATA when there was no overload.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysCpuMonitorHistoryInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> SysCpuMonitorHistoryInfoResult:
        """Shows how busy the CPUs were at each sample of the last hour, and before that in each minute of the last
        week. The last 3600 samples are kept, which is an hour at the default interval; the minutes also beyond a
        restart.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysCpuOverloadCfg"],
        /,
        *,
        deadline: float | None = ...,
    ) -> GetSysCpuOverloadCfgOutput:
        """Shows what is set for CPU overloads, and how many there were.
        """
    @overload
    def call(
        self,
        method: Literal["SetCpuOvProcThreshold"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        on: bool | int | str,
        begins_at: int | str = ...,
        must_last: int | str | timedelta = ...,
    ) -> OperResult:
        """Watches a process for CPU overloads of its own, or no longer. A process is watched until it ends, also beyond
        a restart of the daemon. It fails with 28 ENOSPC for more than 256 processes, and with 2 ENOENT when a process
        that is to be watched no longer is not watched.
        """
    @overload
    def call(
        self,
        method: Literal["GetCpuOvMonProcInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> GetCpuOvMonProcInfoOutput:
        """Shows the threads of a process that is watched for CPU overloads. It fails with 2 ENOENT for another process.
        """
    @overload
    def call(
        self,
        method: Literal["GetKpiCpuInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> DisOsResourceInfoRet:
        """Shows how busy the CPUs are, in four figures. It fails with 11 EAGAIN in the first tenth of a second of the
        daemon, which has one sample then.
        """
    @overload
    def call(
        self,
        method: Literal["GetExceptionInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int = ...,
        skip: int = ...,
        most: int = ...,
        signal: int = ...,
    ) -> ExceptionInfoResult:
        """Shows what agents recorded of fatal signals, the newest first. The records outlive the agent and the daemon.
        """
    @overload
    def call(
        self,
        method: Literal["GetAssertInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int = ...,
        skip: int = ...,
        most: int = ...,
    ) -> AssertInfoResult:
        """Shows what agents recorded of failed assertions, the newest first. The records outlive the agent and the
        daemon.
        """
    @overload
    def call(
        self,
        method: Literal["ResetBBoxInfo"],
        /,
        *,
        deadline: float | None = ...,
        records: Literal["all", "exceptions", "assertions"] | int,
        process: int = ...,
    ) -> ResetBBoxResult:
        """Erases records of fatal signals and of failed assertions.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemStatisPro"],
        /,
        *,
        deadline: float | None = ...,
        process: str | bytes = ...,
        user: str | bytes = ...,
    ) -> SysMemStatisProResult:
        """Shows how much memory processes have and of what kind, the largest in memory first.
        """
    @overload
    def call(
        self,
        method: Literal["DumpOsProcMemValue"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        address: int,
        length: int | str,
    ) -> DumpOsProcMemValueResult:
        """Shows the bytes in a range of a process's memory. It fails with 14 EFAULT when none of them can be read.
        """
    @overload
    def call(
        self,
        method: Literal["MemLeakOrHisQry"],
        /,
        *,
        deadline: float | None = ...,
        report: Literal["suspects", "history", "overloads"] | int = ...,
        process: int = ...,
        interval: int | str | timedelta = ...,
        limit: int = ...,
    ) -> MemLeakQryOut:
        """Shows which processes may leak memory, what memory was like before, or its overloads. A leak suspect is a
        process that was seen for 5 minutes at least, whose resident memory was at its lowest higher in each quarter of
        the time than in the one before, and for which a straight line through a point of each minute rises by more than
        two standard errors, which the report tells beside it.
        """
    @overload
    def call(
        self,
        method: Literal["GetOsProcessMemInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int = ...,
    ) -> SysOsMemInfoResult:
        """Shows the memory of a process, or of all, in detail.
        """
    @overload
    def call(
        self,
        method: Literal["GetOsProcessMapsInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> SysProOsResult:
        """Shows the mappings of a process and how much of each is in memory. A kernel thread has none. It fails with 90
        EMSGSIZE for more than 65536, and for a client with the default limit on replies for more than about 22000.
        Texts that don't fit are cut at the end.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemStatisFile"],
        /,
        *,
        deadline: float | None = ...,
    ) -> SysMemStatisFileResult:
        """Shows the files that processes map: programs, libraries, data, and shared memory with and without a name.
        There are 8000 at most.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysOsMemFileList"],
        /,
        *,
        deadline: float | None = ...,
        least: int | str = ...,
    ) -> SysOsMemFileResult:
        """Lists the files on file systems in memory: tmpfs, ramfs, hugetlbfs. There are 8000 at most.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemStatisShare"],
        /,
        *,
        deadline: float | None = ...,
    ) -> SysMemStatisShareResult:
        """Lists shared memory: System V segments and the files of /dev/shm. There are 20000 at most.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemOverloadStat"],
        /,
        *,
        deadline: float | None = ...,
    ) -> GetSysMemOverloadStatOutput:
        """Shows when memory was overloaded.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemOverloadSw"],
        /,
        *,
        deadline: float | None = ...,
    ) -> GetSysMemOverloadSwOutput:
        """Tells whether memory overloads are watched for, and whether that is logged.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemOverloadCfg"],
        /,
        *,
        deadline: float | None = ...,
    ) -> GetSysMemOverloadCfgOutput:
        """Shows what is set for memory overloads, how much is in use, and how many there were.
        """
    @overload
    def call(
        self,
        method: Literal["SysOvLoadMemThresholdSet"],
        /,
        *,
        deadline: float | None = ...,
        begins_at: int | str = ...,
        ends_below: int | str = ...,
    ) -> OperResult:
        """Sets from which share in use on memory is overloaded. It outlives a restart, and the master is told of it.
        """
    @overload
    def call(
        self,
        method: Literal["ClearEnvAct"],
        /,
        *,
        deadline: float | None = ...,
        what: Literal["overload", "leak", "settings"],
        pattern: str | bytes = ...,
    ) -> Result:
        """Starts a record of memory anew, or gives up what clients have set for what the master has or the default. It
        fails with 28 ENOSPC for more than 64 patterns; an empty one clears the others.
        """
    @overload
    def call(
        self,
        method: Literal["GetSysMemUseInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> SysMemUseInfoResult:
        """Shows how the memory of each NUMA node is used. A system without nodes has one record, "system". The reply
        explains where the nodes are not the whole system.
        """
    @overload
    def call(
        self,
        method: Literal["SetOvLoadDebugSwitch"],
        /,
        *,
        deadline: float | None = ...,
        monitors: Iterable[Literal["cpu", "memory"] | int] | int | str,
        on: bool | int | str,
    ) -> Result:
        """Switches on or off that overload monitors log what they see of each sample. They are off after a restart.
        """
    @overload
    def call(
        self,
        method: Literal["AppMemInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        view: Literal["units", "details", "modules", "holders"] | int = ...,
    ) -> AppMemInfoOutput:
        """Shows the memory of an application, as its agent tells it.
        """
    @overload
    def call(
        self,
        method: Literal["GetKpiMemoryInfo"],
        /,
        *,
        deadline: float | None = ...,
    ) -> DisOsResourceInfoRet_2:
        """Shows how much memory is in use, in four figures.
        """
    @overload
    def call(
        self,
        method: Literal["ZipLogFile"],
        /,
        *,
        deadline: float | None = ...,
        source: str | bytes = ...,
        directory: str | bytes = ...,
        name: str | bytes,
        compression: Literal["compressed", "stored"] | int = ...,
    ) -> Result:
        """Packs a file or a directory into a ZIP archive. Left out are links, files that may not be read, what lies
        more than 32 directories deep, and what is beyond 200000 files or 16 GiB, of which 256 MiB may be holes; the
        reply explains how many were left out, and the log names the first. A file that grows meanwhile is packed as far
        as it went at first, the end of one that shrinks as zeros. Earlier archives are left out as well but for one
        that is the source itself. The archive is there only when it is complete. It fails with EEXIST (17) where its
        name is that of a file which is no archive of the daemon's, and with ESHUTDOWN (108), ETIMEDOUT (110) or
        ECANCELED (125) where it is given up since the daemon stops, or the caller's time is over, or the caller is
        gone.
        """
    @overload
    def call(
        self,
        method: Literal["CopyZipLogFile"],
        /,
        *,
        deadline: float | None = ...,
        target: str | bytes,
        if_exists: Literal["replace"] = ...,
        mode: Literal["move"] = ...,
        archive: str | bytes,
        destination: str | bytes = ...,
    ) -> Result:
        """Copies an archive of the log directory to another directory. The copy is there only when it is complete. It
        fails with ESHUTDOWN (108), ETIMEDOUT (110) or ECANCELED (125) where it is given up since the daemon stops, or
        the caller's time is over, or the caller is gone.
        """
    @overload
    def call(
        self,
        method: Literal["SetTimezone"],
        /,
        *,
        deadline: float | None = ...,
        zone: Mapping[str, Any] = ...,
    ) -> Result:
        """Sets the time zone of the daemon's clock. The local times in its replies and texts follow it, also beyond a
        restart. Until a zone is set, the system's zone and daylight saving hold, and a rule of daylight saving that a
        client set before is kept for it. EINVAL (22) is answered to an offset that the system does not have for a zone
        of which it has a file; other names are labels. With --apply-clock the system's zone is set as well, of which
        the system must have a file: ENOENT (2) where it has none, and EPERM (1) where the daemon may not.
        """
    @overload
    def call(
        self,
        method: Literal["SetDst"],
        /,
        *,
        deadline: float | None = ...,
        rule: Mapping[str, Any] = ...,
    ) -> Result:
        """Sets the daylight saving of the daemon's clock. The local times in its replies and texts follow it, also
        beyond a restart, once a time zone is set.
        """
    @overload
    def call(
        self,
        method: Literal["SetGmt"],
        /,
        *,
        deadline: float | None = ...,
        time: datetime | str,
    ) -> Result:
        """Sets the daemon's clock to a time in GMT. The times in its replies and texts follow its clock, also beyond a
        restart. With --apply-clock the system's clock is set instead: EPERM (1) where the daemon may not.
        """
    @overload
    def call(
        self,
        method: Literal["SetLocalTime"],
        /,
        *,
        deadline: float | None = ...,
        time: datetime | str,
    ) -> Result:
        """Sets the daemon's clock to a local time, by its time zone and daylight saving. Of a time that occurs twice it
        is the first; one that the clock skips when it goes forward is refused. The times in the daemon's replies and
        texts follow its clock, also beyond a restart. With --apply-clock the system's clock is set instead: EPERM (1)
        where the daemon may not.
        """
    @overload
    def call(
        self,
        method: Literal["SetDateFormat"],
        /,
        *,
        deadline: float | None = ...,
        format: Literal["year-month-day", "day-month-year", "month-day-year"] | int,
    ) -> Result:
        """Sets how the daemon writes dates, also beyond a restart.
        """
    @overload
    def call(
        self,
        method: Literal["GetMirelMemHandleInfoByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> GetMirelMemHandleInfoOutput:
        """Lists the memory handles of an application, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["GetProcPartitionMemHandleRecodByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        partition: int = ...,
        handle: int = ...,
        skip: int = ...,
        most: int = ...,
        in_use: bool | int | str = ...,
        process: int,
    ) -> ProcPtRecodResult:
        """Lists what the memory handles of an application hold in their partitions, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["GetMirelMemPtInfoByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        partition: int,
        process: int,
    ) -> GetMirelMemPtInfoOutput:
        """Tells the state of a memory partition of an application, by block size and by handle, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["MemDiagMaByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        command: Literal["summary", "blocks", "mark", "since", "look"] | int,
        argument: str | bytes = ...,
        process: int,
    ) -> mem_PRCOUT:
        """Runs a diagnosis command on an application's memory, by its agent, and answers with text.
        """
    @overload
    def call(
        self,
        method: Literal["DBGCmdExecShowByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        command: str | bytes = ...,
        process: int,
    ) -> None:
        """Has an application's agent run a debug command; DBGCmdExecResultGetByTarnd fetches what becomes of it.
        Commands run one after the other.
        """
    @overload
    def call(
        self,
        method: Literal["DBGCmdExecResultGetByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> DiagResult:
        """Tells what became of the last debug command that an application's agent has taken.
        """
    @overload
    def call(
        self,
        method: Literal["DBGCmdExecCleanByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> None:
        """Has an application's agent forget the debug commands that wait and the last result. A running command's
        output is dropped.
        """
    @overload
    def call(
        self,
        method: Literal["SetMemDmgScanTarnd"],
        /,
        *,
        deadline: float | None = ...,
        scan: Literal["off", "on", "once"] | int,
        process: int,
    ) -> MemDmgScanOut:
        """Switches the scan for damaged blocks in an application, by its agent. Each block has guard bytes before and
        behind it, which nobody may write; a scan finds those that were overwritten.
        """
    @overload
    def call(
        self,
        method: Literal["GetMemDmgInfoTarnd"],
        /,
        *,
        deadline: float | None = ...,
        report: Literal["both", "damages", "hostages"] | int = ...,
        process: int,
    ) -> MemDmgInfoOut:
        """Tells which memory blocks of an application were found damaged, or are hostages, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["GetTaskInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int = ...,
        thread: int = ...,
        names: str | bytes = ...,
        skip: int = ...,
        most: int = ...,
    ) -> GetTaskInfoResult:
        """Lists threads, with what the scheduler counted of them and how often they starved.
        """
    @overload
    def call(
        self,
        method: Literal["ResetTaskRecord"],
        /,
        *,
        deadline: float | None = ...,
        thread: int = ...,
    ) -> TaskResult:
        """Forgets what was recorded of threads that starved.
        """
    @overload
    def call(
        self,
        method: Literal["SetTaskStarvThreshold"],
        /,
        *,
        deadline: float | None = ...,
        threshold: int | str | timedelta,
    ) -> TaskResult:
        """Sets how long a thread must wait for a CPU to starve, also beyond a restart.
        """
    @overload
    def call(
        self,
        method: Literal["SetTaskSwitch"],
        /,
        *,
        deadline: float | None = ...,
        on: bool | int | str,
    ) -> TaskResult:
        """Switches the watch for threads that starve, also beyond a restart. A thread starves that was ready, but
        waited for a CPU for at least the threshold at a stretch. Of several waits between two samples the longest is
        not known: the least that it can have been is taken.
        """
    @overload
    def call(
        self,
        method: Literal["GetAllTidsByPid"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> Tids:
        """Lists the threads of a process.
        """
    @overload
    def call(
        self,
        method: Literal["GetCallStackInfoByTid"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        thread: int = ...,
    ) -> CallStackContext:
        """Reads the call stacks of a process's threads. A thread is held up for as long as its registers and 256 KiB of
        its stack take to copy, no longer. It fails with EPERM (1) where the process may not be looked into, or is
        traced by another one; with EOPNOTSUPP (95) for a thread of the kernel; with ETIMEDOUT (110) for a thread asked
        for that waits for a device and does not stop; and with ESRCH (3) for a process that ends meanwhile. The reply
        explains which threads have more than 32 frames, where each module begins, and its build id.
        """
    @overload
    def call(
        self,
        method: Literal["TarnGetDlpCfgFromAgent"],
        /,
        *,
        deadline: float | None = ...,
        thread: int = ...,
        with_loops: bool | int | str = ...,
        process: int,
    ) -> GetDeadLoopCfgResult:
        """Tells how an application's threads are watched for dead loops, and which ran into some, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["SetNoxTimerDebugSwitchByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        on: bool | int | str,
        process: int,
    ) -> Result:
        """Switches the log of an application's timers on or off, by its agent.
        """
    @overload
    def call(
        self,
        method: Literal["DetectTarndServerOnline"],
        /,
        *,
        deadline: float | None = ...,
    ) -> None:
        """Tells the daemon that a peer is there, or has something new. The daemon announces itself to the master and
        takes over what the master has, as at its own start: the time, time zone and daylight saving, the overload
        thresholds of "system", times and mode of measurement. What a client has set holds before what the master has,
        until ClearEnvAct gives it up; what the master has not configured stays. Memory thresholds that a client sets
        are told to the master, which keeps them.
        """
    @overload
    def call(
        self,
        method: Literal["TarnSetDimOpration"],
        /,
        *,
        deadline: float | None = ...,
        operation: Literal["measure", "record", "forget", "cancel", "start"] | int,
    ) -> Result:
        """Measures what runs, or records a baseline for it. Measurement compares the SHA-256 digests of the executables
        and libraries that all processes run with the baseline. A process that may not be looked into is hidden, a file
        whose content can't be reached unread. A file of more than 2 GiB is left out, and what goes beyond 4 GiB of a
        user's files or 32 GiB of all users' but root's; one that is recorded and has become too large has changed. The
        log tells what differs as soon as it is found. Code in memory that has no file is not measured. What is answered
        when it is done is given up when the caller gives up, with ETIMEDOUT (110) or ECANCELED (125). EBUSY (16) is
        answered while 16 measurements wait.
        """
    @overload
    def call(
        self,
        method: Literal["TarnSetDimTimeCfgByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        hour: Literal["every-seconds", "every-minutes"] | int,
        minute: int,
    ) -> None:
        """Sets when the daemon measures by itself, also beyond a restart. Hours are those of the daemon's clock and
        zone. At the start it never measures by itself.
        """
    @overload
    def call(
        self,
        method: Literal["TarnSetDimWorkModeCfgByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        mode: Literal["off", "report", "learn"] | int,
    ) -> None:
        """Sets whether the daemon measures by time, and what becomes of new files, also beyond a restart.
        """
    @overload
    def call(
        self,
        method: Literal["TarnGetDimMeasRstByTarnd"],
        /,
        *,
        deadline: float | None = ...,
    ) -> DimMeasRst:
        """Tells the result of the last measurement. The log names all files.
        """
    @overload
    def call(
        self,
        method: Literal["TarnPadsGetSystemHealthInfoByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        item: Literal["cpu", "cpu-pressure", "memory", "memory-pressure", "io-pressure", "disk", "descriptors", "load",
            "agents", "cpu-event", "cpu-event-time"] | int = ...,
        process: int = ...,
    ) -> PadsSystemHealthResult:
        """Looks at the health of the system, or at that of a process, by its agent. Times are the daemon's, also of
        what an agent tells; the reply explains how far they are from GMT.
        """
    @overload
    def call(
        self,
        method: Literal["TarnPadsSetPadsGlobalSwitchByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        on: bool | int | str,
    ) -> None:
        """Switches all health items together, of the daemon and of the agents, also beyond a restart. It is on at the
        start, and each item has a switch besides.
        """
    @overload
    def call(
        self,
        method: Literal["TarnPadsSetPadsAppFunSwitchByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        item: Literal["cpu", "cpu-pressure", "memory", "memory-pressure", "io-pressure", "disk", "descriptors", "load",
            "agents", "cpu-event", "cpu-event-time"] | int = ...,
        on: bool | int | str,
        limit: int = ...,
    ) -> None:
        """Switches a health item of the daemon or of the agents, and sets its limit, also beyond a restart. An item of
        the daemon is degraded from its limit on; it is bad from twice of it or, for a share, from the middle between it
        and the whole. Subscribers (TarnAppSubscribe) that have an agent are notified through its TarnUpdateResourceInfo
        of each change of the level of "cpu", "memory" or "descriptors".
        """
    @overload
    def call(
        self,
        method: Literal["TarnPadsGetCpuEventByTarnd"],
        /,
        *,
        deadline: float | None = ...,
        process: int = ...,
        within: int | str | timedelta = ...,
        most: int = ...,
    ) -> PadsCpuEventResult:
        """Lists CPU events: a CPU was busy too long, mostly with one thread. An event that lasts is there as it is so
        far. The health items "cpu-event" and "cpu-event-time" say what is too long.
        """
    @overload
    def call(
        self,
        method: Literal["ProcTableBuild"],
        /,
        *,
        deadline: float | None = ...,
        options: Iterable[Literal["without-kernel", "as-tree"] | int] | int | str = ...,
    ) -> ProcTableBuildOutput:
        """Keeps a table of all processes that may be seen, which replaces an older one.
        """
    @overload
    def call(
        self,
        method: Literal["GetProcTable"],
        /,
        *,
        deadline: float | None = ...,
    ) -> GetProcTableResult:
        """Lists the process table as it was built: ENODATA (61) before ProcTableBuild.
        """
    @overload
    def call(
        self,
        method: Literal["GetQ5ProcInfo"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
    ) -> GetQ5ProcInfoOutput:
        """Tells the parent and the session of a process.
        """
    @overload
    def call(
        self,
        method: Literal["UpdateMsgCtrlRuleTarnd"],
        /,
        *,
        deadline: float | None = ...,
        rule: int,
        priority: int = ...,
        action: Literal["pass", "drop", "limit"] | int,
        first_type: int = ...,
        last_type: int = ...,
        rate: int = ...,
        burst: int = ...,
        lasts: int | str | timedelta = ...,
        process: int = ...,
        sender: str | bytes = ...,
        receiver: str | bytes = ...,
        message: str | bytes = ...,
    ) -> Result:
        """Sets a message-control rule in all agents: a new one, or in place of the one of its number. It is kept beyond
        a restart and brought to the agents that are there, and to those that register later. One for a process ends
        with it. Its patterns are of printable ASCII characters. EINVAL (22) is answered to a rule that makes no sense,
        ENOSPC (28) where there would be more than 64, and ESRCH (3) where there is no such process.
        """
    @overload
    def call(
        self,
        method: Literal["ClearMsgCtrlRuleTarnd"],
        /,
        *,
        deadline: float | None = ...,
    ) -> Result:
        """Removes all message-control rules, also from the agents.
        """
    @overload
    def call(
        self,
        method: Literal["TarnGetMsgRuleInfoTarnd"],
        /,
        *,
        deadline: float | None = ...,
        rule: int = ...,
        skip: int = ...,
        process: int = ...,
    ) -> GetMsgRuleInfoResult:
        """Lists the message-control rules that the daemon keeps, or those of an agent, by rising priority.
        """
    @overload
    def call(
        self,
        method: Literal["TarnGetSubscribeInfoTarnd"],
        /,
        *,
        deadline: float | None = ...,
        events: Iterable[Literal["cpu", "memory", "descriptors"] | int] | int | str = ...,
        skip: int = ...,
        process: int = ...,
    ) -> GetSubscribeInfoResult:
        """Lists the subscriptions to the daemon, or those to an agent.
        """
    @overload
    def call(
        self,
        method: Literal["TarnGetTimerInfoTarnd"],
        /,
        *,
        deadline: float | None = ...,
        timer: int = ...,
        skip: int = ...,
        most: int = ...,
        process: int = ...,
    ) -> GetTimerInfoResult:
        """Lists the timers of the daemon and of all applications, by their agents; or of one of them. Where all are
        listed, an application's have its process before their names, "4711:flush", and the reply explains whose agents
        did not answer.
        """
    @overload
    def call(
        self,
        method: Literal["AgentRegInfo"],
        /,
        *,
        deadline: float | None = ...,
        name: str | bytes,
        process: int,
        version: int,
        announces: Literal["leaves", "runs"] | int,
    ) -> AgentRegInfoResult:
        """Tells the daemon that an agent runs in a process, or that it leaves. It is repeated from time to time, so
        that a daemon that was started anew knows its agents.
        """
    @overload
    def call(
        self,
        method: Literal["TarnAppSubscribe"],
        /,
        *,
        deadline: float | None = ...,
        process: int,
        events: Iterable[Literal["cpu", "memory", "descriptors"] | int] | int | str,
    ) -> Result:
        """Subscribes a process to events of the machine's resources, instead of what it subscribed to before. Its agent
        is told of them, at first of how they are. The subscription ends with the process.
        """
