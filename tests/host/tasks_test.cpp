// Threads that starve, as the daemon records them.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <sched.h>

#include <atomic>

#include "host/procfs/procfs.h"
#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;

// Two threads that want the same CPU; one of them gets what the other leaves, which is next to nothing.
class Starving {
public:
    Starving() {
        cpu_set_t allowed;
        sched_getaffinity(0, sizeof allowed, &allowed);
        int cpu = 0;
        while (!CPU_ISSET(cpu, &allowed)) {
            ++cpu;
        }
        hog_ = std::thread([this, cpu] { Burn(cpu, SCHED_OTHER, nullptr); });
        poor_ = std::thread([this, cpu] { Burn(cpu, SCHED_IDLE, &tid_); });
        EXPECT_TRUE(kit::Eventually([this] { return tid_ != 0; }));
    }
    ~Starving() {
        stop_ = true;
        hog_.join();
        poor_.join();
    }
    Starving(const Starving &) = delete;
    Starving &operator=(const Starving &) = delete;

    uint32_t Tid() const { return tid_; }
    // It wants no CPU any more, but does not end.
    void Rest() { rest_ = true; }

private:
    void Burn(int cpu, int policy, std::atomic<uint32_t> *tid) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        const sched_param none{};
        EXPECT_EQ(sched_setscheduler(0, policy, &none), 0);
        if (tid != nullptr) {
            *tid = static_cast<uint32_t>(gettid());
        }
        while (!stop_) {
            if (rest_) {
                std::this_thread::sleep_for(10ms);
            }
        }
    }

    std::atomic<bool> stop_ = false;
    std::atomic<bool> rest_ = false;
    std::atomic<uint32_t> tid_ = 0;
    std::thread hog_;
    std::thread poor_;
};

struct Record {
    uint64_t waitUs = 0;
    uint32_t times = 0;
    uint64_t longestMs = 0;
    std::string last;
};

class TasksTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--sample-interval", "100", "--state-dir", dir_.Path() / "state"};
    }

    Record RecordOf(uint32_t tid) {
        const auto answer = Call<Tarn_sys_diag_GetTaskInfoResult>(
            "GetTaskInfo", Tarn_sys_diag_GetTaskInfoInput{static_cast<uint32_t>(getpid()), tid, nullptr, 0, 0});
        EXPECT_EQ(answer.Status(), 0);
        std::istringstream text(answer.Status() == 0 ? answer->pcTaskRecord : "");
        std::string line;
        std::getline(text, line); // the head line
        uint64_t pid = 0, id = 0, runUs = 0, slices = 0;
        Record record;
        text >> pid >> id >> line >> runUs >> record.waitUs >> slices >> record.times >> record.longestMs >>
            record.last;
        EXPECT_EQ(id, tid);
        return record;
    }

    template <class Request>
    uint32_t Set(const char *method, uint32_t value) {
        const auto answer = Call<Tarn_sys_diag_TaskResult>(method, Request{value});
        EXPECT_EQ(answer.Status(), 0);
        return answer->uiTaskResult;
    }
    uint32_t Switch(uint32_t on) { return Set<Tarn_sys_diag_TaskSwitchInput>("SetTaskSwitch", on); }
    uint32_t SetThreshold(uint32_t ms) {
        return Set<Tarn_sys_diag_StarvTaskThresholdInput>("SetTaskStarvThreshold", ms);
    }
    uint32_t Reset(uint32_t tid) { return Set<Tarn_sys_diag_ResetTaskRecordInput>("ResetTaskRecord", tid); }
};

TEST_F(TasksTest, RecordsAThreadThatStarves) {
    Starving starving;
    ASSERT_EQ(SetThreshold(50), 0);
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(RecordOf(starving.Tid()).times, 0) << "it is off";
    EXPECT_EQ(RecordOf(starving.Tid()).last, "-");

    const auto pid = static_cast<uint32_t>(getpid());
    const auto start = std::chrono::steady_clock::now();
    const uint64_t before = host::procfs::Procfs().ReadSchedulerCount(pid, starving.Tid()).waitNs;
    ASSERT_EQ(Switch(1), 0);
    ASSERT_TRUE(kit::Eventually([&] { return RecordOf(starving.Tid()).times >= 1; })) << daemon_->Err();
    const Record record = RecordOf(starving.Tid());
    EXPECT_GE(record.longestMs, 50);
    EXPECT_NE(record.last, "-");
    EXPECT_TRUE(Logged("thread " + std::to_string(starving.Tid()) + " of process " + std::to_string(pid) + " starves"));
    // A wait is told of before it has ended, so it may not be in the count yet.
    const uint64_t waitedNs = host::procfs::Procfs().ReadSchedulerCount(pid, starving.Tid()).waitNs - before;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LE(record.longestMs * 1'000'000,
              std::max<uint64_t>(waitedNs, static_cast<uint64_t>(elapsed.count())) + 1'000'000'000)
        << "no longer than it has been watched, and what it had waited before";

    starving.Rest();
    ASSERT_TRUE(kit::Eventually([&] { return host::procfs::Procfs().ReadThread(pid, starving.Tid()).state == 'S'; }));
    // The last of its waits may be recorded after a reset.
    EXPECT_TRUE(kit::Eventually([&] {
        Reset(starving.Tid());
        std::this_thread::sleep_for(300ms);
        return RecordOf(starving.Tid()).times == 0;
    }));
    EXPECT_EQ(Reset(starving.Tid()), ENOENT);
    EXPECT_EQ(Reset(0), 0);
}

TEST_F(TasksTest, KeepsItsSettingsBeyondARestart) {
    ASSERT_EQ(SetThreshold(50), 0);
    ASSERT_EQ(Switch(1), 0);
    TearDown();
    StartDaemon();
    const Starving starving;
    EXPECT_TRUE(kit::Eventually([&] { return RecordOf(starving.Tid()).times >= 1; })) << daemon_->Err();
    ASSERT_EQ(Switch(0), 0);
    EXPECT_EQ(RecordOf(starving.Tid()).times, 0);
}

TEST_F(TasksTest, RefusesWhatMakesNoSense) {
    EXPECT_EQ(Switch(2), EINVAL);
    EXPECT_EQ(SetThreshold(0), EINVAL);
    EXPECT_EQ(SetThreshold(3600001), EINVAL);
    EXPECT_EQ(Reset(static_cast<uint32_t>(getpid())), ENOENT);
    EXPECT_EQ(Reset(0), 0);
}

} // namespace
