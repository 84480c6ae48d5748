// What is read of processes, from a /proc and by clocks that are the test's.
#include "host/daemon/sampling/process_reader.h"

#include <unistd.h>

#include <ctime>
#include <map>

#include <gtest/gtest.h>

#include "tests/host/fake_proc.h"

namespace {

constexpr uint32_t kPid = kit::kFakePid;

class ProcessReaderTest : public testing::Test {
protected:
    void Set(uint32_t pid, uint64_t cpuNs, uint64_t rssKb) {
        host::procfs::Task task = kit::FakeProc::MakeTask(pid, "worker");
        task.userTicks = cpuNs / 10'000'000;
        task.childTicks = 7;
        task.residentKb = rssKb;
        proc_.SetThread(pid, task);
        cpuNs_[pid] = cpuNs;
    }
    // The memory of each, by its id.
    std::map<uint32_t, uint64_t> Read(bool anew = false) {
        sample_.processes = reader_.Read(anew ? nullptr : &sample_);
        std::map<uint32_t, uint64_t> rss;
        for (const tarnd::ProcessSample &process : sample_.processes) {
            rss[process.pid] = process.rssKb;
        }
        return rss;
    }
    using Rss = std::map<uint32_t, uint64_t>;

    kit::FakeProc proc_;
    std::map<uint32_t, uint64_t> cpuNs_;
    const tarnd::ProcessReader reader_{proc_, [this](uint32_t pid) { return cpuNs_[pid]; }};
    tarnd::Sample sample_;
};

TEST_F(ProcessReaderTest, TellsWhatProcessesHaveUsed) {
    Set(kPid, 50'000'000, 400);
    Set(kPid + 1, 70'000'000, 800);
    EXPECT_EQ(Read(), (Rss{{kPid, 400}, {kPid + 1, 800}}));
    const tarnd::ProcessSample &process = sample_.processes[0];
    EXPECT_EQ(process.name, "worker");
    EXPECT_EQ(process.cpuTicks, 5);
    EXPECT_EQ(process.childTicks, 7);
    EXPECT_EQ(process.threadNum, 1);
    EXPECT_EQ(process.state, 'S');
}

TEST_F(ProcessReaderTest, ReadsThoseThatHaveRun) {
    Set(kPid, 1000, 400);
    Set(kPid + 1, 1000, 400);
    Set(kPid + 2, 0, 400); // by a clock that can't be read
    Read();
    for (const uint32_t pid : {kPid, kPid + 1, kPid + 2}) {
        Set(pid, cpuNs_[pid], 800);
    }
    ++cpuNs_[kPid + 1];
    EXPECT_EQ(Read(), (Rss{{kPid, 400}, {kPid + 1, 800}, {kPid + 2, 800}}));
    EXPECT_EQ(Read(true), (Rss{{kPid, 800}, {kPid + 1, 800}, {kPid + 2, 800}})) << "all";
}

TEST_F(ProcessReaderTest, FollowsThoseThatComeAndGo) {
    Set(kPid, 1000, 400);
    Read();
    proc_.RemoveProcess(kPid);
    Set(kPid + 1, 1000, 800);
    EXPECT_EQ(Read(), (Rss{{kPid + 1, 800}}));
    Set(kPid, 1001, 900); // another that has the id
    EXPECT_EQ(Read(), (Rss{{kPid, 900}, {kPid + 1, 800}}));
    proc_.Remove(fmt::format("{}/stat", kPid)); // it ends while it is read
    ++cpuNs_[kPid];
    EXPECT_EQ(Read(), (Rss{{kPid + 1, 800}}));
}

TEST(ProcessTime, IsWhatTheProcessHasUsed) {
    const auto pid = static_cast<uint32_t>(getpid());
    const uint64_t before = tarnd::CpuTimeOf(pid);
    while (clock() < CLOCKS_PER_SEC / 50) {
    }
    EXPECT_GT(before, 0);
    EXPECT_GE(tarnd::CpuTimeOf(pid), 20'000'000);
    EXPECT_EQ(tarnd::CpuTimeOf(kPid), 0) << "there is none";
}

} // namespace
