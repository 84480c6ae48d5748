// What the daemon remembers: the journal, overloads, and figures by the minute, beyond a restart.
#include "host/daemon/history/history.h"

#include <fstream>

#include <gtest/gtest.h>

#include "host/blackbox/box.h"
#include "host/daemon/own_service.h"
#include "host/meaning/choices.h"
#include "host/store/document.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/error_of.h"
#include "tests/host/eventually.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
using kit::ErrorOf;
using tarnd::EventKind;
using tarnd::History;
using tarnd::HistoryTables;
using tarnd::NumberedEvent;
using tarnd::Overload;

constexpr uint32_t kPid = kit::kFakePid;

class HistoryTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    HistoryTest() : SimulatedDaemon(Kept()) {}

    std::vector<NumberedEvent> Events() { return daemon->history.EventsFrom(0, 1000); }
    // Without those of agents, of which a test may not speak.
    std::vector<std::string> Told() {
        std::vector<std::string> told;
        for (const NumberedEvent &event : Events()) {
            told.push_back(
                fmt::format("{} {} ({}): {}", tarnd::InfoOf(event.kind).name, event.process, event.pid, event.text));
        }
        return told;
    }
    void AddEvent(const std::string &text) { daemon->history.Add({{}, EventKind::kSetting, kPid, "who", text}); }

    // A thread of its own reads the stacks.
    void WaitForOverloads(uint32_t number) {
        ASSERT_TRUE(kit::Eventually([&] { return daemon->cpuOverload.RecordNumber() >= number; }));
    }
    void Fault(int signal, const std::string &process) {
        std::filesystem::path aside;
        const host::blackbox::Box box(host::blackbox::FileOf(options.faultDirectory, geteuid()), aside);
        const host::blackbox::Entry entry(box);
        entry.Head() = {};
        entry.Head().kind = host::blackbox::FaultKind::kException;
        entry.Head().pid = kPid;
        entry.Head().tid = kPid + 1;
        entry.Head().signal = signal;
        entry.Head().timeNs = static_cast<uint64_t>(clocks.WallNow().time_since_epoch() / 1ns);
        host::CopyText(entry.Head().process, process);
        host::CopyText(entry.Head().thread, "worker");
        entry.SealHead();
    }
};

// --- The journal

TEST_F(HistoryTest, NumbersOutliveARestart) {
    AddEvent("first");
    AddEvent("second");
    RunDue();
    const std::string journal = daemon->history.TheExtent().journal;
    Restart();
    EXPECT_EQ(daemon->history.TheExtent().journal, journal);
    AddEvent("third");
    RunDue();
    const std::vector<NumberedEvent> events = Events();
    ASSERT_EQ(events.size(), 3);
    EXPECT_EQ(events[0].number, 1);
    EXPECT_EQ(events[0].text, "first");
    EXPECT_EQ(events[0].time, clocks.WallNow());
    EXPECT_EQ(events[2].number, 3);
    EXPECT_EQ(daemon->history.EventsFrom(3, 10).size(), 1);
    EXPECT_EQ(daemon->history.EventsFrom(1, 2).size(), 2);
    EXPECT_EQ(daemon->history.TheExtent().end, 4);
}

TEST_F(HistoryTest, IsReadOnceItIsWritten) {
    int told = 0;
    daemon->history.OnWritten([&] { ++told; });
    AddEvent("first");
    EXPECT_EQ(daemon->history.TheExtent().end, 1);
    EXPECT_EQ(told, 0);
    RunDue();
    EXPECT_EQ(daemon->history.TheExtent().end, 2);
    EXPECT_EQ(told, 1);
    daemon->history.OnWritten({});
}

TEST_F(HistoryTest, WritesABatchAtMostOnceInASecond) {
    AddEvent("at once");
    RunDue();
    EXPECT_EQ(Events().size(), 1);
    for (int i = 0; i < 100; ++i) {
        AddEvent("one of many");
    }
    RunDue();
    clocks.Advance(History::kShortest - 1ms);
    RunDue();
    EXPECT_EQ(Events().size(), 1) << "the last batch was written less than a second before";
    clocks.Advance(1ms);
    RunDue();
    EXPECT_EQ(Events().size(), 101);
}

