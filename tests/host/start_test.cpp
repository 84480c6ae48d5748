// How the programs that serve start, refuse to, and end.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <set>

#include "host/runtime/status.h"
#include "tests/host/kit.h"

namespace {

class Start : public testing::Test {
protected:
    // A shell's command line; "$run" is a directory for sockets.
    std::unique_ptr<kit::Process> Shell(const std::string &line) const {
        return std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{"/bin/sh", "-c", "run=" + RunDir().string() + "; exec " + line});
    }
    void ExpectRefusal(const std::string &line, int code, const std::string &text) const {
        const auto process = Shell(line);
        EXPECT_EQ(process->Wait(), code) << line;
        EXPECT_NE(process->Err().find(text), std::string::npos) << line << ": " << process->Err();
        EXPECT_FALSE(std::filesystem::exists(RunDir())) << line;
    }
    bool Answers() const {
        host::Client client({.runDir = RunDir()});
        host::ServerHealth health;
        return AskHealth(client, "TarnSysdiagTarnd", 0, health).Ok();
    }
    bool Serves() const {
        return kit::Eventually([this] { return Answers(); });
    }
    std::set<std::string> Sockets() const {
        std::set<std::string> names;
        std::error_code none;
        for (const auto &entry : std::filesystem::directory_iterator(RunDir(), none)) {
            if (entry.path().extension() == ".sock") {
                names.insert(entry.path().filename());
            }
        }
        return names;
    }
    std::filesystem::path RunDir() const { return dir_.Path() / "run"; }
    std::string Write(const std::string &name, const std::string &content) const {
        std::ofstream(dir_.Path() / name) << content;
        return (dir_.Path() / name).string();
    }

    const kit::TempDir dir_;
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
    ExpectRefusal(TARNCTL " nonsense", 2, "tarnctl: found nonsense, expected a command: list, describe, call, ");
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
    ExpectRefusal(TARND " --run-dir $run --state-dir " + file, 1, "tarnd: " + file + ": Not a directory\n");
    ExpectRefusal(TARND " --run-dir $run --state-dir /proc/none", 1, "tarnd: /proc/none: No such file or directory\n");
    ExpectRefusal(TARN_MASTER " --run-dir $run --state-dir " + file + " " + config, 1,
                  "tarn-master: " + file + ": Not a directory\n");
}

TEST_F(Start, ARunDirectoryThatCannotBeIsNamed) {
    const std::string file = Write("file", "");
    ExpectRefusal(TARND " --run-dir " + file + "/run", 1, "run directory " + file + "/run: Not a directory");
    ExpectRefusal(TARND " --run-dir " + dir_.Path().string() + "/" + std::string(100, 'x'), 1,
                  "expected a socket path of at most 107");
    // Not even root makes a directory there.
    ExpectRefusal(TARND " --run-dir /proc/none", 1, "run directory /proc/none: No such file or directory");
    ExpectRefusal(TARN_MASTER " --run-dir /proc/none " + Write("config", ""), 1,
                  "run directory /proc/none: No such file or directory");
    ExpectRefusal(TARN_AGENT " --run-dir /proc/none", 1,
                  "tarn-agent: the agent does not start: No such file or directory\n");
}

// The one that serves is not disturbed.
TEST_F(Start, ASecondServerOfARunDirectoryIsRefused) {
    const std::string config = Write("config", "");
    const auto daemon = Shell(TARND " --run-dir $run"), master = Shell(TARN_MASTER " --run-dir $run " + config);
    ASSERT_TRUE(Serves()) << daemon->Err();
    ASSERT_TRUE(kit::Eventually([&] { return master->Err().find("serving in") != std::string::npos; }))
        << master->Err();
    const std::set<std::string> sockets = Sockets();
    for (const auto &[line, socket] : {std::pair(std::string(TARND " --run-dir $run"), "/TarnSysdiagTarnd.sock"),
                                       std::pair(TARN_MASTER " --run-dir $run " + config, "/TarnSysdiagMaster.sock")}) {
        const auto second = Shell(line);
        EXPECT_EQ(second->Wait(), 1) << line;
        EXPECT_NE(second->Err().find(RunDir().string() + socket + ": in use by a live server\n"), std::string::npos)
            << second->Err();
    }
    EXPECT_EQ(Sockets(), sockets);
    EXPECT_TRUE(Answers());
    EXPECT_EQ(master->Stop(), 0);
    EXPECT_EQ(daemon->Stop(), 0);
}

// What is left of a daemon that was killed is in nobody's use.
TEST_F(Start, SocketsThatADeadServerLeftAreReplaced) {
    const auto daemon = Shell(TARND " --run-dir $run");
    ASSERT_TRUE(Serves()) << daemon->Err();
    daemon->Signal(SIGKILL);
    EXPECT_EQ(daemon->Wait(), -1);
    EXPECT_TRUE(Sockets().contains("TarnSysdiagTarnd.sock"));
    const auto next = Shell(TARND " --run-dir $run");
    ASSERT_TRUE(Serves()) << next->Err();
    EXPECT_EQ(next->Stop(), 0);
    EXPECT_EQ(Sockets(), std::set<std::string>());
}

TEST_F(Start, ARunDirectoryThatTheUserMayNotWriteIsNamed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    if (Shell("setpriv --reuid 65534 --regid 65534 --clear-groups test -x " TARND)->Wait() != 0) {
        GTEST_SKIP() << "nobody may not run " TARND;
    }
    ExpectRefusal("setpriv --reuid 65534 --regid 65534 --clear-groups " TARND " --run-dir $run", 1,
                  "run directory " + RunDir().string() + ": Permission denied");
}

TEST_F(Start, EverySignalThatEndsItLeavesNoSockets) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const auto daemon = Shell(TARND " --run-dir $run");
        ASSERT_TRUE(Serves()) << daemon->Err();
        daemon->Signal(signal);
        EXPECT_EQ(daemon->Wait(), 0) << signal;
        EXPECT_EQ(Sockets(), std::set<std::string>()) << signal;
    }
}

TEST_F(Start, OutlivesItsTerminalUnderNohup) {
    const auto daemon = Shell("nohup " TARND " --run-dir $run");
    ASSERT_TRUE(Serves()) << daemon->Err();
    daemon->Signal(SIGHUP);
    EXPECT_TRUE(Answers());
    EXPECT_EQ(daemon->Stop(), 0);
}

// Its first files and sockets would become standard output and error, and get the log.
TEST_F(Start, WithoutDescriptorsKeepsTheFirstThreeFree) {
    const auto daemon = Shell(TARND " --run-dir $run --state-dir $run.state <&- >&- 2>&-");
    ASSERT_TRUE(Serves());
    for (const char *fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon->Pid()) + "/fd/" + fd), "/dev/null");
    }
    EXPECT_EQ(daemon->Stop(), 0);
}

} // namespace
