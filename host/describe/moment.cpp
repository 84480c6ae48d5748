#include "host/describe/moment.h"

#include <fmt/format.h>

#include <charconv>
#include <ctime>

namespace host::describe {

namespace {

using std::chrono::system_clock;

// Takes a number of so many digits from the front.
bool TakeDigits(std::string_view &text, size_t digits, int &number) {
    if (text.size() < digits || text.find_first_not_of("0123456789") < digits) {
        return false;
    }
    std::from_chars(text.data(), text.data() + digits, number);
    text.remove_prefix(digits);
    return true;
}

void SkipOne(std::string_view &text, std::string_view separators) {
    if (!text.empty() && separators.find(text.front()) != separators.npos) {
        text.remove_prefix(1);
    }
}

// Takes "2026-02-03 04:05:06.007" or "20260203040506" from the front.
std::optional<Moment> TakeMoment(std::string_view &text) {
    Moment moment;
    if (!TakeDigits(text, 4, moment.year)) {
        return std::nullopt;
    }
    struct Part {
        std::string_view separators;
        int &number;
    } const parts[] = {
        {"-", moment.month}, {"-", moment.day}, {"T ", moment.hour}, {":", moment.minute}, {":", moment.second}};
    for (const Part &part : parts) {
        SkipOne(text, part.separators);
        if (!TakeDigits(text, 2, part.number)) {
            return std::nullopt;
        }
    }
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (!TakeDigits(text, 3, moment.millisecond)) {
            return std::nullopt;
        }
    }
    return IsReal(moment) ? std::optional(moment) : std::nullopt;
}

// What is left behind a moment: "Z", "+01:00", " +0100".
std::optional<std::chrono::minutes> ParseOffset(std::string_view text) {
    SkipOne(text, " ");
    if (text == "Z" || text == "z") {
        return std::chrono::minutes(0);
    }
    const bool west = text.starts_with('-');
    int hours = 0, minutes = 0;
    if (!west && !text.starts_with('+')) {
        return std::nullopt;
    }
    text.remove_prefix(1);
    if (!TakeDigits(text, 2, hours)) {
        return std::nullopt;
    }
    SkipOne(text, ":");
    if (!TakeDigits(text, 2, minutes) || !text.empty()) {
        return std::nullopt;
    }
    return std::chrono::minutes((west ? -1 : 1) * (60 * hours + minutes));
}

// Fields as the C library takes them.
std::tm FieldsOf(const Moment &moment) {
    std::tm fields{};
    fields.tm_year = moment.year - 1900;
    fields.tm_mon = moment.month - 1;
    fields.tm_mday = moment.day;
    fields.tm_hour = moment.hour;
    fields.tm_min = moment.minute;
    fields.tm_sec = moment.second;
    fields.tm_isdst = -1;
    return fields;
}

// "+1h", "-90s", "+2d".
std::optional<std::chrono::seconds> ParseDistance(std::string_view text) {
    const bool back = text.starts_with('-');
    const char *const last = text.data() + text.size();
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data() + 1, last, number);
    const std::string_view unit(end, static_cast<size_t>(last - end));
    const int64_t scale = unit == "s"                    ? 1
                          : unit == "m" || unit == "min" ? 60
                          : unit == "h"                  ? 3600
                          : unit == "d"                  ? 86400
                                                         : 0;
    constexpr int64_t kMost = 100LL * 366 * 86400;
    if (error != std::errc() || scale == 0 || number < 0 || number > kMost / scale) {
        return std::nullopt;
    }
    return std::chrono::seconds((back ? -1 : 1) * number * scale);
}

// "+01:00", or without what separates.
std::string OffsetText(std::chrono::seconds offset, std::string_view separator) {
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(offset).count();
    return fmt::format("{}{:02}{}{:02}", minutes < 0 ? '-' : '+', std::abs(minutes) / 60, separator,
                       std::abs(minutes) % 60);
}

// Of the local zone when its clocks show that.
std::chrono::seconds OffsetAt(const Moment &moment) {
    std::tm fields = FieldsOf(moment);
    std::mktime(&fields);
    return std::chrono::seconds(fields.tm_gmtoff);
}

std::string TextOf(const Moment &moment, char between) {
    const std::string fraction = moment.millisecond == 0 ? "" : fmt::format(".{:03}", moment.millisecond);
    return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}{}", moment.year, moment.month, moment.day, between,
                       moment.hour, moment.minute, moment.second, fraction);
}

