// Calendar times and daylight-saving rules: what is refused, and what wall clocks show, against the C library's.
#include <ctime>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "host/answer/answer.h"
#include "host/clock/daily.h"
#include "host/clock/rules.h"
#include "tests/host/temp_dir.h"

namespace {

using namespace std::chrono;
using namespace std::chrono_literals;
using Systime = Tarn_sys_diag_Systime;

// What is wrong, in words; empty for nothing.
std::string Refusal(const std::function<void()> &check) {
    try {
        check();
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), EINVAL);
        return error.what();
    }
    return "";
}

// The C library's clock, by a rule as POSIX has it.
class PosixZone {
public:
    explicit PosixZone(const char *rule) {
        setenv("TZ", rule, 1);
        tzset();
    }
    ~PosixZone() {
        unsetenv("TZ");
        tzset();
    }
    PosixZone(const PosixZone &) = delete;
    PosixZone &operator=(const PosixZone &) = delete;
};

std::string RefusalOf(const Systime &time) {
    return Refusal([&] { host::FromRecord(time, "time"); });
}

TEST(Calendar, TakesTheDaysThatThereAre) {
    for (const Systime &good : std::vector<Systime>{{1970, 1, 1, 0, 0, 0, 0, 0},
                                                    {2024, 2, 29, 23, 59, 59, 4, 999},
                                                    {2000, 2, 29, 0, 0, 0, 2, 0},
                                                    {2026, 11, 21, 12, 0, 0, 6, 0},
                                                    {2026, 11, 21, 12, 0, 0, 0, 0}, // the weekday is not told
                                                    {2199, 12, 31, 0, 0, 0, 0, 0}}) {
        EXPECT_EQ(RefusalOf(good), "") << good.usYear << "-" << int{good.ucMonth} << "-" << int{good.ucDay};
    }
}

TEST(Calendar, RefusesDaysThatThereAreNotAndSaysWhy) {
    const std::vector<std::pair<Systime, std::string>> bad{
        {{2026, 1, 0, 0, 0, 0, 0, 0}, "time: day (ucDay) is 0, expected 1 to 31 in month 1 of the year 2026"},
        {{2026, 4, 31, 0, 0, 0, 0, 0}, "time: day (ucDay) is 31, expected 1 to 30 in month 4"},
        {{2026, 2, 29, 0, 0, 0, 0, 0}, "time: day (ucDay) is 29, expected 1 to 28 in month 2"},
        {{2100, 2, 29, 0, 0, 0, 0, 0}, "time: day (ucDay) is 29, expected 1 to 28 in month 2"},
        {{2024, 2, 30, 0, 0, 0, 0, 0}, "time: day (ucDay) is 30, expected 1 to 29 in month 2"},
        {{2026, 11, 21, 0, 0, 0, 5, 0}, "time: weekday (ucWeek) is 5, expected 6, the weekday of that date, or 0"},
    };
    for (const auto &[time, why] : bad) {
        EXPECT_NE(RefusalOf(time).find(why), std::string::npos) << RefusalOf(time) << "\n" << why;
    }
}

TEST(Calendar, TurnsTimesIntoRecordsAndBack) {
    for (int64_t ms = 0; ms < 7'000'000'000'000; ms += 86'399'999'123 / 7) {
        const host::LocalMillis time{milliseconds(ms)};
        const time_t seconds = ms / 1000;
        tm fields{};
        gmtime_r(&seconds, &fields);
        const Systime record = host::ToRecord(time);
        ASSERT_EQ(record.usYear, fields.tm_year + 1900);
        ASSERT_EQ(record.ucMonth, fields.tm_mon + 1);
        ASSERT_EQ(record.ucDay, fields.tm_mday);
        ASSERT_EQ(record.ucHour, fields.tm_hour);
        ASSERT_EQ(record.ucMinute, fields.tm_min);
        ASSERT_EQ(record.ucSecond, fields.tm_sec);
        ASSERT_EQ(record.ucWeek, fields.tm_wday);
        ASSERT_EQ(record.uiMillisecond, ms % 1000);
        ASSERT_EQ(host::FromRecord(record, "t"), time);
    }
}

