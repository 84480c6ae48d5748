// The readers of /proc on given texts, and on this process.
#include "host/procfs/procfs.h"

#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

namespace {

using host::procfs::FieldOf;
using host::procfs::ParseStat;

constexpr char kNumbers[] =
    " 1 2 3 0 -1 4194304 102 0 1 0 700 30 0 0 20 -5 4 0 254936 3133440 390 18446744073709551615 "
    "1 2 3 0 0 0 0 0 0 0 0 0 17 6 50 1 0 0 0 9 9 9 9 9 9 9 0\n";

int ErrorOf(const std::function<void()> &function) {
    try {
        function();
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

TEST(Procfs, ReadsAStatLine) {
    const host::procfs::Task task = ParseStat(std::string("4711 (name) S") + kNumbers);
    EXPECT_EQ(task.id, 4711);
    EXPECT_EQ(task.name, "name");
    EXPECT_EQ(task.state, 'S');
    EXPECT_EQ(task.parent, 1);
    EXPECT_EQ(task.session, 3);
    EXPECT_FALSE(task.ofKernel);
    EXPECT_EQ(task.userTicks, 700);
    EXPECT_EQ(task.systemTicks, 30);
    EXPECT_EQ(task.CpuTicks(), 730);
    EXPECT_EQ(task.nice, -5);
    EXPECT_EQ(task.threadNum, 4);
    EXPECT_EQ(task.startTicks, 254936);
    EXPECT_EQ(task.residentKb, 390 * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024);
    EXPECT_EQ(task.lastCpu, 6);
    EXPECT_EQ(task.realTimePriority, 50);
    EXPECT_EQ(task.policy, 1);
    EXPECT_EQ(host::procfs::SchedulingText(task), "SCHED_FIFO 50");
    EXPECT_FALSE(task.HasEnded());
}

TEST(Procfs, AcceptsAnyNameInAStatLine) {
    for (const std::string name : {"", " ", ")", "(", ") S 1 2 3", "a b\nc"}) {
        const host::procfs::Task task = ParseStat("1 (" + name + ") Z" + kNumbers);
        EXPECT_EQ(task.name, name);
        EXPECT_EQ(task.state, 'Z');
        EXPECT_EQ(task.userTicks, 700);
    }
}

TEST(Procfs, KnowsAProcessThatHasEnded) {
    host::procfs::Task task = ParseStat(std::string("4711 (name) Z") + kNumbers);
    EXPECT_FALSE(task.HasEnded()) << "only its first thread has";
    task.threadNum = 1;
    EXPECT_TRUE(task.HasEnded());
    task.state = 'S';
    EXPECT_FALSE(task.HasEnded());
}

TEST(Procfs, RefusesWhatIsNoStatLine) {
    for (const char *const line : {"", "1", "1 (", ") (", "1 (name)", "1 (name) S", "1 (name) S 1 2 3",
                                   "1 (name) S 1 2 - 4", "1 (name) S 1 x"}) {
        EXPECT_EQ(ErrorOf([&] { ParseStat(line); }), EPROTO) << line;
    }
}

TEST(Procfs, FindsAField) {
    const std::string text = "MemTotal:  12 kB\nHugePages_Total:       7\nHugePages_Free: 3\nNone: x\n";
    EXPECT_EQ(FieldOf(text, "HugePages_Total"), 7);
    EXPECT_EQ(FieldOf(text, "HugePages_Free"), 3);
    EXPECT_EQ(FieldOf(text, "MemTotal"), 12);
    for (const char *const key : {"HugePages", "Total", "None", "Mem", ""}) {
        EXPECT_EQ(ErrorOf([&] { FieldOf(text, key); }), EPROTO) << key;
    }
}

TEST(Procfs, TellsThatAProcessOrFileIsMissing) {
    EXPECT_EQ(ErrorOf([] { host::procfs::Procfs().ReadProcess(UINT32_MAX); }), ESRCH);
    EXPECT_EQ(ErrorOf([] { host::procfs::Procfs().ThreadIds(0); }), ESRCH);
    EXPECT_EQ(ErrorOf([] { host::procfs::Procfs().ReadThread(1, UINT32_MAX); }), ESRCH);
    EXPECT_EQ(ErrorOf([] { host::procfs::Procfs().Read("no-such-file"); }), ENOENT);
}

TEST(Procfs, ReadsThisProcess) {
    const auto pid = static_cast<uint32_t>(getpid());
    const host::procfs::Task self = host::procfs::Procfs().ReadProcess(pid);
    EXPECT_EQ(self.id, pid);
    EXPECT_EQ(self.name, "procfs_test");
    EXPECT_EQ(self.threadNum, host::procfs::Procfs().ThreadIds(pid).size());
    EXPECT_GT(host::procfs::Procfs().ReadSchedulerCount(pid, pid).runNs, 0);
}

} // namespace
