// Faults of an application, recorded by its agent and read through the daemon.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <sys/file.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstring>
#include <set>
#include <thread>

#include <fmt/format.h>

#include "host/agent/faults.h"
#include "host/agent/registers.h"
#include "host/blackbox/box.h"
#include "host/blackbox/reader.h"
#include "tarn_sysdiag/agent.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/error_of.h"
#include "tests/host/nobody.h"

namespace {

using namespace std::chrono_literals;
using host::blackbox::Box;
using host::blackbox::Contents;
using host::blackbox::Entry;
using host::blackbox::FaultHead;
using host::blackbox::FaultKind;
using host::blackbox::FaultRecord;
using host::blackbox::FaultSlot;

size_t CountOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool Has(const std::string &text, const std::string &part) {
    return CountOf(text, part) != 0;
}

std::vector<FaultRecord> ReadAll(const std::filesystem::path &runDir) {
    std::vector<FaultRecord> records;
    const Contents contents = host::blackbox::List(
        runDir, [](const auto &) { return false; }, [](const FaultHead &) { return true; }, [] {});
    for (const host::blackbox::RecordPlace &place : contents.records) {
        records.push_back(host::blackbox::Read(runDir, place).value());
    }
    return records;
}

struct Report {
    uint32_t matches;
    std::string text;
};

class FaultTest : public kit::DaemonTest<Unit> {
protected:
    std::unique_ptr<kit::Process> StartAgent() {
        auto agent = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "faulty", "--run-dir", dir_.Path()});
        EXPECT_TRUE(kit::Eventually([&] {
            return Has(agent->Err(), "registered with the daemon, process " + std::to_string(daemon_->Pid()));
        })) << agent->Err();
        return agent;
    }

    void Command(const kit::Process &agent, std::string line) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecShowByTarnd",
                                    Tarn_sys_diag_DbgCmdShowByTarndInput{line.data(), agent.Pid()}),
                  0);
    }

    // The process of an agent that a command ended.
    uint32_t Crash(const std::string &line) {
        const auto agent = StartAgent();
        const uint32_t pid = agent->Pid();
        Command(*agent, line);
        EXPECT_TRUE(Ends(*agent)) << "as it would have without the agent";
        return pid;
    }

    static bool Ends(kit::Process &process) {
        return kit::Eventually(
                   [&] { return Has(kit::TextOfFile("/proc/" + std::to_string(process.Pid()) + "/stat"), ") Z "); }) &&
               process.Wait() != 0;
    }

    Report Exceptions(uint32_t pid = 0, uint32_t skip = 0, uint32_t limit = 0, int signal = 0) {
        const auto answer = Call<Tarn_sys_diag_ExceptionInfoResult>(
            "GetExceptionInfo", Tarn_sys_diag_ExceptionInfoCondition{pid, skip, limit, static_cast<uint32_t>(signal)});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return {answer->uiValue1, std::string(reinterpret_cast<const char *>(answer->pucInfo), answer->uiInfoLen)};
    }
    Report Assertions(uint32_t pid = 0) {
        const auto answer =
            Call<Tarn_sys_diag_AssertInfoResult>("GetAssertInfo", Tarn_sys_diag_AssertInfoCondition{pid, 0, 0});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return {answer->uiValue1, std::string(reinterpret_cast<const char *>(answer->pucInfo), answer->uiInfoLen)};
    }
    uint32_t Reset(uint32_t kind, uint32_t pid) {
        return Call<Tarn_sys_diag_ResetBBoxResult>("ResetBBoxInfo", Tarn_sys_diag_ResetBBoxCondition{kind, pid})
            ->uiResult;
    }

    void RestartDaemon() {
        daemon_->Signal(SIGKILL);
        daemon_->Wait();
        StartDaemon();
    }

    const std::filesystem::path box_ = host::blackbox::FileOf(dir_.Path(), geteuid());
};

TEST_F(FaultTest, ReadsACrashBackAlsoAfterARestart) {
    const uint32_t pid = Crash("crash segv");
    for (int start = 0; start < 2; ++start) {
        const Report report = Exceptions(pid);
        EXPECT_EQ(report.matches, 1);
        EXPECT_TRUE(Has(report.text, "process " + std::to_string(pid) + " (tarn-agent)")) << report.text;
        EXPECT_TRUE(Has(report.text, "agent faulty")) << report.text;
        EXPECT_TRUE(Has(report.text, "signal 11 SIGSEGV, address not mapped, address 0x0")) << report.text;
        EXPECT_TRUE(Has(report.text, "WriteThroughNull+")) << report.text;
        EXPECT_TRUE(Has(report.text, "Crash+")) << report.text;
        EXPECT_TRUE(Has(report.text, "(tarn-agent+0x")) << report.text;
        EXPECT_TRUE(Has(report.text, "(libtarn_agent.so.")) << "the thread that runs the commands: " << report.text;
        EXPECT_TRUE(Has(report.text, std::string(agent::kRegisters[0].name) + "    ")) << report.text;
        RestartDaemon();
    }
}

