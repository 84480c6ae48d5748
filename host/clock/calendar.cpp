#include "host/clock/calendar.h"

#include <cstdlib>
#include <ctime>

#include "host/osal/error.h"

namespace host {

namespace {

using namespace std::chrono;

std::string DateText(const Tarn_sys_diag_Systime &time, DateFormat format) {
    switch (format) {
    case DateFormat::kYearMonthDay:
        return fmt::format("{:04}-{:02}-{:02}", time.usYear, time.ucMonth, time.ucDay);
    case DateFormat::kDayMonthYear:
        return fmt::format("{:02}-{:02}-{:04}", time.ucDay, time.ucMonth, time.usYear);
    case DateFormat::kMonthDayYear:
        return fmt::format("{:02}-{:02}-{:04}", time.ucMonth, time.ucDay, time.usYear);
    }
    return "";
}

} // namespace

ZonedTime SystemsTime(system_clock::time_point when) {
    const auto gmt = floor<Millis>(when.time_since_epoch());
    const time_t time = system_clock::to_time_t(when);
    tm fields{};
    localtime_r(&time, &fields);
    const std::chrono::seconds ahead(fields.tm_gmtoff);
    return {LocalMillis(gmt + ahead), ahead};
}

void CheckDay(uint16_t year, uint8_t month, uint8_t day, const std::string &member) {
    constexpr uint16_t kCommonYear = 2001;
    const unsigned days{year_month_day_last(std::chrono::year(year == 0 ? kCommonYear : year),
                                            month_day_last(std::chrono::month(month)))
                            .day()};
    if (day < 1 || day > days) {
        throw BadValue(member.c_str(), day,
                       fmt::format("1 to {} in month {} of {}", days, month,
                                   year == 0 ? "every year" : fmt::format("the year {}", year)));
    }
}

LocalMillis FromRecord(const Tarn_sys_diag_Systime &record, const std::string &member) {
    CheckDay(record.usYear, record.ucMonth, record.ucDay, member + ": day (ucDay)");
    const local_days date(year(record.usYear) / month(record.ucMonth) / day(record.ucDay));
    const unsigned weekDay = weekday(date).c_encoding();
    if (record.ucWeek != 0 && record.ucWeek != weekDay) {
        throw BadValue((member + ": weekday (ucWeek)").c_str(), record.ucWeek,
                       fmt::format("{}, the weekday of that date, or 0", weekDay));
    }
    return date + hours(record.ucHour) + minutes(record.ucMinute) + seconds(record.ucSecond) +
           milliseconds(record.uiMillisecond);
}

Tarn_sys_diag_Systime ToRecord(LocalMillis time) {
    const auto date = floor<days>(time);
    const year_month_day day(date);
    const hh_mm_ss clock(time - date);
    Tarn_sys_diag_Systime record{};
    record.usYear = static_cast<uint16_t>(static_cast<int>(day.year()));
    record.ucMonth = static_cast<uint8_t>(static_cast<unsigned>(day.month()));
    record.ucDay = static_cast<uint8_t>(static_cast<unsigned>(day.day()));
    record.ucHour = static_cast<uint8_t>(clock.hours().count());
    record.ucMinute = static_cast<uint8_t>(clock.minutes().count());
    record.ucSecond = static_cast<uint8_t>(clock.seconds().count());
    record.ucWeek = static_cast<uint8_t>(weekday(date).c_encoding());
    record.uiMillisecond = static_cast<uint32_t>(clock.subseconds().count());
    return record;
}

std::string TextOf(LocalMillis time, DateFormat format, Precision precision) {
    const Tarn_sys_diag_Systime t = ToRecord(time);
    const std::string fraction = precision == Precision::kSeconds ? "" : fmt::format(".{:03}", t.uiMillisecond);
    return fmt::format("{} {:02}:{:02}:{:02}{}", DateText(t, format), t.ucHour, t.ucMinute, t.ucSecond, fraction);
}

std::string TextOf(const ZonedTime &time, DateFormat format, Precision precision) {
    const auto ahead = duration_cast<minutes>(time.ahead).count();
    return fmt::format("{} {}{:02}{:02}", TextOf(time.local, format, precision), ahead < 0 ? '-' : '+',
                       std::abs(ahead) / 60, std::abs(ahead) % 60);
}

std::string CompactText(LocalMillis time) {
    const Tarn_sys_diag_Systime t = ToRecord(time);
    return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", t.usYear, t.ucMonth, t.ucDay, t.ucHour, t.ucMinute,
                       t.ucSecond);
}

} // namespace host
