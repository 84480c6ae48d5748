// The master: its configuration file, its answers, and what it and the daemon tell each other.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <ctime>

#include <atomic>
#include <mutex>

#include "host/answer/answer.h"
#include "host/master/config.h"
#include "host/master/master.h"
#include "host/runtime/server.h"
#include "host/runtime/status.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/error_of.h"
#include "tests/host/manual_clocks.h"
#include "tests/host/refusal.h"
#include "tests/host/small_disk.h"

namespace {

using namespace std::chrono_literals;

constexpr const char *kConfig = R"(# of the tests
[zone]
name = Europe/Berlin
offset = 60   # minutes

[daylight-saving]
name = CEST
offset = 60
start = M3.5.0/02:00:00
end = M10.5.0/03:00:00

[cpu-overload system]
over = 900
recover = 850
seconds = 10
[cpu-overload worker]
over = 500
[cpu-overload worker board2]
over = 600

[memory-overload system]
over = 910
recover = 820

[physical 0 1 2]
name = fan board
type = 7
number = 3

[auto-update]
enabled = yes
period = 24
hour = 3

[process]
text = what whoever asks is told
instances = 1
restarts = 3
timeout = 30

[measurement]
time = 03:30
mode = learn
)";

std::string With(std::string text, const std::string &from, const std::string &to) {
    EXPECT_NE(text.find(from), std::string::npos) << from;
    return text.replace(text.find(from), from.size(), to);
}

master::Config Parse(const std::string &text) {
    std::istringstream stream(text);
    return master::ParseConfig(stream, "master.conf");
}

TEST(MasterConfig, ReadsEverySection) {
    const master::Config config = Parse(kConfig);
    EXPECT_EQ(config.zone, (host::Zone{"Europe/Berlin", 60}));
    ASSERT_TRUE(config.dst);
    EXPECT_EQ(host::TextOf(config.dst), "CEST (+60 minutes) from M3.5.0/02:00:00 to M10.5.0/03:00:00");
    EXPECT_EQ(config.cpuOverload.size(), 3);
    EXPECT_EQ(config.cpuOverload.at({"system", ""}), (master::Thresholds{900, 850, 10}));
    EXPECT_EQ(config.cpuOverload.at({"worker", "board2"}), (master::Thresholds{600, 600, 0}));
    EXPECT_EQ(config.memoryOverload.at({"system", ""}), (master::Thresholds{910, 820, 0}));
    EXPECT_EQ(config.physical.at({0, 1, 2}).name, "fan board");
    EXPECT_EQ(config.autoUpdate->periodHours, 24);
    EXPECT_EQ(config.process->text, "what whoever asks is told");
    EXPECT_EQ(config.measurement->times.ucValue1, 3);
    EXPECT_EQ(config.measurement->times.ucValue2, 30);
    EXPECT_EQ(config.measurement->mode, 2);
    EXPECT_FALSE(Parse("").zone) << "every section is optional";
    const auto times = [](const std::string &text) {
        const auto value = Parse(With(kConfig, "03:30", text)).measurement->times;
        return std::pair<uint32_t, uint32_t>(value.ucValue1, value.ucValue2);
    };
    EXPECT_EQ(times("every 10 min"), (std::pair(255U, 10U)));
    EXPECT_EQ(times("every 255 s"), (std::pair(254U, 255U)));
    EXPECT_EQ(times("never"), (std::pair(254U, 0U)));
}

TEST(MasterConfig, TakesNoMoreThanTheAnswersHaveRoomFor) {
    const size_t most = sizeof(Tarn_sys_diag_OvLoadCpuCtlInput::acName1);
    const std::string longest(most, 'n'), tooLong(most + 1, 'n');
    const auto overload = [](const std::string &names) {
        return Parse("[cpu-overload " + names + "]\nover = 0\nrecover = 0\n").cpuOverload.size();
    };
    EXPECT_EQ(overload(longest + " " + longest), 1);
    for (const std::string &names : {tooLong, tooLong + " variant", "name " + tooLong}) {
        EXPECT_THROW(overload(names), std::runtime_error) << names;
    }
    const size_t mostText = sizeof(Tarn_sys_diag_MKCfgInfoOutput::acCfgInfo);
    const auto text = [](size_t size) {
        return Parse(With(kConfig, "what whoever asks is told", std::string(size, 't'))).process->text.size();
    };
    EXPECT_EQ(text(mostText), mostText);
    EXPECT_THROW(text(mostText + 1), std::runtime_error);
}

TEST(MasterConfig, TakesItsExample) {
    const master::Config config = master::LoadConfig(TARN_MASTER_EXAMPLE);
    EXPECT_TRUE(config.zone && config.dst && config.autoUpdate && config.process && config.measurement);
    EXPECT_EQ(config.cpuOverload.count({"system", "small-board"}), 1);
    EXPECT_EQ(config.memoryOverload.size(), 1);
    EXPECT_EQ(config.physical.size(), 1);
}