TEST(Calendar, WritesDatesInEachFormat) {
    const host::LocalMillis time = host::FromRecord({2026, 3, 9, 4, 5, 6, 0, 700}, "t");
    EXPECT_EQ(host::TextOf(time), "2026-03-09 04:05:06");
    EXPECT_EQ(host::TextOf(time, host::DateFormat::kDayMonthYear), "09-03-2026 04:05:06");
    EXPECT_EQ(host::TextOf(time, host::DateFormat::kMonthDayYear), "03-09-2026 04:05:06");
    EXPECT_EQ(host::CompactText(time), "20260309040506");
}

TEST(Calendar, WritesTheZonesOffset) {
    const host::LocalMillis time = host::FromRecord({2026, 3, 9, 4, 5, 6, 0, 7}, "t");
    EXPECT_EQ(host::TextOf(host::ZonedTime{time, 1h}), "2026-03-09 04:05:06 +0100");
    EXPECT_EQ(host::TextOf(host::ZonedTime{time, -210min}, host::DateFormat::kDayMonthYear),
              "09-03-2026 04:05:06 -0330");
    EXPECT_EQ(host::TextOf(host::ZonedTime{time, 0h}, host::DateFormat::kYearMonthDay, host::Precision::kMilliseconds),
              "2026-03-09 04:05:06.007 +0000");
}

TEST(Calendar, ShowsTheSystemsZone) {
    const system_clock::time_point summer{sys_days(July / 1 / 2026) + 1ms}, winter{sys_days(December / 1 / 2026)};
    for (const auto &[zone, inSummer, inWinter] : std::vector<std::tuple<const char *, const char *, const char *>>{
             {"CET-1CEST,M3.5.0,M10.5.0/3", "2026-07-01 02:00:00 +0200", "2026-12-01 01:00:00 +0100"},
             {"<-0330>3:30", "2026-06-30 20:30:00 -0330", "2026-11-30 20:30:00 -0330"}}) {
        const PosixZone posix(zone);
        EXPECT_EQ(host::TextOf(host::SystemsTime(summer)), inSummer);
        EXPECT_EQ(host::TextOf(host::SystemsTime(winter)), inWinter);
    }
}

TEST(Zone, IsANameAndAnOffset) {
    const auto refusal = [](const std::string &name, int32_t offset) {
        return Refusal([&] { host::CheckedZone({name, offset}); });
    };
    EXPECT_EQ(refusal("Europe/Berlin", 60), "");
    EXPECT_EQ(refusal("<+0545>-5:45", 345), "");
    EXPECT_EQ(refusal("Etc/GMT-9", 540), "");
    EXPECT_EQ(refusal("a", -720), "");
    EXPECT_EQ(refusal("a", 840), "");
    EXPECT_NE(refusal("a", -721).find("zone.offset is -721, expected -720 to 840 minutes"), std::string::npos);
    EXPECT_NE(refusal("a", 841).find("841"), std::string::npos);
    for (const char *name : {"", "a b", "a\n", "a;b", "/etc/passwd", "../x", "a/../b", "a//b", ".."}) {
        EXPECT_NE(refusal(name, 0).find("zone.name"), std::string::npos) << name;
    }
}

Tarn_sys_diag_Dst ByWeek() {
    Tarn_sys_diag_Dst dst{};
    host::CopyText(dst.szDstName, "CEST");
    dst.ucDstFlag = 1;
    dst.ucDstMode = 1;
    dst.uiDstOffset = 60;
    dst.stDstAdjust = {1, 0, 0};
    dst.stDstWeek = {0, 3, 5, 0, 2, 0, 10, 5, 0, 3};
    return dst;
}

Tarn_sys_diag_Dst ByDate() {
    Tarn_sys_diag_Dst dst = ByWeek();
    dst.ucDstMode = 0;
    dst.stDstStart = {2026, 3, 29, 2, 0, 0, 0, 0};
    dst.stDstEnd = {2026, 10, 25, 3, 0, 0, 0, 0};
    return dst;
}