TEST_F(HistoryTest, WritesWhatWaitsAtTheEnd) {
    AddEvent("at once");
    RunDue();
    AddEvent("last words");
    Restart();
    EXPECT_EQ(Events().size(), 2);
}

TEST_F(HistoryTest, SetsADamagedFileAsideAndBeginsAnew) {
    AddEvent("lost");
    RunDue();
    const std::string journal = daemon->history.TheExtent().journal;
    Stop();
    std::ofstream(state.Path() / "history.db", std::ios::binary) << "no database at all, but a text of some length";
    testing::internal::CaptureStderr();
    Restart();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("set aside as history.db.damaged"), std::string::npos);
    EXPECT_TRUE(Events().empty());
    EXPECT_NE(daemon->history.TheExtent().journal, journal) << "numbers begin again";
}

// Numbers that no run has written, in a file that is sound otherwise.
TEST_F(HistoryTest, SetsAFileAsideWhoseDamageOnlyAReaderFinds) {
    AddEvent("lost");
    RunDue();
    Stop();
    host::Database({.file = state.Path() / "history.db"}).Run("INSERT INTO fault_marks VALUES (-1, 0, 0)");
    testing::internal::CaptureStderr();
    Restart();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("a number is out of its range: -1; set aside as history.db.damaged"), std::string::npos) << log;
    AddEvent("kept");
    RunDue();
    ASSERT_EQ(Events().size(), 1);
    EXPECT_EQ(Events()[0].text, "kept");
}

// A black box is its user's to write, so any number may stand in it.
TEST_F(HistoryTest, RemembersMarksOfAnyNumber) {
    constexpr tarnd::FaultMark kMost{.sequence = UINT64_MAX, .timeNs = UINT64_MAX};
    daemon->history.AddFaults({}, {{1000, kMost}});
    RunDue();
    Restart();
    const tarnd::FaultMarks marks = daemon->history.ReadFaultMarks();
    ASSERT_TRUE(marks.contains(1000));
    EXPECT_EQ(marks.at(1000).sequence, UINT64_MAX);
    EXPECT_EQ(marks.at(1000).timeNs, UINT64_MAX);
}

TEST_F(HistoryTest, HasNothingBehindTheHighestNumber) {
    AddEvent("first");
    RunDue();
    EXPECT_TRUE(daemon->history.EventsFrom(UINT64_MAX, 10).empty());
}

TEST_F(HistoryTest, IsKeptInMemoryWhereNoFileCanBe) {
    Stop();
    std::filesystem::remove(state.Path() / "history.db");
    std::filesystem::create_directory(state.Path() / "history.db");
    testing::internal::CaptureStderr();
    Restart();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("the history is kept in memory only"), std::string::npos);
    AddEvent("first");
    RunDue();
    EXPECT_EQ(Events().size(), 1);
}

TEST(HistoryTablesTest, TheOldestMakesRoom) {
    const kit::TempDir dir;
    HistoryTables tables(dir.Path() / "history.db");
    tarnd::HistoryBatch batch;
    const std::string longest(HistoryTables::kMostText, 't');
    batch.events.assign(HistoryTables::kEvents + 50, {{}, EventKind::kCrash, 1, "process", longest});
    for (uint64_t i = 1; i <= HistoryTables::kOverloads + 20; ++i) {
        Overload overload;
        overload.number = i;
        overload.of = i % 10 == 0 ? Overload::Of::kProcess : Overload::Of::kSystem;
        overload.end = overload.begin;
        overload.threads.assign(10, {1, 1, "thread", 0, 0, std::string(4 * HistoryTables::kMostStack, 's') + "\n"});
        batch.overloads.push_back(overload);
    }
    for (size_t i = 0; i < HistoryTables::kMinutes + 10; ++i) {
        batch.minutes.push_back({host::WallTime(i * 1min), 500, 0, 1, 1, 1});
    }
    tables.Write(batch);
    EXPECT_EQ(tables.EventNumbers(), std::pair(uint64_t{51}, uint64_t{HistoryTables::kEvents + 51}));
    EXPECT_EQ(tables.Overloads(Overload::Of::kProcess, 1000).size(), 12) << "the system's do not displace them";
    const std::vector<Overload> system = tables.Overloads(Overload::Of::kSystem, 1000);
    EXPECT_EQ(system.size(), HistoryTables::kOverloads);
    EXPECT_EQ(system.back().number, 9) << "of 108, the first eight have gone";
    EXPECT_EQ(system.front().threads.size(), 10);
    EXPECT_TRUE(system.front().threads[0].stack->ends_with("(more is not kept)\n"));
    const std::vector<tarnd::MinuteFigures> minutes = tables.Minutes({});
    EXPECT_EQ(minutes.size(), HistoryTables::kMinutes);
    EXPECT_EQ(minutes.front().time, host::WallTime(10min));
}

