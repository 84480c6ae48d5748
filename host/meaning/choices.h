// The values that have names, and the limits that requests keep: stated here, used by the lists of meanings and by the
// code that tells one from another.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace host::meaning {

// One of the values that a member can have. It converts to its number.
struct Choice {
    uint32_t value;
    std::string_view name; // lower case, words joined by "-"
    std::string_view sentence;

    constexpr operator uint32_t() const { return value; }
};

namespace measured_interval {
constexpr uint32_t kDefaultMs = 1000;
constexpr uint32_t kMostMs = 120'000;
} // namespace measured_interval

// ---- The daemon: processes, CPU, fault records and memory ----

namespace cpu_overload {
constexpr uint32_t kMostSeconds = 3600;
} // namespace cpu_overload

namespace black_box {
constexpr Choice kEverything{0, "all", "Both, and what is left of damaged records."};
constexpr Choice kExceptions{1, "exceptions", "Records of fatal signals."};
constexpr Choice kAssertions{2, "assertions", "Records of failed assertions."};
inline constexpr Choice kAll[] = {kEverything, kExceptions, kAssertions};
} // namespace black_box

namespace process_memory {
constexpr std::string_view kHiddenProgram = "?"; // of a process that may be seen, though its program may not
} // namespace process_memory

namespace memory_dump {
constexpr uint32_t kMostBytes = 65536;
} // namespace memory_dump

namespace memory_report {
constexpr Choice kSuspects{0, "suspects", "Processes that grow and don't give back, the largest growth first."};
constexpr Choice kHistory{1, "history", "What memory was like before, of a process or of the system."};
constexpr Choice kOverloads{2, "overloads", "When memory overloads began and ended, and which process had most then."};
inline constexpr Choice kAll[] = {kSuspects, kHistory, kOverloads};
constexpr uint32_t kDefaultGrowthKib = 1024;
constexpr uint32_t kDefaultLines = 60;
} // namespace memory_report

namespace mappings {
constexpr uint32_t kMost = 65536;
} // namespace mappings

namespace memory_files {
constexpr uint32_t kMost = 8000;
} // namespace memory_files

namespace shared_memory {
constexpr uint32_t kMost = 20000;
} // namespace shared_memory

namespace overload_event {
constexpr Choice kEnds{0, "ends", "An overload ended."};
constexpr Choice kBegins{1, "begins", "An overload began."};
inline constexpr Choice kAll[] = {kEnds, kBegins};
} // namespace overload_event

namespace fresh_start {
constexpr Choice kOverload{0, "overload", "The record of memory overloads."};
constexpr Choice kLeak{1, "leak", "The growth that makes a process a leak suspect."};
constexpr Choice kSettings{2, "settings",
                           "What clients have set that the master sets as well: its settings hold again, or the "
                           "default."};
inline constexpr Choice kAll[] = {kOverload, kLeak, kSettings};
} // namespace fresh_start

namespace overload_monitor {
constexpr Choice kCpu{1, "cpu", "The monitor of CPU overloads."};
constexpr Choice kMemory{2, "memory", "The monitor of memory overloads."};
inline constexpr Choice kAll[] = {kCpu, kMemory};
} // namespace overload_monitor

// ---- Agents and the master ----

namespace top_handles {
constexpr uint32_t kMost = 10;
} // namespace top_handles

namespace memory_command {
constexpr Choice kSummary{1, "summary", "A line for each partition."};
constexpr Choice kBlocks{2, "blocks", "A line for each block; the argument is a handle, none for all."};
constexpr Choice kMark{3, "mark",
                       "Allocations from now on count for \"since\"; one line with the number of the first."};
constexpr Choice kSince{4, "since", "Blocks allocated since the mark and still held, a line for each allocation site."};
constexpr Choice kLook{5, "look",
                       "The block that an address lies in, and its first bytes; the argument is the address."};
inline constexpr Choice kAll[] = {kSummary, kBlocks, kMark, kSince, kLook};
} // namespace memory_command

