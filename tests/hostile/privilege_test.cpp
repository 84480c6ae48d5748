// What a daemon that root starts keeps of root's rights, what it can do without them, and locks that anybody takes.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/file.h>

#include "tests/hostile/hostile.h"

namespace {

constexpr uid_t kDaemon = 65532;
constexpr uint64_t kAlways = 1ULL << CAP_SYS_PTRACE | 1ULL << CAP_DAC_READ_SEARCH;
constexpr uint64_t kForTheClock = kAlways | 1ULL << CAP_SYS_TIME | 1ULL << CAP_DAC_OVERRIDE;

// A line of /proc/PID/status, with blanks between its words.
std::string StatusOf(uint32_t pid, const std::string &key) {
    std::istringstream lines(kit::TextOfFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key + ":")) {
            std::istringstream words(line.substr(key.size() + 1));
            std::string text;
            for (std::string word; words >> word;) {
                text += (text.empty() ? "" : " ") + word;
            }
            return text;
        }
    }
    return "no " + key;
}

void ExpectRights(uint32_t pid, uid_t user, uint64_t capabilities) {
    const std::string id = std::to_string(user);
    const std::string four = fmt::format("{0} {0} {0} {0}", id), bits = fmt::format("{:016x}", capabilities);
    EXPECT_EQ(StatusOf(pid, "Uid"), four);
    EXPECT_EQ(StatusOf(pid, "Gid"), four);
    EXPECT_EQ(StatusOf(pid, "Groups"), "");
    EXPECT_EQ(StatusOf(pid, "CapPrm"), bits);
    EXPECT_EQ(StatusOf(pid, "CapEff"), bits);
    EXPECT_EQ(StatusOf(pid, "CapBnd"), bits);
    EXPECT_EQ(StatusOf(pid, "CapInh"), fmt::format("{:016x}", 0));
    EXPECT_EQ(StatusOf(pid, "CapAmb"), fmt::format("{:016x}", 0));
    EXPECT_EQ(StatusOf(pid, "NoNewPrivs"), "1");
}

std::vector<std::string> As(uid_t user, std::vector<std::string> command) {
    const std::string id = std::to_string(user);
    std::vector<std::string> whole{"/usr/bin/setpriv", "--reuid", id, "--regid", id, "--clear-groups"};
    whole.insert(whole.end(), command.begin(), command.end());
    return whole;
}

class Unprivileged : public kit::HostileTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--user", std::to_string(kDaemon), "--state-dir", State()};
    }
    std::string State() const { return dir_.Path() / "state"; }

    static uid_t OwnerOf(const std::filesystem::path &file) {
        struct stat status {};
        EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
        return status.st_uid;
    }
};

TEST_F(Unprivileged, KeepsTwoCapabilitiesOfRoots) {
    ExpectRights(daemon_->Pid(), kDaemon, kAlways);
    EXPECT_TRUE(Logged("runs as user 65532, capabilities kept: dac_read_search, sys_ptrace; lacking: none"));
    EXPECT_EQ(OwnerOf(Socket()), kDaemon);
    EXPECT_EQ(OwnerOf(State()), kDaemon);
    EXPECT_TRUE(Answers());
}

TEST_F(Unprivileged, LooksAtProcessesOfOthers) {
    const kit::Process other(dir_.Path(), As(kit::kAttacker, {"/bin/sleep", "600"}));
    ASSERT_TRUE(kit::Eventually([&] { return StatusOf(other.Pid(), "Name") == "sleep"; }));
    const uint32_t pid = other.Pid();
    const auto stack = Call<Tarn_sys_diag_CallStackContext>("GetCallStackInfoByTid", Tarn_sys_diag_Tid{pid, pid});
    EXPECT_EQ(stack.Status(), 0) << stack.Text();
    const auto mappings = Call<Tarn_sys_diag_SysProOsResult>("GetOsProcessMapsInfo", Tarn_sys_diag_SysProOsInput{pid});
    EXPECT_EQ(mappings.Status(), 0) << mappings.Text();
    const auto memory =
        Call<Tarn_sys_diag_SysOsMemInfoResult>("GetOsProcessMemInfo", Tarn_sys_diag_SysOsMemInfoInput{pid});
    EXPECT_EQ(memory.Status(), 0) << memory.Text();
}

