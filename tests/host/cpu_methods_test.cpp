// Who uses the CPUs, as the daemon's methods tell it of a machine that is the test's.
#include <sched.h>

#include <algorithm>
#include <numeric>

#include <gtest/gtest.h>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/eventually.h"
#include "tests/host/method_kit.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
using kit::CallMethod;

constexpr uint32_t kPid = kit::kFakePid;
constexpr uint32_t kBusy = kPid + 1; // a thread

class CpuMethodsTest : public testing::Test, protected kit::SimulatedDaemon {
protected:
    // A process with two threads, one of which runs.
    CpuMethodsTest() {
        machine.Add(kPid, "worker").threads[kBusy].runPermille = 500;
        machine.processes[kPid].threads[kBusy].waitPermille = 250;
        machine.processes[kPid].startTicks = 40'000;
        proc.Write("uptime", "1000.00 1500.00\n");
        Pass(1s);
        Show();
    }

    // What the machine's process has used is shown by its directory too.
    void Show() {
        const kit::ScriptedMachine::Process &process = machine.processes[kPid];
        host::procfs::Task task = kit::FakeProc::MakeTask(kPid, "worker", 'S');
        task.parent = 77;
        task.nice = 5;
        task.threadNum = 2;
        task.lastCpu = 3;
        task.majorFaults = 9;
        task.residentKb = 400;
        task.startTicks = process.startTicks;
        task.systemTicks = 25;
        task.userTicks = process.usedNs / 10'000'000 - task.systemTicks;
        proc.SetThread(kPid, task);
        host::procfs::Task busy = kit::FakeProc::MakeTask(kBusy, "busy", 'R');
        busy.policy = SCHED_FIFO;
        busy.realTimePriority = 7;
        busy.lastCpu = 1;
        proc.SetThread(kPid, busy, process.threads.at(kBusy).count);
    }

    void Pass(std::chrono::nanoseconds time, int times = 1) {
        SimulatedDaemon::Pass(time, times);
        Show();
    }

    void ExpectTime(const Tarn_sys_diag_Systime &time, host::WallTime when) const {
        const Tarn_sys_diag_Systime expected = daemon->clock.LocalTime(when);
        EXPECT_EQ(time.usYear, expected.usYear);
        EXPECT_EQ(time.ucMonth, expected.ucMonth);
        EXPECT_EQ(time.ucDay, expected.ucDay);
        EXPECT_EQ(time.ucHour, expected.ucHour);
        EXPECT_EQ(time.ucMinute, expected.ucMinute);
        EXPECT_EQ(time.ucSecond, expected.ucSecond);
        EXPECT_EQ(time.uiMillisecond, expected.uiMillisecond);
    }

    static auto Measure(uint32_t (*method)(const Tarn_sys_diag_OsProcessCpuInput *, void *), uint32_t pid, uint32_t ms,
                        uint32_t limit = 0) {
        return CallMethod<Tarn_sys_diag_OsProcessCpuRet>(method, Tarn_sys_diag_OsProcessCpuInput{pid, ms, limit});
    }
    static auto Kpi() {
        return CallMethod<Tarn_sys_diag_DisOsResourceInfoRet>(GetKpiCpuInfo, Tarn_sys_diag_DisOsResourceInfoInput{});
    }
    static auto Processes() {
        return CallMethod<Tarn_sys_diag_SysCpuStatInfo>(SysCpuStatInfoQuery, Tarn_sys_diag_SysCpuStatInfoInput{});
    }
    static auto Threads(uint32_t ms, uint32_t limit) {
        return CallMethod<Tarn_sys_diag_ThreadCpuRet>(CalculateAllThreadCpuUse,
                                                      Tarn_sys_diag_ThreadCpuInput{ms, limit});
    }
    static uint32_t SetSystem(uint32_t over, uint32_t recover, uint32_t seconds) {
        return CallMethod<Tarn_sys_diag_OperResult>(SysOvLoadCpuThresholdSet,
                                                    Tarn_sys_diag_SysOvLoadCpuThreshold{over, recover, seconds})
            ->uiResult;
    }
    static uint32_t SetProcess(uint32_t pid, uint8_t on, uint32_t permille, uint32_t seconds) {
        return CallMethod<Tarn_sys_diag_OperResult>(
                   SetCpuOvProcThreshold, Tarn_sys_diag_SetCpuOvProcThresholdInput{pid, on, permille, seconds})
            ->uiResult;
    }
    static auto Overload() {
        return CallMethod<Tarn_sys_diag_DisCpuOvloadRet>(DisCpuOvloadInfo, Tarn_sys_diag_DisCpuOvloadInput{});
    }
    static auto Config() {
        return CallMethod<Tarn_sys_diag_GetSysCpuOverloadCfgOutput>(GetSysCpuOverloadCfg, Tarn_sys_diag_None{});
    }
    static auto Events(uint32_t pid, uint32_t seconds, uint32_t limit) {
        return CallMethod<Tarn_sys_diag_PadsCpuEventResult>(TarnPadsGetCpuEventByTarnd,
                                                            Tarn_sys_diag_PadsCpuEventInput{pid, seconds, limit});
    }
};

TEST_F(CpuMethodsTest, TellTheUseOfTheSystem) {
    Restart();
    EXPECT_EQ(Kpi().Status(), EAGAIN);
    EXPECT_NE(Kpi().Reason().find("the second sample has not been taken yet"), std::string::npos);
    proc.Write("loadavg", "2.01 0.50 0.20 1/200 4711\n");
    Pass(1s, 10); // which are out of the minute at its end
    machine.busyPermille = {1000, 500};
    Pass(1s, 30);
    machine.busyPermille = {100, 301};
    Pass(1s, 30);
    const auto answer = Kpi();
    EXPECT_EQ(std::string(answer->acName), "cpu");
    EXPECT_EQ(answer->uiValue1, 201) << "rounded";
    EXPECT_EQ(answer->uiValue2, 475);
    EXPECT_EQ(answer->uiValue3, 750);
    EXPECT_EQ(answer->uiValue4, 2010);
    proc.Write("loadavg", "none");
    EXPECT_EQ(Kpi().Status(), EPROTO);
}

