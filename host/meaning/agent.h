// What the agent's service means.
#pragma once

#include "host/meaning/shared_records.h"
#include "tarn_sysdiag/types/agent.h"

namespace host::meaning {

// ---- Debug commands ----

METHOD(DBGCmdExecShow, Group::kCommands,
       "Takes a debug command, which the agent's thread runs in the application. Commands run one after the other, and "
       "no more than eight wait; DBGCmdExecResultGet tells what became of the last one.",
       "command=threads")
RECORD(DbgCmdShowInput,
       {"pcCmdStr", "command", Text().Zero("no command: the result is 22"),
        "The command's name and its arguments, words separated by blanks; \"help\" lists the commands."})

METHOD(DBGCmdExecResultGet, Group::kCommands, "Tells what became of the debug command that was taken last.", "")
RECORD(DiagResult,
       {"uiResult", "result", Errno(),
        "0, or: ENOENT (2), there is no such command; EBUSY (16), too many commands were waiting, and it was not "
        "taken; EINVAL (22), the line has no command; ENODATA (61), none was taken since the start, or since "
        "DBGCmdExecClean; EINPROGRESS (115), it waits or runs; or what the command itself returned."},
       {"uiValue", "number", Number().Zero("none was taken"), "The command's number, counted from 1."},
       {"szText", "output", Lines(), "What the command wrote; what is more than there is room for is cut off."})

METHOD(DBGCmdExecClean, Group::kCommands,
       "Forgets the debug commands that wait and the last result. A running command's output is dropped.", "")

// ---- Memory ----

METHOD(GetProcPartitionMemHandleRecod, Group::kMemory,
       "Lists what the memory handles of the application hold in their partitions.", "partition=1 in-use=1")
RECORD(ProcPtRecodInput, {"uiPtParam1", "partition", Number().Zero("all"), "Handles of this partition."},
       {"uiPtParam2", "handle", Number().Zero("all"), "This handle."},
       {"uiPtParam3", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiPtParam4", "most", Count().Zero("all"), "How many matches to return."},
       // any number but 0 is on
       {"uiPtParam5", "in-use", Switch().UpTo(UINT32_MAX).Default(0), "Only handles that hold blocks."})
RECORD(ProcPtRecodResult, {"uiResult", "result", Errno(), "0, or why there is nothing else."},
       {"uiPid", "process", Pid(), "The process."},
       {"uiTotalNum", "matches", Count(), "How many handles match the request, whether they are returned or not."},
       {"pstRecod", "handles", Records(), "The handles, by rising number."})
RECORD(ProcPtRecod, {"uiPtId", "partition", Number(), "The partition that it takes blocks of."},
       {"uiHandleId", "handle", Number(), "The handle."}, {"szHandleName", "name", Text(), "The handle's name."},
       {"uiBlockSize", "block-size", Bytes().Zero("the application allocates by itself, and only accounts for it"),
        "The size of the partition's blocks."},
       {"uiBlockNum", "blocks", Count(), "The blocks that it holds."},
       {"uiPeakNum", "peak-blocks", Count(), "The most blocks that it ever held at once."},
       {"uiFailNum", "failed", Count(), "Allocations that were refused since it was opened."},
       {"ullAllocNum", "allocations", Count(), "Allocations that were served since it was opened."},
       {"ullUsedBytes", "used", Bytes(), "What was asked for of the blocks that it holds, without rounding up."},
       {"pcOwner", "owner", Text().Zero("unknown"), "The program or shared object whose code opened it."},
       {"puiTid", "threads", Tids(), "The threads that allocated through it."})

METHOD(SetMemDmgScan, Group::kSettings,
       "Switches the scan for damaged blocks. Each block has guard bytes before and behind it, which nobody may write; "
       "a scan finds those that were overwritten.",
       "scan=once", Duration::kLong)
RECORD(MemDmgScanIn, {"uiScanSwitch", "scan", OneOf(damage_scan::kAll), "Whether blocks are scanned."})
RECORD(MemDmgScanOut, {"uiResult", "result", Errno(), "0, or why it was not done."})

METHOD(GetMemDmgInfo, Group::kMemory,
       "Tells which memory blocks were found damaged, and which TarnDetectMemHostage found to be hostages.",
       "report=damages", Duration::kLong)
RECORD(MemDmgInfoIn,
       {"uiInfoType", "report", OneOf(damage_report::kAll).Default(damage_report::kBoth), "What to report."})
RECORD(MemDmgInfoOut,
       {"pucInfo", "text", Lines(),
        "A line for each of the newest 64 damages, with when it was found, and for each hostage."},
       {"uiValue1", "lines", Count(), "The lines of the text."})

METHOD(GetMirelMemHandleInfo, Group::kMemory, "Lists the open memory handles and what each holds.", "")
RECORD(GetMirelMemHandleInfoOutput, {"uiValue1", "open-handles", Count(), "The handles that are open."},
       {"uiValue2", "partitions", Count(), "The partitions that there are."},
       {"uiValue3", "damages", Count(), "The damages of memory that were found since the process started."},
       {"pstHandle", "handles", Records(), "The open handles, by rising number."})
RECORD(MirelMemHandleInfo, {"uiValue", "handle", Number(), "The handle."},
       {"szName", "name", Text(), "The handle's name."},
       {"ullValue", "used", Bytes(), "What it holds, without rounding up to blocks."})

METHOD(GetTopNHandleInfo, Group::kMemory, "Lists the ten memory handles that hold most, the largest first.", "")
RECORD(GetTopNHandleInfoOutput, {"uiResult", "result", Errno(), "0, or why there is nothing else."},
       {"uiHandleTotal", "open-handles", Count(), "The handles that are open, of which the largest are returned."},
       {"ullTotalBytes", "used", Bytes(), "What all open handles hold."},
       {"pstHandle", "handles", Records(), "Those that hold most, the largest first."})
RECORD(MemHandleUse, {"uiHandleId", "handle", Number(), "The handle."},
       {"szHandleName", "name", Text(), "The handle's name."},
       {"uiBlockNum", "blocks", Count(), "The blocks of its partition that it holds."},
       {"ullUsedBytes", "used", Bytes(), "What it holds, without rounding up to blocks."},
       {"ullPeakBytes", "peak", Bytes(), "The most that it ever held at once."})

METHOD(GetMirelMemPtInfo, Group::kMemory, "Tells the state of one memory partition, by size of blocks and by handle.",
       "partition=1")
RECORD(GetMirelMemPtInfoInput, {"uiPtId", "partition", Number(), "The partition."})
RECORD(GetMirelMemPtInfoOutput,
       {"uiResult", "result", Errno(), "0, or why there is nothing else: ENOENT (2), there is no such partition."},
       {"uiPtId", "partition", Number(), "The partition."}, {"szPtName", "name", Text(), "The partition's name."},
       {"ullTotalBytes", "total", Bytes(), "Its size; of memory that is only accounted for, what is in use."},
       {"ullUsedBytes", "used", Bytes(), "What is in use of it."},
       {"ullPeakBytes", "peak", Bytes(), "The most that ever was in use at once."},
       {"ullMaxFreeBytes", "largest-free", Bytes(), "Its largest free piece, which tells how fragmented it is."},
       {"pstBlockClass", "block-sizes", Records(), "Its blocks by their size, the smallest first."},
       {"pstHandle", "handles", Records(), "The handles that hold blocks of it, the largest first."})
RECORD(MemBlockClass, {"uiBlockSize", "block-size", Bytes(), "The size of these blocks."},
       {"uiUsedNum", "used-blocks", Count(), "Those in use."},
       {"uiFreeNum", "free-blocks", Count(), "Those that are free."},
       {"uiPeakNum", "peak-blocks", Count(), "The most that ever were in use at once."})

METHOD(MemDiag_ma, Group::kMemory, "Runs a diagnosis command on the application's memory, and answers with text.",
       "command=summary", Duration::kLong)
RECORD(mem_RPCIN, {"uiMemCmd", "command", OneOf(memory_command::kAll), "The command."},
       {"pucMemData", "argument", Text().Zero("none"),
        "Its argument, where it takes one: a decimal number, or a hexadecimal one behind 0x."})
RECORD(mem_PRCOUT, {"uiValue1", "result", Errno(), "0, or why there is nothing else."},
       {"pucData", "text", Lines(), "The answer."}, {"uiValue2", "lines", Count(), "Its lines without the head."})

METHOD(MemHandleCallStack, Group::kMemory,
       "Tells where blocks of a memory handle were allocated, one site for each call.", "handle=3")
RECORD(MemHandInfo, {"uiHandleId", "handle", Number(), "The handle."},
       {"uiStackIndex", "site", Number().Zero("the one that holds most"),
        "The allocation site, counted from 0; that with the most memory is first."})
RECORD(MemHandInfoOut,
       {"uiResult", "result", Errno(), "0, or why there is nothing else: ENOENT (2), there is no such handle or site."},
       {"uiHandleId", "handle", Number(), "The handle."},
       {"uiStackTotal", "sites", Count(), "The sites at which blocks that it holds were allocated."},
       {"uiBlockNum", "blocks", Count(), "The blocks of its partition that were allocated at this site and are held."},
       {"ullUsedBytes", "used", Bytes(), "What they hold, without rounding up to blocks."},
       {"szHandleName", "name", Text(), "The handle's name."},
       {"uiAddrNum", "frames", Count(), "How many addresses the stack has."},
       {"aullStackAddr", "stack", Address().Zero("none"), "The return addresses, the innermost first."})

METHOD(GetCallStackFunction, Group::kMemory, "Names the functions in which addresses of the process lie.",
       "addresses=0x401000")
RECORD(CallStackInput,
       {"uiPid", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."},
       {"aullStackAddr", "addresses", Address().Zero("none"), "The addresses, as MemHandleCallStack returns them."})
RECORD(CallStackOutput, {"astFuncName", "functions", Records(), "The function of each address, in their order."})
RECORD(FuncName,
       {"szFuncName", "function", Text().Zero("no address was given"),
        "The function and the address's distance from its start, as \"name+0x1f\"; \"?\" where none is known."})

// ---- Dead loops, timers, hostages ----

METHOD(GetDeadLoopCfg, Group::kReading,
       "Tells how the application's threads are watched for dead loops, and who ran into some.", "with-loops=1")
RECORD(GetDeadLoopCfgInput, {"uiValue1", "thread", Tid().Zero("all"), "This thread."},
       // any number but 0 is on
       {"uiValue2", "with-loops", Switch().UpTo(UINT32_MAX).Default(0), "Only threads that have run into a dead loop."},
       {"uiValue3", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."})
RECORD(GetDeadLoopCfgResult,
       {"uiResult", "result", Errno(), "0, or why there is nothing else: ESRCH (3), there is no such thread."},
       {"ucSwitch", "on", Switch(), "Whether threads are watched."},
       {"uiPeriodMs", "period", Milliseconds(), "The time between two checks."},
       {"uiLimitMs", "limit", Milliseconds(),
        "How long a thread without a limit of its own has to run without a break for a dead loop."},
       {"uiCpuPercent", "least-cpu", Percent(),
        "The share of one CPU from which on a thread counts as running without a break; that it waits for the CPU "
        "counts, too."},
       {"puiCpu", "cpus", Numbers(), "The CPUs whose threads are watched; none for all."},
       {"pstThread", "threads", Records(), "The threads that match the request."})
RECORD(DeadLoopThreadCfg, {"uiTid", "thread", Tid(), "The thread."},
       {"szThreadName", "name", Text(), "The thread's name, as the kernel knows it."},
       {"ucSwitch", "on", Switch(), "Whether it is watched."},
       {"uiLimitMs", "limit", Milliseconds(), "How long it has to run without a break for a dead loop."},
       {"uiDetectNum", "dead-loops", Count(), "The dead loops that it ran into."})

METHOD(SetNoxTimerDebugSwitch, Group::kSettings,
       "Switches whether each expiry of a timer of the application is logged, with its delay and how long its function "
       "ran.",
       "on=1")
RECORD(SetNoxTimerDebugSwitchInput, {"uiDebugSwitch", "on", Switch(), "Whether expiries are logged."})

METHOD(TarnDetectMemHostage, Group::kMemory,
       "Looks for hostages: blocks that are still held though the thread that allocated them has ended. GetMemDmgInfo "
       "reports them.",
       "")

// ---- Health ----

METHOD(TarnPadsGetProcSystemHealthInfo, Group::kReading, "Looks at the health items of the process that are on.", "")
RECORD(PadsSystemHealthResult,
       {"uiValue1", "level", OneOf(system_health_level::kAll), "The worst level of the items of which it is known."},
       {"uiValue2", "on", Switch(), "The global switch; while it is off, no item is looked at."},
       {"pstHealthInfo", "items", Records(), "The items; of one that is off the level is unknown."})
RECORD(SysHealthInfo, {"ucValue1", "level", OneOf(system_health_level::kAll), "The item's level."},
       {"acValue1", "name", Text(), "The item's name."}, {"acValue2", "source", Text(), "The agent's name."},
       {"acValue3", "looked-at", LocalTime(), "When it was looked at."},
       {"acValue4", "found", Text(), "What was found."})

METHOD(TarnPadsSetProcPadsGlobalSwitch, Group::kSettings,
       "Switches all health items together. It is on at the start, and each item has a switch besides.", "on=1")
RECORD(PadsGlobalSwitch,
       {"ucGlobalSwitch", "on", Switch(), "Whether items that are on are looked at; off: no item is."})

METHOD(TarnPadsSetProcPadsAppFunSwitch, Group::kSettings,
       "Switches a health item, and sets its limit. It is degraded from its limit on, and bad from twice of it; the "
       "application's items judge by themselves.",
       "item=threads on=1 limit=600")
RECORD(PadsAppFunSwitch,
       {"ucFunction", "item", OneOf(health_item::kAll).Open().Zero("all"),
        "The item: one that every agent has, or from 64 on one of the application's."},
       {"ucSwitch", "on", Switch(), "Whether it is looked at."},
       {"uiValue", "limit", Count().Zero("as it was"), "Its limit, in what the item measures."})

// ---- Message rules ----

METHOD(UpdateMsgCtrlRule, Group::kSettings,
       "Adds a message-control rule, or replaces the one of its number. A message is tried against the rules by rising "
       "priority; the first that matches decides, and a message that none matches passes. An agent has room for 256.",
       "rule=1 priority=10 action=limit rate=100 sender=counter*")
RECORD(UpdateMsgCtrlRuleInput, {"uiValue1", "rule", Number().From(1), "The rule's number."},
       {"uiValue2", "priority", Number().Default(0),
        "Its place: those of lower priority are tried before it, and those of the same that were set before it."},
       {"uiValue3", "action", OneOf(rule_action::kAll), "What becomes of a message that it matches."},
       {"uiValue4", "first-type", Number().Zero("from 0 on").NotAbove("uiValue5"),
        "The lowest type of the messages that it matches."},
       {"uiValue5", "last-type", Number().Zero("all, if first-type is 0, too"),
        "The highest type of the messages that it matches."},
       {"uiValue6", "rate", Count().From(1).Where("uiValue3", rule_action::kLimit),
        "How many messages may pass in a second."},
       {"uiValue7", "burst", Count().Zero("as many as in a second").Where("uiValue3", rule_action::kLimit),
        "How many messages may pass at once."},
       {"uiValue8", "lasts", Seconds().Zero("without end"), "The time after which the rule ends."},
       {"uiValue9", "process", Pid().Zero("all"), "The process that it is for; an agent takes those of its own only."},
       {"acRule1", "sender", Pattern().Zero("all"), "The senders whose messages it matches."},
       {"acRule2", "receiver", Pattern().Zero("all"), "The receivers whose messages it matches."},
       {"acRule3", "message", Pattern().Zero("all"), "The names of the messages that it matches."})

METHOD(ClearMsgCtrlRule, Group::kSettings, "Removes all message-control rules.", "")

METHOD(GetMsgCtrlRule, Group::kReading, "Lists the message-control rules and what they did.", "rule=1")
RECORD(GetMsgRuleInfoInput, {"uiValue1", "rule", Number().Zero("all"), "The rule of this number."},
       {"uiValue2", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiValue3", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."})
RECORD(GetMsgRuleInfoResult, {"uiResult", "result", Errno(), "0, or why there is nothing else."},
       {"pstRule", "rules", Records(), "The rules, in the order in which they are tried."})
RECORD(MsgRuleInfo, {"stRule", "definition", OneRecord(), "The rule as it was set."},
       {"ullMatchNum", "matched", Count(), "The messages that it matched since it was set."},
       {"ullDropNum", "dropped", Count(), "Those of them that it stopped."},
       {"uiAgeSec", "age", Seconds(), "The time since it was set."})

// ---- Resources and timers ----

METHOD(TarnUpdateResourceInfo, Group::kSettings,
       "Tells the process how far a resource of the machine is used, so that it can hold back. Those in the process "
       "that subscribe to the resource are told.",
       "resource=cpu level=normal used=10%")
RECORD(UpdateResourceInfoInput, {"ucResource", "resource", OneOf(resource::kAll), "The resource."},
       {"ucLevel", "level", OneOf(resource_level::kAll), "How near its limit it is."},
       {"usUsage", "used", Permille(), "How much of it is used."})

METHOD(TarnGetSubscribe, Group::kReading, "Lists who in the process subscribes to the machine's resources.",
       "events=cpu")
RECORD(GetSubscribeInfoInput,
       {"uiValue1", "events", SumOf(event::kAll).Open().Zero("any"), "Subscriptions to at least one of these."},
       {"uiValue2", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiValue3", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."})
RECORD(GetSubscribeInfoResult,
       {"pstSubscribe", "subscriptions", Records(), "The subscriptions that match the request."},
       {"uiValue1", "reserved", Unused(), "Always 0."},
       {"uiValue2", "events", SumOf(event::kAll), "All events that anybody in the process subscribes to."},
       {"uiValue3", "matches", Count(), "How many subscriptions match the request, whether they are returned or not."},
       {"uiValue4", "process", Pid(), "The process that was asked."})
RECORD(SubscribeInfo, {"szName1", "name", Text(), "The subscription's name."},
       {"szName2", "event-names", Text(), "Its events in words."},
       {"uiValue1", "events", SumOf(event::kAll), "Its events."},
       {"uiValue2", "notified", Count(), "How often it was notified."})

METHOD(TarnAgentGetTimerInfo, Group::kMemory, "Lists the timers of the application.", "timer=1")
RECORD(GetTimerInput, {"uiValue1", "timer", Number().Zero("all"), "This timer."},
       {"uiValue2", "skip", Count().Zero("none"), "How many matches to skip."},
       {"uiValue3", "most", Count().Zero("all"), "How many matches to return."},
       {"uiValue4", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."})
RECORD(GetTimerInfoResult, {"uiResult", "result", Errno(), "0, or why there is nothing else."},
       {"uiPid", "process", Pid(), "The process."},
       {"uiTotalNum", "matches", Count(), "How many timers match the request, whether they are returned or not."},
       {"pstTimer", "timers", Records(), "The timers, by rising number."})
RECORD(TimerInfo, {"uiTimerId", "timer", Number(), "The timer."}, {"szTimerName", "name", Text(), "The timer's name."},
       {"uiTid", "thread", Tid(), "The thread that created it."},
       {"ucState", "state", OneOf(timer_state::kAll), "What it does."},
       {"ucPeriodic", "periodic", Switch(), "On: it starts again by itself; off: it expires once."},
       {"uiPeriodMs", "period", Milliseconds(), "The time from its start to its expiry."},
       {"uiRemainMs", "remaining", Milliseconds().Zero("it is due, or does not run"), "The time until it expires."},
       {"uiMaxRunUs", "longest-run", Microseconds(), "The longest that its function ran."},
       {"uiMaxDelayUs", "longest-delay", Microseconds(), "The furthest that it expired behind its time."},
       {"ullExpireNum", "expiries", Count(), "How often it expired since it was created."},
       {"ullCallbackAddr", "function", Address(), "The address of its function in the process."})

// ---- The application's memory ----

METHOD(TarnGetAppMemUnitInfo, Group::kMemory,
       "Lists the units of memory from which the application allocates: its partitions and the C library's heap.",
       "unit-name=buffers")
RECORD(GetAppMemInfoInput,
       {"uiPid", "process", Pid().Zero("the agent's"),
        "The process whose agent is asked; an agent answers for its own process only."},
       {"uiQueryType", "view", OneOf(app_memory::kOfUnits).Default(app_memory::kUnits), "What is listed."},
       {"uiUnitId", "unit", OneOf(memory_unit::kAll).Open().Zero("all"), "The unit: a partition, or the heap."},
       {"uiModuleId", "module", Unused().UpTo(0), "Must be 0: modules have no numbers, and are chosen by their names."},
       {"uiStart", "skip", Count().Zero("none"),
        "How many matches to skip, so that a long answer can be had in parts."},
       {"uiMaxNum", "most", Count().Zero("all"), "How many matches to return."},
       {"szAppName", "program", Pattern().Zero("all"), "The application's program; another's has no match."},
       {"szUnitName", "unit-name", Pattern().Zero("all"), "The names of the units."},
       {"szModuleName", "module-name", Pattern().Zero("all"),
        "The file names of the programs and shared objects that allocated; units are not chosen by it."})
RECORD(GetAppMemUnitInfoOutput, {"uiResult", "result", Errno(), "0, or why there is nothing else."},
       {"uiTotalNum", "matches", Count(), "How many units match the request, whether they are returned or not."},
       {"pstUnit", "units", Records(), "The units."})
RECORD(AppMemUnit, {"uiUnitId", "unit", OneOf(memory_unit::kAll).Open(), "The unit: a partition, or the heap."},
       {"szUnitName", "name", Text(), "The unit's name."},
       {"ullTotalBytes", "total", Bytes(), "The memory that the unit took from the system."},
       {"ullUsedBytes", "used", Bytes(), "What the application uses of it."},
       {"ullPeakBytes", "peak", Bytes(),
        "The most that it ever used of it at once. Of the heap, of which nothing keeps that, the most of the whole "
        "process that was in memory, or what is used now where that is more."},
       {"pstBlockClass", "block-sizes", Records(), "The unit's blocks by their size, the smallest first."})

METHOD(TarnGetAppMemDetailOrModuleInfo, Group::kMemory,
       "Lists the blocks that the application holds, each by itself or summed by who allocated them.",
       "view=modules unit-name=buffers", Duration::kLong)
VARIANT(TarnGetAppMemDetailOrModuleInfo, GetAppMemInfoInput,
        {"uiQueryType", "view", OneOf(app_memory::kOfBlocks).Default(app_memory::kDetails), "What is listed."},
        {"uiUnitId", "unit", OneOf(memory_unit::kAll).Open().Zero("all"),
         "Blocks of this unit; those of the heap are not known."},
        {"szUnitName", "unit-name", Pattern().Zero("all"), "Blocks of units of such names."},
        {"szModuleName", "module-name", Pattern().Zero("all"),
         "Blocks that programs or shared objects of such file names allocated."})
RECORD(GetAppMemDetailOrModuleInfoOutput, {"pucInfo", "text", Lines(), "A head, and a line for each block or module."},
       {"uiValue1", "matches", Count(),
        "How many blocks or modules match the request, whether they are returned or not."})

} // namespace host::meaning