namespace damage_scan {
constexpr Choice kOff{0, "off", "Blocks are not scanned."};
constexpr Choice kOn{1, "on", "All blocks are scanned each second."};
constexpr Choice kOnce{2, "once", "All blocks are scanned now, once."};
inline constexpr Choice kAll[] = {kOff, kOn, kOnce};
constexpr uint32_t kPeriodMs = 1000;
} // namespace damage_scan

namespace damage_report {
constexpr Choice kBoth{0, "both", "Damages, and the hostages behind them."};
constexpr Choice kDamages{1, "damages", "Blocks whose guard bytes were overwritten, and frees of what is no block."};
constexpr Choice kHostages{2, "hostages", "Blocks that are held though the thread that allocated them has ended."};
inline constexpr Choice kAll[] = {kBoth, kDamages, kHostages};
} // namespace damage_report

namespace memory_unit {
constexpr Choice kMalloc{0xFFFFFFFF, "malloc", "The C library's heap."};
inline constexpr Choice kAll[] = {kMalloc};
} // namespace memory_unit

namespace app_memory {
constexpr Choice kUnits{0, "units", "The units from which the application allocates."};
constexpr Choice kDetails{1, "details", "A line for each block."};
constexpr Choice kModules{2, "modules",
                          "A line for each program or shared object that allocated blocks, with their sum."};
constexpr Choice kHolders{3, "holders",
                          "The ten memory handles that hold most, where from, and what is held for ended threads."};
inline constexpr Choice kOfUnits[] = {kUnits};
inline constexpr Choice kAll[] = {kUnits, kDetails, kModules, kHolders};
inline constexpr Choice kOfBlocks[] = {kDetails, kModules};
} // namespace app_memory

namespace timer_state {
constexpr Choice kStopped{0, "stopped", "It does not expire."};
constexpr Choice kRunning{1, "running", "It is going to expire."};
constexpr Choice kExpired{2, "expired", "It has expired, and its function runs."};
inline constexpr Choice kAll[] = {kStopped, kRunning, kExpired};
} // namespace timer_state

namespace health_level {
constexpr Choice kGood{0, "good", "Below its limit."};
constexpr Choice kDegraded{1, "degraded", "From its limit on."};
constexpr Choice kBad{2, "bad", "Far beyond its limit, or it could not be looked at."};
inline constexpr Choice kAll[] = {kGood, kDegraded, kBad};
} // namespace health_level

// Those that every agent has.
namespace health_item {
constexpr Choice kThreads{1, "threads", "Threads; at the start the limit is 512."};
constexpr Choice kDescriptors{
    2, "descriptors", "Open descriptors, in permille of what the process may open; at the start the limit is 800."};
constexpr Choice kMemory{3, "memory", "Resident memory in MiB; at the start the limit is 1024."};
constexpr Choice kDeadLoops{4, "dead-loops", "Threads in a dead loop; at the start the limit is 1."};
constexpr Choice kMemoryDamage{5, "memory-damage", "Damages of memory that were found; at the start the limit is 1."};
constexpr Choice kFaults{6, "faults", "Faults recorded since the start; at the start the limit is 1."};
inline constexpr Choice kAll[] = {kThreads, kDescriptors, kMemory, kDeadLoops, kMemoryDamage, kFaults};
} // namespace health_item

namespace resource {
constexpr Choice kCpu{1, "cpu", "CPU time."};
constexpr Choice kMemory{2, "memory", "Memory."};
constexpr Choice kDescriptors{3, "descriptors", "File descriptors."};
inline constexpr Choice kAll[] = {kCpu, kMemory, kDescriptors};
} // namespace resource

namespace resource_level {
constexpr Choice kNormal{0, "normal", "There is enough of it."};
constexpr Choice kNearLimit{1, "near-limit", "It is near its limit."};
constexpr Choice kOverloaded{2, "overloaded", "It is used beyond its limit."};
inline constexpr Choice kAll[] = {kNormal, kNearLimit, kOverloaded};
} // namespace resource_level

