// Processes and their threads as the daemon's methods tell of them, from a /proc that is the test's.
#include <algorithm>
#include <functional>

#include <gtest/gtest.h>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/method_kit.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
using kit::CallMethod;

constexpr uint32_t kPid = kit::kFakePid;

class ProcessMethodsTest : public testing::Test, protected kit::SimulatedDaemon {
protected:
    void AddProcess(uint32_t id, const std::string &name, uint32_t parent,
                    const std::function<void(host::procfs::Task &)> &change = {}) {
        host::procfs::Task task = kit::FakeProc::MakeTask(id, name);
        task.parent = parent;
        if (change) {
            change(task);
        }
        proc.SetThread(id, task, {3'000'000, 2'000'000, 11});
        proc.Write(fmt::format("{}/cmdline", id), name + std::string("\0-x\0", 4));
    }

    static uint32_t Build(uint8_t flags) {
        return CallMethod<Tarn_sys_diag_ProcTableBuildOutput>(ProcTableBuild, Tarn_sys_diag_ProcTableBuildInput{flags})
            ->uiResult;
    }
    static auto Table() {
        return CallMethod<Tarn_sys_diag_GetProcTableResult>(GetProcTable, Tarn_sys_diag_GetProcTableInput{});
    }
    static std::vector<uint32_t> TableIds() {
        const auto table = Table();
        std::vector<uint32_t> ids;
        for (uint32_t i = 0; i < table->uiProcNum; ++i) {
            ids.push_back(table->pstProc[i].uiPid - kPid);
        }
        return ids;
    }

    auto Tasks(uint32_t pid, uint32_t tid, std::string name = {}, uint32_t skip = 0, uint32_t limit = 0) {
        return CallMethod<Tarn_sys_diag_GetTaskInfoResult>(
            GetTaskInfo, Tarn_sys_diag_GetTaskInfoInput{pid, tid, name.data(), skip, limit});
    }
    static size_t Lines(const char *text) {
        const std::string lines = text;
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')) - 1; // without the head
    }

    template <class Request>
    static uint32_t Set(uint32_t (*method)(const Request *, void *), uint32_t value) {
        return CallMethod<Tarn_sys_diag_TaskResult>(method, Request{value})->uiTaskResult;
    }
};

TEST_F(ProcessMethodsTest, TellStateAndThreads) {
    AddProcess(kPid, "worker", 1, [](auto &task) { task.state = 'D'; });
    proc.SetThread(kPid, kit::FakeProc::MakeTask(kPid + 8, "second"));
    const auto state =
        CallMethod<Tarn_sys_diag_ProcessStatusOutput>(GetProcStatByPid, Tarn_sys_diag_ProcessStatusInput{kPid});
    EXPECT_EQ(state->ucStatus, 'D');
    const auto tids = CallMethod<Tarn_sys_diag_Tids>(GetAllTidsByPid, Tarn_sys_diag_Pid{kPid});
    ASSERT_EQ(tids->uiTidNum, 2);
    EXPECT_EQ(tids->puiTids[0], kPid);
    EXPECT_EQ(tids->puiTids[1], kPid + 8);
    EXPECT_EQ(CallMethod<Tarn_sys_diag_Tids>(GetAllTidsByPid, Tarn_sys_diag_Pid{kPid + 8}).Status(), ESRCH);
    EXPECT_EQ(
        CallMethod<Tarn_sys_diag_ProcessStatusOutput>(GetProcStatByPid, Tarn_sys_diag_ProcessStatusInput{kPid + 9})
            .Status(),
        ESRCH);
}

TEST_F(ProcessMethodsTest, TellParentAndSession) {
    AddProcess(kPid, "worker", 4711, [](auto &task) { task.session = 4712; });
    const auto answer =
        CallMethod<Tarn_sys_diag_GetQ5ProcInfoOutput>(GetQ5ProcInfo, Tarn_sys_diag_GetQ5ProcInfoInput{kPid});
    EXPECT_EQ(answer->uiValue1, 4711);
    EXPECT_EQ(answer->uiValue2, 4712);
}

TEST_F(ProcessMethodsTest, DescribeTheProcessesOfTheTable) {
    AddProcess(kPid, "worker", 4711, [](auto &task) {
        task.state = 'R';
        task.threadNum = 4;
        task.residentKb = 1200;
        task.startTicks = 250;
        task.userTicks = 30;
        task.systemTicks = 12;
    });
    proc.SetUser(kPid, 17, 18);
    proc.Write(fmt::format("{}/cmdline", kPid), std::string("/bin/worker\0a\nb\x7F\0", 17));
    EXPECT_EQ(Table().Status(), ENODATA);
    EXPECT_EQ(Build(4), EINVAL);
    EXPECT_EQ(Table().Status(), ENODATA);
    ASSERT_EQ(Build(0), 0);
    const auto table = Table();
    ASSERT_EQ(table->uiProcNum, 1);
    const Tarn_sys_diag_ProcTableEntry &row = table->pstProc[0];
    EXPECT_EQ(row.uiPid, kPid);
    EXPECT_EQ(row.uiPpid, 4711);
    EXPECT_EQ(row.uiUid, 17) << "the real user";
    EXPECT_EQ(std::string(row.szProcName), "worker");
    EXPECT_EQ(row.ucState, 'R');
    EXPECT_EQ(row.uiThreadNum, 4);
    EXPECT_EQ(row.uiRss, 1200);
    EXPECT_EQ(row.ullStartTime, 2500);
    EXPECT_EQ(row.ullCpuTime, 420);
    EXPECT_EQ(std::string(row.pcCmdLine), "/bin/worker a b?");
}

