// Times as records and their texts carry them, and the RFC 3339 in which programs read them. The local zone is the
// process's (TZ).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace host::describe {

enum class Zone { kLocal, kGmt };

// A wall clock's time; a year of 0 is no time.
struct Moment {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
};

// Whether there is such a date and time of day, in years of four digits.
bool IsReal(const Moment &moment);

// "2026-02-03 04:05:06", perhaps with milliseconds; "20260203040506".
std::optional<Moment> ParseMoment(std::string_view text);

// "2026-02-03T04:05:06.007+01:00", "...Z" for GMT; milliseconds only when there are any.
std::string Rfc3339(const Moment &moment, Zone zone);
std::string Rfc3339(std::chrono::system_clock::time_point when);

// Of a text that ParseMoment takes, or of one with the zone behind it; nothing for another.
std::optional<std::string> Rfc3339OfText(std::string_view text);

// As people read it, and as the texts of records have it: "2026-02-03 04:05:06.007 +0100".
std::string ZonedText(const Moment &moment, Zone zone);
std::string ZonedText(std::chrono::system_clock::time_point when);

// Where there is less room: "2026-02-03 04:05:06", "20260203040506".
std::string PlainText(const Moment &moment);
std::string DigitsText(const Moment &moment);

// What a person states: RFC 3339, a time of that zone, "now", "+1h" or "-90s".
std::optional<Moment> ParseStatedMoment(std::string_view text, std::chrono::system_clock::time_point now, Zone zone);
std::optional<std::chrono::system_clock::time_point> ParseStatedTime(std::string_view text,
                                                                     std::chrono::system_clock::time_point now);

// What ParseStatedMoment takes.
constexpr std::string_view kMomentExpected =
    "a time, such as 2026-02-03T04:05:06+01:00, 2026-02-03 04:05:06, now or +1h";

Moment MomentOf(std::chrono::system_clock::time_point when, Zone zone);
int WeekdayOf(const Moment &moment); // from Sunday, 0

} // namespace host::describe
