// Call stacks of a process that the tests know, from the library and from the daemon.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <sys/ptrace.h>

#include <algorithm>
#include <future>

#include "host/daemon/processes/room.h"
#include "host/procfs/procfs.h"
#include "host/stacks/readable.h"
#include "host/stacks/stacks.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/error_of.h"

namespace {

using namespace std::chrono_literals;
using kit::EndedPid;
using kit::ErrorOf;
using kit::Subject;

size_t CountFunction(const host::stacks::Stack &stack, const std::string &name) {
    return static_cast<size_t>(
        std::count_if(stack.frames.begin(), stack.frames.end(), [&](const host::stacks::Frame &frame) {
            return frame.function.find(name) != std::string::npos;
        }));
}

uint64_t TracerOf(uint32_t pid) {
    return host::procfs::FieldOf(kit::TextOfFile("/proc/" + std::to_string(pid) + "/status"), "TracerPid");
}

host::stacks::Deadline Soon() {
    return std::chrono::steady_clock::now() + 20s;
}

class StacksTest : public testing::Test {
protected:
    host::stacks::Process Open(uint32_t pid) { return {tracer_, helpers_, pid, Soon()}; }
    char State(const char *thread) {
        return host::procfs::Procfs().ReadThread(subject_.Pid(), subject_.tids.at(thread)).state;
    }
    bool Sleeps() {
        return kit::Eventually([&] { return State("sleeper") == 'S'; });
    }

    // Unless another daemon, which looks at busy threads, has it at the moment.
    static void Debug(pid_t tid) {
        ASSERT_TRUE(kit::Eventually([&] { return ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0; }));
    }
    static void LetGo(pid_t tid) {
        ASSERT_EQ(ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr), 0);
        ASSERT_EQ(waitpid(tid, nullptr, __WALL), tid);
        ASSERT_EQ(ptrace(PTRACE_DETACH, tid, nullptr, nullptr), 0);
    }

    const kit::TempDir dir_;
    const Subject subject_{dir_};
    const host::procfs::Procfs proc_;
    host::stacks::Tracer tracer_{proc_};
    host::stacks::Helpers helpers_{TARN_UNWIND};
};

TEST_F(StacksTest, NamesTheFunctions) {
    host::stacks::Process process = Open(subject_.Pid());
    const host::stacks::Stack burner = process.Read(subject_.tids.at("burner"));
    ASSERT_GE(burner.frames.size(), 3);
    EXPECT_NE(burner.frames[0].function.find("BurnCpu(unsigned int volatile&)"), std::string::npos)
        << burner.frames[0].Text();
    EXPECT_EQ(burner.frames[0].module, "host_subject");
    const host::stacks::Frame &last = burner.frames.back();
    EXPECT_TRUE(last.module.starts_with("libc.so") || last.module.starts_with("libpthread")) << last.Text();
    EXPECT_FALSE(last.moreFollow);
    const std::string modules = host::stacks::ModulesText(burner.frames);
    EXPECT_NE(modules.find("host_subject at 0x"), std::string::npos) << modules;
    EXPECT_NE(modules.find(", build id "), std::string::npos) << modules;

    ASSERT_TRUE(Sleeps());
    const host::stacks::Stack sleeper = process.Read(subject_.tids.at("sleeper"));
    EXPECT_EQ(sleeper.frames.size(), host::stacks::kMaxFrames) << "of more";
    EXPECT_TRUE(sleeper.frames.back().moreFollow);
    EXPECT_EQ(CountFunction(sleeper, "SleepForGood()"), 1);
    // Below it are pause and, where one calls the kernel through a function of its own, that.
    const size_t below = sleeper.frames[0].function == "__kernel_vsyscall" ? 2 : 1;
    EXPECT_NE(sleeper.frames[below - 1].function.find("pause"), std::string::npos) << sleeper.frames[0].Text();
    EXPECT_EQ(CountFunction(sleeper, "Descend(unsigned int)"), sleeper.frames.size() - below - 1);
}

TEST_F(StacksTest, MakesNamesInATextReadable) {
    host::stacks::Demangler names(helpers_, Soon());
    EXPECT_EQ(host::stacks::WithReadableNames("2 blocks, _ZN6Worker3RunEi+0x1c\n(_Z4Mainv) a_Z4Mainv _Z\n", names),
              "2 blocks, Worker::Run(int)+0x1c\n(Main()) a_Z4Mainv _Z\n");
    EXPECT_EQ(host::stacks::WithReadableNames("", names), "");
}