// --- Overloads

TEST_F(HistoryTest, OverloadsOfTheSystemAndOfProcessesAreKeptEach) {
    machine.Add(kPid, "much", 900);
    proc.SetThread(kPid, kit::FakeProc::MakeTask(kPid, "much"));
    machine.busyPermille = {1000, 1000};
    daemon->cpuOverload.SetSystem({900, 800, 0});
    const host::WallTime begin = clocks.WallNow();
    Pass(1s);
    WaitForOverloads(1);
    machine.busyPermille = {100, 100};
    Pass(1s);
    daemon->cpuOverload.Watch(kPid, {500, 500, 0});
    host::procfs::Task task = kit::FakeProc::MakeTask(kPid, "much");
    task.startTicks = machine.processes[kPid].startTicks;
    proc.SetThread(kPid, task);
    daemon->cpuOverload.Watch(kPid, {500, 500, 0});
    Pass(1s);
    WaitForOverloads(2);
    EXPECT_EQ(daemon->cpuOverload.Last().of, Overload::Of::kSystem) << "a watched process's does not take its place";
    Pass(1s);
    Restart();
    const Overload last = daemon->cpuOverload.Last();
    EXPECT_EQ(last.of, Overload::Of::kSystem);
    EXPECT_EQ(last.begin, begin);
    EXPECT_EQ(last.end, begin + 2s);
    EXPECT_EQ(last.name, "much");
    EXPECT_EQ(last.systemPermille, 1000);
    ASSERT_EQ(last.threads.size(), 1);
    EXPECT_EQ(last.threads[0].tid, kPid);
    const std::vector<Overload> ofProcess = daemon->history.Overloads(Overload::Of::kProcess, 10);
    ASSERT_EQ(ofProcess.size(), 1);
    EXPECT_EQ(ofProcess[0].pid, kPid);
    EXPECT_TRUE(ofProcess[0].end.has_value()) << "no daemon has seen it since";
    const std::vector<std::string> told = Told();
    ASSERT_EQ(told.size(), 3);
    EXPECT_TRUE(told[0].starts_with("cpu-overload-begins much (5000000): the system uses 1000 permille")) << told[0];
    EXPECT_EQ(told[1], "cpu-overload-ends much (5000000): the overload of the system that began 2 s before is over");
    EXPECT_TRUE(told[2].starts_with("cpu-overload-begins much (5000000): the watched process uses")) << told[2];
}

// --- Figures

