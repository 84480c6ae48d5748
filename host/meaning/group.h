// What methods do to the system that they are asked about. A policy allows methods by these groups.
#pragma once

#include <cstdint>

namespace host {

enum class Group : uint8_t {
    kReading,  // figures, tables and settings
    kMemory,   // another process's memory, its stacks, and what it keeps of its faults
    kSettings, // thresholds, switches, clocks, rules, records that are reset
    kCommands, // commands that are run, archives that are written, tables that are rebuilt
    kAgents,   // agents that announce themselves
};
constexpr Group kGroups[] = {Group::kReading, Group::kMemory, Group::kSettings, Group::kCommands, Group::kAgents};

} // namespace host