TEST(MasterConfig, SaysWhatIsWrongAndWhere) {
    struct Case {
        const char *from;
        const char *to;
        const char *why;
    };
    for (const Case &c : std::vector<Case>{
             {"[zone]", "[zones]", "master.conf:2: [zones] is no section, expected zone, "},
             {"[zone]", "[zone", "master.conf:2: \"[zone\", expected [section]"},
             {"[zone]", "", "master.conf:3: \"name = Europe/Berlin\", expected [section]"},
             {"[zone]", "[zone 1]", "master.conf:2: [zone 1] takes no further words"},
             {"name = Europe/Berlin", "nam = x", "master.conf:2: [zone] has no name"},
             {"name = Europe/Berlin", "name", "master.conf:3: \"name\", expected key = value"},
             {"name = Europe/Berlin", "name = ../x", "master.conf:2: [zone] zone.name is \"../x\""},
             {"name = Europe/Berlin", "name = a\nname = b",
              "master.conf:4: [zone] name is stated again; first in line 3"},
             {"name = Europe/Berlin", "name = a\ncolour = b",
              "master.conf:4: [zone] has no key \"colour\", expected name"},
             {"offset = 60 ", "offset = 841 ",
              "master.conf:4: [zone] offset: the value is \"841\", expected a number "
              "from -720 to 840"},
             {"offset = 60 ", "offset = 6O ", "master.conf:4: [zone] offset: the value is \"6O\""},
             {"offset = 60 ", "offset = ", "master.conf:4: [zone] offset: the value is \"\""},
             {"start = M3.5.0/02:00:00", "start = soon",
              "master.conf:9: [daylight-saving] start: a change of clocks is "
              "\"soon\", expected such as"},
             {"end = M10", "end = M3",
              "master.conf:6: [daylight-saving] rule.end is M3.5.0/03:00:00, expected at least"},
             {"over = 900", "over = 1001", "master.conf:13: [cpu-overload system] over: the value is \"1001\""},
             {"recover = 850", "recover = 901", "master.conf:12: [cpu-overload system] the share below which"},
             {"[cpu-overload worker]", "[cpu-overload system]", "master.conf:16: [cpu-overload system] is there twice"},
             {"[cpu-overload worker]", "[cpu-overload]", "master.conf:16: [cpu-overload] expected a name"},
             {"[cpu-overload worker]", "[cpu-overload a b c]", "master.conf:16: [cpu-overload a b c] expected a name"},
             {"over = 900", "over = -1", "over: the value is \"-1\", expected a number from 0 to 1000"},
             {"text = what whoever asks is told", "text =", "text: the text is \"\", expected 1 to "},
             {"[physical 0 1 2]", "[physical 0 1]", "[physical 0 1] expected frame, slot and port"},
             {"[memory-overload system]\nover = 910", "[memory-overload system]\nseconds = 1\nover = 910",
              "[memory-overload system] has no key \"seconds\", expected over, recover"},
             {"seconds = 10", "seconds = 3601", "seconds: the value is \"3601\", expected a number from 0 to 3600"},
             {"period = 24", "period = 0", "period: the value is \"0\", expected a number from 1 to 8760"},
             {"hour = 3", "hour = 24", "hour: the value is \"24\", expected a number from 0 to 23"},
             {"time = 03:30", "time = 23:60", "time: the value is \"23:60\""},
             {"time = 03:30", "time = every 256 s", "time: the value is \"every 256 s\""},
             {"enabled = yes", "enabled = maybe", "enabled: the value is \"maybe\", expected no, yes"},
             {"time = 03:30", "time = 24:00", "time: the value is \"24:00\", expected a time such as 03:30"},
             {"time = 03:30", "time = every 0 s", "time: the value is \"every 0 s\""},
             {"mode = learn", "mode = all", "mode: the value is \"all\", expected off, report, learn"},
         }) {
        SCOPED_TRACE(c.to);
        try {
            Parse(With(kConfig, c.from, c.to));
            ADD_FAILURE() << "was taken";
        } catch (const std::runtime_error &error) {
            EXPECT_NE(std::string(error.what()).find(c.why), std::string::npos) << error.what() << "\n" << c.why;
        }
    }
    EXPECT_THROW(Parse("[daylight-saving]\nname=a\noffset=60\nstart=M3.5.0/02:00:00\nend=M9.5.0/02:00:00\n"),
                 std::runtime_error)
        << "without a zone";
    EXPECT_THROW(master::LoadConfig("/no/such/file"), std::runtime_error);
}

// What a function throws: the errno value, 0 for nothing.
using kit::ErrorOf;

class SettingsTest : public testing::Test {
protected:
    void SetUp() override { Write(kConfig); }
    void Write(const std::string &text) const { std::ofstream(file_, std::ios::trunc) << text; }
    std::unique_ptr<master::Settings> Load(const std::filesystem::path &state) {
        return std::make_unique<master::Settings>(clocks_, file_, state);
    }
    std::unique_ptr<master::Settings> Load() { return Load(dir_.Path() / "state"); }

    static constexpr uint32_t kNow = 1'700'000'000;
    const master::Names system_{"system", ""};
    const kit::TempDir dir_;
    const std::filesystem::path file_ = dir_.Path() / "master.conf";
    kit::ManualClocks clocks_;
};

TEST_F(SettingsTest, AnswerForANameAVariantOrTheSystem) {
    Write(kConfig + std::string("[cpu-overload system board9]\nover = 700\n"));
    const auto settings = Load("");
    const auto names = [&](const master::Names &asked) { return settings->CpuOverload(asked).names; };
    EXPECT_EQ(names({"", ""}), system_);
    EXPECT_EQ(names({"", "board2"}), system_);
    EXPECT_EQ(names({"", "board9"}), (master::Names{"system", "board9"}));
    EXPECT_EQ(names({"worker", "board2"}), (master::Names{"worker", "board2"}));
    EXPECT_EQ(names({"worker", "board3"}), (master::Names{"worker", ""}));
    EXPECT_EQ(settings->CpuOverload({"worker", "board3"}).thresholds, (master::Thresholds{500, 500, 0}));
    EXPECT_EQ(ErrorOf([&] { settings->CpuOverload({"nobody", ""}); }), ENOENT);
    EXPECT_EQ(ErrorOf([&] { settings->MemoryOverload({"worker", ""}); }), ENOENT);
    EXPECT_EQ(settings->ReadCount(), 1);
}

