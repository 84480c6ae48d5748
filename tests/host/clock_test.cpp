// The daemon's time settings, as clients set them, and that it leaves the system's clock alone.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <sys/prctl.h>

#include <linux/capability.h>

#include <ctime>

#include "tests/host/daemon_kit.h"

namespace {

class ClockTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        std::vector<std::string> options{"--state-dir", dir_.Path() / "state"};
        options.insert(options.end(), more_.begin(), more_.end());
        return options;
    }

    uint32_t SetTimezone(std::string_view name, int32_t minutes) {
        Tarn_sys_diag_SetTimezoneInput request{};
        kit::Set(request.stTimezone.szTimezoneName, name);
        request.stTimezone.uiTimezoneOffset = static_cast<uint32_t>(minutes);
        return Result("SetTimezone", request);
    }
    uint32_t SetEuropeanDst(uint32_t offset = 60) {
        Tarn_sys_diag_SetDstInput request{};
        kit::Set(request.stDst.szDstName, "CEST");
        request.stDst.ucDstFlag = 1;
        request.stDst.ucDstMode = 1;
        request.stDst.uiDstOffset = offset;
        request.stDst.stDstWeek = {0, 3, 5, 0, 2, 0, 10, 5, 0, 3};
        return Result("SetDst", request);
    }
    uint32_t SetGmt(const Tarn_sys_diag_Systime &time) { return Result("SetGmt", Tarn_sys_diag_SetGmtInput{time}); }
    uint32_t SetLocalTime(const Tarn_sys_diag_Systime &time) {
        return Result("SetLocalTime", Tarn_sys_diag_SetLocalTimeInput{time});
    }

    // Up to the minutes, what the daemon's clock shows: it says so whenever the format is set.
    std::string Shown(uint32_t format = 0) {
        const size_t before = daemon_->Err().size();
        EXPECT_EQ(Result("SetDateFormat", Tarn_sys_diag_SetDateFormatInput{format}), 0);
        std::string found;
        EXPECT_TRUE(kit::Eventually([&] {
            const std::string log = daemon_->Err().substr(before);
            const size_t at = log.find("the date is now ");
            if (at != log.npos && log.find('\n', at) != log.npos) {
                found = log.substr(at + strlen("the date is now "), strlen("2026-11-21 01:02"));
            }
            return !found.empty();
        }));
        return found;
    }

    template <class Request>
    uint32_t Result(const char *method, const Request &request) {
        const auto answer = Call<Tarn_sys_diag_Result>(method, request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }

    std::vector<std::string> more_;
};

TEST_F(ClockTest, ChecksTheTimeZone) {
    EXPECT_EQ(SetTimezone("America/St_Johns", -210), 0);
    EXPECT_TRUE(Logged("time zone America/St_Johns (-210 minutes) from a client, before the system's"));
    EXPECT_EQ(SetTimezone("Pacific/Kiritimati", 840), 0);
    EXPECT_TRUE(Logged("from a client, before America/St_Johns (-210 minutes)"));
    EXPECT_EQ(SetTimezone("../../etc/passwd", 0), EINVAL);
    EXPECT_EQ(SetTimezone(std::string(128, 'x'), 0), 0) << "a name that fills its array";
}

TEST_F(ClockTest, ShowsTheTimeByItsSettings) {
    ASSERT_EQ(SetTimezone("Asia/Kathmandu", 345), 0);
    ASSERT_EQ(SetGmt({2031, 2, 3, 4, 5, 6, 1, 7}), 0);
    EXPECT_EQ(Shown(), "2031-02-03 09:50");
    EXPECT_EQ(Shown(1), "03-02-2031 09:50");
    EXPECT_EQ(Shown(2), "02-03-2031 09:50");
    ASSERT_EQ(SetLocalTime({2032, 2, 29, 23, 59, 30, 0, 0}), 0);
    EXPECT_EQ(Shown().substr(0, 10), "2032-02-29");
    ASSERT_EQ(SetTimezone("UTC", 0), 0);
    EXPECT_EQ(Shown(), "2032-02-29 18:14");
}

