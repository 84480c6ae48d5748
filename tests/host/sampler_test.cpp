// The sampler's rings over more than an hour, of a machine and a time that are the test's.
#include "host/daemon/sampling/sampler.h"

#include <gtest/gtest.h>

#include "host/daemon/sampling/sample_driver.h"
#include "tests/host/eventually.h"
#include "tests/host/scripted_samples.h"

namespace {

using namespace std::chrono_literals;
using tarnd::Sampler;

constexpr uint32_t kPid = 17;

class SamplerTest : public testing::Test, protected kit::SampledMachine {};

TEST_F(SamplerTest, HasOneSampleAtFirst) {
    EXPECT_EQ(sampler.Recent().size(), 1);
    EXPECT_EQ(sampler.Latest()->system.at, clocks.SteadyNow());
    EXPECT_EQ(sampler.Latest()->system.time, clocks.WallNow());
    EXPECT_EQ(sampler.Before(1h), sampler.Latest()) << "as far back as there is any";
    try {
        sampler.Last({});
        FAIL() << "there is no other sample";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), EAGAIN);
    }
    Pass(1s);
    EXPECT_EQ(sampler.Last({}).Length(), 1s);
}

TEST_F(SamplerTest, DoesNotBeginWithoutASample) {
    machine.error = EIO;
    EXPECT_THROW(Sampler(machine, clocks), std::system_error);
}

TEST_F(SamplerTest, KeepsWholeSamplesForTwoMinutesAndTheSystemForAnHour) {
    const host::SteadyTime start = clocks.SteadyNow();
    Pass(1s, 119);
    EXPECT_EQ(sampler.Recent().size(), 120);
    EXPECT_EQ(sampler.Recent().front()->system.at, start);
    Pass(1s);
    EXPECT_EQ(sampler.Recent().size(), 120);
    EXPECT_EQ(sampler.Recent().front()->system.at, start + 1s) << "the oldest has gone";

    Pass(1s, 3599 - 120);
    EXPECT_EQ(sampler.History().size(), 3600);
    EXPECT_EQ(sampler.History().front().at, start);
    Pass(1s);
    const std::vector<tarnd::SystemSample> history = sampler.History();
    EXPECT_EQ(history.size(), 3600);
    EXPECT_EQ(history.front().at, start + 1s);
    EXPECT_EQ(history.back().at, clocks.SteadyNow());
    EXPECT_EQ(history.back().time, clocks.WallNow());
    EXPECT_EQ(sampler.TheCost().samples, 3601);
}

TEST_F(SamplerTest, TellsTheLastWholeSamplesOldestFirst) {
    Pass(1s, 9);
    const std::vector<tarnd::SamplePtr> recent = sampler.Recent(3);
    ASSERT_EQ(recent.size(), 3);
    EXPECT_EQ(recent[0]->system.at, clocks.SteadyNow() - 2s);
    EXPECT_EQ(recent[2], sampler.Latest());
    EXPECT_EQ(sampler.Recent(11).size(), 10);
    EXPECT_TRUE(sampler.Recent(0).empty());
}

// A point each minute, then one each second where samples are whole.
TEST_F(SamplerTest, RemembersAProcessForAnHour) {
    machine.Add(kPid, "worker", 500).rssKb = 1234;
    Pass(1s, 7200);
    const std::vector<tarnd::ProcessPoint> points = sampler.HistoryOf(kPid);
    ASSERT_EQ(points.size(), 58 + 120) << "the last two of the 60 are of the time of whole samples";
    EXPECT_EQ(points.back().at, clocks.SteadyNow());
    EXPECT_EQ(points.back().rssKb, 1234);
    EXPECT_EQ(points.back().threadNum, 1);
    EXPECT_EQ(points.front().at, clocks.SteadyNow() - 59min) << "the next is a minute away";
    for (size_t i = 1; i < points.size(); ++i) {
        const auto elapsed = points[i].at - points[i - 1].at;
        EXPECT_EQ(elapsed, i > 58 ? 1s : i < 58 ? 60s : 1s) << i;
        EXPECT_EQ(points[i].time - points[i - 1].time, elapsed) << i;
        EXPECT_EQ(points[i].cpuTicks - points[i - 1].cpuTicks, static_cast<uint64_t>(elapsed / 1s) * 50) << i;
    }
    EXPECT_TRUE(sampler.HistoryOf(kPid + 1).empty());
    Pass(1s, 59); // a minute's sample is the oldest of the whole ones
    EXPECT_EQ(sampler.HistoryOf(kPid).size(), 58 + 120) << "it comes once";
}