TEST_F(HistoryTest, FiguresByTheMinuteAreThereAfterARestart) {
    machine.busyPermille = {500, 500};
    const host::WallTime start = clocks.WallNow();
    Pass(1s, 125);
    std::vector<tarnd::MinuteFigures> minutes = daemon->history.Minutes({});
    ASSERT_EQ(minutes.size(), 2) << "of what is not written yet, too";
    EXPECT_EQ(minutes[0].time, start + 60s);
    EXPECT_EQ(minutes[0].busyPermille, 500);
    EXPECT_EQ(minutes[0].memoryKb, 1'000'000);
    EXPECT_EQ(minutes[0].availableKb, 600'000);
    Restart();
    machine.busyPermille = {1000, 1000};
    Pass(1s, 2);
    EXPECT_EQ(daemon->history.Minutes(start + 61s).size(), 1);
    const auto answer = kit::CallMethod<Tarn_sys_diag_SysCpuMonitorHistoryInfoResult>(
        GetSysCpuMonitorHistoryInfo, Tarn_sys_diag_SysCpuMonitorHistoryInfoInput{});
    ASSERT_EQ(answer->uiRecordNum, 4) << "two minutes, and two samples";
    EXPECT_EQ(answer->pstRecord[0].ucValue1, 50);
    EXPECT_EQ(answer->pstRecord[0].stTime.ucMinute, 14) << "22:14:20";
    EXPECT_EQ(answer->pstRecord[3].ucValue1, 100);
}

TEST_F(HistoryTest, FiguresAloneAreWrittenOnceInTenMinutes) {
    Pass(1s, 60);
    ASSERT_EQ(drivers->history.Due().size(), 1);
    EXPECT_EQ(*drivers->history.Due().begin(), clocks.SteadyNow() + History::kLongest);
}

// --- Events

TEST_F(HistoryTest, TellsOfACrashOnce) {
    testing::internal::CaptureStderr();
    Fault(SIGSEGV, "victim");
    Pass(1s, 4);
    const std::string text = "thread 5000001 (worker): signal 11 SIGSEGV, sent by a process";
    EXPECT_EQ(Told(), std::vector<std::string>{"crash victim (5000000): " + text});
    EXPECT_NE(testing::internal::GetCapturedStderr().find("crash of process 5000000 (victim), " + text),
              std::string::npos);
    Restart();
    Pass(1s, 4);
    EXPECT_EQ(Told().size(), 1) << "it is known";
}

TEST_F(HistoryTest, TellsOfACrashThatNoDaemonSaw) {
    Pass(1s);
    Stop();
    Fault(SIGABRT, "victim");
    clocks.Advance(1h);
    Restart();
    Pass(1s);
    ASSERT_EQ(Events().size(), 1);
    EXPECT_EQ(Events()[0].time, clocks.WallNow() - 1h - 1s) << "when it happened";
}

TEST_F(HistoryTest, TellsOfACrashInABoxThatWasMadeAnew) {
    Fault(SIGABRT, "first");
    Fault(SIGABRT, "second");
    Pass(1s);
    std::filesystem::remove(host::blackbox::FileOf(options.faultDirectory, geteuid()));
    clocks.Advance(1s);
    Fault(SIGABRT, "third");
    Pass(1s, 2);
    ASSERT_EQ(Events().size(), 3);
    EXPECT_EQ(Events()[2].process, "third");
}

TEST_F(HistoryTest, TellsOfAgentsThatComeAndGo) {
    EXPECT_EQ(AddAgent(kPid, "display"), 0);
    EXPECT_EQ(AddAgent(kPid, "display"), 0);
    Pass(1s);
    proc.RemoveProcess(kPid);
    Pass(2s);
    EXPECT_EQ(Told(), (std::vector<std::string>{"agent-comes display (5000000): of user 0",
                                                "agent-goes display (5000000): its process has ended"}));
}

TEST_F(HistoryTest, TellsOfMemoryOverloads) {
    machine.Add(kPid, "large");
    machine.memory.available = 50'000;
    Pass(1s);
    machine.memory.available = 900'000;
    Pass(2s);
    const std::vector<std::string> told = Told();
    ASSERT_EQ(told.size(), 2);
    EXPECT_TRUE(told[0].starts_with("memory-overload-begins large (5000000): 950 permille in use")) << told[0];
    EXPECT_TRUE(told[1].starts_with("memory-overload-ends large (5000000): 100 permille in use")) << told[1];
}

TEST_F(HistoryTest, TellsOfThresholdsOfTheMaster) {
    daemon->cpuOverload.SetSystem({900, 800, 5}, tarnd::Source::kMaster);
    daemon->cpuOverload.SetSystem({900, 800, 5}, tarnd::Source::kMaster);
    daemon->memoryOverload.Set({970, 0}, tarnd::Source::kMaster);
    RunDue();
    EXPECT_EQ(Told(),
              (std::vector<std::string>{
                  "setting  (0): CPU overload: begins at 900 permille for 5 s, ends below 800, from the master",
                  "setting  (0): memory overload: begins at 970 permille in use, ends below 970, from the master"}));
}

TEST_F(HistoryTest, TellsOfWhatAgentsFind) {
    namespace health_item = host::meaning::health_item;
    namespace health_level = host::meaning::health_level;
    Tarn_sys_diag_SysHealthInfo items[2]{};
    host::CopyText(items[0].acValue1, health_item::kDeadLoops.name);
    host::CopyText(items[1].acValue1, health_item::kMemoryDamage.name);
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), [&](uint32_t, const auto &, auto &reply) {
        reply.uiHealthInfoNum = 2;
        reply.pstHealthInfo = items;
        return IdlCallResult{0, 0};
    });
    const auto find = [&](Tarn_sys_diag_SysHealthInfo &item, const std::string &found) {
        item.ucValue1 = static_cast<uint8_t>(found.empty() ? health_level::kGood : health_level::kBad);
        host::CopyText(item.acValue4, found);
        Pass(2s, 2);
    };
    EXPECT_EQ(AddAgent(kPid, "display"), 0);
    find(items[0], "");
    find(items[0], "thread 17");
    find(items[1], "1 damage");
    find(items[1], "2 damages");
    find(items[0], "");
    find(items[0], "thread 18");
    Pass(1s);
    EXPECT_EQ(Told(), (std::vector<std::string>{
                          "agent-comes display (5000000): of user 0", "dead-loop display (5000000): thread 17",
                          "memory-damage display (5000000): 1 damage", "memory-damage display (5000000): 2 damages",
                          "dead-loop display (5000000): thread 18"}));
}

