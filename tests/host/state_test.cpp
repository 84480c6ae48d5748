// What the daemon keeps beyond a restart, document by document: it is there again, a damaged one is set aside, and what
// can't be kept is refused.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <optional>

#include "tests/host/daemon_kit.h"
#include "tests/host/small_disk.h"

namespace {

namespace measurement_operation = host::meaning::measurement_operation;
namespace measurement_state = host::meaning::measurement_state;
namespace measurement_time = host::meaning::measurement_time;
namespace rule_action = host::meaning::rule_action;
namespace system_health_item = host::meaning::system_health_item;

// A document, by the settings that are in it: two values, neither of them the default.
struct Document {
    std::string name;
    std::function<std::optional<uint32_t>(uint8_t value)> set; // the result; none of a method without reply
    std::function<bool(uint8_t value)> is;
};

class StateTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--state-dir", state_, "--measure-rate", "0"}; }

    template <class Response, class Request>
    uint32_t Result(const char *method, const Request &request, uint32_t Response::*result) {
        const auto answer = Call<Response>(method, request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return *answer.operator->().*result;
    }
    template <class Request>
    std::optional<uint32_t> Tell(const char *method, const Request &request) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, method, request), 0);
        return {};
    }

    uint32_t SetRule(uint8_t id) {
        Tarn_sys_diag_UpdateMsgCtrlRuleInput rule{};
        rule.uiValue1 = id;
        rule.uiValue3 = rule_action::kDrop;
        return Result("UpdateMsgCtrlRuleTarnd", rule, &Tarn_sys_diag_Result::uiResult);
    }
    uint16_t YearOfTheClock() {
        Tarn_sys_diag_PositionStr request{};
        kit::Set(request.acPosition1, std::to_string(daemon_->Pid()));
        return Call<Tarn_sys_diag_SysMemStatisProResult>("GetSysMemStatisPro", request)
            ->pstRecord[0]
            .stStartTime.usYear;
    }
    std::string LoadHealth() {
        const auto answer = Call<Tarn_sys_diag_PadsSystemHealthResult>(
            "TarnPadsGetSystemHealthInfoByTarnd", Tarn_sys_diag_PadsSystemHealthInput{system_health_item::kLoad, 0});
        return answer->uiHealthInfoNum == 1 ? answer->pstHealthInfo[0].acValue4 : "";
    }
    uint32_t MeasurementPeriod() {
        const auto timers =
            Call<Tarn_sys_diag_GetTimerInfoResult>("TarnGetTimerInfoTarnd", Tarn_sys_diag_GetTimerInput{});
        for (uint32_t i = 0; i < timers->uiTimerNum; ++i) {
            if (std::string_view(timers->pstTimer[i].szTimerName) == "measurement") {
                return timers->pstTimer[i].uiPeriodMs;
            }
        }
        return 0;
    }
    uint32_t Measure(uint32_t operation) {
        return Result("TarnSetDimOpration", Tarn_sys_diag_DimSetIn{operation}, &Tarn_sys_diag_Result::uiResult);
    }
    bool HasBaseline() {
        EXPECT_EQ(Measure(measurement_operation::kMeasure), 0);
        return Call<Tarn_sys_diag_DimMeasRst>("TarnGetDimMeasRstByTarnd", Tarn_sys_diag_None{})->uiValue1 !=
               measurement_state::kNoBaseline;
    }

    std::string File(const std::string &document) const { return kit::TextOfFile(state_ / (document + ".json")); }

    const std::filesystem::path state_ = dir_.Path() / "state";
    const std::vector<Document> documents_{
        {"clock",
         [this](uint8_t value) {
             const Tarn_sys_diag_SetGmtInput request{{static_cast<uint16_t>(2030 + value), 7, 1, 12, 0, 0, 0, 0}};
             return Result("SetGmt", request, &Tarn_sys_diag_Result::uiResult);
         },
         [this](uint8_t value) { return YearOfTheClock() == 2030 + value; }},
        {"cpu-overload",
         [this](uint8_t value) {
             return Result("SysOvLoadCpuThresholdSet", Tarn_sys_diag_SysOvLoadCpuThreshold{990U + value, 0, 3600},
                           &Tarn_sys_diag_OperResult::uiResult);
         },
         [this](uint8_t value) {
             return Result("GetSysCpuOverloadCfg", Tarn_sys_diag_None{},
                           &Tarn_sys_diag_GetSysCpuOverloadCfgOutput::uiValue1) == 990U + value;
         }},
        {"memory-overload",
         [this](uint8_t value) {
             return Result("SysOvLoadMemThresholdSet", Tarn_sys_diag_SysOvLoadMemThreshold{990U + value, 0},
                           &Tarn_sys_diag_OperResult::uiResult);
         },
         [this](uint8_t value) {
             return Result("GetSysMemOverloadCfg", Tarn_sys_diag_None{},
                           &Tarn_sys_diag_GetSysMemOverloadCfgOutput::uiValue1) == 990U + value;
         }},
        {"starvation", // which no method tells
         [this](uint8_t value) {
             return Result("SetTaskStarvThreshold", Tarn_sys_diag_StarvTaskThresholdInput{7000U + value},
                           &Tarn_sys_diag_TaskResult::uiTaskResult);
         },
         [this](uint8_t value) { return File("starvation").find(std::to_string(7000 + value)) != std::string::npos; }},
        {"health",
         [this](uint8_t value) {
             return Tell("TarnPadsSetPadsAppFunSwitchByTarnd",
                         Tarn_sys_diag_PadsAppFunSwitch{system_health_item::kLoad, 1, 70000U + value * 1000U});
         },
         [this](uint8_t value) { return LoadHealth().ends_with("limit " + std::to_string(70 + value) + ".00"); }},
        {"message-rules", [this](uint8_t value) { return SetRule(value); },
         [this](uint8_t value) {
             return Result("TarnGetMsgRuleInfoTarnd", Tarn_sys_diag_GetMsgRuleInfoInput{value, 0, 0},
                           &Tarn_sys_diag_GetMsgRuleInfoResult::uiRuleNum) == 1;
         }},
        {"measurement",
         [this](uint8_t value) {
             return Tell("TarnSetDimTimeCfgByTarnd",
                         Tarn_sys_diag_DimTimeCfg{measurement_time::kEveryMinutes, static_cast<uint8_t>(100 + value)});
         },
         [this](uint8_t value) { return MeasurementPeriod() == (100U + value) * 60000; }},
        {"measurement-baseline", // recorded, or forgotten
         [this](uint8_t value) {
             return Measure(value == 1 ? measurement_operation::kRecord : measurement_operation::kForget);
         },
         [this](uint8_t value) { return HasBaseline() == (value == 1); }},
    };

    void SetAll(uint8_t value) {
        for (const Document &document : documents_) {
            EXPECT_EQ(document.set(value).value_or(0), 0) << document.name;
            EXPECT_TRUE(kit::Eventually([&] { return document.is(value); })) << document.name;
        }
    }
    void ExpectAll(uint8_t value) {
        for (const Document &document : documents_) {
            EXPECT_TRUE(document.is(value)) << document.name;
        }
    }
};

