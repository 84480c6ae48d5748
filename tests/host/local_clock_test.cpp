// The daemon's clock: what it shows by its settings, what it takes, and what it keeps.
#include "host/daemon/time/local_clock.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "host/osal/text.h"
#include "tests/host/error_of.h"
#include "tests/host/kept_events.h"
#include "tests/host/manual_clocks.h"
#include "tests/host/refusal.h"
#include "tests/host/temp_dir.h"

namespace {

using namespace std::chrono_literals;

constexpr tarnd::Source kSource = tarnd::Source::kClient;

class LocalClockTest : public testing::Test {
protected:
    // The code of what a setting throws.
    template <class Function>
    static int ErrorOf(Function function) {
        try {
            function();
        } catch (const std::system_error &error) {
            return error.code().value();
        }
        return 0;
    }
    int SetZone(const std::string &name, int32_t minutes) {
        return ErrorOf([&] { clock_.SetZone({name, minutes}, kSource); });
    }
    int SetGmt(const Tarn_sys_diag_Systime &time) {
        return ErrorOf([&] { clock_.SetGmt(time); });
    }
    int SetLocal(const Tarn_sys_diag_Systime &time) {
        return ErrorOf([&] { clock_.SetLocal(time); });
    }
    int SetEuropeanDst(uint32_t minutes = 60) {
        return ErrorOf([&] {
            clock_.SetDst(host::DstRule{"CEST", minutes, {0, 3, 5, 0, 2, 0, 0}, {0, 10, 5, 0, 3, 0, 0}}, kSource);
        });
    }
    std::vector<std::string> Journaled() const {
        std::vector<std::string> texts;
        for (const tarnd::Event &event : journal_.events) {
            EXPECT_EQ(event.kind, tarnd::EventKind::kSetting);
            texts.push_back(event.text);
        }
        return texts;
    }
    std::string Shown() const { return clock_.Text(clocks_.WallNow()); }

