// Times as texts, in the zone that TZ names.
#include "host/describe/moment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "tests/host/zone.h"

namespace host::describe {
namespace {

using namespace std::chrono_literals;
using std::chrono::system_clock;

constexpr auto kNow = system_clock::time_point(1'770'087'906s); // 2026-02-03T03:05:06Z

std::string Stated(std::string_view text, Zone zone = Zone::kLocal) {
    const auto moment = ParseStatedMoment(text, kNow, zone);
    return moment ? Rfc3339(*moment, zone) : "none";
}

TEST(Moment, ReadsTheTextsThatRecordsHave) {
    for (const char *text :
         {"2026-02-03 04:05:06", "2026-02-03T04:05:06", "20260203040506", "2026-02-03 04:05:06.000"}) {
        const auto moment = ParseMoment(text);
        ASSERT_TRUE(moment) << text;
        EXPECT_EQ(PlainText(*moment), "2026-02-03 04:05:06");
    }
    EXPECT_EQ(PlainText(*ParseMoment("2026-02-03 04:05:06.007")), "2026-02-03 04:05:06.007");
}

TEST(Moment, IsARealDate) {
    for (const char *text :
         {"2026-02-30 00:00:00", "2026-13-01 00:00:00", "2026-01-01 24:00:00", "2026-01-01 00:60:00",
          "0000-01-01 00:00:00", "2026-1-1 0:0:0", "2026-01-01", "2026-01-01 00:00:00.1", "", "2026-01-01 00:00:00 "}) {
        EXPECT_FALSE(ParseMoment(text)) << text;
    }
    EXPECT_TRUE(ParseMoment("2024-02-29 00:00:00")) << "of a leap year";
}

TEST(Moment, HasTheOffsetOfItsZone) {
    const ZoneOfTest zone("CET-1CEST,M3.5.0,M10.5.0/3");
    const Moment winter{2026, 2, 3, 4, 5, 6, 7}, summer{2026, 7, 3, 4, 5, 6, 0};
    EXPECT_EQ(Rfc3339(winter, Zone::kLocal), "2026-02-03T04:05:06.007+01:00");
    EXPECT_EQ(Rfc3339(summer, Zone::kLocal), "2026-07-03T04:05:06+02:00");
    EXPECT_EQ(Rfc3339(summer, Zone::kGmt), "2026-07-03T04:05:06Z");
    EXPECT_EQ(Rfc3339(kNow), "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(ZonedText(winter, Zone::kLocal), "2026-02-03 04:05:06.007 +0100");
    EXPECT_EQ(ZonedText(summer, Zone::kGmt), "2026-07-03 04:05:06 +0000");
    EXPECT_EQ(ZonedText(kNow), "2026-02-03 04:05:06 +0100");
}

TEST(Moment, KeepsTheZoneThatATextHas) {
    const ZoneOfTest zone("CET-1");
    EXPECT_EQ(Rfc3339OfText("2026-02-03 04:05:06 -0330"), "2026-02-03T04:05:06-03:30");
    EXPECT_EQ(Rfc3339OfText("2026-02-03 04:05:06"), "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(Rfc3339OfText("20260203040506"), "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(Rfc3339OfText("2026-02-03 04:05:06 CET"), std::nullopt);
    EXPECT_EQ(Rfc3339OfText(""), std::nullopt);
}

TEST(Moment, WestOfGreenwichHasANegativeOffset) {
    const ZoneOfTest zone("NST3:30");
    EXPECT_EQ(Rfc3339(kNow), "2026-02-02T23:35:06-03:30");
}

TEST(Moment, TellsTheTwoHoursApartInWhichClocksGoBack) {
    const ZoneOfTest zone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(Rfc3339(system_clock::time_point(1'792'888'200s)), "2026-10-25T02:30:00+02:00");
    EXPECT_EQ(Rfc3339(system_clock::time_point(1'792'891'800s)), "2026-10-25T02:30:00+01:00");
    for (const char *text : {"2026-10-25T02:30:00+02:00", "2026-10-25T02:30:00+01:00"}) {
        const auto time = ParseStatedTime(text, kNow);
        ASSERT_TRUE(time);
        EXPECT_EQ(Rfc3339(*time), text);
    }
}

TEST(Moment, IsStatedInManyWays) {
    const ZoneOfTest zone("CET-1");
    EXPECT_EQ(Stated("2026-02-03T04:05:06"), "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(Stated("2026-02-03T04:05:06Z"), "2026-02-03T05:05:06+01:00");
    EXPECT_EQ(Stated("2026-02-03T04:05:06.250-05:30"), "2026-02-03T10:35:06.250+01:00");
    EXPECT_EQ(Stated("2026-02-03 04:05:06 +0000"), "2026-02-03T05:05:06+01:00");
    EXPECT_EQ(Stated("now"), "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(Stated("+1h"), "2026-02-03T05:05:06+01:00");
    EXPECT_EQ(Stated("-90s"), "2026-02-03T04:03:36+01:00");
    EXPECT_EQ(Stated("+2d"), "2026-02-05T04:05:06+01:00");
    EXPECT_EQ(Stated("2026-02-03T04:05:06", Zone::kGmt), "2026-02-03T04:05:06Z");
    EXPECT_EQ(Stated("2026-02-03T04:05:06+01:00", Zone::kGmt), "2026-02-03T03:05:06Z");
    EXPECT_EQ(Stated("now", Zone::kGmt), "2026-02-03T03:05:06Z");
    for (const char *text : {"", "soon", "+", "-", "+h", "+1", "+1y", "--1h", "+99999999999999999999s", "+9999999d",
                             "2026-02-03T04:05:06+1", "2026-02-03T04:05:06 CET", "2026-02-30T00:00:00Z"}) {
        EXPECT_EQ(Stated(text), "none") << text;
    }
}

TEST(Moment, KnowsItsWeekday) {
    EXPECT_EQ(WeekdayOf({2026, 11, 22, 0, 0, 0, 0}), 0);
    EXPECT_EQ(WeekdayOf({2024, 2, 29, 23, 59, 59, 0}), 4);
}

} // namespace
} // namespace host::describe