TEST_F(StateTest, OutlivesTheDaemon) {
    SetAll(1);
    daemon_->Signal(SIGKILL);
    daemon_->Wait();
    StartDaemon();
    ExpectAll(1);
    for (const auto &entry : std::filesystem::directory_iterator(state_)) {
        const std::string stem = entry.path().stem();
        const auto isNamed = [&](const Document &document) { return document.name == stem; };
        EXPECT_TRUE(stem == ".lock" || stem == "history" || std::any_of(documents_.begin(), documents_.end(), isNamed))
            << entry.path() << " is none of the documents here";
    }
}

TEST_F(StateTest, IsSetAsideWhenItIsDamaged) {
    SetAll(1);
    const std::map<std::string, std::function<std::string(std::string)>> damages{
        {"cut off", [](const std::string &text) { return text.substr(0, text.size() / 2); }},
        {"changed",
         [](std::string text) {
             text[text.rfind("\"sha256\"") + 15] ^= 1;
             return text;
         }},
        {"empty", [](const std::string &) { return ""; }},
        {"garbage",
         [](const std::string &) {
             return "\x7F"
                    "ELF\xFF";
         }},
        {"another", [](const std::string &) { return "{\"document\": \"none\", \"version\": 1, \"content\": {}}"; }},
    };
    EXPECT_EQ(daemon_->Stop(), 0);
    std::map<std::string, std::string> good;
    for (const Document &document : documents_) {
        good[document.name] = File(document.name);
    }
    for (const auto &[what, damage] : damages) {
        SCOPED_TRACE(what);
        for (const auto &[name, text] : good) {
            std::ofstream(state_ / (name + ".json"), std::ios::binary) << damage(text);
        }
        StartDaemon();
        for (const Document &document : documents_) {
            EXPECT_TRUE(Logged("set aside as " + document.name + ".json.damaged"));
            EXPECT_EQ(kit::TextOfFile(state_ / (document.name + ".json.damaged")), damage(good[document.name]));
            EXPECT_FALSE(document.is(1)) << document.name;
        }
        EXPECT_EQ(daemon_->Stop(), 0);
    }
    for (const auto &[name, text] : good) {
        std::ofstream(state_ / (name + ".json"), std::ios::binary) << text;
    }
    StartDaemon();
    ExpectAll(1);
}

