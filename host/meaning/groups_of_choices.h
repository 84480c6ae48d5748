// All that host/meaning/choices.h states, to be gone through.
#pragma once

#include "host/meaning/choices.h"

namespace host::meaning {

struct ChoiceGroup {
    std::string_view name;
    std::span<const Choice> choices;
};

struct Limit {
    std::string_view name;
    uint32_t value;
};

inline constexpr ChoiceGroup kChoiceGroups[] = {
    {"black-box", black_box::kAll},
    {"memory-report", memory_report::kAll},
    {"overload-event", overload_event::kAll},
    {"fresh-start", fresh_start::kAll},
    {"overload-monitor", overload_monitor::kAll},
    {"memory-command", memory_command::kAll},
    {"damage-scan", damage_scan::kAll},
    {"damage-report", damage_report::kAll},
    {"memory-unit", memory_unit::kAll},
    {"app-memory", app_memory::kAll},
    {"timer-state", timer_state::kAll},
    {"health-level", health_level::kAll},
    {"health-item", health_item::kAll},
    {"resource", resource::kAll},
    {"resource-level", resource_level::kAll},
    {"event", event::kAll},
    {"rule-action", rule_action::kAll},
    {"agent-announces", agent_announces::kAll},
    {"settings-source", settings_source::kAll},
    {"thresholds-state", thresholds_state::kAll},
    {"dst-mode", dst_mode::kAll},
    {"measurement-time", measurement_time::kAll},
    {"measurement-mode", measurement_mode::kAll},
    {"archive-compression", archive_compression::kAll},
    {"if-exists", if_exists::kAll},
    {"copy-mode", copy_mode::kAll},
    {"date-format", date_format::kAll},
    {"measurement-operation", measurement_operation::kAll},
    {"measurement-state", measurement_state::kAll},
    {"system-health-item", system_health_item::kAll},
    {"system-health-level", system_health_level::kAll},
    {"process-table", process_table::kAll},
};

inline constexpr Limit kLimits[] = {
    {"measured-interval-default-ms", measured_interval::kDefaultMs},
    {"measured-interval-most-ms", measured_interval::kMostMs},
    {"cpu-overload-most-seconds", cpu_overload::kMostSeconds},
    {"memory-dump-most-bytes", memory_dump::kMostBytes},
    {"memory-report-default-growth-kib", memory_report::kDefaultGrowthKib},
    {"memory-report-default-lines", memory_report::kDefaultLines},
    {"mappings-most", mappings::kMost},
    {"memory-files-most", memory_files::kMost},
    {"shared-memory-most", shared_memory::kMost},
    {"top-handles-most", top_handles::kMost},
    {"damage-scan-period-ms", damage_scan::kPeriodMs},
    {"calendar-first-year", calendar::kFirstYear},
    {"calendar-last-year", calendar::kLastYear},
    {"starvation-most-ms", starvation::kMostMs},
    {"message-rules-most-in-daemon", message_rules::kMostInDaemon},
};

} // namespace host::meaning