TEST_F(CpuMethodsTest, MeasureTheThreadsOfAProcess) {
    Pass(1s, 9);
    const auto one = Measure(CalculateProcThreadCpuUse, kPid, 2000);
    EXPECT_EQ(one->uiValue1, 500);
    ASSERT_EQ(one->uiThreadNum, 2);
    const Tarn_sys_diag_OsProcessCpuThread &busy = one->pstThread[0];
    EXPECT_EQ(std::string(busy.acName), "busy");
    EXPECT_EQ(busy.uiValue1, kBusy);
    EXPECT_EQ(busy.uiValue2, 500);
    EXPECT_EQ(busy.ullValue3, 5'000'000) << "in microseconds";
    EXPECT_EQ(std::string(busy.acValue4), "R (running)");
    EXPECT_EQ(busy.uiValue5, 1);
    EXPECT_EQ(std::string(busy.acValue6), "SCHED_FIFO 7");
    EXPECT_EQ(one->pstThread[1].uiValue1, kPid);
    EXPECT_EQ(one->pstThread[1].uiValue2, 0);

    const auto all = Measure(CalculateOsProcCpuUse, kPid, 2000, 1);
    EXPECT_EQ(all->uiValue1, 250) << "of two CPUs";
    ASSERT_EQ(all->uiThreadNum, 1);
    EXPECT_EQ(all->pstThread[0].uiValue2, 250);

    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid + 9, 0).Status(), ESRCH);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, host::meaning::measured_interval::kMostMs + 1).Status(), EINVAL);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, host::meaning::measured_interval::kMostMs).Status(), 0);
}

TEST_F(CpuMethodsTest, MeasureOverTheIntervalThatIsAskedFor) {
    Pass(1s, 9);
    machine.processes[kPid].threads[kBusy].runPermille = 1000;
    Pass(1s);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 1000)->uiValue1, 1000);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 0)->uiValue1, 1000) << "a second";
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 1001)->uiValue1, 750);
    clocks.Advance(1s); // nothing is used meanwhile
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 2000)->uiValue1, 500) << "until now";
}

TEST_F(CpuMethodsTest, SayOverWhichTimeTheFirstAnswerIsAfterAPause) {
    somebodyLooks = false;
    Pass(1s, 99); // the last sample with processes is that of the first minute's end
    const auto first = Threads(1000, 0);
    EXPECT_EQ(first->pstThread[0].usValue1, 500);
    EXPECT_EQ(first.Reason(), "measured over 40.0 s, not 1.0: so far apart are the samples");
    EXPECT_EQ(Processes().Reason(), first.Reason());
    Pass(1s, 2);
    EXPECT_EQ(Threads(1000, 0).Reason(), "");
    EXPECT_EQ(Processes().Reason(), "");
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 1000).Reason(), "");
}

TEST_F(CpuMethodsTest, SampleProcessesForThresholdsAndWatches) {
    somebodyLooks = false;
    const auto readings = [&] {
        const size_t before = machine.processReadings;
        Pass(1s, 10);
        return machine.processReadings - before;
    };
    Pass(1s, 61); // attention has faded
    EXPECT_EQ(readings(), 0);
    EXPECT_EQ(SetSystem(900, 800, 5), 0);
    EXPECT_EQ(readings(), 10);
    EXPECT_EQ(SetSystem(0, 0, 0), 0);
    EXPECT_EQ(readings(), 0);
    EXPECT_EQ(SetProcess(kPid, 1, 900, 5), 0);
    EXPECT_EQ(readings(), 10);
    EXPECT_EQ(SetProcess(kPid, 0, 0, 0), 0);
    EXPECT_EQ(readings(), 0);
    daemon->starvation.Switch(true);
    EXPECT_EQ(readings(), 10);
    daemon->starvation.Switch(false);
    EXPECT_EQ(readings(), 0);
}

TEST_F(CpuMethodsTest, TellWhichThreadKeepsACpuBusyThatNobodyLookedAt) {
    somebodyLooks = false;
    Pass(1s, 70);
    machine.busyPermille = {0, 1000};
    machine.processes[kPid].threads[kBusy].runPermille = 900;
    Pass(1s, 4);
    const auto events = Events(0, 0, 0);
    ASSERT_EQ(events->uiEventNum, 1);
    EXPECT_EQ(events->pstEvent[0].uiDuration, 4000);
    EXPECT_EQ(events->pstEvent[0].uiTid, kBusy);
    EXPECT_EQ(events->pstEvent[0].uiThreadUse, 900);
}

TEST_F(CpuMethodsTest, SayThatTheThreadsOfAProcessWereNotSampled) {
    machine.processes[kPid].threadsError = EMFILE;
    Pass(1s, 2);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 1000).Status(), EMFILE);
    machine.processes[kPid].threadsError = 0;
    machine.processes[kPid].leftOut = true;
    Pass(1s, 2);
    EXPECT_EQ(Measure(CalculateProcThreadCpuUse, kPid, 1000).Status(), ENODATA);
}