TEST_F(SettingsTest, KeepWhatIsChangedUntilTheFileSaysSomethingElse) {
    auto settings = Load();
    settings->ChangeMemory({"", "any"}, {700, 600, 0}, "me");
    clocks_.Advance(1h);
    settings->ChangeMemory(system_, {710, 710, 0}, "you");
    for (int start = 0; start < 2; ++start) {
        const master::MemoryAnswer answer = settings->MemoryOverload(system_);
        EXPECT_EQ(answer.thresholds, (master::Thresholds{710, 710, 0}));
        ASSERT_TRUE(answer.change);
        EXPECT_EQ(answer.change->by, "you");
        EXPECT_EQ(answer.change->count, 2);
        EXPECT_EQ(answer.change->when, kNow + 3600);
        EXPECT_EQ(answer.change->ofFile, (master::Thresholds{910, 820, 0}));
        settings.reset(); // has the state to itself
        settings = Load();
    }
    EXPECT_EQ(ErrorOf([&] { settings->ChangeMemory({"nobody", ""}, {700, 600, 0}, ""); }), ENOENT);
    EXPECT_EQ(settings->MemoryOverload(system_).change->count, 2);

    Write(With(kConfig, "recover = 820", "recover = 821"));
    EXPECT_EQ(settings->Reload(), "");
    EXPECT_EQ(settings->ReadCount(), 2);
    EXPECT_EQ(settings->MemoryOverload(system_).thresholds, (master::Thresholds{910, 821, 0}));
    EXPECT_FALSE(settings->MemoryOverload(system_).change);
    Write(kConfig);
    settings.reset();
    EXPECT_FALSE(Load()->MemoryOverload(system_).change) << "for good";
}

TEST_F(SettingsTest, StayAsTheyAreWhenTheFileIsRefused) {
    const auto settings = Load();
    Write("[zone]\nname = here\n");
    EXPECT_NE(settings->Reload(), "");
    EXPECT_EQ(settings->ReadCount(), 1);
    EXPECT_EQ(settings->Configured().zone->name, "Europe/Berlin");
    Write("");
    EXPECT_EQ(settings->Reload(), "");
    EXPECT_FALSE(settings->Configured().zone);
    EXPECT_EQ(ErrorOf([&] { settings->MemoryOverload(system_); }), ENOENT);
}

TEST_F(SettingsTest, ForgetAChangeAtTheStartWhenTheFileSaysSomethingElse) {
    Load()->ChangeMemory(system_, {700, 600, 0}, "me");
    Write(With(kConfig, "over = 910", "over = 920"));
    EXPECT_FALSE(Load()->MemoryOverload(system_).change);
}

TEST_F(SettingsTest, SetAsideAChangeThatMakesNoSense) {
    const host::Document file = host::Document::Object{{"over", 910}, {"recover", 820}};
    for (const uint32_t recover : {700U, 701U}) {
        SCOPED_TRACE(recover);
        host::Store(dir_.Path() / "state")
            .Save("memory-overload", 1,
                  host::Document::Array{host::Document::Object{
                      {"name", "system"},
                      {"variant", ""},
                      {"thresholds", host::Document::Object{{"over", 700}, {"recover", recover}}},
                      {"ofFile", file},
                      {"by", "me"},
                      {"count", 1},
                      {"when", 2}}});
        EXPECT_EQ(Load()->MemoryOverload(system_).change.has_value(), recover == 700);
    }
    EXPECT_TRUE(std::filesystem::exists(dir_.Path() / "state" / "memory-overload.json.damaged"));
}

// A master in the test's process, on the test's clock.
class MasterInProcessTest : public SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        std::filesystem::create_directories(proc_);
        master_ = std::make_unique<master::Master>(clocks_, host::procfs::Procfs(proc_), file_, "",
                                                   host::ServerOptions{.runDir = dir_.Path()});
        master_->Start();
    }
    template <class Response, class Request = Tarn_sys_diag_None>
    kit::Answer<Unit, Response> Ask(const char *method, const Request &request = {}) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagMaster", 0, method, request);
    }
    static std::string TextOf(const Tarn_sys_diag_Systime &time) {
        return fmt::format("{}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", time.usYear, time.ucMonth, time.ucDay, time.ucHour,
                           time.ucMinute, time.ucSecond, time.uiMillisecond);
    }

    const std::filesystem::path proc_ = dir_.Path() / "proc";
    std::unique_ptr<master::Master> master_;
    host::Client client_{{.runDir = dir_.Path()}};
};

TEST_F(MasterInProcessTest, TellsTheTimeByItsConfiguration) {
    clocks_.Advance(345ms);
    EXPECT_EQ(TextOf(Ask<Tarn_sys_diag_GetGmtOutput>("GetGmt")->stGmtTime), "2023-11-14 22:13:20.345");
    const auto winter = Ask<Tarn_sys_diag_GetLocalOutput>("GetLocal");
    EXPECT_EQ(TextOf(winter->stLocalTime), "2023-11-14 23:13:20.345");
    EXPECT_EQ(winter->stLocalTime.ucWeek, 2) << "Tuesday";
    EXPECT_EQ(winter->ucValue, 0);
    EXPECT_EQ(winter->uiValue1, 1);
    clocks_.Advance(24h * 200);
    const auto summer = Ask<Tarn_sys_diag_GetLocalOutput>("GetLocal");
    EXPECT_EQ(TextOf(summer->stLocalTime), "2024-06-02 00:13:20.345");
    EXPECT_EQ(summer->ucValue, 1);
}

