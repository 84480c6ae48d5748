// Threads that wait for a CPU, by counts that are the test's.
#include "host/daemon/cpu/starvation.h"

#include <gtest/gtest.h>

#include "tests/host/fake_proc.h"
#include "tests/host/kept_events.h"
#include "tests/host/scripted_samples.h"

namespace {

using namespace std::chrono_literals;
using tarnd::Starvation;

constexpr uint32_t kPid = kit::kFakePid;
constexpr uint32_t kTid = kPid + 1;

class StarvationTest : public testing::Test, protected kit::SampledMachine {
protected:
    void SetUp() override {
        proc.SetThread(kPid, kit::FakeProc::MakeTask(kPid, "main"));
        machine.Add(kPid, "worker").threads[kTid] = {};
        machine.runnable = 3; // of two CPUs
        SetThread('R', {});
        starvation.SetThreshold(2000ms);
        starvation.Switch(true);
    }

    void SetThread(char state, const host::procfs::SchedulerCount &count) {
        proc.SetThread(kPid, kit::FakeProc::MakeTask(kTid, "poor", state), count);
    }

    uint32_t Times() const {
        const auto record = starvation.Of(kPid, kTid);
        return record ? record->times : 0;
    }

    host::Store store;
    kit::KeptEvents events;
    kit::FakeProc proc;
    Starvation starvation{store, events, sampler, proc};
};

TEST_F(StarvationTest, CountsAWaitThatLasts) {
    Pass(1s); // the first sight of it
    Pass(1s); // and of that it waits
    Pass(1999ms);
    EXPECT_FALSE(starvation.Of(kPid, kTid).has_value());
    Pass(1ms);
    ASSERT_EQ(Times(), 1);
    EXPECT_EQ(starvation.Of(kPid, kTid)->longest, 2s);
    EXPECT_EQ(starvation.Of(kPid, kTid)->last, clocks.WallNow());
    Pass(1s, 100);
    EXPECT_EQ(Times(), 1) << "it is one wait";
    ASSERT_EQ(events.events.size(), 1) << "and one event";
    EXPECT_EQ(events.events[0].kind, tarnd::EventKind::kStarvation);
    EXPECT_EQ(events.events[0].pid, kPid);
    EXPECT_EQ(events.events[0].text, fmt::format("thread {} was ready for 2000 ms without a CPU", kTid));
    EXPECT_EQ(starvation.Of(kPid, kTid)->longest, 102s);
    EXPECT_EQ(starvation.Of(kPid, kTid)->last, clocks.WallNow());
    EXPECT_FALSE(starvation.Of(kPid + 5, kTid).has_value()) << "another process's";
    EXPECT_FALSE(starvation.Of(kPid, kPid).has_value()) << "it sleeps";
}

TEST_F(StarvationTest, CountsTheNextWaitAnew) {
    Pass(1s, 10);
    ASSERT_EQ(Times(), 1);
    SetThread('R', {1000, 0, 1}); // it ran, a little
    Pass(100ms);
    Pass(1s);
    EXPECT_EQ(Times(), 1);
    Pass(1s, 2);
    EXPECT_EQ(Times(), 2);
    EXPECT_EQ(starvation.Of(kPid, kTid)->longest, 8s) << "the first";
}

TEST_F(StarvationTest, KnowsAWaitThatHasEndedByItsCount) {
    Pass(1s);
    SetThread('S', {1000, 1'999'000'000, 1});
    Pass(2s);
    EXPECT_EQ(Times(), 0) << "a millisecond less than the threshold";
    SetThread('S', {2000, 3'999'000'000, 2});
    Pass(2s);
    EXPECT_EQ(Times(), 1);
    EXPECT_EQ(starvation.Of(kPid, kTid)->longest, 2s);
    SetThread('S', {3000, 7'998'000'000, 4});
    Pass(4s);
    EXPECT_EQ(Times(), 1) << "two waits, of less than two seconds each";
}

TEST_F(StarvationTest, KnowsALongWaitAmongShortOnesByWhatDoesNotFitBetweenTheSamples) {
    Pass(1s);
    SetThread('S', {1000, 4'999'000'000, 5});
    Pass(3s);
    EXPECT_EQ(Times(), 0) << "a millisecond less than the threshold had passed before";
    SetThread('S', {2000, 9'999'000'000, 10});
    Pass(3s);
    ASSERT_EQ(Times(), 1);
    EXPECT_EQ(starvation.Of(kPid, kTid)->longest, 2s);
}

TEST_F(StarvationTest, LeavesOutWhoIsNotReady) {
    SetThread('S', {});
    Pass(1s, 10);
    EXPECT_EQ(Times(), 0);
    SetThread('R', {});
    machine.runnable = 2;
    Pass(1s, 10);
    EXPECT_EQ(Times(), 0) << "there is a CPU for each: it runs";
    machine.runnable = 3;
    for (uint64_t second = 1; second <= 10; ++second) {
        SetThread('R', {second * 1'000'000'000, 0, 0});
        Pass(1s);
    }
    EXPECT_EQ(Times(), 0) << "it runs without a break";
}

TEST_F(StarvationTest, LooksOnlyWhileItIsOn) {
    Pass(1s, 4);
    EXPECT_EQ(Times(), 1);
    starvation.Switch(false);
    EXPECT_EQ(Times(), 0);
    Pass(1s, 10);
    EXPECT_EQ(Times(), 0);
    starvation.Switch(true);
    Pass(1s, 2);
    EXPECT_EQ(Times(), 0) << "from the start";
    Pass(1s, 2);
    EXPECT_EQ(Times(), 1);
}

TEST_F(StarvationTest, ForgetsWhatItIsToldTo) {
    const auto error = [&](uint32_t tid) {
        try {
            starvation.Reset(tid);
        } catch (const std::system_error &thrown) {
            return thrown.code().value();
        }
        return 0;
    };
    EXPECT_EQ(error(kTid), ENOENT);
    Pass(1s, 4);
    EXPECT_EQ(error(kPid), ENOENT) << "it has not starved";
    EXPECT_EQ(error(kTid), 0);
    EXPECT_EQ(Times(), 0);
    EXPECT_EQ(error(kTid), ENOENT);
    SetThread('R', {1000, 0, 1});
    Pass(100ms);
    Pass(1s, 3);
    EXPECT_EQ(Times(), 1);
    starvation.Reset();
    EXPECT_EQ(Times(), 0);
}

TEST_F(StarvationTest, TellsApartThreadsOfOneId) {
    SetThread('R', {5'000'000, 0, 7});
    Pass(1s, 4);
    ASSERT_EQ(Times(), 1);
    SetThread('R', {1'000'000, 9'000'000'000, 1});
    Pass(1s);
    EXPECT_EQ(Times(), 0) << "its counts went back";
}

TEST_F(StarvationTest, TellsApartThreadsOfOneIdInTwoProcesses) {
    constexpr uint32_t kOther = kPid + 7;
    Pass(1s, 3);
    machine.processes[kPid].threads.erase(kTid);
    machine.Add(kOther, "another").threads[kTid] = {};
    proc.SetThread(kOther, kit::FakeProc::MakeTask(kOther, "main"));
    proc.SetThread(kOther, kit::FakeProc::MakeTask(kTid, "new", 'R'));
    Pass(1s, 3);
    EXPECT_FALSE(starvation.Of(kOther, kTid).has_value()) << "from the start";
    Pass(1s);
    EXPECT_TRUE(starvation.Of(kOther, kTid).has_value());
}

TEST_F(StarvationTest, LivesWithThreadsThatEnd) {
    Pass(1s, 4);
    proc.RemoveThread(kPid, kTid);
    Pass(1s);
    EXPECT_EQ(Times(), 0);
    machine.processes[kPid].threadsError = EMFILE;
    Pass(1s);
}

TEST_F(StarvationTest, KeepsItsSettingsBeyondARestart) {
    kit::SampledMachine other;
    other.machine = machine;
    const Starvation next(store, events, other.sampler, proc);
    other.Pass(1s, 3);
    EXPECT_FALSE(next.Of(kPid, kTid).has_value());
    other.Pass(1s);
    EXPECT_TRUE(next.Of(kPid, kTid).has_value());
    starvation.Switch(false);
    kit::SampledMachine third;
    third.machine = machine;
    const Starvation off(store, events, third.sampler, proc);
    third.Pass(1s, 10);
    EXPECT_FALSE(off.Of(kPid, kTid).has_value());
}

} // namespace
