// The highest CPU use of a machine that is the test's.
#include "host/daemon/cpu/cpu_peaks.h"

#include <gtest/gtest.h>

#include "tests/host/scripted_samples.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kPid = 17;

class CpuPeaksTest : public testing::Test, protected kit::SampledMachine {
protected:
    tarnd::Peak OfProcess() const { return peaks.OfProcess(*sampler.Latest()->Find(kPid)); }

    tarnd::CpuPeaks peaks{sampler};
};

TEST_F(CpuPeaksTest, AreOfWhenTheyWereFirstReached) {
    machine.Add(kPid, "worker", 500);
    machine.busyPermille = {600, 0};
    Pass(1s);
    const host::WallTime reached = clocks.WallNow();
    Pass(1s);
    machine.busyPermille = {599, 0};
    machine.processes[kPid].threads[kPid].runPermille = 490;
    Pass(1s);
    for (const tarnd::Peak &peak : {peaks.OfSystem(), peaks.OfCpu(0), OfProcess()}) {
        EXPECT_EQ(peak.time, reached) << peak.permille;
    }
    EXPECT_EQ(peaks.OfSystem().permille, 300);
    EXPECT_EQ(peaks.OfCpu(0).permille, 600);
    EXPECT_EQ(OfProcess().permille, 500);
}

TEST_F(CpuPeaksTest, AreThereWhereNothingWasUsed) {
    machine.Add(kPid, "idle");
    Pass(1s);
    for (const tarnd::Peak &peak : {peaks.OfSystem(), peaks.OfCpu(1), OfProcess()}) {
        EXPECT_EQ(peak.time, clocks.WallNow());
        EXPECT_EQ(peak.permille, 0);
    }
}

TEST_F(CpuPeaksTest, AreNotThoseOfAProcessThatHadTheIdBefore) {
    machine.Add(kPid, "worker", 500);
    Pass(1s);
    tarnd::ProcessSample later = *sampler.Latest()->Find(kPid);
    ++later.startTicks; // it was sampled since
    EXPECT_EQ(peaks.OfProcess(later).time, host::WallTime{});
}

TEST_F(CpuPeaksTest, AreNotBelowTheShareOfALongerTimeThatIsTold) {
    machine.Add(kPid, "worker", 0);
    Pass(1s);
    for (const uint32_t permille : {900U, 100U}) {
        machine.processes[kPid].threads[kPid].runPermille = permille;
        Pass(1s);
    }
    const std::vector<tarnd::SamplePtr> samples = sampler.Recent(3);
    tarnd::CpuPeaks late{sampler}; // it has seen none of them
    late.TakeProcesses(*samples[1], *samples[2]);
    EXPECT_EQ(late.OfProcess(*samples[2]->Find(kPid)).permille, 100);
    late.TakeProcesses(*samples[0], *samples[2]);
    EXPECT_EQ(late.OfProcess(*samples[2]->Find(kPid)).permille, 500);
}

} // namespace
