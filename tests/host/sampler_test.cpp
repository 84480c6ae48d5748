// The sampler's rings, at a hundred times their pace, against what the test itself sees of a process.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <atomic>
#include <mutex>

#include "host/daemon/cpu/crossing.h"
#include "host/daemon/sampling/rates.h"
#include "host/daemon/sampling/sampler.h"
#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;
using kit::Subject;
using tarnd::Sampler;

class SamplerTest : public testing::Test {
protected:
    bool Samples(uint64_t number) {
        return kit::Eventually([&] { return sampler_.TheCost().samples >= number; });
    }

    const kit::TempDir dir_;
    Sampler sampler_;
};

TEST_F(SamplerTest, KeepsAsMuchAsItSays) {
    sampler_.Start(10ms);
    ASSERT_TRUE(Samples(2 * Sampler::kWholeSamples));
    const std::vector<tarnd::SamplePtr> recent = sampler_.Recent();
    EXPECT_EQ(recent.size(), Sampler::kWholeSamples);
    for (size_t i = 1; i < recent.size(); ++i) {
        EXPECT_LT(recent[i - 1]->system.at, recent[i]->system.at);
        EXPECT_GE(recent[i]->system.cpu.Total(), recent[i - 1]->system.cpu.Total());
    }
    EXPECT_EQ(sampler_.Recent(3).size(), 3);
    EXPECT_GE(sampler_.History().size(), 2 * Sampler::kWholeSamples);

    // A point for every 60th sample of those that are not whole any more, and for each that is.
    const std::vector<tarnd::ProcessPoint> points = sampler_.HistoryOf(static_cast<uint32_t>(getpid()));
    EXPECT_GE(points.size(), Sampler::kWholeSamples + 1);
    EXPECT_LE(points.size(), Sampler::kWholeSamples + Sampler::kCoarseSamples);
    for (size_t i = 1; i < points.size(); ++i) {
        ASSERT_LT(points[i - 1].at, points[i].at);
        ASSERT_LE(points[i - 1].cpuTicks, points[i].cpuTicks);
    }
    const uint32_t ended = kit::EndedPid(); // which the latest sample may have seen
    EXPECT_TRUE(kit::Eventually([&] { return sampler_.HistoryOf(ended).empty(); }));
}

TEST_F(SamplerTest, SpansAtLeastWhatIsAskedFor) {
    sampler_.Start(10ms);
    ASSERT_TRUE(Samples(60));
    EXPECT_GE(std::chrono::steady_clock::now() - sampler_.Before(100ms)->system.at, 100ms);
    const Sampler::Window window = sampler_.Last(100ms);
    EXPECT_GE(window.Length(), 100ms);
    EXPECT_LT(window.Length(), 5s);
    EXPECT_GT(sampler_.Last({}).Length(), 0ns) << "never two times the same sample";
    EXPECT_EQ(sampler_.Before(24h), sampler_.Recent().front()) << "as far back as there is any";
}

TEST_F(SamplerTest, HasOneSampleAtFirst) {
    sampler_.Start(1h);
    EXPECT_EQ(sampler_.Recent().size(), 1);
    EXPECT_THROW(sampler_.Last({}), std::system_error);
    ASSERT_TRUE(Samples(2)) << "the second is not an hour away";
    EXPECT_GT(sampler_.Last({}).Length(), 0ns);
}

TEST_F(SamplerTest, FollowsTheThreadsOfAProcess) {
    const Subject subject(dir_);
    sampler_.Start(20ms);
    ASSERT_TRUE(Samples(50));
    const Sampler::Window window = sampler_.Last(500ms);
    const tarnd::ProcessSample *const to = window.to->Find(subject.Pid());
    ASSERT_NE(to, nullptr);
    const tarnd::ProcessSample *const from = window.from->Find(*to);
    ASSERT_NE(from, nullptr);
    EXPECT_EQ(to->name, "host_subject");
    EXPECT_EQ(to->threadNum, 3);
    std::vector<tarnd::ThreadUse> uses = tarnd::ThreadUses(from, *to);
    ASSERT_EQ(uses.size(), 3);
    tarnd::KeepBusiest(uses, 2);
    ASSERT_EQ(uses.size(), 2);
    EXPECT_EQ(uses[0].tid, subject.tids.at("burner"));
    EXPECT_GT(uses[0].usedNs, uses[1].usedNs);
    // Ticks and the scheduler's count tell the same, but for a tick at each end.
    const double ticksNs = static_cast<double>(tarnd::TicksToNs(to->cpuTicks - from->cpuTicks));
    EXPECT_NEAR(static_cast<double>(uses[0].usedNs), ticksNs, 50e6);
}