TEST(DstRule, GoesThroughRecordAndText) {
    const auto byWeek = host::FromRecord(ByWeek());
    ASSERT_TRUE(byWeek);
    EXPECT_EQ(host::TextOf(byWeek), "CEST (+60 minutes) from M3.5.0/02:00:00 to M10.5.0/03:00:00");
    EXPECT_EQ(host::FromRecord(host::ToRecord(byWeek)), byWeek);
    const host::DstRule ninety{"+1030", 90, byWeek->start, byWeek->end};
    EXPECT_EQ(host::FromRecord(host::ToRecord(ninety)), ninety);
    const auto byDate = host::FromRecord(ByDate());
    EXPECT_EQ(host::TextOf(byDate), "CEST (+60 minutes) from 2026-03-29/02:00:00 to 2026-10-25/03:00:00");
    EXPECT_EQ(host::FromRecord(host::ToRecord(byDate)), byDate);
    for (const auto &rule : {byWeek, byDate}) {
        EXPECT_EQ(host::ParseChange(host::TextOf(rule->start)), rule->start);
        EXPECT_EQ(host::ParseChange(host::TextOf(rule->end)), rule->end);
    }
    EXPECT_EQ(host::ParseChange("2026-M3.5.0/02:00:00").year, 2026);
    EXPECT_EQ(host::TextOf(host::ParseChange("M3.5.0/02:03:04")), "M3.5.0/02:03:04");
    Tarn_sys_diag_Dst off = ByWeek();
    off.ucDstFlag = 0;
    EXPECT_EQ(host::FromRecord(off), std::nullopt);
    EXPECT_EQ(host::FromRecord(host::ToRecord(std::optional<host::DstRule>())), std::nullopt);
    for (const char *text : {"", "M3.5.0", "M3.5.0/2", "3-31/02:00:00", " M3.5.0/02:00:00", "M3.0.0/02:00:00",
                             "M3.6.0/02:00:00", "M3.5.0/02:00:00x", "-03-31/02:00:00", "M+3.5.0/02:00:00"}) {
        EXPECT_NE(Refusal([&] { host::ParseChange(text); }), "") << text;
    }
}

TEST(DstRule, RefusesWhatIsInconsistent) {
    using Change = std::function<void(Tarn_sys_diag_Dst &)>;
    const std::vector<std::tuple<bool, Change, std::string>> bad{
        {true, [](auto &d) { d.szDstName[0] = 0; }, "rule.name"},
        {true, [](auto &d) { d.uiDstOffset = 0; }, "expected what rule.offset says, 0 minutes"},
        {true, [](auto &d) { d.uiDstOffset = 0, d.stDstAdjust = {}; }, "rule.offset is 0, expected 1 to 180"},
        {true, [](auto &d) { d.uiDstOffset = 181, d.stDstAdjust = {}; }, "rule.offset is 181"},
        {true, [](auto &d) { d.stDstAdjust.ucMinute = 1; }, "rule.adjust is 1:01:00"},
        {true, [](auto &d) { d.stDstWeek.ucStartWeekday = 7; }, "rule.start.weekday is 7, expected 0 to 6"},
        {true, [](auto &d) { d.stDstWeek.ucStartMonth = 0; }, "rule.start.month is 0"},
        {true, [](auto &d) { d.stDstWeek.ucEndHour = 24; }, "rule.end.hour is 24"},
        {true, [](auto &d) { d.stDstWeek.usEndYear = 2026; }, "rule.end.year is 2026"},
        {true, [](auto &d) { d.stDstWeek.ucEndMonth = 3; }, "at least a day from the start"},
        {true, [](auto &d) { d.stDstWeek.usStartYear = 1900, d.stDstWeek.usEndYear = 1900; },
         "rule.start.year is 1900"},
        {false, [](auto &d) { d.stDstStart.ucDay = 32; }, "rule.start.day is 32"},
        {false, [](auto &d) { d.stDstStart.ucMonth = 2; }, "rule.start.day is 29, expected 1 to 28"},
        {false, [](auto &d) { d.stDstEnd.ucMinute = 60; }, "rule.end.minute is 60"},
        {false, [](auto &d) { d.stDstEnd.ucSecond = 60; }, "rule.end.second is 60"},
        {false, [](auto &d) { d.stDstEnd.usYear = 2028; }, "within a year"},
        {false, [](auto &d) { std::swap(d.stDstStart, d.stDstEnd); }, "after the start"},
        {false,
         [](auto &d) {
             d.stDstStart = {0, 2, 29, 2, 0, 0, 0, 0};
             d.stDstEnd.usYear = 0;
         },
         "expected 1 to 28 in month 2 of every year"},
    };
    for (const auto &[byWeek, change, why] : bad) {
        Tarn_sys_diag_Dst dst = byWeek ? ByWeek() : ByDate();
        change(dst);
        const std::string refusal = Refusal([&] { host::FromRecord(dst); });
        EXPECT_NE(refusal.find(why), std::string::npos) << refusal << "\n" << why;
    }
}