TEST_F(ProcessMethodsTest, KeepTheTableAsItWasBuilt) {
    AddProcess(kPid, "first", 1);
    ASSERT_EQ(Build(0), 0);
    proc.RemoveProcess(kPid);
    AddProcess(kPid + 1, "second", 1);
    EXPECT_EQ(TableIds(), std::vector<uint32_t>{0});
    ASSERT_EQ(Build(0), 0);
    EXPECT_EQ(TableIds(), std::vector<uint32_t>{1});
    EXPECT_EQ(Build(4), EINVAL);
    EXPECT_EQ(TableIds(), std::vector<uint32_t>{1}) << "what is refused changes nothing";
}

TEST_F(ProcessMethodsTest, LeaveTheKernelOutOfTheTable) {
    AddProcess(kPid, "worker", 1);
    AddProcess(kPid + 1, "kernel", 2, [](auto &task) { task.ofKernel = true; });
    ASSERT_EQ(Build(0), 0);
    EXPECT_EQ(TableIds(), (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(Table()->pstProc[1].pcCmdLine, nullptr);
    for (const uint8_t flags : {uint8_t{1}, uint8_t{3}}) {
        ASSERT_EQ(Build(flags), 0);
        EXPECT_EQ(TableIds(), std::vector<uint32_t>{0});
    }
}

TEST_F(ProcessMethodsTest, PutParentsBeforeTheirChildren) {
    AddProcess(kPid, "root", 1);
    AddProcess(kPid + 1, "other root", 1);
    AddProcess(kPid + 2, "child of 0", kPid);
    AddProcess(kPid + 3, "child of 1", kPid + 1);
    AddProcess(kPid + 4, "child of 0", kPid);
    AddProcess(kPid + 5, "child of 2", kPid + 2);
    AddProcess(kPid + 6, "its own parent's elder", kPid + 7);
    AddProcess(kPid + 7, "root", 1);
    ASSERT_EQ(Build(0), 0);
    EXPECT_EQ(TableIds(), (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
    ASSERT_EQ(Build(2), 0);
    EXPECT_EQ(TableIds(), (std::vector<uint32_t>{0, 2, 5, 4, 1, 3, 7, 6}));
}

TEST_F(ProcessMethodsTest, DescribeTasks) {
    AddProcess(kPid, "main", 1);
    host::procfs::Task task = kit::FakeProc::MakeTask(kPid + 1, "burnër\n\x1B", 'R');
    task.userTicks = 100;
    task.systemTicks = 23;
    task.lastCpu = 6;
    task.nice = -5;
    proc.SetThread(kPid, task, {1'234'567, 7'654'321, 42});
    const auto all = Tasks(kPid, 0);
    EXPECT_EQ(all->uiTaskValue, 2);
    EXPECT_EQ(Lines(all->pcTaskInfo), 2);
    EXPECT_EQ(Lines(all->pcTaskRecord), 2);
    const auto one = Tasks(0, kPid + 1);
    EXPECT_EQ(one->uiTaskValue, 1);
    EXPECT_EQ(std::string(one->pcTaskInfo),
              "     PID      TID NAME             STATE                        CPU ms  CPU SCHEDULING\n"
              " 5000000  5000001 burnër ?         R (running)                    1230    6 SCHED_OTHER nice -5\n");
    EXPECT_EQ(std::string(one->pcTaskRecord),
              "     PID      TID NAME                     RUN us        WAIT us     SLICES  STARVED LONGEST ms LAST\n"
              " 5000000  5000001 burnër ?                   1234           7654         42        0          0 -\n");
    EXPECT_EQ(Tasks(kPid, kPid + 2).Status(), ESRCH);
    EXPECT_EQ(Tasks(kPid + 9, 0).Status(), ESRCH);
}

TEST_F(ProcessMethodsTest, DescribeTheTasksThatAreAskedFor) {
    AddProcess(kPid, "main", 1);
    for (uint32_t i = 1; i <= 5; ++i) {
        proc.SetThread(kPid, kit::FakeProc::MakeTask(kPid + i, fmt::format("worker{}", i)));
    }
    EXPECT_EQ(Tasks(0, 0, "work*")->uiTaskValue, 5);
    EXPECT_EQ(Tasks(0, 0, "worker?")->uiTaskValue, 5);
    EXPECT_EQ(Tasks(0, 0, "main")->uiTaskValue, 1);
    EXPECT_EQ(Tasks(kPid, kPid + 1, "main")->uiTaskValue, 0) << "it is there, but has another name";
    const auto some = Tasks(0, 0, "work*", 1, 2);
    EXPECT_EQ(some->uiTaskValue, 5) << "the matches, not the lines";
    EXPECT_EQ(Lines(some->pcTaskInfo), 2);
    EXPECT_NE(std::string(some->pcTaskInfo).find("worker2"), std::string::npos);
    EXPECT_NE(std::string(some->pcTaskInfo).find("worker3"), std::string::npos);
    EXPECT_EQ(Lines(Tasks(0, 0, "work*", 4)->pcTaskInfo), 1);
    EXPECT_EQ(Lines(Tasks(0, 0, "work*", 5)->pcTaskInfo), 0);
}

TEST_F(ProcessMethodsTest, SayWhatIsWrongWithARequest) {
    const auto build = [](uint8_t options) {
        return CallMethod<Tarn_sys_diag_ProcTableBuildOutput>(ProcTableBuild,
                                                              Tarn_sys_diag_ProcTableBuildInput{options})
            .Reason();
    };
    const auto threshold = [](uint32_t wait) {
        return CallMethod<Tarn_sys_diag_TaskResult>(SetTaskStarvThreshold, Tarn_sys_diag_StarvTaskThresholdInput{wait})
            .Reason();
    };
    const std::pair<std::string, std::string> reasons[] = {
        {build(4), "options (ucBuildFlag) is 4, expected 0 (all processes, by rising ids), a sum of without-kernel (1) "
                   "and as-tree (2)"},
        {threshold(0), "threshold (uiStarvThreshold) is 0 ms, expected 1 to 3600000"},
        {threshold(3'600'001), "threshold (uiStarvThreshold) is 3600001 ms, expected 1 to 3600000"},
        {CallMethod<Tarn_sys_diag_TaskResult>(SetTaskSwitch, Tarn_sys_diag_TaskSwitchInput{2}).Reason(),
         "on (uiTaskSwitch) is 2, expected 0 to 1"},
        {CallMethod<Tarn_sys_diag_ResetBBoxResult>(ResetBBoxInfo, Tarn_sys_diag_ResetBBoxCondition{3, 0}).Reason(),
         "records (uiValue1) is 3, expected all (0), exceptions (1) or assertions (2)"}};
    for (const auto &[reason, expected] : reasons) {
        EXPECT_EQ(reason, expected);
    }
}

TEST_F(ProcessMethodsTest, RecordWhatStarves) {
    EXPECT_EQ(Set(SetTaskSwitch, 2), EINVAL);
    EXPECT_EQ(Set(SetTaskStarvThreshold, 0), EINVAL);
    EXPECT_EQ(Set(SetTaskStarvThreshold, host::meaning::starvation::kMostMs + 1), EINVAL);
    EXPECT_EQ(Set(SetTaskStarvThreshold, host::meaning::starvation::kMostMs), 0);
    EXPECT_EQ(Set(SetTaskStarvThreshold, 1500), 0);
    EXPECT_EQ(Set(SetTaskSwitch, 1), 0);
    EXPECT_EQ(Set(ResetTaskRecord, kPid), ENOENT);
    EXPECT_EQ(Set(ResetTaskRecord, 0), 0);
    AddProcess(kPid, "poor", 1, [](auto &task) { task.state = 'R'; });
    machine.Add(kPid, "poor");
    machine.runnable = 3;
    Pass(1s, 3);
    EXPECT_NE(std::string(Tasks(kPid, 0)->pcTaskRecord).find("0          0 -\n"), std::string::npos);
    Pass(1s);
    const std::string last = fmt::format("        1       2000 {}\n", daemon->clock.Text(clocks.WallNow()));
    EXPECT_NE(std::string(Tasks(kPid, 0)->pcTaskRecord).find(last), std::string::npos) << Tasks(kPid, 0)->pcTaskRecord;
    EXPECT_EQ(Set(ResetTaskRecord, kPid), 0);
    EXPECT_NE(std::string(Tasks(kPid, 0)->pcTaskRecord).find(" -\n"), std::string::npos);
    EXPECT_EQ(Set(SetTaskSwitch, 0), 0);
}

TEST_F(ProcessMethodsTest, SayWhyThereAreNoStacks) {
    EXPECT_EQ(CallMethod<Tarn_sys_diag_CallStackContext>(GetCallStackInfoByTid, Tarn_sys_diag_Tid{kPid, 0}).Status(),
              ESRCH);
}

} // namespace