TEST_F(MasterInProcessTest, TellsTheTimeByTheSystem) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    Write("");
    ASSERT_EQ(master_->settings.Reload(), "");
    const auto winter = Ask<Tarn_sys_diag_GetLocalOutput>("GetLocal");
    EXPECT_EQ(TextOf(winter->stLocalTime), "2023-11-14 23:13:20.000");
    EXPECT_EQ(winter->ucValue, 0);
    EXPECT_EQ(winter->uiValue1, 0);
    clocks_.Advance(24h * 200);
    const auto summer = Ask<Tarn_sys_diag_GetLocalOutput>("GetLocal");
    EXPECT_EQ(TextOf(summer->stLocalTime), "2024-06-02 00:13:20.000");
    EXPECT_EQ(summer->ucValue, 1);
    const auto zone = Ask<Tarn_sys_diag_GetTimezoneOutput>("GetTimezone");
    EXPECT_EQ(zone->uiValue1, 0);
    EXPECT_EQ(zone->stTimezone.uiTimezoneOffset, 60) << "without daylight saving";
    EXPECT_EQ(std::string(zone->stTimezone.szTimezoneName).find("zoneinfo"), std::string::npos) << "no path";
    unsetenv("TZ");
    tzset();
}

TEST_F(MasterInProcessTest, FillsATextUpToItsLastByte) {
    const std::string longest(sizeof(Tarn_sys_diag_MKCfgInfoOutput::acCfgInfo), 't');
    Write(With(kConfig, "what whoever asks is told", longest));
    ASSERT_EQ(master_->settings.Reload(), "");
    const auto process = Ask<Tarn_sys_diag_MKCfgInfoOutput>("SysdiagGetMKCfgInfo");
    EXPECT_EQ(std::string(process->acCfgInfo, longest.size()), longest);
}

TEST_F(MasterInProcessTest, KnowsWhatAProcessIsCalledInItsNamespace) {
    const std::filesystem::path process = proc_ / "17";
    std::filesystem::create_directories(process);
    std::ofstream(process / "status") << "Tgid:\t17\nNgid:\t0\n";
    std::ofstream(process / "stat") << "17 (x) S 5 6 7 0 -1 64 0 0 0 0 5 6 0 0 20 0 1 0 99 0 0 1 0 0 0 0 0 0 0 0 0 0 0 "
                                       "0 17 7 0 0 0 0 0\n";
    const auto ask = [this] {
        const auto answer =
            Ask<Tarn_sys_diag_GetLMProcLPidOutput>("GetLMProcLPid", Tarn_sys_diag_GetLMProcLPidInput{17});
        return std::pair(answer->uiValue1, answer->uiLPid);
    };
    EXPECT_EQ(ask(), std::pair(0U, 17U)) << "a kernel without namespaces";
    std::ofstream(process / "status") << "Tgid:\t17\nNSpid:\t17\nNSpgid:\t17\n";
    EXPECT_EQ(ask(), std::pair(0U, 17U));
    std::ofstream(process / "status") << "Tgid:\t17\nNSpid:\t17\t5\t1\nNSpgid:\t17\t5\t1\n";
    EXPECT_EQ(ask(), std::pair(2U, 1U));
    EXPECT_EQ(Ask<Tarn_sys_diag_GetLMProcLPidOutput>("GetLMProcLPid", Tarn_sys_diag_GetLMProcLPidInput{18}).Status(),
              ESRCH);
}

TEST_F(MasterInProcessTest, TellsWhoChangedWhatAndHowOftenTheFileWasRead) {
    Tarn_sys_diag_OvLoadMemCtlOutput change{};
    kit::Set(change.acName1, "system");
    kit::Set(change.acName3, "the test");
    change.uiValue1 = 700;
    change.uiValue2 = 600;
    EXPECT_EQ(Ask<Tarn_sys_diag_None>("MemChangeInnerConfig", change).Status(), 0);
    const auto memory =
        Ask<Tarn_sys_diag_OvLoadMemCtlOutput>("GetMemoryOvLoadCfgInfo", Tarn_sys_diag_OvLoadMemCtlInput{});
    EXPECT_EQ(std::string(memory->acName1), "system");
    EXPECT_EQ(std::string(memory->acName3), "the test");
    EXPECT_EQ(memory->uiValue1, 700);
    EXPECT_EQ(memory->uiValue2, 600);
    EXPECT_EQ(memory->uiValue3, 1);
    EXPECT_EQ(memory->uiValue4, 1);
    EXPECT_EQ(memory->uiValue5, kNow);
    EXPECT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), 0);
    const auto cpu = Ask<Tarn_sys_diag_OvLoadCpuCtlOutput>("GetCpuOvLoadCfgInfo", Tarn_sys_diag_OvLoadCpuCtlInput{});
    EXPECT_EQ(cpu->uiValue4, 2);
}

TEST(MasterRequests, AreRefusedByWhatTheirMembersMean) {
    Tarn_sys_diag_OvLoadMemCtlOutput over{}, inverted{};
    over.uiValue1 = 1001;
    inverted.uiValue1 = 700;
    inverted.uiValue2 = 701;
    EXPECT_EQ(kit::Refusal(host::methods::MemChangeInnerConfig, over),
              "begins-at (uiValue1) is 1001 ‰, expected 0 to 1000");
    EXPECT_EQ(kit::Refusal(host::methods::MemChangeInnerConfig, inverted),
              "ends-below (uiValue2) is 701 ‰, expected at most begins-at (uiValue1), which is 700 ‰");
}