TEST_F(SamplerTest, KeepsThreadsNoLongerThanWholeSamples) {
    machine.Add(kPid, "worker", 500);
    Pass(1s, static_cast<int>(Sampler::kCoarseEvery)); // the last is one of those that are kept for an hour
    const std::weak_ptr<const std::vector<tarnd::ThreadTimes>> threads = sampler.Latest()->Find(kPid)->threads;
    EXPECT_FALSE(threads.expired());
    Pass(1s, static_cast<int>(Sampler::kWholeSamples));
    EXPECT_TRUE(threads.expired());
}

TEST_F(SamplerTest, IsDrivenSoonAfterTheStart) {
    Sampler hourly(machine, clocks, 1h);
    const tarnd::SampleDriver driver(hourly);
    kit::Await("there are rates", [&] { return hourly.TheCost().samples == 2; });
}

TEST_F(SamplerTest, RemembersNothingOfAProcessThatHadTheIdBefore) {
    machine.Add(kPid, "first");
    Pass(1s, 300);
    machine.Add(kPid, "second");
    Pass(1s, 2);
    EXPECT_EQ(sampler.HistoryOf(kPid).size(), 2);
    machine.processes.erase(kPid);
    Pass(1s);
    EXPECT_TRUE(sampler.HistoryOf(kPid).empty()) << "it has ended";
}

TEST_F(SamplerTest, SpansAtLeastWhatIsAskedFor) {
    Pass(1s, 60);
    EXPECT_EQ(sampler.Before(3s)->system.at, clocks.SteadyNow() - 3s);
    EXPECT_EQ(sampler.Before(2500ms)->system.at, clocks.SteadyNow() - 3s) << "at least as old as that";
    clocks.Advance(600ms); // it asks between two samples
    EXPECT_EQ(sampler.Before(500ms), sampler.Latest());
    EXPECT_EQ(sampler.Before(700ms)->system.at, clocks.SteadyNow() - 1600ms);
    EXPECT_EQ(sampler.Last(5s).Length(), 5s) << "from the latest sample, not from now";
    EXPECT_EQ(sampler.Last(4001ms).Length(), 5s);
    EXPECT_EQ(sampler.Last({}).Length(), 1s) << "never two times the same sample";
    EXPECT_EQ(sampler.Last(24h).Length(), 60s) << "as long as there is any";
    EXPECT_EQ(sampler.Last(1s).to, sampler.Latest());
}

TEST_F(SamplerTest, CallsItsHooksInOrderAndOutlivesWhatTheyThrow) {
    std::vector<std::pair<tarnd::SamplePtr, tarnd::SamplePtr>> calls;
    sampler.OnSample("a hook that fails", [](const auto &, const auto &) { throw std::runtime_error("on purpose"); });
    sampler.OnSample("a hook", [&](const auto &previous, const auto &latest) { calls.emplace_back(previous, latest); });
    const tarnd::SamplePtr first = sampler.Latest();
    Pass(1s, 3);
    ASSERT_EQ(calls.size(), 3);
    EXPECT_EQ(calls[0].first, first);
    EXPECT_EQ(calls[1].first, calls[0].second);
    EXPECT_EQ(calls[2].first, calls[1].second);
    EXPECT_EQ(calls[2].second, sampler.Latest());
}

// ---- While nobody looks at processes ----

class UnwatchedTest : public SamplerTest {
protected:
    UnwatchedTest() {
        machine.Add(kPid, "worker", 500);
        somebodyLooks = false;
        Pass(1s, 150); // the last sample with processes is that of the 120th second
        machine.processReadings = 0;
    }
};

