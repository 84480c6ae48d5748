// That the daemon sees the CPUs of the machine that it runs on: what it makes of what it sees is tried without one.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <algorithm>

#include "tests/host/daemon_kit.h"

namespace {

using kit::Subject;

class LiveCpuTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--sample-interval", "100"}; }
};

TEST_F(LiveCpuTest, TellsWhichThreadRuns) {
    const Subject subject(dir_);
    EXPECT_TRUE(kit::Eventually([&] {
        const auto answer = Call<Tarn_sys_diag_OsProcessCpuRet>("CalculateProcThreadCpuUse",
                                                                Tarn_sys_diag_OsProcessCpuInput{subject.Pid(), 200, 1});
        return answer.Status() == 0 && answer->uiThreadNum == 1 && answer->uiValue1 > 0 &&
               answer->pstThread[0].uiValue1 == subject.tids.at("burner") &&
               std::string(answer->pstThread[0].acName) == "burner";
    }));
    EXPECT_TRUE(kit::Eventually([&] {
        const auto cpus =
            Call<Tarn_sys_diag_MultiCpuUsageRet>("MultiCpuUsageQuery", Tarn_sys_diag_MultiCpuUsageInput{});
        return cpus.Status() == 0 && cpus->uiCpuNum == static_cast<uint32_t>(1 + sysconf(_SC_NPROCESSORS_ONLN)) &&
               cpus->pstCpu[0].uiValue5 > 0;
    })) << "the subject runs";
}

TEST_F(LiveCpuTest, RecordsTheStacksOfAnOverload) {
    const Subject subject(dir_);
    const auto set = Call<Tarn_sys_diag_OperResult>("SetCpuOvProcThreshold",
                                                    Tarn_sys_diag_SetCpuOvProcThresholdInput{subject.Pid(), 1, 1, 0});
    ASSERT_EQ(set->uiResult, 0);
    std::string stack;
    EXPECT_TRUE(kit::Eventually([&] {
        const auto stacks = Call<Tarn_sys_diag_TopCpuOvloadThreadCallstackRet>(
            "DisCpuOvloadCallstackInfo", Tarn_sys_diag_CpuOvloadThreadCallstackInput{});
        if (stacks.Status() != 0 || stacks->uiThreadNum == 0 || stacks->astThread[0].pcCallStack == nullptr ||
            std::string(stacks->astThread[0].szThreadName) != "burner") {
            return false;
        }
        stack = stacks->astThread[0].pcCallStack;
        return true;
    })) << daemon_->Err();
    EXPECT_NE(stack.find("BurnCpu"), std::string::npos) << stack;
    EXPECT_GE(std::count(stack.begin(), stack.end(), '\n'), 3) << "a line for each function: " << stack;
}

} // namespace