class MasterTest : public kit::DaemonTest<Unit> {
protected:
    void SetUp() override {
        std::filesystem::create_directory(logs_);
        Write(kConfig);
        StartMaster();
    }
    void TearDown() override {
        if (master_ != nullptr) {
            EXPECT_EQ(master_->Stop(), 0) << master_->Err();
        }
        DaemonTest::TearDown();
    }

    void Write(const std::string &text) const { std::ofstream(file_, std::ios::trunc) << text; }
    void StartMaster(const std::vector<std::string> &options = {}) {
        std::vector<std::string> command{TARN_MASTER, file_,         "--run-dir",
                                         dir_.Path(), "--state-dir", dir_.Path() / "master-state"};
        command.insert(command.end(), options.begin(), options.end());
        master_ = std::make_unique<kit::Process>(dir_.Path(), command);
        ASSERT_TRUE(MasterLogged("serving in"));
    }
    bool MasterLogged(const std::string &text) const {
        return kit::Eventually([&] { return master_->Err().find(text) != std::string::npos; });
    }

    template <class Response, class Request = Tarn_sys_diag_None>
    kit::Answer<Unit, Response> Ask(const char *method, const Request &request = {}) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagMaster", 0, method, request);
    }
    kit::Answer<Unit, Tarn_sys_diag_OvLoadMemCtlOutput> MemoryConfig(std::string_view name = "system") {
        Tarn_sys_diag_OvLoadMemCtlInput request{};
        kit::Set(request.acName1, name);
        return Ask<Tarn_sys_diag_OvLoadMemCtlOutput>("GetMemoryOvLoadCfgInfo", request);
    }
    uint32_t ChangeMemory(uint32_t over, uint32_t recover, std::string_view name = "system") {
        Tarn_sys_diag_OvLoadMemCtlOutput request{};
        kit::Set(request.acName1, name);
        kit::Set(request.acName3, "the test");
        request.uiValue1 = over;
        request.uiValue2 = recover;
        return Ask<Tarn_sys_diag_None>("MemChangeInnerConfig", request).Status();
    }
    uint32_t DaemonsMemoryThreshold() {
        return Call<Tarn_sys_diag_GetSysMemOverloadCfgOutput>("GetSysMemOverloadCfg", Tarn_sys_diag_None{})->uiValue1;
    }

    const std::filesystem::path file_ = dir_.Path() / "master.conf";
    std::unique_ptr<kit::Process> master_;
};

TEST_F(MasterTest, AnswersFromItsConfiguration) {
    const auto zone = Ask<Tarn_sys_diag_GetTimezoneOutput>("GetTimezone");
    EXPECT_EQ(zone->uiValue1, 1);
    EXPECT_EQ(std::string(zone->stTimezone.szTimezoneName), "Europe/Berlin");
    EXPECT_EQ(zone->stTimezone.uiTimezoneOffset, 60);
    const auto dst = Ask<Tarn_sys_diag_GetDstOutput>("GetDst");
    EXPECT_EQ(dst->uiValue1, 1);
    EXPECT_EQ(dst->stDst.ucDstFlag, 1);
    EXPECT_EQ(dst->stDst.stDstWeek.ucStartMonth, 3);
    EXPECT_EQ(dst->stDst.stDstWeek.ucEndHour, 3);

    const auto cpu = [&](std::string_view name, std::string_view variant) {
        Tarn_sys_diag_OvLoadCpuCtlInput request{};
        kit::Set(request.acName1, name);
        kit::Set(request.acName2, variant);
        return Ask<Tarn_sys_diag_OvLoadCpuCtlOutput>("GetCpuOvLoadCfgInfo", request);
    };
    EXPECT_EQ(cpu("", "")->uiValue1, 900) << "the system's";
    EXPECT_EQ(cpu("system", "")->uiValue2, 850);
    EXPECT_EQ(cpu("system", "")->uiValue3, 10);
    EXPECT_EQ(cpu("worker", "board2")->uiValue1, 600);
    const auto fallback = cpu("worker", "board3");
    EXPECT_EQ(fallback->uiValue1, 500);
    EXPECT_EQ(std::string(fallback->acName2), "");
    EXPECT_EQ(cpu("nobody", "").Status(), ENOENT);

    const auto physical = [&](uint32_t port) {
        return Ask<Tarn_sys_diag_PhyNameAndIDOutput>("GetPhyNameAndID", Tarn_sys_diag_PhysicalAddrInput{0, 1, port});
    };
    EXPECT_EQ(std::string(physical(2)->acPhyName), "fan board");
    EXPECT_EQ(physical(2)->uiValue1, 7);
    EXPECT_EQ(physical(2)->uiValue2, 3);
    EXPECT_EQ(physical(3).Status(), ENOENT);
    EXPECT_EQ(physical(3).Text(),
              "TarnSysdiagMaster.GetPhyNameAndID: status 2 (No such file or directory): [physical 0 1 3]")
        << "the caller is told why";

    const auto update = Ask<Tarn_sys_diag_GetMKAutoUpdCfgInfoOutput>("GetMKAutoUpdCfgInfo");
    EXPECT_EQ(update->uiValue1, 1);
    EXPECT_EQ(update->uiValue2, 24);
    EXPECT_EQ(update->uiValue3, 3);
    const auto process = Ask<Tarn_sys_diag_MKCfgInfoOutput>("SysdiagGetMKCfgInfo");
    EXPECT_EQ(std::string(process->acCfgInfo), "what whoever asks is told");
    EXPECT_EQ(process->uiValue1, 1);
    EXPECT_EQ(process->uiValue2, 3);
    EXPECT_EQ(process->uiValue3, 30);
    const auto measurement = Ask<Tarn_sys_diag_DimTimeCfg>("SysdiagGetDimCfgInfo");
    EXPECT_EQ(measurement->ucValue1, 3);
    EXPECT_EQ(measurement->ucValue2, 30);
    EXPECT_EQ(Ask<Tarn_sys_diag_DimWorkModeCfg>("SysdiagGetDimWorkMode")->uiWorkMode, 2);
}