TEST(DstRule, LastsADayAtLeastAndAllButADayOfAYear) {
    const auto refusal = [](const char *start, const char *end) {
        return Refusal([&] { host::CheckedRule({"CEST", 60, host::ParseChange(start), host::ParseChange(end)}); });
    };
    EXPECT_EQ(refusal("03-29/02:00:00", "03-30/02:00:00"), "");
    EXPECT_NE(refusal("03-29/02:00:00", "03-30/01:59:59"), "");
    EXPECT_EQ(refusal("01-02/02:00:00", "12-31/02:00:00"), "");
    EXPECT_NE(refusal("01-02/02:00:00", "12-31/02:00:01"), "");
}

TEST(WallClock, AgreesWithTheCLibrarys) {
    struct Case {
        const char *posix;
        int32_t offset;
        host::DstRule rule;
    };
    const Case cases[] = {
        {"CET-1CEST,M3.5.0,M10.5.0/3",
         60,
         {"CEST", 60, host::ParseChange("M3.5.0/02:00:00"), host::ParseChange("M10.5.0/03:00:00")}},
        {"AEST-10AEDT,M10.1.0,M4.1.0/3",
         600,
         {"AEDT", 60, host::ParseChange("M10.1.0/02:00:00"), host::ParseChange("M4.1.0/03:00:00")}},
        {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
         630,
         {"+11", 30, host::ParseChange("M10.1.0/02:00:00"), host::ParseChange("M4.1.0/02:00:00")}},
        {"PST8PDT,M3.2.0,M11.1.0",
         -480,
         {"PDT", 60, host::ParseChange("M3.2.0/02:00:00"), host::ParseChange("M11.1.0/02:00:00")}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.posix);
        const PosixZone zone(c.posix);
        const host::WallClock clock({"Zone", c.offset}, host::CheckedRule(c.rule));
        const auto first = sys_days(2023y / 12 / 20);
        for (host::GmtTime time = first; time < sys_days(2029y / 1 / 10); time += 30min) {
            const time_t seconds = system_clock::to_time_t(time);
            tm fields{};
            localtime_r(&seconds, &fields);
            const Systime record = host::ToRecord(clock.ToLocal(time));
            ASSERT_EQ(clock.IsDst(time), fields.tm_isdst > 0) << seconds;
            ASSERT_EQ(record.ucDay, fields.tm_mday) << seconds;
            ASSERT_EQ(record.ucHour, fields.tm_hour) << seconds;
            ASSERT_EQ(record.ucMinute, fields.tm_min) << seconds;
            // A time that is shown twice stands for the first.
            const host::GmtTime back = clock.ToGmt(clock.ToLocal(time));
            ASSERT_LE(back, time);
            ASSERT_EQ(clock.ToLocal(back), clock.ToLocal(time));
            ASSERT_TRUE(back == time || (clock.IsDst(back) && !clock.IsDst(time))) << seconds;
        }
    }
}

std::string Posix(const char *zone, int32_t offset, const char *dst, uint32_t dstOffset, const char *start,
                  const char *end, const char *now = "2026-06-01 00:00:00") {
    tm fields{};
    strptime(now, "%Y-%m-%d %H:%M:%S", &fields);
    const host::DstRule rule = host::CheckedRule({dst, dstOffset, host::ParseChange(start), host::ParseChange(end)});
    return host::PosixText({zone, offset}, rule, sys_seconds(seconds(timegm(&fields))));
}

