// Sockets in a run directory: who may have it, and what others do to it.
#include "host/runtime/run_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "host/osal/directories.h"
#include "host/runtime/directory.h"
#include "host/runtime/transport.h"
#include "tests/host/error_of.h"
#include "tests/host/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using std::filesystem::path;

constexpr uid_t kOther = 65533;

class Umask {
public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    ~Umask() { umask(before_); }

private:
    const mode_t before_;
};

mode_t ModeOf(const path &file) {
    struct stat status {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

uid_t OwnerOf(const path &file) {
    struct stat status {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
    return status.st_uid;
}

// Of the environment, while it lives.
class Variable {
public:
    Variable(const char *name, const char *value) : name_(name), had_(getenv(name) != nullptr) {
        before_ = had_ ? getenv(name) : "";
        value == nullptr ? unsetenv(name) : setenv(name, value, 1);
    }
    ~Variable() { had_ ? setenv(name_, before_.c_str(), 1) : unsetenv(name_); }

private:
    const char *const name_;
    const bool had_;
    std::string before_;
};

std::string RefusalOf(const std::function<void()> &action) {
    try {
        action();
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

sockaddr_un AddressOf(const path &socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.string().copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// 0, or why nobody takes the connection.
int Connect(const path &socketPath) {
    const sockaddr_un address = AddressOf(socketPath);
    const host::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(fd.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

host::Descriptor Bind(const path &socketPath) {
    const sockaddr_un address = AddressOf(socketPath);
    host::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(fd.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return fd;
}

// What a child that is another user does, where the tests run as root.
void AsOther(const std::function<bool()> &action) {
    const pid_t child = fork();
    if (child == 0) {
        bool done = false;
        EXPECT_EQ(RefusalOf([&] {
                      done =
                          setresgid(kOther, kOther, kOther) == 0 && setresuid(kOther, kOther, kOther) == 0 && action();
                  }),
                  "");
        _exit(done ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
}

class RunDirectoryTest : public testing::Test {
protected:
    path RunDir() const { return dir_.Path() / "run"; }
    path SocketPath(const std::string &name = "a.sock") const { return RunDir() / name; }
    void Make(mode_t mode, uid_t owner = geteuid()) const {
        ASSERT_FALSE(host::MakeDirectories(RunDir(), mode));
        ASSERT_EQ(chown(RunDir().c_str(), owner, static_cast<gid_t>(-1)), 0);
    }

    const kit::TempDir dir_;
};

// Others can come as far as the run directory.
class RunDirectoryAsRootTest : public RunDirectoryTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: the files are another user's";
        }
        ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    }
};

TEST_F(RunDirectoryTest, ModesDoNotDependOnTheUmask) {
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const kit::TempDir fresh;
        const path run = fresh.Path() / "on/the/way/run";
        const Umask set(mask);
        const host::Listener toAll(run / "all.sock", true), own(run / "own.sock", false);
        EXPECT_EQ(ModeOf(fresh.Path() / "on/the"), 0755) << mask;
        EXPECT_EQ(ModeOf(run), 0755) << mask;
        EXPECT_EQ(ModeOf(run / "all.sock"), 0666) << mask;
        EXPECT_EQ(ModeOf(run / "own.sock"), 0600) << mask;
        EXPECT_EQ(ModeOf(run / host::LockFile::kName), 0600) << mask;
        EXPECT_EQ(Connect(run / "all.sock"), 0) << mask;
    }
}

TEST_F(RunDirectoryTest, IsRefusedWhereOthersCanReplaceWhatIsInIt) {
    for (const mode_t mode : {0777U, 0775U, 0722U}) {
        Make(0755);
        ASSERT_EQ(chmod(RunDir().c_str(), mode), 0);
        EXPECT_NE(RefusalOf([&] {
                      host::Listener(SocketPath(), true);
                  }).find(fmt::format("{} has mode {:o}, expected 0755, or 1777", RunDir().string(), mode)),
                  std::string::npos);
        EXPECT_FALSE(std::filesystem::exists(SocketPath()));
    }
    ASSERT_EQ(chmod(RunDir().c_str(), 01777), 0);
    EXPECT_EQ(RefusalOf([&] { host::Listener(SocketPath(), true); }), "");
}

TEST_F(RunDirectoryTest, LeavesNothingButSocketsAndTheLock) {
    const host::Listener listener(SocketPath(), true);
    size_t entries = 0;
    for (const auto &entry : std::filesystem::directory_iterator(RunDir())) {
        entries += entry.path().filename() != host::LockFile::kName;
    }
    EXPECT_EQ(entries, 1);
}

// Whoever sees a socket can connect.
TEST_F(RunDirectoryTest, ASocketIsNeverSeenBeforeItListens) {
    constexpr size_t kSockets = 200;
    Make(0755);
    std::atomic<size_t> refused = 0;
    std::thread client([&] {
        for (size_t i = 0; i < kSockets; ++i) {
            int error = ENOENT;
            while (error == ENOENT) {
                error = Connect(SocketPath(std::to_string(i)));
            }
            refused += error != 0;
        }
    });
    std::vector<std::unique_ptr<host::Listener>> listeners;
    for (size_t i = 0; i < kSockets; ++i) {
        listeners.push_back(std::make_unique<host::Listener>(SocketPath(std::to_string(i)), true));
    }
    client.join();
    EXPECT_EQ(refused, 0);
}

// Each round leaves a socket of a dead server, for which several start at once.
TEST_F(RunDirectoryTest, OneOfManyTakesOverWhatADeadServerLeft) {
    constexpr int kServers = 6;
    for (int round = 0; round < 10; ++round) {
        std::filesystem::remove_all(RunDir());
        Make(0755);
        Bind(SocketPath());
        int ready[2], held[2];
        ASSERT_EQ(pipe(ready), 0);
        ASSERT_EQ(pipe(held), 0);
        std::vector<pid_t> children;
        for (int i = 0; i < kServers; ++i) {
            children.push_back(fork());
            if (children.back() == 0) {
                close(held[1]);
                std::optional<host::Listener> listener;
                const bool serves = RefusalOf([&] { listener.emplace(SocketPath(), true); }).empty();
                char end = serves ? 'y' : 'n';
                (void)!write(ready[1], &end, 1);
                (void)!read(held[0], &end, 1); // until the parent has seen all
                _exit(0);
            }
        }
        int serving = 0;
        for (int i = 0; i < kServers; ++i) {
            char answer = 0;
            ASSERT_EQ(read(ready[0], &answer, 1), 1);
            serving += answer == 'y';
        }
        EXPECT_EQ(serving, 1);
        EXPECT_EQ(Connect(SocketPath()), 0);
        for (const int fd : {ready[0], ready[1], held[0], held[1]}) {
            close(fd);
        }
        for (const pid_t child : children) {
            waitpid(child, nullptr, 0);
        }
    }
}

// Everybody who can read a directory can lock it.
TEST_F(RunDirectoryTest, ALockOfTheDirectoryItselfDelaysNobody) {
    Make(0755);
    const host::Descriptor directory(open(RunDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(directory.Fd(), LOCK_EX), 0);
    EXPECT_EQ(RefusalOf([&] { host::Listener(SocketPath(), false); }), "");
}

TEST_F(RunDirectoryTest, TheLockIsWaitedForWithinABound) {
    Make(0755);
    const host::Descriptor directory(open(RunDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    {
        const host::LockFile first(directory, RunDir(), 0ms);
        const auto second = [&] { host::LockFile(directory, RunDir(), 20ms); };
        EXPECT_EQ(kit::ErrorOf(second), EBUSY);
        EXPECT_EQ(kit::ReasonOf(second), fmt::format("{} is locked by process {}", RunDir().string(), getpid()));
    }
    EXPECT_EQ(kit::ErrorOf([&] { host::LockFile(directory, RunDir(), 0ms); }), 0);
}

// A child has all that was open when it was forked.
TEST_F(RunDirectoryTest, TheLockEndsAlsoWhereAChildWasForkedMeanwhile) {
    Make(0755);
    const host::Descriptor directory(open(RunDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    pid_t child = -1;
    {
        const host::LockFile lock(directory, RunDir(), 0ms);
        child = fork();
        if (child == 0) {
            pause();
            _exit(0);
        }
    }
    EXPECT_EQ(kit::ErrorOf([&] { host::LockFile(directory, RunDir(), 0ms); }), 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(RunDirectoryTest, TheLockFollowsNoLinkAndIsNobodyElses) {
    Make(0755);
    const host::Descriptor directory(open(RunDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const path file = RunDir() / host::LockFile::kName, target = dir_.Path() / "target";
    std::filesystem::create_symlink(target, file);
    EXPECT_EQ(kit::ErrorOf([&] { host::LockFile(directory, RunDir(), 0ms); }), 0);
    EXPECT_FALSE(std::filesystem::exists(target));
    ASSERT_EQ(chmod(file.c_str(), 0644), 0); // others may have it open by now
    const host::Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(opened.Fd(), LOCK_EX), 0);
    EXPECT_EQ(kit::ErrorOf([&] { host::LockFile(directory, RunDir(), 0ms); }), 0);
    EXPECT_EQ(ModeOf(file), 0600);
    std::filesystem::remove(file);
    std::filesystem::create_directories(file / "full");
    EXPECT_EQ(kit::ErrorOf([&] { host::LockFile(directory, RunDir(), 0ms); }), 0);
}

TEST_F(RunDirectoryTest, SocketsOfDeadAgentsAreRemovedAndNoOthers) {
    Make(0755);
    const std::vector<std::string> dead = {"agent-1.sock", "agent-2-0123456789abcdef.sock"};
    const std::vector<std::string> others = {"agent-3.sock", "agent-4-0123456789abcdef.sock", "TarnSysdiagTarnd.sock",
                                             "agent-5.sock"};
    for (const std::string &name : {dead[0], dead[1], others[2]}) {
        Bind(SocketPath(name)); // and close
    }
    const host::Listener live(SocketPath(others[0]), true), spare(SocketPath(others[1]), false);
    std::ofstream(SocketPath(others[3])) << "no socket";
    host::Transport(host::Directory(RunDir())).RemoveDeadAgents();
    std::set<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator(RunDir())) {
        left.insert(entry.path().filename());
    }
    std::set<std::string> expected(others.begin(), others.end());
    expected.insert(host::LockFile::kName);
    EXPECT_EQ(left, expected);
    EXPECT_EQ(Connect(SocketPath(others[0])), 0);
}

TEST_F(RunDirectoryTest, AnAgentThatTakesNoMoreConnectionsIsNotDead) {
    Make(0755);
    const host::Descriptor busy = Bind(SocketPath("agent-1.sock"));
    ASSERT_EQ(listen(busy.Fd(), 0), 0);
    const sockaddr_un address = AddressOf(SocketPath("agent-1.sock"));
    std::vector<host::Descriptor> waiting;
    do {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (connect(waiting.back().Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    ASSERT_EQ(errno, EAGAIN);
    host::Transport(host::Directory(RunDir())).RemoveDeadAgents();
    EXPECT_TRUE(std::filesystem::exists(SocketPath("agent-1.sock")));
}

TEST_F(RunDirectoryAsRootTest, WhoDoesNotOwnItRemovesNoDeadAgents) {
    Make(01777);
    AsOther([&] {
        Bind(SocketPath("agent-1.sock"));
        host::Transport(host::Directory(RunDir())).RemoveDeadAgents();
        return std::filesystem::exists(SocketPath("agent-1.sock"));
    });
    host::Transport(host::Directory(RunDir())).RemoveDeadAgents();
    EXPECT_FALSE(std::filesystem::exists(SocketPath("agent-1.sock"))) << "the owner does";
}

TEST_F(RunDirectoryAsRootTest, IsRefusedWhereAnotherUserOwnsIt) {
    Make(0755, kOther);
    EXPECT_NE(RefusalOf([&] {
                  host::Listener(SocketPath(), true);
              }).find(fmt::format("run directory {} belongs to user {}, expected", RunDir().string(), kOther)),
              std::string::npos);
    ASSERT_EQ(setenv("TARN_USER", std::to_string(kOther).c_str(), 1), 0);
    EXPECT_EQ(RefusalOf([&] { host::Listener(SocketPath(), true); }), "");
    EXPECT_EQ(unsetenv("TARN_USER"), 0);
    EXPECT_EQ(OwnerOf(RunDir() / host::LockFile::kName), kOther); // who could not lock it otherwise
}

TEST_F(RunDirectoryAsRootTest, TheLockOfAnotherUserDelaysNobody) {
    Make(01777);
    const path file = RunDir() / host::LockFile::kName;
    AsOther([&] { return open(file.c_str(), O_RDWR | O_CREAT, 0666) >= 0; });
    const host::Descriptor held(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(held.Fd(), LOCK_EX), 0);
    EXPECT_EQ(RefusalOf([&] { host::Listener(SocketPath(), true); }), "");
    EXPECT_EQ(OwnerOf(file), 0);
    EXPECT_EQ(ModeOf(file), 0600);
}

// A name that others can take in a directory for all is no way to stop the daemon.
TEST_F(RunDirectoryAsRootTest, WhatAnotherUserPutInTheWayIsRemoved) {
    Make(01777);
    const host::Descriptor live = Bind(SocketPath());
    ASSERT_EQ(listen(live.Fd(), 1), 0);
    ASSERT_EQ(lchown(SocketPath().c_str(), kOther, kOther), 0);
    AsOther([&] { return std::filesystem::create_directories(SocketPath("b.sock") / "full"); });
    for (const char *name : {"a.sock", "b.sock"}) {
        const host::Listener listener(SocketPath(name), true);
        EXPECT_EQ(OwnerOf(SocketPath(name)), 0);
        EXPECT_EQ(Connect(SocketPath(name)), 0);
    }
}

TEST_F(RunDirectoryAsRootTest, AUserOfADirectoryForAllNeedsNoLockOfIt) {
    Make(01777);
    const host::Descriptor directory(open(RunDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const host::LockFile roots(directory, RunDir(), 0ms);
    AsOther([&] { return RefusalOf([&] { host::Listener(SocketPath(), true); }).empty(); });
}

TEST(FaultDirectory, OutlivesTheMachineUnlessTheRunDirectoryWasChosen) {
    const Variable named("TARN_FAULT_DIR", nullptr), runtime("XDG_RUNTIME_DIR", "/run/user/7"), home("HOME", "/home/u"),
        state("XDG_STATE_HOME", nullptr);
    EXPECT_EQ(host::FaultDir("/run/tarn"), "/var/lib/tarn-faults");
    EXPECT_EQ(host::FaultDir("/run/user/7/tarn"), "/home/u/.local/state/tarn-faults");
    EXPECT_EQ(host::FaultDir("/tmp/chosen"), "/tmp/chosen");
    {
        const Variable other("XDG_STATE_HOME", "/home/u/state");
        EXPECT_EQ(host::FaultDir("/run/user/7/tarn"), "/home/u/state/tarn-faults");
    }
    const Variable other("TARN_FAULT_DIR", "/faults");
    EXPECT_EQ(host::FaultDir("/run/tarn"), "/faults");
    EXPECT_EQ(host::FaultDir("/tmp/chosen"), "/faults");
}

} // namespace
