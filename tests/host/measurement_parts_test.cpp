// Measurement of processes that the test has put into a /proc of its own, whose executables it changes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <future>

#include "host/daemon/files/digests.h"
#include "host/daemon/files/images.h"
#include "host/daemon/files/survey.h"
#include "host/meaning/choices.h"
#include "host/store/files.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/eventually.h"
#include "tests/host/method_kit.h"
#include "tests/host/nobody.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
using kit::kFakePid;
namespace measurement_mode = host::meaning::measurement_mode;
namespace measurement_operation = host::meaning::measurement_operation;
namespace measurement_state = host::meaning::measurement_state;
namespace measurement_time = host::meaning::measurement_time;

constexpr char kDigestOfFirst[] = "a7937b64b8caa58f03721bb6bacf5c78cb235febe0e70b1b84cd99541461a08e"; // "first"

class MeasurementPartsTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    MeasurementPartsTest() : SimulatedDaemon(KeptAndUnlimited()) {
        daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient);
    }

    tarnd::Options KeptAndUnlimited() const {
        tarnd::Options options = Kept();
        options.measuredBytesPerSecond = 0;
        return options;
    }

    // A process that runs a file of the test's.
    void Run(uint32_t pid, const std::string &name) { RunIn("/", pid, dir.Path() / name, dir.Path() / name); }
    // One that has a root of its own, below which it shows the file by another path.
    void RunIn(const std::filesystem::path &root, uint32_t pid, const std::string &file, const std::string &shown) {
        struct stat status {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        proc.SetThread(pid, kit::FakeProc::MakeTask(pid, "app"));
        proc.Write(fmt::format("{}/maps", pid),
                   fmt::format("1000-2000 r-xp 00000000 {:02x}:{:02x} {} {}\n", major(status.st_dev),
                               minor(status.st_dev), status.st_ino, shown));
        proc.Remove(fmt::format("{}/root", pid));
        proc.Link(fmt::format("{}/root", pid), root);
    }
    // As an installation does: the file is another one.
    void Install(const std::string &name, const std::string &text) {
        std::ofstream(dir.Path() / "aside") << text;
        std::filesystem::rename(dir.Path() / "aside", dir.Path() / name);
    }

    uint32_t Operate(uint32_t operation, uint32_t cancelled = 0) {
        const auto answer =
            kit::CallMethod<Tarn_sys_diag_Result>(TarnSetDimOpration, Tarn_sys_diag_DimSetIn{operation}, cancelled);
        answer.Wait();
        EXPECT_EQ(answer->uiResult != 0, answer.Reason() != "") << answer.Reason();
        return answer->uiResult;
    }
    auto Result() { return kit::CallMethod<Tarn_sys_diag_DimMeasRst>(TarnGetDimMeasRstByTarnd, Tarn_sys_diag_None{}); }
    void ExpectResult(uint32_t state, uint32_t differences, const std::string &text) {
        const auto result = Result();
        EXPECT_EQ(result->uiValue1, state);
        EXPECT_EQ(result->uiValue2, differences);
        EXPECT_EQ(std::string(result->acMeasResult), text);
    }
    std::string Baseline() { return kit::TextOfFile(state.Path() / "measurement-baseline.json"); }
};

TEST_F(MeasurementPartsTest, FindsAnExecutableThatWasChanged) {
    ExpectResult(measurement_state::kNone, 0, "nothing has been measured");
    Install("victim", "first");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kNoBaseline, 0, "no baseline; 1 files; 0 unread; 1 processes, 0 hidden");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 0 unread; 1 processes, 0 hidden");
    EXPECT_NE(Baseline().find(kDigestOfFirst), std::string::npos) << Baseline();
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "0 changed, 0 new of 1 files; 0 unread; 1 processes, 0 hidden");

    Install("victim", "second");
    Run(kFakePid + 1, "victim"); // the first process runs the older file, which has no name any more
    Install("other", "other");
    Run(kFakePid + 2, "other");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    const auto result = Result();
    EXPECT_EQ(result->uiValue1, measurement_state::kDiffers);
    EXPECT_EQ(result->uiValue2, 2);
    EXPECT_TRUE(std::string(result->acMeasResult)
                    .ends_with("/victim: 1 changed, 1 new of 2 files; 1 unread; 3 processes, 0 hidden"))
        << result->acMeasResult;

    Restart();
    EXPECT_EQ(Result()->uiValue1, measurement_state::kNone);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue2, 2) << "the baseline is kept";
    EXPECT_EQ(Operate(measurement_operation::kForget), 0);
    ExpectResult(measurement_state::kNone, 0, "nothing has been measured");
    EXPECT_EQ(Baseline().find(kDigestOfFirst), std::string::npos);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue1, measurement_state::kNoBaseline) << "it is forgotten at once";
}

