// What methods do to the system that they are asked about. A policy allows methods by these groups.
#pragma once

#include <optional>
#include <string_view>

namespace host {

enum class Group {
    kReading,  // figures, tables and settings
    kMemory,   // another process's memory, its stacks, and what it keeps of its faults
    kSettings, // thresholds, switches, clocks, rules, records that are reset
    kCommands, // commands that are run, archives that are written, tables that are rebuilt
    kAgents,   // agents that announce themselves
};
constexpr Group kGroups[] = {Group::kReading, Group::kMemory, Group::kSettings, Group::kCommands, Group::kAgents};

std::string_view NameOf(Group group);
std::optional<Group> GroupNamed(std::string_view name);

// A method that is in no list does anything, so it is a command.
Group GroupOf(std::string_view method);

} // namespace host