int64_t MillisecondsOf(system_clock::time_point when) {
    return std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

std::tm FieldsOf(system_clock::time_point when, Zone zone) {
    const auto seconds = static_cast<time_t>(std::chrono::floor<std::chrono::seconds>(when.time_since_epoch()).count());
    std::tm fields{};
    (zone == Zone::kGmt ? gmtime_r : localtime_r)(&seconds, &fields);
    return fields;
}

std::chrono::seconds OffsetAt(system_clock::time_point when) {
    return std::chrono::seconds(FieldsOf(when, Zone::kLocal).tm_gmtoff);
}

system_clock::time_point TimeOf(const Moment &moment, std::chrono::minutes offset) {
    std::tm fields = FieldsOf(moment);
    return system_clock::from_time_t(timegm(&fields)) - offset + std::chrono::milliseconds(moment.millisecond);
}

} // namespace

bool IsReal(const Moment &moment) {
    constexpr int kFirstYear = 1, kLastYear = 9999;
    std::tm fields = FieldsOf(moment);
    timegm(&fields); // turns what is no date into another
    return moment.year >= kFirstYear && moment.year <= kLastYear && fields.tm_mon == moment.month - 1 &&
           fields.tm_mday == moment.day && fields.tm_hour == moment.hour && fields.tm_min == moment.minute &&
           fields.tm_sec == moment.second && moment.millisecond >= 0 && moment.millisecond <= 999;
}

std::optional<Moment> ParseMoment(std::string_view text) {
    const auto moment = TakeMoment(text);
    return text.empty() ? moment : std::nullopt;
}

std::string Rfc3339(const Moment &moment, Zone zone) {
    return TextOf(moment, 'T') + (zone == Zone::kGmt ? "Z" : OffsetText(OffsetAt(moment), ":"));
}

std::string Rfc3339(system_clock::time_point when) {
    return TextOf(MomentOf(when, Zone::kLocal), 'T') + OffsetText(OffsetAt(when), ":");
}

std::optional<std::string> Rfc3339OfText(std::string_view text) {
    const auto moment = TakeMoment(text);
    if (!moment || text.empty()) {
        return moment ? std::optional(Rfc3339(*moment, Zone::kLocal)) : std::nullopt;
    }
    const auto offset = ParseOffset(text);
    return offset ? std::optional(TextOf(*moment, 'T') + OffsetText(*offset, ":")) : std::nullopt;
}

std::string ZonedText(const Moment &moment, Zone zone) {
    return TextOf(moment, ' ') + " " + OffsetText(zone == Zone::kGmt ? std::chrono::seconds(0) : OffsetAt(moment), "");
}

std::string ZonedText(system_clock::time_point when) {
    return TextOf(MomentOf(when, Zone::kLocal), ' ') + " " + OffsetText(OffsetAt(when), "");
}

std::string PlainText(const Moment &moment) {
    return TextOf(moment, ' ');
}

std::string DigitsText(const Moment &moment) {
    return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", moment.year, moment.month, moment.day, moment.hour,
                       moment.minute, moment.second);
}

std::optional<system_clock::time_point> ParseStatedTime(std::string_view text, system_clock::time_point now) {
    if (text == "now") {
        return now;
    }
    if (text.starts_with('+') || text.starts_with('-')) {
        const auto distance = ParseDistance(text);
        return distance ? std::optional(now + *distance) : std::nullopt;
    }
    const auto moment = TakeMoment(text);
    if (!moment) {
        return std::nullopt;
    }
    if (text.empty()) {
        std::tm fields = FieldsOf(*moment);
        return system_clock::from_time_t(std::mktime(&fields)) + std::chrono::milliseconds(moment->millisecond);
    }
    const auto offset = ParseOffset(text);
    return offset ? std::optional(TimeOf(*moment, *offset)) : std::nullopt;
}

std::optional<Moment> ParseStatedMoment(std::string_view text, system_clock::time_point now, Zone zone) {
    if (const auto moment = ParseMoment(text)) {
        return moment; // as that zone's clock shows it, also where its time jumps
    }
    const auto time = ParseStatedTime(text, now);
    return time ? std::optional(MomentOf(*time, zone)) : std::nullopt;
}

Moment MomentOf(system_clock::time_point when, Zone zone) {
    const std::tm fields = FieldsOf(when, zone);
    const auto millisecond = static_cast<int>((MillisecondsOf(when) % 1000 + 1000) % 1000);
    return {fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
            fields.tm_min,         fields.tm_sec,     millisecond};
}

int WeekdayOf(const Moment &moment) {
    std::tm fields = FieldsOf(moment);
    timegm(&fields);
    return fields.tm_wday;
}

} // namespace host::describe
