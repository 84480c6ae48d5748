// tarnd, run as a program and asked through the raw client; its answers against other sources.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>

#include "host/answer/answer.h"
#include "host/runtime/catalogue.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/host/reply.h"
#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;
using kit::EndedPid;
using kit::Subject;

using DaemonTest = kit::DaemonTest<Unit>;

TEST_F(DaemonTest, KnowsWhetherAProcessIsOnline) {
    const auto online = [&](uint32_t pid) {
        const auto answer = Call<Tarn_sys_diag_PidIsOnlineOuput>("PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{pid});
        EXPECT_EQ(answer.Status(), 0);
        EXPECT_EQ(answer->uiPid, pid);
        return answer->ucIsOnline;
    };
    const Subject subject(dir_);
    EXPECT_EQ(online(subject.Pid()), 1);
    EXPECT_EQ(online(static_cast<uint32_t>(getpid())), 1);
    EXPECT_EQ(online(subject.tids.at("sleeper")), 0) << "a thread's id";
    EXPECT_EQ(online(EndedPid()), 0);
    EXPECT_EQ(online(0), 0);
    EXPECT_EQ(online(UINT32_MAX), 0);
    const Subject headless(dir_, "headless", 2);
    const auto first = [&] { return kit::TextOfFile("/proc/" + std::to_string(headless.Pid()) + "/stat"); };
    ASSERT_TRUE(kit::Eventually([&] { return first().find(") Z ") != std::string::npos; }));
    EXPECT_EQ(online(headless.Pid()), 1) << "its other threads run on";

    const pid_t zombie = fork();
    if (zombie == 0) {
        _exit(0);
    }
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
    EXPECT_EQ(online(static_cast<uint32_t>(zombie)), 0);
    waitpid(zombie, nullptr, 0);
}

// Where /proc shows a daemon without rights no process of others at all.
class HiddenTest : public kit::Denied<DaemonTest> {
protected:
    void SetUp() override {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("proc", "/proc", "proc", 0, "hidepid=2") != 0) {
            GTEST_SKIP() << "may not mount";
        }
        Denied::SetUp();
    }
};

TEST_F(HiddenTest, TellsHiddenProcessesFromThoseThatHaveEnded) {
    const auto online = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_PidIsOnlineOuput>("PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{pid})->ucIsOnline;
    };
    const auto status = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_ProcessStatusOutput>("GetProcStatByPid", Tarn_sys_diag_ProcessStatusInput{pid})
            .Status();
    };
    const Subject hidden(dir_);
    EXPECT_EQ(online(hidden.Pid()), 1);
    EXPECT_EQ(status(hidden.Pid()), EACCES);
    EXPECT_EQ(online(hidden.tids.at("sleeper")), 0) << "a thread's id";
    EXPECT_EQ(online(EndedPid()), 0);
    EXPECT_EQ(status(EndedPid()), ESRCH);
    EXPECT_EQ(online(daemon_->Pid()), 1);
    EXPECT_EQ(status(daemon_->Pid()), 0);
    EXPECT_EQ(Call<Tarn_sys_diag_Tids>("GetAllTidsByPid", Tarn_sys_diag_Pid{hidden.Pid()}).Status(), EACCES);
    EXPECT_EQ(Call<Tarn_sys_diag_SysMemStatisProResult>("GetSysMemStatisPro", Tarn_sys_diag_PositionStr{}).Status(), 0)
        << "of those that may be seen";
}

unsigned long DefaultHugePageKb() {
    const std::string text = kit::TextOfFile("/proc/meminfo");
    return std::stoul(text.substr(text.find("Hugepagesize:") + strlen("Hugepagesize:")));
}

TEST_F(DaemonTest, CountsHugePages) {
    const auto answer = Call<Tarn_sys_diag_HugePagesOutput>("GetHugePagesInfo", Tarn_sys_diag_None{});
    ASSERT_EQ(answer.Status(), 0);
    const auto number = [](const std::filesystem::path &path) { return std::stoul(kit::TextOfFile(path)); };
    const unsigned long total = number("/proc/sys/vm/nr_hugepages");
    const std::string kb = std::to_string(DefaultHugePageKb());
    const unsigned long free = number("/sys/kernel/mm/hugepages/hugepages-" + kb + "kB/free_hugepages");
    EXPECT_EQ(answer->uiValue1, total);
    EXPECT_EQ(answer->uiValue2, free);
}

TEST_F(DaemonTest, RegistersAgents) {
    Tarn_sys_diag_AgentRegInfoInput request{};
    kit::Set(request.szAgentName, "tester");
    request.uiValue1 = static_cast<uint32_t>(getpid());
    request.uiValue2 = 1;
    request.ucValue3 = 1;
    const auto call = [&] {
        return kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(client_, "TarnSysdiagTarndAgent", 0, "AgentRegInfo",
                                                                 request);
    };
    const auto answer = call();
    ASSERT_EQ(answer.Status(), 0);
    EXPECT_EQ(answer->uiValue1, 0);
    EXPECT_EQ(std::string(answer->szAgentName), "tester");
    EXPECT_EQ(answer->uiValue2, daemon_->Pid());
    EXPECT_TRUE(Logged("agent tester of process " + std::to_string(getpid()) + " has registered"));
    request.ucValue3 = 0;
    EXPECT_EQ(call()->uiValue1, 0);
    EXPECT_TRUE(Logged("agent tester of process " + std::to_string(getpid()) + " has left"));
    request.ucValue3 = 2;
    EXPECT_EQ(call()->uiValue1, EINVAL);
    request.ucValue3 = 1;
    request.uiValue1 = EndedPid();
    EXPECT_EQ(call()->uiValue1, ESRCH);
    request.szAgentName[0] = 0;
    EXPECT_EQ(call()->uiValue1, EINVAL);
}