// What readelf says of it.
std::string BuildIdOf(const std::string &file) {
    const std::string command = "LC_ALL=C readelf -n " + file + " | sed -n 's/.*Build ID: //p'";
    const std::unique_ptr<FILE, int (*)(FILE *)> out(popen(command.c_str(), "r"), pclose);
    char line[256] = {};
    return fgets(line, sizeof line, out.get()) == nullptr ? "" : std::string(line, strcspn(line, "\n"));
}

TEST_F(FaultTest, TellsWhatItTakesToSymbolizeElsewhere) {
    const std::string id = BuildIdOf(TARN_AGENT);
    if (id.empty()) {
        GTEST_SKIP() << "the linker makes no build ids";
    }
    const Report report = Exceptions(Crash("crash segv"));
    EXPECT_TRUE(Has(report.text, "  tarn-agent has build id " + id + "\n")) << report.text;
    const bool isFull = Has(report.text, "\n  #31 "); // as deep as it may be without optimization
    EXPECT_TRUE(isFull || !Has(report.text, "more frames are not recorded")) << report.text;
}

TEST_F(FaultTest, NamesTheFunctionsOfAProgramThatWasDeleted) {
    const std::filesystem::path program = dir_.Path() / "short-lived";
    std::filesystem::copy_file(TARN_AGENT, program);
    kit::Process agent(dir_.Path(), {program, "--name", "faulty", "--run-dir", dir_.Path()});
    ASSERT_TRUE(kit::Eventually([&] { return Has(agent.Err(), "registered with the daemon, process "); }));
    std::filesystem::remove(program);
    const uint32_t pid = agent.Pid();
    Command(agent, "crash segv");
    EXPECT_TRUE(Ends(agent));
    const Report report = Exceptions(pid);
    EXPECT_TRUE(Has(report.text, "WriteThroughNull+")) << report.text;
    EXPECT_TRUE(Has(report.text, "(short-lived+0x")) << report.text;
}

TEST_F(FaultTest, HasItsRecordsWhereItIsToldTo) {
    const std::filesystem::path faults = dir_.Path() / "state/faults";
    setenv("TARN_FAULT_DIR", faults.c_str(), 1);
    RestartDaemon();
    const uint32_t pid = Crash("crash segv");
    unsetenv("TARN_FAULT_DIR");
    EXPECT_EQ(Exceptions(pid).matches, 1);
    EXPECT_TRUE(std::filesystem::exists(host::blackbox::FileOf(faults, geteuid())));
    EXPECT_FALSE(std::filesystem::exists(box_)) << "the run directory is gone after a restart of the machine";
}

TEST_F(FaultTest, ServesWithoutAPlaceForRecords) {
    setenv("TARN_FAULT_DIR", "/proc/nowhere", 1);
    RestartDaemon();
    unsetenv("TARN_FAULT_DIR");
    EXPECT_TRUE(Has(daemon_->Err(), "fault directory /proc/nowhere: ")) << daemon_->Err();
    EXPECT_EQ(Exceptions().matches, 0);
}

TEST_F(FaultTest, RecordsEachKindAndFiltersThem) {
    const uint32_t divided = Crash("crash fpe");
    const uint32_t aborted = Crash("crash abort");
    const uint32_t lost = Crash("crash jump");
    const uint32_t overflown = Crash("crash overflow");
    EXPECT_EQ(Exceptions().matches, 4);
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_TRUE(Has(Exceptions(divided).text, "SIGFPE, sent by a process")) << "its division has a result";
#else
    EXPECT_TRUE(Has(Exceptions(divided).text, "SIGFPE, integer division by zero"));
#endif
    EXPECT_TRUE(Has(Exceptions(divided).text, "DivideByZero+"));
    EXPECT_TRUE(Has(Exceptions(aborted).text, "SIGABRT, sent by a process"));
    EXPECT_TRUE(Has(Exceptions(lost).text, "1000 ? (?)\n")) << "where the jump led: " << Exceptions(lost).text;
    EXPECT_TRUE(Has(Exceptions(lost).text, "JumpNowhere+")) << "who called: " << Exceptions(lost).text;
    EXPECT_TRUE(Has(Exceptions(lost).text, "Crash+")) << Exceptions(lost).text;
    EXPECT_TRUE(Has(Exceptions(overflown).text, "SIGSEGV"));
    EXPECT_GE(CountOf(Exceptions(overflown).text, "Recurse"), 20) << Exceptions(overflown).text;
    EXPECT_TRUE(Has(Exceptions(overflown).text, "  more frames are not recorded\n")) << Exceptions(overflown).text;

    EXPECT_EQ(Exceptions(0, 0, 0, SIGFPE).matches, 1);
    const Report second = Exceptions(0, 2, 1);
    EXPECT_EQ(second.matches, 4) << "returned or not";
    EXPECT_EQ(CountOf(second.text, ", agent faulty\n"), 1);
    EXPECT_TRUE(Has(second.text, "process " + std::to_string(aborted))) << "the newest first: " << second.text;
}