TEST(PosixText, SaysAZoneAndItsRule) {
    EXPECT_EQ(host::PosixText({"UTC", 0}, {}, {}), "<UTC>0");
    EXPECT_EQ(host::PosixText({"NST", -210}, {}, {}), "<NST>3:30");
    EXPECT_EQ(Posix("CET", 60, "CEST", 60, "M3.5.0/02:00:00", "M10.5.0/03:00:00"), "<CET>-1<CEST>,M3.5.0,M10.5.0/3");
    EXPECT_EQ(Posix("CET", 60, "CEST", 60, "03-29/02:30:00", "10-25/03:00:01"), "<CET>-1<CEST>,J88/2:30,J298/3:00:01");
    EXPECT_EQ(Posix("LHST", 630, "LHDT", 30, "M10.1.0/02:00:00", "M4.1.0/02:00:00"),
              "<LHST>-10:30<LHDT>-11,M10.1.0,M4.1.0");
}

TEST(PosixText, HasTheOffsetForANameThatPosixLacks) {
    EXPECT_EQ(host::PosixText({"Europe/Berlin", 60}, {}, {}), "<+0100>-1");
    EXPECT_EQ(host::PosixText({"X", -150}, {}, {}), "<-0230>2:30");
    EXPECT_EQ(Posix("Europe/Berlin", 60, "Summer time", 60, "M3.5.0/02:00:00", "M10.5.0/03:00:00"),
              "<+0100>-1<+0200>,M3.5.0,M10.5.0/3");
}

TEST(PosixText, SaysARuleForOneYearUntilItIsOver) {
    const auto in = [](const char *now) {
        return Posix("CET", 60, "CEST", 60, "2028-02-29/02:00:00", "2028-10-29/03:00:00", now);
    };
    EXPECT_EQ(in("2028-03-01 00:00:00"), "<CET>-1<CEST>,59,J302/3");
    EXPECT_EQ(in("2028-10-29 01:59:59"), "<CET>-1<CEST>,59,J302/3");
    EXPECT_EQ(in("2028-10-29 02:00:00"), "<CET>-1");
}

// What the C library makes of the text is what the clock shows, an hour at a time.
TEST(PosixText, IsTheClockForTheCLibrary) {
    const std::pair<int32_t, host::DstRule> cases[] = {
        {60, {"CEST", 60, host::ParseChange("M3.5.0/02:00:00"), host::ParseChange("M10.5.0/03:00:00")}},
        {630, {"LHDT", 30, host::ParseChange("M10.1.0/02:00:00"), host::ParseChange("M4.1.0/02:00:00")}},
        {-210, {"NDT", 60, host::ParseChange("03-31/00:01:00"), host::ParseChange("11-01/00:01:00")}},
    };
    for (const auto &[offset, rule] : cases) {
        const host::WallClock clock({"Zone", offset}, rule);
        const PosixZone zone(host::PosixText({"Zone", offset}, rule, {}).c_str());
        const sys_seconds from = sys_days{year(2027) / January / 1};
        for (sys_seconds when = from; when < from + years(2); when += hours(1)) {
            const time_t seconds = system_clock::to_time_t(when);
            tm fields{};
            localtime_r(&seconds, &fields);
            const auto shift = clock.ToLocal(when).time_since_epoch() - when.time_since_epoch();
            ASSERT_EQ(duration_cast<std::chrono::seconds>(shift).count(), fields.tm_gmtoff) << getenv("TZ") << seconds;
        }
    }
}

TEST(WallClock, KnowsNoTimeThatItSkips) {
    const host::WallClock clock({"Europe/Berlin", 60}, host::FromRecord(ByDate()));
    const auto gmt = [&](uint16_t year, uint8_t hour, uint8_t minute) {
        return clock.ToGmt(host::FromRecord({year, 3, 29, hour, minute, 0, 0, 0}, "t"));
    };
    EXPECT_EQ(gmt(2026, 1, 59), sys_days(2026y / 3 / 29) + 59min);
    EXPECT_NE(Refusal([&] { gmt(2026, 2, 0); }), "");
    EXPECT_NE(Refusal([&] { gmt(2026, 2, 59); }).find("2026-03-29 02:59:00"), std::string::npos);
    EXPECT_EQ(gmt(2026, 3, 0), sys_days(2026y / 3 / 29) + 1h);
    EXPECT_EQ(gmt(2027, 2, 30), sys_days(2027y / 3 / 29) + 90min) << "the rule is of 2026 only";
}

