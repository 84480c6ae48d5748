// tarnctl on another machine, which is this one by way of a server for ssh.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include "tests/host/on_terminal.h"
#include "tests/host/tasks_kit.h"

namespace {

using namespace kit;

// A port that nobody has at the moment.
uint16_t FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}

class AtHost : public Tasks {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(Tasks::SetUp());
        if (geteuid() != 0 || !Does("unshare -m true")) {
            GTEST_SKIP() << "no rights for a server that lets somebody in";
        }
        ASSERT_TRUE(Does("ssh-keygen -q -t ed25519 -N '' -f key && cp key.pub authorized && chmod 600 authorized"));
        Write("sshd_config", fmt::format("Port {}\nListenAddress 127.0.0.1\nHostKey {}\nAuthorizedKeysFile {}\n"
                                         "StrictModes no\nUsePAM no\nPermitRootLogin yes\nPidFile none\n"
                                         "SetEnv PATH={}:/usr/bin:/bin TARN_RUN_DIR={}\n",
                                         port_, File("key"), File("authorized"),
                                         std::filesystem::path(TARNCTL).parent_path().string(), dir_.Path().string()));
        Write("ssh", fmt::format("#!/bin/sh\nexec ssh -F none -i {} -o StrictHostKeyChecking=no "
                                 "-o UserKnownHostsFile=/dev/null -o LogLevel=ERROR -o BatchMode=yes \"$@\"\n",
                                 File("key")));
        ASSERT_TRUE(Does("chmod 700 ssh"));
        setenv("TARN_SSH", File("ssh").c_str(), 1);
        // in a /run of its own, where the server wants a directory
        const std::string start = fmt::format(
            "mount -t tmpfs none /run && mkdir /run/sshd && exec /usr/sbin/sshd -D -e -f {}", File("sshd_config"));
        server_ = std::make_unique<Process>(dir_.Path(),
                                            std::vector<std::string>{"/usr/bin/unshare", "-m", "/bin/sh", "-c", start});
        const std::string greet = fmt::format("./ssh -p {} 127.0.0.1 true", port_);
        if (!Eventually([&] { return server_->Err().find("listening on") != std::string::npos; }) || !Does(greet)) {
            GTEST_SKIP() << "no server for ssh lets anybody in here: " << server_->Err();
        }
    }

    std::string File(const char *name) const { return dir_.Path() / name; }
    void Write(const char *name, const std::string &text) const { std::ofstream(File(name)) << text; }
    bool Does(const std::string &line) const {
        return Process(dir_.Path(), {"/bin/sh", "-c", fmt::format("cd {}; {}", dir_.Path().string(), line)}).Wait() ==
               0;
    }
    // tarnctl here, which knows no run directory of its own.
    int RunThere(const std::string &arguments) {
        Process tarnctl(dir_.Path(), {"/bin/sh", "-c",
                                      fmt::format("cd {}; exec env -u TARN_RUN_DIR {} -H 127.0.0.1:{} {}",
                                                  dir_.Path().string(), TARNCTL, port_, arguments)});
        const int code = tarnctl.Wait();
        out_ = tarnctl.Out();
        error_ = tarnctl.Err();
        return code;
    }

    // Whether a tarnctl with that command asks this test's daemon, by way of the server.
    bool RunsThere(const std::string &command) const {
        const std::string line = std::string("tarnctl") + '\0' + command;
        const std::string variable = "TARN_RUN_DIR=" + dir_.Path().string();
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            if (TextOfFile(entry.path() / "cmdline").starts_with(line) &&
                TextOfFile(entry.path() / "environ").find(variable) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    const uint16_t port_ = FreePort();
    std::unique_ptr<Process> server_;
};

TEST_F(AtHost, TasksRunThere) {
    EXPECT_EQ(RunThere("ps 1"), 0) << error_;
    EXPECT_EQ(RunThere("call PidIsOnline process=1 --json=named"), 0) << error_;
    EXPECT_EQ(Json::parse(out_), (Json{{"process", 1}, {"online", true}}));
    EXPECT_EQ(RunThere("describe 'it'\"'\"'s'"), 2) << "a word stays one, whatever is in it";
    EXPECT_THAT(error_, testing::StartsWith("tarnctl: it's: no such method or type"));
}

TEST_F(AtHost, WhatIsCollectedComesHere) {
    EXPECT_EQ(RunThere("--quiet collect -o there.tar.gz"), 0) << error_;
    EXPECT_EQ(out_, "there.tar.gz\n");
    EXPECT_TRUE(Does("tar tzf there.tar.gz | grep -q processes.json"));
    EXPECT_EQ(RunThere("--quiet collect -o there.tar.gz --json"), 0) << error_;
    EXPECT_EQ(Json::parse(out_), (Json{{"file", "there.tar.gz"}, {"missing", Json::array()}}));
    EXPECT_FALSE(std::filesystem::exists(File("there.tar.gz.part")));
}

// The other end has no terminal: it notices that nobody reads any more.
TEST_F(AtHost, AnInterruptedCollectionLeavesNothingAtEitherEnd) {
    daemon_->Signal(SIGSTOP);
    OnTerminal collect({"/usr/bin/env", "-u", "TARN_RUN_DIR", TARNCTL, "-H", fmt::format("127.0.0.1:{}", port_),
                        "collect", "-o", File("there.tar.gz")},
                       {24, 80, 0, 0});
    ASSERT_TRUE(Eventually([&] { return RunsThere("collect"); })) << collect.Output();
    EXPECT_TRUE(std::filesystem::exists(File("there.tar.gz.part")));
    collect.Press("\003");
    EXPECT_EQ(collect.Wait(), -SIGINT);
    EXPECT_THAT(collect.Output(), testing::HasSubstr("tarnctl: interrupted"));
    EXPECT_FALSE(std::filesystem::exists(File("there.tar.gz.part")));
    EXPECT_FALSE(std::filesystem::exists(File("there.tar.gz")));
    EXPECT_TRUE(Eventually([&] { return !RunsThere("collect"); })) << "so that the daemon knows";
    daemon_->Signal(SIGCONT);
}

TEST_F(AtHost, NoConnectionIsAConnectionError) {
    server_->Stop();
    EXPECT_EQ(RunThere("collect -o there.tar.gz"), 3);
    EXPECT_FALSE(std::filesystem::exists(File("there.tar.gz")));
}

// Where there is no other machine to be asked.
TEST_F(Tasks, AHostStandsBeforeTheCommand) {
    ExpectFailure(2, "ps -H somewhere", "--host: expected before the command");
    ExpectFailure(2, "list --host somewhere", "--host: expected before the command");
    EXPECT_EQ(out_, "") << "nothing is done here";
    ExpectFailure(2, "-H '' list", "--host: found nothing, expected a machine");
    setenv("TARN_SSH", "/bin/echo", 1);
    for (const char *option : {"-H somewhere", "-Hsomewhere", "--host somewhere", "--host=somewhere"}) {
        EXPECT_EQ(Out(option + std::string(" ps 1")),
                  fmt::format("-x -T -- somewhere tarnctl '--run-dir' '{}' 'ps' '1'\n", dir_.Path().string()));
    }
    unsetenv("TARN_SSH");
}

} // namespace
