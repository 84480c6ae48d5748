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
    return moment;
}

// "Z", "+01:00".
std::optional<std::chrono::minutes> ParseOffset(std::string_view text) {
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

// Fields as the C library takes them; it finds the zone's offset.
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

} // namespace

std::optional<Moment> ParseMoment(std::string_view text) {
    const auto moment = TakeMoment(text);
    return text.empty() ? moment : std::nullopt;
}

std::string Rfc3339(const Moment &moment) {
    std::tm fields = FieldsOf(moment);
    std::mktime(&fields);
    const long minutes = fields.tm_gmtoff / 60;
    const std::string fraction = moment.millisecond == 0 ? "" : fmt::format(".{:03}", moment.millisecond);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{}{:02}:{:02}", moment.year, moment.month, moment.day,
                       moment.hour, moment.minute, moment.second, fraction, minutes < 0 ? '-' : '+',
                       std::abs(minutes) / 60, std::abs(minutes) % 60);
}

std::optional<Moment> ParseStatedMoment(std::string_view text, system_clock::time_point now) {
    if (text == "now") {
        return MomentOf(now);
    }
    if (text.starts_with('+') || text.starts_with('-')) {
        const auto distance = ParseDistance(text);
        return distance ? std::optional(MomentOf(now + *distance)) : std::nullopt;
    }
    auto rest = text;
    const auto moment = TakeMoment(rest);
    if (!moment || rest.empty()) {
        return moment;
    }
    const auto offset = ParseOffset(rest);
    if (!offset) {
        return std::nullopt;
    }
    std::tm fields = FieldsOf(*moment);
    const auto when =
        system_clock::from_time_t(timegm(&fields)) - *offset + std::chrono::milliseconds(moment->millisecond);
    return MomentOf(when);
}

Moment MomentOf(system_clock::time_point when) {
    const auto ms = std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const auto seconds = static_cast<time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    std::tm fields{};
    localtime_r(&seconds, &fields);
    return {fields.tm_year + 1900,
            fields.tm_mon + 1,
            fields.tm_mday,
            fields.tm_hour,
            fields.tm_min,
            fields.tm_sec,
            static_cast<int>(ms - 1000 * static_cast<int64_t>(seconds))};
}

int WeekdayOf(const Moment &moment) {
    std::tm fields = FieldsOf(moment);
    timegm(&fields);
    return fields.tm_wday;
}

} // namespace host::describe