TEST_F(DaemonTest, TakesSubscriptions) {
    const auto subscribe = [&](uint32_t pid, uint32_t events) {
        return kit::Call<Unit, Tarn_sys_diag_Result>(client_, "TarnSysdiagTarndAgent", 0, "TarnAppSubscribe",
                                                     Tarn_sys_diag_AppSubscribeInput{pid, events})
            ->uiResult;
    };
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 6), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x6, before to 0x0"));
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 0), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x0, before to 0x6"));
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 2), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x2, before to 0x0"));
    EXPECT_EQ(subscribe(EndedPid(), 2), ESRCH);
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 1), EINVAL);
}

TEST_F(DaemonTest, TellsItsCallerWhyAResultIsAFailure) {
    const auto answer =
        Call<Tarn_sys_diag_OperResult>("SysOvLoadCpuThresholdSet", Tarn_sys_diag_SysOvLoadCpuThreshold{1900, 0, 0});
    EXPECT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiResult, EINVAL);
    EXPECT_EQ(answer.Explanation(), "begins-at (uiValue1) is 1900 ‰, expected 0 to 1000");
    const auto run = [&](const std::vector<std::string> &arguments) {
        std::vector<std::string> command{TARNCTL, "--run-dir", dir_.Path()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        kit::Process ctl(dir_.Path(), command);
        const int code = ctl.Wait();
        return std::pair(code, ctl.Err());
    };
    const std::string file = dir_.Path() / "request"; // as it is: tarnctl would not send such a request
    EXPECT_EQ(run({"encode", "SysOvLoadCpuThreshold", R"({"begins-at": 1900})", "-o", file}),
              std::pair(0, std::string()));
    EXPECT_EQ(run({"call", "SysOvLoadCpuThresholdSet", "--raw", file}),
              std::pair(5, "tarnctl: TarnSysdiagTarnd.SysOvLoadCpuThresholdSet: result (uiResult) is 22 (Invalid "
                           "argument): " +
                               answer.Explanation() + "\n"));
}

TEST_F(DaemonTest, IsThereForWhoAsks) {
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DetectTarndServerOnline", Tarn_sys_diag_None{}), 0);
    EXPECT_TRUE(Logged("a peer is there"));
}

// An empty message is a request of every type.
TEST_F(DaemonTest, AnswersEveryMethodByItself) {
    const std::vector<uint8_t> empty = kit::Encode<Unit>(Tarn_sys_diag_None{});
    size_t asked = 0;
    for (const host::MethodInfo &method : host::Catalogue()) {
        if (!method.service.starts_with("TarnSysdiagTarnd") || !method.Replies()) {
            continue;
        }
        ++asked;
        const host::CallOutcome outcome =
            client_.Call(method.service, 0, method.method, method.requestHash, empty, 20s);
        EXPECT_NE(outcome.status, ENOSYS) << method.method << ": " << outcome.text;
        EXPECT_EQ(outcome.errCode, 0) << method.method << ": " << outcome.text;
    }
    EXPECT_GT(asked, 0);
}

TEST_F(DaemonTest, TellsThatThereIsNoAgent) {
    const auto get = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_DiagResult>("DBGCmdExecResultGetByTarnd",
                                              Tarn_sys_diag_DbgCmdResultGetByTarndInput{pid})
            ->uiResult;
    };
    EXPECT_EQ(get(static_cast<uint32_t>(getpid())), ESRCH);
    EXPECT_EQ(get(0), EINVAL);
}

TEST_F(DaemonTest, RefusesASecondDaemonInTheSameDirectory) {
    kit::Process second(dir_.Path(), {TARND, "--run-dir", dir_.Path(), "--log-dir", logs_});
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_NE(second.Err().find("tarnd:"), std::string::npos);
    const auto answer = Call<Tarn_sys_diag_HugePagesOutput>("GetHugePagesInfo", Tarn_sys_diag_None{});
    EXPECT_EQ(answer.Status(), 0) << "the first goes on";
}

TEST_F(DaemonTest, RunsWithoutAMaster) {
    EXPECT_TRUE(Logged("no master"));
}

TEST(DaemonCommandLine, ExplainsWhatItDoesNotKnow) {
    const kit::TempDir dir;
    kit::Process unknown(dir.Path(), {TARND, "--no-such-option"});
    EXPECT_NE(unknown.Wait(), 0);
    EXPECT_NE(unknown.Err().find("--no-such-option"), std::string::npos) << unknown.Err();
    kit::Process level(dir.Path(), {TARND, "--log-level", "loud"});
    EXPECT_NE(level.Wait(), 0);
    EXPECT_NE(level.Err().find("loud"), std::string::npos) << level.Err();
}

} // namespace