TEST_F(FaultTest, RecordsAssertions) {
    const auto agent = StartAgent();
    Command(*agent, "check");
    EXPECT_TRUE(kit::Eventually([&] { return Has(Assertions().text, "  #0 "); })) << "a record's stack comes last";
    const Report goesOn = Assertions(agent->Pid());
    EXPECT_EQ(goesOn.matches, 1);
    EXPECT_TRUE(Has(goesOn.text, "assertion wordNum == 0 in Check, ")) << goesOn.text;
    EXPECT_TRUE(Has(goesOn.text, "example.c:")) << goesOn.text;
    EXPECT_FALSE(Has(goesOn.text, std::string(agent::kRegisters[0].name) + "    "))
        << "none is captured: " << goesOn.text;
    const std::string first = goesOn.text.substr(goesOn.text.find("#0 "));
    EXPECT_TRUE(Has(first.substr(0, first.find('\n')), "Check+")) << goesOn.text;
    EXPECT_EQ(Exceptions().matches, 0);

    Command(*agent, "assert");
    EXPECT_TRUE(Ends(*agent));
    EXPECT_EQ(Assertions().matches, 2);
    EXPECT_EQ(Exceptions(0, 0, 0, SIGABRT).matches, 1) << "an assertion aborts";
}

TEST_F(FaultTest, ResetsWhatItIsAskedTo) {
    const uint32_t first = Crash("assert");
    const uint32_t second = Crash("assert");
    EXPECT_EQ(Reset(3, 0), EINVAL);
    EXPECT_EQ(Reset(1, first), 0);
    EXPECT_EQ(Exceptions(first).matches, 0);
    EXPECT_EQ(Exceptions(second).matches, 1);
    EXPECT_EQ(Assertions().matches, 2);
    EXPECT_EQ(Reset(2, 0), 0);
    EXPECT_EQ(Assertions().matches, 0);
    EXPECT_EQ(Exceptions().matches, 1);
    EXPECT_EQ(Reset(0, 0), 0);
    RestartDaemon();
    EXPECT_EQ(Exceptions().text, "") << "gone for good";
    EXPECT_EQ(Exceptions(Crash("crash segv")).matches, 1) << "the slots are used again";
}

TEST_F(FaultTest, TellsATornRecordFromAWholeOne) {
    const uint32_t older = Crash("crash segv");
    const uint32_t newer = Crash("crash segv");
    const auto overwrite = [&](size_t offset) {
        std::fstream file(box_, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(sizeof(host::blackbox::FileHeader) + sizeof(FaultSlot) + offset));
        file.write("torn", 4);
    };
    overwrite(offsetof(FaultSlot, stack) + 100);
    EXPECT_TRUE(Has(Exceptions(newer).text, "no stack: ")) << "what was written first is still good";
    EXPECT_TRUE(Has(Exceptions(newer).text, "SIGSEGV"));
    overwrite(offsetof(FaultSlot, head) + 100);
    EXPECT_EQ(Exceptions(newer).matches, 0);
    EXPECT_EQ(Exceptions(older).matches, 1);
    EXPECT_TRUE(Has(Exceptions(older).text, "WriteThroughNull+"));
    EXPECT_TRUE(Has(Exceptions(older).text, "damaged records: 1\n"));
    EXPECT_EQ(Reset(0, 0), 0);
    EXPECT_EQ(Exceptions().text, "");
}

