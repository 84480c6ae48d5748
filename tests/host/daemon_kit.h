// What the tests of the daemon share: tarnd run as a program, a process for it to look at, and calls. As for kit.h, a
// test file makes a unit before it includes this.
#pragma once

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cinttypes>
#include <map>

#include "tests/host/kit.h"

namespace kit {

// Calls the daemon through a unit's codecs.
template <class Unit>
class DaemonTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(logs_);
        StartDaemon();
    }

    // What a test's daemon is told besides its directories.
    virtual std::vector<std::string> Options() const { return {}; }
    virtual const char *LogLevel() const { return "debug"; }

    // `before` are a command and its arguments that start the daemon's.
    void StartDaemon(const std::vector<std::string> &before = {}) {
        std::vector<std::string> command = before;
        for (const std::vector<std::string> &more :
             {std::vector<std::string>{TARND, "--run-dir", dir_.Path(), "--log-dir", logs_, "--log-level", LogLevel(),
                                       "--print-accounting"},
              Options()}) {
            command.insert(command.end(), more.begin(), more.end());
        }
        daemon_ = std::make_unique<Process>(dir_.Path(), command);
        ASSERT_TRUE(Eventually([&] { return daemon_->Err().find("serving in") != std::string::npos; }))
            << daemon_->Err();
    }

    // Every test ends here: the daemon goes when told to, with nothing left allocated.
    void TearDown() override {
        if (daemon_ != nullptr) {
            EXPECT_EQ(daemon_->Stop(), 0) << daemon_->Err();
            const std::string out = daemon_->Out();
            uint64_t blocks = 1, bytes = 1;
            ASSERT_EQ(sscanf(out.c_str() + std::min(out.find("\ntotal "), out.size()), "\ntotal %" SCNu64 " %" SCNu64,
                             &blocks, &bytes),
                      2)
                << out;
            EXPECT_EQ(blocks, 0) << out;
            EXPECT_EQ(bytes, 0) << out;
        }
    }

    template <class Response, class Request>
    Answer<Unit, Response> Call(const char *method, const Request &request) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagTarnd", 0, method, request);
    }

    bool Logged(const std::string &text) {
        return Eventually([&] { return daemon_->Err().find(text) != std::string::npos; });
    }

    const TempDir dir_;
    const std::filesystem::path logs_ = dir_.Path() / "logs";
    host::Client client_{{.runDir = dir_.Path()}};
    std::unique_ptr<Process> daemon_;
};

// A daemon without rights: nobody's, where the tests run as root.
template <class Test>
class Denied : public Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(this->logs_);
        if (geteuid() != 0) {
            this->StartDaemon();
            return;
        }
        std::vector<std::string> test = kAsNobody;
        test.insert(test.end(), {"/usr/bin/test", "-x", TARND});
        if (Process(this->dir_.Path(), test).Wait() != 0) {
            GTEST_SKIP() << "nobody may not run " << TARND;
        }
        for (const std::filesystem::path &directory : {this->dir_.Path(), this->logs_}) {
            ASSERT_EQ(chown(directory.c_str(), kNobody, kNobody), 0);
        }
        this->StartDaemon(kAsNobody);
    }

    static constexpr uid_t kNobody = 65534;
    const std::vector<std::string> kAsNobody{
        "/usr/bin/setpriv", "--reuid", std::to_string(kNobody), "--regid", std::to_string(kNobody), "--clear-groups"};
};

// The threads that the subject says it has.
class Subject : public Process {
public:
    explicit Subject(const TempDir &dir) : Subject(dir, std::vector<std::string>{SUBJECT}, 2) {
        // Its burner runs whatever else the machine does, where that is allowed.
        burnerNice = setpriority(PRIO_PROCESS, tids["burner"], -15) == 0 ? -15 : 0;
    }
    Subject(const TempDir &dir, const char *mode, size_t threadNum) : Subject(dir, {SUBJECT, mode}, threadNum) {}
    Subject(const TempDir &dir, size_t burnerNum, size_t blockedNum = 0)
        : Subject(dir, {SUBJECT, std::to_string(burnerNum), std::to_string(blockedNum)}, burnerNum + blockedNum + 1) {}
    std::map<std::string, uint32_t> tids;
    int burnerNice = 0;

private:
    Subject(const TempDir &dir, std::vector<std::string> command, size_t threadNum)
        : Process(dir.Path(), std::move(command)) {
        EXPECT_TRUE(Eventually([&] {
            std::istringstream out(Out());
            std::string name;
            for (uint32_t tid = 0; out >> name >> tid;) {
                tids[name] = tid;
            }
            return tids.size() == threadNum;
        }));
    }
};

// CPU time that a process has used.
class CpuClock {
public:
    explicit CpuClock(uint32_t pid) { EXPECT_EQ(clock_getcpuclockid(static_cast<pid_t>(pid), &clock_), 0); }
    std::chrono::nanoseconds Used() const {
        timespec time{};
        clock_gettime(clock_, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

private:
    clockid_t clock_;
};

// A pid that was a process's and is none's now.
inline uint32_t EndedPid() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return static_cast<uint32_t>(pid);
}

} // namespace kit