TEST_F(CpuMethodsTest, MeasureAllThreads) {
    machine.Add(kPid + 9, "short-lived", 700);
    Pass(1s, 9);
    const auto all = Threads(3000, 0);
    ASSERT_EQ(all->uiThreadNum, 3);
    const Tarn_sys_diag_ThreadCpu &gone = all->pstThread[0];
    EXPECT_EQ(gone.uiTid, kPid + 9) << "one that /proc shows no longer is told from the sample";
    EXPECT_EQ(gone.usValue1, 700);
    EXPECT_EQ(gone.ucValue2, 'X');
    EXPECT_EQ(gone.ucValue3, 255);
    EXPECT_EQ(gone.ullValue4, 6'300'000);
    EXPECT_EQ(std::string(gone.acName), "short-lived") << "a first thread has its process's name";
    EXPECT_EQ(std::string(gone.acValue8), "");
    const Tarn_sys_diag_ThreadCpu &busy = all->pstThread[1];
    EXPECT_EQ(busy.uiTid, kBusy);
    EXPECT_EQ(busy.usValue1, 500);
    EXPECT_EQ(busy.ucValue2, 'R');
    EXPECT_EQ(busy.ucValue3, 1);
    EXPECT_EQ(busy.ullValue4, 5'000'000);
    EXPECT_EQ(busy.ullValue5, 2'500'000);
    EXPECT_EQ(std::string(busy.acName), "busy");
    EXPECT_EQ(busy.uiValue6, kPid);
    EXPECT_EQ(std::string(busy.acValue7), "worker");
    EXPECT_EQ(std::string(busy.acValue8), "SCHED_FIFO 7");
    EXPECT_EQ(busy.uiValue9, 100);
    EXPECT_EQ(all->pstThread[2].uiTid, kPid);
    EXPECT_EQ(Threads(3000, 2)->uiThreadNum, 2);
    host::procfs::Task farAway = kit::FakeProc::MakeTask(kBusy, "busy", 'R');
    farAway.lastCpu = 300;
    proc.SetThread(kPid, farAway);
    EXPECT_EQ(Threads(3000, 0)->pstThread[1].ucValue3, 255) << "as far as the member goes";
    EXPECT_EQ(Threads(host::meaning::measured_interval::kMostMs + 1, 0).Status(), EINVAL);
}

// A machine that builds something: two CPUs are busy, 1600 permille of 2000 with children that are too short-lived for
// any sample, 40 with interrupts, and 30 for who knows whom.
class BuildingMachineTest : public CpuMethodsTest {
protected:
    BuildingMachineTest() { Pass(1s, 3); }

    void Pass(std::chrono::nanoseconds time, int times = 1) {
        for (int i = 0; i < times; ++i) {
            const auto ms = static_cast<uint64_t>(time / 1ms);
            machine.busyPermille = {1000, 1000};
            machine.cpus[0].ticks.interrupt += ms * 40 / 1000;
            machine.cpus[0].ticks.user -= ms * 40 / 1000;
            make.childNs += ms * 1'400'000;
            shell.childNs += ms * 200'000;
            CpuMethodsTest::Pass(time);
        }
    }
    template <class Row, class Share>
    static uint64_t Sum(const Row *rows, uint32_t number, Share Row::*share) {
        return std::accumulate(rows, rows + number, uint64_t{0},
                               [&](uint64_t sum, const Row &row) { return sum + row.*share; });
    }

    kit::ScriptedMachine::Process &make = machine.Add(kPid + 20, "make"), &shell = machine.Add(kPid + 21, "sh");
};

TEST_F(BuildingMachineTest, ThreadsAndWhatHasEndedAddUpToTheSystem) {
    machine.processes[kPid].threads[kBusy].runPermille = 330;
    Pass(1s, 10);
    const auto all = Threads(5000, 0);
    EXPECT_NEAR(static_cast<double>(Sum(all->pstThread, all->uiThreadNum, &Tarn_sys_diag_ThreadCpu::usValue1)), 2000,
                40);
    ASSERT_GE(all->uiThreadNum, 4);
    const Tarn_sys_diag_ThreadCpu &ended = all->pstThread[0];
    EXPECT_EQ(std::string(ended.acName), "(ended)");
    EXPECT_EQ(ended.usValue1, 1600);
    EXPECT_EQ(ended.uiTid, 0);
    EXPECT_EQ(ended.uiValue6, 0);
    EXPECT_EQ(all->pstThread[1].uiTid, kBusy);
    EXPECT_EQ(std::string(all->pstThread[2].acName), "(interrupts)");
    EXPECT_EQ(all->pstThread[2].usValue1, 40);
    EXPECT_EQ(std::string(all->pstThread[3].acName), "(other)");
    EXPECT_EQ(all->pstThread[3].usValue1, 30);
    EXPECT_EQ(Threads(5000, 2)->uiThreadNum, 2) << "the busiest, whatever they are";
}

TEST_F(BuildingMachineTest, ProcessesAndWhatHasEndedAddUpToTheSystem) {
    machine.processes[kPid].threads[kBusy].runPermille = 290;
    machine.Add(kPid + 9, "short-lived", 70);
    machine.processes[kPid + 9].rssKb = 77;
    proc.Write("uptime", "1000.00 1500.00\n");
    Pass(10s, 2);
    const auto all = Processes();
    EXPECT_NEAR(static_cast<double>(Sum(all->pstProc, all->uiProcNum, &Tarn_sys_diag_SysCpuStatProc::uiValue1)), 2000,
                40);
    ASSERT_EQ(all->uiProcNum, 6);
    const Tarn_sys_diag_SysCpuStatProc &gone = all->pstProc[1];
    EXPECT_EQ(gone.uiPid, kPid + 9) << "one that /proc shows no longer is told from the sample";
    EXPECT_EQ(std::string(gone.acName), "short-lived");
    EXPECT_EQ(gone.uiValue1, 70);
    EXPECT_EQ(std::string(gone.acValue5), "X (dead)");
    EXPECT_EQ(gone.uiValue14, 77);
    const Tarn_sys_diag_SysCpuStatProc &ended = all->pstProc[4];
    EXPECT_EQ(ended.uiPid, 0);
    EXPECT_EQ(std::string(ended.acName), "(ended)");
    EXPECT_EQ(ended.uiValue1, 1600);
    EXPECT_EQ(std::string(all->pstProc[5].acName), "(interrupts)") << "nothing is left for \"(other)\"";
}