TEST_F(HistoryTest, TellsOfASuspectOfALeakOnce) {
    machine.Add(kPid, "leaky");
    machine.Add(kPid + 1, "steady");
    for (int second = 0; second < 1300; ++second) {
        machine.processes.at(kPid).rssKb += 100;
        Pass(1s);
    }
    const std::vector<std::string> told = Told();
    ASSERT_EQ(told.size(), 1);
    EXPECT_TRUE(told[0].starts_with("leak-suspect leaky (5000000): has ")) << told[0];
}

// --- How it is asked for

class HistoryServiceTest : public HistoryTest {
protected:
    host::OwnMethods::Told Ask(const std::string &method, const std::string &text) {
        const tarnd::HistoryService service(daemon->history);
        return service.Tell({method, text, [this](std::string_view name) { return name != denied_; }});
    }
    host::Document Page(const std::string &text) { return host::Document::Parse(Ask("Events", text).text); }

    std::string denied_;
};

TEST_F(HistoryServiceTest, TellsPagesThatGoOn) {
    AddEvent("first");
    AddEvent("second");
    RunDue();
    const host::Document page = Page(R"({"most": 1})");
    ASSERT_EQ(page.ArrayAt("events").size(), 1);
    EXPECT_EQ(page.ArrayAt("events")[0].Get<std::string>("text"), "first");
    EXPECT_EQ(page.ArrayAt("events")[0].Get<std::string>("kind"), "setting");
    EXPECT_EQ(page.Get<uint64_t>("next"), 2);
    EXPECT_EQ(page.Get<uint64_t>("end"), 3);
    const std::string journal = page.Get<std::string>("journal");
    EXPECT_EQ(Page(fmt::format(R"({{"journal": "{}", "from": 2}})", journal)).ArrayAt("events").size(), 1);
    EXPECT_EQ(Page(R"({"journal": "another", "from": 2})").ArrayAt("events").size(), 2) << "its numbers are others";
    EXPECT_EQ(Page(R"({"last": 1})").ArrayAt("events")[0].Get<std::string>("text"), "second");
    EXPECT_EQ(Page("").ArrayAt("events").size(), 2);
}

TEST_F(HistoryServiceTest, WaitsWhereNothingHasComeSince) {
    AddEvent("first");
    RunDue();
    EXPECT_EQ(Ask("Events", R"({"from": 1, "wait_ms": 5000})").wait, 0ms);
    EXPECT_EQ(Ask("Events", R"({"from": 2, "wait_ms": 5000})").wait, 5s);
    EXPECT_EQ(Ask("Events", R"({"from": 2})").wait, 0ms);
    EXPECT_EQ(Ask("Events", R"({"from": 2, "wait_ms": 4000000000})").wait, tarnd::HistoryService::kLongestWait);
    EXPECT_EQ(Ask("Events", R"({"from": 1, "wait_ms": 5000, "kinds": ["crash"]})").wait, 0ms)
        << "it is told to go on behind what it does not want";
}

