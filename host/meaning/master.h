// What the master's service means.
#pragma once

#include "host/meaning/shared_records.h"
#include "tarn_sysdiag/types/master.h"

namespace host::meaning {

METHOD(UpdateInnerConfig, Group::kSettings,
       "Reads the configuration file again. It fails with EINVAL (22) when the file is refused: the log says why, and "
       "what was configured before holds.",
       "")

METHOD(GetPhyNameAndID, Group::kReading,
       "Tells what is at a physical address. It fails with ENOENT (2) when there is nothing.", "frame=0 slot=1 port=2")
RECORD(PhysicalAddrInput, {"uiValue1", "frame", Number(), "The frame."},
       {"uiValue2", "slot", Number(), "The slot in it."}, {"uiValue3", "port", Number(), "The port of that."})
RECORD(PhyNameAndIDOutput, {"uiValue1", "type", Number(), "The type of what is there."},
       {"uiValue2", "number", Number(), "The number of what is there."},
       {"acPhyName", "name", Text(), "The name of what is there."})

// ---- Time ----

METHOD(GetTimezone, Group::kReading, "Tells the time zone.", "")
RECORD(GetTimezoneOutput, {"uiValue1", "source", OneOf(settings_source::kAll), "Whose zone it is."},
       {"stTimezone", "timezone", OneRecord(), "The zone; its offset is that without daylight saving."})

METHOD(GetDst, Group::kReading, "Tells the daylight-saving rule that is configured.", "")
RECORD(GetDstOutput, {"uiValue1", "configured", Switch(), "Whether a rule is configured."},
       {"stDst", "rule", OneRecord(), "The rule."})
VARIANT(GetDst, Systime, {"usYear", "year", Number().UpTo(9999).Zero("each year"), "The year."},
        {"ucWeek", "weekday", Unused(), "Always 0."}, {"uiMillisecond", "millisecond", Unused(), "Always 0."})

METHOD(GetGmt, Group::kReading, "Tells the time in GMT.", "")
RECORD(GetGmtOutput, {"stGmtTime", "time", GmtTime(), "The time."})

METHOD(GetLocal, Group::kReading, "Tells the local time.", "")
RECORD(GetLocalOutput, {"uiValue1", "source", OneOf(settings_source::kAll), "By whose zone it is."},
       {"stLocalTime", "time", LocalTime(), "The time."},
       {"ucValue", "dst", Switch(), "On while daylight saving is in force."})

// ---- Overloads ----

METHOD(GetCpuOvLoadCfgInfo, Group::kReading,
       "Tells a configuration of CPU overloads. Where the variant is not configured it is that without a variant, with "
       "its own names; it fails with ENOENT (2) when there is neither.",
       "name=system")
RECORD(OvLoadCpuCtlInput, {"acName1", "name", Text().Zero("system"), "Whose configuration it is."},
       {"acName2", "variant", Text().Zero("the one without a variant"), "The variant of it."})
RECORD(OvLoadCpuCtlOutput, {"acName1", "name", Text(), "Whose configuration it is."},
       {"acName2", "variant", Text().Zero("the one without a variant"), "The variant of it."},
       {"uiValue1", "begins-at", Permille().Zero("detect none"),
        "The busy share of all CPUs at which an overload begins."},
       {"uiValue2", "ends-below", Permille(), "The share below which it ends."},
       {"uiValue3", "must-last", Seconds(), "How long it must last to count."},
       {"uiValue4", "times-read", Count(), "How often the configuration file has been read."})

METHOD(GetMemoryOvLoadCfgInfo, Group::kReading,
       "Tells a configuration of memory overloads. Where the variant is not configured it is that without a variant, "
       "with its own names; it fails with ENOENT (2) when there is neither.",
       "name=system")
RECORD(OvLoadMemCtlInput, {"acName1", "name", Text().Zero("system"), "Whose configuration it is."},
       {"acName2", "variant", Text().Zero("the one without a variant"), "The variant of it."})
RECORD(OvLoadMemCtlOutput, {"acName1", "name", Text(), "Whose configuration it is."},
       {"acName2", "variant", Text().Zero("the one without a variant"), "The variant of it."},
       {"uiValue1", "begins-at", Permille().Zero("detect none"),
        "The share of memory in use at which an overload begins."},
       {"uiValue2", "ends-below", Permille(), "The share below which it ends."},
       {"uiValue3", "state", OneOf(thresholds_state::kAll), "Where the shares are from."},
       {"acName3", "changed-by", Text().Zero("a client without a name").Where("uiValue3", thresholds_state::kChanged),
        "Who changed them."},
       {"uiValue4", "changes", Count().Where("uiValue3", thresholds_state::kChanged), "How often they were changed."},
       {"uiValue5", "changed-at", UnixTime().Where("uiValue3", thresholds_state::kChanged),
        "When they were changed last."})

METHOD(MemChangeInnerConfig, Group::kSettings,
       "Changes the shares of a configuration of memory overloads. The change is kept beyond a restart, until the file "
       "says something new of it. The configuration is found as GetMemoryOvLoadCfgInfo finds it; ENOENT (2) when there "
       "is none.",
       "name=system begins-at=90% ends-below=85% changed-by=example")
VARIANT(MemChangeInnerConfig, OvLoadMemCtlOutput,
        {"acName1", "name", Text().Zero("system"), "Whose configuration it is."},
        {"uiValue1", "begins-at", Permille().UpTo(1000),
         "The share of memory in use at which an overload begins; none is detected at 0."},
        {"uiValue2", "ends-below", Permille().NotAbove("uiValue1"), "The share below which it ends."},
        {"uiValue3", "state", Unused(), "As it was answered, or 0."},
        {"acName3", "changed-by", Text().Zero("a client without a name"), "Who changes them."},
        {"uiValue4", "changes", Unused(), "As it was answered, or 0."},
        {"uiValue5", "changed-at", Unused(), "As it was answered, or 0."})

// ---- What is configured besides ----

METHOD(GetMKAutoUpdCfgInfo, Group::kReading,
       "Tells whether and when to look for updates. It fails with ENODATA (61) when that is not configured.", "")
RECORD(GetMKAutoUpdCfgInfoOutput, {"uiValue1", "on", Switch(), "Whether to look for updates."},
       {"uiValue2", "period", Hours(), "The time between two updates."},
       {"uiValue3", "hour", Hours(), "The hour of the day."})

METHOD(SysdiagGetMKCfgInfo, Group::kReading,
       "Tells the process configuration. It fails with ENODATA (61) when there is none.", "")
RECORD(MKCfgInfoOutput, {"acCfgInfo", "text", Text(), "The configuration's text."},
       {"uiValue1", "instances", Count(), "How many instances there are to be."},
       {"uiValue2", "restarts", Count(), "How many restarts are allowed in an hour."},
       {"uiValue3", "timeout", Seconds(), "How long to wait for a start."})

METHOD(GetLMProcLPid, Group::kReading,
       "Tells the local process id: the one that a process has in its own namespace, as in a container. It fails with "
       "ESRCH (3) when there is no such process.",
       "process=1")
RECORD(GetLMProcLPidInput, {"uiPid", "process", Pid(), "The process."})
RECORD(GetLMProcLPidOutput,
       {"uiValue1", "namespaces", Count(), "How many namespaces of processes it is in below the master's."},
       {"uiLPid", "local-process", Pid(), "The id that it has in the innermost; the same as here where there is none."})

METHOD(DetectSysdiagServerOnline, Group::kReading, "Announces a daemon, which the master counts and logs.", "")

METHOD(SysdiagGetDimCfgInfo, Group::kReading,
       "Tells when the daemon is to measure. It fails with ENODATA (61) when that is not configured.", "")
RECORD(DimTimeCfg,
       {"ucValue1", "hour", OneOf(measurement_time::kAll).Open().UpTo(23),
        "The hour of a measurement each day, or that it is repeated."},
       {"ucValue2", "minute", Number(),
        "The minute of that hour, below 60; or how many seconds or minutes are between two measurements, 0 for never."})

METHOD(SysdiagGetDimWorkMode, Group::kReading,
       "Tells what the daemon is to measure by time. It fails with ENODATA (61) when that is not configured.", "")
RECORD(DimWorkModeCfg, {"uiWorkMode", "mode", OneOf(measurement_mode::kAll), "What is done by time."})

} // namespace host::meaning
