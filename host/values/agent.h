/*
 * What the agent means by the members whose names say only "value" or "parameter", method by method. Callers may rely
 * on it. All times are milliseconds and all shares are permille unless stated otherwise.
 *
 * Errors: a method whose reply has a uiResult answers with it: 0, or an errno value and nothing else. Every other
 * method that fails has no reply, and its call ends with the errno value as its status.
 *
 * Several requests choose a part of a list: an id, 0 for all; matches to skip; most matches to return, 0 for all. The
 * process in a request is the one whose agent is meant: 0 or the agent's own; the daemon reads it to find the agent.
 *
 * DBGCmdExecShow        Takes a command line: words, separated by blanks. Commands run one after the other.
 * DBGCmdExecResultGet   What became of the last one taken. uiValue is its number, counted from 1, and szText its
 *                       output. uiResult is 0, or
 *                         2 ENOENT         no such command
 *                         16 EBUSY         too many commands were waiting: it was not taken
 *                         22 EINVAL        no command in the line
 *                         61 ENODATA       no command was taken since the start, or since DBGCmdExecClean
 *                         115 EINPROGRESS  it waits or runs
 *                       or what the command itself returned.
 * DBGCmdExecClean       Forgets the commands that wait and the last result. A running command's output is dropped.
 *
 * GetProcPartitionMemHandleRecod   uiPtParam1 partition, uiPtParam2 handle, uiPtParam3 records to skip, uiPtParam4 most
 *                       to return, uiPtParam5 1 only handles that hold blocks, 0 all. uiBlockSize is 0 for memory that
 *                       the application only accounts for.
 *
 * GetMirelMemHandleInfo   uiValue1 open handles, uiValue2 partitions, uiValue3 blocks known to be damaged. Of a handle:
 *                       uiValue its id, ullValue the bytes that it holds.
 * GetTopNHandleInfo     The TARN_AGENT_TOP_HANDLES handles that hold most.
 *
 * MemDiag_ma            uiMemCmd is the command and the data its argument, as text. Reply uiValue1 0 or an errno value,
 *                       uiValue2 the lines of the answer without its head, and the data that answer, as text:
 *                         1 summary        a line for each partition
 *                         2 blocks         a line for each block; argument: a handle, none: all
 *                         3 mark           from now on 4 counts; one line with the time
 *                         4 since          blocks allocated since the mark and still held, by allocation site
 *                         5 look           the block that an address lies in, and its first bytes; argument: address
 *                         22 for any other command
 *
 * SetMemDmgScan         uiScanSwitch 0 off, 1 all blocks every TARN_AGENT_SCAN_MS, 2 once and now. Each block has guard
 *                       bytes before and behind it, which nobody may write.
 * GetMemDmgInfo         uiInfoType 0 both reports, 1 damaged blocks, 2 hostages. Text; uiValue1 the number of blocks in
 *                       it.
 * TarnDetectMemHostage  Looks for hostages: blocks still held though the thread that allocated them has ended.
 *
 * TarnGetAppMemUnitInfo, TarnGetAppMemDetailOrModuleInfo   Units are the partitions and, as the unit of id
 *                       TARN_AGENT_UNIT_MALLOC, the C library's heap. uiModuleId has no meaning: 0. Names are patterns
 *                       ("lib*"). uiValue1 of the text reply is the number of matches, uiQueryType 0 counts as 1.
 *
 * MemHandleCallStack    As its record says.
 * GetCallStackFunction  "name+0x1f" for each address that is not 0; "?" where no function is known.
 *
 * GetDeadLoopCfg        uiValue1 thread, 0 all; uiValue2 1 only threads with dead loops, 0 all; uiValue3 process.
 *
 * SetNoxTimerDebugSwitch   uiDebugSwitch 1: each expiry of a timer is logged with its delay and run time; 0: not.
 * TarnAgentGetTimerInfo    uiValue1 timer, uiValue2 timers to skip, uiValue3 most to return, uiValue4 process.
 *
 * TarnPadsGetProcSystemHealthInfo   uiValue1 the worst level, uiValue2 the global switch. Of an item:
 *                         ucValue1       level: TARN_AGENT_HEALTH_GOOD, _DEGRADED, _BAD
 *                         acValue1       its name
 *                         acValue2       the agent's name
 *                         acValue3       when it was looked at, local time, YYYYMMDDhhmmss
 *                         acValue4       what was found
 * TarnPadsSetProcPadsGlobalSwitch   ucGlobalSwitch 0: no item is looked at; 1, at the start: all that are on.
 * TarnPadsSetProcPadsAppFunSwitch   ucFunction is the item: those below, and the application's; 0 all. ucSwitch 0 off,
 *                       1 on. uiValue its limit, 0: as it was. Degraded from the limit on, bad from twice of it:
 *                         1 threads (512)                 2 descriptors, share of what the process may open (800)
 *                         3 resident memory in MiB (1024) 4 dead loops (1)
 *                         5 damaged blocks (1)            6 faults recorded since the start (1)
 *
 * UpdateMsgCtrlRule     Adds a rule, or replaces the one of its id. A message is tried against the rules by rising
 *                       priority; the first that matches decides, and a message that none matches passes.
 *                         uiValue1       id, not 0
 *                         uiValue2       priority
 *                         uiValue3       TARN_AGENT_RULE_PASS, _DROP, _LIMIT
 *                         uiValue4, 5    types of the messages, from and to; both 0: all
 *                         uiValue6       for _LIMIT: messages that may pass in a second
 *                         uiValue7       for _LIMIT: messages that may pass at once, 0: as uiValue6
 *                         uiValue8       seconds after which the rule ends, 0: never
 *                         uiValue9       process that it is for, 0: all
 *                         acRule1, 2, 3  patterns of the sender's, the receiver's and the message's name; empty: all
 * ClearMsgCtrlRule      Removes all rules.
 * GetMsgCtrlRule        uiValue1 rule, uiValue2 rules to skip, uiValue3 process.
 *
 * TarnUpdateResourceInfo   As its record says; subscribers of the resource are told.
 * TarnGetSubscribe      uiValue1 events as bits: subscriptions to at least one of them, 0: to any event; uiValue2
 *                       subscriptions to skip, uiValue3 process. Reply uiValue2 the union of the process's events,
 *                       uiValue3 the subscriptions that match, uiValue4 the process. Of a subscription:
 *                       szName1 its name, szName2 its events in words, uiValue1 the same as bits
 *                       (TARN_AGENT_EVENT_...), uiValue2 how often it was notified.
 */
