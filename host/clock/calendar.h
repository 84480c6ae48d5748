// Calendar times as the records carry them, in the proleptic Gregorian calendar.
#pragma once

#include <chrono>
#include <string>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/time.h"

namespace host {

using Millis = std::chrono::milliseconds;
using GmtTime = std::chrono::sys_time<Millis>;
using LocalMillis = std::chrono::local_time<Millis>;

// What clocks on the wall show at a moment, and how far they are ahead of GMT.
struct ZonedTime {
    LocalMillis local;
    std::chrono::seconds ahead;
};

// By the system's zone.
ZonedTime SystemsTime(std::chrono::system_clock::time_point when);

// Of a request that was checked by its meaning; `member` is its name. Throws EINVAL for a day that its month does not
// have, and for another weekday than the date's; 0 may stand for any.
LocalMillis FromRecord(const Tarn_sys_diag_Systime &record, const std::string &member);
Tarn_sys_diag_Systime ToRecord(LocalMillis time);

// Throws EINVAL unless the month has such a day in the year; in year 0, in every year.
void CheckDay(uint16_t year, uint8_t month, uint8_t day, const std::string &member);

// How a date is written.
enum class DateFormat : uint32_t {
    kYearMonthDay = meaning::date_format::kYearMonthDay,
    kDayMonthYear = meaning::date_format::kDayMonthYear,
    kMonthDayYear = meaning::date_format::kMonthDayYear,
};

enum class Precision : uint8_t { kSeconds, kMilliseconds };

// "2026-11-21 01:02:03"
std::string TextOf(LocalMillis time, DateFormat format = DateFormat::kYearMonthDay,
                   Precision precision = Precision::kSeconds);

// "2026-11-21 01:02:03 +0100"
std::string TextOf(const ZonedTime &time, DateFormat format = DateFormat::kYearMonthDay,
                   Precision precision = Precision::kSeconds);

// "20261121010203"
std::string CompactText(LocalMillis time);

} // namespace host
