// Local times as records and their texts carry them, and the RFC 3339 in which programs read them. The zone is the
// process's (TZ).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace host::describe {

// A wall clock's time; a year of 0 is no time.
struct Moment {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
};

// "2026-02-03 04:05:06" with any of the separators that texts have, with milliseconds or without; "20260203040506".
std::optional<Moment> ParseMoment(std::string_view text);

// "2026-02-03T04:05:06.007+01:00"; milliseconds only when there are any.
std::string Rfc3339(const Moment &moment);

// What a person states: RFC 3339, a local time, "now", "+1h" or "-90s".
std::optional<Moment> ParseStatedMoment(std::string_view text, std::chrono::system_clock::time_point now);

Moment MomentOf(std::chrono::system_clock::time_point when);
int WeekdayOf(const Moment &moment); // from Sunday, 0

} // namespace host::describe
