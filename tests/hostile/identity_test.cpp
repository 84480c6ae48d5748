// Who is at the other end: processes that speak for others, sockets that others hold, and other users' memory.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include <sys/prctl.h>

#include "host/runtime/transport.h"
#include "tests/hostile/hostile.h"

namespace {

constexpr char kForAgents[] = "TarnSysdiagTarndAgent";

Tarn_sys_diag_AgentRegInfoInput Registration(uint32_t pid, bool runs) {
    Tarn_sys_diag_AgentRegInfoInput request{};
    kit::Set(request.szAgentName, "impostor");
    request.uiValue1 = pid;
    request.uiValue2 = 1;
    request.ucValue3 = runs;
    return request;
}

uint32_t Register(host::Client &client, uint32_t pid, bool runs = true) {
    return kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(client, kForAgents, 0, "AgentRegInfo",
                                                             Registration(pid, runs))
        ->uiValue1;
}

uint32_t Subscribe(host::Client &client, uint32_t pid, uint32_t events) {
    return kit::Call<Unit, Tarn_sys_diag_Result>(client, kForAgents, 0, "TarnAppSubscribe",
                                                 Tarn_sys_diag_AppSubscribeInput{pid, events})
        ->uiResult;
}

class Identity : public kit::HostileTest<Unit> {
protected:
    std::string Policy() const override { return "reading anyone\nmemory anyone\nagents anyone\n"; }