// What can be subscribed to: that a resource's level changes.
namespace event {
constexpr Choice kCpu{1U << resource::kCpu, "cpu", "The level of CPU time."};
constexpr Choice kMemory{1U << resource::kMemory, "memory", "The level of memory."};
constexpr Choice kDescriptors{1U << resource::kDescriptors, "descriptors", "The level of file descriptors."};
inline constexpr Choice kAll[] = {kCpu, kMemory, kDescriptors};
} // namespace event

namespace rule_action {
constexpr Choice kPass{1, "pass", "The message passes."};
constexpr Choice kDrop{2, "drop", "The message is stopped."};
constexpr Choice kLimit{3, "limit", "So many messages pass in a second, and those beyond are stopped."};
inline constexpr Choice kAll[] = {kPass, kDrop, kLimit};
} // namespace rule_action

namespace agent_announces {
constexpr Choice kLeaves{0, "leaves", "The agent leaves."};
constexpr Choice kRuns{1, "runs", "The agent runs."};
inline constexpr Choice kAll[] = {kLeaves, kRuns};
} // namespace agent_announces

namespace settings_source {
constexpr Choice kSystem{0, "system", "None is configured: the system's."};
constexpr Choice kConfigured{1, "configured", "The configured one."};
inline constexpr Choice kAll[] = {kSystem, kConfigured};
} // namespace settings_source

namespace thresholds_state {
constexpr Choice kAsInFile{0, "as-in-file", "As the configuration file states them."};
constexpr Choice kChanged{1, "changed", "Changed since by MemChangeInnerConfig."};
inline constexpr Choice kAll[] = {kAsInFile, kChanged};
} // namespace thresholds_state

namespace dst_mode {
constexpr Choice kByDate{0, "by-date", "Start and end are dates."};
constexpr Choice kByWeek{1, "by-week", "Start and end are weekdays of weeks of a month."};
inline constexpr Choice kAll[] = {kByDate, kByWeek};
} // namespace dst_mode

namespace measurement_time {
constexpr Choice kEverySeconds{254, "every-seconds", "Again and again, after so many seconds."};
constexpr Choice kEveryMinutes{255, "every-minutes", "Again and again, after so many minutes."};
inline constexpr Choice kAll[] = {kEverySeconds, kEveryMinutes};
} // namespace measurement_time

namespace measurement_mode {
constexpr Choice kOff{0, "off", "Nothing is measured by time."};
constexpr Choice kReport{1, "report", "Also measured by time, as it is at the start."};
constexpr Choice kLearn{2, "learn", "The same, and files that are new are taken into the baseline."};
inline constexpr Choice kAll[] = {kOff, kReport, kLearn};
} // namespace measurement_mode

// ---- Log archives and time ----

namespace archive_compression {
constexpr Choice kCompressed{0, "compressed", "Files are compressed."};
constexpr Choice kStored{1, "stored", "Files are packed as they are."};
inline constexpr Choice kAll[] = {kCompressed, kStored};
} // namespace archive_compression

namespace if_exists {
constexpr Choice kReplace{1, "replace", "An older file of that name is replaced."};
inline constexpr Choice kAll[] = {kReplace};
} // namespace if_exists

namespace copy_mode {
constexpr Choice kMove{1, "move", "The archive is removed when the copy is complete."};
inline constexpr Choice kAll[] = {kMove};
} // namespace copy_mode

namespace date_format {
constexpr Choice kYearMonthDay{0, "year-month-day", "As in 2026-11-21."};
constexpr Choice kDayMonthYear{1, "day-month-year", "As in 21-11-2026."};
constexpr Choice kMonthDayYear{2, "month-day-year", "As in 11-21-2026."};
inline constexpr Choice kAll[] = {kYearMonthDay, kDayMonthYear, kMonthDayYear};
} // namespace date_format

namespace calendar {
constexpr uint32_t kFirstYear = 1970;
constexpr uint32_t kLastYear = 2199;
} // namespace calendar

// ---- Tasks ----

namespace starvation {
constexpr uint32_t kMostMs = 3'600'000;
} // namespace starvation

// ---- Measurement ----

