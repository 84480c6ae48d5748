// A sample of the machine that the test runs on, against what the test reads there itself.
#include "host/daemon/sampling/libproc2_source.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/host/eventually.h"

namespace {

TEST(LiveSamples, ShowThisProcessAndThisMachine) {
    const host::procfs::Procfs proc;
    tarnd::Libproc2Source source(proc);
    const auto pid = static_cast<uint32_t>(getpid());
    const host::procfs::Task before = proc.ReadProcess(pid);
    const tarnd::Sample sample = source.Read(tarnd::Reading::kProcesses, nullptr);
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

    const tarnd::Sample next = source.Read(tarnd::Reading::kProcesses, &sample);
    EXPECT_GE(next.system.contextSwitches, sample.system.contextSwitches);
}

TEST(LiveSamples, ShowWhatChildrenUsedThatHaveEnded) {
    const host::procfs::Procfs proc;
    tarnd::Libproc2Source source(proc);
    const pid_t child = fork();
    if (child == 0) {
        while (clock() < CLOCKS_PER_SEC / 20) {
        }
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    rusage ofChildren{};
    getrusage(RUSAGE_CHILDREN, &ofChildren);
    const double us = static_cast<double>(ofChildren.ru_utime.tv_sec + ofChildren.ru_stime.tv_sec) * 1e6 +
                      static_cast<double>(ofChildren.ru_utime.tv_usec + ofChildren.ru_stime.tv_usec);
    const double ticks = us * static_cast<double>(host::procfs::TicksPerSecond()) / 1e6;
    EXPECT_GE(ticks, 5);
    EXPECT_NEAR(static_cast<double>(
                    source.Read(tarnd::Reading::kProcesses, nullptr).Find(static_cast<uint32_t>(getpid()))->childTicks),
                ticks, 2);
}

// What the members of a sample must be where nothing changes meanwhile.
std::vector<uint64_t> FiguresNow(const host::procfs::Procfs &proc) {
    std::istringstream stat(proc.Read("stat"));
    std::array<uint64_t, 8> cpu{};
    std::string name;
    stat >> name;
    for (uint64_t &ticks : cpu) {
        stat >> ticks;
    }
    const std::string memory = proc.Read("meminfo");
    std::vector<uint64_t> figures{cpu[0] + cpu[1], cpu[2], cpu[5] + cpu[6], cpu[7], cpu[3], cpu[4]};
    for (const char *key : {"MemAvailable", "MemFree", "Buffers", "Cached", "Slab", "Shmem", "SwapTotal", "SwapFree"}) {
        figures.push_back(host::procfs::FieldOf(memory, key));
    }
    figures.push_back(proc.ReadProcess(static_cast<uint32_t>(getpid())).residentKb);
    return figures;
}

std::vector<uint64_t> FiguresOf(const tarnd::Sample &sample) {
    const tarnd::CpuTicks &cpu = sample.system.cpu;
    const tarnd::MemorySample &memory = sample.system.memory;
    return {cpu.user,         cpu.system,      cpu.interrupt,
            cpu.stolen,       cpu.idle,        cpu.ioWait,
            memory.available, memory.free,     memory.buffers,
            memory.cached,    memory.slab,     memory.shared,
            memory.swapTotal, memory.swapFree, sample.Find(static_cast<uint32_t>(getpid()))->rssKb};
}

TEST(LiveSamples, HaveEachFigureInItsMember) {
    const host::procfs::Procfs proc;
    tarnd::Libproc2Source source(proc);
    std::set<size_t> seen; // those that were once between what they were before and after
    kit::Await("each figure is as /proc tells it", [&] {
        const std::vector<uint64_t> before = FiguresNow(proc),
                                    figures = FiguresOf(source.Read(tarnd::Reading::kProcesses, nullptr)),
                                    after = FiguresNow(proc);
        for (size_t i = 0; i < figures.size(); ++i) {
            const auto [least, most] = std::minmax(before[i], after[i]);
            if (least <= figures[i] && figures[i] <= most) {
                seen.insert(i);
            }
        }
        return seen.size() == figures.size();
    });
    for (const tarnd::CpuSample &cpu : source.Read(tarnd::Reading::kProcesses, nullptr).cpus) {
        const std::string name = "cpu" + std::to_string(cpu.id);
        EXPECT_NE(proc.Read("stat").find("\n" + name + " "), std::string::npos) << name;
    }
}

} // namespace