TEST_F(MeasurementPartsTest, TellsTheJournalWhatDiffers) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    Install("victim", "second");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    Pass(1s);
    const std::vector<tarnd::NumberedEvent> events = daemon->history.EventsFrom(0, 10);
    ASSERT_EQ(events.size(), 1) << "and nothing of what was as it was recorded";
    EXPECT_EQ(events[0].kind, tarnd::EventKind::kIntegrity);
    EXPECT_EQ(events[0].text, std::string(Result()->acMeasResult));
}

TEST_F(MeasurementPartsTest, LearnsNewFilesWhenToldTo) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    Install("younger", "other");
    Run(kFakePid + 1, "younger");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue2, 1);
    daemon->measurement.SetMode(measurement_mode::kLearn);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "0 changed, 0 new of 2 files; 0 unread; 2 processes, 0 hidden");
    daemon->measurement.SetMode(measurement_mode::kReport);
    Restart();
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "0 changed, 0 new of 2 files; 0 unread; 2 processes, 0 hidden");
    daemon->measurement.SetMode(measurement_mode::kLearn);
    Install("younger", "changed");
    Run(kFakePid + 1, "younger");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue2, 1) << "what has changed is not learned";
}

TEST_F(MeasurementPartsTest, CountsProcessesAndReadsAFileOnce) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    Run(kFakePid + 1, "victim");
    proc.SetThread(kFakePid + 2, kit::FakeProc::MakeTask(kFakePid + 2, "kernel"));
    proc.Write(fmt::format("{}/maps", kFakePid + 2), "");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 0 unread; 2 processes, 0 hidden");
}

TEST_F(MeasurementPartsTest, FindsFilesBelowTheRootOfTheirProcess) {
    const std::filesystem::path root = dir.Path() / "jail";
    std::filesystem::create_directories(root / "bin");
    std::filesystem::create_directory_symlink("/bin", root / "link"); // within the root
    Install("jail/bin/app", "first");
    RunIn(root, kFakePid, root / "bin/app", "/link/app");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 0 unread; 1 processes, 0 hidden");
    EXPECT_NE(Baseline().find("\"/link/app\""), std::string::npos) << Baseline();
}

TEST_F(MeasurementPartsTest, ReadsAFileThatOnlyOneOfItsProcessesShows) {
    Install("victim", "first");
    std::filesystem::create_directory(dir.Path() / "empty");
    RunIn(dir.Path() / "empty", kFakePid, dir.Path() / "victim", dir.Path() / "victim");
    Run(kFakePid + 1, "victim");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 1 unread; 2 processes, 0 hidden");
}

TEST_F(MeasurementPartsTest, MissesNothingOfProcessesThatHaveEnded) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    std::filesystem::create_directory(dir.Path() / "empty");
    RunIn(dir.Path() / "empty", kFakePid + 1, dir.Path() / "victim", "/ended");
    proc.Remove(fmt::format("{}/stat", kFakePid + 1));
    proc.SetThread(kFakePid + 2, kit::FakeProc::MakeTask(kFakePid + 2, "has no maps any more"));
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 0 unread; 2 processes, 0 hidden");
}

TEST_F(MeasurementPartsTest, CountsWhatIsNoRegularFileAsUnread) {
    std::filesystem::create_directory(dir.Path() / "directory");
    Run(kFakePid, "directory");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kNoBaseline, 0, "no baseline; 0 files; 1 unread; 1 processes, 0 hidden");
}

TEST_F(MeasurementPartsTest, CountsProcessesThatMayNotBeLookedInto) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    std::filesystem::permissions(proc.Proc().Path(""), std::filesystem::perms::all);
    std::filesystem::permissions(proc.Proc().Path(kFakePid, "maps"), std::filesystem::perms::none);
    const kit::Nobody nobody;
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    ExpectResult(measurement_state::kNoBaseline, 0, "no baseline; 0 files; 0 unread; 0 processes, 1 hidden");
}

TEST_F(MeasurementPartsTest, NamesTheEndOfALongPath) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    const std::string name = std::string(200, 'x') + "-end";
    Install(name, "other");
    Run(kFakePid + 1, name);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    const std::string text = Result()->acMeasResult;
    EXPECT_EQ(text.size(), sizeof(Tarn_sys_diag_DimMeasRst::acMeasResult) - 1);
    EXPECT_TRUE(text.starts_with("...x")) << text;
    EXPECT_TRUE(text.ends_with("x-end: 0 changed, 1 new of 2 files; 0 unread; 2 processes, 0 hidden")) << text;

    const std::string shown = text.substr(0, text.find(": "));
    const std::string fits = std::string(shown.size() - dir.Path().string().size() - 1, 'y');
    Install(fits, "other");
    Run(kFakePid + 1, fits);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_TRUE(std::string(Result()->acMeasResult).starts_with((dir.Path() / fits).string() + ": ")) << "the whole";
}