TEST_F(MasterTest, SaysWhatIsNotConfigured) {
    Write("");
    ASSERT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), 0);
    EXPECT_EQ(Ask<Tarn_sys_diag_GetMKAutoUpdCfgInfoOutput>("GetMKAutoUpdCfgInfo").Status(), ENODATA);
    EXPECT_EQ(Ask<Tarn_sys_diag_MKCfgInfoOutput>("SysdiagGetMKCfgInfo").Status(), ENODATA);
    EXPECT_EQ(Ask<Tarn_sys_diag_DimTimeCfg>("SysdiagGetDimCfgInfo").Status(), ENODATA);
    EXPECT_EQ(Ask<Tarn_sys_diag_DimWorkModeCfg>("SysdiagGetDimWorkMode").Status(), ENODATA);
    EXPECT_EQ(MemoryConfig().Status(), ENOENT);
    EXPECT_EQ(Ask<Tarn_sys_diag_GetDstOutput>("GetDst")->uiValue1, 0);
}

TEST_F(MasterTest, ReadsItsConfigurationAgain) {
    Write(With(kConfig, "Europe/Berlin", "Europe/Paris"));
    const auto zone = [&] {
        return std::string(Ask<Tarn_sys_diag_GetTimezoneOutput>("GetTimezone")->stTimezone.szTimezoneName);
    };
    EXPECT_EQ(zone(), "Europe/Berlin");
    master_->Signal(SIGHUP);
    EXPECT_TRUE(kit::Eventually([&] { return zone() == "Europe/Paris"; }));

    Write("[zone]\nname = Europe/Rome\noffset = far\n");
    EXPECT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), EINVAL);
    EXPECT_TRUE(MasterLogged("master.conf:3: [zone] offset: the value is \"far\", expected a number from -720 to 840; "
                             "what was configured before holds"));
    EXPECT_EQ(zone(), "Europe/Paris");
    master_->Signal(SIGHUP);
    std::filesystem::remove(file_);
    EXPECT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), EINVAL);
    EXPECT_EQ(zone(), "Europe/Paris");
    Write(kConfig);
    EXPECT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), 0);
    EXPECT_EQ(zone(), "Europe/Berlin");
}

TEST_F(MasterTest, KeepsWhatIsChanged) {
    EXPECT_EQ(MemoryConfig()->uiValue3, 0);
    const auto before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(ChangeMemory(700, 600), 0);
    const auto expectChanged = [&] {
        const auto config = MemoryConfig();
        EXPECT_EQ(config->uiValue1, 700);
        EXPECT_EQ(config->uiValue2, 600);
        EXPECT_EQ(config->uiValue3, 1);
        EXPECT_EQ(std::string(config->acName3), "the test");
        EXPECT_EQ(config->uiValue4, 1);
        EXPECT_GE(config->uiValue5, before);
    };
    expectChanged();
    EXPECT_EQ(ChangeMemory(1001, 600), EINVAL);
    EXPECT_EQ(ChangeMemory(700, 701), EINVAL);
    EXPECT_EQ(ChangeMemory(700, 600, "nobody"), ENOENT);
    expectChanged();
    master_->Signal(SIGKILL);
    master_->Wait();
    StartMaster();
    expectChanged();

    Write(With(kConfig, "Europe/Berlin", "Europe/Paris")); // which says the same of memory
    ASSERT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), 0);
    expectChanged();
    Write(With(kConfig, "over = 910", "over = 920"));
    ASSERT_EQ(Ask<Tarn_sys_diag_None>("UpdateInnerConfig").Status(), 0);
    EXPECT_EQ(MemoryConfig()->uiValue1, 920);
    EXPECT_EQ(MemoryConfig()->uiValue3, 0);
}

TEST_F(MasterTest, SetsADamagedStateAside) {
    ASSERT_EQ(ChangeMemory(700, 600), 0);
    EXPECT_EQ(master_->Stop(), 0);
    const std::filesystem::path file = dir_.Path() / "master-state" / "memory-overload.json";
    const std::string good = kit::TextOfFile(file);
    for (const std::string &text : {std::string(), good.substr(0, good.size() / 2), With(good, "700", "701")}) {
        SCOPED_TRACE(text);
        std::ofstream(file) << text;
        StartMaster();
        EXPECT_TRUE(MasterLogged("set aside as memory-overload.json.damaged"));
        EXPECT_EQ(kit::TextOfFile(file.string() + ".damaged"), text);
        EXPECT_EQ(MemoryConfig()->uiValue1, 910) << "as in the file";
        EXPECT_EQ(MemoryConfig()->uiValue3, 0);
        EXPECT_EQ(master_->Stop(), 0);
    }
    master_.reset();
}

