// What the daemon makes of the use of memory, on a machine and by clocks that are the test's: indicators, overloads,
// leaks and history.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/method_kit.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
namespace memory_report = host::meaning::memory_report;
namespace overload_monitor = host::meaning::overload_monitor;

class MemoryWatchTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    MemoryWatchTest() : SimulatedDaemon(Kept()) { daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient); }

    // All memory is 1000000 KiB.
    void Use(uint64_t kib) { machine.memory.available = 1'000'000 - kib; }

    auto SetAnswer(uint32_t beginsAt, uint32_t endsBelow) {
        return kit::CallMethod<Tarn_sys_diag_OperResult>(SysOvLoadMemThresholdSet,
                                                         Tarn_sys_diag_SysOvLoadMemThreshold{beginsAt, endsBelow});
    }
    uint32_t Set(uint32_t beginsAt, uint32_t endsBelow) { return SetAnswer(beginsAt, endsBelow)->uiResult; }
    auto ClearAnswer(std::string_view what, std::string_view pattern = "") {
        Tarn_sys_diag_ClearEnvActInput request{};
        what.copy(request.acValue1, sizeof request.acValue1);
        pattern.copy(request.acValue2, sizeof request.acValue2);
        return kit::CallMethod<Tarn_sys_diag_Result>(ClearEnvAct, request);
    }
    uint32_t Clear(std::string_view what, std::string_view pattern = "") {
        return ClearAnswer(what, pattern)->uiResult;
    }
    auto Configuration() {
        return kit::CallMethod<Tarn_sys_diag_GetSysMemOverloadCfgOutput>(GetSysMemOverloadCfg, Tarn_sys_diag_None{});
    }
    auto Switch() {
        return kit::CallMethod<Tarn_sys_diag_GetSysMemOverloadSwOutput>(GetSysMemOverloadSw, Tarn_sys_diag_None{});
    }
    auto Record() {
        return kit::CallMethod<Tarn_sys_diag_GetSysMemOverloadStatOutput>(GetSysMemOverloadStat, Tarn_sys_diag_None{});
    }
    auto Query(uint32_t kind, uint32_t pid = 0, uint32_t seconds = 0, uint32_t limit = 0, uint32_t cancelled = 0) {
        return kit::CallMethod<Tarn_sys_diag_MemLeakQryOut>(
            MemLeakOrHisQry, Tarn_sys_diag_MemLeakQryIn{kind, pid, seconds, limit}, cancelled);
    }
    std::string Text(uint32_t kind, uint32_t pid = 0, uint32_t seconds = 0, uint32_t limit = 0) {
        return Query(kind, pid, seconds, limit)->acLeakInfo;
    }
    // So many seconds of a process that takes memory.
    void Grow(uint32_t pid, uint64_t kibPerSecond, int seconds) {
        for (int i = 0; i < seconds; ++i) {
            machine.processes.at(pid).rssKb += kibPerSecond;
            Pass(1s);
        }
    }
    static std::string Row(uint32_t pid, const std::string &name, uint64_t rss, uint64_t grown, uint64_t rate,
                           uint64_t over) {
        return fmt::format("{:>8} {:<16} {:>12} {:>12} {:>10} {:>8} {:>8}\n", pid, name, rss, grown, rate, 0, over);
    }

    const std::string suspects_ = fmt::format("{:>8} {:<16} {:>12} {:>12} {:>10} {:>8} {:>8}\n", "PID", "NAME",
                                              "RSS KiB", "GROWN KiB", "KiB/min", "+/-", "OVER s");
};

