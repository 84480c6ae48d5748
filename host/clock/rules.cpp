#include "host/clock/rules.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string_view>
#include <utility>

#include "host/osal/error.h"
#include "host/osal/text.h"

namespace host {

namespace {

using namespace std::chrono;

bool IsName(std::string_view name, std::string_view alsoAllowed) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [&](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               alsoAllowed.find(c) != alsoAllowed.npos;
    });
}

// A zone's name may be a path below the directory of zones, and must not lead out of it.
bool LeadsAway(std::string_view name) {
    return name.starts_with('/') || name.find("//") != name.npos ||
           ("/" + std::string(name) + "/").find("/../") != std::string::npos;
}

local_days DayOf(const DstChange &change, year inYear) {
    const month inMonth(change.month);
    if (change.week == 0) {
        return local_days(inYear / inMonth / day(change.day));
    }
    const weekday onDay(change.day);
    return change.week == 5 ? local_days(inYear / inMonth / onDay[last])
                            : local_days(inYear / inMonth / onDay[change.week]);
}

LocalMillis MomentOf(const DstChange &change, year inYear) {
    return DayOf(change, change.year == 0 ? inYear : year(change.year)) + hours(change.hour) + minutes(change.minute) +
           seconds(change.second);
}

void CheckChange(const DstChange &change, const std::string &member) {
    const auto check = [&](const char *part, uint32_t value, uint32_t least, uint32_t most) {
        if (value < least || value > most) {
            throw BadValue((member + part).c_str(), value, fmt::format("{} to {}", least, most));
        }
    };
    if (change.year != 0) {
        check(".year", change.year, meaning::calendar::kFirstYear, meaning::calendar::kLastYear);
    }
    check(".month", change.month, 1, 12);
    if (change.week != 0) {
        check(".weekday", change.day, 0, 6);
    } else {
        CheckDay(change.year, change.month, change.day, member + ".day");
    }
    check(".hour", change.hour, 0, 23);
    check(".minute", change.minute, 0, 59);
    check(".second", change.second, 0, 59);
}

DstChange ChangeByDate(const Tarn_sys_diag_Systime &at) {
    return {at.usYear, at.ucMonth, 0, at.ucDay, at.ucHour, at.ucMinute, at.ucSecond};
}

Tarn_sys_diag_Systime RecordByDate(const DstChange &change) {
    return {change.year, change.month, change.day, change.hour, change.minute, change.second, 0, 0};
}

} // namespace

Zone CheckedZone(Zone zone) {
    if (!IsName(zone.name, "_+-/:,.<>") || LeadsAway(zone.name)) {
        throw BadValue("zone.name", fmt::format("\"{}\"", zone.name),
                       "a time zone's name, such as Europe/Berlin or CET-1CEST");
    }
    if (zone.offsetMinutes < kMinZoneOffset || zone.offsetMinutes > kMaxZoneOffset) {
        throw BadValue("zone.offset", zone.offsetMinutes,
                       fmt::format("{} to {} minutes", kMinZoneOffset, kMaxZoneOffset));
    }
    return zone;
}

DstRule CheckedRule(DstRule rule) {
    if (!IsName(rule.name, "_+-/ ")) {
        throw BadValue("rule.name", fmt::format("\"{}\"", rule.name), "a name, such as CEST");
    }
    if (rule.offsetMinutes < 1 || rule.offsetMinutes > kMaxDstOffset) {
        throw BadValue("rule.offset", rule.offsetMinutes, fmt::format("1 to {} minutes", kMaxDstOffset));
    }
    CheckChange(rule.start, "rule.start");
    CheckChange(rule.end, "rule.end");
    if ((rule.start.week == 0) != (rule.end.week == 0)) {
        throw BadValue("rule.end", TextOf(rule.end), "stated as the start is: by date, or by week");
    }
    if (rule.start.week != 0 && (rule.start.minute | rule.start.second | rule.end.minute | rule.end.second) != 0) {
        throw BadValue("a change by week", TextOf(rule.start) + " or " + TextOf(rule.end), "a full hour");
    }
    if ((rule.start.year == 0) != (rule.end.year == 0)) {
        throw BadValue("rule.end.year", rule.end.year,
                       "0 as rule.start.year, for each year, or a year as rule.start.year");
    }
    constexpr year kLeapYear{2000};
    const auto lasts = MomentOf(rule.end, kLeapYear) - MomentOf(rule.start, kLeapYear);
    const auto shortest = hours(24);
    const auto longest = hours(24) * 364;
    if (abs(lasts) < shortest || abs(lasts) > longest) {
        throw BadValue("rule.end", TextOf(rule.end), "at least a day from the start, and within a year");
    }
    if (rule.start.year != 0 && lasts < shortest) {
        throw BadValue("rule.end", TextOf(rule.end), "after the start " + TextOf(rule.start));
    }
    return rule;
}