TEST_F(StacksTest, HoldsAThreadUpForAMomentOnly) {
    ASSERT_TRUE(Sleeps());
    host::stacks::Process process = Open(subject_.Pid());
    for (int i = 0; i < 50; ++i) {
        for (const char *const thread : {"burner", "sleeper"}) {
            const auto start = std::chrono::steady_clock::now();
            const std::chrono::nanoseconds stopped = process.Read(subject_.tids.at(thread)).stopped;
            EXPECT_GT(stopped, 0ns);
            EXPECT_LE(stopped, std::chrono::steady_clock::now() - start);
        }
    }

    EXPECT_EQ(TracerOf(subject_.Pid()), 0);
    EXPECT_TRUE(kit::Eventually([&] { return State("sleeper") == 'S'; })) << "asleep again, not stopped";
    const kit::CpuClock clock(subject_.Pid());
    const auto before = clock.Used();
    EXPECT_TRUE(kit::Eventually([&] { return clock.Used() > before + 20ms; })) << "the burner runs on";
}

TEST_F(StacksTest, LeavesAStoppedProcessStopped) {
    subject_.Signal(SIGSTOP);
    ASSERT_TRUE(kit::Eventually([&] { return State("burner") == 'T' && State("sleeper") == 'T'; }));
    host::stacks::Process process = Open(subject_.Pid());
    EXPECT_EQ(CountFunction(process.Read(subject_.tids.at("burner")), "BurnCpu"), 1);
    EXPECT_TRUE(kit::Eventually([&] { return State("burner") == 'T'; })) << "it was traced for a moment";
    subject_.Signal(SIGCONT);
    EXPECT_TRUE(kit::Eventually([&] { return State("burner") == 'R'; }));
}

TEST_F(StacksTest, SaysWhyItCannotRead) {
    EXPECT_EQ(ErrorOf([&] { Open(EndedPid()); }), ESRCH);
    if (kit::TextOfFile("/proc/2/comm") == "kthreadd\n") {
        EXPECT_EQ(ErrorOf([&] { Open(2); }), ENOTSUP);
    }
    host::stacks::Process process = Open(subject_.Pid());
    EXPECT_EQ(ErrorOf([&] { process.Read(EndedPid()); }), ESRCH);
    const auto burner = static_cast<pid_t>(subject_.tids.at("burner"));
    Debug(burner);
    EXPECT_EQ(ErrorOf([&] { process.Read(subject_.tids.at("burner")); }), EPERM) << "a debugger has it";
    LetGo(burner);
    EXPECT_EQ(ErrorOf([&] { process.Read(subject_.tids.at("burner")); }), 0);
}

TEST_F(StacksTest, WaitsForAnotherThatLetsGoSoon) {
    host::stacks::Process process = Open(subject_.Pid());
    const auto burner = static_cast<pid_t>(subject_.tids.at("burner"));
    Debug(burner);
    std::future<int> read = std::async([&] { return ErrorOf([&] { process.Read(subject_.tids.at("burner")); }); });
    EXPECT_EQ(read.wait_for(20ms), std::future_status::timeout) << "failed at once";
    LetGo(burner);
    EXPECT_EQ(read.get(), 0);
}

TEST_F(StacksTest, MayNotLookIntoAnotherUsersProcess) {
    const pid_t child = fork();
    if (child == 0) {
        uint32_t target = 1;
        if (geteuid() == 0) {
            target = subject_.Pid();
            if (setgid(65534) != 0 || setuid(65534) != 0) {
                _exit(255);
            }
        }
        host::stacks::Helpers helpers(TARN_UNWIND);
        _exit(ErrorOf([&] { host::stacks::Process process(tracer_, helpers, target, Soon()); }));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), EPERM);
}

// A signal that arrives while a thread is looked at is not lost.
TEST_F(StacksTest, LetsSignalsThrough) {
    host::stacks::Process process = Open(subject_.Pid());
    std::atomic<bool> stop = false;
    std::atomic<uint32_t> reads = 0;
    std::thread reader([&] {
        for (; !stop; ++reads) {
            ErrorOf([&] { process.Read(subject_.tids.at("burner")); });
        }
    });
    EXPECT_TRUE(kit::Eventually([&] { return reads > 2; }));
    subject_.Signal(SIGTERM);
    EXPECT_TRUE(kit::Eventually([&] {
        return ErrorOf([&] { host::procfs::Procfs().ReadProcess(subject_.Pid()); }) != 0 ||
               host::procfs::Procfs().ReadProcess(subject_.Pid()).HasEnded();
    }));
    stop = true;
    reader.join();
}

