// What is read of sampled processes' threads, from a /proc that is the test's.
#include "host/daemon/sampling/thread_times.h"

#include <gtest/gtest.h>

#include "tests/host/fake_proc.h"

namespace {

constexpr uint32_t kPid = kit::kFakePid;

class ThreadTimesTest : public testing::Test {
protected:
    void SetThread(uint32_t pid, uint32_t tid, uint64_t runNs) const {
        proc_.SetThread(pid, kit::FakeProc::MakeTask(tid, "thread"), {runNs, 2 * runNs, 7});
    }

    static tarnd::ProcessSample MakeProcess(uint32_t pid, uint64_t cpuTicks, uint32_t threadNum = 1) {
        tarnd::ProcessSample process;
        process.pid = pid;
        process.startTicks = pid;
        process.cpuTicks = cpuTicks;
        process.threadNum = threadNum;
        return process;
    }

    std::vector<tarnd::ProcessSample> Add(std::vector<tarnd::ProcessSample> processes,
                                          const tarnd::Sample *previous = nullptr) {
        threads_.AddThreads(processes, previous);
        return processes;
    }

    kit::FakeProc proc_;
    tarnd::ThreadSampler threads_{proc_};
};

TEST_F(ThreadTimesTest, AreReadInTheOrderOfTheirIds) {
    SetThread(kPid + 7, kPid + 12, 300);
    SetThread(kPid + 7, kPid + 7, 100);
    SetThread(kPid + 7, kPid + 9, 200);
    const auto processes = Add({MakeProcess(kPid + 7, 1, 3)});
    ASSERT_NE(processes[0].threads, nullptr);
    const std::vector<tarnd::ThreadTimes> &threads = *processes[0].threads;
    ASSERT_EQ(threads.size(), 3);
    EXPECT_EQ(threads[0].tid, kPid + 7);
    EXPECT_EQ(threads[2].tid, kPid + 12);
    EXPECT_EQ(threads[2].count.runNs, 300);
    EXPECT_EQ(threads[2].count.waitNs, 600);
    EXPECT_EQ(threads[2].count.sliceNum, 7);
    EXPECT_EQ(processes[0].threadsError, 0);
}

TEST_F(ThreadTimesTest, OfAnIdleProcessAreThoseOfTheSampleBefore) {
    SetThread(kPid + 7, kPid + 7, 100);
    const tarnd::Sample before{{}, {}, true, Add({MakeProcess(kPid + 7, 5)})};
    SetThread(kPid + 7, kPid + 7, 101);
    EXPECT_EQ(Add({MakeProcess(kPid + 7, 5)}, &before)[0].threads, before.processes[0].threads);
    EXPECT_EQ(Add({MakeProcess(kPid + 7, 6)}, &before)[0].threads->at(0).count.runNs, 101) << "it has used a tick";
    EXPECT_EQ(Add({MakeProcess(kPid + 7, 5, 2)}, &before)[0].threads->at(0).count.runNs, 101)
        << "it has one thread more";
    tarnd::ProcessSample other = MakeProcess(kPid + 7, 5);
    other.startTicks = 8;
    EXPECT_EQ(Add({other}, &before)[0].threads->at(0).count.runNs, 101) << "another process has its id";
}

// Once there was no descriptor left for the threads of a process that has done nothing since.
TEST_F(ThreadTimesTest, AreReadAgainWhereTheyCouldNotBeRead) {
    const tarnd::Sample before{{}, {}, true, Add({MakeProcess(kPid + 7, 5)})};
    EXPECT_EQ(before.processes[0].threads, nullptr);
    EXPECT_EQ(before.processes[0].threadsError, ESRCH);
    SetThread(kPid + 7, kPid + 7, 100);
    const auto after = Add({MakeProcess(kPid + 7, 5)}, &before);
    EXPECT_NE(after[0].threads, nullptr);
    EXPECT_EQ(after[0].threadsError, 0);
}

TEST_F(ThreadTimesTest, LeaveOutThoseThatHaveEnded) {
    SetThread(kPid + 7, kPid + 7, 100);
    SetThread(kPid + 7, kPid + 8, 100);
    proc_.Remove(fmt::format("{}/task/{}/schedstat", kPid + 7, kPid + 8));
    EXPECT_EQ(Add({MakeProcess(kPid + 7, 1, 2)})[0].threads->size(), 1);
}

TEST_F(ThreadTimesTest, AreNotReadBeyondTheLimits) {
    SetThread(kPid + 7, kPid + 7, 100);
    SetThread(kPid + 8, kPid + 8, 100);
    SetThread(kPid + 9, kPid + 9, 100);
    const auto most = static_cast<uint32_t>(tarnd::kMaxSampledThreads - 1);
    const auto fit = Add({MakeProcess(kPid + 7, 1, most), MakeProcess(kPid + 8, 1, 1)});
    EXPECT_NE(fit[0].threads, nullptr);
    EXPECT_NE(fit[1].threads, nullptr);
    const auto tooMany =
        Add({MakeProcess(kPid + 7, 1, most), MakeProcess(kPid + 8, 1, 2), MakeProcess(kPid + 9, 1, 1)});
    EXPECT_NE(tooMany[0].threads, nullptr);
    EXPECT_EQ(tooMany[1].threads, nullptr);
    EXPECT_EQ(tooMany[2].threads, nullptr) << "the oldest are sampled, and nothing behind";

    std::vector<tarnd::ProcessSample> processes(tarnd::kMaxSampledProcesses);
    EXPECT_EQ(Add(processes).size(), tarnd::kMaxSampledProcesses);
    processes.emplace_back();
    testing::internal::CaptureStderr();
    EXPECT_EQ(Add(processes).size(), tarnd::kMaxSampledProcesses);
    EXPECT_EQ(Add(processes).size(), tarnd::kMaxSampledProcesses);
    const std::string log = testing::internal::GetCapturedStderr();
    const size_t told = log.find("more processes or threads than are sampled");
    EXPECT_NE(told, log.npos) << log;
    EXPECT_EQ(log.find("more processes", told + 1), log.npos) << "once\n" << log;
}

} // namespace
