// How the programs that serve start, refuse to, and end.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include "tests/host/programs.h"

namespace {

class Start : public kit::ProgramsTest {
protected:
    void ExpectRefusal(const std::string &line, int code, const std::string &text) const {
        const auto process = Shell(line);
        EXPECT_EQ(process->Wait(), code) << line;
        EXPECT_NE(process->Err().find(text), std::string::npos) << line << ": " << process->Err();
        EXPECT_EQ(Sockets(), std::set<std::string>()) << line;
    }
};

TEST_F(Start, BadArgumentsAreToldInALine) {
    ExpectRefusal(TARND " --run-dir $run --nonsense", 2,
                  "tarnd: The following argument was not expected: --nonsense (tarnd --help says more)\n");
    ExpectRefusal(TARND " --run-dir $run --log-level loud", 2,
                  "--log-level: found loud, expected debug, info, warning or error");
    ExpectRefusal(TARND " --run-dir $run --limit request=1", 2, "limit \"request\", expected NAME=VALUE with one of ");
    ExpectRefusal(TARND " --run-dir $run --limit requests=0", 2, "limit requests: \"0\", expected a number from 1 to ");
    ExpectRefusal(TARND " --run-dir ''", 2, "--run-dir: found nothing, expected a directory");
    ExpectRefusal(TARND " --run-dir $run --copy-target abc", 2, "--copy-target: \"abc\": expected NAME=DIR");
    ExpectRefusal(TARND " --run-dir $run --copy-target =dir", 2, "--copy-target: \"=dir\": expected NAME=DIR");
    ExpectRefusal(TARND " --run-dir $run --copy-target usb=", 2, "--copy-target: \"usb=\": expected NAME=DIR");
    ExpectRefusal(TARND " --run-dir $run --sample-interval 9", 2,
                  "--sample-interval: Value 9 not in range 10 to 60000");
    ExpectRefusal(TARND " --run-dir $run --workers 0", 2, "--workers: Value 0 not in range 1 to 256");
    ExpectRefusal(TARND " --run-dir $run more", 2, "The following argument was not expected: more");
    ExpectRefusal(TARN_MASTER " --run-dir $run", 2, "tarn-master: CONFIG is required (tarn-master --help says more)\n");
}

TEST_F(Start, TheAgentAndTheCommandLineTellBadArgumentsToo) {
    const std::string more = "tarn-agent: tarn-agent --help says more\n";
    ExpectRefusal(TARN_AGENT " --nonsense", 2, "unrecognized option '--nonsense'\n" + more);
    ExpectRefusal(TARN_AGENT " --name", 2, "option '--name' requires an argument\n" + more);
    ExpectRefusal(TARN_AGENT " more", 2, "tarn-agent: found more, expected an option\n" + more);
    for (const std::string &name : {std::string(), std::string(32, 'x')}) {
        ExpectRefusal(TARN_AGENT " --run-dir $run --name '" + name + "'", 2,
                      "tarn-agent: --name: found \"" + name + "\", expected a name of 1 to 31 bytes\n");
    }
    ExpectRefusal(TARNCTL " --nonsense", 2, "tarnctl: ");
    ExpectRefusal(TARNCTL " nonsense", 2, "tarnctl: found nonsense, expected a command: ps, top, stack, ");
    ExpectRefusal(TARNCTL " --run-dir $run services", 3, "/run: cannot look for services: No such file or directory\n");
    ExpectRefusal(TARNCTL " list >/dev/full", 1, "tarnctl: cannot write to standard output\n");
}

TEST_F(Start, BadFilesAreToldWithTheirLine) {
    const std::string policy = Write("policy", "reading anyone\n\nnonsense nobody\n");
    ExpectRefusal(TARND " --run-dir $run --policy " + policy, 1, policy + ":3: \"nonsense\", expected reading, ");
    const std::string config = Write("config", "[zone]\nname = UTC\noffset = x\n");
    ExpectRefusal(TARN_MASTER " --run-dir $run " + config, 1,
                  config + ":3: [zone] offset: the value is \"x\", expected");
    ExpectRefusal(TARN_MASTER " --check " + config, 1, config + ":3: ");
}

TEST_F(Start, FilesThatCannotBeReadAreNamed) {
    const std::string none = (dir_.Path() / "none").string(), directory = dir_.Path().string();
    ExpectRefusal(TARND " --run-dir $run --policy " + none, 1,
                  none + ": No such file or directory, expected a policy file\n");
    ExpectRefusal(TARND " --run-dir $run --policy " + directory, 1,
                  directory + ": it can't be read, expected a policy file\n");
    ExpectRefusal(TARN_MASTER " --run-dir $run " + none, 1,
                  none + ": No such file or directory, expected a configuration file\n");
    ExpectRefusal(TARN_MASTER " --run-dir $run " + directory, 1, directory + ": can't be read\n");
}

TEST_F(Start, AStateDirectoryThatCannotBeIsNamed) {
    const std::string file = Write("file", ""), config = Write("config", "");
    ExpectRefusal(TARND " --log-dir $log --run-dir $run --state-dir " + file, 1,
                  "tarnd: state directory " + file + ": Not a directory; make it for user ");
    ExpectRefusal(TARND " --log-dir $log --run-dir $run --state-dir /proc/none", 1,
                  "state directory /proc/none: No such file or directory; make it for user ");
    ExpectRefusal(TARN_MASTER " --run-dir $run --state-dir " + file + " " + config, 1,
                  "tarn-master: state directory " + file + ": Not a directory; make it for user ");
}

TEST_F(Start, ARunDirectoryThatCannotBeIsNamed) {
    const std::string file = Write("file", "");
    ExpectRefusal(TARND " --log-dir $log --run-dir " + file + "/run", 1,
                  "run directory " + file + "/run: Not a directory");
    ExpectRefusal(TARND " --log-dir $log --run-dir " + dir_.Path().string() + "/" + std::string(100, 'x'), 1,
                  "expected a socket path of at most 107");
    // Not even root makes a directory there.
    ExpectRefusal(TARND " --log-dir $log --run-dir /proc/none", 1,
                  "run directory /proc/none: No such file or directory");
    ExpectRefusal(TARN_MASTER " --run-dir /proc/none " + Write("config", ""), 1,
                  "run directory /proc/none: No such file or directory");
    ExpectRefusal(TARN_AGENT " --run-dir /proc/none", 1,
                  "tarn-agent: the agent does not start: No such file or directory\n");
}

TEST_F(Start, AMissingLogDirectoryIsMadeOrItsOptionIsNamed) {
    ExpectRefusal(
        TARND " --run-dir $run --log-dir /proc/none", 1,
        fmt::format("tarnd: log directory /proc/none: No such file or directory; make it for user {}, or name "
                    "another with --log-dir\n",
                    geteuid()));
    const auto daemon = Shell(TARND " --user '' --run-dir $run --log-dir $log/of/tarnd");
    ASSERT_TRUE(Serves()) << daemon->Err();
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(LogDir() / "of/tarnd").permissions(), perms(0750));
    EXPECT_EQ(daemon->Stop(), 0);
}