TEST_F(FaultTest, SetsAsideWhatIsNoBlackBox) {
    std::ofstream(box_) << "something else";
    EXPECT_TRUE(Has(Exceptions().text, "is no black box")) << Exceptions().text;
    const uint32_t pid = Crash("crash segv");
    EXPECT_EQ(Exceptions(pid).matches, 1);
    EXPECT_EQ(kit::TextOfFile(box_.string() + ".damaged"), "something else");

    std::ofstream(dir_.Path() / "blackbox-12345") << "of another user";
    EXPECT_EQ(Exceptions().matches, 1);
    EXPECT_TRUE(Has(Exceptions().text, "blackbox-12345 belongs to another user")) << Exceptions().text;
}

TEST_F(FaultTest, TellsTimesThatNoClockShows) {
    std::filesystem::path aside;
    const Box box(box_, aside);
    for (const uint64_t timeNs : {uint64_t{0}, uint64_t{INT64_MAX}, UINT64_MAX}) {
        const Entry entry(box);
        memset(&entry.Head(), 0, sizeof entry.Head());
        entry.Head().kind = FaultKind::kException;
        entry.Head().timeNs = timeNs;
        entry.SealHead();
    }
    const Report report = Exceptions();
    EXPECT_EQ(report.matches, 3);
    EXPECT_EQ(CountOf(report.text, "2169-12-31 "), 2) << "the latest that is told: " << report.text;
}

// The black box alone, written by processes that are killed at chosen moments.
class BoxTest : public testing::Test {
protected:
    // Runs a writer in a process that kills itself at the end.
    template <class Write>
    void InKilledProcess(Write write) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::filesystem::path aside;
            const Box box(file_, aside);
            write(box);
            kill(getpid(), SIGKILL);
        }
        waitpid(pid, nullptr, 0);
    }

    static void Fill(FaultHead &head, uint32_t pid) {
        memset(&head, 0, sizeof head);
        head.kind = FaultKind::kException;
        head.pid = pid;
        head.timeNs = pid;
    }
    static void WriteHead(const Entry &entry, uint32_t pid) {
        Fill(entry.Head(), pid);
        entry.SealHead();
    }
    static void WriteWhole(const Box &box, uint32_t pid) {
        const Entry entry(box);
        ASSERT_TRUE(entry);
        WriteHead(entry, pid);
        memset(&entry.Stack(), 0, sizeof entry.Stack());
        entry.SealStack();
    }

    template <class Value>
    void Overwrite(size_t at, const Value &value) const {
        std::fstream file(file_, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(at)).write(reinterpret_cast<const char *>(&value), sizeof value);
    }

    static constexpr auto kAll = [](const FaultHead &) { return true; };
    static constexpr auto kNoCheck = [] {};
    static constexpr auto kNoneErased = [](const host::blackbox::RecordPlace &) { return false; };
    Contents List() const { return host::blackbox::List(dir_.Path(), kNoneErased, kAll, kNoCheck); }
    std::vector<FaultRecord> Read() const { return ReadAll(dir_.Path()); }

    const kit::TempDir dir_;
    const std::filesystem::path file_ = host::blackbox::FileOf(dir_.Path(), geteuid());
};

TEST_F(BoxTest, SurvivesAWriterThatIsKilledAnywhere) {
    InKilledProcess([](const Box &box) { WriteWhole(box, 1); });
    InKilledProcess([](const Box &box) { const Entry entry(box); });
    InKilledProcess([](const Box &box) { Fill(Entry(box).Head(), 3); });
    InKilledProcess([](const Box &box) { WriteHead(Entry(box), 4); });
    InKilledProcess([](const Box &box) { WriteWhole(box, 5); });
    EXPECT_EQ(List().damaged, 2);
    const std::vector<FaultRecord> records = Read();
    ASSERT_EQ(records.size(), 3);
    EXPECT_EQ(records[0].head.pid, 5);
    EXPECT_TRUE(records[0].hasStack);
    EXPECT_EQ(records[1].head.pid, 4);
    EXPECT_FALSE(records[1].hasStack);
    EXPECT_EQ(records[2].head.pid, 1);
}

// Another process of the user may do so, or the application itself.
TEST_F(BoxTest, SurvivesThatItsFileIsCutOff) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    WriteWhole(box, 1);
    std::filesystem::resize_file(file_, 0);
    WriteWhole(box, 2);
    ASSERT_EQ(Read().size(), 1) << "the next record makes it whole again";
    EXPECT_EQ(Read()[0].head.pid, 2);
    {
        const Entry entry(box);
        std::filesystem::resize_file(file_, 100);
        WriteHead(entry, 3);
    }
    WriteWhole(box, 4);
    EXPECT_EQ(Read().front().head.pid, 4);
}

