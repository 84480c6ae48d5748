// Shares of what was used between two samples that are given.
#include "host/daemon/sampling/rates.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

tarnd::ProcessSample MakeProcess(uint64_t start, uint64_t ticks, std::vector<tarnd::ThreadTimes> threads) {
    tarnd::ProcessSample process;
    process.pid = 7;
    process.startTicks = start;
    process.cpuTicks = ticks;
    process.threads = std::make_shared<const std::vector<tarnd::ThreadTimes>>(std::move(threads));
    return process;
}

TEST(Rates, TellProcessesOfOneIdApart) {
    const tarnd::Sample before{{}, {}, true, {MakeProcess(100, 5000, {})}};
    const tarnd::ProcessSample later = MakeProcess(200, 50, {});
    EXPECT_EQ(before.Find(later), nullptr);
    EXPECT_EQ(tarnd::ProcessPermille(before.Find(later), later, 1s), 50 * 1000 / host::procfs::TicksPerSecond())
        << "all that it has used, it has used since";
    EXPECT_EQ(before.Find(7)->startTicks, 100);
}

TEST(Rates, AreNeverLessThanNothingNorMoreThanAll) {
    tarnd::CpuTicks from{.user = 100, .system = 100, .idle = 1000, .ioWait = 500};
    tarnd::CpuTicks to = from;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0) << "no time has passed";
    to.ioWait = 400; // the kernel's count may go back
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0);
    to.user = 150;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 0) << "less time than none";
    to.ioWait = 460;
    EXPECT_EQ(tarnd::BusyPermille(from, to), 1000);
    const tarnd::ProcessSample process = MakeProcess(1, 10, {});
    const tarnd::ProcessSample less = MakeProcess(1, 9, {});
    EXPECT_EQ(tarnd::ProcessPermille(&process, less, 1s), 0);
    EXPECT_EQ(tarnd::ProcessPermille(&process, process, 0s), 0);
    EXPECT_EQ(tarnd::ThreadPermille({7, 7, {}, 3'000'000'000}, 1s), 1000);
}

TEST(Rates, AreRoundedAndCountAllThatKeepsACpuBusy) {
    tarnd::CpuTicks to{.user = 1, .system = 2, .interrupt = 4, .stolen = 8, .idle = 16, .ioWait = 32};
    EXPECT_EQ(to.Busy(), 15);
    EXPECT_EQ(to.Total(), 63);
    EXPECT_EQ(tarnd::BusyPermille({}, to), 238) << "of 238.1";
    to.idle += 1;
    EXPECT_EQ(tarnd::BusyPermille({}, to), 234) << "of 234.4";
    EXPECT_EQ(tarnd::Permille(2, 3), 667);
    EXPECT_EQ(tarnd::Permille(1, 0), 0);
}

TEST(Rates, AreNotToldOfThreadsThatCouldNotBeRead) {
    const tarnd::ProcessSample read = MakeProcess(1, 10, {{7, {1000, 0, 0}}});
    tarnd::ProcessSample unread = read;
    unread.threads = nullptr;
    EXPECT_EQ(tarnd::ThreadUses(&read, read).size(), 1);
    EXPECT_TRUE(tarnd::ThreadUses(&unread, read).empty());
    EXPECT_TRUE(tarnd::ThreadUses(&read, unread).empty());
    EXPECT_EQ(tarnd::ThreadUses(nullptr, read).at(0).usedNs, 1000) << "it has started since";
}

TEST(Rates, KeepTheBusiestThreads) {
    std::vector<tarnd::ThreadUse> uses{{7, 1, {}, 10}, {7, 2, {}, 30}, {7, 3, {}, 20}};
    tarnd::KeepBusiest(uses, 0);
    ASSERT_EQ(uses.size(), 3);
    EXPECT_EQ(uses[0].tid, 2);
    EXPECT_EQ(uses[2].tid, 1);
    tarnd::KeepBusiest(uses, 2);
    ASSERT_EQ(uses.size(), 2);
    EXPECT_EQ(uses[1].tid, 3);
}

TEST(Rates, CountThreadsThatCameOrEnded) {
    const auto thread = [](uint32_t tid, uint64_t runNs) { return tarnd::ThreadTimes{tid, {runNs, 0, 0}}; };
    const tarnd::ProcessSample from = MakeProcess(1, 100, {thread(7, 1000), thread(8, 5'000'000)});
    const tarnd::ProcessSample to = MakeProcess(1, 200, {thread(7, 1500), thread(8, 300), thread(9, 70)});
    const std::vector<tarnd::ThreadUse> uses = tarnd::ThreadUses(&from, to);
    ASSERT_EQ(uses.size(), 3);
    EXPECT_EQ(uses[0].usedNs, 500);
    EXPECT_EQ(uses[1].usedNs, 0) << "another thread of the same id, which has used less";
    EXPECT_EQ(uses[2].usedNs, 70);
    EXPECT_EQ(tarnd::ProcessUsedNs(&from, to, uses), tarnd::TicksToNs(98)) << "by threads that have ended";
    EXPECT_EQ(tarnd::ProcessUsedNs(&from, from, tarnd::ThreadUses(&from, from)), 0);
    const tarnd::Sample before{{}, {}, true, {from}}, after{{}, {}, true, {to}};
    EXPECT_EQ(tarnd::Busiest(before, after), &after.processes[0]);
    EXPECT_EQ(tarnd::Busiest(before, before), nullptr);
}

} // namespace