TEST_F(Unprivileged, ReachesAgentsOfOthersAndNobodyElseDoes) {
    if (kit::Process(dir_.Path(), As(kit::kAttacker, {"/usr/bin/test", "-x", TARN_AGENT})).Wait() != 0) {
        GTEST_SKIP() << "other users may not run " << TARN_AGENT;
    }
    ASSERT_EQ(chmod(dir_.Path().c_str(), 01777), 0);
    const kit::Process agent(dir_.Path(), As(kit::kAttacker, {"/usr/bin/env", "TARN_USER=" + std::to_string(kDaemon),
                                                              TARN_AGENT, "--run-dir", dir_.Path()}));
    ASSERT_TRUE(kit::Eventually([&] { return client_.Knows("TarnSysdiagAgent", agent.Pid()); })) << agent.Err();
    const auto timers = Call<Tarn_sys_diag_GetTimerInfoResult>("TarnGetTimerInfoTarnd",
                                                               Tarn_sys_diag_GetTimerInput{0, 0, 1, agent.Pid()});
    EXPECT_EQ(timers->uiResult, 0) << timers.Explanation() << agent.Err();
    kit::Attacker attacker(
        [&] {
            host::Client client({.runDir = dir_.Path()});
            return static_cast<int>(kit::Call<Unit, Tarn_sys_diag_GetTimerInfoResult>(
                                        client, "TarnSysdiagAgent", agent.Pid(), "TarnAgentGetTimerInfo",
                                        Tarn_sys_diag_GetTimerInput{0, 0, 1, 0})
                                        .Status()) == 1000 + EACCES
                       ? 0
                       : 1;
        },
        kit::kSecondAttacker);
    EXPECT_EQ(attacker.Wait(), 0);
}

// The daemon's own files of a time when it was root's, and nothing that others could have put there.
TEST_F(Unprivileged, TakesOverWhatRootLeft) {
    EXPECT_EQ(daemon_->Stop(), 0);
    const std::filesystem::path state = State();
    std::ofstream(state / "old.json") << "{}";
    ASSERT_EQ(chown(state.c_str(), 0, 0), 0);
    ASSERT_EQ(lchown((state / "old.json").c_str(), 0, 0), 0);
    std::filesystem::create_symlink("/etc/passwd", state / "link.json");
    StartDaemon();
    EXPECT_EQ(OwnerOf(state), kDaemon);
    EXPECT_EQ(OwnerOf(state / "old.json"), kDaemon);
    EXPECT_EQ(OwnerOf("/etc/passwd"), 0);
}

TEST_F(Unprivileged, TheMasterKeepsNothing) {
    std::ofstream(dir_.Path() / "master.conf") << "";
    kit::Process master(dir_.Path(), {TARN_MASTER, "--run-dir", dir_.Path(), "--user", std::to_string(kDaemon),
                                      dir_.Path() / "master.conf"});
    ASSERT_TRUE(kit::Eventually([&] { return master.Err().find("serving in") != std::string::npos; })) << master.Err();
    ExpectRights(master.Pid(), kDaemon, 0);
    EXPECT_EQ(master.Stop(), 0);
}

class Root : public kit::HostileTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--user", "root"}; }
};

TEST_F(Root, KeepsNoMoreWhereItStaysItself) {
    ExpectRights(daemon_->Pid(), 0, kAlways);
    EXPECT_TRUE(Answers());
}

// Daemons that something else has taken rights from, or given them to, before they start.
class StartedWithRights : public kit::HostileTest<Unit> {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: rights are given and taken";
        }
        ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
        std::filesystem::create_directory(logs_);
    }
};

// As a service manager does that makes the daemon its user, and lets it keep too much.
TEST_F(StartedWithRights, KeepsNoMoreThanItNeedsOfWhatItWasGiven) {
    ASSERT_EQ(chown(dir_.Path().c_str(), kDaemon, kDaemon), 0);
    const std::string given = "+sys_ptrace,+dac_read_search,+sys_admin,+setuid";
    StartDaemon(As(kDaemon, {"--inh-caps", given, "--ambient-caps", given}));
    const std::string bits = fmt::format("{:016x}", kAlways), none = fmt::format("{:016x}", 0);
    EXPECT_EQ(StatusOf(daemon_->Pid(), "CapPrm"), bits);
    EXPECT_EQ(StatusOf(daemon_->Pid(), "CapEff"), bits);
    EXPECT_EQ(StatusOf(daemon_->Pid(), "CapAmb"), none);
    EXPECT_EQ(StatusOf(daemon_->Pid(), "NoNewPrivs"), "1");
}

