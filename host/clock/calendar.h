// Calendar times as the records carry them, in the proleptic Gregorian calendar.
#pragma once

#include <chrono>
#include <string>

#include "types/time.h"

namespace host {

using Millis = std::chrono::milliseconds;
using GmtTime = std::chrono::sys_time<Millis>;
using LocalMillis = std::chrono::local_time<Millis>;

constexpr uint16_t kFirstYear = 1970;
constexpr uint16_t kLastYear = 2199;

// Throws EINVAL and names the member for a time that is not in the calendar. ucWeek may be 0, which older peers send,
// or must be the date's weekday, from Sunday, 0.
LocalMillis FromRecord(const Tarn_sys_diag_Systime &record, const std::string &member);
Tarn_sys_diag_Systime ToRecord(LocalMillis time);

// Throws EINVAL unless there is such a day in the year; in year 0, in every year.
void CheckDate(uint16_t year, uint8_t month, uint8_t day, const std::string &member);

// How a date is written: the numbers of SetDateFormat.
enum class DateFormat : uint32_t { kYearMonthDay = 0, kDayMonthYear = 1, kMonthDayYear = 2 };

// "2026-11-21 01:02:03"
std::string TextOf(LocalMillis time, DateFormat format = DateFormat::kYearMonthDay);

} // namespace host