// The one that serves is not disturbed.
TEST_F(Start, ASecondServerOfARunDirectoryIsRefused) {
    const std::string config = Write("config", "");
    const auto daemon = Shell(TARND " --log-dir $log --run-dir $run"),
               master = Shell(TARN_MASTER " --run-dir $run " + config);
    ASSERT_TRUE(Serves()) << daemon->Err();
    ASSERT_TRUE(kit::Eventually([&] { return master->Err().find("serving in") != std::string::npos; }))
        << master->Err();
    const std::set<std::string> sockets = Sockets();
    for (const auto &[line, socket] :
         {std::pair(std::string(TARND " --log-dir $log --run-dir $run"), "/TarnSysdiagTarnd.sock"),
          std::pair(TARN_MASTER " --run-dir $run " + config, "/TarnSysdiagMaster.sock")}) {
        const auto second = Shell(line);
        EXPECT_EQ(second->Wait(), 1) << line;
        EXPECT_NE(
            second->Err().find(RunDir().string() + socket + ": in use by a live server: Address already in use\n"),
            std::string::npos)
            << second->Err();
    }
    EXPECT_EQ(Sockets(), sockets);
    EXPECT_TRUE(Answers());
    EXPECT_EQ(master->Stop(), 0);
    EXPECT_EQ(daemon->Stop(), 0);
}

// What is left of a daemon that was killed is in nobody's use.
TEST_F(Start, SocketsThatADeadServerLeftAreReplaced) {
    const auto daemon = Shell(TARND " --log-dir $log --run-dir $run");
    ASSERT_TRUE(Serves()) << daemon->Err();
    daemon->Signal(SIGKILL);
    EXPECT_EQ(daemon->Wait(), -1);
    EXPECT_TRUE(Sockets().contains("TarnSysdiagTarnd.sock"));
    const auto next = Shell(TARND " --log-dir $log --run-dir $run");
    ASSERT_TRUE(Serves()) << next->Err();
    EXPECT_EQ(next->Stop(), 0);
    EXPECT_EQ(Sockets(), std::set<std::string>());
}

