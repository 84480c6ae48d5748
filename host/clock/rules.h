// Time zones and daylight-saving rules: checked, as records, as text, and what a wall clock shows by them.
//
// When a rule begins and ends is written as POSIX writes it, with the year before it if it holds for one year only:
//   M3.5.0/02:00:00      the fifth, that is last, Sunday (0) of March, each year
//   03-31/02:00:00       31 March, each year
//   2026-03-29/02:00:00  that day only; 2026-M3.5.0/02:00:00 the same
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/clock/calendar.h"

namespace host {

struct Zone {
    std::string name = "UTC";
    int32_t offsetMinutes = 0; // east of Greenwich

    bool operator==(const Zone &) const = default;
};

constexpr int32_t kMinZoneOffset = -720;
constexpr int32_t kMaxZoneOffset = 840;

// A moment at which clocks change, by the wall clock before the change.
struct DstChange {
    uint16_t year = 0; // 0: each year
    uint8_t month = 0;
    uint8_t week = 0; // 1 to 4, 5 for the last; 0: by date
    uint8_t day = 0;  // of the month; by week, the weekday from Sunday, 0
    uint8_t hour = 0;
    uint8_t minute = 0;
    uint8_t second = 0;

    bool operator==(const DstChange &) const = default;
};

struct DstRule {
    std::string name;
    uint32_t offsetMinutes = 0; // how far clocks go forward
    DstChange start;
    DstChange end;

    bool operator==(const DstRule &) const = default;
};

constexpr uint32_t kMaxDstOffset = 180;

// Each throws EINVAL for a value that makes no sense, and says what was expected.
Zone CheckedZone(Zone zone);
DstRule CheckedRule(DstRule rule);
DstChange ParseChange(const std::string &text);

// Of requests that were checked by their meaning. They throw, too. No rule: no daylight saving.
Zone FromRecord(const Tarn_sys_diag_Timezone &record);
std::optional<DstRule> FromRecord(const Tarn_sys_diag_Dst &record);

Tarn_sys_diag_Timezone ToRecord(const Zone &zone);
Tarn_sys_diag_Dst ToRecord(const std::optional<DstRule> &rule);

std::string TextOf(const Zone &zone);
std::string TextOf(const DstChange &change);
std::string TextOf(const std::optional<DstRule> &rule);

// A zone with a rule as POSIX has them for TZ: "<CET>-1<CEST>,M3.5.0,M10.5.0/3". A rule for one year is said as if it
// held for each, until it is over.
std::string PosixText(const Zone &zone, const std::optional<DstRule> &rule, GmtTime now);

// The zone of this process in the same way: what $TZ says, else the system's; a name is looked for among the zones.
// Empty where it can't be told, and for none UTC. Of what held in years gone by only the present rule is told.
std::string SystemsPosixText(const std::filesystem::path &localtime = "/etc/localtime",
                             const std::filesystem::path &zones = "/usr/share/zoneinfo");

// The offsets, of standard time and of daylight saving, that such a text has; none where it is not one. In minutes.
std::vector<int32_t> OffsetsOf(std::string_view posixText);

// What clocks on the wall show in a zone with a rule.
class WallClock {
public:
    explicit WallClock(const Zone &zone = {}, const std::optional<DstRule> &rule = {}) : zone_(zone), rule_(rule) {}

    bool IsDst(GmtTime time) const;
    LocalMillis ToLocal(GmtTime time) const;

    // Throws EINVAL for a time that the clock skips when it goes forward. Of a time that it shows twice, the first.
    GmtTime ToGmt(LocalMillis time) const;

private:
    const Zone zone_;
    const std::optional<DstRule> rule_;
};

} // namespace host