TEST_F(StartedWithRights, BecomesTheUserThatTheEnvironmentNames) {
    StartDaemon({"/usr/bin/env", "TARN_USER=" + std::to_string(kDaemon)});
    ExpectRights(daemon_->Pid(), kDaemon, kAlways);
}

// As in a container.
TEST_F(StartedWithRights, TellsWhatItLacksAndGoesOn) {
    StartDaemon({"/usr/bin/setpriv", "--bounding-set", "-sys_ptrace"});
    ExpectRights(daemon_->Pid(), 0, 1ULL << CAP_DAC_READ_SEARCH);
    EXPECT_TRUE(Logged("capabilities kept: dac_read_search; lacking: sys_ptrace"));
    EXPECT_TRUE(Answers());
}

TEST_F(StartedWithRights, GoesOnWhereItCannotBoundItsPrograms) {
    StartDaemon({"/usr/bin/setpriv", "--bounding-set", "-setpcap"});
    EXPECT_EQ(StatusOf(daemon_->Pid(), "CapPrm"), fmt::format("{:016x}", kAlways));
    EXPECT_EQ(StatusOf(daemon_->Pid(), "NoNewPrivs"), "1");
    EXPECT_TRUE(Logged("capabilities stay in the bounding set: to remove them takes CAP_SETPCAP"));
    EXPECT_TRUE(Answers());
}

TEST_F(StartedWithRights, DoesNotServeAsRootWhereItCannotBecomeItsUser) {
    kit::Process daemon(dir_.Path(), {"/usr/bin/setpriv", "--bounding-set", "-setuid", TARND, "--run-dir",
                                      dir_.Path() / "run", "--log-dir", logs_, "--user", std::to_string(kDaemon)});
    EXPECT_EQ(daemon.Wait(), 1);
    EXPECT_NE(daemon.Err().find("can't become user 65532"), std::string::npos) << daemon.Err();
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "run/TarnSysdiagTarnd.sock"));
}

class WithTheClock : public kit::HostileTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--user", std::to_string(kDaemon), "--apply-clock", "--zone-link", dir_.Path() / "localtime"};
    }
};

TEST_F(WithTheClock, KeepsWhatItTakesToSetIt) {
    ExpectRights(daemon_->Pid(), kDaemon, kForTheClock);
}

TEST_F(Root, BecomesNobodyWhomTheSystemDoesNotKnow) {
    kit::Process daemon(dir_.Path(), {TARND, "--run-dir", dir_.Path() / "other", "--user", "no such user"});
    EXPECT_EQ(daemon.Wait(), 1);
    EXPECT_NE(daemon.Err().find("--user: no user \"no such user\", expected a user's name or number"),
              std::string::npos)
        << daemon.Err();
}

TEST_F(Root, AUserBecomesNobodyElse) {
    kit::Process daemon(dir_.Path(), As(kit::kAttacker, {TARND, "--run-dir", dir_.Path() / "other", "--user", "root"}));
    EXPECT_EQ(daemon.Wait(), 1);
    EXPECT_NE(daemon.Err().find("user 65534 can't become user 0, only root can"), std::string::npos) << daemon.Err();
}

// A lock on each directory that the attacker can open, from before the daemon starts to its end.
class Locked : public Unprivileged {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: an attack is another user's";
        }
        ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
        std::filesystem::create_directory(State());
        attacker_ = std::make_unique<kit::Attacker>([this] {
            const int run = open(dir_.Path().c_str(), O_RDONLY), state = open(State().c_str(), O_RDONLY);
            const int locked = flock(run, LOCK_EX) == 0 && flock(state, LOCK_EX) == 0 ? 1 : 0;
            return write(told_[1], &locked, sizeof locked) == sizeof locked ? pause() : 1;
        });
        int locked = 0;
        ASSERT_EQ(read(told_[0], &locked, sizeof locked), static_cast<ssize_t>(sizeof locked));
        ASSERT_EQ(locked, 1);
    }

    int told_[2]{};
    const int piped_ = pipe(told_);
    std::unique_ptr<kit::Attacker> attacker_;
};

TEST_F(Locked, StartsAndEndsAllTheSame) {
    std::filesystem::create_directory(logs_);
    kit::Latencies starts;
    starts.Measure(5, [this] {
        StartDaemon();
        return Answers() && daemon_->Stop() == 0;
    });
    EXPECT_EQ(starts.Failed(), 0);
    RecordProperty("longest_ms", std::to_string(starts.Longest().count()));
    StartDaemon(); // which the fixture ends
}

} // namespace