// Of agents that were killed: before the daemon started, and while it serves.
TEST_F(Start, SocketsOfDeadAgentsAreRemoved) {
    const auto agent = [&](const std::string &name) { return Shell(TARN_AGENT " --run-dir $run --name " + name); };
    const auto socketOf = [](const kit::Process &process) { return fmt::format("agent-{}.sock", process.Pid()); };
    const auto early = agent("early");
    const std::string left = socketOf(*early);
    ASSERT_TRUE(kit::Eventually([&] { return Sockets().contains(left); })) << early->Err();
    early->Signal(SIGKILL);
    early->Wait();
    const auto daemon = Shell(TARND " --log-dir $log --run-dir $run");
    ASSERT_TRUE(Serves()) << daemon->Err();
    EXPECT_FALSE(Sockets().contains(left));

    const auto killed = agent("killed"), lives = agent("lives");
    const std::string killedsSocket = socketOf(*killed);
    for (const char *name : {"killed", "lives"}) {
        ASSERT_TRUE(kit::ComesToHave([&] { return daemon->Err(); }, fmt::format("agent {} of process", name)));
    }
    EXPECT_TRUE(Sockets().contains(killedsSocket));
    killed->Signal(SIGKILL);
    killed->Wait();
    EXPECT_TRUE(kit::Eventually([&] { return !Sockets().contains(killedsSocket); })) << daemon->Err();
    EXPECT_TRUE(Sockets().contains(socketOf(*lives)));
    EXPECT_EQ(daemon->Stop(), 0);
}

// Nobody, whom only root can become.
class StartOfAUser : public Start {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
        if (Shell(kNobody + ("test -x " TARND))->Wait() != 0) {
            GTEST_SKIP() << "nobody may not run " TARND;
        }
        ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    }
    static inline const std::string kNobody = "setpriv --reuid 65534 --regid 65534 --clear-groups ";
};

TEST_F(StartOfAUser, ARunDirectoryThatHeMayNotMakeIsNamed) {
    ExpectRefusal(kNobody + TARND " --log-dir / --run-dir $run", 1,
                  fmt::format("run directory {}: Permission denied; make it for user 65534, or name another with "
                              "--run-dir or TARN_RUN_DIR\n",
                              RunDir().string()));
}

TEST_F(StartOfAUser, WithoutDirectoriesOfHisOwnTheOptionsAreNamed) {
    if (std::filesystem::exists("/run/tarn") || std::filesystem::exists("/var/log/tarn")) {
        GTEST_SKIP() << "this machine has the system's directories";
    }
    const std::string alone = kNobody + "env -i ";
    ExpectRefusal(alone + TARND, 1,
                  "log directory /var/log/tarn: Permission denied; make it for user 65534, or name another with "
                  "--log-dir\n");
    ExpectRefusal(alone + TARND " --log-dir /", 1,
                  "run directory /run/tarn: Permission denied; make it for user 65534, or name another with --run-dir "
                  "or TARN_RUN_DIR\n");
}

TEST_F(StartOfAUser, HisOwnDirectoriesAreTaken) {
    if (std::filesystem::exists("/run/tarn") || std::filesystem::exists("/var/log/tarn")) {
        GTEST_SKIP() << "this machine has the system's directories";
    }
    const std::filesystem::path home = dir_.Path() / "home";
    std::filesystem::create_directory(home);
    ASSERT_EQ(chown(home.c_str(), 65534, 65534), 0);
    const auto daemon =
        Shell(kNobody + "env -i HOME=" + home.string() + " XDG_RUNTIME_DIR=" + home.string() + " " TARND);
    EXPECT_TRUE(kit::ComesToHave([&] { return daemon->Err(); }, "serving in " + home.string() + "/tarn\n"))
        << daemon->Err();
    EXPECT_TRUE(std::filesystem::exists(home / ".local/state/tarn/log"));
    EXPECT_EQ(daemon->Stop(), 0);
}

TEST_F(Start, EverySignalThatEndsItLeavesNoSockets) {
    for (const int signal : {SIGTERM, SIGINT}) {
        const auto daemon = Shell(TARND " --log-dir $log --run-dir $run");
        ASSERT_TRUE(Serves()) << daemon->Err();
        daemon->Signal(signal);
        EXPECT_EQ(daemon->Wait(), 0) << signal;
        EXPECT_EQ(Sockets(), std::set<std::string>()) << signal;
    }
}

// Its first files and sockets would become standard output and error, and get the log.
TEST_F(Start, WithoutDescriptorsKeepsTheFirstThreeFree) {
    const auto daemon = Shell(TARND " --log-dir $log --run-dir $run --state-dir $run.state <&- >&- 2>&-");
    ASSERT_TRUE(Serves());
    for (const char *fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon->Pid()) + "/fd/" + fd), "/dev/null");
    }
    EXPECT_EQ(daemon->Stop(), 0);
}

} // namespace