TEST_F(MemoryWatchTest, IndicatesTheUseOfMemory) {
    const auto kpi = [] {
        return kit::CallMethod<Tarn_sys_diag_DisOsResourceInfoRet>(GetKpiMemoryInfo,
                                                                   Tarn_sys_diag_DisOsResourceInfoInput{});
    };
    EXPECT_EQ(kpi()->uiValue1, 400) << "of the first sample";
    EXPECT_EQ(kpi()->uiValue2, 400);
    Use(900'000);
    Pass(1s);
    Use(500'000);
    Pass(1s, 60);
    const auto answer = kpi();
    EXPECT_EQ(std::string(answer->acName), "memory");
    EXPECT_EQ(answer->uiValue1, 500);
    EXPECT_EQ(answer->uiValue2, 500) << "what was a minute ago is over";
    EXPECT_EQ(answer->uiValue3, 900);
    EXPECT_EQ(answer->uiValue4, 500'000) << "KiB";
    Use(600'000);
    Pass(1s);
    EXPECT_EQ(kpi()->uiValue1, 600);
    EXPECT_EQ(kpi()->uiValue2, (59 * 500 + 600) / 60);
    machine.memory.total = uint64_t{1} << 34;
    machine.memory.available = uint64_t{1} << 33;
    Pass(1s);
    EXPECT_EQ(kpi()->uiValue4, UINT32_MAX) << "more than a member holds";
}

TEST_F(MemoryWatchTest, TakesNoMoreThanAllForUsed) {
    machine.memory.available = machine.memory.total + 1;
    Pass(1s);
    EXPECT_EQ(Configuration()->uiValue3, 0);
    machine.memory = {};
    Pass(1s);
    EXPECT_EQ(Configuration()->uiValue3, 0);
}

TEST_F(MemoryWatchTest, TakesNoThresholdsThatMakeNoSense) {
    // As the master tells them, which nobody has checked.
    EXPECT_THROW(daemon->memoryOverload.Set({1001, 900}), std::system_error);
    EXPECT_THROW(daemon->memoryOverload.Set({700, 701}), std::system_error);
    EXPECT_EQ(Configuration()->uiValue1, 900);
}

TEST_F(MemoryWatchTest, RecordsOverloads) {
    machine.Add(10, "small").rssKb = 5000;
    machine.Add(11, "lar\nge").rssKb = 9000;
    machine.Add(12, "other").rssKb = 8000;
    EXPECT_EQ(Set(900, 850), 0);
    Use(899'999);
    Pass(1s);
    EXPECT_EQ(Record()->uiValue1, 0);
    Use(900'000);
    Pass(1s);
    EXPECT_EQ(Record()->uiValue1, 1);
    EXPECT_EQ(Configuration()->uiValue3, 900);
    EXPECT_EQ(Configuration()->uiValue5, 1);
    Use(850'000);
    Pass(1s, 5);
    EXPECT_EQ(Record()->uiValue1, 1) << "not below yet";
    EXPECT_EQ(Record()->uiRecordNum, 1);
    Use(849'999);
    Pass(1s);
    const auto record = Record();
    EXPECT_EQ(record->uiValue1, 0);
    ASSERT_EQ(record->uiRecordNum, 2);
    EXPECT_EQ(record->pstRecord[0].ucValue1, 1);
    EXPECT_EQ(record->pstRecord[1].ucValue1, 0);
    EXPECT_EQ(record->pstRecord[0].stTime.ucHour, 22);
    EXPECT_EQ(record->pstRecord[0].stTime.ucMinute, 13);
    EXPECT_EQ(record->pstRecord[0].stTime.ucSecond, 22);
    EXPECT_EQ(record->pstRecord[1].stTime.ucSecond, 28);
    EXPECT_EQ(Configuration()->uiValue5, 1) << "overloads, not their ends";
    EXPECT_EQ(Text(memory_report::kOverloads),
              "TIME                      OVERLOAD  IN USE      PID NAME                  RSS KiB\n"
              "2023-11-14 22:13:22 +0000 begins       900       11 lar ge                   9000\n"
              "2023-11-14 22:13:28 +0000 ends         849       11 lar ge                   9000\n");
}

TEST_F(MemoryWatchTest, KeepsTheNewestOverloadsUntilTheyAreCleared) {
    EXPECT_EQ(Set(900, 0), 0);
    EXPECT_EQ(Configuration()->uiValue2, 900) << "the same";
    for (int i = 0; i < 150; ++i) {
        Use(950'000);
        Pass(1s);
        Use(100'000);
        Pass(1s);
    }
    const auto record = Record();
    ASSERT_EQ(record->uiRecordNum, tarnd::MemoryOverload::kEvents);
    EXPECT_EQ(record->pstRecord[0].ucValue1, 1);
    EXPECT_EQ(record->pstRecord[255].stTime.ucMinute, 18) << "300 s after the start";
    EXPECT_EQ(record->pstRecord[255].stTime.ucSecond, 20);
    EXPECT_EQ(Configuration()->uiValue5, 150);
    Use(950'000);
    Pass(1s);
    EXPECT_EQ(Clear("overload"), 0);
    EXPECT_EQ(Record()->uiRecordNum, 0);
    EXPECT_EQ(Record()->uiValue1, 0);
    EXPECT_EQ(Configuration()->uiValue5, 0);
    Pass(1s);
    EXPECT_EQ(Record()->uiRecordNum, 1) << "it lasts";
}

TEST_F(MemoryWatchTest, KeepsItsThresholds) {
    EXPECT_EQ(Configuration()->uiValue1, 900) << "until they are set";
    EXPECT_EQ(Configuration()->uiValue2, 850);
    EXPECT_EQ(Configuration()->uiValue4, 1000) << "ms between two samples";
    EXPECT_EQ(Switch()->uiSwitch, 1);
    EXPECT_EQ(Set(1001, 0), EINVAL);
    EXPECT_EQ(Set(700, 701), EINVAL);
    EXPECT_EQ(Configuration()->uiValue1, 900) << "as before";
    EXPECT_EQ(Set(1000, 1000), 0) << "as much as there is";
    EXPECT_EQ(Set(700, 600), 0);
    Restart();
    EXPECT_EQ(Configuration()->uiValue1, 700);
    EXPECT_EQ(Configuration()->uiValue2, 600);
    EXPECT_EQ(Set(0, 0), 0);
    EXPECT_EQ(Switch()->uiSwitch, 0);
    Use(1'000'000);
    Pass(1s);
    EXPECT_EQ(Record()->uiRecordNum, 0) << "it is off";
}

TEST_F(MemoryWatchTest, TakesNothingOverOfThresholdsThatMakeNoSense) {
    for (const auto &[over, recover] : {std::pair(1001U, 900U), std::pair(700U, 701U)}) {
        daemon->store.Save("memory-overload", 1, host::Document::Object{{"over", over}, {"recover", recover}});
        Restart();
        EXPECT_EQ(Configuration()->uiValue1, 900);
        EXPECT_EQ(Configuration()->uiValue2, 850);
        EXPECT_TRUE(std::filesystem::exists(state.Path() / "memory-overload.json.damaged"));
        std::filesystem::remove(state.Path() / "memory-overload.json.damaged");
    }
}

TEST_F(MemoryWatchTest, IsAsBeforeWhenThresholdsCantBeKept) {
    EXPECT_EQ(Set(700, 600), 0);
    std::filesystem::remove(state.Path() / "memory-overload.json");
    std::filesystem::create_directory(state.Path() / "memory-overload.json");
    EXPECT_EQ(Set(500, 400), EISDIR);
    EXPECT_EQ(Configuration()->uiValue1, 700);
    EXPECT_EQ(Configuration()->uiValue2, 600);
}

TEST_F(MemoryWatchTest, TellsWhetherItsMonitorIsOn) {
    EXPECT_EQ(Switch()->ucValue2, 0);
    const auto debug = [](uint32_t monitors, uint32_t on) {
        return kit::CallMethod<Tarn_sys_diag_Result>(SetOvLoadDebugSwitch,
                                                     Tarn_sys_diag_SetOvLoadDebugSwitchInput{monitors, on})
            ->uiResult;
    };
    EXPECT_EQ(debug(overload_monitor::kCpu, 1), 0);
    EXPECT_EQ(Switch()->ucValue2, 0);
    EXPECT_EQ(debug(overload_monitor::kMemory, 1), 0);
    EXPECT_EQ(Switch()->ucValue2, 1);
}

TEST_F(MemoryWatchTest, SuspectsWhatGrowsAndGrows) {
    machine.Add(10, "steady");
    machine.Add(11, "le\taky");
    machine.Add(12, "once");
    machine.Add(13, "wave");
    machine.Add(14, "slow");
    machine.Add(15, "small");
    Pass(1s);
    for (uint64_t i = 0; i < 600; ++i) {
        machine.processes.at(11).rssKb += 100;
        machine.processes.at(12).rssKb = i < 3 ? 1000 : 500'000;
        machine.processes.at(13).rssKb = 1000 + i % 90 * 10'000;
        machine.processes.at(14).rssKb += 33;
        machine.processes.at(15).rssKb += 1;
        Pass(1s);
    }
    // Of the points of 10 minutes the last quarter begins with the eighth.
    const std::string leaky = Row(11, "le aky", 61'000, 42'000, 6000, 540);
    const std::string slow = Row(14, "slow", 20'800, 13'860, 1980, 540);
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_ + leaky + slow) << "1 MiB at least, where nothing is asked for";
    EXPECT_EQ(Text(memory_report::kSuspects, 0, 0, 1), suspects_ + leaky + slow + Row(15, "small", 1600, 420, 60, 540));
    EXPECT_EQ(Text(memory_report::kSuspects, 0, 0, 13'860), suspects_ + leaky + slow);
    EXPECT_EQ(Text(memory_report::kSuspects, 0, 0, 13'861), suspects_ + leaky);
    EXPECT_EQ(Text(memory_report::kSuspects, 0, 0, 42'001), suspects_);
    EXPECT_EQ(Text(memory_report::kSuspects, 11), suspects_ + leaky);
    EXPECT_EQ(Text(memory_report::kSuspects, 10, 0, 1), suspects_);
    EXPECT_EQ(Text(memory_report::kSuspects, 11, 400), suspects_ + Row(11, "le aky", 61'000, 30'000, 6000, 360));
    EXPECT_EQ(Query(memory_report::kSuspects, 11, 299).Reason(),
              "interval (uiValue3) is 299 s, expected at least 300 s for suspects");
    EXPECT_EQ(Query(memory_report::kSuspects, 99).Status(), ESRCH);
    EXPECT_EQ(Query(memory_report::kSuspects, 0, 0, 0, ECANCELED).Status(), ECANCELED);
}

TEST_F(MemoryWatchTest, SuspectsNobodyWhoHasJustStarted) {
    Pass(1s, 600);
    machine.Add(10, "compiler");
    Grow(10, 20'000, 5);
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_);
    Grow(10, 20'000, 350);
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_) << "its first and last minute are 5 minutes apart next";
    Grow(10, 20'000, 10);
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_ + Row(10, "compiler", 7'301'000, 4'800'000, 1'200'000, 300));
}

// Of one minute in five somebody looks: the points are closer together then, and the growth is no other.
TEST_F(MemoryWatchTest, SuspectsTheSameWhoeverLooks) {
    machine.Add(10, "leaky");
    Pass(1s);
    for (int i = 0; i < 600; ++i) {
        somebodyLooks = i % 300 < 60;
        Grow(10, 100, 1);
    }
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_ + Row(10, "leaky", 61'000, 42'000, 6000, 540));
}

TEST(MemoryTrend, TellsHowSureItIs) {
    const auto trend = [](const std::vector<uint64_t> &kbEachMinute) {
        std::vector<tarnd::ProcessPoint> points;
        for (const uint64_t kb : kbEachMinute) {
            tarnd::ProcessPoint &point = points.emplace_back();
            point.at = host::SteadyTime(points.size() * 1min);
            point.rssKb = kb;
        }
        return tarnd::TrendOf(points);
    };
    EXPECT_DOUBLE_EQ(trend({100, 110, 120, 130}).kbPerMinute, 10);
    EXPECT_DOUBLE_EQ(trend({100, 110, 120, 130}).error, 0);
    EXPECT_DOUBLE_EQ(trend({1, 3, 2, 5, 4}).kbPerMinute, 0.8);
    EXPECT_NEAR(trend({1, 3, 2, 5, 4}).error, 0.693, 0.001);
    EXPECT_TRUE(trend({1, 3, 2, 5, 4}).Rises());
    EXPECT_FALSE(trend({1, 9, 2, 8, 4}).Rises());
    EXPECT_FALSE(trend({7, 7, 7, 7}).Rises());
    EXPECT_FALSE(trend({9, 8, 7, 6}).Rises());
}

TEST_F(MemoryWatchTest, ForgetsGrowthThatIsKnown) {
    machine.Add(10, "leaky");
    machine.Add(11, "other");
    Pass(1s);
    for (int i = 0; i < 600; ++i) {
        machine.processes.at(11).rssKb += 200;
        Grow(10, 100, 1);
    }
    EXPECT_EQ(Clear("leak", "lea*"), 0);
    EXPECT_EQ(Text(memory_report::kSuspects), suspects_ + Row(11, "other", 121'000, 84'000, 12'000, 540));
    Grow(10, 100, 400);
    EXPECT_EQ(Text(memory_report::kSuspects, 10), suspects_ + Row(10, "leaky", 101'000, 24'000, 6000, 300));
    EXPECT_EQ(Clear("leak"), 0);
    EXPECT_EQ(Text(memory_report::kSuspects, 0, 0, 1), suspects_) << "all";
}

TEST_F(MemoryWatchTest, TakesOnlySoManyMarks) {
    EXPECT_EQ(Clear(std::string(50, 'x'), std::string(50, 'x')), EINVAL);
    for (size_t i = 0; i < tarnd::MemoryLeaks::kPatterns; ++i) {
        EXPECT_EQ(Clear("leak", "name" + std::to_string(i)), 0);
    }
    EXPECT_EQ(Clear("leak", "one more"), ENOSPC);
    EXPECT_EQ(Clear("leak", "name0"), 0) << "again";
    EXPECT_EQ(Clear("leak"), 0) << "all";
    EXPECT_EQ(Clear("leak", "one more"), 0);
}

TEST_F(MemoryWatchTest, SaysWhatItExpects) {
    EXPECT_EQ(SetAnswer(1001, 0).Reason(), "begins-at (uiValue1) is 1001 ‰, expected 0 to 1000");
    EXPECT_EQ(SetAnswer(700, 701).Reason(),
              "ends-below (uiValue2) is 701 ‰, expected at most begins-at (uiValue1), which is 700 ‰");
    EXPECT_EQ(Query(3).Reason(), "report (uiValue1) is 3, expected suspects (0), history (1) or overloads (2)");
    EXPECT_EQ(ClearAnswer("").Reason(), R"(what (acValue1) is empty, expected "overload", "leak" or "settings")");
    EXPECT_EQ(ClearAnswer("every\nthing").Reason(),
              R"(what (acValue1) is "every thing", expected "overload", "leak" or "settings")");
    EXPECT_EQ(ClearAnswer("overload", "x").Reason(),
              R"(pattern (acValue2) is "x", expected none for overloads and settings)");
}

TEST_F(MemoryWatchTest, TellsTheHistoryOfAProcess) {
    machine.Add(10, "app").threads[1000] = {};
    Grow(10, 8, 4);
    const std::string head = "TIME                           RSS KiB  THREADS\n";
    EXPECT_EQ(Text(memory_report::kHistory, 10), head + "2023-11-14 22:13:21 +0000         1008        2\n"
                                                        "2023-11-14 22:13:22 +0000         1016        2\n"
                                                        "2023-11-14 22:13:23 +0000         1024        2\n"
                                                        "2023-11-14 22:13:24 +0000         1032        2\n");
    EXPECT_EQ(Text(memory_report::kHistory, 10, 1), head + "2023-11-14 22:13:23 +0000         1024        2\n"
                                                           "2023-11-14 22:13:24 +0000         1032        2\n");
    EXPECT_EQ(Text(memory_report::kHistory, 10, 0, 3), head + "2023-11-14 22:13:21 +0000         1008        2\n"
                                                              "2023-11-14 22:13:22 +0000         1016        2\n"
                                                              "2023-11-14 22:13:24 +0000         1032        2\n");
    EXPECT_EQ(Text(memory_report::kHistory, 10, 0, 1), head + "2023-11-14 22:13:24 +0000         1032        2\n");
    EXPECT_EQ(Query(memory_report::kHistory, 99).Status(), ESRCH);
    machine.Add(99, "late"); // since the latest sample
    EXPECT_EQ(Query(memory_report::kHistory, 99).Status(), 0);
}

// It is sampled each second lately, and was each minute before.
TEST_F(MemoryWatchTest, TellsTheHistoryOfAProcessAtEvenTimes) {
    machine.Add(10, "app");
    Grow(10, 8, 300);
    const std::string text = Text(memory_report::kHistory, 10, 0, 5);
    for (const char *const time : {"22:14:20", "22:15:20", "22:16:20", "22:17:20", "22:18:20"}) {
        EXPECT_NE(text.find(time), text.npos) << time << "\n" << text;
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
}

TEST_F(MemoryWatchTest, TellsTheHistoryOfTheSystem) {
    Use(123'000);
    machine.memory.free = 111;
    machine.memory.cached = 222;
    machine.memory.swapTotal = 1000;
    machine.memory.swapFree = 667;
    Pass(1s);
    EXPECT_EQ(Text(memory_report::kHistory, 0, 0, 1),
              "TIME                       IN USE    AVAIL KiB     FREE KiB   CACHED KiB     SWAP KiB\n"
              "2023-11-14 22:13:21 +0000     123       877000          111          222          333\n");
    const auto lines = [](const std::string &text) { return std::count(text.begin(), text.end(), '\n') - 1; };
    Pass(1s, 99);
    EXPECT_EQ(lines(Text(memory_report::kHistory)), memory_report::kDefaultLines);
    EXPECT_EQ(lines(Text(memory_report::kHistory, 0, 10)), 11);
    EXPECT_EQ(lines(Text(memory_report::kHistory, 0, 0, 10000)), 101) << "all that there is";
    EXPECT_EQ(Query(memory_report::kHistory, 0, 0, 10000)->ucValue2, 0);
    Pass(1s, 500);
    const auto cut = Query(memory_report::kHistory, 0, 0, 10000);
    EXPECT_EQ(cut->ucValue2, 1);
    // A line is 86 characters; the last that fits leaves room for a terminating 0.
    EXPECT_EQ(std::string(cut->acLeakInfo).size(), (sizeof cut->acLeakInfo - 1) / 86 * 86);
}

} // namespace
