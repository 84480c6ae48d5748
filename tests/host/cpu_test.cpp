// The daemon's answers about CPU use, against clocks, ps and readings of /proc by the tests.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <cmath>

#include "host/procfs/procfs.h"
#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;
using kit::EndedPid;
using kit::Subject;
using kit::TaskIds;

class CpuTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--sample-interval", "100", "--state-dir", dir_.Path() / "state"};
    }

    auto Processes() {
        return Call<Tarn_sys_diag_SysCpuStatInfo>("SysCpuStatInfoQuery", Tarn_sys_diag_SysCpuStatInfoInput{});
    }
    auto Stacks() {
        return Call<Tarn_sys_diag_TopCpuOvloadThreadCallstackRet>("DisCpuOvloadCallstackInfo",
                                                                  Tarn_sys_diag_CpuOvloadThreadCallstackInput{});
    }
    auto Config() {
        return Call<Tarn_sys_diag_GetSysCpuOverloadCfgOutput>("GetSysCpuOverloadCfg", Tarn_sys_diag_None{});
    }
    auto Overload() {
        return Call<Tarn_sys_diag_DisCpuOvloadRet>("DisCpuOvloadInfo", Tarn_sys_diag_DisCpuOvloadInput{});
    }

    uint32_t SetSystem(uint32_t over, uint32_t recover, uint32_t seconds) {
        const auto answer = Call<Tarn_sys_diag_OperResult>("SysOvLoadCpuThresholdSet",
                                                           Tarn_sys_diag_SysOvLoadCpuThreshold{over, recover, seconds});
        EXPECT_EQ(answer.Status(), 0);
        return answer->uiResult;
    }
    uint32_t SetProcess(uint32_t pid, bool on, uint32_t permille, uint32_t seconds) {
        const auto answer = Call<Tarn_sys_diag_OperResult>(
            "SetCpuOvProcThreshold",
            Tarn_sys_diag_SetCpuOvProcThresholdInput{pid, static_cast<uint8_t>(on), permille, seconds});
        EXPECT_EQ(answer.Status(), 0);
        return answer->uiResult;
    }

    kit::Answer<Unit, Tarn_sys_diag_OsProcessCpuRet> Measure(const char *method, uint32_t pid) {
        return Call<Tarn_sys_diag_OsProcessCpuRet>(method, Tarn_sys_diag_OsProcessCpuInput{pid, 900, 0});
    }
    // Whether the share of a process is what its clock says. The daemon's second is not just the test's, which shows
    // when others take the processors in between.
    bool TellsTheUse(const char *method, uint32_t pid, long cpus) {
        const kit::CpuClock clock(pid);
        return kit::Eventually([&] {
            const auto usedBefore = clock.Used();
            const auto start = std::chrono::steady_clock::now();
            std::this_thread::sleep_for(1s);
            const auto answer = Measure(method, pid);
            const std::chrono::duration<double> used = clock.Used() - usedBefore;
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            const double permille = used / elapsed * 1000 / static_cast<double>(cpus);
            return permille > 50 && std::abs(answer->uiValue1 - permille) < permille * 0.25 + 20;
        });
    }

    // What ps says of a process.
    std::string Ps(uint32_t pid, const std::string &column) {
        const kit::Process ps(dir_.Path(), {"/bin/ps", "-o", column + "=", "-p", std::to_string(pid)});
        std::string text;
        kit::Eventually([&] { return !(text = ps.Out()).empty() && text.back() == '\n'; });
        std::istringstream(text) >> text;
        return text;
    }
};

template <class Element, class Predicate>
const Element *Find(const Element *elements, uint32_t number, Predicate predicate) {
    const Element *const found = std::find_if(elements, elements + number, predicate);
    return found == elements + number ? nullptr : found;
}

// ---- Rates ----

