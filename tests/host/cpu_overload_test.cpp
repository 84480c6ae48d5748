// CPU overloads of a machine that is the test's: when they begin and end, and what is recorded of them.
#include "host/daemon/cpu/cpu_overload.h"

#include <atomic>
#include <semaphore>

#include <gtest/gtest.h>

#include "tests/host/error_of.h"
#include "tests/host/eventually.h"
#include "tests/host/fake_proc.h"
#include "tests/host/kept_events.h"
#include "tests/host/scripted_samples.h"

namespace {

using namespace std::chrono_literals;
using kit::ErrorOf;
using tarnd::CpuOverload;
using tarnd::Overload;

constexpr uint32_t kPid = kit::kFakePid;

class CpuOverloadTest : public testing::Test, protected kit::SampledMachine {
protected:
    // Also in the directory of processes, which is asked when one is to be watched.
    void AddProcess(uint32_t pid, const std::string &name, uint32_t permille) {
        machine.Add(pid, name, permille);
        host::procfs::Task task = kit::FakeProc::MakeTask(pid, name);
        task.startTicks = machine.processes[pid].startTicks;
        proc.SetThread(pid, task);
    }

    void WaitForRecords(uint32_t number) const {
        ASSERT_TRUE(kit::Eventually([&] { return overload->RecordNumber() >= number; }));
    }

    void Make() {
        overload.emplace(store, overloads, events, sampler, proc, [this](Overload &read) {
            mayRead.acquire();
            for (tarnd::OverloadThread &thread : read.threads) {
                thread.stack = "stack of " + std::to_string(thread.tid);
            }
            if (readingFails) {
                throw std::system_error(EPERM, std::generic_category(), "on purpose");
            }
        });
    }

