// Stacks of processes whose owners change what the daemon has to read for them.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <sys/inotify.h>

#include <fmt/format.h>

#include "host/osal/descriptor.h"
#include "host/procfs/procfs.h"
#include "tests/hostile/hostile.h"

namespace {

using namespace std::chrono_literals;
using Stacks = kit::Answer<Unit, Tarn_sys_diag_CallStackContext>;

std::vector<uint32_t> ChildrenOf(uint32_t pid) {
    std::vector<uint32_t> children;
    for (const uint32_t id : host::procfs::Procfs().ProcessIds()) {
        host::procfs::SkipHidden([&] {
            if (host::procfs::Procfs().ReadProcess(id).parent == pid) {
                children.push_back(id);
            }
        });
    }
    return children;
}

void KillHelpers(uint32_t starter) {
    for (const uint32_t helper : ChildrenOf(starter)) {
        kill(static_cast<pid_t>(helper), SIGKILL);
    }
}

std::string LineOf(const std::string &text, const std::string &key) {
    const size_t at = text.find(key + ":\t");
    return at == text.npos ? "" : text.substr(at + key.size() + 2, text.find('\n', at) - at - key.size() - 2);
}

class HostileStacksTest : public kit::HostileTest<Unit> {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::filesystem::create_directory(attackers_);
        for (const char *const file : {STACK_SUBJECT, STACK_LIBRARY_A, STACK_LIBRARY_B, STACK_LIBRARY_WILD}) {
            const auto copy = attackers_ / std::filesystem::path(file).filename();
            std::filesystem::copy_file(file, copy);
            ASSERT_EQ(chown(copy.c_str(), kit::kAttacker, kit::kAttacker), 0);
        }
        ASSERT_EQ(chown(attackers_.c_str(), kit::kAttacker, kit::kAttacker), 0);
    }

    std::filesystem::path Copy(const char *file) const { return attackers_ / std::filesystem::path(file).filename(); }

    // The attacker's process, which waits in a library.
    std::unique_ptr<kit::Process> Subject(const char *library, std::vector<std::string> before = {}) const {
        std::vector<std::string> command{
            "/usr/bin/setpriv", "--reuid", std::to_string(kit::kAttacker), "--regid", std::to_string(kit::kAttacker),
            "--clear-groups"};
        command.insert(command.end(), before.begin(), before.end());
        command.insert(command.end(), {Copy(STACK_SUBJECT), Copy(library)});
        auto subject = std::make_unique<kit::Process>(dir_.Path(), command);
        EXPECT_TRUE(kit::Eventually([&] { return subject->Out() == "ready\n"; })) << subject->Err();
        EXPECT_TRUE(kit::Eventually([&] { return host::procfs::Procfs().ReadProcess(subject->Pid()).state == 'S'; }));
        return subject;
    }

    Stacks Ask(uint32_t pid) {
        return Call<Tarn_sys_diag_CallStackContext>("GetCallStackInfoByTid", Tarn_sys_diag_Tid{pid, 0});
    }

    // The stack of its only thread, a line for each frame.
    std::string StackOf(uint32_t pid) {
        const auto stacks = Ask(pid);
        if (stacks.Status() != 0 || stacks->uiThreadNum != 1) {
            return fmt::format("status {}", stacks.Status());
        }
        std::string text;
        for (uint32_t i = 0; i < stacks->pstThreadInfo[0].uiValue2; ++i) {
            text += std::string(stacks->pstThreadInfo[0].astFuncName[i].szFuncName) + "\n";
        }
        return text;
    }

    bool TellsAStack(uint32_t pid) {
        const auto stacks = Ask(pid);
        return stacks.Status() == 0 && stacks->uiThreadNum == 1 && stacks->pstThreadInfo[0].uiValue2 >= 1;
    }

    // Of so many questions while an attack is under way, each has an answer.
    void ExpectAnswers(uint32_t pid, size_t count, std::chrono::milliseconds bound) {
        kit::Latencies stacks, others;
        for (size_t i = 0; i < count; ++i) {
            stacks.Measure(1, [&] { return TellsAStack(pid); });
            others.Measure(1, [&] { return Answers(); });
        }
        EXPECT_EQ(stacks.Failed(), 0);
        EXPECT_EQ(others.Failed(), 0);
        EXPECT_LT(stacks.Longest(), bound);
        RecordProperty("stacks_ms", std::to_string(stacks.Longest().count()));
        fmt::print("{} stacks: p50 {:.1f} ms, longest {:.1f} ms; other calls: longest {:.1f} ms\n", count,
                   stacks.Percentile(0.5).count(), stacks.Longest().count(), others.Longest().count());
    }

    uint32_t Starter() const {
        const std::vector<uint32_t> children = ChildrenOf(daemon_->Pid());
        EXPECT_EQ(children.size(), 1);
        return children.empty() ? 0 : children[0];
    }

    const std::filesystem::path attackers_ = dir_.Path() / "attackers";
};

TEST_F(HostileStacksTest, AreReadWithTheRightsOfTheProcessOnly) {
    const auto subject = Subject(STACK_LIBRARY_A);
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos) << StackOf(subject->Pid());
    const std::vector<uint32_t> helpers = ChildrenOf(Starter());
    ASSERT_EQ(helpers.size(), 1) << "kept for the next question";
    const std::string status = host::procfs::Procfs().Read(helpers[0], "status");
    EXPECT_EQ(LineOf(status, "Uid"), "65534\t65534\t65534\t65534");
    EXPECT_EQ(LineOf(status, "Gid"), "65534\t65534\t65534\t65534");
    EXPECT_EQ(LineOf(status, "Groups"), " ");
    for (const char *const set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
        EXPECT_EQ(LineOf(status, set), "0000000000000000") << set;
    }
    EXPECT_EQ(LineOf(status, "NoNewPrivs"), "1");
    EXPECT_EQ(LineOf(status, "Seccomp"), "2");
    kit::Attacker other([&] { return access(fmt::format("/proc/{}/fd/3", helpers[0]).c_str(), F_OK) == 0 ? 1 : 0; });
    EXPECT_EQ(other.Wait(), 0) << "whoever has its user can reach what it has open";
}