// Who waited for a process that samples have seen is charged with all of its time; what it had before is not of now.
TEST_F(BuildingMachineTest, WhatAProcessUsedBeforeItEndedCountsOnce) {
    machine.processes[kPid].threads[kBusy].runPermille = 330;
    machine.Add(kPid + 9, "compiler", 330);
    Pass(10s);
    make.childNs += machine.processes[kPid + 9].usedNs;
    machine.processes.erase(kPid + 9);
    Pass(10s);
    const auto all = Processes();
    const auto *const ended = std::find_if(all->pstProc, all->pstProc + all->uiProcNum,
                                           [](const auto &row) { return std::string(row.acName) == "(ended)"; });
    ASSERT_NE(ended, all->pstProc + all->uiProcNum);
    EXPECT_NEAR(ended->uiValue1, 1600, 1);
}

TEST_F(CpuMethodsTest, TellOfThreadsThatHaveEndedWithTheirProcess) {
    machine.processes[kPid].threads.erase(kBusy);
    machine.processes[kPid].usedNs += 900'000'000; // by threads that no sample has seen
    SimulatedDaemon::Pass(1s);
    const auto all = Threads(1000, 1);
    ASSERT_EQ(all->uiThreadNum, 1);
    EXPECT_EQ(all->pstThread[0].uiTid, 0);
    EXPECT_EQ(all->pstThread[0].uiValue6, kPid);
    EXPECT_EQ(std::string(all->pstThread[0].acValue7), "worker");
    EXPECT_NEAR(all->pstThread[0].usValue1, 900, 20) << "a tick at either end is not known";
}