// A daemon closes what it has inherited, and opens files of its own in its place.
TEST_F(BoxTest, WritesIntoNoOtherFileWhenTheProcessHasClosedIt) {
    const std::filesystem::path other = dir_.Path() / "other";
    std::ofstream(other) << "other";
    const auto closed = [&] {
        std::filesystem::path aside;
        const Box box(file_, aside);
        const int fd = open(other.c_str(), O_RDWR | O_CLOEXEC);
        for (int one = 3; one < 100; ++one) {
            dup2(fd, one);
        }
        _exit(Entry(box) ? 1 : 0);
    };
    const pid_t pid = fork();
    if (pid == 0) {
        closed();
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kit::TextOfFile(other), "other");
}

TEST_F(BoxTest, WaitsForNobodyForLong) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    const pid_t other = fork();
    if (other == 0) {
        const int fd = open(file_.c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        fcntl(fd, F_SETLK, &lock);
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    waitpid(other, &status, WUNTRACED);
    WriteWhole(box, 1);
    EXPECT_EQ(Read().size(), 1);
    kill(other, SIGKILL);
    waitpid(other, &status, 0);
}

TEST_F(BoxTest, HasRoomForSomeThatAreWrittenAtATime) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    {
        const Entry first(box), second(box), third(box), fourth(box);
        EXPECT_TRUE(fourth);
        EXPECT_FALSE(Entry(box));
    }
    EXPECT_TRUE(Entry(box));
}

TEST_F(BoxTest, IsOpenInSeveralProcessesAtATime) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    const pid_t other = fork();
    if (other == 0) {
        alarm(10);
        const Box same(file_, aside);
        WriteWhole(same, 2);
        _exit(0);
    }
    int status = 0;
    waitpid(other, &status, 0);
    EXPECT_EQ(status, 0) << "waits for the first to close it";
    WriteWhole(box, 1);
    EXPECT_EQ(Read().size(), 2);
}

TEST_F(BoxTest, KeepsTheNewestOfManyProcesses) {
    constexpr uint32_t kWriters = 8, kEach = 100;
    std::vector<pid_t> writers;
    for (uint32_t writer = 0; writer < kWriters; ++writer) {
        writers.push_back(fork());
        if (writers.back() == 0) {
            std::filesystem::path aside;
            const Box box(file_, aside);
            for (uint32_t i = 0; i < kEach; ++i) {
                WriteWhole(box, writer * kEach + i + 1);
            }
            _exit(0);
        }
    }
    for (const pid_t writer : writers) {
        int status = 0;
        waitpid(writer, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const Contents contents = List();
    EXPECT_EQ(contents.records.size() + contents.damaged, host::blackbox::kSlotNum);
    EXPECT_LE(contents.damaged, kWriters) << "writers that were overtaken by a whole round";
    std::set<uint64_t> sequences;
    for (const host::blackbox::RecordPlace &record : contents.records) {
        EXPECT_GT(record.sequence, kWriters * kEach - host::blackbox::kSlotNum);
        EXPECT_TRUE(sequences.insert(record.sequence).second);
    }
}

TEST_F(BoxTest, ConfinesWhatAWriterClaims) {
    InKilledProcess([](const Box &box) {
        const Entry entry(box);
        memset(&entry.Head(), 'x', sizeof entry.Head());
        entry.SealHead();
        memset(&entry.Stack(), 'x', sizeof entry.Stack());
        entry.SealStack();
    });
    const std::vector<FaultRecord> records = Read();
    ASSERT_EQ(records.size(), 1);
    const FaultRecord &record = records[0];
    EXPECT_EQ(record.head.registerNum, std::size(record.head.registers));
    EXPECT_EQ(record.stack.frameNum, host::blackbox::kFrameNum);
    EXPECT_EQ(strlen(record.head.registers[33].name), sizeof record.head.registers[33].name - 1);
    EXPECT_EQ(strlen(record.head.text), sizeof record.head.text - 1);
    EXPECT_EQ(strlen(record.stack.frames[31].function), sizeof record.stack.frames[31].function - 1);
}

// What a reader or a writer of another version understands.
TEST_F(BoxTest, HasOneForm) {
    EXPECT_EQ(host::blackbox::Crc(0, "123456789", 9), 0xCBF43926U) << "the check value of that CRC";
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    const std::string bytes = kit::TextOfFile(file_);
    ASSERT_EQ(bytes.size(), host::blackbox::kFileBytes);
    EXPECT_EQ(bytes.substr(0, 8), "tarnbb01");
    FaultSlot slot;
    memcpy(&slot, bytes.data() + sizeof(host::blackbox::FileHeader), sizeof slot);
    EXPECT_EQ(slot.sequence, 1);
    std::string checked(reinterpret_cast<const char *>(&slot.sequence), sizeof slot.sequence);
    checked.append(reinterpret_cast<const char *>(&slot.head), sizeof slot.head);
    EXPECT_EQ(slot.headCheck, host::blackbox::Crc(0, checked.data(), checked.size()));
    struct stat status {};
    ASSERT_EQ(stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600);
}

TEST_F(BoxTest, OfAnotherGeometryIsNone) {
    for (const size_t at :
         {offsetof(host::blackbox::FileHeader, slotNum), offsetof(host::blackbox::FileHeader, slotBytes)}) {
        std::filesystem::path aside;
        WriteWhole(Box(file_, aside), 1);
        Overwrite(at, uint32_t{32});
        EXPECT_EQ(List().filesLeftOut, 1) << at;
        WriteWhole(Box(file_, aside), 2);
        EXPECT_EQ(aside, file_.string() + ".damaged") << at;
        std::filesystem::remove(file_);
    }
}

TEST_F(BoxTest, WithASecondNameIsNotUsed) {
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    std::filesystem::create_hard_link(file_, dir_.Path() / "another name");
    WriteWhole(Box(file_, aside), 2);
    EXPECT_EQ(aside, file_.string() + ".damaged");
    EXPECT_EQ(Read().size(), 1);
}

// Another process sets it aside while this one waits to look at it.
TEST_F(BoxTest, IsTheFileThatHasTheNameInTheEnd) {
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    const host::Descriptor held(open(file_.c_str(), O_RDONLY | O_CLOEXEC), file_.string());
    ASSERT_EQ(flock(held.Fd(), LOCK_EX), 0);
    std::thread writer([&] {
        std::filesystem::path none;
        WriteWhole(Box(file_, none), 2);
    });
    const std::string waiting = fmt::format("-> FLOCK  ADVISORY  WRITE {} ", getpid());
    EXPECT_TRUE(kit::Eventually([&] { return kit::TextOfFile("/proc/locks").find(waiting) != std::string::npos; }));
    std::filesystem::rename(file_, dir_.Path() / "aside");
    ASSERT_EQ(flock(held.Fd(), LOCK_UN), 0);
    writer.join();
    const std::vector<FaultRecord> records = Read();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].head.pid, 2);
}

