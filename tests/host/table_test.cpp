// The process table, against ps and the test's own processes.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <atomic>
#include <set>
#include <thread>

#include "tests/host/daemon_kit.h"

namespace {

using kit::Subject;

using Row = Tarn_sys_diag_ProcTableEntry;
using Table = kit::Answer<Unit, Tarn_sys_diag_GetProcTableResult>;

class TableTest : public kit::DaemonTest<Unit> {
protected:
    uint32_t Build(uint8_t flags) {
        const auto answer =
            Call<Tarn_sys_diag_ProcTableBuildOutput>("ProcTableBuild", Tarn_sys_diag_ProcTableBuildInput{flags});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }
    Table Get() { return Call<Tarn_sys_diag_GetProcTableResult>("GetProcTable", Tarn_sys_diag_GetProcTableInput{}); }
    // Null when the table does not have it.
    static const Row *Find(const Table &table, uint32_t pid) {
        const Row *const first = table->pstProc;
        const Row *const end = first + table->uiProcNum;
        const Row *const row = std::find_if(first, end, [&](const Row &r) { return r.uiPid == pid; });
        return row == end ? nullptr : row;
    }
};

// What ps says of a process.
std::string Ps(uint32_t pid, const std::string &column) {
    const std::unique_ptr<FILE, int (*)(FILE *)> ps(
        popen(("ps -o " + column + "= -p " + std::to_string(pid)).c_str(), "r"), pclose);
    char line[1024] = "";
    if (fgets(line, sizeof line, ps.get()) == nullptr) {
        return "";
    }
    const std::string text = line;
    const size_t first = text.find_first_not_of(' ');
    return text.substr(first, text.find_last_not_of(" \n") + 1 - first);
}

TEST_F(TableTest, HasNoneBeforeItIsBuilt) {
    EXPECT_EQ(Get().Status(), ENODATA);
    EXPECT_EQ(Build(4), EINVAL);
    EXPECT_EQ(Get().Status(), ENODATA);
}

TEST_F(TableTest, DescribesProcessesAsPsDoes) {
    const Subject subject(dir_);
    ASSERT_TRUE(kit::Eventually([&] { return Ps(subject.Pid(), "cputimes") >= "1"; }));
    const auto before = std::stoull(Ps(subject.Pid(), "cputimes"));
    ASSERT_EQ(Build(0), 0);
    const auto after = std::stoull(Ps(subject.Pid(), "cputimes"));
    const Table table = Get();
    ASSERT_EQ(table.Status(), 0);
    const Row *const row = Find(table, subject.Pid());
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->uiPpid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(std::to_string(row->uiUid), Ps(subject.Pid(), "ruid"));
    EXPECT_EQ(std::string(row->szProcName), Ps(subject.Pid(), "comm"));
    EXPECT_EQ(std::string(1, static_cast<char>(row->ucState)), Ps(subject.Pid(), "s"));
    EXPECT_EQ(std::to_string(row->uiThreadNum), Ps(subject.Pid(), "nlwp"));
    EXPECT_NEAR(row->uiRss, std::stod(Ps(subject.Pid(), "rss")), 512);
    EXPECT_EQ(std::string(row->pcCmdLine), Ps(subject.Pid(), "args"));
    EXPECT_GE(row->ullCpuTime / 1000, before);
    EXPECT_LE(row->ullCpuTime / 1000, after);
    EXPECT_TRUE(std::is_sorted(table->pstProc, table->pstProc + table->uiProcNum,
                               [](const Row &a, const Row &b) { return a.uiPid < b.uiPid; }));
    const Row *const own = Find(table, static_cast<uint32_t>(getpid()));
    ASSERT_NE(own, nullptr);
    EXPECT_LT(own->ullStartTime, row->ullStartTime);
}

TEST_F(TableTest, IsASnapshot) {
    uint32_t pid = 0;
    {
        const Subject subject(dir_);
        pid = subject.Pid();
        ASSERT_EQ(Build(0), 0);
    }
    EXPECT_NE(Find(Get(), pid), nullptr) << "it had not ended then";
    ASSERT_EQ(Build(0), 0);
    EXPECT_EQ(Find(Get(), pid), nullptr);
}

TEST_F(TableTest, IsReadWhileAnotherIsBuilt) {
    ASSERT_EQ(Build(0), 0);
    std::atomic<bool> stop = false;
    std::thread builder([&] {
        while (!stop) {
            EXPECT_EQ(Build(0), 0);
        }
    });
    for (int i = 0; i < 100; ++i) {
        const Table table = Get();
        EXPECT_EQ(table.Status(), 0) << table.Text();
        EXPECT_NE(Find(table, daemon_->Pid()), nullptr);
    }
    stop = true;
    builder.join();
}

TEST_F(TableTest, LeavesOutTheKernel) {
    ASSERT_EQ(Build(0), 0);
    const Table all = Get();
    ASSERT_EQ(Build(1), 0);
    const Table users = Get();
    EXPECT_NE(Find(users, daemon_->Pid()), nullptr);
    const Row *const kthreadd = Find(all, 2);
    if (kthreadd == nullptr || std::string(kthreadd->szProcName) != "kthreadd") {
        GTEST_SKIP() << "the kernel's threads can't be seen from here";
    }
    EXPECT_EQ(kthreadd->pcCmdLine, nullptr);
    EXPECT_EQ(Find(users, 2), nullptr);
}

TEST_F(TableTest, PutsParentsBeforeTheirChildren) {
    const Subject first(dir_);
    const Subject second(dir_);
    ASSERT_EQ(Build(2), 0);
    const Table table = Get();
    ASSERT_EQ(table.Status(), 0);
    std::set<uint32_t> present, seen;
    for (uint32_t i = 0; i < table->uiProcNum; ++i) {
        present.insert(table->pstProc[i].uiPid);
    }
    for (uint32_t i = 0; i < table->uiProcNum; ++i) {
        const Row &row = table->pstProc[i];
        EXPECT_TRUE(present.count(row.uiPpid) == 0 || seen.count(row.uiPpid) != 0) << row.uiPid;
        EXPECT_TRUE(seen.insert(row.uiPid).second) << row.uiPid << " stands twice";
    }
    const Row *const parent = Find(table, static_cast<uint32_t>(getpid()));
    const Row *const child = Find(table, first.Pid());
    ASSERT_TRUE(parent != nullptr && child != nullptr);
    for (const Row *between = parent + 1; between < child; ++between) {
        EXPECT_NE(between->uiPpid, parent->uiPpid) << "a sibling of the parent stands before its child";
    }
}

TEST_F(TableTest, TellsAProcesssParentAndSession) {
    const auto ask = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_GetQ5ProcInfoOutput>("GetQ5ProcInfo", Tarn_sys_diag_GetQ5ProcInfoInput{pid});
    };
    const Subject subject(dir_);
    const auto answer = ask(subject.Pid());
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiValue1, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(std::to_string(answer->uiValue2), Ps(subject.Pid(), "sid"));
    EXPECT_EQ(ask(kit::EndedPid()).Status(), ESRCH);
    EXPECT_EQ(ask(subject.tids.at("sleeper")).Status(), ESRCH) << "a thread's id";
}

} // namespace