TEST_F(MeasurementPartsTest, IsGivenUpWithItsCaller) {
    Install("victim", "first");
    Run(kFakePid, "victim");
    EXPECT_EQ(Operate(measurement_operation::kMeasure, ETIMEDOUT), ETIMEDOUT);
    EXPECT_EQ(Result()->uiValue1, measurement_state::kFailed);
    EXPECT_EQ(Operate(measurement_operation::kMeasure, ESHUTDOWN), ESHUTDOWN);
    EXPECT_EQ(Operate(measurement_operation::kMeasure, EALREADY), ECANCELED);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue1, measurement_state::kNoBaseline);
}

// A file takes no space and any size.
TEST_F(MeasurementPartsTest, LeavesOutWhatIsTooLarge) {
    Install("sparse", "x");
    std::filesystem::resize_file(dir.Path() / "sparse", 1ULL << 40);
    Run(kFakePid, "sparse");
    Install("victim", "first");
    Run(kFakePid + 1, "victim");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    ExpectResult(measurement_state::kAsRecorded, 0, "1 files recorded; 1 left out; 0 unread; 2 processes, 0 hidden");
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string sparse = dir.Path() / "sparse";
    EXPECT_NE(log.find(fmt::format("measurement: left out: {}: 1099511627776 bytes of user {}", sparse, geteuid())),
              log.npos)
        << log;
    ExpectResult(measurement_state::kAsRecorded, 0,
                 sparse + ": 0 changed, 0 new of 1 files; 1 left out; 0 unread; 2 processes, 0 hidden");

    std::filesystem::resize_file(dir.Path() / "victim", 1ULL << 40);
    EXPECT_EQ(Operate(measurement_operation::kMeasure), 0);
    EXPECT_EQ(Result()->uiValue1, measurement_state::kDiffers) << "what was recorded was not that large";
    EXPECT_EQ(Result()->uiValue2, 1);
}

// The measurements that nobody asks for.
class MeasurementByTimeTest : public MeasurementPartsTest {
protected:
    MeasurementByTimeTest() {
        Install("victim", "first");
        Run(kFakePid, "victim");
    }

    void SetTimes(uint8_t value1, uint8_t value2) {
        const Tarn_sys_diag_DimTimeCfg request{value1, value2};
        EXPECT_EQ(TarnSetDimTimeCfgByTarnd(&request), 0);
    }
    void SetMode(uint32_t mode) {
        const Tarn_sys_diag_DimWorkModeCfg request{mode};
        EXPECT_EQ(TarnSetDimWorkModeCfgByTarnd(&request), 0);
    }
    void SetClock(uint8_t hour, uint8_t minute, uint8_t second) {
        daemon->clock.SetLocal({2026, 6, 1, hour, minute, second, 0, 0});
        RunDue();
    }

    // Whether there was one since the last time that this was asked.
    bool Measured() {
        const auto done = [this] { return Result()->uiValue1 != measurement_state::kRuns; };
        if (!kit::Await("the measurement has ended", done)) {
            return false;
        }
        const bool measured = Result()->uiValue1 != measurement_state::kNone;
        if (measured) {
            EXPECT_EQ(Operate(measurement_operation::kForget), 0);
        }
        return measured;
    }
    // How many there are while time passes.
    int Measurements(std::chrono::nanoseconds step, int steps) {
        int number = 0;
        for (int i = 0; i < steps && !HasFailure(); ++i) {
            Pass(step);
            number += Measured() ? 1 : 0;
        }
        return number;
    }
};

TEST_F(MeasurementByTimeTest, RunsPeriodically) {
    EXPECT_EQ(Measurements(1h, 30), 0) << "until it is told to";
    SetTimes(measurement_time::kEverySeconds, 7);
    EXPECT_EQ(Measurements(1s, 6), 0);
    EXPECT_EQ(Measurements(1s, 1), 1);
    EXPECT_EQ(Measurements(1s, 70), 10);
    SetTimes(measurement_time::kEveryMinutes, 7);
    EXPECT_EQ(Measurements(1s, 419), 0);
    EXPECT_EQ(Measurements(1s, 1), 1);
    EXPECT_EQ(Measurements(1min, 70), 10);
    SetTimes(measurement_time::kEveryMinutes, 0);
    EXPECT_EQ(Measurements(1min, 70), 0);
}

