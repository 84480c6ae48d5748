// How the programs that serve start, refuse to, and end.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

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
            names.insert(entry.path().filename());
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
    ExpectRefusal(TARN_MASTER " --run-dir $run", 2, "tarn-master: CONFIG is required (tarn-master --help says more)\n");
}

TEST_F(Start, BadFilesAreToldWithTheirLine) {
    const std::string policy = Write("policy", "reading anyone\n\nnonsense nobody\n");
    ExpectRefusal(TARND " --run-dir $run --policy " + policy, 1, policy + ":3: \"nonsense\", expected reading, ");
    const std::string config = Write("config", "[zone]\nname = UTC\noffset = x\n");
    ExpectRefusal(TARN_MASTER " --run-dir $run " + config, 1,
                  config + ":3: [zone] offset: the value is \"x\", expected");
}

TEST_F(Start, ARunDirectoryThatCannotBeIsNamed) {
    const std::string file = Write("file", "");
    ExpectRefusal(TARND " --run-dir " + file + "/run", 1, "run directory " + file + "/run: Not a directory");
    ExpectRefusal(TARND " --run-dir " + dir_.Path().string() + "/" + std::string(100, 'x'), 1,
                  "expected a socket path of at most 107");
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