namespace measurement_operation {
constexpr Choice kMeasure{1, "measure", "Measures, and answers when it is done."};
constexpr Choice kRecord{2, "record", "Records a baseline, and answers when it is done."};
constexpr Choice kForget{3, "forget", "Forgets the baseline and the result."};
constexpr Choice kCancel{4, "cancel", "Gives up what runs and waits."};
constexpr Choice kStart{5, "start", "Measures, and answers at once."};
inline constexpr Choice kAll[] = {kMeasure, kRecord, kForget, kCancel, kStart};
} // namespace measurement_operation

namespace measurement_state {
constexpr Choice kNone{0, "none", "Nothing was measured yet."};
constexpr Choice kRuns{1, "runs", "A measurement runs or waits."};
constexpr Choice kAsRecorded{2, "as-recorded", "No file differs from the baseline."};
constexpr Choice kDiffers{3, "differs", "Files differ from the baseline, or are new."};
constexpr Choice kNoBaseline{4, "no-baseline", "There is no baseline to compare with."};
constexpr Choice kFailed{5, "failed", "The measurement failed, or was given up."};
inline constexpr Choice kAll[] = {kNone, kRuns, kAsRecorded, kDiffers, kNoBaseline, kFailed};
} // namespace measurement_state

// ---- Health ----

// What the daemon looks at; below kFirst are the items of agents. The limits are those at the start.
namespace system_health_item {
constexpr Choice kCpu{128, "cpu", "CPU time of all CPUs in the last 10 s, in permille; the limit is 900."};
constexpr Choice kCpuPressure{
    129, "cpu-pressure",
    "The time in which some task waited for a CPU, of the last 10 s, in permille; the limit is 300."};
constexpr Choice kMemory{130, "memory", "Memory in use, in permille; the limit is 900."};
constexpr Choice kMemoryPressure{
    131, "memory-pressure",
    "The time in which some task waited for memory, of the last 10 s, in permille; the limit is 100."};
constexpr Choice kIoPressure{
    132, "io-pressure",
    "The time in which some task waited for a device, of the last 10 s, in permille; the limit is 300."};
constexpr Choice kDisk{
    133, "disk", "Space or files in use where the log, run and state directories are, in permille; the limit is 900."};
constexpr Choice kDescriptors{134, "descriptors",
                              "Descriptors of the system that are in use, in permille; the limit is 800."};
constexpr Choice kLoad{135, "load", "Load of the last minute for each CPU, in thousandths; the limit is 2000."};
constexpr Choice kAgents{136, "agents",
                         "The agents: one that takes longer to answer than the limit, in milliseconds, is bad, or "
                         "unknown where it has never answered, and one that does answer has the worst level of "
                         "its own items; the limit is 1000, and at most that."};
constexpr Choice kCpuEvent{137, "cpu-event",
                           "The use of one CPU, in permille, from which on it is a CPU event; the limit is 950."};
constexpr Choice kCpuEventTime{138, "cpu-event-time",
                               "How long that use has to last for a CPU event, in milliseconds; the limit is 3000."};
inline constexpr Choice kAll[] = {kCpu,         kCpuPressure, kMemory, kMemoryPressure, kIoPressure,  kDisk,
                                  kDescriptors, kLoad,        kAgents, kCpuEvent,       kCpuEventTime};
constexpr uint32_t kFirst = kCpu;
constexpr uint32_t kLast = kCpuEventTime;
} // namespace system_health_item

namespace system_health_level {
constexpr Choice kUnknown{3, "unknown", "It can't be told, or it is switched off."};
inline constexpr Choice kAll[] = {health_level::kGood, health_level::kDegraded, health_level::kBad, kUnknown};
} // namespace system_health_level

// ---- The process table, message rules ----

namespace process_table {
constexpr Choice kWithoutKernel{1, "without-kernel", "Without the kernel's own threads."};
constexpr Choice kAsTree{2, "as-tree",
                         "As a tree, each process behind its parent and before its parent's later children."};
inline constexpr Choice kAll[] = {kWithoutKernel, kAsTree};
} // namespace process_table

namespace message_rules {
constexpr uint32_t kMostInDaemon = 64;
} // namespace message_rules

} // namespace host::meaning
