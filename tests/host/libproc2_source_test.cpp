// A sample of the machine that the test runs on, against what the test reads there itself.
#include "host/daemon/sampling/libproc2_source.h"

#include <unistd.h>

#include <gtest/gtest.h>

namespace {

TEST(LiveSamples, ShowThisProcessAndThisMachine) {
    const host::procfs::Procfs proc;
    tarnd::Libproc2Source source(proc);
    const auto pid = static_cast<uint32_t>(getpid());
    const host::procfs::Task before = proc.ReadProcess(pid);
    const tarnd::Sample sample = source.Read(nullptr);
    const host::procfs::Task after = proc.ReadProcess(pid);

    const tarnd::ProcessSample *const own = sample.Find(pid);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own->name, after.name);
    EXPECT_EQ(own->startTicks, after.startTicks);
    EXPECT_GE(own->cpuTicks, before.CpuTicks());
    EXPECT_LE(own->cpuTicks, after.CpuTicks());
    EXPECT_EQ(own->threadNum, 1);
    EXPECT_EQ(own->state, 'R');
    EXPECT_GT(own->rssKb, 1000) << "in KiB";
    EXPECT_LT(own->rssKb, 1'000'000);
    ASSERT_NE(own->threads, nullptr);
    ASSERT_EQ(own->threads->size(), 1);
    EXPECT_EQ(own->threads->at(0).tid, pid);

    EXPECT_EQ(sample.cpus.size(), static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_GE(sample.system.cpu.Total(), sample.cpus[0].ticks.Total());
    EXPECT_GT(sample.system.cpu.Busy(), 0);
    EXPECT_GT(sample.system.contextSwitches, 0);
    EXPECT_GE(sample.system.runnable, 1);
    EXPECT_EQ(sample.system.memory.total, host::procfs::FieldOf(proc.Read("meminfo"), "MemTotal"));
    EXPECT_LT(sample.system.memory.available, sample.system.memory.total);

    const tarnd::Sample next = source.Read(&sample);
    EXPECT_GE(next.system.contextSwitches, sample.system.contextSwitches);
}

} // namespace
