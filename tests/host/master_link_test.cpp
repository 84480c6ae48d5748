// What the daemon tells the master, and what it takes over from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/simulated_daemon.h"

namespace {

namespace cpu_overload = host::meaning::cpu_overload;
namespace measurement_mode = host::meaning::measurement_mode;
namespace measurement_time = host::meaning::measurement_time;
namespace settings_source = host::meaning::settings_source;

using namespace std::chrono_literals;

// An hour from April to September.
const host::DstRule kSummer{"summer", 60, host::ParseChange("04-01/02:00:00"), host::ParseChange("10-01/03:00:00")};
const host::WallTime kInJuly{std::chrono::sys_days(std::chrono::July / 1 / 2026)};

// A master that has configured everything.
class MasterLinkTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    MasterLinkTest() : SimulatedDaemon(Kept()) {
        peers.OnOneway(TarnSysdiagMaster_DetectSysdiagServerOnline_oneway, [this](uint32_t pid, const auto &) {
            EXPECT_EQ(pid, 0) << "no agent's";
            ++greetings_;
            return unreachable_;
        });
        peers.On(TarnSysdiagMaster_UpdateInnerConfig, [this](uint32_t, const auto &, auto &) {
            cpu_ = inFile_;
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_GetGmt, [this](uint32_t, const auto &, auto &reply) {
            const auto now = clocks.WallNow() + ahead_;
            reply.stGmtTime =
                host::ToRecord(host::LocalMillis(std::chrono::floor<host::Millis>(now).time_since_epoch()));
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_GetTimezone, [this](uint32_t, const auto &, auto &reply) {
            reply.uiValue1 = zone_;
            host::CopyText(reply.stTimezone.szTimezoneName, "Asia/Kathmandu");
            reply.stTimezone.uiTimezoneOffset = 345;
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_GetDst, [this](uint32_t, const auto &, auto &reply) {
            reply.stDst = host::ToRecord(dst_);
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_GetCpuOvLoadCfgInfo, [this](uint32_t, const auto &request, auto &reply) {
            EXPECT_EQ(std::string(request.acName1), "system");
            reply.uiValue1 = cpu_.over;
            reply.uiValue2 = cpu_.recover;
            reply.uiValue3 = cpu_.seconds;
            return cpuResult_;
        });
        peers.On(TarnSysdiagMaster_GetMemoryOvLoadCfgInfo, [this](uint32_t, const auto &request, auto &reply) {
            EXPECT_EQ(std::string(request.acName1), "system");
            reply.uiValue1 = memory_.over;
            reply.uiValue2 = memory_.recover;
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_MemChangeInnerConfig, [this](uint32_t, const auto &request, auto &) {
            told_.emplace_back(request.uiValue1, request.uiValue2);
            EXPECT_EQ(std::string(request.acName1), "system");
            EXPECT_EQ(std::string(request.acName3), fmt::format("tarnd {}", getpid()));
            if (unreachable_ == 0) { // it is the master's from now on
                memory_ = {request.uiValue1, request.uiValue2};
            }
            return IdlCallResult{0, unreachable_};
        });
        peers.On(TarnSysdiagMaster_SysdiagGetDimCfgInfo, [](uint32_t, const auto &, auto &reply) {
            reply.ucValue1 = static_cast<uint8_t>(measurement_time::kEveryMinutes);
            reply.ucValue2 = 5;
            return IdlCallResult{0, 0};
        });
        peers.On(TarnSysdiagMaster_SysdiagGetDimWorkMode, [](uint32_t, const auto &, auto &reply) {
            reply.uiWorkMode = measurement_mode::kReport;
            return IdlCallResult{0, 0};
        });
    }

    // As the master does when it has something new.
    void Greet() {
        const Tarn_sys_diag_None none{};
        EXPECT_EQ(DetectTarndServerOnline(&none), 0);
        RunDue();
    }
    static uint32_t SetMemory(uint32_t over, uint32_t recover) {
        return kit::CallMethod<Tarn_sys_diag_OperResult>(SysOvLoadMemThresholdSet,
                                                         Tarn_sys_diag_SysOvLoadMemThreshold{over, recover})
            ->uiResult;
    }
    std::pair<uint32_t, uint32_t> OfMemory() const {
        const tarnd::MemoryThresholds thresholds = daemon->memoryOverload.Thresholds().Value();
        return {thresholds.over, thresholds.recover};
    }
    static uint32_t SetCpu(uint32_t over, uint32_t recover, uint32_t seconds) {
        return kit::CallMethod<Tarn_sys_diag_OperResult>(SysOvLoadCpuThresholdSet,
                                                         Tarn_sys_diag_SysOvLoadCpuThreshold{over, recover, seconds})
            ->uiResult;
    }
    static uint32_t Clear(std::string_view what) {
        Tarn_sys_diag_ClearEnvActInput request{};
        host::CopyText(request.acValue1, what);
        return kit::CallMethod<Tarn_sys_diag_OperResult>(ClearEnvAct, request)->uiResult;
    }
    static std::string SourceOfCpu() {
        return kit::CallMethod<Tarn_sys_diag_GetSysCpuOverloadCfgOutput>(GetSysCpuOverloadCfg, Tarn_sys_diag_None{})
            .Reason();
    }
    static std::string SourceOfMemory() {
        return kit::CallMethod<Tarn_sys_diag_GetSysMemOverloadCfgOutput>(GetSysMemOverloadCfg, Tarn_sys_diag_None{})
            .Reason();
    }
    static void SetAllAsAClient() {
        EXPECT_EQ(SetCpu(710, 610, 5), 0);
        EXPECT_EQ(SetMemory(720, 620), 0);
        const Tarn_sys_diag_DimTimeCfg times{static_cast<uint8_t>(measurement_time::kEverySeconds), 7};
        EXPECT_EQ(TarnSetDimTimeCfgByTarnd(&times), 0);
        Tarn_sys_diag_SetTimezoneInput zone{};
        host::CopyText(zone.stTimezone.szTimezoneName, "client");
        zone.stTimezone.uiTimezoneOffset = 60;
        EXPECT_EQ(kit::CallMethod<Tarn_sys_diag_Result>(SetTimezone, zone)->uiResult, 0);
    }
    void ExpectTheClients() const {
        EXPECT_EQ(daemon->cpuOverload.System().Value(), (tarnd::Thresholds{710, 610, 5}));
        EXPECT_EQ(OfMemory(), std::pair(720U, 620U));
        EXPECT_EQ(MeasurementPeriodMs(), 7000);
        EXPECT_EQ(Zoned(kInJuly), "2026-07-01 01:00:00 +0100") << "and no daylight saving of the master's zone";
        EXPECT_EQ(SourceOfCpu(), "thresholds from a client");
        EXPECT_EQ(SourceOfMemory(), "thresholds from a client");
    }
    std::string Zoned(host::WallTime when = {}) const { return daemon->clock.Text(when); }
    tarnd::Timers::Timer MeasurementTimer() const {
        const std::vector<tarnd::Timers::Timer> timers = daemon->timers.List();
        return *std::ranges::find(timers, std::string_view("measurement"), &tarnd::Timers::Timer::name);
    }
    int64_t MeasurementPeriodMs() const { return MeasurementTimer().period.count(); }
    uint64_t MeasurementExpiries() const { return MeasurementTimer().expiries; }

    uint32_t unreachable_ = 0;
    uint32_t zone_ = settings_source::kConfigured;
    std::optional<host::DstRule> dst_; // that goes with the zone
    tarnd::Thresholds cpu_{700, 600, 30}, inFile_ = cpu_;
    host::Millis ahead_{0}; // the master's clock of the system's
    IdlCallResult cpuResult_{0, 0};
    tarnd::MemoryThresholds memory_{800, 750};
    int greetings_ = 0;
    std::vector<std::pair<uint32_t, uint32_t>> told_;
};

TEST_F(MasterLinkTest, TakesOverWhatTheMasterHasConfigured) {
    RunDue();
    EXPECT_TRUE(peers.calls.empty()) << "it was not asked to";
    Greet();
    EXPECT_EQ(greetings_, 1);
    EXPECT_EQ(Zoned(), "1970-01-01 05:45:00 +0545");
    const tarnd::Thresholds cpu = daemon->cpuOverload.System().Value();
    EXPECT_EQ(cpu.over, 700);
    EXPECT_EQ(cpu.recover, 600);
    EXPECT_EQ(cpu.seconds, 30);
    EXPECT_EQ(OfMemory(), std::pair(800U, 750U));
    EXPECT_EQ(MeasurementPeriodMs(), 300'000);
    EXPECT_TRUE(told_.empty()) << "what it has it is not told";
    for (const auto &call : peers.calls) {
        EXPECT_EQ(call.pid, 0);
        EXPECT_EQ(call.timeoutMs, 1000);
    }
}

TEST_F(MasterLinkTest, TakesOverTheDaylightSavingOfItsZone) {
    dst_ = kSummer;
    Greet();
    EXPECT_EQ(Zoned(kInJuly), "2026-07-01 06:45:00 +0645");
    dst_.reset();
    Greet();
    EXPECT_EQ(Zoned(kInJuly), "2026-07-01 05:45:00 +0545");
}

TEST_F(MasterLinkTest, TakesOverTheTimeWhereNoClientHasSetIt) {
    zone_ = settings_source::kSystem;
    daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient);
    ahead_ = 1900ms;
    Greet();
    EXPECT_EQ(Zoned(clocks.WallNow()), "2023-11-14 22:13:20 +0000") << "so long may an answer take";
    ahead_ = 1h;
    Greet();
    EXPECT_EQ(Zoned(clocks.WallNow()), "2023-11-14 23:13:20 +0000");
    Restart();
    EXPECT_EQ(Zoned(clocks.WallNow()), "2023-11-14 23:13:20 +0000");
    const auto set = [this](uint16_t year) {
        daemon->clock.SetGmt({year, 2, 3, 0, 0, 0, 0, 0});
        return Zoned(clocks.WallNow());
    };
    EXPECT_EQ(set(2031), "2031-02-03 00:00:00 +0000");
    Greet();
    EXPECT_EQ(Zoned(clocks.WallNow()), "2031-02-03 00:00:00 +0000") << "a client's holds";
    EXPECT_EQ(Clear("settings"), 0);
    EXPECT_EQ(Zoned(clocks.WallNow()), "2023-11-14 23:13:20 +0000") << "the master's again";
}

TEST_F(MasterLinkTest, HasTheMasterReadItsFileAgainBeforeItFetches) {
    inFile_ = {500, 400, 3};
    Greet();
    EXPECT_EQ(daemon->cpuOverload.System().Value().over, 700);
    daemon->masterLink.Refresh();
    RunDue();
    EXPECT_EQ(daemon->cpuOverload.System().Value(), inFile_);
    EXPECT_EQ(greetings_, 2);
}

TEST_F(MasterLinkTest, LeavesTheZoneThatIsOnlyTheMastersSystems) {
    daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient);
    daemon->clock.SetDst(kSummer, tarnd::Source::kClient);
    zone_ = settings_source::kSystem;
    Greet();
    EXPECT_EQ(Zoned(), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(Zoned(kInJuly), "2026-07-01 01:00:00 +0100") << "and the daylight saving";
    EXPECT_EQ(OfMemory(), std::pair(800U, 750U)) << "the rest it takes";
}

TEST_F(MasterLinkTest, GoesOnAfterWhatTheMasterDoesNotHaveOrHasWrong) {
    const uint32_t before = daemon->cpuOverload.System().Value().over;
    for (const uint32_t status : std::initializer_list<uint32_t>{ENODATA, ENOENT, EPERM}) {
        cpuResult_ = {status, 0};
        memory_.over += 10;
        Greet();
        EXPECT_EQ(daemon->cpuOverload.System().Value().over, before);
        EXPECT_EQ(OfMemory().first, memory_.over);
    }
    cpuResult_ = {0, 0};
    for (const tarnd::Thresholds &wrong : {tarnd::Thresholds{1001, 600, 30}, tarnd::Thresholds{600, 601, 30},
                                           tarnd::Thresholds{600, 500, cpu_overload::kMostSeconds + 1}}) {
        cpu_ = wrong;
        memory_.over += 10;
        Greet();
        EXPECT_EQ(daemon->cpuOverload.System().Value().over, before);
        EXPECT_EQ(OfMemory().first, memory_.over);
    }
    cpu_ = {1000, 1000, cpu_overload::kMostSeconds};
    Greet();
    EXPECT_EQ(daemon->cpuOverload.System().Value().over, 1000);
}

TEST_F(MasterLinkTest, LeavesWhatClientsHaveSet) {
    peers.On(TarnSysdiagMaster_MemChangeInnerConfig, [](uint32_t, const auto &, auto &) {
        return IdlCallResult{EPERM, 0}; // a master that keeps to its own
    });
    dst_ = kSummer;
    EXPECT_EQ(SourceOfCpu(), "thresholds from the default");
    Greet();
    EXPECT_EQ(SourceOfCpu(), "thresholds from the master");
    EXPECT_EQ(SourceOfMemory(), "thresholds from the master");
    SetAllAsAClient();
    Greet();
    ExpectTheClients();
    Restart();
    ExpectTheClients();
    Greet();
    ExpectTheClients();

    EXPECT_EQ(Clear("settings"), 0);
    EXPECT_EQ(daemon->cpuOverload.System().Value(), cpu_);
    EXPECT_EQ(OfMemory(), std::pair(800U, 750U));
    EXPECT_EQ(MeasurementPeriodMs(), 300'000);
    EXPECT_EQ(Zoned(kInJuly), "2026-07-01 06:45:00 +0645");
    EXPECT_EQ(SourceOfMemory(), "thresholds from the master");
    Restart();
    EXPECT_EQ(daemon->cpuOverload.System().Value(), cpu_) << "without asking the master again";
    EXPECT_EQ(SourceOfCpu(), "thresholds from the master");
}

TEST_F(MasterLinkTest, WritesNothingAndStartsNoTimerAnewForWhatItHasAlready) {
    Greet();
    const std::vector<const char *> documents{"cpu-overload", "memory-overload", "measurement", "clock"};
    for (const char *const document : documents) {
        EXPECT_TRUE(std::filesystem::remove(state.Path() / fmt::format("{}.json", document))) << document;
    }
    for (int minute = 0; minute < 5; ++minute) {
        Pass(1min);
        Greet();
        const Tarn_sys_diag_DimTimeCfg same{static_cast<uint8_t>(measurement_time::kEveryMinutes), 5};
        EXPECT_EQ(TarnSetDimTimeCfgByTarnd(&same), 0);
    }
    EXPECT_EQ(MeasurementExpiries(), 1);
    for (const char *const document : documents) {
        EXPECT_EQ(std::filesystem::exists(state.Path() / fmt::format("{}.json", document)),
                  std::string_view(document) == "measurement") // whose times are a client's now
            << document;
    }
}

TEST_F(MasterLinkTest, TakesNoShareToEndBelowForTheFirst) {
    cpu_ = {700, 0, 30};
    memory_ = {970, 0};
    Greet();
    EXPECT_EQ(daemon->cpuOverload.System().Value(), (tarnd::Thresholds{700, 700, 30}));
    EXPECT_EQ(OfMemory(), std::pair(970U, 970U));
    EXPECT_EQ(SetCpu(600, 0, 1), 0);
    EXPECT_EQ(SetMemory(650, 0), 0);
    EXPECT_EQ(daemon->cpuOverload.System().Value(), (tarnd::Thresholds{600, 600, 1}));
    EXPECT_EQ(OfMemory(), std::pair(650U, 650U));
}

TEST_F(MasterLinkTest, AsksNoMoreOfAMasterThatDoesNotAnswer) {
    cpuResult_ = {0, ETIMEDOUT};
    Greet();
    EXPECT_EQ(Zoned(), "1970-01-01 05:45:00 +0545") << "until then";
    EXPECT_EQ(OfMemory(), std::pair(900U, 850U)) << "and nothing after it";
    peers.calls.clear();
    unreachable_ = ECONNREFUSED;
    Greet();
    EXPECT_EQ(peers.calls.size(), 1) << "the greeting";
}

TEST_F(MasterLinkTest, TellsTheMasterWhatClientsChange) {
    EXPECT_EQ(SetMemory(700, 650), 0);
    RunDue();
    EXPECT_EQ(told_, (std::vector{std::pair(700U, 650U)}));
    EXPECT_EQ(SetMemory(1001, 650), EINVAL);
    Greet();
    EXPECT_EQ(told_.size(), 1) << "once";
    EXPECT_EQ(greetings_, 1);
}

TEST_F(MasterLinkTest, TellsItAlsoWhatChangesMeanwhile) {
    peers.On(TarnSysdiagMaster_MemChangeInnerConfig, [this](uint32_t, const auto &request, auto &) {
        told_.emplace_back(request.uiValue1, request.uiValue2);
        if (told_.size() == 1) {
            EXPECT_EQ(SetMemory(600, 550), 0);
        }
        return IdlCallResult{0, 0};
    });
    EXPECT_EQ(SetMemory(700, 650), 0);
    RunDue();
    EXPECT_EQ(told_, (std::vector{std::pair(700U, 650U), std::pair(600U, 550U)}));
}

TEST_F(MasterLinkTest, TellsItWhenItIsThereBeforeItFetches) {
    unreachable_ = ECONNREFUSED;
    EXPECT_EQ(SetMemory(700, 650), 0);
    RunDue();
    EXPECT_EQ(SetMemory(600, 550), 0);
    RunDue();
    EXPECT_EQ(greetings_, 0);
    unreachable_ = 0;
    RunDue();
    EXPECT_EQ(told_.size(), 2) << "it waits for the greeting";
    Greet();
    ASSERT_EQ(told_.size(), 3);
    EXPECT_EQ(told_[2], std::pair(600U, 550U)) << "as it is now";
    EXPECT_EQ(OfMemory(), std::pair(600U, 550U)) << "the master's did not undo the change";
    Greet();
    EXPECT_EQ(told_.size(), 3);
}

} // namespace