TEST_F(UnwatchedTest, ProcessesAreSampledEachMinute) {
    Pass(1s, 600);
    EXPECT_EQ(machine.processReadings, 10);
    EXPECT_EQ(sampler.LastOfSystem(10s).to.at, clocks.SteadyNow());
    EXPECT_FALSE(sampler.Latest()->hasProcesses);
    EXPECT_EQ(sampler.LastTwo().Length(), 1s) << "the system is sampled each second";
    EXPECT_EQ(sampler.Last({}).Length(), 60s);
    EXPECT_EQ(sampler.HistoryOf(kPid).size(), 12);
}

TEST_F(UnwatchedTest, ProcessesAreSampledForWhoLooksAndForAWhile) {
    clocks.Advance(500ms);
    sampler.Look();
    EXPECT_EQ(machine.processReadings, 1) << "at once";
    EXPECT_EQ(sampler.Last({}).Length(), 30500ms);
    sampler.Look();
    EXPECT_EQ(machine.processReadings, 1) << "it is as young as can be";
    Pass(1s, 59);
    EXPECT_EQ(machine.processReadings, 60);
    EXPECT_EQ(sampler.Last({}).Length(), 1s);
    Pass(1s, 30);
    EXPECT_EQ(machine.processReadings, 60) << "nobody has looked since";
}

TEST_F(UnwatchedTest, AShareIsOfNoLessThanHalfAnInterval) {
    sampler.Look();
    Pass(400ms);
    EXPECT_EQ(sampler.Last({}).Length(), 30400ms);
    Pass(100ms);
    EXPECT_EQ(sampler.Last({}).Length(), 500ms);
}

TEST_F(UnwatchedTest, ProcessesAreSampledWhileTheyAreNeeded) {
    bool needed = false;
    std::vector<std::chrono::nanoseconds> lengths;
    sampler.OnProcesses(
        "in need", [&] { return needed; },
        [&](const tarnd::SamplePtr &previous, const tarnd::SamplePtr &latest) {
            EXPECT_TRUE(previous->hasProcesses);
            lengths.push_back(latest->system.at - previous->system.at);
        });
    Pass(1s, 20);
    EXPECT_EQ(machine.processReadings, 0);
    needed = true;
    Pass(1s, 2);
    sampler.Look(); // does not come between
    Pass(1s);
    needed = false;
    EXPECT_EQ(lengths, (std::vector<std::chrono::nanoseconds>{51s, 1s, 1s}));
}

TEST_F(SamplerTest, TellsWhatTheLongestSampleTook) {
    struct Slow : tarnd::SampleSource {
        explicit Slow(kit::ManualClocks &of) : time(of) {}
        tarnd::Sample Read(tarnd::Reading, const tarnd::Sample *) override {
            time.Advance(takes);
            return {};
        }
        kit::ManualClocks &time;
        std::chrono::milliseconds takes{10};
    } slow(clocks);
    Sampler ofSlow(slow, clocks);
    EXPECT_EQ(ofSlow.TheCost().longest, 10ms);
    slow.takes = 30ms;
    ofSlow.Take();
    slow.takes = 20ms;
    ofSlow.Take();
    EXPECT_EQ(ofSlow.TheCost().longest, 30ms);
    EXPECT_EQ(ofSlow.TheCost().samples, 3);
}

TEST_F(SamplerTest, KeepsWhatItHasWhereASampleCanNotBeTaken) {
    Pass(1s);
    const tarnd::SamplePtr latest = sampler.Latest();
    int calls = 0;
    sampler.OnSample("a hook", [&](const auto &, const auto &) { ++calls; });
    machine.error = EMFILE;
    EXPECT_THROW(Pass(1s), std::system_error);
    EXPECT_EQ(sampler.Latest(), latest);
    EXPECT_EQ(calls, 0);
    machine.error = 0;
    Pass(1s);
    EXPECT_EQ(sampler.Last({}).Length(), 2s);
    EXPECT_EQ(calls, 1);
}

} // namespace