TEST_F(HistoryServiceTest, LeavesOutWhatTheCallerMayNotRead) {
    Fault(SIGSEGV, "secret");
    Pass(1s);
    AddEvent("open");
    Pass(1s);
    EXPECT_EQ(Page("").ArrayAt("events").size(), 2);
    denied_ = "GetExceptionInfo";
    const host::Document page = Page("");
    ASSERT_EQ(page.ArrayAt("events").size(), 1);
    EXPECT_EQ(page.ArrayAt("events")[0].Get<std::string>("text"), "open");
    EXPECT_EQ(page.Get<uint64_t>("next"), 3);
}

TEST_F(HistoryServiceTest, RefusesWhatItDoesNotUnderstand) {
    EXPECT_EQ(ErrorOf([&] { Ask("Events", "no JSON"); }), EINVAL);
    EXPECT_EQ(ErrorOf([&] { Ask("Events", "[]"); }), EINVAL);
    EXPECT_EQ(ErrorOf([&] { Ask("Events", R"({"from": "x"})"); }), EINVAL);
    EXPECT_EQ(ErrorOf([&] { Ask("Events", R"({"kinds": ["birthday"]})"); }), EINVAL);
    EXPECT_EQ(Ask("Events", R"({"unknown": 1})").wait, 0ms) << "of a later client";
}

TEST_F(HistoryServiceTest, TellsOverloadsAndTheThreadsOfOne) {
    Overload overload;
    overload.name = "much";
    overload.threads = {{1, 2, "thread", 3, 4, "main+0x1\n"}};
    daemon->history.Keep(overload);
    RunDue();
    const host::Document all = host::Document::Parse(Ask("Overloads", "").text);
    ASSERT_EQ(all.ArrayAt("overloads").size(), 1);
    EXPECT_EQ(all.ArrayAt("overloads")[0].Find("threads"), nullptr);
    EXPECT_TRUE(all.ArrayAt("overloads")[0].At("ended_ms").IsNull());
    const auto one = [&] { return host::Document::Parse(Ask("Overloads", R"({"number": 1})").text); };
    EXPECT_EQ(one().ArrayAt("overloads")[0].ArrayAt("threads")[0].Get<std::string>("stack"), "main+0x1\n");
    denied_ = "DisCpuOvloadCallstackInfo";
    EXPECT_EQ(one().ArrayAt("overloads")[0].Find("threads"), nullptr);
}

TEST_F(HistoryServiceTest, StandsBesideTheSettings) {
    daemon->measurement.SetTimes({3, 30}, tarnd::Source::kMaster);
    daemon->healthSettings.SwitchAll(false);
    const tarnd::OwnService service(*daemon);
    EXPECT_TRUE(service.Has("Events"));
    const host::Document told =
        host::Document::Parse(service.Tell({"Settings", "", [](std::string_view) { return true; }}).text);
    const auto setting = [&](std::string_view method) -> const host::Document & {
        const auto isIt = [&](const host::Document &one) { return one.Get<std::string>("method") == method; };
        return *std::ranges::find_if(told.ArrayAt("settings"), isIt);
    };
    const host::Document &times = setting("TarnSetDimTimeCfgByTarnd");
    EXPECT_EQ(times.Get<std::string>("source"), "the master");
    EXPECT_EQ(times.At("request").Get<uint32_t>("ucValue1"), 3);
    EXPECT_EQ(times.At("request").Get<uint32_t>("ucValue2"), 30);
    EXPECT_EQ(setting("TarnPadsSetPadsGlobalSwitchByTarnd").Get<std::string>("source"), "a client");
    EXPECT_EQ(setting("SysOvLoadMemThresholdSet").Get<std::string>("source"), "the default");
    EXPECT_EQ(setting("SysOvLoadMemThresholdSet").At("request").Get<uint32_t>("uiValue1"), 900);
}

TEST_F(HistoryServiceTest, TellsFigures) {
    Pass(1s, 60);
    const host::Document figures = host::Document::Parse(Ask("Figures", "").text);
    ASSERT_EQ(figures.ArrayAt("minutes").size(), 1);
    EXPECT_EQ(figures.ArrayAt("minutes")[0].Get<uint32_t>("busy_permille"), 0);
    EXPECT_EQ(host::Document::Parse(Ask("Figures", R"({"since_ms": 2000000000000})").text).ArrayAt("minutes").size(),
              0);
}

} // namespace
