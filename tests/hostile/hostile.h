// What the tests of attacks share: a daemon run by root in a directory that everybody can reach, and attackers: code
// run with another user's rights. As for kit.h, a test file makes a unit before it includes this.
#pragma once

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "tests/host/daemon_kit.h"

namespace kit {

constexpr uid_t kAttacker = 65534;
constexpr uid_t kSecondAttacker = 65533;
// The mode of a run directory that has agents of all users.
constexpr mode_t kForAll = 01777;
// What an attack returns when it had no effect because of what it could not set up.
constexpr int kNotTried = 77;

// An attack under way, in a process of its own with no rights but its user's. It is killed at the end at the latest.
class Attacker {
public:
    explicit Attacker(const std::function<int()> &attack, uid_t user = kAttacker) : pid_(fork()) {
        if (pid_ != 0) {
            EXPECT_GT(pid_, 0);
            return;
        }
        int result = 99;
        try {
            if (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0) {
                result = attack();
            }
        } catch (const std::exception &error) {
            fprintf(stderr, "attacker: %s\n", error.what());
        }
        _exit(result);
    }
    ~Attacker() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Attacker(const Attacker &) = delete;
    Attacker &operator=(const Attacker &) = delete;

    uint32_t Pid() const { return static_cast<uint32_t>(pid_); }

    // What the attack returned; 99 when it threw or could not become the user, -1 after a signal.
    int Wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_;
};

// How long calls took that an attack must not harm, and how many failed.
class Latencies {
public:
    template <class Calling>
    void Measure(size_t count, const Calling &call) {
        for (size_t i = 0; i < count; ++i) {
            const auto begin = std::chrono::steady_clock::now();
            failed_ += call() ? 0 : 1;
            times_.push_back(std::chrono::steady_clock::now() - begin);
        }
    }
    size_t Failed() const { return failed_; }
    std::chrono::duration<double, std::milli> Percentile(double share) const {
        auto times = times_;
        std::ranges::sort(times);
        return times.at(static_cast<size_t>(share * static_cast<double>(times.size() - 1)));
    }
    std::chrono::duration<double, std::milli> Longest() const { return Percentile(1); }

private:
    std::vector<std::chrono::steady_clock::duration> times_;
    size_t failed_ = 0;
};

// A daemon that root runs. Without root there is nobody to be attacked, and nobody to attack.
template <class Unit>
class HostileTest : public DaemonTest<Unit> {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: an attack is another user's";
        }
        ASSERT_EQ(chmod(this->dir_.Path().c_str(), RunDirMode()), 0);
        if (const std::string policy = Policy(); !policy.empty()) {
            std::ofstream(this->dir_.Path() / "policy") << policy;
        }
        DaemonTest<Unit>::SetUp();
    }

    virtual mode_t RunDirMode() const { return 0755; }

    // What the policy's file has; empty: no file.
    virtual std::string Policy() const { return {}; }

    std::vector<std::string> Options() const override {
        if (Policy().empty()) {
            return {};
        }
        return {"--policy", this->dir_.Path() / "policy"};
    }

    std::filesystem::path Socket() const { return this->dir_.Path() / "TarnSysdiagTarnd.sock"; }

    // Whether the daemon answers root's question about a process that lives: this one.
    bool Answers() {
        const auto answer = this->template Call<Tarn_sys_diag_PidIsOnlineOuput>(
            "PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{static_cast<uint32_t>(getpid())});
        return answer.Status() == 0;
    }
};

} // namespace kit