TEST_F(MasterTest, RefusesAChangeThatItCannotKeep) {
    EXPECT_EQ(master_->Stop(), 0);
    const kit::SmallDisk disk(dir_.Path() / "master-state", "64k");
    StartMaster(); // which sees the disk
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    ASSERT_EQ(ChangeMemory(700, 600), 0);
    disk.Fill();
    EXPECT_EQ(ChangeMemory(750, 600), ENOSPC);
    EXPECT_EQ(MemoryConfig()->uiValue1, 700);
    EXPECT_EQ(master_->Stop(), 0);
    StartMaster();
    EXPECT_EQ(MemoryConfig()->uiValue1, 700);
}

TEST_F(MasterTest, EndsAtASignalAndAtNoOther) {
    master_->Signal(SIGHUP);
    EXPECT_TRUE(MasterLogged("read again"));
    for (const int signal : {SIGINT, SIGTERM}) {
        master_->Signal(signal);
        EXPECT_EQ(master_->Wait(), 0) << signal << master_->Err();
        StartMaster();
    }
}

TEST_F(MasterTest, ChecksItsConfiguration) {
    kit::Process good(dir_.Path(), {TARN_MASTER, file_, "--check"});
    EXPECT_EQ(good.Wait(), 0);
    Write(With(kConfig, "mode = learn", "mode = teach"));
    const std::string elsewhere = "--run-dir=" + (dir_.Path() / "elsewhere").string();
    for (const std::string &option : {std::string("--check"), elsewhere}) {
        kit::Process bad(dir_.Path(), {TARN_MASTER, file_, option});
        EXPECT_EQ(bad.Wait(), 1);
        EXPECT_NE(bad.Err().find("mode: the value is \"teach\""), std::string::npos) << bad.Err();
    }
}

TEST_F(MasterTest, ServesWithinThePolicyAndLimitsOfItsOptions) {
    EXPECT_EQ(master_->Stop(), 0);
    const std::filesystem::path policy = dir_.Path() / "policy";
    std::ofstream(policy) << "GetGmt nobody\n";
    StartMaster({"--policy", policy, "--limit", "requests=7", "--limit", "connections=9"});
    EXPECT_EQ(Ask<Tarn_sys_diag_GetGmtOutput>("GetGmt").Status(), 1000 + EACCES);
    EXPECT_EQ(Ask<Tarn_sys_diag_GetTimezoneOutput>("GetTimezone").Status(), 0);
    host::ServerStatus status;
    ASSERT_TRUE(host::AskStatus(client_, "TarnSysdiagMaster", 0, status, 10s).Ok());
    std::map<std::string, uint64_t> limits;
    for (const host::NamedValue &limit : status.limits) {
        limits[limit.name] = limit.value;
    }
    EXPECT_EQ(limits["requests"], 7);
    EXPECT_EQ(limits["connections"], 9);
}

TEST_F(MasterTest, RefusesOptionsInTheWordsOfTheDaemon) {
    const std::filesystem::path policy = dir_.Path() / "policy";
    std::ofstream(policy) << "reading everybody\n";
    struct Case {
        std::vector<std::string> options;
        int exitCode;
        std::string why;
    };
    for (const Case &c : std::vector<Case>{
             {{"--policy", policy}, 1, policy.string() + ":1: \"everybody\", expected anyone, nobody, "},
             {{"--policy", "/no/such/file"}, 1, "/no/such/file: No such file or directory, expected a policy file"},
             {{"--limit", "requests=none"}, 2, "limit requests: \"none\", expected a number from 1 to "},
             {{"--limit", "requests"}, 2, "limit requests: \"\", expected a number from 1 to "},
             {{"--limit", "request=1"}, 2, "limit \"request\", expected NAME=VALUE with one of message_bytes, "},
             {{"--log-level", "loud"}, 2, "--log-level"},
         }) {
        for (std::vector<std::string> command : {std::vector<std::string>{TARN_MASTER, file_, "--check"},
                                                 {TARND, "--run-dir", dir_.Path(), "--log-dir", logs_}}) {
            command.insert(command.end(), c.options.begin(), c.options.end());
            kit::Process program(dir_.Path(), command);
            EXPECT_EQ(program.Wait(), c.exitCode) << command[0] << " " << c.why;
            EXPECT_NE(program.Err().find(c.why), std::string::npos) << command[0] << ": " << program.Err();
        }
    }
}

TEST_F(MasterTest, LogsAsMuchAsItIsTold) {
    EXPECT_EQ(master_->Stop(), 0);
    kit::Process quiet(dir_.Path(), {TARN_MASTER, file_, "--run-dir", dir_.Path(), "--log-level", "warning"});
    EXPECT_TRUE(kit::Eventually([&] { return Ask<Tarn_sys_diag_GetTimezoneOutput>("GetTimezone").Status() == 0; }));
    EXPECT_EQ(
        Ask<Tarn_sys_diag_PhyNameAndIDOutput>("GetPhyNameAndID", Tarn_sys_diag_PhysicalAddrInput{9, 9, 9}).Status(),
        ENOENT);
    EXPECT_EQ(quiet.Stop(), 0);
    EXPECT_EQ(quiet.Err().find("serving in"), std::string::npos) << quiet.Err();
    EXPECT_NE(quiet.Err().find("GetPhyNameAndID"), std::string::npos) << quiet.Err();
    master_.reset();
}