DstChange ParseChange(const std::string &text) {
    static const std::regex form(
        R"((?:(\d{4})-)?(?:M(\d{1,2})\.([1-5])\.(\d)|(\d{2})-(\d{2}))/(\d{2}):(\d{2}):(\d{2}))");
    std::smatch found;
    if (!std::regex_match(text, found, form)) {
        throw BadValue("a change of clocks", fmt::format("\"{}\"", text), "such as M3.5.0/02:00:00 or 03-31/02:00:00");
    }
    const auto number = [&](size_t group) {
        return static_cast<uint16_t>(found[group].matched ? std::stoul(found[group]) : 0);
    };
    const auto small = [&](size_t group) { return static_cast<uint8_t>(number(group)); };
    if (found[2].matched) {
        return {number(1), small(2), small(3), small(4), small(7), small(8), small(9)};
    }
    return {number(1), small(5), 0, small(6), small(7), small(8), small(9)};
}

namespace {

// "CET" or "<+0545>"; false without one.
bool TakeZoneName(std::string_view &text) {
    const bool quoted = text.starts_with('<');
    size_t length = 0;
    while (length < text.size() &&
           (quoted ? text[length] != '>' : isalpha(static_cast<unsigned char>(text[length])) != 0)) {
        ++length;
    }
    length += quoted && length < text.size() ? 1 : 0;
    text.remove_prefix(length);
    return length >= 3;
}

uint32_t TakeNumber(std::string_view &text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

// "-1", "-5:45": hours and minutes west of Greenwich; what is returned is east of it.
std::optional<int32_t> TakeOffset(std::string_view &text) {
    const bool east = text.starts_with('-');
    if (east || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (text.empty() || isdigit(static_cast<unsigned char>(text.front())) == 0) {
        return std::nullopt;
    }
    auto minutes = static_cast<int32_t>(TakeNumber(text) * 60);
    if (text.starts_with(':')) {
        text.remove_prefix(1);
        minutes += static_cast<int32_t>(TakeNumber(text));
    }
    return east ? minutes : -minutes;
}

} // namespace

std::string SystemsPosixText(const std::filesystem::path &localtime, const std::filesystem::path &zones) {
    const char *const variable = getenv("TZ");
    const std::string name = variable == nullptr ? "" : variable + (*variable == ':' ? 1 : 0);
    const std::filesystem::path file = variable == nullptr ? localtime : zones / name; // an absolute one is itself
    std::ifstream in(file, std::ios::binary);
    if (!in || !std::filesystem::is_regular_file(file)) {
        return variable == nullptr || name.empty() ? "UTC0" : name; // as the C library takes it
    }
    const std::string content(std::istreambuf_iterator<char>(in), {});
    if (!content.starts_with("TZif") || !content.ends_with('\n')) {
        return "";
    }
    const size_t before = content.rfind('\n', content.size() - 2); // behind it the rule of what comes
    return content.substr(before + 1, content.size() - before - 2);
}

std::vector<int32_t> OffsetsOf(std::string_view posixText) {
    if (!TakeZoneName(posixText)) {
        return {};
    }
    const std::optional<int32_t> standard = TakeOffset(posixText);
    if (!standard) {
        return {};
    }
    if (!TakeZoneName(posixText)) {
        return {*standard};
    }
    return {*standard, TakeOffset(posixText).value_or(*standard + 60)};
}

Zone FromRecord(const Tarn_sys_diag_Timezone &record) {
    return CheckedZone({std::string(TextOf(record.szTimezoneName)), static_cast<int32_t>(record.uiTimezoneOffset)});
}

std::optional<DstRule> FromRecord(const Tarn_sys_diag_Dst &record) {
    if (record.ucDstFlag == 0) {
        return {};
    }
    DstRule rule{std::string(TextOf(record.szDstName)), record.uiDstOffset, {}, {}};
    if (record.ucDstMode == meaning::dst_mode::kByWeek) {
        const Tarn_sys_diag_DstWeek &w = record.stDstWeek;
        rule.start = {w.usStartYear, w.ucStartMonth, w.ucStartWeek, w.ucStartWeekday, w.ucStartHour};
        rule.end = {w.usEndYear, w.ucEndMonth, w.ucEndWeek, w.ucEndWeekday, w.ucEndHour};
    } else {
        rule.start = ChangeByDate(record.stDstStart);
        rule.end = ChangeByDate(record.stDstEnd);
    }
    const Tarn_sys_diag_Timehour &adjust = record.stDstAdjust;
    const uint32_t adjustSeconds = adjust.ucHour * 3600U + adjust.ucMinute * 60U + adjust.ucSecond;
    if (adjustSeconds != 0 && adjustSeconds != rule.offsetMinutes * 60) {
        throw BadValue("rule.adjust", fmt::format("{}:{:02}:{:02}", adjust.ucHour, adjust.ucMinute, adjust.ucSecond),
                       fmt::format("what rule.offset says, {} minutes, or 0:00:00", rule.offsetMinutes));
    }
    return CheckedRule(std::move(rule));
}

Tarn_sys_diag_Timezone ToRecord(const Zone &zone) {
    Tarn_sys_diag_Timezone record{};
    CopyText(record.szTimezoneName, zone.name);
    record.uiTimezoneOffset = static_cast<uint32_t>(zone.offsetMinutes);
    return record;
}

Tarn_sys_diag_Dst ToRecord(const std::optional<DstRule> &rule) {
    Tarn_sys_diag_Dst record{};
    if (!rule) {
        return record;
    }
    record.ucDstFlag = 1;
    CopyText(record.szDstName, rule->name);
    record.uiDstOffset = rule->offsetMinutes;
    record.stDstAdjust = {static_cast<uint8_t>(rule->offsetMinutes / 60),
                          static_cast<uint8_t>(rule->offsetMinutes % 60), 0};
    const DstChange &start = rule->start;
    const DstChange &end = rule->end;
    if (start.week != 0) {
        record.ucDstMode = static_cast<uint8_t>(meaning::dst_mode::kByWeek);
        record.stDstWeek = {start.year, start.month, start.week, start.day, start.hour,
                            end.year,   end.month,   end.week,   end.day,   end.hour};
    } else {
        record.stDstStart = RecordByDate(start);
        record.stDstEnd = RecordByDate(end);
    }
    return record;
}

std::string TextOf(const Zone &zone) {
    return fmt::format("{} ({:+} minutes)", zone.name, zone.offsetMinutes);
}

std::string TextOf(const DstChange &change) {
    const std::string inYear = change.year == 0 ? "" : fmt::format("{:04}-", change.year);
    const std::string onDay = change.week == 0 ? fmt::format("{:02}-{:02}", change.month, change.day)
                                               : fmt::format("M{}.{}.{}", change.month, change.week, change.day);
    return fmt::format("{}{}/{:02}:{:02}:{:02}", inYear, onDay, change.hour, change.minute, change.second);
}

std::string TextOf(const std::optional<DstRule> &rule) {
    return !rule ? "none"
                 : fmt::format("{} (+{} minutes) from {} to {}", rule->name, rule->offsetMinutes, TextOf(rule->start),
                               TextOf(rule->end));
}

namespace {

// "-5:30" for 330 minutes east.
std::string PosixOffset(int32_t minutesEast) {
    const int32_t size = std::abs(minutesEast);
    const char *const sign = minutesEast > 0 ? "-" : "";
    return size % 60 == 0 ? fmt::format("{}{}", sign, size / 60)
                          : fmt::format("{}{}:{:02}", sign, size / 60, size % 60);
}

// A name of what POSIX allows in one; for another, the offset: "<+0530>".
std::string PosixName(const std::string &name, int32_t minutesEast) {
    constexpr size_t kShortest = 3;
    if (name.size() >= kShortest && IsName(name, "+-")) {
        return fmt::format("<{}>", name);
    }
    const int32_t size = std::abs(minutesEast);
    return fmt::format("<{}{:02}{:02}>", minutesEast < 0 ? '-' : '+', size / 60, size % 60);
}

std::string PosixDay(const DstChange &change) {
    if (change.week != 0) {
        return fmt::format("M{}.{}.{}", change.month, change.week, change.day);
    }
    if (change.month == 2 && change.day == 29) {
        return "59"; // days from 0, in a year that has it
    }
    constexpr year kPlainYear{2001};
    const local_days first{kPlainYear / January / 1};
    return fmt::format("J{}", (local_days{kPlainYear / month(change.month) / day(change.day)} - first).count() + 1);
}

std::string PosixChange(const DstChange &change) {
    const std::string onDay = PosixDay(change);
    if (change.second != 0) {
        return fmt::format("{}/{}:{:02}:{:02}", onDay, change.hour, change.minute, change.second);
    }
    if (change.minute != 0) {
        return fmt::format("{}/{}:{:02}", onDay, change.hour, change.minute);
    }
    constexpr uint8_t kUnsaid = 2;
    return change.hour == kUnsaid ? onDay : fmt::format("{}/{}", onDay, change.hour);
}

} // namespace

std::string PosixText(const Zone &zone, const std::optional<DstRule> &rule, GmtTime now) {
    const std::string standard = PosixName(zone.name, zone.offsetMinutes) + PosixOffset(zone.offsetMinutes);
    const LocalMillis local(now.time_since_epoch() + minutes(zone.offsetMinutes));
    if (!rule || (rule->end.year != 0 && local >= MomentOf(rule->end, year(rule->end.year)))) {
        return standard;
    }
    const int32_t inSummer = zone.offsetMinutes + static_cast<int32_t>(rule->offsetMinutes);
    const bool usual = rule->offsetMinutes == 60;
    return fmt::format("{}{}{},{},{}", standard, PosixName(rule->name, inSummer), usual ? "" : PosixOffset(inSummer),
                       PosixChange(rule->start), PosixChange(rule->end));
}

bool WallClock::IsDst(GmtTime time) const {
    if (!rule_) {
        return false;
    }
    // Standard time throughout; a change at the turn of a year may fall into the next one.
    const LocalMillis standard(time.time_since_epoch() + minutes(zone_.offsetMinutes));
    const year now = year_month_day(floor<days>(standard)).year();
    for (const year begin : {now - years(1), now, now + years(1)}) {
        const LocalMillis start = MomentOf(rule_->start, begin);
        LocalMillis end = MomentOf(rule_->end, begin);
        if (end < start) {
            end = MomentOf(rule_->end, begin + years(1));
        }
        if (standard >= start && standard < end - minutes(rule_->offsetMinutes)) {
            return true;
        }
    }
    return false;
}

LocalMillis WallClock::ToLocal(GmtTime time) const {
    const auto dst = minutes(IsDst(time) ? rule_->offsetMinutes : 0);
    return LocalMillis(time.time_since_epoch() + minutes(zone_.offsetMinutes) + dst);
}

GmtTime WallClock::ToGmt(LocalMillis time) const {
    const GmtTime asStandard(time.time_since_epoch() - minutes(zone_.offsetMinutes));
    if (rule_ && IsDst(asStandard - minutes(rule_->offsetMinutes))) {
        return asStandard - minutes(rule_->offsetMinutes);
    }
    if (IsDst(asStandard)) {
        throw BadValue("the time", TextOf(time), "one that the clock does not skip when it goes forward");
    }
    return asStandard;
}

} // namespace host
