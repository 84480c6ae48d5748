// Who uses the CPUs, as the daemon's methods tell it of a machine that is the test's.
#include <gtest/gtest.h>

#include "server/tarnd.h"
#include "tests/host/method_kit.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;

class CpuMethodsTest : public testing::Test, protected kit::SimulatedDaemon {};

TEST_F(CpuMethodsTest, TellTheUseOfTheSystem) {
    const auto kpi = [] {
        return kit::CallMethod<Tarn_sys_diag_DisOsResourceInfoRet>(GetKpiCpuInfo,
                                                                   Tarn_sys_diag_DisOsResourceInfoInput{});
    };
    const auto none = kpi();
    EXPECT_EQ(none.Status(), EAGAIN);
    EXPECT_NE(none.Reason().find("the second sample has not been taken yet"), std::string::npos) << none.Reason();
    machine.busyPermille = {1000, 500};
    Pass(1s, 30);
    machine.busyPermille = {100, 301};
    Pass(1s, 30);
    const auto answer = kpi();
    EXPECT_EQ(std::string(answer->acName), "cpu");
    EXPECT_EQ(answer->uiValue1, 201) << "rounded";
    EXPECT_EQ(answer->uiValue2, (750 + 200) / 2);
    EXPECT_EQ(answer->uiValue3, 750);
}

} // namespace
