// What happened, for the journal.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "host/clock/clocks.h"

namespace tarnd {

enum class EventKind : uint8_t {
    kCrash,
    kAssertion,
    kCpuOverloadBegins,
    kCpuOverloadEnds,
    kMemoryOverloadBegins,
    kMemoryOverloadEnds,
    kDeadLoop,
    kStarvation,
    kLeakSuspect,
    kMemoryDamage,
    kIntegrity,
    kAgentComes,
    kAgentGoes,
    kSetting,
};

struct EventKindInfo {
    EventKind kind;
    std::string_view name;
    // Who may call this method, which tells the same of all processes, may read of it; empty: who may read events.
    std::string_view toldBy;
};

inline constexpr EventKindInfo kEventKinds[] = {
    {EventKind::kCrash, "crash", "GetExceptionInfo"},
    {EventKind::kAssertion, "assertion", "GetAssertInfo"},
    {EventKind::kCpuOverloadBegins, "cpu-overload-begins", "DisCpuOvloadInfo"},
    {EventKind::kCpuOverloadEnds, "cpu-overload-ends", "DisCpuOvloadInfo"},
    {EventKind::kMemoryOverloadBegins, "memory-overload-begins", "GetSysMemOverloadStat"},
    {EventKind::kMemoryOverloadEnds, "memory-overload-ends", "GetSysMemOverloadStat"},
    {EventKind::kDeadLoop, "dead-loop", "TarnGetDlpCfgFromAgent"},
    {EventKind::kStarvation, "starvation", "GetTaskInfo"},
    {EventKind::kLeakSuspect, "leak-suspect", "MemLeakOrHisQry"},
    {EventKind::kMemoryDamage, "memory-damage", "GetMemDmgInfoTarnd"},
    {EventKind::kIntegrity, "integrity", "TarnGetDimMeasRstByTarnd"},
    {EventKind::kAgentComes, "agent-comes", ""},
    {EventKind::kAgentGoes, "agent-goes", ""},
    {EventKind::kSetting, "setting", ""},
};

constexpr const EventKindInfo &InfoOf(EventKind kind) {
    return kEventKinds[static_cast<size_t>(kind)];
}

// Null for a name that no kind has.
constexpr const EventKindInfo *EventKindNamed(std::string_view name) {
    const auto *const found = std::ranges::find(kEventKinds, name, &EventKindInfo::name);
    return found == std::end(kEventKinds) ? nullptr : found;
}
static_assert(std::ranges::all_of(kEventKinds, [](const auto &info) { return &info == &InfoOf(info.kind); }));

struct Event {
    host::WallTime time = {}; // 1970: when it is told
    EventKind kind;
    uint32_t pid = 0; // of the process that it is about; 0: none
    std::string process = {};
    std::string text = {}; // a line
};

// Where the parts of the daemon put what happened.
class Journal {
public:
    virtual ~Journal() = default;
    virtual void Add(Event event) = 0;
};

} // namespace tarnd