// Once there was no descriptor left for the threads of a process that has done nothing since.
TEST(SampleReader, ReadsThreadsAgainThatItCouldNotRead) {
    const kit::TempDir dir;
    const kit::Process idle(dir.Path(), {"/bin/sleep", "1000"});
    tarnd::SampleReader reader;
    tarnd::Sample sample;
    ASSERT_TRUE(kit::Eventually([&] { // until it sleeps
        const auto before = reader.Read(nullptr);
        std::this_thread::sleep_for(50ms);
        sample = *reader.Read(nullptr);
        const tarnd::ProcessSample *const process = before->Find(idle.Pid());
        return process != nullptr && process->name == "sleep" && process->cpuTicks == sample.Find(idle.Pid())->cpuTicks;
    }));
    const auto found = std::find_if(sample.processes.begin(), sample.processes.end(),
                                    [&](const auto &process) { return process.pid == idle.Pid(); });
    found->threads = nullptr;
    found->threadsError = EMFILE;
    const auto after = reader.Read(&sample);
    const tarnd::ProcessSample *const now = after->Find(idle.Pid());
    EXPECT_NE(now->threads, nullptr);
    EXPECT_EQ(now->threadsError, 0);
}

tarnd::ProcessSample MakeProcess(uint64_t start, uint64_t ticks, std::vector<tarnd::ThreadTimes> threads) {
    tarnd::ProcessSample process;
    process.pid = 7;
    process.startTicks = start;
    process.cpuTicks = ticks;
    process.threads = std::make_shared<const std::vector<tarnd::ThreadTimes>>(std::move(threads));
    return process;
}

TEST(Rates, TellProcessesOfOneIdApart) {
    const tarnd::Sample before{{}, {}, {MakeProcess(100, 5000, {})}};
    const tarnd::ProcessSample later = MakeProcess(200, 50, {});
    EXPECT_EQ(before.Find(later), nullptr);
    EXPECT_EQ(tarnd::ProcessPermille(before.Find(later), later, 1s), 50 * 1000 / host::procfs::TicksPerSecond())
        << "all that it has used, it has used since";
    EXPECT_EQ(before.Find(7)->startTicks, 100);
}