TEST_F(BoxTest, IsLockedByNobodyWhoIsDone) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    WriteWhole(box, 1);
    const pid_t other = fork(); // a process sees no locks of its own
    if (other == 0) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        const int fd = open(file_.c_str(), O_RDWR);
        _exit(fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_UNLCK ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
}

TEST_F(BoxTest, CountsOnAfterTheLastNumber) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    Overwrite(offsetof(host::blackbox::FileHeader, lastSequence), UINT64_MAX);
    WriteWhole(box, 1);
    ASSERT_EQ(List().records.size(), 1) << "there is no record 0";
    EXPECT_EQ(List().records[0].sequence, 1);
}

TEST_F(BoxTest, SaysWhatIsNoFile) {
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    EXPECT_EQ(List().reasons, std::vector<std::string>{file_.string() + " is no regular file"});
}

TEST_F(BoxTest, TellsTheNewestFirst) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    for (const uint32_t time : {5U, 9U, 7U}) {
        WriteWhole(box, time);
    }
    const std::vector<FaultRecord> records = Read();
    ASSERT_EQ(records.size(), 3);
    EXPECT_EQ(records[0].head.pid, 9);
    EXPECT_EQ(records[1].head.pid, 7);
    EXPECT_EQ(records[2].head.pid, 5);
}

TEST_F(BoxTest, TellsNoRecordInThePlaceOfAnother) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    WriteWhole(box, 1);
    const host::blackbox::RecordPlace place = List().records.at(0);
    ASSERT_TRUE(host::blackbox::Read(dir_.Path(), place).has_value());
    for (uint32_t i = 0; i != host::blackbox::kSlotNum; ++i) {
        WriteWhole(box, 2 + i);
    }
    EXPECT_FALSE(host::blackbox::Read(dir_.Path(), place).has_value());
}