TEST_F(HostileStacksTest, AreTheProcessesNextAsItIsThen) {
    const auto subject = Subject(STACK_LIBRARY_A);
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos);
    std::filesystem::remove(Copy(STACK_LIBRARY_A));
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos) << "its memory has what is deleted";
    const std::vector<uint32_t> helpers = ChildrenOf(Starter());
    ASSERT_EQ(helpers.size(), 1);
    kill(static_cast<pid_t>(helpers[0]), SIGKILL);
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos) << "a new helper is as good";
}

TEST_F(HostileStacksTest, OfALibraryThatIsTruncatedMeanwhile) {
    const auto subject = Subject(STACK_LIBRARY_A);
    const uint32_t starter = Starter();
    const std::string library = Copy(STACK_LIBRARY_A);
    const kit::Attacker truncating([&] {
        const std::string content = kit::TextOfFile(library);
        const host::Descriptor file(open(library.c_str(), O_WRONLY | O_CLOEXEC));
        while (ftruncate(file.Fd(), 4096) == 0 && pwrite(file.Fd(), content.data(), content.size(), 0) > 0) {
        }
        return 1;
    });
    const kit::Attacker killing([&] {
        for (;;) {
            KillHelpers(starter); // so that the library is read anew
        }
        return 0;
    });
    ExpectAnswers(subject->Pid(), 300, 10s);
}

TEST_F(HostileStacksTest, OfAFunctionWhoseNameIsMoreThanThereIsMemory) {
    const auto subject = Subject(STACK_LIBRARY_WILD);
    EXPECT_NE(StackOf(subject->Pid()).find("f(A<int, int>, A<A<int, int>, A<int, int> >"), std::string::npos)
        << StackOf(subject->Pid());
    ExpectAnswers(subject->Pid(), 20, 5s);
}

// What is deleted is shown with a word behind its name, and a file of that name is anything.
TEST_F(HostileStacksTest, OfALibraryWithAFifoInItsPlace) {
    const auto subject = Subject(STACK_LIBRARY_A);
    const std::string place = Copy(STACK_LIBRARY_A).string() + " (deleted)";
    std::filesystem::remove(Copy(STACK_LIBRARY_A));
    const std::string fifo = place + ".fifo";
    std::ofstream(place) << "x";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
    const kit::Attacker attacker([&] {
        while (renameat2(AT_FDCWD, place.c_str(), AT_FDCWD, fifo.c_str(), RENAME_EXCHANGE) == 0) {
        }
        return 1;
    });
    ExpectAnswers(subject->Pid(), 200, 10s);
}

TEST_F(HostileStacksTest, OfAProcessThatSeesOtherFiles) {
    const std::string mount = fmt::format("mount --bind {} {} && exec \"$@\"", Copy(STACK_LIBRARY_B).string(),
                                          Copy(STACK_LIBRARY_A).string());
    kit::Attacker allowed(
        [] { return system("unshare --user --map-root-user --mount true 2>/dev/null") == 0 ? 0 : 1; });
    if (allowed.Wait() != 0) {
        GTEST_SKIP() << "users may not have namespaces of their own here";
    }
    const host::Descriptor opened(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const auto subject = Subject(
        STACK_LIBRARY_A, {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c", mount, "sh"});
    ASSERT_GE(inotify_add_watch(opened.Fd(), Copy(STACK_LIBRARY_A).c_str(), IN_OPEN), 0);
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInB()+"), std::string::npos) << StackOf(subject->Pid());
    char events[4096];
    EXPECT_EQ(read(opened.Fd(), events, sizeof events), -1) << "the file of that name here was opened";
}

// Helpers run with the attacker's user, who may signal them.
TEST_F(HostileStacksTest, OfAProcessWhoseHelpersAreKilled) {
    const auto subject = Subject(STACK_LIBRARY_A);
    const uint32_t starter = Starter();
    const kit::Attacker attacker([&] {
        for (;;) {
            KillHelpers(starter);
        }
        return 0;
    });
    ExpectAnswers(subject->Pid(), 200, 10s);
}

TEST_F(HostileStacksTest, OfAProcessWhoseHelperIsStopped) {
    const auto subject = Subject(STACK_LIBRARY_A);
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos);
    const std::vector<uint32_t> helpers = ChildrenOf(Starter());
    ASSERT_EQ(helpers.size(), 1);
    kit::Attacker attacker([&] { return kill(static_cast<pid_t>(helpers[0]), SIGSTOP); });
    ASSERT_EQ(attacker.Wait(), 0);
    ASSERT_TRUE(kit::Eventually([&] { return host::procfs::Procfs().ReadProcess(helpers[0]).state == 'T'; }));
    EXPECT_TRUE(StackOf(subject->Pid()).starts_with("0x")) << "where it is, without names";
    EXPECT_TRUE(kit::Eventually([&] { return ChildrenOf(Starter()).empty(); })) << "one that fails is killed";
    EXPECT_NE(StackOf(subject->Pid()).find("RestsInA()+"), std::string::npos);
}

} // namespace