TEST(Rates, AreNeverLessThanNothingNorMoreThanAll) {
    tarnd::CpuTicks from{.user = 100, .system = 100, .idle = 1000, .ioWait = 500};
    tarnd::CpuTicks to = from;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0) << "no time has passed";
    to.ioWait = 400; // the kernel's count may go back
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0);
    to.user = 150;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0) << "less time than none";
    to.ioWait = 460;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 1000);
    const tarnd::ProcessSample process = MakeProcess(1, 10, {});
    const tarnd::ProcessSample less = MakeProcess(1, 9, {});
    EXPECT_EQ(tarnd::ProcessPermille(&process, less, 1s), 0);
    EXPECT_EQ(tarnd::ProcessPermille(&process, process, 0s), 0);
    EXPECT_EQ(tarnd::ThreadPermille({7, 7, {}, 3'000'000'000}, 1s), 1000);
}

TEST(Rates, CountThreadsThatCameOrEnded) {
    const auto thread = [](uint32_t tid, uint64_t runNs) { return tarnd::ThreadTimes{tid, {runNs, 0, 0}}; };
    const tarnd::ProcessSample from = MakeProcess(1, 100, {thread(7, 1000), thread(8, 5'000'000)});
    const tarnd::ProcessSample to = MakeProcess(1, 200, {thread(7, 1500), thread(8, 300), thread(9, 70)});
    const std::vector<tarnd::ThreadUse> uses = tarnd::ThreadUses(&from, to);
    ASSERT_EQ(uses.size(), 3);
    EXPECT_EQ(uses[0].usedNs, 500);
    EXPECT_EQ(uses[1].usedNs, 0) << "another thread of the same id, which has used less";
    EXPECT_EQ(uses[2].usedNs, 70);
    EXPECT_EQ(tarnd::ProcessUsedNs(&from, to, uses), tarnd::TicksToNs(98)) << "by threads that have ended";
    EXPECT_EQ(tarnd::ProcessUsedNs(&from, from, tarnd::ThreadUses(&from, from)), 0);
    const tarnd::Sample before{{}, {}, {from}}, after{{}, {}, {to}};
    EXPECT_EQ(tarnd::Busiest(before, after), &after.processes[0]);
    EXPECT_EQ(tarnd::Busiest(before, before), nullptr);
}

// An overload with samples of one second.
class CrossingTest : public testing::Test {
protected:
    using Event = tarnd::Crossing::Event;

    Event Follow(uint32_t permille, const tarnd::Thresholds &thresholds) {
        auto sample = std::make_shared<tarnd::Sample>();
        sample->system.at = latest_->system.at + 1s;
        const tarnd::SamplePtr previous = std::exchange(latest_, std::move(sample));
        return crossing_.Follow(permille, thresholds, previous, latest_);
    }

    tarnd::SamplePtr latest_ = std::make_shared<tarnd::Sample>();
    tarnd::Crossing crossing_;
};

TEST_F(CrossingTest, BeginsWhenAShareHasLastedAndEndsBelowAnother) {
    const tarnd::Thresholds thresholds{800, 600, 3};
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(900, thresholds), Event::kNone);
    EXPECT_EQ(Follow(799, thresholds), Event::kNone) << "from the start";
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(800, thresholds), Event::kNone);
    EXPECT_EQ(Follow(800, thresholds), Event::kBegins);
    EXPECT_EQ(latest_->system.at - crossing_.Since()->system.at, 3s);
    EXPECT_EQ(Follow(600, thresholds), Event::kNone);
    EXPECT_TRUE(crossing_.Over());
    EXPECT_EQ(Follow(599, thresholds), Event::kEnds);
    EXPECT_FALSE(crossing_.Over());
    EXPECT_EQ(Follow(700, thresholds), Event::kNone);
}

TEST_F(CrossingTest, TakesTheLowestAndTheHighestThresholds) {
    EXPECT_EQ(Follow(1000, {0, 0, 0}), Event::kNone) << "0 is no threshold";
    EXPECT_EQ(Follow(999, {1000, 1000, 0}), Event::kNone);
    EXPECT_EQ(Follow(1000, {1000, 1000, 0}), Event::kBegins);
    EXPECT_EQ(Follow(1000, {0, 0, 0}), Event::kEnds) << "it is switched off";
    EXPECT_EQ(Follow(1, {1, 1, 0}), Event::kBegins);
    EXPECT_EQ(Follow(0, {1, 1, 0}), Event::kEnds);
    for (int second = 1; second < 3600; ++second) {
        ASSERT_EQ(Follow(1000, {1, 1, 3600}), Event::kNone);
    }
    EXPECT_EQ(Follow(1000, {1, 1, 3600}), Event::kBegins);
}

// A machine that was suspended, or a sampler that was kept waiting: one sample spans it all.
TEST_F(CrossingTest, CountsTheTimeBetweenSamplesAndNotTheirNumber) {
    auto late = std::make_shared<tarnd::Sample>();
    late->system.at = latest_->system.at + 10s;
    EXPECT_EQ(crossing_.Follow(900, {800, 800, 5}, latest_, late), Event::kBegins);
}

TEST_F(SamplerTest, CallsItsHooksInOrderAndOutlivesWhatTheyThrow) {
    std::mutex mutex;
    std::vector<std::pair<tarnd::SamplePtr, tarnd::SamplePtr>> calls;
    sampler_.OnSample("a hook that fails", [](const auto &, const auto &) { throw std::runtime_error("on purpose"); });
    sampler_.OnSample("a hook", [&](const auto &previous, const auto &latest) {
        const std::lock_guard lock(mutex);
        calls.emplace_back(previous, latest);
    });
    sampler_.Start(10ms);
    ASSERT_TRUE(Samples(10));
    sampler_.Stop();
    ASSERT_GE(calls.size(), 9);
    for (size_t i = 1; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].first, calls[i - 1].second);
    }
}

} // namespace