// When something of 02:30 each day is taken, by looking every minute from one moment of GMT to another.
std::vector<std::string> Taken(const host::WallClock &clock, sys_seconds from, sys_seconds to) {
    host::Daily daily(2h + 30min, clock.ToLocal(from));
    std::vector<std::string> taken;
    for (host::GmtTime now = from; now < to; now += 1min) {
        if (daily.Take(clock.ToLocal(now))) {
            taken.push_back(host::TextOf(clock.ToLocal(now)));
        }
    }
    return taken;
}

// The rule of a zone's file stands behind all that it has of years gone by.
TEST(SystemsPosixText, IsTheFilesRuleOrWhatTheVariableSays) {
    const kit::TempDir dir;
    const auto textBy = [&](const char *variable) {
        const PosixZone zone(variable);
        return host::SystemsPosixText(dir.Path() / "localtime", dir.Path());
    };
    unsetenv("TZ");
    EXPECT_EQ(host::SystemsPosixText(dir.Path() / "localtime", dir.Path()), "UTC0") << "no file";
    std::ofstream(dir.Path() / "localtime") << "TZif2 and what was\nCET-1CEST,M3.5.0,M10.5.0/3\n";
    std::ofstream(dir.Path() / "Here") << "TZif2 and what was\n<+0545>-5:45\n";
    std::ofstream(dir.Path() / "Damaged") << "TZif2 and what";
    EXPECT_EQ(host::SystemsPosixText(dir.Path() / "localtime", dir.Path()), "CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(textBy("Here"), "<+0545>-5:45");
    EXPECT_EQ(textBy(":Here"), "<+0545>-5:45");
    EXPECT_EQ(textBy("Damaged"), "");
    EXPECT_EQ(textBy("<+05>-5"), "<+05>-5");
    EXPECT_EQ(textBy(""), "UTC0");
}

TEST(Daily, ComesOnceADayAlsoWhenClocksGoForwardOrBack) {
    const host::DstRule rule{"CEST", 60, host::ParseChange("M3.5.0/02:00:00"), host::ParseChange("M10.5.0/03:00:00")};
    const host::WallClock clock({"Europe/Berlin", 60}, rule);
    EXPECT_EQ(Taken(clock, sys_days(2026y / 3 / 27) + 12h, sys_days(2026y / 3 / 31)),
              (std::vector<std::string>{"2026-03-28 02:30:00", "2026-03-29 03:00:00", "2026-03-30 02:30:00"}));
    EXPECT_EQ(Taken(clock, sys_days(2026y / 10 / 23) + 12h, sys_days(2026y / 10 / 27)),
              (std::vector<std::string>{"2026-10-24 02:30:00", "2026-10-25 02:30:00", "2026-10-26 02:30:00"}));
}

host::LocalMillis At(year_month_day day, host::Millis time) {
    return host::LocalMillis(local_days(day)) + time;
}

TEST(Daily, ComesToALateLookUnlessTheClockWasSet) {
    const auto comes = [](host::Millis late) {
        host::Daily daily(2h + 30min, At(2026y / 11 / 21, 12h));
        return daily.Take(At(2026y / 11 / 22, 2h + 30min) + late);
    };
    EXPECT_FALSE(comes(-1ms));
    EXPECT_TRUE(comes(0ms));
    EXPECT_TRUE(comes(3h + 1min));
    EXPECT_FALSE(comes(3h + 1min + 1ms));
}

TEST(Daily, FollowsAClockThatIsSet) {
    host::Daily daily(2h + 30min, At(2026y / 11 / 21, 12h));
    EXPECT_FALSE(daily.Take(At(2026y / 11 / 22, 2h + 29min + 59s)));
    EXPECT_FALSE(daily.Take(At(2026y / 11 / 22, 12h))) << "set forward beyond it";
    EXPECT_EQ(daily.Due(), At(2026y / 11 / 23, 2h + 30min));
    EXPECT_FALSE(daily.Take(At(2020y / 1 / 1, 1h))) << "set back by years";
    EXPECT_EQ(daily.Due(), At(2020y / 1 / 1, 2h + 30min));
    EXPECT_TRUE(daily.Take(At(2020y / 1 / 1, 2h + 30min)));
    EXPECT_FALSE(daily.Take(At(2020y / 1 / 1, 2h + 30min)));
}

} // namespace
