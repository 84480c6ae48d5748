#include "host/clock/calendar.h"

#include "host/osal/error.h"

namespace host {

namespace {

using namespace std::chrono;

void CheckAtMost(uint32_t value, uint32_t most, const std::string &member) {
    if (value > most) {
        throw BadValue(member.c_str(), value, fmt::format("0 to {}", most));
    }
}

} // namespace

void CheckDate(uint16_t year, uint8_t month, uint8_t day, const std::string &member) {
    if (month < 1 || month > 12) {
        throw BadValue((member + ".ucMonth").c_str(), month, "1 to 12");
    }
    constexpr uint16_t kCommonYear = 2001;
    const unsigned days{year_month_day_last(std::chrono::year(year == 0 ? kCommonYear : year),
                                            month_day_last(std::chrono::month(month)))
                            .day()};
    if (day < 1 || day > days) {
        throw BadValue((member + ".ucDay").c_str(), day,
                       fmt::format("1 to {} in month {} of {}", days, month,
                                   year == 0 ? "every year" : fmt::format("the year {}", year)));
    }
}

LocalMillis FromRecord(const Tarn_sys_diag_Systime &record, const std::string &member) {
    if (record.usYear < kFirstYear || record.usYear > kLastYear) {
        throw BadValue((member + ".usYear").c_str(), record.usYear, fmt::format("{} to {}", kFirstYear, kLastYear));
    }
    CheckDate(record.usYear, record.ucMonth, record.ucDay, member);
    CheckAtMost(record.ucHour, 23, member + ".ucHour");
    CheckAtMost(record.ucMinute, 59, member + ".ucMinute");
    CheckAtMost(record.ucSecond, 59, member + ".ucSecond");
    CheckAtMost(record.uiMillisecond, 999, member + ".uiMillisecond");
    const local_days date(year(record.usYear) / month(record.ucMonth) / day(record.ucDay));
    const unsigned weekDay = weekday(date).c_encoding();
    if (record.ucWeek != 0 && record.ucWeek != weekDay) {
        throw BadValue((member + ".ucWeek").c_str(), record.ucWeek,
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

std::string TextOf(LocalMillis time, DateFormat format) {
    const Tarn_sys_diag_Systime t = ToRecord(time);
    std::string date;
    switch (format) {
    case DateFormat::kYearMonthDay:
        date = fmt::format("{:04}-{:02}-{:02}", t.usYear, t.ucMonth, t.ucDay);
        break;
    case DateFormat::kDayMonthYear:
        date = fmt::format("{:02}-{:02}-{:04}", t.ucDay, t.ucMonth, t.usYear);
        break;
    case DateFormat::kMonthDayYear:
        date = fmt::format("{:02}-{:02}-{:04}", t.ucMonth, t.ucDay, t.usYear);
        break;
    }
    return fmt::format("{} {:02}:{:02}:{:02}", date, t.ucHour, t.ucMinute, t.ucSecond);
}

} // namespace host