    const kit::TempDir dir_;
    kit::ManualClocks clocks_; // at 2023-11-14 22:13:20 GMT
    host::Store store_{dir_.Path() / "state"};
    kit::KeptEvents journal_;
    tarnd::LocalClock clock_{clocks_, store_, journal_, {}};
};

TEST_F(LocalClockTest, ShowsTheSystemsTimeUntilItIsToldAnother) {
    const time_t now = 1'700'000'000;
    char text[32];
    strftime(text, sizeof text, "%F %T %z", localtime(&now));
    EXPECT_EQ(Shown(), text);
}

TEST_F(LocalClockTest, TakesAZoneOfTheSystemWithAnOffsetThatItHas) {
    const auto write = [this](const std::string &zone, const std::string &end) {
        std::filesystem::create_directories((dir_.Path() / "zones" / zone).parent_path());
        std::ofstream(dir_.Path() / "zones" / zone) << "TZif2" << std::string(40, '\0') << "\n" << end << "\n";
    };
    write("Europe/Berlin", "CET-1CEST,M3.5.0,M10.5.0/3");
    write("Asia/Kathmandu", "<+0545>-5:45");
    tarnd::LocalClock clock(clocks_, store_, journal_, {}, dir_.Path() / "zones");
    const auto refusal = [&](const std::string &name, int32_t minutes) {
        return kit::ReasonOf([&] { clock.SetZone({name, minutes}, kSource); });
    };
    EXPECT_EQ(refusal("Europe/Berlin", 0),
              "zone.offset is 0, expected 60 or 120 minutes, which the system has for Europe/Berlin");
    EXPECT_EQ(refusal("Asia/Kathmandu", 300),
              "zone.offset is 300, expected 345 minutes, which the system has for Asia/Kathmandu");
    EXPECT_EQ(clock.PosixZone(), "") << "as before";
    for (const host::Zone &zone : {host::Zone{"Europe/Berlin", 60}, host::Zone{"Europe/Berlin", 120},
                                   host::Zone{"Asia/Kathmandu", 345}, host::Zone{"Europe", 0}, host::Zone{"ours", 7}}) {
        EXPECT_EQ(refusal(zone.name, zone.offsetMinutes), "");
    }
}

TEST(OffsetsOf, AreThoseOfATextForTZ) {
    using host::OffsetsOf;
    EXPECT_EQ(OffsetsOf("EST5EDT,M3.2.0,M11.1.0"), (std::vector{-300, -240}));
    EXPECT_EQ(OffsetsOf("IST-1GMT0,M10.5.0,M3.5.0/1"), (std::vector{60, 0}));
    EXPECT_EQ(OffsetsOf("<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"), (std::vector{630, 660}));
    EXPECT_EQ(OffsetsOf("UTC0"), (std::vector{0}));
    for (const char *const none : {"", "X", "<+03", "CET", "CETx", "1CET", "CET-"}) {
        EXPECT_EQ(OffsetsOf(none), std::vector<int32_t>{}) << none;
    }
}

TEST_F(LocalClockTest, TellsItsZoneWithItsRule) {
    EXPECT_EQ(clock_.PosixZone(), "");
    EXPECT_EQ(SetEuropeanDst(), 0);
    EXPECT_EQ(clock_.PosixZone(), "") << "without a zone times are the system's";
    EXPECT_EQ(SetZone("CET", 60), 0);
    EXPECT_EQ(clock_.PosixZone(), "<CET>-1<CEST>,M3.5.0,M10.5.0/3");
}

TEST_F(LocalClockTest, TellsARuleForOneYearUntilItIsOver) {
    EXPECT_EQ(SetZone("CET", 60), 0);
    clock_.SetDst(host::DstRule{"CEST", 60, {2031, 3, 0, 30, 2, 0, 0}, {2031, 10, 0, 26, 3, 0, 0}}, kSource);
    EXPECT_EQ(clock_.PosixZone(), "<CET>-1<CEST>,J89,J299/3");
    EXPECT_EQ(SetGmt({2031, 11, 1, 0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(clock_.PosixZone(), "<CET>-1") << "by its own time, not by the system's";
}

TEST_F(LocalClockTest, ShowsTheTimeByItsSettings) {
    EXPECT_EQ(SetZone("Asia/Kathmandu", 345), 0);
    EXPECT_EQ(Shown(), "2023-11-15 03:58:20 +0545");
    EXPECT_EQ(SetGmt({2031, 2, 3, 4, 5, 6, 1, 7}), 0);
    EXPECT_EQ(Shown(), "2031-02-03 09:50:06 +0545");
    EXPECT_EQ(clock_.LocalTime(clocks_.WallNow()).uiMillisecond, 7);
    clocks_.Advance(24h + 993ms);
    EXPECT_EQ(Shown(), "2031-02-04 09:50:07 +0545") << "it goes on";
    EXPECT_EQ(host::TextOf(clock_.LocalNow()), "2031-02-04 09:50:07");
    EXPECT_EQ(clock_.Text(clocks_.WallNow() - 1h), "2031-02-04 08:50:07 +0545");
    EXPECT_EQ(SetLocal({2032, 2, 29, 23, 59, 30, 0, 0}), 0);
    EXPECT_EQ(SetZone("UTC", 0), 0);
    EXPECT_EQ(Shown(), "2032-02-29 18:14:30 +0000");
    clock_.SetDateFormat(host::DateFormat::kDayMonthYear);
    EXPECT_EQ(Shown(), "29-02-2032 18:14:30 +0000");
    EXPECT_EQ(clock_.TextWithoutZone(clocks_.WallNow()), "29-02-2032 18:14:30");
    clock_.SetDateFormat(host::DateFormat::kMonthDayYear);
    EXPECT_EQ(Shown(), "02-29-2032 18:14:30 +0000");
    clock_.SetDateFormat(host::DateFormat::kYearMonthDay);
    EXPECT_EQ(Shown(), "2032-02-29 18:14:30 +0000");
}

TEST_F(LocalClockTest, TakesALocalTimeByTheSystemsZone) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    EXPECT_EQ(SetLocal({2026, 7, 1, 12, 30, 15, 0, 7}), 0);
    EXPECT_EQ(Shown(), "2026-07-01 12:30:15 +0200");
    EXPECT_EQ(clock_.LocalTime(clocks_.WallNow()).uiMillisecond, 7);
    EXPECT_EQ(SetLocal({2026, 3, 29, 2, 30, 0, 0, 0}), EINVAL) << "the clock skips it";
    EXPECT_EQ(SetLocal({2026, 1, 1, 12, 30, 15, 0, 0}), 0);
    EXPECT_EQ(Shown(), "2026-01-01 12:30:15 +0100");
    unsetenv("TZ");
    tzset();
}

TEST_F(LocalClockTest, SavesDaylight) {
    EXPECT_EQ(SetZone("Europe/Berlin", 60), 0);
    EXPECT_EQ(SetEuropeanDst(), 0);
    EXPECT_EQ(SetGmt({2026, 7, 1, 12, 0, 0, 0, 0}), 0);
    EXPECT_EQ(Shown(), "2026-07-01 14:00:00 +0200");
    EXPECT_EQ(SetGmt({2026, 12, 1, 12, 0, 0, 0, 0}), 0);
    EXPECT_EQ(Shown(), "2026-12-01 13:00:00 +0100");
    EXPECT_EQ(SetLocal({2026, 3, 29, 2, 30, 0, 0, 0}), EINVAL) << "the clock skips it";
    EXPECT_EQ(Shown(), "2026-12-01 13:00:00 +0100");
    EXPECT_EQ(SetLocal({2026, 10, 25, 2, 30, 0, 0, 0}), 0) << "which comes twice: the first time";
    clocks_.Advance(1h);
    EXPECT_EQ(Shown(), "2026-10-25 02:30:00 +0100");
    clock_.SetDst({}, kSource);
    EXPECT_EQ(Shown(), "2026-10-25 02:30:00 +0100");
    clocks_.Advance(-1h);
    EXPECT_EQ(Shown(), "2026-10-25 01:30:00 +0100") << "without daylight saving";
}

TEST_F(LocalClockTest, RefusesWhatMakesNoSense) {
    EXPECT_EQ(SetZone("America/St_Johns", -210), 0);
    EXPECT_EQ(SetGmt({2031, 2, 3, 4, 5, 6, 0, 0}), 0);
    for (const auto &[name, minutes] : std::multimap<std::string, int32_t>{
             {"Pacific/Kiritimati", 841}, {"Etc/GMT+12", -721}, {"", 0}, {"a b", 60}, {"../../etc/passwd", 0}}) {
        EXPECT_EQ(SetZone(name, minutes), EINVAL) << name;
    }
    EXPECT_EQ(SetGmt({2026, 2, 29, 0, 0, 0, 0, 0}), EINVAL);
    EXPECT_EQ(SetLocal({2026, 11, 21, 0, 0, 0, 1, 0}), EINVAL) << "a Saturday";
    EXPECT_EQ(SetEuropeanDst(0), EINVAL);
    EXPECT_EQ(SetEuropeanDst(181), EINVAL);
    EXPECT_EQ(Shown(), "2031-02-03 00:35:06 -0330") << "as it was";
    EXPECT_EQ(SetZone("Pacific/Kiritimati", 840), 0);
    EXPECT_EQ(SetZone("Etc/GMT+12", -720), 0);
}

TEST_F(LocalClockTest, IsAskedByWhatMembersMean) {
    namespace methods = host::methods;
    const Tarn_sys_diag_Systime hour24{2026, 11, 21, 24, 0, 0, 0, 0}, early{1969, 1, 1, 0, 0, 0, 0, 0};
    Tarn_sys_diag_SetDstInput rule{};
    rule.stDst.ucDstFlag = 1;
    const auto refusalOf = [&](const auto &change) {
        Tarn_sys_diag_SetDstInput changed = rule;
        changed.stDst.szDstName[0] = 'x';
        changed.stDst.uiDstOffset = 60;
        changed.stDst.ucDstMode = 1;
        changed.stDst.stDstWeek = {0, 3, 5, 0, 2, 0, 10, 5, 0, 3};
        change(changed.stDst);
        return kit::Refusal(methods::SetDst, changed);
    };
    const std::pair<std::string, const char *> refusals[] = {
        {kit::Refusal(methods::SetGmt, {early}), "time (stTime): year (usYear) is 1969, expected 1970 to 2199"},
        {kit::Refusal(methods::SetLocalTime, {hour24}), "time (stTime): hour (ucHour) is 24 h, expected 0 to 23"},
        {kit::Refusal(methods::SetDateFormat, {3}),
         "format (uiDateFormat) is 3, expected year-month-day (0), day-month-year (1) or month-day-year (2)"},
        {kit::Refusal(methods::SetTimezone, {}), "zone (stTimezone): name (szTimezoneName) is empty, expected a text"},
        {kit::Refusal(methods::SetDst, rule), "rule (stDst): name (szDstName) is empty, expected a text"},
        {refusalOf([](auto &) {}), ""},
        {refusalOf([](auto &dst) { dst.ucDstFlag = 2; }), "rule (stDst): on (ucDstFlag) is 2, expected 0 to 1"},
        {refusalOf([](auto &dst) { dst.uiDstOffset = 181; }),
         "rule (stDst): offset (uiDstOffset) is 181 min, expected 1 to 180"},
        {refusalOf([](auto &dst) { dst.ucDstMode = 2; }),
         "rule (stDst): mode (ucDstMode) is 2, expected by-date (0) or by-week (1)"},
        {refusalOf([](auto &dst) { dst.stDstWeek.ucStartWeek = 0; }),
         "rule (stDst): weeks (stDstWeek): start-week (ucStartWeek) is 0, expected 1 to 5"},
    };
    for (const auto &[refusal, expected] : refusals) {
        EXPECT_EQ(refusal, expected);
    }
}

TEST_F(LocalClockTest, KeepsItsSettings) {
    EXPECT_EQ(SetZone("Europe/Berlin", 60), 0);
    EXPECT_EQ(SetEuropeanDst(30), 0);
    EXPECT_EQ(SetGmt({2026, 7, 1, 12, 0, 0, 0, 0}), 0);
    clock_.SetDateFormat(host::DateFormat::kDayMonthYear);
    EXPECT_EQ(Shown(), "01-07-2026 13:30:00 +0130");
    EXPECT_EQ(tarnd::LocalClock(clocks_, store_, journal_, {}).Text(clocks_.WallNow()), Shown());
}

TEST_F(LocalClockTest, TakesNothingOverThatMakesNoSense) {
    for (const uint32_t format : {2U, 3U}) {
        store_.Save("clock", 1, host::Document::Object{{"shiftMs", 1000}, {"dateFormat", format}});
        const tarnd::LocalClock clock(clocks_, store_, journal_, {});
        const bool taken = host::TextOf(clock.LocalNow()) != host::TextOf(clock_.LocalNow());
        EXPECT_EQ(taken, format == 2) << "the shift is of the same document";
    }
    EXPECT_TRUE(std::filesystem::exists(dir_.Path() / "state" / "clock.json.damaged"));
}

TEST_F(LocalClockTest, IsAsItWasWhenASettingCannotBeKept) {
    EXPECT_EQ(SetZone("Asia/Kathmandu", 345), 0);
    const std::string before = Shown();
    std::filesystem::remove_all(dir_.Path() / "state");
    std::ofstream(dir_.Path() / "state") << "a file is in the way";
    EXPECT_NE(SetZone("UTC", 0), 0);
    EXPECT_NE(SetGmt({2031, 2, 3, 4, 5, 6, 0, 0}), 0);
    EXPECT_EQ(Shown(), before);
}

TEST_F(LocalClockTest, TellsOfEachChangeAndOfNothingElse) {
    int changes = 0;
    clock_.OnChange([&] { ++changes; });
    EXPECT_EQ(SetZone("Europe/Berlin", 60), 0);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(SetZone("Europe/Berlin", 60), 0);
    EXPECT_EQ(changes, 1) << "it was so before";
    EXPECT_EQ(SetZone("Europe/Berlin", 900), EINVAL);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(SetGmt({2026, 7, 1, 12, 0, 0, 0, 0}), 0);
    EXPECT_EQ(changes, 2);
}

TEST_F(LocalClockTest, TellsTheJournalWhatComesToHoldFromTheMaster) {
    constexpr auto kMaster = tarnd::Source::kMaster;
    const host::DstRule rule{"summer", 60, host::ParseChange("04-01/02:00:00"), host::ParseChange("10-01/03:00:00")};
    for (int time = 0; time < 2; ++time) { // the second time it has come to hold already
        clock_.SetZone({"ours", 345}, kMaster);
        clock_.SetDst(rule, kMaster);
        clock_.TakeMastersGmt({2023, 11, 14, 23, 13, 20, 0, 0});
    }
    const std::string before = host::TextOf(std::optional<host::DstRule>());
    EXPECT_EQ(Journaled(),
              (std::vector<std::string>{
                  "time zone " + host::TextOf(host::Zone{"ours", 345}) + " from the master, before the system's",
                  "daylight saving " + host::TextOf(rule) + " from the master, before " + before,
                  "clock set to 2023-11-14 23:13:20 GMT from the master, 3600000 ms ahead of the system's, "
                  "before 0 ms"}));
}

TEST_F(LocalClockTest, TellsTheJournalOfTheMastersOnceNoClientsHold) {
    constexpr auto kMaster = tarnd::Source::kMaster;
    EXPECT_EQ(SetZone("theirs", 0), 0);
    EXPECT_EQ(SetEuropeanDst(), 0);
    EXPECT_EQ(SetGmt({2026, 7, 1, 12, 0, 0, 0, 0}), 0);
    clock_.SetZone({"ours", 345}, kMaster);
    clock_.SetDst(std::nullopt, kMaster);
    clock_.TakeMastersGmt({2023, 11, 14, 23, 13, 20, 0, 0});
    EXPECT_EQ(Journaled(), std::vector<std::string>());
    clock_.ForgetClients();
    EXPECT_EQ(Journaled(), (std::vector<std::string>{"clock from the default, time zone from the master, daylight "
                                                     "saving from the master"}));
}

TEST_F(LocalClockTest, TellsTheJournalNoRuleOfTheMasterForAClientsZone) {
    EXPECT_EQ(SetZone("theirs", 0), 0);
    clock_.SetDst(host::DstRule{"summer", 60, {0, 3, 5, 0, 2, 0, 0}, {0, 10, 5, 0, 3, 0, 0}}, tarnd::Source::kMaster);
    EXPECT_EQ(Journaled(), std::vector<std::string>());
}

TEST_F(LocalClockTest, NamesTheSystemsZoneWhereItIsToldTo) {
    if (!std::filesystem::exists("/usr/share/zoneinfo/Asia/Kathmandu")) {
        GTEST_SKIP() << "the system has no zones";
    }
    const std::filesystem::path link = dir_.Path() / "localtime";
    tarnd::LocalClock clock(clocks_, store_, journal_, link);
    EXPECT_EQ(ErrorOf([&] { clock.SetZone({"Nowhere/At_All", 60}, kSource); }), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    for (const auto &[name, minutes] : std::map<std::string, int32_t>{{"Asia/Kathmandu", 345}, {"Europe/Berlin", 60}}) {
        clock.SetZone({name, minutes}, kSource);
        EXPECT_EQ(std::filesystem::read_symlink(link), "/usr/share/zoneinfo/" + name);
    }
}

TEST_F(LocalClockTest, LeavesNothingWhereItCantNameTheZone) {
    if (!std::filesystem::exists("/usr/share/zoneinfo/Asia/Kathmandu")) {
        GTEST_SKIP() << "the system has no zones";
    }
    const std::filesystem::path etc = dir_.Path() / "etc";
    std::filesystem::create_directories(etc / "localtime" / "in the way");
    tarnd::LocalClock clock(clocks_, store_, journal_, etc / "localtime");
    EXPECT_NE(ErrorOf([&] { clock.SetZone({"Asia/Kathmandu", 345}, kSource); }), 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(etc), {}), 1);
    EXPECT_EQ(clock.Text(clocks_.WallNow()), Shown()) << "as before";
}

} // namespace