// The children by vfork of a thread, which waits for them in a way that can't be interrupted.
std::vector<pid_t> ChildrenOf(uint32_t pid, uint32_t tid) {
    std::istringstream text(
        kit::TextOfFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/children"));
    return {std::istream_iterator<pid_t>(text), {}};
}

bool IsBlocked(const Subject &subject, const std::string &thread) {
    return kit::Eventually(
        [&] { return host::procfs::Procfs().ReadThread(subject.Pid(), subject.tids.at(thread)).state == 'D'; });
}

TEST_F(StacksTest, DoesNotHoldUpAThreadThatDidNotStop) {
    const Subject subject(dir_, 1, 1);
    const uint32_t tid = subject.tids.at("blocked0");
    ASSERT_TRUE(IsBlocked(subject, "blocked0"));
    host::stacks::Process process = Open(subject.Pid());
    EXPECT_EQ(ErrorOf([&] { process.Read(tid); }), ETIMEDOUT);
    EXPECT_EQ(TracerOf(subject.Pid()), 0);

    // What it waited for comes: it must not stop now.
    const std::vector<pid_t> children = ChildrenOf(subject.Pid(), tid);
    ASSERT_EQ(children.size(), 1);
    kill(children[0], SIGKILL);
    EXPECT_TRUE(kit::Eventually([&] {
        return host::procfs::Procfs().ReadThread(subject.Pid(), tid).state == 'S' &&
               CountFunction(process.Read(tid), "SleepForGood") == 1;
    }));
}

TEST(DemanglerTest, NamesWhatHasAnotherName) {
    host::stacks::Helpers helpers(TARN_UNWIND);
    host::stacks::Demangler names(helpers, Soon());
    EXPECT_EQ(names.Readable("_Z3Fooi"), "Foo(int)");
    EXPECT_EQ(names.Readable("_ZN5house4roomD1Ev"), "house::room::~room()");
    EXPECT_EQ(names.Readable("main"), "main");
    EXPECT_EQ(names.Readable("f"), "f") << "no type";
    EXPECT_EQ(names.Readable("_Zso it seems"), "_Zso it seems");
    EXPECT_EQ(names.Readable(""), "");
}

TEST(DemanglerTest, CutsWhatIsEndless) {
    std::string name = "_Z1f1AIiiE", text = "f(A<int, int>, A<A<int, int>, A<int, int> >, ";
    const std::string types = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (size_t i = 0; i + 1 < types.size(); ++i) {
        name += std::string("S_IS") + types[i] + "_S" + types[i] + "_E";
    }
    host::stacks::Helpers helpers(TARN_UNWIND);
    host::stacks::Demangler names(helpers, Soon());
    const std::string readable = names.Readable(name);
    EXPECT_TRUE(readable.starts_with(text)) << readable;
    EXPECT_EQ(readable.size(), host::unwind::kMostNameBytes);
    EXPECT_EQ(names.Readable("_Z3Fooi"), "Foo(int)") << "the next is as good";
}

TEST(DemanglerTest, LeavesNamesWhereNobodyHelps) {
    host::stacks::Helpers none;
    host::stacks::Demangler names(none, Soon());
    EXPECT_EQ(names.Readable("_Z3Fooi"), "_Z3Fooi");
}

// ---- The daemon's method ----

class StackMethodTest : public kit::DaemonTest<Unit> {
protected:
    auto Stacks(uint32_t pid, uint32_t tid) {
        return Call<Tarn_sys_diag_CallStackContext>("GetCallStackInfoByTid", Tarn_sys_diag_Tid{pid, tid});
    }
};

TEST_F(StackMethodTest, TellsTheStacksOfAProcess) {
    const Subject subject(dir_);
    const auto all = Stacks(subject.Pid(), 0);
    ASSERT_EQ(all.Status(), 0);
    ASSERT_EQ(all->uiThreadNum, 3);
    bool found = false;
    for (uint32_t i = 0; i < all->uiThreadNum; ++i) {
        const Tarn_sys_diag_CallStackThreadInfo &thread = all->pstThreadInfo[i];
        EXPECT_EQ(std::string(thread.szName2), "host_subject");
        ASSERT_GE(thread.uiValue2, 1);
        ASSERT_LE(thread.uiValue2, 32);
        EXPECT_NE(thread.aullStackAddr[thread.uiValue2 - 1], 0);
        if (thread.uiTid == subject.tids.at("burner")) {
            found = true;
            EXPECT_EQ(std::string(thread.szThreadName), "burner");
            EXPECT_NE(std::string(thread.astFuncName[0].szFuncName).find("BurnCpu"), std::string::npos);
            EXPECT_GT(thread.ullValue1, 0);
        }
    }
    EXPECT_TRUE(found);

    const auto one = Stacks(subject.Pid(), subject.tids.at("sleeper"));
    ASSERT_EQ(one.Status(), 0);
    ASSERT_EQ(one->uiThreadNum, 1);
    EXPECT_EQ(one->pstThreadInfo[0].uiTid, subject.tids.at("sleeper"));
    EXPECT_EQ(one->uiValue1, one->pstThreadInfo[0].uiValue3);
}

TEST_F(StackMethodTest, SaysWhyThereAreNone) {
    const Subject subject(dir_);
    EXPECT_EQ(Stacks(EndedPid(), 0).Status(), ESRCH);
    EXPECT_EQ(Stacks(subject.Pid(), daemon_->Pid()).Status(), ESRCH) << "no thread of the subject";
    EXPECT_EQ(Stacks(subject.tids.at("sleeper"), 0).Status(), ESRCH) << "a thread's id";
    EXPECT_EQ(Stacks(daemon_->Pid(), 0).Status(), EPERM) << "the daemon can't stop itself";
}

TEST_F(StackMethodTest, TellsTheOtherStacksOfAProcessWithAThreadThatDoesNotStop) {
    const Subject subject(dir_, 1, 1);
    const uint32_t blocked = subject.tids.at("blocked0");
    ASSERT_TRUE(IsBlocked(subject, "blocked0"));
    EXPECT_EQ(Stacks(subject.Pid(), blocked).Status(), ETIMEDOUT);
    const auto all = Stacks(subject.Pid(), 0);
    ASSERT_EQ(all.Status(), 0);
    ASSERT_EQ(all->uiThreadNum, 4);
    for (uint32_t i = 0; i < all->uiThreadNum; ++i) {
        EXPECT_EQ(all->pstThreadInfo[i].uiValue2 == 0, all->pstThreadInfo[i].uiTid == blocked);
    }
}

TEST(Explanation, CountsWhatHasNoRoom) {
    const std::string text = "of thread 17 more frames are not told; first at 0x10; second at 0x20";
    const auto within = [&](size_t bytes) { return tarnd::WithinRoom(text, bytes); };
    EXPECT_EQ(within(text.size()), text);
    const std::string two = "of thread 17 more frames are not told; first at 0x10; 1 more are not told";
    const std::string one = "of thread 17 more frames are not told; 2 more are not told";
    EXPECT_EQ(within(text.size() - 1), one) << "what is told instead takes room, too";
    EXPECT_EQ(within(one.size()), one);
    EXPECT_EQ(within(one.size() - 1), "3 more are not told");
    const std::string longer = text + std::string(100, 'x');
    EXPECT_EQ(tarnd::WithinRoom(longer, two.size()), two);
    EXPECT_EQ(tarnd::WithinRoom(longer, two.size() - 1), one);
}

// The daemon is held in the middle of the threads until all of them are gone.
TEST_F(StackMethodTest, TellsNothingOfAProcessThatEndsMeanwhile) {
    Subject subject(dir_, 1, 40);
    ASSERT_TRUE(IsBlocked(subject, "blocked39"));
    auto outcome = std::async(std::launch::async, [&] {
        return client_.Call("TarnSysdiagTarnd", 0, "GetCallStackInfoByTid", velto::kTypeHash<Tarn_sys_diag_Tid>,
                            kit::Encode<Unit>(Tarn_sys_diag_Tid{subject.Pid(), 0}), 60s);
    });
    EXPECT_TRUE(kit::Eventually([&] { return TracerOf(subject.tids.at("blocked0")) != 0; }));
    daemon_->Signal(SIGSTOP);
    subject.Signal(SIGKILL);
    EXPECT_TRUE(kit::Eventually([&] {
        return std::ranges::all_of(host::procfs::Procfs().ReadThreads(subject.Pid()),
                                   [](const host::procfs::Task &thread) { return thread.state == 'Z'; });
    }));
    daemon_->Signal(SIGCONT);
    EXPECT_EQ(outcome.get().status, ESRCH);
}

// Each thread that does not stop takes a while; nobody waits for the stacks of the last.
TEST_F(StackMethodTest, EndsWithItsDeadline) {
    const Subject subject(dir_, 1, 40);
    ASSERT_TRUE(IsBlocked(subject, "blocked39"));
    const host::CallOutcome outcome =
        client_.Call("TarnSysdiagTarnd", 0, "GetCallStackInfoByTid", velto::kTypeHash<Tarn_sys_diag_Tid>,
                     kit::Encode<Unit>(Tarn_sys_diag_Tid{subject.Pid(), 0}), 500ms);
    EXPECT_FALSE(outcome.Ok());
    EXPECT_TRUE(Logged("GetCallStackInfoByTid: after the stacks of ")) << daemon_->Err();
}

} // namespace