TEST_F(BoxTest, ErasesWhatIsChosenAndWhatIsDamaged) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    WriteWhole(box, 1);
    WriteWhole(box, 2);
    Fill(Entry(box).Head(), 3); // and no more
    constexpr auto kSecond = [](const FaultHead &head) { return head.pid == 2; };
    EXPECT_EQ(host::blackbox::Erase(dir_.Path(), kSecond, false, kNoCheck).number, 1);
    EXPECT_EQ(List().damaged, 1);
    EXPECT_EQ(host::blackbox::Erase(dir_.Path(), kSecond, true, kNoCheck).number, 1) << "the damaged one";
    EXPECT_EQ(List().damaged, 0);
    ASSERT_EQ(Read().size(), 1);
    EXPECT_EQ(Read()[0].head.pid, 1);
    const auto none = host::blackbox::List(
        dir_.Path(), [](const auto &) { return true; }, kAll, kNoCheck);
    EXPECT_TRUE(none.records.empty()) << "erased elsewhere";
}

// Somebody has written there.
TEST_F(BoxTest, HasNothingInASlotWithoutARecord) {
    std::filesystem::path aside;
    const Box box(file_, aside);
    Overwrite(sizeof(host::blackbox::FileHeader) + offsetof(FaultSlot, erased), uint64_t{7});
    EXPECT_EQ(List().damaged, 0);
}

TEST_F(BoxTest, ErasesNothingThatMayNotBeWritten) {
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    ASSERT_EQ(chmod(file_.c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    const kit::Nobody nobody;
    const host::blackbox::Erased erased = host::blackbox::Erase(dir_.Path(), kAll, false, kNoCheck);
    EXPECT_EQ(erased.number, 0);
    ASSERT_EQ(erased.denied.size(), 1);
    EXPECT_EQ(erased.denied[0].sequence, 1);
    EXPECT_EQ(List().records.size(), 1);
}

// It may be written, and yet it can't.
TEST_F(BoxTest, SaysWhatCannotBeErased) {
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit none{0, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    const int error = kit::ErrorOf([&] { host::blackbox::Erase(dir_.Path(), kAll, false, kNoCheck); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(error, EFBIG);
}

// Files of such names that anyone may have made.
TEST_F(BoxTest, LooksAtNoFilesButThoseOfTheUsersInTheirNames) {
    for (uint32_t user = 70'000; user < 70'200; ++user) {
        std::ofstream(host::blackbox::FileOf(dir_.Path(), user)) << "of another user";
    }
    std::ofstream(dir_.Path() / "blackbox-0000000000") << "";
    std::ofstream(dir_.Path() / "blackbox-4294967296000") << "";
    std::ofstream(dir_.Path() / "blackbox-+1") << "";
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    int checks = 0;
    const Contents contents = host::blackbox::List(dir_.Path(), kNoneErased, kAll, [&] { ++checks; });
    EXPECT_EQ(contents.records.size(), 1);
    EXPECT_EQ(contents.filesLeftOut, 200);
    EXPECT_EQ(contents.reasons.size(), 8);
    EXPECT_GE(checks, 200);
    EXPECT_EQ(host::blackbox::Erase(dir_.Path(), kAll, false, kNoCheck).number, 1) << "they are in nobody's way";
}

TEST_F(BoxTest, LooksAtNoMoreThanAThousandFiles) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of others take root to make";
    }
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 1);
    const std::string oneSlot =
        kit::TextOfFile(file_).substr(0, sizeof(host::blackbox::FileHeader) + sizeof(FaultSlot));
    for (uint32_t user = 100'000; user < 101'100; ++user) {
        const std::filesystem::path file = host::blackbox::FileOf(dir_.Path(), user);
        std::ofstream(file) << oneSlot;
        ASSERT_EQ(chown(file.c_str(), user, user), 0);
    }
    const Contents contents = List();
    EXPECT_EQ(contents.records.size(), 1024);
    EXPECT_EQ(contents.filesLeftOut, 1101 - 1024);
    EXPECT_TRUE(std::ranges::any_of(contents.records, [](const auto &record) { return record.user == 0; }))
        << "the lowest users come first";
}

// Another user was there first.
TEST_F(BoxTest, IsNotTheFileOfAnotherUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of others take root to make";
    }
    {
        std::filesystem::path aside;
        WriteWhole(Box(file_, aside), 1);
    }
    ASSERT_EQ(chown(file_.c_str(), 65534, 65534), 0);
    std::filesystem::path aside;
    WriteWhole(Box(file_, aside), 2);
    EXPECT_EQ(aside, file_.string() + ".damaged");
    EXPECT_EQ(Read().size(), 1);
    std::filesystem::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0666), 0);
    WriteWhole(Box(file_, aside), 3);
    EXPECT_EQ(Read()[0].head.pid, 3);
}

// Not inlined, so that its name stands in the stack.
extern "C" [[gnu::noinline]] void FailACheckForTheTest() {
    TARN_AGENT_CHECK(1 + 1 == 3);
    asm volatile(""); // not a tail call
}