TEST_F(MeasurementByTimeTest, DoesNotRunWhileItIsOff) {
    SetMode(measurement_mode::kOff);
    SetTimes(measurement_time::kEverySeconds, 5);
    EXPECT_EQ(Measurements(1s, 20), 0);
    SetTimes(3, 30);
    EXPECT_EQ(Measurements(1min, 25 * 60), 0);
    SetTimes(measurement_time::kEverySeconds, 5);
    SetMode(measurement_mode::kLearn);
    EXPECT_EQ(Measurements(1s, 20), 4);
    SetMode(measurement_mode::kOff);
    EXPECT_EQ(Measurements(1s, 20), 0);
}

TEST_F(MeasurementByTimeTest, KeepsItsTimesBeyondARestart) {
    SetTimes(measurement_time::kEverySeconds, 5);
    Restart();
    EXPECT_EQ(Measurements(1s, 20), 4);
    SetTimes(3, 30);
    Restart();
    EXPECT_EQ(Measurements(1min, 24 * 60), 1);
}

TEST_F(MeasurementByTimeTest, RunsAtATimeOfDay) {
    SetTimes(3, 30); // it is 22:13:20
    EXPECT_EQ(Measurements(1min, 5 * 60 + 16), 0);
    EXPECT_EQ(Measurements(1s, 39), 0) << "03:29:59";
    EXPECT_EQ(Measurements(1s, 1), 1);
    EXPECT_EQ(Measurements(1min, 24 * 60 - 1), 0);
    EXPECT_EQ(Measurements(1min, 1), 1);
    SetTimes(0, 0);
    EXPECT_EQ(Measurements(1min, 20 * 60 + 29), 0);
    EXPECT_EQ(Measurements(1min, 1), 1) << "midnight";
}

TEST_F(MeasurementByTimeTest, RunsByTheDaemonsClock) {
    SetTimes(3, 30);
    SetClock(4, 29, 58);
    EXPECT_EQ(Measurements(1s, 3), 0);
    SetClock(3, 29, 58);
    EXPECT_EQ(Measurements(1s, 1), 0);
    EXPECT_EQ(Measurements(1s, 1), 1);
    SetClock(2, 29, 58);
    daemon->clock.SetZone({"east", 60}, tarnd::Source::kClient);
    RunDue();
    EXPECT_EQ(Measurements(1s, 1), 0);
    EXPECT_EQ(Measurements(1s, 1), 1);
}

TEST_F(MeasurementByTimeTest, NoticesThatTheSystemsClockWasSet) {
    SetTimes(3, 30);
    SetClock(1, 0, 0);
    clocks.SetWall(clocks.WallNow() + 2h + 29min);
    EXPECT_EQ(Measurements(1s, 59), 0);
    EXPECT_EQ(Measurements(1s, 1), 1) << "which nobody tells it";
}

TEST_F(MeasurementByTimeTest, RunsPeriodicallyWhateverClocksShow) {
    SetTimes(measurement_time::kEverySeconds, 10);
    EXPECT_EQ(Measurements(1s, 5), 0);
    SetClock(3, 29, 58);
    EXPECT_EQ(Measurements(1s, 4), 0);
    EXPECT_EQ(Measurements(1s, 1), 1);
}

// A pass over the files that stands still until the test lets it go on.
class HeldMeasurementTest : public MeasurementByTimeTest {
protected:
    using Answers = std::vector<uint32_t>;

    // Asks for a measurement whose answer goes to the list.
    bool Ask(
        uint32_t operation, Answers &answers, std::function<uint32_t()> unwanted = [] { return 0U; }) {
        return daemon->measurement.Operate(operation,
                                           {std::move(unwanted), [this, &answers](const host::Failure &failure) {
                                                {
                                                    const std::lock_guard lock(mutex_);
                                                    answers.push_back(failure.error);
                                                }
                                                answered_.notify_all();
                                            }});
    }
    // The first, which holds the pass.
    void Hold(Answers &answers) {
        Ask(measurement_operation::kMeasure, answers, [this] {
            if (!held_.exchange(true)) {
                started_.set_value();
                go_.get_future().wait();
            }
            return 0U;
        });
        started_.get_future().wait();
    }
    void GoOn() { go_.set_value(); }
    void WaitFor(const Answers &answers, size_t number) {
        std::unique_lock lock(mutex_);
        answered_.wait(lock, [&] { return answers.size() == number; });
    }

    static size_t PassesIn(const std::string &log) {
        size_t passes = 0;
        for (size_t at = 0; (at = log.find("MB read)", at)) != log.npos; ++at) {
            ++passes;
        }
        return passes;
    }