// Those that no one may read: a link stands in for them, as root may read any file.
TEST_F(StateTest, IsSetAsideWhenItCannotBeRead) {
    SetAll(1);
    EXPECT_EQ(daemon_->Stop(), 0);
    for (const Document &document : documents_) {
        const std::filesystem::path file = state_ / (document.name + ".json");
        std::filesystem::remove(file);
        std::filesystem::create_symlink(file, file);
    }
    StartDaemon();
    for (const Document &document : documents_) {
        EXPECT_TRUE(Logged(document.name + ".json is a link")) << document.name;
        EXPECT_FALSE(document.is(1)) << document.name;
    }
    SetAll(2);
}

TEST_F(StateTest, IsAsItWasWhenItCannotBeKept) {
    EXPECT_EQ(daemon_->Stop(), 0);
    const kit::SmallDisk disk(state_, "1m");
    if (!disk.Mounted()) {
        StartDaemon();
        GTEST_SKIP() << "may not mount";
    }
    StartDaemon(); // which sees the disk
    SetAll(1);
    disk.Fill();
    for (const Document &document : documents_) {
        EXPECT_EQ(document.set(2).value_or(ENOSPC), ENOSPC) << document.name;
        EXPECT_TRUE(Logged(document.name + ".json: No space left on device")) << document.name;
        EXPECT_FALSE(document.is(2)) << document.name;
    }
    ExpectAll(1);
    EXPECT_EQ(daemon_->Stop(), 0);
    StartDaemon();
    ExpectAll(1);
    disk.Empty();
    SetAll(2);
}

// Nothing is missed and nothing told twice, while one daemon goes and another comes.
TEST_F(StateTest, EventsAreFollowedAcrossARestart) {
    const kit::Process follower(dir_.Path(), {TARNCTL, "--run-dir", dir_.Path(), "events", "-f", "--kind", "setting"});
    const auto set = [&](uint32_t beginsAt) {
        EXPECT_EQ(Result("SysOvLoadCpuThresholdSet", Tarn_sys_diag_SysOvLoadCpuThreshold{beginsAt, 500, 3600},
                         &Tarn_sys_diag_OperResult::uiResult),
                  0);
    };
    const auto count = [&](const std::string &text) {
        const std::string out = follower.Out();
        size_t number = 0;
        for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) {
            ++number;
        }
        return number;
    };
    set(991);
    EXPECT_TRUE(kit::Eventually([&] { return count("begins-at=991 ") == 1; })) << follower.Out() << follower.Err();
    set(992);
    EXPECT_EQ(daemon_->Stop(), 0);
    StartDaemon();
    set(993);
    EXPECT_TRUE(kit::Eventually([&] { return count("begins-at=993 ") == 1; })) << follower.Out() << follower.Err();
    EXPECT_EQ(count("begins-at=991 "), 1);
    EXPECT_EQ(count("begins-at=992 "), 1) << follower.Out();
    EXPECT_EQ(count("\n"), 3);
    EXPECT_EQ(count(" setting: state_test (" + std::to_string(getpid()) + "): SysOvLoadCpuThresholdSet begins-at="), 3)
        << follower.Out();
    EXPECT_EQ(count(", by user " + std::to_string(geteuid())), 3);
}

} // namespace