TEST_F(MasterTest, ConfiguresTheDaemon) {
    StartDaemon();
    EXPECT_TRUE(Logged("time zone Europe/Berlin (+60 minutes) from the master"));
    EXPECT_TRUE(Logged("daylight saving CEST (+60 minutes) from M3.5.0/02:00:00 to M10.5.0/03:00:00 from the master"));
    EXPECT_TRUE(MasterLogged("a daemon announces itself; announcements so far: 1\n"));
    EXPECT_TRUE(kit::Eventually([&] { return DaemonsMemoryThreshold() == 910; }));
    EXPECT_TRUE(Logged("measurement times 3 30"));
    const auto cpu = Call<Tarn_sys_diag_GetSysCpuOverloadCfgOutput>("GetSysCpuOverloadCfg", Tarn_sys_diag_None{});
    EXPECT_EQ(cpu->uiValue1, 900);
    EXPECT_EQ(cpu->uiValue2, 850);
    EXPECT_EQ(cpu->uiValue3, 10);

    Write(With(kConfig, "over = 910", "over = 930"));
    master_->Signal(SIGHUP);
    EXPECT_TRUE(kit::Eventually([&] { return DaemonsMemoryThreshold() == 930; })) << "is told of a new configuration";
}

TEST_F(MasterTest, IsFoundWhenItComesLater) {
    EXPECT_EQ(master_->Stop(), 0);
    StartDaemon();
    EXPECT_TRUE(Logged("no master"));
    EXPECT_NE(DaemonsMemoryThreshold(), 910);
    StartMaster();
    EXPECT_TRUE(kit::Eventually([&] { return DaemonsMemoryThreshold() == 910; }));
}

TEST_F(MasterTest, IsToldWhatAClientChanges) {
    StartDaemon();
    EXPECT_TRUE(kit::Eventually([&] { return DaemonsMemoryThreshold() == 910; }));
    const auto set = [&](uint32_t over) {
        const auto answer = Call<Tarn_sys_diag_OperResult>("SysOvLoadMemThresholdSet",
                                                           Tarn_sys_diag_SysOvLoadMemThreshold{over, over - 100});
        EXPECT_EQ(answer->uiResult, 0);
    };
    set(770);
    EXPECT_TRUE(kit::Eventually([&] { return MemoryConfig()->uiValue1 == 770; }));
    EXPECT_EQ(MemoryConfig()->uiValue2, 670);
    EXPECT_EQ(std::string(MemoryConfig()->acName3), "tarnd " + std::to_string(daemon_->Pid()));

    // A change that the master misses reaches it when it is back, and is not undone by what it has.
    EXPECT_EQ(master_->Stop(), 0);
    set(660);
    EXPECT_TRUE(Logged("no master"));
    StartMaster();
    EXPECT_TRUE(kit::Eventually([&] { return MemoryConfig()->uiValue1 == 660; }));
    EXPECT_EQ(DaemonsMemoryThreshold(), 660);
}

// A master that knows one time zone, and answers nothing else.
std::atomic<uint32_t> greetings;
std::mutex masterMutex; // that the daemon asks later than the test answers orders nothing between their threads
Tarn_sys_diag_GetTimezoneOutput masterReply;
void SetMasterReply(std::string_view zone, int32_t offset) {
    const std::lock_guard lock(masterMutex);
    masterReply = {};
    masterReply.uiValue1 = 1;
    kit::Set(masterReply.stTimezone.szTimezoneName, zone);
    masterReply.stTimezone.uiTimezoneOffset = static_cast<uint32_t>(offset);
}
uint32_t GetTimezone(const Tarn_sys_diag_None *, void *replyCtx) {
    const std::lock_guard lock(masterMutex);
    return TarnHost_Reply(replyCtx, &masterReply);
}
void GetTimezone_free(Tarn_sys_diag_GetTimezoneOutput *) {}
uint32_t DetectSysdiagServerOnline(const Tarn_sys_diag_None *) {
    ++greetings;
    return 0;
}
TARN_WRAPPER(GetTimezone, None, GetTimezoneOutput)
TARN_WRAPPER_NO_REPLY(DetectSysdiagServerOnline, None)
const IdlInterfaceEntry intf_tbl_TarnSysdiagMaster[] = {
    TARN_RESERVED_INTERFACE_ENTRY, TARN_INTERFACE_ENTRY(GetTimezone, None, GetTimezoneOutput)
                                       TARN_INTERFACE_ENTRY_NO_REPLY(DetectSysdiagServerOnline, None)};
const IdlMessageEntry msgdesc_tbl_TarnSysdiagMaster[] = {
    TARN_RESERVED_MESSAGE_ENTRY, TARN_MESSAGE_ENTRIES(GetTimezone, None, GetTimezoneOutput)
                                     TARN_MESSAGE_ENTRIES_NO_REPLY(DetectSysdiagServerOnline, None)};
const IdlModuleSpec oldMasterSpec = TARN_MODULE_SPEC(TarnSysdiagMaster);

class OldMasterTest : public kit::DaemonTest<Unit> {
protected:
    void SetUp() override {
        std::filesystem::create_directory(logs_);
        server_.AddService(oldMasterSpec);
        server_.Start();
        greetings = 0;
    }
    host::Server server_{{.runDir = dir_.Path()}};
};

TEST_F(OldMasterTest, IsGreetedAndGivesItsTimeZone) {
    SetMasterReply("Asia/Kathmandu", 345);
    StartDaemon();
    EXPECT_TRUE(Logged("time zone Asia/Kathmandu (+345 minutes) from the master"));
    EXPECT_EQ(greetings, 1);
}

TEST_F(OldMasterTest, GivesATimeZoneThatMakesNoSense) {
    SetMasterReply("Asia/Kathmandu", 20000);
    StartDaemon();
    EXPECT_TRUE(Logged("zone.offset is 20000"));
    EXPECT_EQ(daemon_->Err().find("from the master"), std::string::npos);
}

} // namespace