TEST_F(CpuMethodsTest, TellTheStatisticsOfAllProcesses) {
    proc.SetThread(kPid + 5, kit::FakeProc::MakeTask(kPid + 5, "new"));
    machine.processes[kPid].threads[kBusy].runPermille = 800;
    Pass(10s);
    const host::WallTime highest = clocks.WallNow();
    machine.processes[kPid].threads[kBusy].runPermille = 300;
    Pass(10s);
    proc.SetUser(kPid, 0, 4'000'000'000);
    proc.Link(std::to_string(kPid) + "/exe", "/a/path/whose/end/tells/more/than/its/start/does/in/fifty/bytes/worker");
    const auto all = Processes();
    ASSERT_EQ(all->uiProcNum, 2);
    const Tarn_sys_diag_SysCpuStatProc &worker = all->pstProc[0];
    EXPECT_EQ(worker.uiPid, kPid);
    EXPECT_EQ(std::string(worker.acName), "worker");
    EXPECT_EQ(worker.uiValue1, 300);
    EXPECT_EQ(worker.uiValue2, 800);
    EXPECT_EQ(worker.uiValue3, 11'250) << "ms of 11.5 s";
    EXPECT_EQ(worker.uiValue4, 250);
    ExpectTime(worker.stTime1, highest);
    EXPECT_EQ(std::string(worker.acValue5), "S (sleeping)");
    EXPECT_EQ(worker.uiValue6, 77);
    EXPECT_EQ(worker.uiValue7, 2);
    EXPECT_EQ(worker.uiValue8, 5);
    EXPECT_EQ(worker.uiValue9, 3);
    ExpectTime(worker.stTime2, clocks.WallNow() - 600s);
    EXPECT_EQ(std::string(worker.acValue10), "4000000000") << "the effective user, who has no name";
    EXPECT_EQ(std::string(worker.acValue11), "ls/more/than/its/start/does/in/fifty/bytes/worker");
    EXPECT_EQ(worker.uiValue12, 19) << "11.5 s of 600 s";
    EXPECT_EQ(worker.uiValue13, 9);
    EXPECT_EQ(worker.uiValue14, 400);

    const Tarn_sys_diag_SysCpuStatProc &fresh = all->pstProc[1];
    EXPECT_EQ(fresh.uiValue1, 0) << "not sampled yet";
    EXPECT_EQ(fresh.stTime1.usYear, 0);
    EXPECT_EQ(std::string(fresh.acValue11), "");
}

TEST_F(CpuMethodsTest, TellTheUserAndTheProgramAsTheKernelWritesThem) {
    const std::string file = std::to_string(kPid) + "/status";
    const std::string ids = fmt::format("Tgid:\t{0}\nPid:\t{0}\n", kPid);
    proc.Write(file, "Name:\tUid: 1 1\n" + ids + "Uid:\t0\t4000000000\t0\t0\n");
    const std::string exe(sizeof Tarn_sys_diag_SysCpuStatProc{}.acValue11, '/');
    proc.Link(std::to_string(kPid) + "/exe", exe + "worker");
    EXPECT_EQ(std::string(Processes()->pstProc[0].acValue10), "4000000000") << "not what its name says";
    proc.Remove(std::to_string(kPid) + "/exe");
    proc.Link(std::to_string(kPid) + "/exe", "/" + exe.substr(7) + "worker");
    EXPECT_EQ(std::string(Processes()->pstProc[0].acValue11), exe.substr(7) + "worker") << "one too long";
    proc.Write(file, ids + "Uid:\t0\n");
    EXPECT_EQ(Processes().Status(), EPROTO);
}

TEST_F(CpuMethodsTest, TellAHighestUseThatIsNoLessThanTheOneOfNow) {
    machine.processes[kPid].threads[kBusy].runPermille = 900;
    somebodyLooks = false;
    Pass(70s);
    const auto all = Processes(); // of a sample that is taken out of turn
    EXPECT_EQ(all->pstProc[0].uiValue1, 900);
    EXPECT_EQ(all->pstProc[0].uiValue2, 900);
}

TEST_F(CpuMethodsTest, TellTheHighestUseUntilItIsReset) {
    Pass(10s);
    machine.processes[kPid].threads[kBusy].runPermille = 100;
    machine.busyPermille = {300, 100};
    SetProcess(kPid, 1, 2000, 0);
    Pass(10s);
    EXPECT_EQ(Processes()->pstProc[0].uiValue2, 500);
    EXPECT_EQ(
        CallMethod<Tarn_sys_diag_ResetMaxCpuResult>(ResetMaxCpuUseInfo, Tarn_sys_diag_ResetMaxCpuCondition{})->uiResult,
        0);
    EXPECT_EQ(Processes()->pstProc[0].uiValue2, 0);
    EXPECT_EQ(Processes()->pstProc[0].stTime1.usYear, 0);
    EXPECT_EQ(daemon->cpuPeaks.OfSystem().permille, 0);
    EXPECT_EQ(daemon->cpuPeaks.OfCpu(0).permille, 0);
    EXPECT_EQ(CallMethod<Tarn_sys_diag_MultiCpuUsageRet>(MultiCpuUsageQuery, Tarn_sys_diag_MultiCpuUsageInput{})
                  ->pstCpu[0]
                  .stTime.usYear,
              0);
    EXPECT_EQ(daemon->cpuOverload.WatchedProcess(kPid).threads.back().highest, 0);
    Pass(10s);
    EXPECT_EQ(Processes()->pstProc[0].uiValue2, 100);
    EXPECT_EQ(daemon->cpuPeaks.OfCpu(0).permille, 300);
    EXPECT_EQ(daemon->cpuPeaks.OfCpu(7).permille, 0);
    machine.Add(kPid, "another").threads[kBusy] = {};
    Pass(1s);
    EXPECT_EQ(Processes()->pstProc[0].uiValue2, 0) << "of another process";
}

TEST_F(CpuMethodsTest, MeasureTheCpus) {
    machine.busyPermille = {900, 0};
    Pass(1s);
    const host::WallTime highest = clocks.WallNow();
    tarnd::CpuTicks &first = machine.cpus[0].ticks;
    machine.busyPermille = {100, 200};
    first.system += 100;
    first.interrupt += 50;
    first.stolen += 30;
    first.ioWait += 20;
    machine.contextSwitches += 1;
    machine.Pass(800ms);
    clocks.Advance(1s);
    daemon->sampler.Take();
    const auto cpus =
        CallMethod<Tarn_sys_diag_MultiCpuUsageRet>(MultiCpuUsageQuery, Tarn_sys_diag_MultiCpuUsageInput{});
    ASSERT_EQ(cpus->uiCpuNum, 3);
    EXPECT_EQ(std::string(cpus->pstCpu[0].acName), "cpu");
    EXPECT_EQ(cpus->pstCpu[0].uiValue1, 233) << "420 of 1800";
    EXPECT_EQ(cpus->pstCpu[0].uiValue5, 450);
    const Tarn_sys_diag_MultiCpuUsage &cpu = cpus->pstCpu[1];
    EXPECT_EQ(std::string(cpu.acName), "cpu0");
    EXPECT_EQ(cpu.uiValue1, 260);
    EXPECT_EQ(cpu.uiValue2, 80);
    EXPECT_EQ(cpu.uiValue3, 150) << "with interrupts";
    EXPECT_EQ(cpu.uiValue4, 20);
    EXPECT_EQ(cpu.uiValue5, 900);
    ExpectTime(cpu.stTime, highest);
    EXPECT_EQ(std::string(cpus->pstCpu[2].acName), "cpu1");
    EXPECT_EQ(cpus->pstCpu[2].uiValue5, 200);

    machine.cpus.push_back({7, {}});
    machine.busyPermille.push_back(0);
    Pass(1s);
    EXPECT_EQ(
        CallMethod<Tarn_sys_diag_MultiCpuUsageRet>(MultiCpuUsageQuery, Tarn_sys_diag_MultiCpuUsageInput{})->uiCpuNum, 3)
        << "one that has just come up has no use yet";
}

TEST_F(CpuMethodsTest, TellTheHistoryInPercent) {
    Restart();
    machine.busyPermille = {1000, 990};
    Pass(1s);
    machine.busyPermille = {0, 8};
    machine.cpus[0].ticks.ioWait += 395;
    Pass(1s);
    const auto history = CallMethod<Tarn_sys_diag_SysCpuMonitorHistoryInfoResult>(
        GetSysCpuMonitorHistoryInfo, Tarn_sys_diag_SysCpuMonitorHistoryInfoInput{});
    ASSERT_EQ(history->uiRecordNum, 2) << "of three samples";
    EXPECT_EQ(history->pstRecord[0].ucValue1, 100) << "rounded";
    EXPECT_EQ(history->pstRecord[1].ucValue1, 0);
    EXPECT_EQ(history->pstRecord[1].ucValue2, 17) << "16.5, rounded";
    ExpectTime(history->pstRecord[1].stTime, clocks.WallNow());
}

// ---- Overloads ----

TEST_F(CpuMethodsTest, TellOfAnOverload) {
    EXPECT_EQ(Overload().Status(), ENODATA);
    ASSERT_EQ(SetSystem(700, 0, 1), 0);
    const host::WallTime begin = clocks.WallNow();
    machine.busyPermille = {1000, 500};
    Pass(2s);
    ASSERT_TRUE(kit::Eventually([&] { return daemon->cpuOverload.RecordNumber() != 0; }));
    const auto overload = Overload();
    ExpectTime(overload->stTime1, begin);
    EXPECT_EQ(std::string(overload->acName), "worker");
    EXPECT_EQ(overload->uiValue1, kPid);
    EXPECT_EQ(overload->uiValue2, 750);
    EXPECT_EQ(overload->uiValue3, 500);
    EXPECT_EQ(overload->stTime2.usYear, 0) << "it lasts";
    const auto stacks = CallMethod<Tarn_sys_diag_TopCpuOvloadThreadCallstackRet>(
        DisCpuOvloadCallstackInfo, Tarn_sys_diag_CpuOvloadThreadCallstackInput{});
    ASSERT_EQ(stacks->uiThreadNum, 1);
    EXPECT_EQ(stacks->astThread[0].uiPid, kPid);
    EXPECT_EQ(stacks->astThread[0].uiTid, kBusy);
    EXPECT_EQ(stacks->astThread[0].ullCpuTime, 1500) << "ms";
    EXPECT_EQ(stacks->astThread[0].uiCpuUse, 500);
    EXPECT_EQ(stacks->astThread[0].pcCallStack, nullptr) << "there is no such process";
    machine.busyPermille = {699, 699};
    Pass(1s);
    ExpectTime(Overload()->stTime2, clocks.WallNow());
    EXPECT_EQ(Config()->uiValue6, 1);
}

TEST_F(CpuMethodsTest, SayWhatIsWrongWithARequest) {
    const auto measure = [](uint32_t interval) { return Measure(CalculateOsProcCpuUse, kPid, interval).Reason(); };
    const auto measureAll = [](uint32_t interval) {
        return CallMethod<Tarn_sys_diag_ThreadCpuRet>(CalculateAllThreadCpuUse,
                                                      Tarn_sys_diag_ThreadCpuInput{interval, 0})
            .Reason();
    };
    const auto setSystem = [](const Tarn_sys_diag_SysOvLoadCpuThreshold &request) {
        return CallMethod<Tarn_sys_diag_OperResult>(SysOvLoadCpuThresholdSet, request).Reason();
    };
    const auto setProcess = [](const Tarn_sys_diag_SetCpuOvProcThresholdInput &request) {
        return CallMethod<Tarn_sys_diag_OperResult>(SetCpuOvProcThreshold, request).Reason();
    };
    const auto debug = [](const Tarn_sys_diag_SetOvLoadDebugSwitchInput &request) {
        return CallMethod<Tarn_sys_diag_Result>(SetOvLoadDebugSwitch, request).Reason();
    };
    const std::pair<std::string, std::string> reasons[] = {
        {measure(120'001), "interval (uiValue1) is 120001 ms, expected 0 to 120000"},
        {measureAll(120'001), "interval (uiValue1) is 120001 ms, expected 0 to 120000"},
        {setSystem({1001, 0, 0}), "begins-at (uiValue1) is 1001 ‰, expected 0 to 1000"},
        {setSystem({500, 501, 0}),
         "ends-below (uiValue2) is 501 ‰, expected at most begins-at (uiValue1), which is 500 ‰"},
        {setSystem({500, 0, 3601}), "must-last (uiValue3) is 3601 s, expected 0 to 3600"},
        {setProcess({kPid, 2, 500, 0}), "on (ucValue2) is 2, expected 0 to 1"},
        {setProcess({kPid, 1, 0, 0}), "begins-at (uiValue3) is 0 ‰, expected at least 1"},
        {setProcess({kPid, 1, 2001, 0}), "begins-at (uiValue3) is 2001 ‰, expected 1 to 2000, 1000 for each CPU"},
        {setProcess({kPid, 1, 500, 3601}), "must-last (uiValue4) is 3601 s, expected 0 to 3600"},
        {setProcess({kPid, 0, 0, 3601}), "process 5000000 is not watched"},
        {debug({4, 1}), "monitors (uiValue1) is 4, expected a sum of cpu (1) and memory (2)"},
        {debug({1, 2}), "on (uiValue2) is 2, expected 0 to 1"}};
    for (const auto &[reason, expected] : reasons) {
        EXPECT_EQ(reason, expected);
    }
}

TEST_F(CpuMethodsTest, KeepThresholds) {
    const auto isOn = [] {
        return CallMethod<Tarn_sys_diag_OvloadCpuSwitchRet>(OvloadCpuSwitchState, Tarn_sys_diag_OvloadCpuSwitchInput{})
            ->uiSwitch;
    };
    EXPECT_EQ(isOn(), 0);
    EXPECT_EQ(SetSystem(1001, 0, 0), EINVAL);
    EXPECT_EQ(SetSystem(500, 501, 0), EINVAL);
    EXPECT_EQ(SetSystem(500, 0, host::meaning::cpu_overload::kMostSeconds + 1), EINVAL);
    EXPECT_EQ(isOn(), 0);
    EXPECT_EQ(SetSystem(1000, 1000, host::meaning::cpu_overload::kMostSeconds), 0) << "as much as there is";
    EXPECT_EQ(isOn(), 1);
    EXPECT_EQ(SetSystem(900, 0, 7), 0);
    EXPECT_EQ(SetProcess(kPid, 1, 2000, 3), 0);
    EXPECT_EQ(Config()->uiValue1, 900);
    EXPECT_EQ(Config()->uiValue2, 900) << "the same when it is not said";
    EXPECT_EQ(Config()->uiValue3, 7);
    EXPECT_EQ(Config()->uiValue4, 1);
    EXPECT_EQ(Config()->uiValue5, 1000) << "ms from sample to sample";
    EXPECT_EQ(Config()->uiValue6, 0);

    EXPECT_EQ(SetProcess(kPid, 2, 500, 0), EINVAL);
    EXPECT_EQ(SetProcess(kPid, 1, 0, 0), EINVAL);
    EXPECT_EQ(SetProcess(kPid, 1, 2001, 0), EINVAL) << "of two CPUs";
    EXPECT_EQ(SetProcess(kPid, 1, 500, host::meaning::cpu_overload::kMostSeconds + 1), EINVAL);
    EXPECT_EQ(SetProcess(kPid, 1, 1, host::meaning::cpu_overload::kMostSeconds), 0);
    EXPECT_EQ(SetProcess(kPid + 9, 1, 500, 0), ESRCH);
    EXPECT_EQ(SetProcess(kPid, 0, 0, 0), 0);
    EXPECT_EQ(SetProcess(kPid, 0, 0, 0), ENOENT);
}

TEST_F(CpuMethodsTest, TellOfAWatchedProcess) {
    const auto watched = [](uint32_t pid) {
        return CallMethod<Tarn_sys_diag_GetCpuOvMonProcInfoOutput>(GetCpuOvMonProcInfo, Tarn_sys_diag_Process{pid});
    };
    EXPECT_EQ(watched(kPid).Status(), ENOENT);
    ASSERT_EQ(SetProcess(kPid, 1, 500, 0), 0);
    Pass(10s);
    machine.processes[kPid].threads[kBusy].runPermille = 501;
    Pass(10s);
    machine.processes[kPid].threads[kBusy].runPermille = 500;
    Pass(10s);
    const auto answer = watched(kPid);
    EXPECT_EQ(answer->uiPid, kPid);
    ASSERT_EQ(answer->uiThreadNum, 2);
    const Tarn_sys_diag_CpuOvMonThread &busy = answer->pstThread[1];
    EXPECT_EQ(busy.uiValue1, kBusy);
    EXPECT_EQ(busy.uiValue2, 500);
    EXPECT_EQ(busy.uiValue3, 501);
    EXPECT_EQ(busy.uiValue4, 15'510) << "ms";
    EXPECT_EQ(busy.ucValue5, 'R');
    EXPECT_EQ(busy.ucValue6, 1);
    EXPECT_EQ(busy.uiValue7, 1);
    proc.RemoveThread(kPid, kBusy);
    EXPECT_EQ(watched(kPid)->uiThreadNum, 1) << "it has ended since";
}

TEST_F(CpuMethodsTest, SwitchTheDebugging) {
    const auto set = [](uint32_t monitors, uint32_t on) {
        return CallMethod<Tarn_sys_diag_Result>(SetOvLoadDebugSwitch,
                                                Tarn_sys_diag_SetOvLoadDebugSwitchInput{monitors, on})
            ->uiResult;
    };
    EXPECT_EQ(set(0, 1), EINVAL);
    EXPECT_EQ(set(4, 1), EINVAL);
    EXPECT_EQ(set(3, 2), EINVAL);
    EXPECT_EQ(set(3, 1), 0);
    machine.busyPermille = {1000, 500};
    testing::internal::CaptureStderr();
    Pass(1s);
    EXPECT_EQ(set(2, 0), 0);
    machine.busyPermille = {200, 0};
    Pass(1s);
    EXPECT_EQ(set(1, 0), 0);
    Pass(1s);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("CPU 750 permille in use; process 5000000 (worker) most, 500 permille of a CPU"), log.npos);
    EXPECT_NE(log.find("memory 400 permille in use, 600000 KiB of 1000000 available; process 5000000 (worker) most, "
                       "1000 KiB"),
              log.npos);
    EXPECT_NE(log.find("CPU 100 permille in use"), log.npos);
    const size_t first = log.find("overload debug: memory");
    EXPECT_EQ(log.find("overload debug: memory", first + 1), log.npos) << "once, then it is off";
}

TEST_F(CpuMethodsTest, DebugAMachineOnWhichNoProcessRuns) {
    daemon->overloadDebug.Switch(host::meaning::overload_monitor::kCpu, true);
    machine.processes[kPid].threads[kBusy].runPermille = 0;
    testing::internal::CaptureStderr();
    Pass(1s);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("CPU 0 permille in use, by no process that ran for a tick"), log.npos) << log;
}

// ---- Events ----

TEST_F(CpuMethodsTest, TellWhichThreadKeptACpuBusy) {
    proc.Write("pressure/cpu", "some avg10=12.34 avg60=1.00 avg300=0.00 total=1\n");
    machine.busyPermille = {0, 950};
    machine.processes[kPid].threads[kBusy].runPermille = 900;
    machine.Add(kPid + 9, "elsewhere", 1000);
    host::procfs::Task elsewhere = kit::FakeProc::MakeTask(kPid + 9, "elsewhere", 'R');
    proc.SetThread(kPid + 9, elsewhere); // on CPU 0
    Pass(1s);
    const host::WallTime begin = clocks.WallNow();
    Pass(1s, 2);
    EXPECT_EQ(Events(0, 0, 0)->uiEventNum, 1);
    Pass(1s, 2);
    const auto events = Events(0, 0, 0);
    ASSERT_EQ(events->uiEventNum, 1) << "one that lasts";
    const Tarn_sys_diag_PadsCpuEvent &event = events->pstEvent[0];
    ExpectTime(event.stTime, begin - 1s);
    EXPECT_EQ(event.uiDuration, 5000);
    EXPECT_EQ(event.uiCpuId, 1);
    EXPECT_EQ(event.uiCpuUse, 950);
    EXPECT_EQ(event.uiPressure, 123);
    EXPECT_EQ(event.uiPid, kPid);
    EXPECT_EQ(event.uiTid, kBusy);
    EXPECT_EQ(std::string(event.szThreadName), "busy");
    EXPECT_EQ(event.uiThreadUse, 900);
}

TEST_F(CpuMethodsTest, TellWhoKeepsACpuBusyLatelyAndWhoDidOverTheEvent) {
    const uint32_t old = kPid + 9, young = kPid + 10;
    machine.busyPermille = {0, 1000};
    for (const uint32_t pid : {old, young}) {
        machine.Add(pid, "worker", pid == old ? 900 : 0);
        host::procfs::Task task = kit::FakeProc::MakeTask(pid, pid == old ? "old" : "young", 'R');
        task.lastCpu = 1;
        proc.SetThread(pid, task);
    }
    Pass(1s, 30);
    machine.processes[old].threads[old].runPermille = 55;
    machine.processes[young].threads[young].runPermille = 940;
    Pass(1s, 5);
    const auto events = Events(0, 0, 0);
    ASSERT_EQ(events->uiEventNum, 1);
    EXPECT_EQ(events->pstEvent[0].uiDuration, 35'000);
    EXPECT_EQ(events->pstEvent[0].uiPid, young);
    EXPECT_EQ(std::string(events->pstEvent[0].szThreadName), "young");
    EXPECT_EQ(events->pstEvent[0].uiThreadUse, 940);
    EXPECT_NE(
        events.Reason().find(fmt::format("on CPU 1, thread {0} (old) of process {0} had most: 779 permille", old)),
        std::string::npos)
        << events.Reason();
    EXPECT_EQ(Events(old, 0, 0)->uiEventNum, 1) << "it is both processes'";
    EXPECT_EQ(Events(young, 0, 0)->uiEventNum, 1);
}

TEST_F(CpuMethodsTest, TellTheEventsThatAreAskedFor) {
    proc.Write("pressure/cpu", "some avg10=0.00 avg60=0.00 avg300=0.00 total=0\n");
    for (size_t i = 0; i < tarnd::CpuEvents::kEvents + 2; ++i) {
        machine.busyPermille = {0, 949};
        Pass(1s);
        machine.busyPermille = {0, 950 + static_cast<uint32_t>(i) % 50};
        Pass(1s, 3);
    }
    const auto all = Events(0, 0, 0);
    ASSERT_EQ(all->uiEventNum, tarnd::CpuEvents::kEvents);
    EXPECT_EQ(all->pstEvent[0].uiCpuUse, 952) << "the first two have gone";
    const auto newest = Events(kPid, 0, 2);
    ASSERT_EQ(newest->uiEventNum, 2);
    EXPECT_EQ(newest->pstEvent[1].uiCpuUse, 950 + (tarnd::CpuEvents::kEvents + 1) % 50);
    EXPECT_EQ(Events(kPid + 1, 0, 0)->uiEventNum, 0) << "of another process";
    EXPECT_EQ(Events(0, 4, 0)->uiEventNum, 2) << "within four seconds";
    EXPECT_EQ(Events(0, 3, 0)->uiEventNum, 1);
    clocks.Advance(4s);
    EXPECT_EQ(Events(0, 3, 0)->uiEventNum, 0);
}

TEST_F(CpuMethodsTest, TellOfNoEventOnACpuThatHasJustComeUp) {
    machine.cpus.push_back({2, {}});
    machine.busyPermille.push_back(1000);
    Pass(1s, 3);
    EXPECT_EQ(Events(0, 0, 0)->uiEventNum, 0);
    Pass(1s);
    ASSERT_EQ(Events(0, 0, 0)->uiEventNum, 1);
    EXPECT_EQ(Events(0, 0, 0)->pstEvent[0].uiDuration, 3000);
}

TEST_F(CpuMethodsTest, TellOfNoThreadThatItHadMoreThanACpu) {
    machine.busyPermille = {0, 1000};
    machine.processes[kPid].threads[kBusy].runPermille = 1100; // it was read late
    Pass(1s, 3);
    ASSERT_EQ(Events(0, 0, 0)->uiEventNum, 1);
    EXPECT_EQ(Events(0, 0, 0)->pstEvent[0].uiThreadUse, 1000);
}

TEST_F(CpuMethodsTest, DoNotTellAgainOfAnEventThatManyOthersFollowed) {
    for (uint32_t id = 2; id <= tarnd::CpuEvents::kEvents; ++id) {
        machine.cpus.push_back({id, {}});
    }
    machine.busyPermille.assign(machine.cpus.size(), 0);
    machine.busyPermille[0] = 1000;
    Pass(1s, 3);
    ASSERT_EQ(Events(0, 0, 0)->uiEventNum, 1);
    machine.busyPermille.assign(machine.cpus.size(), 1000);
    Pass(1s, 3);
    machine.busyPermille.assign(machine.cpus.size(), 0);
    machine.busyPermille[0] = 1000;
    Pass(1s); // the first lasts, and has left the list
    const auto events = Events(0, 0, 0);
    ASSERT_EQ(events->uiEventNum, tarnd::CpuEvents::kEvents);
    EXPECT_EQ(events->pstEvent[0].uiCpuId, 1);
}

TEST_F(CpuMethodsTest, TellNoEventsWhereTheFunctionIsOff) {
    machine.busyPermille = {1000, 1000};
    Pass(1s, 2);
    daemon->healthSettings.SwitchFunction({host::meaning::system_health_item::kCpuEvent, 0, 0});
    Pass(1s, 10);
    EXPECT_EQ(Events(0, 0, 0)->uiEventNum, 0);
    daemon->healthSettings.SwitchFunction({host::meaning::system_health_item::kCpuEvent, 1, 0});
    Pass(1s, 2);
    EXPECT_EQ(Events(0, 0, 0)->uiEventNum, 0) << "from the start";
    Pass(1s);
    EXPECT_EQ(Events(0, 0, 0)->uiEventNum, 2);
}

} // namespace