    std::atomic<bool> held_ = false;
    std::promise<void> started_, go_;
    std::mutex mutex_;
    std::condition_variable answered_;
};

TEST_F(HeldMeasurementTest, AnswersAllThatWaitWithOnePass) {
    testing::internal::CaptureStderr();
    Answers answers;
    Hold(answers);
    EXPECT_EQ(Result()->uiValue1, measurement_state::kRuns);
    clocks.Advance(5s);
    for (int i = 0; i < 11; ++i) {
        EXPECT_TRUE(Ask(measurement_operation::kMeasure, answers));
    }
    EXPECT_EQ(std::string(Result()->acMeasResult), "asked for at 2023-11-14 22:13:20 +0000, not done yet")
        << "the one that runs";
    GoOn();
    WaitFor(answers, 12);
    EXPECT_EQ(answers, Answers(12, 0));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(PassesIn(log), 2) << log;
}

TEST_F(HeldMeasurementTest, IsDoneForThoseThatStillWantIt) {
    Answers first, gone, stayed;
    Hold(first);
    Ask(measurement_operation::kMeasure, gone, [] { return uint32_t{ETIMEDOUT}; });
    Ask(measurement_operation::kMeasure, stayed);
    GoOn();
    WaitFor(stayed, 1);
    EXPECT_EQ(stayed, Answers(1, 0));
    EXPECT_EQ(gone, Answers(1, ETIMEDOUT));
}

