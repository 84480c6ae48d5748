// The readers of /proc on given texts, and on this process.
#include "host/procfs/procfs.h"

#include <sched.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "host/procfs/memory.h"
#include "tests/host/fake_proc.h"

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
    EXPECT_EQ(task.minorFaults, 102);
    EXPECT_EQ(task.majorFaults, 1);
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

TEST(Procfs, TellsTheKernelsThreads) {
    std::string line = std::string("2 (kthreadd) S") + kNumbers;
    EXPECT_FALSE(ParseStat(line).ofKernel);
    EXPECT_TRUE(ParseStat(line.replace(line.find("4194304"), 7, "2129984")).ofKernel);
}

TEST(Procfs, WantsAStatLineUpToThePolicy) {
    const std::string line = std::string("4711 (name) S") + kNumbers;
    const std::string least = line.substr(0, line.find(" 0 0 0 9 9"));
    EXPECT_EQ(ParseStat(least).policy, 1);
    EXPECT_EQ(ErrorOf([&] { ParseStat(least.substr(0, least.rfind(' '))); }), EPROTO);
}

TEST(Procfs, SaysStatesAndPoliciesInWords) {
    const std::pair<char, const char *> states[] = {
        {'R', "R (running)"}, {'S', "S (sleeping)"}, {'D', "D (waiting for a device)"},
        {'T', "T (stopped)"}, {'t', "t (traced)"},   {'Z', "Z (zombie)"},
        {'X', "X (dead)"},    {'x', "x (dead)"},     {'I', "I (idle)"},
        {'?', "? (unknown)"}};
    for (const auto &[state, text] : states) {
        EXPECT_EQ(host::procfs::StateText(state), text);
    }
    const std::pair<uint32_t, const char *> policies[] = {
        {SCHED_OTHER, "SCHED_OTHER nice -5"}, {SCHED_FIFO, "SCHED_FIFO 50"},      {SCHED_RR, "SCHED_RR 50"},
        {SCHED_BATCH, "SCHED_BATCH nice -5"}, {SCHED_IDLE, "SCHED_IDLE nice -5"}, {77, "policy 77"}};
    host::procfs::Task task;
    task.nice = -5;
    task.realTimePriority = 50;
    for (const auto &[policy, text] : policies) {
        task.policy = policy;
        EXPECT_EQ(host::procfs::SchedulingText(task), text);
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
    EXPECT_EQ(FieldOf("DirectMap4k: 17 kB\n", "DirectMap4k"), 17);
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

// In a /proc of the test's.
class OwnProcTest : public testing::Test {
protected:
    void Set(char state, uint64_t startTicks = 0) const {
        host::procfs::Task task = kit::FakeProc::MakeTask(kPid, "app", state);
        task.startTicks = startTicks;
        proc_.SetThread(kPid, task);
        proc_.Write(fmt::format("{}/status", kPid), fmt::format("Tgid:\t{}\nVmSize:\t1 kB\n", kPid));
    }
    void WriteMappings(const std::string &text) const { proc_.Write(fmt::format("{}/smaps", kPid), text); }
    int ReadMappings(const host::procfs::TakeMapping &take) const {
        return ErrorOf([&] { host::procfs::ReadMappings(proc_, kPid, take); });
    }

    static constexpr uint32_t kPid = kit::kFakePid;
    const kit::FakeProc proc_{};
};

TEST_F(OwnProcTest, HasTheProcessesThatItNamesInTheirOrder) {
    std::vector<uint32_t> pids;
    for (uint32_t pid = 1; pid < 30; ++pid) {
        pids.push_back(pid);
    }
    for (const uint32_t pid : pids) {
        proc_.Write(fmt::format("{}/stat", pid), "");
    }
    for (const char *const other : {"17x", "self", "-1", "4294967296"}) {
        proc_.Write(fmt::format("{}/stat", other), "");
    }
    EXPECT_EQ(proc_.Proc().ProcessIds(), pids);
}

TEST_F(OwnProcTest, TellsWhatMayNotBeReadByOneError) {
    for (const int error : {EPERM, EACCES}) {
        EXPECT_EQ(ErrorOf([&] { proc_.Proc().Fail(error, proc_.Proc().Path(kPid, "smaps")); }), EACCES);
    }
    EXPECT_EQ(ErrorOf([&] { proc_.Proc().Fail(ENOENT, proc_.Proc().Path(kPid, "smaps")); }), ESRCH);
    EXPECT_EQ(ErrorOf([&] { proc_.Proc().Fail(ENOENT, proc_.Proc().Path("meminfo")); }), ENOENT);
}

TEST_F(OwnProcTest, SkipsThoseThatEndOrAreHidden) {
    const auto fail = [](int error) { return [error] { throw std::system_error(error, std::generic_category()); }; };
    EXPECT_EQ(ErrorOf([&] { host::procfs::SkipEnded(fail(ESRCH)); }), 0);
    EXPECT_EQ(ErrorOf([&] { host::procfs::SkipEnded(fail(EACCES)); }), EACCES);
    EXPECT_EQ(ErrorOf([&] { host::procfs::SkipHidden(fail(ESRCH)); }), 0);
    EXPECT_EQ(ErrorOf([&] { host::procfs::SkipHidden(fail(EACCES)); }), 0);
    EXPECT_EQ(ErrorOf([&] { host::procfs::SkipHidden(fail(EMFILE)); }), EMFILE);
}

TEST_F(OwnProcTest, KnowsAProcessByItsStart) {
    Set('S', 70);
    EXPECT_TRUE(proc_.Proc().Runs(kPid, 70));
    EXPECT_FALSE(proc_.Proc().Runs(kPid, 71)) << "another has its id";
    EXPECT_FALSE(proc_.Proc().Runs(kPid + 1, 70));
    Set('Z', 70);
    EXPECT_FALSE(proc_.Proc().Runs(kPid, 70));
    EXPECT_EQ(ErrorOf([&] { proc_.Proc().ReadThreads(kPid + 1); }), ESRCH);
    proc_.Write(fmt::format("{}/status", kPid), fmt::format("Tgid:\t{}\n", kPid - 1));
    EXPECT_EQ(ErrorOf([&] { proc_.Proc().ReadProcess(kPid); }), ESRCH) << "a thread of another";
}

TEST_F(OwnProcTest, ReadsWhatTheSchedulerCounts) {
    Set('S');
    const std::string file = fmt::format("{0}/task/{0}/schedstat", kPid);
    proc_.Write(file, "1 2 3\n");
    const host::procfs::SchedulerCount count = proc_.Proc().ReadSchedulerCount(kPid, kPid);
    EXPECT_EQ(count.runNs, 1);
    EXPECT_EQ(count.waitNs, 2);
    EXPECT_EQ(count.sliceNum, 3);
    proc_.Write(file, "1 2\n");
    EXPECT_EQ(ErrorOf([&] { proc_.Proc().ReadSchedulerCount(kPid, kPid); }), EPROTO);
}

TEST_F(OwnProcTest, HasTheNameOfAProgram) {
    EXPECT_EQ(ErrorOf([&] { host::procfs::ProgramName(proc_, kPid); }), ESRCH);
    Set('S');
    EXPECT_EQ(host::procfs::ProgramName(proc_, kPid), "") << "a kernel thread";
    proc_.Link(fmt::format("{}/exe", kPid), "/usr/bin/app");
    EXPECT_EQ(host::procfs::ProgramName(proc_, kPid), "app");
}

constexpr char kTwoMappings[] = "1000-2000 r-xp 00000000 fe:01 17 /lib/a.so\nRss: 1 kB\nPss: 2 kB\n"
                                "Shared_Dirty: 3 kB\nPrivate_Dirty: 4 kB\nSwap: 5 kB\nSwapPss: 6 kB\n"
                                "2000-202400 rw-p 00000000 00:00 0     [heap]\nRss: 7 kB\n";

TEST_F(OwnProcTest, HandsOverEachMapping) {
    Set('S');
    WriteMappings(kTwoMappings);
    std::vector<host::procfs::Mapping> found;
    EXPECT_EQ(ReadMappings([&](const auto &mapping) { found.push_back(mapping); }), 0);
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found[0].name, "/lib/a.so");
    EXPECT_EQ(found[0].resident, 1);
    EXPECT_EQ(found[0].proportional, 2);
    EXPECT_EQ(found[0].privateDirty, 4);
    EXPECT_EQ(found[0].swap, 5);
    EXPECT_EQ(found[1].name, "[heap]");
    EXPECT_EQ(found[1].size, 2049);
    EXPECT_EQ(found[1].resident, 7);
    EXPECT_EQ(found[1].swap, 0) << "not the one before";
    proc_.Write(fmt::format("{}/status", kPid), fmt::format("Tgid:\t{}\nVmPeak:\t1 kB\n", kPid));
    EXPECT_EQ(ReadMappings([](const auto &) { FAIL() << "it has no memory"; }), 0);
}

TEST_F(OwnProcTest, HandsOverRangesWithoutWhatIsDear) {
    Set('S');
    proc_.Write(fmt::format("{}/maps", kPid), "1000-2000 r-xp 00000000 fe:01 17 /lib/a.so\n");
    std::vector<std::string> names;
    host::procfs::ReadMappedRanges(proc_, kPid, [&](const auto &mapping) { names.push_back(mapping.name); });
    EXPECT_EQ(names, std::vector<std::string>{"/lib/a.so"});
}

TEST_F(OwnProcTest, DoesNotTakeAPartForAllMappings) {
    Set('S');
    WriteMappings(kTwoMappings);
    EXPECT_EQ(ReadMappings([&](const auto &) { Set('S', 99); }), ESRCH) << "another has its id";
    EXPECT_EQ(ReadMappings(
                  [&](const auto &) { proc_.Write(fmt::format("{}/status", kPid), fmt::format("Tgid:\t{}\n", kPid)); }),
              ESRCH)
        << "its memory has gone";
    Set('S');
    proc_.Remove(fmt::format("{}/smaps", kPid));
    EXPECT_EQ(ReadMappings([](const auto &) {}), ESRCH);
    proc_.Write(fmt::format("{}/smaps/file", kPid), "");
    EXPECT_EQ(ReadMappings([](const auto &) {}), EISDIR) << "what can't be read is not empty";
}

TEST(Procfs, RefusesWhatIsNoMapping) {
    EXPECT_EQ(host::procfs::ParseMapping("1000-1000 r-xp 0 fe:01 17").size, 0);
    for (const char *const line : {"", "1000", "1000-", "x-2000 r-xp 0 fe:01 17", "2000-1000 r-xp 0 fe:01 17",
                                   "1000-2000 r-xp 0 fe:01 x", "1000-2000 r-xp 0 fe:01"}) {
        EXPECT_EQ(ErrorOf([&] { host::procfs::ParseMapping(line); }), EPROTO) << line;
    }
}

TEST(Procfs, KnowsToWhomTheKernelShowsAProcess) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of other users";
    }
    const kit::FakeProc proc;
    proc.SetOwner(7, 1000);
    EXPECT_TRUE(proc.Proc().IsShownTo(7, 1000, 1000));
    EXPECT_FALSE(proc.Proc().IsShownTo(7, 100, 1000));
    EXPECT_FALSE(proc.Proc().IsShownTo(7, 1000, 100)) << "its group's rights are not the user's";
    EXPECT_FALSE(proc.Proc().IsShownTo(8, 1000, 1000)) << "no process";
    proc.SetUser(7, 1000, 0);
    EXPECT_FALSE(proc.Proc().IsShownTo(7, 1000, 1000)) << "it runs with root's rights";
    proc.SetUser(7, 1000, 1000);
    proc.Remove("7/mem");
    proc.Write("7/mem", "");
    EXPECT_FALSE(proc.Proc().IsShownTo(7, 1000, 1000)) << "it has had another's rights: the kernel gives it to root";
}

} // namespace