TEST_F(CpuTest, MeasuresTheThreadsOfAProcess) {
    const Subject subject(dir_);
    const kit::CpuClock clock(subject.Pid());
    for (const auto &entry : std::map<const char *, long>{{"CalculateProcThreadCpuUse", 1},
                                                          {"CalculateOsProcCpuUse", sysconf(_SC_NPROCESSORS_ONLN)}}) {
        const char *const method = entry.first; // clang 14 captures no structured binding
        const long cpus = entry.second;
        SCOPED_TRACE(method);
        EXPECT_TRUE(TellsTheUse(method, subject.Pid(), cpus));
        const auto answer = Measure(method, subject.Pid());
        ASSERT_EQ(answer.Status(), 0);
        ASSERT_EQ(answer->uiThreadNum, TaskIds(subject.Pid()).size());
        const Tarn_sys_diag_OsProcessCpuThread &busiest = answer->pstThread[0];
        EXPECT_EQ(std::string(busiest.acName), "burner");
        EXPECT_EQ(busiest.uiValue1, subject.tids.at("burner"));
        // The process is counted in ticks: one at each end, in 0.9 s, and what a busy machine adds.
        EXPECT_NEAR(busiest.uiValue2, answer->uiValue1, 60);
        EXPECT_NEAR(static_cast<double>(busiest.ullValue3), static_cast<double>(clock.Used().count()) / 1000, 300'000);
        EXPECT_EQ(std::string(busiest.acValue6), "SCHED_OTHER nice " + std::to_string(subject.burnerNice));
        const auto *const sleeper = Find(answer->pstThread, answer->uiThreadNum,
                                         [&](const auto &t) { return t.uiValue1 == subject.tids.at("sleeper"); });
        ASSERT_NE(sleeper, nullptr);
        EXPECT_EQ(std::string(sleeper->acName), "sleeper");
        EXPECT_LE(sleeper->uiValue2, 5);
        EXPECT_EQ(std::string(sleeper->acValue4), "S (sleeping)");
    }
}

TEST_F(CpuTest, CountsThreadsThatHaveEnded) {
    const Subject subject(dir_, "fleeting", 1);
    EXPECT_TRUE(TellsTheUse("CalculateProcThreadCpuUse", subject.Pid(), 1));
    EXPECT_TRUE(TellsTheUse("CalculateOsProcCpuUse", subject.Pid(), sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST_F(CpuTest, AnswersWithoutWaiting) {
    const Subject subject(dir_);
    const auto status = [&](Tarn_sys_diag_OsProcessCpuInput request) {
        return Call<Tarn_sys_diag_OsProcessCpuRet>("CalculateOsProcCpuUse", request).Status();
    };
    // Ten calls that each cover two minutes.
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(status({subject.Pid(), 120000, 0}), 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    const auto one = Call<Tarn_sys_diag_OsProcessCpuRet>("CalculateProcThreadCpuUse",
                                                         Tarn_sys_diag_OsProcessCpuInput{subject.Pid(), 100, 1});
    ASSERT_EQ(one.Status(), 0);
    EXPECT_EQ(one->uiThreadNum, 1);
    EXPECT_EQ(status({subject.Pid(), 120001, 0}), EINVAL);
    const uint32_t ended = EndedPid(); // which the latest sample may have seen
    EXPECT_TRUE(kit::Eventually([&] { return status({ended, 10, 0}) == ESRCH; }));
    EXPECT_EQ(status({subject.tids.at("sleeper"), 10, 0}), ESRCH) << "a thread's id";
}

TEST_F(CpuTest, FindsTheBusiestThreadsOfTheSystem) {
    const Subject subject(dir_);
    const auto query = [&](uint32_t limit) {
        return Call<Tarn_sys_diag_ThreadCpuRet>("CalculateAllThreadCpuUse", Tarn_sys_diag_ThreadCpuInput{500, limit});
    };
    const uint32_t burner = subject.tids.at("burner");
    EXPECT_TRUE(kit::Eventually([&] {
        const auto answer = query(20);
        const auto *const found =
            Find(answer->pstThread, answer->uiThreadNum, [&](const auto &t) { return t.uiTid == burner; });
        return answer.Status() == 0 && answer->uiThreadNum <= 20 && found != nullptr && found->usValue1 > 100;
    })) << "the burner is not among the 20 busiest";

    const auto before = host::procfs::Procfs().ReadSchedulerCount(subject.Pid(), burner);
    std::this_thread::sleep_for(500ms); // sampled since
    const auto all = query(0);
    const auto after = host::procfs::Procfs().ReadSchedulerCount(subject.Pid(), burner);
    ASSERT_EQ(all.Status(), 0);
    const auto *const found = Find(all->pstThread, all->uiThreadNum, [&](const auto &t) { return t.uiTid == burner; });
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(std::string(found->acName), "burner");
    EXPECT_EQ(found->uiValue6, subject.Pid());
    EXPECT_EQ(std::string(found->acValue7), "host_subject");
    EXPECT_LE(found->usValue1, 1000);
    const auto used = std::chrono::duration_cast<std::chrono::microseconds>(kit::CpuClock(subject.Pid()).Used());
    EXPECT_NEAR(static_cast<double>(found->ullValue4), static_cast<double>(used.count()), 500'000);
    EXPECT_GE(found->ullValue4, before.runNs / 1000);
    EXPECT_LE(found->ullValue4, after.runNs / 1000);
    EXPECT_GE(found->ullValue5, before.waitNs / 1000);
    EXPECT_LE(found->ullValue5, after.waitNs / 1000);
    EXPECT_GE(found->uiValue9, before.sliceNum);
    EXPECT_LE(found->uiValue9, after.sliceNum);
    EXPECT_EQ(std::string(found->acValue8), "SCHED_OTHER nice " + std::to_string(subject.burnerNice));
    EXPECT_LT(found->ucValue3, sysconf(_SC_NPROCESSORS_CONF));
    const auto *const sleeper =
        Find(all->pstThread, all->uiThreadNum, [&](const auto &t) { return t.uiTid == subject.tids.at("sleeper"); });
    ASSERT_NE(sleeper, nullptr);
    EXPECT_EQ(sleeper->ucValue2, 'S');
    for (uint32_t i = 1; i < all->uiThreadNum; ++i) {
        ASSERT_GE(all->pstThread[i - 1].usValue1, all->pstThread[i].usValue1);
    }
}

TEST_F(CpuTest, TellsTheStatisticsOfAllProcesses) {
    const Subject subject(dir_);
    const auto isSubject = [&](const auto &process) { return process.uiPid == subject.Pid(); };
    // It must have been sampled twice.
    EXPECT_TRUE(kit::Eventually([&] {
        const auto answer = Processes();
        const auto *const found = Find(answer->pstProc, answer->uiProcNum, isSubject);
        return found != nullptr && found->uiValue2 > 100 && found->uiValue3 + found->uiValue4 > 100;
    }));
    const host::procfs::Task before = host::procfs::Procfs().ReadProcess(subject.Pid());
    const auto answer = Processes();
    const host::procfs::Task after = host::procfs::Procfs().ReadProcess(subject.Pid());
    ASSERT_EQ(answer.Status(), 0);
    const auto *const found = Find(answer->pstProc, answer->uiProcNum, isSubject);
    ASSERT_NE(found, nullptr);
    const auto ms = [](uint64_t ticks) { return ticks * 1000 / host::procfs::TicksPerSecond(); };
    EXPECT_GE(found->uiValue3, ms(before.userTicks));
    EXPECT_LE(found->uiValue3, ms(after.userTicks));
    EXPECT_GE(found->uiValue4, ms(before.systemTicks));
    EXPECT_LE(found->uiValue4, ms(after.systemTicks));
    EXPECT_EQ(std::to_string(found->uiValue13), Ps(subject.Pid(), "maj_flt"));
    EXPECT_LT(found->uiValue9, sysconf(_SC_NPROCESSORS_CONF));
    EXPECT_GE(found->stTime1.usYear, 2024) << "when its use was highest";
    EXPECT_EQ(std::string(found->acName), "host_subject");
    EXPECT_LE(found->uiValue1, 2000);
    EXPECT_GE(found->uiValue2, found->uiValue1);
    EXPECT_EQ(std::string(found->acValue5), "S (sleeping)") << "its first thread";
    EXPECT_EQ(found->uiValue6, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(std::to_string(found->uiValue7), Ps(subject.Pid(), "nlwp"));
    EXPECT_EQ(std::to_string(found->uiValue8), Ps(subject.Pid(), "nice"));
    EXPECT_EQ(std::string(found->acValue10), Ps(subject.Pid(), "user"));
    const std::string exe = std::filesystem::read_symlink("/proc/" + std::to_string(subject.Pid()) + "/exe");
    EXPECT_TRUE(exe.ends_with(found->acValue11)) << found->acValue11;
    EXPECT_NEAR(found->uiValue14, std::stod(Ps(subject.Pid(), "rss")), 1000);
    EXPECT_GT(found->uiValue12, 0);

    tm start{};
    start.tm_year = found->stTime2.usYear - 1900;
    start.tm_mon = found->stTime2.ucMonth - 1;
    start.tm_mday = found->stTime2.ucDay;
    start.tm_hour = found->stTime2.ucHour;
    start.tm_min = found->stTime2.ucMinute;
    start.tm_sec = found->stTime2.ucSecond;
    start.tm_isdst = -1;
    const double age = std::stod(Ps(subject.Pid(), "etimes"));
    EXPECT_NEAR(static_cast<double>(mktime(&start)), static_cast<double>(time(nullptr)) - age, 2.5);

    const auto *const first = Find(answer->pstProc, answer->uiProcNum, [](const auto &p) { return p.uiPid == 1; });
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first->acName) + "\n", kit::TextOfFile("/proc/1/comm"));
}

TEST_F(CpuTest, KeepsTheHighestUseUntilItIsReset) {
    const auto highest = [&](uint32_t pid) {
        const auto answer = Processes();
        const auto *const found =
            Find(answer->pstProc, answer->uiProcNum, [&](const auto &process) { return process.uiPid == pid; });
        return found == nullptr ? 0 : found->uiValue2;
    };
    const Subject subject(dir_);
    EXPECT_TRUE(kit::Eventually([&] { return highest(subject.Pid()) > 200; }));
    subject.Signal(SIGSTOP);
    std::this_thread::sleep_for(300ms);
    EXPECT_GT(highest(subject.Pid()), 200) << "it stands still, but did not";
    // A sample of the time before may come after a reset.
    EXPECT_TRUE(kit::Eventually([&] {
        const auto reset =
            Call<Tarn_sys_diag_ResetMaxCpuResult>("ResetMaxCpuUseInfo", Tarn_sys_diag_ResetMaxCpuCondition{});
        EXPECT_EQ(reset.Status(), 0);
        EXPECT_EQ(reset->uiResult, 0);
        std::this_thread::sleep_for(300ms);
        return highest(subject.Pid()) == 0;
    }));
    subject.Signal(SIGCONT);
    EXPECT_TRUE(kit::Eventually([&] { return highest(subject.Pid()) > 200; }));
}

// Busy and total ticks of all CPUs.
std::pair<double, double> BusyAndTotal() {
    std::istringstream line(kit::TextOfFile("/proc/stat"));
    std::string name;
    line >> name;
    double busy = 0, total = 0;
    for (int i = 0; i < 8; ++i) {
        double ticks = 0;
        line >> ticks;
        total += ticks;
        busy += i == 3 || i == 4 ? 0 : ticks; // idle, iowait
    }
    return {busy, total};
}

TEST_F(CpuTest, MeasuresTheCpus) {
    const Subject subject(dir_);
    const auto tellHistory = [&] {
        return Call<Tarn_sys_diag_SysCpuMonitorHistoryInfoResult>("GetSysCpuMonitorHistoryInfo",
                                                                  Tarn_sys_diag_SysCpuMonitorHistoryInfoInput{});
    };
    const auto [busyBefore, totalBefore] = BusyAndTotal();
    ASSERT_TRUE(kit::Eventually([&] { return tellHistory()->uiRecordNum >= 10; }));
    const auto [busy, total] = BusyAndTotal();
    const double permille = (busy - busyBefore) * 1000 / (total - totalBefore);

    const auto kpiCpu = [&] {
        return Call<Tarn_sys_diag_DisOsResourceInfoRet>("GetKpiCpuInfo", Tarn_sys_diag_DisOsResourceInfoInput{});
    };
    const auto kpi = kpiCpu();
    ASSERT_EQ(kpi.Status(), 0);
    EXPECT_EQ(std::string(kpi->acName), "cpu");
    EXPECT_NEAR(kpi->uiValue2, permille, 250) << "since the daemon's start, a little longer than the test measured";
    EXPECT_GE(kpi->uiValue3, kpi->uiValue1);
    EXPECT_GE(kpi->uiValue3, kpi->uiValue2);
    EXPECT_TRUE(kit::Eventually([&] {
        double load = 0;
        std::istringstream(kit::TextOfFile("/proc/loadavg")) >> load;
        return std::abs(kpiCpu()->uiValue4 - load * 1000) < 10;
    })) << "it changes every 5 s, the daemon's sample follows";

    const auto cpus = Call<Tarn_sys_diag_MultiCpuUsageRet>("MultiCpuUsageQuery", Tarn_sys_diag_MultiCpuUsageInput{});
    ASSERT_EQ(cpus.Status(), 0);
    ASSERT_EQ(cpus->uiCpuNum, 1 + sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(std::string(cpus->pstCpu[0].acName), "cpu");
    EXPECT_EQ(std::string(cpus->pstCpu[1].acName), "cpu0");
    uint32_t sum = 0;
    for (uint32_t i = 0; i < cpus->uiCpuNum; ++i) {
        const Tarn_sys_diag_MultiCpuUsage &cpu = cpus->pstCpu[i];
        EXPECT_LE(cpu.uiValue1, 1000);
        EXPECT_LE(cpu.uiValue2 + cpu.uiValue3, cpu.uiValue1 + 2U) << "parts of it, rounded: " << cpu.acName;
        EXPECT_LE(cpu.uiValue1 + cpu.uiValue4, 1002) << cpu.acName;
        EXPECT_GE(cpu.uiValue5, cpu.uiValue1) << cpu.acName;
        EXPECT_GE(cpu.stTime.usYear, 2024);
        sum += i == 0 ? 0 : cpu.uiValue1;
    }
    EXPECT_NEAR(cpus->pstCpu[0].uiValue1, sum / (cpus->uiCpuNum - 1), 120);

    const auto history = tellHistory();
    ASSERT_EQ(history.Status(), 0);
    double mean = 0;
    for (uint32_t i = 0; i < history->uiRecordNum; ++i) {
        EXPECT_LE(history->pstRecord[i].ucValue1 + history->pstRecord[i].ucValue2, 101);
        mean += history->pstRecord[i].ucValue1 * 10.0 / history->uiRecordNum;
    }
    EXPECT_NEAR(mean, permille, 250);
}

// ---- Overload ----

TEST_F(CpuTest, RecordsAnOverloadOfTheSystem) {
    EXPECT_EQ(Overload().Status(), ENODATA);
    EXPECT_EQ(Stacks().Status(), ENODATA);
    const auto isOn = [&] {
        return Call<Tarn_sys_diag_OvloadCpuSwitchRet>("OvloadCpuSwitchState", Tarn_sys_diag_OvloadCpuSwitchInput{})
            ->uiSwitch;
    };
    EXPECT_EQ(isOn(), 0);
    const Subject subject(dir_, 12);
    const kit::CpuClock clock(subject.Pid());
    const auto usedBefore = clock.Used();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(SetSystem(700, 0, 1), 0);
    EXPECT_EQ(isOn(), 1);
    ASSERT_TRUE(kit::Eventually([&] { return Overload().Status() == 0; })) << daemon_->Err();
    const std::chrono::duration<double> used = clock.Used() - usedBefore;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

    // On a busy machine it may be another process, which uses still more.
    const auto overload = Overload();
    EXPECT_GE(overload->uiValue2, 650);
    EXPECT_LE(overload->uiValue2, 1000);
    EXPECT_GE(overload->uiValue3, used / elapsed * 1000 * 0.5);
    EXPECT_GE(overload->stTime1.usYear, 2024);
    const std::string comm = kit::TextOfFile("/proc/" + std::to_string(overload->uiValue1) + "/comm");
    EXPECT_TRUE(comm.empty() || comm == std::string(overload->acName) + "\n") << comm;

    ASSERT_EQ(SetSystem(0, 0, 0), 0);
    EXPECT_TRUE(kit::Eventually([&] { return Overload()->stTime2.usYear != 0; })) << "it ends";
    EXPECT_EQ(isOn(), 0);
}

TEST_F(CpuTest, RecordsTheStacksOfTheBusiestThreads) {
    const Subject subject(dir_, 12); // more threads than the record has room for
    ASSERT_EQ(SetProcess(subject.Pid(), true, 50, 1), 0);
    ASSERT_TRUE(kit::Eventually([&] { return Overload().Status() == 0; })) << daemon_->Err();
    EXPECT_EQ(std::string(Overload()->acName), "host_subject");
    EXPECT_EQ(Overload()->uiValue1, subject.Pid());

    const auto stacks = Stacks();
    ASSERT_EQ(stacks.Status(), 0);
    EXPECT_EQ(stacks->uiThreadNum, 10);
    for (uint32_t i = 0; i < stacks->uiThreadNum; ++i) {
        const Tarn_sys_diag_TopCpuOvloadThread &thread = stacks->astThread[i];
        EXPECT_EQ(thread.uiPid, subject.Pid());
        const auto known = subject.tids.find(thread.szThreadName);
        ASSERT_NE(known, subject.tids.end()) << thread.szThreadName;
        EXPECT_EQ(known->second, thread.uiTid);
        EXPECT_GT(thread.uiCpuUse, 0);
        ASSERT_NE(thread.pcCallStack, nullptr) << daemon_->Err();
        EXPECT_NE(std::string(thread.pcCallStack).find("BurnCpu"), std::string::npos) << thread.pcCallStack;
        EXPECT_TRUE(i == 0 || stacks->astThread[i - 1].uiCpuUse >= thread.uiCpuUse) << "the busiest first";
    }
}

TEST_F(CpuTest, WatchesAProcess) {
    const Subject subject(dir_);
    const auto watched = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_GetCpuOvMonProcInfoOutput>("GetCpuOvMonProcInfo", Tarn_sys_diag_Process{pid});
    };
    EXPECT_EQ(watched(subject.Pid()).Status(), ENOENT);
    ASSERT_EQ(SetProcess(subject.Pid(), true, 100, 0), 0);
    ASSERT_TRUE(kit::Eventually([&] { return Overload().Status() == 0; })) << daemon_->Err();
    EXPECT_EQ(Overload()->uiValue1, subject.Pid());
    EXPECT_EQ(std::string(Overload()->acName), "host_subject");

    const auto answer = watched(subject.Pid());
    ASSERT_EQ(answer.Status(), 0);
    EXPECT_EQ(answer->uiPid, subject.Pid());
    EXPECT_EQ(answer->uiThreadNum, 3);
    const auto *const burner = Find(answer->pstThread, answer->uiThreadNum,
                                    [&](const auto &t) { return t.uiValue1 == subject.tids.at("burner"); });
    ASSERT_NE(burner, nullptr);
    EXPECT_GE(burner->uiValue3, 100);
    EXPECT_GE(burner->uiValue7, 1);
    EXPECT_LE(burner->uiValue2, burner->uiValue3);
    EXPECT_EQ(burner->ucValue5, 'R');
    EXPECT_TRUE(kit::Eventually([&] { return watched(subject.Pid())->pstThread[0].ucValue6 == 1; })) << "it is over";
    EXPECT_NEAR(burner->uiValue4, static_cast<double>(kit::CpuClock(subject.Pid()).Used().count()) / 1e6, 1000);

    // Stopped, it is not over its threshold any more.
    subject.Signal(SIGSTOP);
    EXPECT_TRUE(kit::Eventually([&] { return Overload()->stTime2.usYear != 0; }));
    EXPECT_TRUE(kit::Eventually([&] { return watched(subject.Pid())->pstThread[0].ucValue6 == 0; }));

    EXPECT_EQ(SetProcess(subject.Pid(), false, 0, 0), 0);
    EXPECT_EQ(watched(subject.Pid()).Status(), ENOENT);
    EXPECT_EQ(SetProcess(subject.Pid(), false, 0, 0), ENOENT);
}

TEST_F(CpuTest, KeepsItsThresholdsBeyondARestart) {
    const Subject subject(dir_);
    auto ended = std::make_unique<Subject>(dir_);
    EXPECT_EQ(Config()->uiValue1, 0);
    ASSERT_EQ(SetSystem(900, 800, 7), 0);
    ASSERT_EQ(SetProcess(subject.Pid(), true, 2000, 3), 0);
    ASSERT_EQ(SetProcess(ended->Pid(), true, 2000, 3), 0);
    ended.reset();
    TearDown();
    StartDaemon();
    EXPECT_TRUE(kit::Eventually([&] { return Config()->uiValue4 == 1; })) << "one of the processes has ended";
    EXPECT_EQ(Config()->uiValue1, 900);
    EXPECT_EQ(Config()->uiValue2, 800);
    EXPECT_EQ(Config()->uiValue3, 7);
    EXPECT_EQ(Config()->uiValue5, 100);
    EXPECT_EQ(Config()->uiValue6, 0);
}

TEST_F(CpuTest, RefusesThresholdsThatMakeNoSense) {
    EXPECT_EQ(SetSystem(1001, 0, 0), EINVAL);
    EXPECT_EQ(SetSystem(500, 501, 0), EINVAL);
    EXPECT_EQ(SetSystem(500, 0, 3601), EINVAL);
    const Subject subject(dir_);
    EXPECT_EQ(SetProcess(subject.Pid(), true, 0, 0), EINVAL);
    EXPECT_EQ(SetProcess(subject.Pid(), true, 1000001, 0), EINVAL);
    EXPECT_EQ(SetProcess(subject.Pid(), true, 500, 3601), EINVAL);
    EXPECT_EQ(SetProcess(EndedPid(), true, 500, 0), ESRCH);
    EXPECT_EQ(Config()->uiValue1, 0);
    EXPECT_EQ(SetSystem(1000, 1000, 3600), 0) << "as much as there is";
    EXPECT_EQ(Config()->uiValue2, 1000);
    EXPECT_EQ(SetProcess(subject.Pid(), true, 1000 * static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)), 3600), 0);
}

} // namespace