TEST_F(HeldMeasurementTest, IsNotDueWhileOneRuns) {
    testing::internal::CaptureStderr();
    Answers answers;
    Hold(answers);
    SetTimes(measurement_time::kEverySeconds, 1);
    Pass(1s, 5);
    GoOn();
    WaitFor(answers, 1);
    EXPECT_TRUE(Measured());
    EXPECT_EQ(Measurements(1s, 1), 1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(PassesIn(log), 2) << log;
}

TEST_F(HeldMeasurementTest, LetsOnlySoManyWait) {
    Answers answers;
    Hold(answers);
    for (size_t i = 1; i < tarnd::Measurement::kMaxJobs; ++i) {
        EXPECT_TRUE(Ask(measurement_operation::kRecord, answers));
    }
    EXPECT_EQ(Operate(measurement_operation::kMeasure), EBUSY);
    GoOn();
    WaitFor(answers, tarnd::Measurement::kMaxJobs);
    EXPECT_EQ(answers, Answers(tarnd::Measurement::kMaxJobs, 0));
    EXPECT_EQ(Result()->uiValue1, measurement_state::kAsRecorded);
}

TEST_F(HeldMeasurementTest, IsGivenUpWhenToldTo) {
    Answers answers, later;
    Hold(answers);
    Ask(measurement_operation::kMeasure, answers);
    EXPECT_EQ(Operate(measurement_operation::kCancel), 0);
    Ask(measurement_operation::kRecord, later);
    GoOn();
    WaitFor(answers, 2);
    EXPECT_EQ(answers, Answers(2, ECANCELED));
    WaitFor(later, 1);
    EXPECT_EQ(later, Answers(1, 0)) << "the next one is not given up with it";
}

// A pass may take long, and be given up.
TEST_F(HeldMeasurementTest, TellsOfDifferencesAsItFindsThem) {
    EXPECT_EQ(Operate(measurement_operation::kRecord), 0);
    Install("victim", "second");
    Run(kFakePid, "victim");
    Install("other", "other");
    Run(kFakePid + 1, "other");
    int checks = 0;
    Answers answers;
    std::string log;
    testing::internal::CaptureStderr();
    Ask(measurement_operation::kMeasure, answers, [&] {
        if (++checks == 5) { // two processes, each with a file of one block: the second file
            EXPECT_EQ(Result()->uiValue1, measurement_state::kRuns);
            EXPECT_EQ(Result()->uiValue2, 1);
            EXPECT_TRUE(std::string(Result()->acMeasResult).ends_with(", not done yet; 1 changed, 0 new so far"))
                << Result()->acMeasResult;
            log = testing::internal::GetCapturedStderr();
        }
        return 0U;
    });
    WaitFor(answers, 1);
    EXPECT_NE(log.find("measurement: changed: "), log.npos) << log;
    EXPECT_EQ(Result()->uiValue2, 2);
}

TEST_F(HeldMeasurementTest, AnswersOnceWhenTheDaemonEnds) {
    Answers answers;
    Hold(answers);
    Ask(measurement_operation::kRecord, answers);
    std::thread end([this] { Stop(); });
    GoOn();
    end.join();
    ASSERT_EQ(answers.size(), 2);
    EXPECT_TRUE(answers[1] == ESHUTDOWN || answers[1] == 0);
}

TEST_F(MeasurementPartsTest, RefusesWhatItDoesNotKnow) {
    EXPECT_EQ(Operate(measurement_operation::kStart), 0);
    const auto times = [](uint8_t hour, uint8_t minute) {
        const Tarn_sys_diag_DimTimeCfg request{hour, minute};
        return TarnSetDimTimeCfgByTarnd(&request);
    };
    EXPECT_EQ(times(253, 0), EINVAL);
    EXPECT_EQ(times(23, 59), 0);
    EXPECT_EQ(times(measurement_time::kEverySeconds, 200), 0);
    EXPECT_EQ(times(measurement_time::kEveryMinutes, 0), 0);
    const auto mode = [](uint32_t value) {
        const Tarn_sys_diag_DimWorkModeCfg request{value};
        return TarnSetDimWorkModeCfgByTarnd(&request);
    };
    EXPECT_EQ(mode(measurement_mode::kOff), 0);
    const std::string kept = kit::TextOfFile(state.Path() / "measurement.json");
    EXPECT_NE(kept.find("\"hour\": 255"), kept.npos) << kept;
    EXPECT_NE(kept.find("\"client\": 0"), kept.npos) << kept;
}

// Why a method without reply refuses a request.
template <class Request>
std::string RefusalOf(uint32_t (*method)(const Request *), const Request &request) {
    kit::ReplyContext context;
    const kit::RunningMethod running(context);
    EXPECT_EQ(method(&request), EINVAL);
    return context.reason;
}

TEST_F(MeasurementPartsTest, SaysWhatItExpects) {
    const auto operation = [](uint32_t value) {
        return kit::CallMethod<Tarn_sys_diag_Result>(TarnSetDimOpration, Tarn_sys_diag_DimSetIn{value}).Reason();
    };
    const auto time = [](uint8_t hour, uint8_t minute) {
        return RefusalOf(TarnSetDimTimeCfgByTarnd, Tarn_sys_diag_DimTimeCfg{hour, minute});
    };
    const auto mode = [](uint32_t value) {
        return RefusalOf(TarnSetDimWorkModeCfgByTarnd, Tarn_sys_diag_DimWorkModeCfg{value});
    };
    EXPECT_EQ(operation(0),
              "operation (uiOperation) is 0, expected measure (1), record (2), forget (3), cancel (4) or start (5)");
    EXPECT_EQ(operation(6),
              "operation (uiOperation) is 6, expected measure (1), record (2), forget (3), cancel (4) or start (5)");
    EXPECT_EQ(time(24, 0), "hour (ucValue1) is 24, expected every-seconds (254) or every-minutes (255) or 0 to 23");
    EXPECT_EQ(time(23, 60), "minute (ucValue2) is 60, expected 0 to 59, a minute of the hour");
    EXPECT_EQ(mode(3), "mode (uiWorkMode) is 3, expected off (0), report (1) or learn (2)");
}

TEST_F(MeasurementPartsTest, TakesNothingOverOfSettingsThatMakeNoSense) {
    struct Settings {
        uint32_t hour, minute, mode;
    };
    for (const auto &[hour, minute, mode] : {Settings{24, 0, 2}, Settings{23, 60, 2}, Settings{254, 1, 3}}) {
        daemon->store.Save("measurement", 1,
                           host::Document::Object{{"hour", hour}, {"minute", minute}, {"mode", mode}});
        testing::internal::CaptureStderr();
        Restart();
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("set aside as measurement.json.damaged"), log.npos) << log;
        Pass(1s, 3);
        EXPECT_EQ(Result()->uiValue1, measurement_state::kNone) << "it is not measured by time";
    }
}

TEST(MeasurementTimes, AreATimeOfDayOrAPeriod) {
    using tarnd::MeasurementTimes;
    EXPECT_EQ((MeasurementTimes{measurement_time::kEverySeconds, 7}.Period()), 7s);
    EXPECT_EQ((MeasurementTimes{measurement_time::kEveryMinutes, 7}.Period()), 7min);
    EXPECT_EQ((MeasurementTimes{3, 30}.Period()), 0s);
    EXPECT_TRUE((MeasurementTimes{measurement_time::kEverySeconds, 0}.IsNever()));
    EXPECT_FALSE((MeasurementTimes{measurement_time::kEverySeconds, 1}.IsNever()));
    EXPECT_FALSE((MeasurementTimes{0, 0}.IsNever())) << "midnight";
}