// The recording itself, in this process.
class RecordingTest : public testing::Test {
protected:
    static int64_t NowNs() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    }

    const kit::TempDir dir_;
};

#if defined(__x86_64__)
// Ends the process with a fault whose stack can't be read.
[[gnu::noinline]] void FaultWithoutAStack() {
    asm volatile("xor %%ebp, %%ebp\n\tmov $4096, %%esp\n\tmovl $0, 0" ::: "memory");
}

TEST_F(RecordingTest, SurvivesAStackThatCantBeRead) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, [](int) { _exit(7); });
        const agent::Faults faults("lost", dir_.Path());
        FaultWithoutAStack();
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << "the handler that was there before has its turn";
    const std::vector<FaultRecord> records = ReadAll(dir_.Path());
    ASSERT_EQ(records.size(), 1);
    ASSERT_TRUE(records[0].hasStack);
    EXPECT_EQ(records[0].stack.frameNum, 1);
    EXPECT_NE(std::string(records[0].stack.frames[0].function).find("FaultWithoutAStack"), std::string::npos);
}
#endif

TEST_F(RecordingTest, TellsWhoseFaultWhenAndWhere) {
    const uint32_t before = agent::FaultNum();
    const int64_t start = NowNs();
    {
        const agent::Faults faults("an agent whose name is too long for it", dir_.Path());
        FailACheckForTheTest();
    }
    FailACheckForTheTest(); // is not recorded
    EXPECT_EQ(agent::FaultNum(), before + 1);
    const std::vector<FaultRecord> records = ReadAll(dir_.Path());
    ASSERT_EQ(records.size(), 1);
    const FaultRecord &record = records[0];
    EXPECT_EQ(record.head.kind, FaultKind::kAssertion);
    EXPECT_EQ(record.head.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(record.head.tid, static_cast<uint32_t>(gettid()));
    EXPECT_STREQ(record.head.agent, "an agent whose name is too long");
    EXPECT_STREQ(record.head.process, "fault_test");
    EXPECT_EQ(record.head.signal, 0);
    EXPECT_GE(static_cast<int64_t>(record.head.timeNs), start);
    EXPECT_LE(static_cast<int64_t>(record.head.timeNs), NowNs());
    EXPECT_EQ(std::string(record.head.text).rfind("1 + 1 == 3 in FailACheckForTheTest, ", 0), 0) << record.head.text;
    EXPECT_TRUE(record.hasStack);
    ASSERT_GE(record.stack.frameNum, 2);
    const host::blackbox::StackFrame &caller = record.stack.frames[0];
    EXPECT_STREQ(caller.function, "FailACheckForTheTest");
    EXPECT_EQ(caller.address - caller.offset, reinterpret_cast<uintptr_t>(&FailACheckForTheTest));
    EXPECT_STREQ(caller.module, "fault_test");
}

TEST_F(RecordingTest, TellsASignalThatAProcessSentFromOneThatWasRaised) {
    const auto inChild = [&](auto die) {
        const pid_t child = fork();
        if (child == 0) {
            const agent::Faults faults("child", dir_.Path());
            die();
            pause();
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_NE(status, 0);
    };
    inChild([] { kill(getpid(), SIGBUS); });
    inChild([] {
        volatile uintptr_t nowhere = 0x123;
        *reinterpret_cast<volatile char *>(nowhere) = 1;
    });
    const std::vector<FaultRecord> records = ReadAll(dir_.Path());
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0].head.signal, SIGSEGV);
    EXPECT_EQ(records[0].head.code, SEGV_MAPERR);
    EXPECT_EQ(records[0].head.address, 0x123);
    EXPECT_EQ(records[1].head.signal, SIGBUS);
    EXPECT_EQ(records[1].head.code, SI_USER);
    EXPECT_EQ(records[1].head.address, 0) << "no memory access";
}

TEST_F(RecordingTest, LeavesTheSignalsToWhomTheyBelonged) {
    static volatile sig_atomic_t seen;
    seen = 0;
    struct sigaction own {
    }, before{}, after{};
    own.sa_handler = [](int) { seen = seen + 1; };
    sigaction(SIGFPE, &own, &before);
    {
        const agent::Faults faults("tester", dir_.Path());
        raise(SIGFPE);
        EXPECT_EQ(seen, 1) << "its handler has it afterwards";
    }
    sigaction(SIGFPE, &before, &after);
    EXPECT_EQ(after.sa_handler, own.sa_handler) << "is installed again";
    EXPECT_EQ(ReadAll(dir_.Path()).size(), 1);
}

} // namespace