    // What is logged while the action runs.
    static std::string LogOf(const std::function<void()> &action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

    host::Store store;
    kit::KeptOverloads overloads;
    kit::KeptEvents events;
    kit::FakeProc proc;
    std::counting_semaphore<1000> mayRead{100};
    std::atomic<bool> readingFails = false;
    std::optional<CpuOverload> overload;

    CpuOverloadTest() { Make(); }
};

TEST_F(CpuOverloadTest, RecordsAnOverloadOfTheSystem) {
    machine.Add(kPid, "little", 100);
    machine.Add(kPid + 1, "much", 900);
    machine.busyPermille = {1000, 500};
    overload->SetSystem({750, 600, 3});
    const host::WallTime begin = clocks.WallNow();
    Pass(1s, 2);
    EXPECT_EQ(ErrorOf([&] { overload->Last(); }), ENODATA) << "it has not lasted for three seconds";
    Pass(1s);
    WaitForRecords(1);
    Overload last = overload->Last();
    EXPECT_EQ(last.begin, begin) << "when the use began, not when it had lasted";
    EXPECT_FALSE(last.end.has_value());
    EXPECT_EQ(last.pid, kPid + 1);
    EXPECT_EQ(last.name, "much");
    EXPECT_EQ(last.systemPermille, 750);
    EXPECT_EQ(last.processPermille, 900);
    ASSERT_EQ(last.threads.size(), 2);
    EXPECT_EQ(last.threads[1].tid, kPid);
    EXPECT_EQ(last.threads[0].tid, kPid + 1);
    EXPECT_EQ(last.threads[0].permille, 900);
    EXPECT_EQ(last.threads[0].runNs, 2'700'000'000);
    EXPECT_EQ(last.threads[0].stack, "stack of " + std::to_string(kPid + 1));

    machine.busyPermille = {600, 600};
    Pass(1s);
    EXPECT_FALSE(overload->Last().end.has_value()) << "it recovers below 600";
    machine.busyPermille = {599, 599};
    EXPECT_NE(LogOf([&] { Pass(1s); }).find("the CPU overload by much (5000001) is over"), std::string::npos);
    EXPECT_EQ(overload->Last().end, clocks.WallNow());
    machine.busyPermille = {749, 749};
    Pass(1s, 3600);
    EXPECT_EQ(overload->RecordNumber(), 1) << "it is not reached";
}

TEST_F(CpuOverloadTest, NamesTheProcessThatUsedMostSinceItBegan) {
    machine.Add(kPid, "first", 900);
    machine.Add(kPid + 1, "last");
    machine.busyPermille = {1000, 1000};
    overload->SetSystem({1000, 1000, 3});
    Pass(1s, 2);
    machine.processes[kPid].threads[kPid].runPermille = 0;
    machine.processes[kPid + 1].threads[kPid + 1].runPermille = 900;
    Pass(1s);
    WaitForRecords(1);
    EXPECT_EQ(overload->Last().name, "first");
    EXPECT_EQ(overload->Last().processPermille, 600);
}

TEST_F(CpuOverloadTest, RecordsTheBusiestThreadsOfTheSystem) {
    for (uint32_t i = 0; i < 12; ++i) {
        machine.Add(kPid + i, "worker", 10 * (i + 1));
    }
    machine.Add(kPid + 12, "idle");
    machine.busyPermille = {1000, 1000};
    overload->SetSystem({900, 900, 0});
    Pass(10s);
    WaitForRecords(1);
    const Overload last = overload->Last();
    ASSERT_EQ(last.threads.size(), CpuOverload::kThreads);
    for (uint32_t i = 0; i < CpuOverload::kThreads; ++i) {
        EXPECT_EQ(last.threads[i].pid, kPid + 11 - i) << "one of each process";
        EXPECT_EQ(last.threads[i].permille, 10 * (12 - i));
    }
}

TEST_F(CpuOverloadTest, RecordsTheBusiestThreads) {
    AddProcess(kPid, "worker", 0);
    for (uint32_t i = 1; i <= 12; ++i) {
        machine.processes[kPid].threads[kPid + i].runPermille = 10 * i;
    }
    overload->Watch(kPid, {500, 500, 0});
    Pass(10s);
    WaitForRecords(1);
    const Overload last = overload->Last();
    EXPECT_EQ(last.processPermille, 780);
    ASSERT_EQ(last.threads.size(), CpuOverload::kThreads);
    for (uint32_t i = 0; i < CpuOverload::kThreads; ++i) {
        EXPECT_EQ(last.threads[i].tid, kPid + 12 - i);
        EXPECT_EQ(last.threads[i].permille, 10 * (12 - i));
    }
}

TEST_F(CpuOverloadTest, LeavesOutThreadsThatDidNotRun) {
    AddProcess(kPid, "worker", 500);
    machine.processes[kPid].threads[kPid + 1] = {};
    overload->Watch(kPid, {500, 500, 0});
    Pass(1s);
    WaitForRecords(1);
    EXPECT_EQ(overload->Last().threads.size(), 1);
}

TEST_F(CpuOverloadTest, IsRecordedWithoutStacksThatCanNotBeRead) {
    AddProcess(kPid, "worker", 1000);
    readingFails = true;
    overload->Watch(kPid, {500, 500, 0});
    Pass(1s);
    WaitForRecords(1);
    EXPECT_EQ(overload->Last().pid, kPid);
}

TEST_F(CpuOverloadTest, FollowsTheThreadsOfAWatchedProcess) {
    AddProcess(kPid, "worker", 400);
    EXPECT_EQ(ErrorOf([&] { overload->WatchedProcess(kPid); }), ENOENT);
    overload->Watch(kPid, {500, 500, 2});
    EXPECT_EQ(overload->WatchedNumber(), 1);
    EXPECT_TRUE(overload->WatchedProcess(kPid).threads.empty());
    Pass(1s);
    machine.processes[kPid].threads[kPid].runPermille = 500;
    Pass(1s);
    EXPECT_EQ(overload->WatchedProcess(kPid).overloads, 0);
    EXPECT_FALSE(overload->WatchedProcess(kPid).crossing.Over());
    Pass(1s);
    EXPECT_TRUE(overload->WatchedProcess(kPid).crossing.Over());
    EXPECT_EQ(overload->WatchedProcess(kPid).overloads, 1);
    machine.processes[kPid].threads[kPid].runPermille = 300;
    Pass(1s);
    const tarnd::Watched watched = overload->WatchedProcess(kPid);
    EXPECT_FALSE(watched.crossing.Over());
    ASSERT_EQ(watched.threads.size(), 1);
    EXPECT_EQ(watched.threads[0].permille, 300);
    EXPECT_EQ(watched.threads[0].highest, 500);
    EXPECT_EQ(watched.threads[0].runNs, 1'700'000'000);
    overload->ResetPeaks();
    EXPECT_EQ(overload->WatchedProcess(kPid).threads[0].highest, 0);
    EXPECT_EQ(overload->WatchedProcess(kPid).threads[0].permille, 300);

    overload->Unwatch(kPid);
    EXPECT_EQ(overload->WatchedNumber(), 0);
    EXPECT_EQ(ErrorOf([&] { overload->Unwatch(kPid); }), ENOENT);
    EXPECT_EQ(ErrorOf([&] { overload->Watch(kPid + 1, {500, 500, 2}); }), ESRCH) << "there is none";
}

TEST_F(CpuOverloadTest, ForgetsAProcessThatHasEnded) {
    AddProcess(kPid, "worker", 1000);
    overload->Watch(kPid, {500, 500, 0});
    Pass(1s);
    WaitForRecords(1);
    EXPECT_FALSE(overload->Last().end.has_value());
    machine.Add(kPid, "another", 1000);
    Pass(1s);
    EXPECT_EQ(overload->WatchedNumber(), 0);
    EXPECT_EQ(overload->Last().end, clocks.WallNow());
    EXPECT_EQ(overload->RecordNumber(), 1);
}

TEST_F(CpuOverloadTest, BeginsAnewWhenItsProcessHasAnotherOne) {
    AddProcess(kPid, "worker", 100);
    overload->Watch(kPid, {50, 50, 0});
    Pass(1s);
    overload->Watch(kPid, {60, 60, 0});
    EXPECT_EQ(overload->WatchedProcess(kPid).overloads, 1) << "other thresholds of the same";
    AddProcess(kPid, "another", 100);
    overload->Watch(kPid, {60, 60, 0});
    EXPECT_EQ(overload->WatchedProcess(kPid).overloads, 0);
}

TEST_F(CpuOverloadTest, WatchesAsManyAsItSays) {
    for (uint32_t i = 0; i < CpuOverload::kMaxWatched; ++i) {
        AddProcess(kPid + i, "worker", 0);
        overload->Watch(kPid + i, {500, 500, 0});
    }
    AddProcess(kPid + CpuOverload::kMaxWatched, "worker", 0);
    EXPECT_EQ(ErrorOf([&] { overload->Watch(kPid + CpuOverload::kMaxWatched, {500, 500, 0}); }), ENOSPC);
    EXPECT_EQ(ErrorOf([&] { overload->Watch(kPid, {600, 600, 0}); }), 0) << "it is watched already";
    EXPECT_EQ(overload->WatchedNumber(), CpuOverload::kMaxWatched);
}

// Only the end of what was recorded is told of.
TEST_F(CpuOverloadTest, IsNotRecordedWhileTooManyWaitForTheirStacks) {
    while (mayRead.try_acquire()) {
    }
    for (uint32_t i = 0; i <= CpuOverload::kMaxPending; ++i) {
        AddProcess(kPid + i, "worker" + std::to_string(i), 100);
        overload->Watch(kPid + i, {50, 50, 0});
    }
    const std::string refused = LogOf([&] { Pass(1s); });
    EXPECT_NE(refused.find("CPU overload by worker4 (5000004): not recorded, 4 wait"), std::string::npos) << refused;
    EXPECT_EQ(refused.find("worker3"), std::string::npos) << refused;
    EXPECT_EQ(overload->RecordNumber(), 0);

    machine.processes[kPid + 4].threads[kPid + 4].runPermille = 0;
    machine.processes[kPid + 3].threads[kPid + 3].runPermille = 0;
    const std::string early = LogOf([&] { Pass(1s); });
    EXPECT_EQ(early.find("is over"), std::string::npos) << early;
    const std::string late = LogOf([&] {
        mayRead.release(100);
        WaitForRecords(4);
    });
    EXPECT_EQ(late.find("worker4"), std::string::npos) << late;
    EXPECT_EQ(late.find("worker2 (5000002) is over"), std::string::npos) << "it lasts: " << late;
    const size_t begun = late.find("worker3 (5000003) 100 permille of a CPU");
    const size_t over = late.find("the CPU overload by worker3 (5000003) is over");
    ASSERT_NE(begun, std::string::npos) << late;
    ASSERT_NE(over, std::string::npos) << late;
    EXPECT_LT(begun, over);
    EXPECT_EQ(overload->Last().end, clocks.WallNow());

    machine.processes[kPid + 4].threads[kPid + 4].runPermille = 100;
    Pass(1s);
    WaitForRecords(5);
    EXPECT_EQ(overload->Last().pid, kPid + 4) << "there is room for the next";
}

TEST_F(CpuOverloadTest, KeepsItsThresholdsBeyondARestart) {
    AddProcess(kPid, "stays", 0);
    AddProcess(kPid + 1, "ends", 0);
    overload->SetSystem({900, 800, 7});
    overload->Watch(kPid, {2000, 1900, 3});
    overload->Watch(kPid + 1, {2000, 2000, 3});
    kit::SampledMachine other;
    other.machine = machine;
    other.machine.processes.erase(kPid + 1);
    CpuOverload next(store, overloads, events, other.sampler, proc, [](Overload &) {});
    EXPECT_EQ(next.WatchedNumber(), 2);
    other.Pass(1s);
    EXPECT_EQ(next.WatchedNumber(), 1) << "one of the processes has ended";
    EXPECT_EQ(next.System().Value().over, 900);
    EXPECT_EQ(next.System().Value().recover, 800);
    EXPECT_EQ(next.System().Value().seconds, 7);
    EXPECT_EQ(next.WatchedProcess(kPid).thresholds.over, 2000);
    EXPECT_EQ(next.WatchedProcess(kPid).thresholds.recover, 1900);
    EXPECT_EQ(next.WatchedProcess(kPid).thresholds.seconds, 3);
    EXPECT_EQ(next.RecordNumber(), 0);
}

TEST_F(CpuOverloadTest, ChangesNothingThatCanNotBeKept) {
    const kit::TempDir dir;
    host::Store kept(dir.Path() / "state");
    CpuOverload of(kept, overloads, events, sampler, proc, [](Overload &) {});
    AddProcess(kPid, "worker", 0);
    of.SetSystem({900, 800, 7});
    of.Watch(kPid, {2000, 1900, 3});
    AddProcess(kPid + 1, "another", 0);
    std::filesystem::remove_all(dir.Path() / "state");
    EXPECT_THROW(of.SetSystem({500, 500, 0}), std::system_error);
    EXPECT_EQ(of.System().Value().over, 900);
    EXPECT_THROW(of.Watch(kPid, {500, 500, 0}), std::system_error);
    EXPECT_THROW(of.Watch(kPid + 1, {500, 500, 0}), std::system_error);
    EXPECT_THROW(of.Unwatch(kPid), std::system_error);
    EXPECT_EQ(of.WatchedNumber(), 1);
    EXPECT_EQ(of.WatchedProcess(kPid).thresholds.over, 2000);
}

TEST_F(CpuOverloadTest, EndsWhenItIsSwitchedOff) {
    machine.Add(kPid, "much", 900);
    machine.busyPermille = {1000, 1000};
    overload->SetSystem({1000, 1000, 0});
    Pass(1s);
    WaitForRecords(1);
    overload->SetSystem({});
    Pass(1s);
    EXPECT_EQ(overload->Last().end, clocks.WallNow());
}

} // namespace