TEST(Images, AreTheFilesThatHoldCode) {
    const std::vector<tarnd::Image> images =
        tarnd::ParseImages("1000-2000 r--p 00000000 fe:01 17 /bin/app~\n"
                           "2000-3000 r-xp 00001000 fe:01 17 /bin/app~\n"
                           "3000-4000 r-xp 00001000 fe:01 17 /bin/app~\n"
                           "4000-5000 r-xp 00000000 fe:01 18 /lib/a b\\012c\xFF\\d.so (deleted)\n"
                           "5000-6000 rwxp 00000000 00:00 0\n"
                           "6000-7000 r-xp 00000000 00:00 0 [vdso]\n"
                           "7000-8000 r-xs 00000000 00:01 19 /memfd:code (deleted)\n"
                           "8000-9000 r-xs 00000000 00:01 20 /dev/zero (deleted)\n"
                           "9000-a000 r-xs 00000000 00:01 21 /SYSV00000000 (deleted)\n"
                           "a000-b000 r-xs 00000000 00:0e 22 anon_inode:[code]\n");
    ASSERT_EQ(images.size(), 2);
    EXPECT_EQ(images[0].path, "/bin/app~");
    EXPECT_EQ(images[0].name, "/bin/app~");
    EXPECT_EQ(images[0].mapping, "2000-3000");
    EXPECT_EQ(images[0].device, "fe:01");
    EXPECT_EQ(images[0].inode, 17);
    EXPECT_EQ(images[1].path, "/lib/a b\nc\xFF\\d.so");
    EXPECT_EQ(images[1].name, "/lib/a b\\x0ac\\xff\\x5cd.so");
}

// One pass over processes after the other, with what it remembers.
class SurveyTest : public testing::Test {
protected:
    SurveyTest() { clocks_.SetWall(std::chrono::system_clock::now() + 1h); } // the files were written long ago

    void Write(const std::string &name, size_t size) { std::ofstream(dir_.Path() / name) << std::string(size, 'x'); }
    void Run(uint32_t pid, const std::string &name) {
        const std::string file = dir_.Path() / name;
        struct stat status {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        proc_.SetThread(pid, kit::FakeProc::MakeTask(pid, "app"));
        proc_.Write(fmt::format("{}/maps", pid),
                    fmt::format("1000-2000 r-xp 00000000 fe:01 {} {}\n", status.st_ino, file));
        proc_.Remove(fmt::format("{}/root", pid));
        proc_.Link(fmt::format("{}/root", pid), "/");
    }
    void RunNothing(uint32_t pid) {
        proc_.SetThread(pid, kit::FakeProc::MakeTask(pid, "kernel"));
        proc_.Write(fmt::format("{}/maps", pid), "");
    }
    // How often it is asked whether it is still wanted.
    int ChecksOfAPass() {
        int checks = 0;
        last_ = SurveyFiles(
            proc_, digests_, tarnd::ReadingBudget(limits_, kOwn), [&] { ++checks; }, [](const auto &) {});
        return checks;
    }

    static constexpr uid_t kOwn = 12345;
    const kit::TempDir dir_;
    kit::FakeProc proc_;
    kit::ManualClocks clocks_;
    tarnd::ReadingBudget::Limits limits_;
    tarnd::Survey last_;
    tarnd::Digests digests_{clocks_, 0, [](host::SteadyTime) {}};
};

TEST_F(SurveyTest, AsksAtEachProcessFileAndBlockWhetherItIsWanted) {
    RunNothing(kFakePid);
    RunNothing(kFakePid + 1);
    EXPECT_EQ(ChecksOfAPass(), 2);
    Write("large", 600 << 10);
    Run(kFakePid, "large");
    EXPECT_EQ(ChecksOfAPass(), 2 + 1 + 3) << "three blocks";
    EXPECT_EQ(ChecksOfAPass(), 2 + 1) << "it is known";
}

TEST_F(SurveyTest, ForgetsFilesThatNoProcessRunsAnyMore) {
    Write("file", 10);
    Run(kFakePid, "file");
    ChecksOfAPass();
    ChecksOfAPass();
    EXPECT_EQ(digests_.BytesRead(), 10);
    proc_.RemoveProcess(kFakePid);
    ChecksOfAPass();
    Run(kFakePid, "file");
    ChecksOfAPass();
    EXPECT_EQ(digests_.BytesRead(), 20);
}

TEST_F(SurveyTest, HoldsUsersToABudget) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of others take root to make";
    }
    limits_ = {.file = 4U << 20, .owner = 8U << 20, .all = 12U << 20};
    const auto run = [&](uint32_t pid, uid_t owner, size_t size) {
        const std::string name = std::to_string(pid);
        Write(name, size);
        ASSERT_EQ(chown((dir_.Path() / name).c_str(), owner, owner), 0);
        Run(pid, name);
    };
    for (uint32_t i = 0; i < 10; ++i) {
        run(kFakePid + i, i < 4 ? 1001 : i < 8 ? 1002 : i == 8 ? kOwn : 0, 3U << 20);
    }
    run(kFakePid + 10, 0, 5U << 20);
    ChecksOfAPass();
    EXPECT_EQ(last_.files.size(), 2 + 1 + 2) << "two of the first user, one of the second, and the trusted ones' all";
    EXPECT_EQ(last_.leftOut, 2 + 3 + 1);
    EXPECT_EQ(last_.firstLeftOut, dir_.Path() / std::to_string(kFakePid + 2));
    EXPECT_EQ(digests_.BytesRead(), 15U << 20);
}