#ifndef TARN_HOST_VALUES_AGENT_H
#define TARN_HOST_VALUES_AGENT_H

#define TARN_AGENT_TOP_HANDLES 10
#define TARN_AGENT_SCAN_MS 1000
#define TARN_AGENT_UNIT_MALLOC 0xFFFFFFFFU

#define TARN_AGENT_MEM_SUMMARY 1
#define TARN_AGENT_MEM_BLOCKS 2
#define TARN_AGENT_MEM_MARK 3
#define TARN_AGENT_MEM_SINCE 4
#define TARN_AGENT_MEM_LOOK 5

#define TARN_AGENT_SCAN_OFF 0
#define TARN_AGENT_SCAN_ON 1
#define TARN_AGENT_SCAN_ONCE 2

#define TARN_AGENT_DAMAGE_ALL 0
#define TARN_AGENT_DAMAGE_BLOCKS 1
#define TARN_AGENT_DAMAGE_HOSTAGES 2

#define TARN_AGENT_APP_MEM_UNITS 0
#define TARN_AGENT_APP_MEM_DETAIL 1
#define TARN_AGENT_APP_MEM_MODULES 2

#define TARN_AGENT_HEALTH_GOOD 0
#define TARN_AGENT_HEALTH_DEGRADED 1
#define TARN_AGENT_HEALTH_BAD 2

#define TARN_AGENT_RULE_PASS 1
#define TARN_AGENT_RULE_DROP 2
#define TARN_AGENT_RULE_LIMIT 3

/* Resources, and the events of them: 1 << resource. */
#define TARN_AGENT_RESOURCE_CPU 1
#define TARN_AGENT_RESOURCE_MEMORY 2
#define TARN_AGENT_RESOURCE_DESCRIPTORS 3
#define TARN_AGENT_EVENT_CPU (1U << TARN_AGENT_RESOURCE_CPU)
#define TARN_AGENT_EVENT_MEMORY (1U << TARN_AGENT_RESOURCE_MEMORY)
#define TARN_AGENT_EVENT_DESCRIPTORS (1U << TARN_AGENT_RESOURCE_DESCRIPTORS)

#endif