TEST_F(ClockTest, ShowsMomentsInRepliesByItsSettings) {
    const auto startOfTheDaemon = [&] {
        Tarn_sys_diag_PositionStr request{};
        kit::Set(request.acPosition1, "tarnd");
        const auto answer = Call<Tarn_sys_diag_SysMemStatisProResult>("GetSysMemStatisPro", request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        for (uint32_t i = 0; i != answer->uiRecordNum; ++i) {
            if (answer->pstRecord[i].uiPid == daemon_->Pid()) {
                return answer->pstRecord[i].stStartTime;
            }
        }
        ADD_FAILURE() << "the daemon is not in its list";
        return Tarn_sys_diag_Systime{};
    };
    ASSERT_EQ(SetTimezone("UTC", 0), 0);
    ASSERT_EQ(SetGmt({2031, 2, 3, 12, 5, 0, 0, 0}), 0);
    const Tarn_sys_diag_Systime inLondon = startOfTheDaemon();
    EXPECT_EQ(inLondon.usYear, 2031);
    EXPECT_EQ(inLondon.ucHour, 12);
    ASSERT_EQ(SetTimezone("Etc/GMT-5", 300), 0);
    const Tarn_sys_diag_Systime inKarachi = startOfTheDaemon();
    EXPECT_EQ(inKarachi.ucHour, 17);
    EXPECT_EQ(inKarachi.ucMinute, inLondon.ucMinute);
}

TEST_F(ClockTest, SavesDaylight) {
    ASSERT_EQ(SetTimezone("Europe/Berlin", 60), 0);
    ASSERT_EQ(SetEuropeanDst(), 0);
    ASSERT_EQ(SetGmt({2026, 7, 1, 12, 0, 0, 0, 0}), 0);
    EXPECT_EQ(Shown(), "2026-07-01 14:00");
    ASSERT_EQ(SetGmt({2026, 12, 1, 12, 0, 0, 0, 0}), 0);
    EXPECT_EQ(Shown(), "2026-12-01 13:00");
    EXPECT_EQ(SetLocalTime({2026, 3, 29, 2, 30, 0, 0, 0}), EINVAL) << "the clock skips it";
    EXPECT_EQ(Shown(), "2026-12-01 13:00");

    // What the clock shows twice, it shows for the first time: an hour later it shows the same again.
    ASSERT_EQ(SetLocalTime({2026, 10, 25, 2, 30, 0, 0, 0}), 0);
    ASSERT_EQ(Result("SetDst", Tarn_sys_diag_SetDstInput{}), 0);
    EXPECT_EQ(Shown(), "2026-10-25 01:30") << "without daylight saving";
}

TEST_F(ClockTest, SaysWhatMakesNoSense) {
    EXPECT_EQ(SetGmt({2026, 2, 29, 0, 0, 0, 0, 0}), EINVAL);
    EXPECT_TRUE(Logged("time (stTime): day (ucDay) is 29, expected 1 to 28 in month 2 of the year 2026"));
    EXPECT_EQ(SetEuropeanDst(0), EINVAL);
    EXPECT_EQ(Result("SetDateFormat", Tarn_sys_diag_SetDateFormatInput{3}), EINVAL);
}

TEST_F(ClockTest, LeavesTheSystemsClockAlone) {
    const time_t before = time(nullptr);
    ASSERT_EQ(SetGmt({2031, 2, 3, 4, 5, 6, 0, 0}), 0);
    EXPECT_LT(time(nullptr) - before, 3600);
}

// With --apply-clock, and without the right to set the system's clock, which no test may do.
TEST_F(ClockTest, SaysWhenItMayNotSetTheSystemsClock) {
    prctl(PR_CAPBSET_DROP, CAP_SYS_TIME);
    if (geteuid() == 0 && prctl(PR_CAPBSET_READ, CAP_SYS_TIME) != 0) {
        GTEST_SKIP() << "root may set the clock here";
    }
    EXPECT_EQ(daemon_->Stop(), 0);
    const std::filesystem::path link = dir_.Path() / "localtime";
    more_ = {"--apply-clock", "--zone-link", link};
    StartDaemon();
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields;
    gmtime_r(&now.tv_sec, &fields);
    const Tarn_sys_diag_Systime current{static_cast<uint16_t>(fields.tm_year + 1900),
                                        static_cast<uint8_t>(fields.tm_mon + 1),
                                        static_cast<uint8_t>(fields.tm_mday),
                                        static_cast<uint8_t>(fields.tm_hour),
                                        static_cast<uint8_t>(fields.tm_min),
                                        static_cast<uint8_t>(fields.tm_sec),
                                        0,
                                        0};
    EXPECT_EQ(SetGmt(current), EPERM);
    EXPECT_TRUE(Logged("the system's clock: Operation not permitted"));

    EXPECT_EQ(SetTimezone("Nowhere/At_All", 60), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    if (std::filesystem::exists("/usr/share/zoneinfo/Asia/Kathmandu")) {
        EXPECT_EQ(SetTimezone("Asia/Kathmandu", 345), 0);
        EXPECT_EQ(std::filesystem::read_symlink(link), "/usr/share/zoneinfo/Asia/Kathmandu");
        EXPECT_EQ(SetTimezone("Europe/Berlin", 60), 0);
        EXPECT_EQ(std::filesystem::read_symlink(link), "/usr/share/zoneinfo/Europe/Berlin");
    }
}

} // namespace