TEST_F(SurveyTest, HoldsUsersWithManySmallFilesToABudget) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of others take root to make";
    }
    limits_.owner = 10U << 20;
    for (uint32_t i = 0; i < 50; ++i) {
        const std::string name = std::to_string(1000 + i);
        Write(name, 1);
        ASSERT_EQ(chown((dir_.Path() / name).c_str(), 1001, 1001), 0);
        Run(kFakePid + i, name);
    }
    ChecksOfAPass();
    EXPECT_GT(last_.files.size(), 10);
    EXPECT_LT(last_.files.size(), 45);
    EXPECT_EQ(last_.files.size() + last_.leftOut, 50);
}

class DigestsTest : public testing::Test {
protected:
    DigestsTest() {
        std::ofstream(path_) << "first";
        clocks_.SetWall(std::chrono::system_clock::now() + 1h); // the file was written long ago
    }
    std::string Of() {
        const host::Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC), path_);
        return digests_.Of(file, file.Status(), [] {});
    }

    const kit::TempDir dir_;
    const std::string path_ = dir_.Path() / "file";
    kit::ManualClocks clocks_;
    std::vector<host::SteadyTime> waits_;
    tarnd::Digests digests_{clocks_, 1 << 20, [this](host::SteadyTime until) {
                                waits_.push_back(until);
                                clocks_.Advance(std::max(until - clocks_.SteadyNow(), 0ns));
                            }};
};

TEST_F(DigestsTest, AreRememberedWhileAFileStaysTheSame) {
    EXPECT_EQ(Of(), kDigestOfFirst);
    EXPECT_EQ(digests_.BytesRead(), 5);
    EXPECT_EQ(Of(), kDigestOfFirst);
    EXPECT_EQ(digests_.BytesRead(), 5);
    digests_.ForgetUnused();
    EXPECT_EQ(Of(), kDigestOfFirst);
    EXPECT_EQ(digests_.BytesRead(), 5) << "it was asked for since";
    digests_.ForgetUnused();
    Of();
    EXPECT_EQ(digests_.BytesRead(), 5) << "and again";
    digests_.ForgetUnused();
    digests_.ForgetUnused();
    Of();
    EXPECT_EQ(digests_.BytesRead(), 10);
    std::ofstream(path_) << "other";
    EXPECT_NE(Of(), kDigestOfFirst) << "of the same size";
    EXPECT_EQ(digests_.BytesRead(), 15);
}

TEST_F(DigestsTest, AreNotRememberedOfAFileThatWasJustWritten) {
    clocks_.SetWall(std::chrono::system_clock::now());
    Of();
    Of();
    EXPECT_EQ(digests_.BytesRead(), 10);
}

// A file that grows as fast as it is read would never end.
TEST_F(DigestsTest, AreOfAsManyBytesAsThereWere) {
    std::ofstream(path_) << std::string(1 << 20, 'x');
    const host::Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC), path_);
    const auto grow = [&] { std::ofstream(path_, std::ios::app) << std::string(300 << 10, 'y'); };
    digests_.Of(file, file.Status(), grow);
    EXPECT_EQ(digests_.BytesRead(), 1 << 20);
}

TEST_F(DigestsTest, AreReadAtAPace) {
    std::filesystem::resize_file(path_, 4U << 20);
    const host::SteadyTime start = clocks_.SteadyNow();
    Of();
    EXPECT_EQ(clocks_.SteadyNow() - start, 4s);
    ASSERT_EQ(waits_.size(), 16);
    EXPECT_EQ(waits_[0] - start, 250ms);

    clocks_.Advance(100s);
    std::filesystem::resize_file(path_, 2U << 20);
    const host::SteadyTime later = clocks_.SteadyNow();
    Of();
    EXPECT_EQ(clocks_.SteadyNow() - later, 2s) << "time that was not used is not saved up";
}

} // namespace