    mode_t RunDirMode() const override { return kit::kForAll; }
    std::vector<std::string> AgentCommand() const { return {TARN_AGENT, "--run-dir", dir_.Path()}; }
    // How the daemon fares that asks an agent.
    uint32_t AskAgent(uint32_t pid) {
        return Call<Tarn_sys_diag_GetMirelMemHandleInfoOutput>("GetMirelMemHandleInfoByTarnd",
                                                               Tarn_sys_diag_GetMirelMemHandleInfoInput{pid})
            .Status();
    }
    std::string Services() {
        kit::Process ctl(dir_.Path(), {TARNCTL, "--run-dir", dir_.Path(), "services"});
        EXPECT_EQ(ctl.Wait(), 0) << ctl.Err();
        return ctl.Out();
    }
};

TEST_F(Identity, NobodyRegistersOrSubscribesAnother) {
    kit::Process agent(dir_.Path(), AgentCommand());
    ASSERT_TRUE(Logged(fmt::format("of process {} has registered", agent.Pid())));
    constexpr int kTimes = 100;
    kit::Attacker attacker([&] {
        host::Client client({.runDir = dir_.Path()});
        for (int i = 0; i < kTimes; ++i) {
            for (const uint32_t victim : {1U, agent.Pid()}) {
                if (Register(client, victim) != EPERM || Register(client, victim, false) != EPERM ||
                    Subscribe(client, victim, 0) != EPERM) {
                    return 1;
                }
            }
        }
        const auto own = static_cast<uint32_t>(getpid());
        return Register(client, own) == 0 && Subscribe(client, own, 2) == 0 ? 0 : 2;
    });
    EXPECT_EQ(attacker.Wait(), 0);
    EXPECT_EQ(daemon_->Err().find(fmt::format("agent impostor of process {}", agent.Pid())), std::string::npos);
    EXPECT_EQ(daemon_->Err().find("agent impostor of process 1 "), std::string::npos);
    EXPECT_EQ(AskAgent(agent.Pid()), 0);
}

TEST_F(Identity, ATakenSocketNameKeepsNoAgentFromTheDaemon) {
    // A process that waits until the attacker has its name, and then runs an agent for a user who can't remove it.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t victim = fork();
    if (victim == 0) {
        char go;
        const bool may = read(ends[0], &go, 1) == 1 &&
                         setresuid(kit::kSecondAttacker, kit::kSecondAttacker, kit::kSecondAttacker) == 0;
        execl(TARN_AGENT, TARN_AGENT, "--run-dir", dir_.Path().c_str(), nullptr);
        _exit(may ? 1 : 2);
    }
    const std::filesystem::path name = dir_.Path() / fmt::format("agent-{}.sock", victim);
    kit::Attacker attacker([&] {
        const host::Listener squatter(name, true);
        EXPECT_EQ(write(ends[1], "", 1), 1);
        pause();
        return 0;
    });
    EXPECT_TRUE(Logged(fmt::format("of process {} has registered", victim)));
    EXPECT_TRUE(kit::Eventually([&] { return AskAgent(static_cast<uint32_t>(victim)) == 0; }));
    EXPECT_NE(AskAgent(attacker.Pid()), 0);
    kill(victim, SIGTERM);
    waitpid(victim, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Identity, AnAgentInANamespaceIsKnownAsTheDaemonSeesIt) {
    std::vector<std::unique_ptr<kit::Process>> unshared;
    for (int i = 0; i < 2; ++i) { // both are process 1 for themselves
        std::vector<std::string> command{"/usr/bin/unshare", "--pid", "--fork", "--kill-child", "--mount-proc"};
        for (const std::string &word : AgentCommand()) {
            command.push_back(word);
        }
        unshared.push_back(std::make_unique<kit::Process>(dir_.Path(), command));
    }
    const auto childOf = [](uint32_t pid) {
        uint32_t child = 0;
        std::ifstream(fmt::format("/proc/{0}/task/{0}/children", pid)) >> child;
        return child;
    };
    for (const auto &one : unshared) {
        uint32_t agent = 0;
        if (!kit::Eventually([&] { return (agent = childOf(one->Pid())) != 0 || !one->Err().empty(); }) || agent == 0) {
            GTEST_SKIP() << "no PID namespace may be made: " << one->Err();
        }
        EXPECT_TRUE(Logged(fmt::format("of process {} has registered", agent))) << daemon_->Err();
        EXPECT_TRUE(kit::Eventually([&] { return AskAgent(agent) == 0; })) << agent;
        const std::string services = Services();
        EXPECT_NE(services.find(fmt::format("{} ", agent)), std::string::npos) << services;
    }
    EXPECT_EQ(AskAgent(1), EPERM) << "whose socket is another's";
}

TEST_F(Identity, AServersSocketIsNotAnothers) {
    EXPECT_EQ(daemon_->Stop(), 0);
    daemon_.reset();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::filesystem::path name = dir_.Path() / "TarnSysdiagTarnd.sock";
    kit::Attacker attacker([&] {
        const host::Listener fake(name, true);
        EXPECT_EQ(write(ends[1], "", 1), 1);
        pause();
        return 0;
    });
    char ready;
    ASSERT_EQ(read(ends[0], &ready, 1), 1);
    kit::Process ctl(dir_.Path(), {TARNCTL, "--run-dir", dir_.Path(), "call", "PidIsOnline", "process=1"});
    EXPECT_EQ(ctl.Wait(), 3);
    EXPECT_NE(ctl.Err().find(fmt::format("is held by process {} of user 65534, expected root", attacker.Pid())),
              std::string::npos)
        << ctl.Err();
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Identity, TheMemoryOfOthersIsNotShown) {
    const kit::Subject subject(dir_); // root's
    kit::Attacker attacker([&] {
        prctl(PR_SET_DUMPABLE, 1); // as a program that its user has started
        host::Client client({.runDir = dir_.Path()});
        const auto mappings = [&](uint32_t pid) {
            return kit::Call<Unit, Tarn_sys_diag_SysProOsResult>(client, "TarnSysdiagTarnd", 0, "GetOsProcessMapsInfo",
                                                                 Tarn_sys_diag_SysProOsInput{pid})
                .Status();
        };
        const auto stack = [&](uint32_t pid) {
            return kit::Call<Unit, Tarn_sys_diag_CallStackContext>(client, "TarnSysdiagTarnd", 0,
                                                                   "GetCallStackInfoByTid", Tarn_sys_diag_Tid{pid, 0})
                .Status();
        };
        for (int i = 0; i < 100; ++i) {
            if (mappings(subject.Pid()) != EACCES || stack(subject.Pid()) != EACCES || mappings(1) != EACCES) {
                return 1;
            }
        }
        const auto files = kit::Call<Unit, Tarn_sys_diag_SysMemStatisFileResult>(
            client, "TarnSysdiagTarnd", 0, "GetSysMemStatisFile", Tarn_sys_diag_None{});
        return files.Status() != EACCES ? 2 : mappings(static_cast<uint32_t>(getpid())) != 0 ? 3 : 0;
    });
    EXPECT_EQ(attacker.Wait(), 0);
}

} // namespace
