// What the kernel pipes a core to: what it is told and reads, which anyone's process may have made, the record, and
// what was configured before.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/procfs.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/uio.h>

#include <csignal>
#include <cstring>
#include <numeric>
#include <random>

#include "host/blackbox/box.h"
#include "host/blackbox/reader.h"
#include "host/core/core_head.h"
#include "host/core/crash.h"
#include "host/core/pass_on.h"
#include "host/core/pattern.h"
#include "host/core/record.h"
#include "host/core/registers.h"
#include "host/core/settings.h"
#include "host/osal/descriptor.h"
#include <fmt/format.h>

#include "tests/host/error_of.h"
#include "tests/host/kit.h"
#include "tests/host/nobody.h"

namespace {

using core::CoreHead;
using core::Crash;
using host::Descriptor;
using host::blackbox::FaultRecord;
using kit::ErrorOf;

using Told = std::map<char, std::string>;

// The words of a process 77 of user 1000, or of another where a test says so.
std::vector<std::string> WordsOf(const Told &told = {}) {
    Told words{{'P', "77"},   {'p', "7"},     {'I', "78"},   {'i', "8"},          {'s', "11"},
               {'u', "1000"}, {'g', "1000"},  {'d', "1"},    {'t', "1700000000"}, {'c', "-1"},
               {'h', "host"}, {'e', "burns"}, {'f', "burn"}, {'E', "!b!burn"}};
    words['c'] = std::to_string(UINT64_MAX);
    for (const auto &[specifier, text] : told) {
        words[specifier] = text;
    }
    std::vector<std::string> inOrder;
    for (const char specifier : std::string_view(core::kSpecifiers)) {
        inOrder.push_back(words.at(specifier));
    }
    return inOrder;
}

Crash CrashOf(std::vector<std::string> words) {
    std::vector<char *> pointers;
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    return Crash(pointers);
}

Crash CrashOf(const Told &told = {}) {
    return CrashOf(WordsOf(told));
}

TEST(CoreCrash, IsWhatTheKernelSays) {
    const Crash crash = CrashOf();
    EXPECT_EQ(crash.Pid(), 77);
    EXPECT_EQ(crash.OwnPid(), 7);
    EXPECT_EQ(crash.Tid(), 78);
    EXPECT_EQ(crash.OwnTid(), 8);
    EXPECT_EQ(crash.Signal(), 11);
    EXPECT_EQ(crash.User(), 1000);
    EXPECT_EQ(crash.Group(), 1000);
    EXPECT_EQ(crash.Limit(), UINT64_MAX);
    EXPECT_TRUE(crash.IsPlain());
    EXPECT_FALSE(CrashOf({{'d', "2"}}).IsPlain());
    EXPECT_EQ(crash.Text('e'), "burns");
    EXPECT_EQ(crash.Text('x'), "");
}

TEST(CoreCrash, OfOtherWordsIsNone) {
    for (const Told &told : {Told{{'P', ""}}, Told{{'P', "-1"}}, Told{{'P', "4294967296"}}, Told{{'u', "10 "}},
                             Told{{'s', "eleven"}}, Told{{'c', "99999999999999999999"}}, Told{{'i', "0x8"}}}) {
        EXPECT_EQ(ErrorOf([&] { CrashOf(told); }), EINVAL) << told.begin()->first;
    }
    std::vector<std::string> words = WordsOf();
    words.push_back("one more");
    EXPECT_EQ(ErrorOf([&] { CrashOf(words); }), EINVAL);
    words.resize(3);
    EXPECT_EQ(ErrorOf([&] { CrashOf(words); }), EINVAL);
    EXPECT_EQ(ErrorOf([] { CrashOf(std::vector<std::string>{}); }), EINVAL);
}

TEST(CorePattern, IsExpandedAsTheKernelDoes) {
    const Crash crash = CrashOf({{'e', "a b|c"}});
    const std::pair<std::string, std::string> kFiles[] = {
        {"core", "core"},
        {"/var/core.%p", "/var/core.7"},
        {"%e-%P-%s-%u", "a b|c-77-11-1000"},
        {"100%%", "100%"},
        {"end%", "end"},
        {"%x%e", "a b|c"},
        {"%%e", "%e"},
        {"", ""},
        {"%E", "!b!burn"},
    };
    for (const auto &[pattern, file] : kFiles) {
        const core::Destination destination = core::Expand(pattern, false, crash);
        EXPECT_EQ(destination.file, file) << pattern;
        EXPECT_TRUE(destination.program.empty()) << pattern;
    }
    EXPECT_EQ(core::Expand("core", true, crash).file, "core.7");
    EXPECT_EQ(core::Expand("core-%p", true, crash).file, "core-7");
    EXPECT_EQ(core::Expand("core%%p", true, crash).file, "core%p.7") << "no specifier";
    EXPECT_EQ(core::Expand("", true, crash).file, "");
}

// What a process calls itself adds no arguments.
TEST(CorePattern, OfAProgramIsSplitBeforeItIsExpanded) {
    const core::Destination to = core::Expand("|/bin/take  --pid=%P %e ", true, CrashOf({{'e', "a --all"}}));
    EXPECT_EQ(to.program, (std::vector<std::string>{"/bin/take", "--pid=77", "a --all"}));
    EXPECT_EQ(to.file, "");
    EXPECT_TRUE(core::Expand("|", false, CrashOf()).program.empty());
    EXPECT_TRUE(core::Expand("| ", false, CrashOf()).program.empty());
}

// A core file of one thread as the kernel begins it, with registers that count up.
class Core {
public:
    Core() {
        Add(NT_PRSTATUS, &StatusOf(), sizeof(prstatus_t));
        siginfo_t info{};
        info.si_signo = SIGSEGV;
        info.si_code = SEGV_MAPERR;
        info.si_addr = reinterpret_cast<void *>(uintptr_t{0x1234});
        Add(NT_PRPSINFO, "before", 7);
        Add(NT_SIGINFO, &info, sizeof info);
    }

    std::vector<uint8_t> Bytes() const {
        header.e_phnum = 2;
        std::vector<uint8_t> bytes;
        Append(bytes, &header, sizeof header);
        bytes.resize(header.e_phoff);
        Segment load{}, notes{};
        load.p_type = PT_LOAD;
        notes.p_type = PT_NOTE;
        notes.p_offset = header.e_phoff + 2 * sizeof(Segment) + 40;
        notes.p_filesz = notes_.size();
        Append(bytes, &load, sizeof load);
        Append(bytes, &notes, sizeof notes);
        bytes.resize(notes.p_offset);
        Append(bytes, notes_.data(), notes_.size());
        return bytes;
    }

private:
#if defined(__LP64__)
    using Header = Elf64_Ehdr;
    using Segment = Elf64_Phdr;
    using Note = Elf64_Nhdr;
    static constexpr uint8_t kClass = ELFCLASS64;
#else
    using Header = Elf32_Ehdr;
    using Segment = Elf32_Phdr;
    using Note = Elf32_Nhdr;
    static constexpr uint8_t kClass = ELFCLASS32;
#endif

    static Header HeaderOf() {
        Header made{};
        memcpy(made.e_ident, ELFMAG, SELFMAG);
        made.e_ident[EI_CLASS] = kClass;
        made.e_type = ET_CORE;
        made.e_phoff = sizeof(Header);
        made.e_phentsize = sizeof(Segment);
        return made;
    }
    static const prstatus_t &StatusOf() {
        static prstatus_t status{};
        uintptr_t value = 100;
        for (auto &one : status.pr_reg) {
            memcpy(&one, &++value, sizeof one);
        }
        return status;
    }
    static void Append(std::vector<uint8_t> &to, const void *bytes, size_t size) {
        const auto *const first = static_cast<const uint8_t *>(bytes);
        to.insert(to.end(), first, first + size);
    }
    void Add(uint32_t type, const void *content, size_t size) {
        Note note{};
        note.n_namesz = sizeof "CORE";
        note.n_descsz = static_cast<uint32_t>(size);
        note.n_type = type;
        Append(notes_, &note, sizeof note);
        Append(notes_, "CORE\0\0\0", 8);
        Append(notes_, content, size);
        notes_.resize((notes_.size() + 3) / 4 * 4);
    }

    mutable Header header = HeaderOf();
    std::vector<uint8_t> notes_;
};

CoreHead Parsed(std::vector<uint8_t> bytes) {
    CoreHead head;
    head.bytes = std::move(bytes);
    core::ParseHead(head);
    return head;
}

// A pipe whose other end writes these bytes and hangs up.
class Piped {
public:
    explicit Piped(std::vector<uint8_t> bytes) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        read_ = Descriptor(ends[0]);
        writer_ = std::thread([to = ends[1], bytes = std::move(bytes)] {
            for (size_t at = 0; at < bytes.size();) {
                const ssize_t written = write(to, bytes.data() + at, std::min<size_t>(bytes.size() - at, 777));
                if (written < 0) {
                    break; // nobody reads on
                }
                at += static_cast<size_t>(written);
            }
            close(to);
        });
    }
    ~Piped() {
        read_ = Descriptor();
        writer_.join();
    }
    int Fd() const { return read_.Fd(); }
    std::vector<uint8_t> Rest() const {
        std::vector<uint8_t> all;
        uint8_t part[4096];
        for (ssize_t got; (got = read(Fd(), part, sizeof part)) > 0;) {
            all.insert(all.end(), part, part + got);
        }
        return all;
    }

private:
    Descriptor read_;
    std::thread writer_;
};

class CoreTest : public testing::Test {
protected:
    // Whoever stops taking a core ends nobody.
    CoreTest() { signal(SIGPIPE, SIG_IGN); }
    ~CoreTest() override { signal(SIGPIPE, SIG_DFL); }

    const kit::TempDir dir_;
};

using CoreHeadTest = CoreTest;

TEST_F(CoreHeadTest, HasTheFirstThreadsRegistersAndTheSignal) {
    std::vector<uint8_t> bytes = Core().Bytes();
    const size_t size = bytes.size();
    bytes.resize(size + 100'000, 'm'); // memory
    const Piped pipe(bytes);
    const CoreHead head = core::ReadHead(pipe.Fd());
    ASSERT_TRUE(head.registers.has_value());
    uintptr_t first = 0;
    memcpy(&first, &*head.registers, sizeof first);
    EXPECT_EQ(first, 101);
    ASSERT_TRUE(head.cause.has_value());
    EXPECT_EQ(head.cause->code, SEGV_MAPERR);
    EXPECT_EQ(head.cause->address, 0x1234);
    EXPECT_LT(head.bytes.size(), size + 4096) << "no further than it has to";
    std::vector<uint8_t> whole = head.bytes;
    const std::vector<uint8_t> rest = pipe.Rest();
    whole.insert(whole.end(), rest.begin(), rest.end());
    EXPECT_EQ(whole, bytes) << "nothing is lost of it";
}

TEST_F(CoreHeadTest, ThatIsCutOffTellsWhatIsWhole) {
    const std::vector<uint8_t> bytes = Core().Bytes();
    for (size_t size = 0; size < bytes.size(); ++size) {
        const CoreHead head = Parsed({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)});
        EXPECT_FALSE(head.cause.has_value()) << "the last of its notes, with " << size << " bytes";
        if (size < sizeof(prstatus_t)) {
            EXPECT_FALSE(head.registers.has_value()) << size;
        }
    }
    const Piped pipe({bytes.begin(), bytes.end() - 1});
    EXPECT_TRUE(core::ReadHead(pipe.Fd()).registers.has_value());
}

TEST_F(CoreHeadTest, OfAnythingElseTellsNothing) {
    for (const std::string &text : {std::string(), std::string("not a core"), std::string(100'000, '\0')}) {
        const Piped pipe({text.begin(), text.end()});
        const CoreHead head = core::ReadHead(pipe.Fd());
        EXPECT_FALSE(head.registers.has_value());
        EXPECT_FALSE(head.cause.has_value());
    }
    std::vector<uint8_t> foreign = Core().Bytes();
    foreign[EI_CLASS] ^= ELFCLASS32 ^ ELFCLASS64;
    EXPECT_FALSE(Parsed(foreign).registers.has_value()) << "a program of another architecture";
}

// The length of a program header's table, where it begins, the notes' place and size: each may be anything.
TEST_F(CoreHeadTest, IsBoundedWhateverItSays) {
    std::vector<uint8_t> bytes = Core().Bytes();
    const size_t front = std::min<size_t>(bytes.size(), 512);
    for (size_t at = EI_NIDENT; at < front; ++at) {
        std::vector<uint8_t> broken = bytes;
        memset(broken.data() + at, 0xff, std::min<size_t>(8, front - at));
        broken.resize(broken.size() + 50'000);
        const Piped pipe(std::move(broken));
        EXPECT_LE(core::ReadHead(pipe.Fd()).bytes.size(), core::kMostHeadBytes);
    }
    std::mt19937 random(15);
    for (int round = 0; round < 20'000; ++round) {
        std::vector<uint8_t> broken = bytes;
        for (int i = 0; i < 4; ++i) {
            broken[random() % broken.size()] = static_cast<uint8_t>(random());
        }
        Parsed(std::move(broken)); // under a sanitizer it would end here
    }
}

// A process that waits to be looked at, in a function of a name that a stack shows.
extern "C" [[gnu::noinline]] void WaitForTheCoreTest() {
    for (;;) {
        pause();
        asm volatile(""); // not a tail call
    }
}

class Waiting {
public:
    explicit Waiting(const std::filesystem::path &directory) {
        pid_ = fork();
        if (pid_ == 0) {
            if (chdir(directory.c_str()) == 0) {
                WaitForTheCoreTest();
            }
            _exit(1);
        }
        EXPECT_TRUE(kit::Eventually(
            [&] { return kit::TextOfFile(fmt::format("/proc/{}/stat", pid_)).find(") S") != std::string::npos; }));
    }
    ~Waiting() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Waiting(const Waiting &) = delete;
    Waiting &operator=(const Waiting &) = delete;

    std::string Pid() const { return std::to_string(pid_); }
    Told Words() const {
        return {{'P', Pid()}, {'p', Pid()}, {'I', Pid()}, {'i', Pid()}, {'u', User()}, {'g', User()}};
    }
    static std::string User() { return std::to_string(geteuid()); }

    host::stacks::Registers Registers() const {
        host::stacks::Registers registers{};
        if (ptrace(PTRACE_ATTACH, pid_, nullptr, nullptr) != 0) {
            throw std::system_error(errno, std::generic_category(), "ptrace");
        }
        EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
        iovec to{&registers, sizeof registers};
        EXPECT_EQ(ptrace(PTRACE_GETREGSET, pid_, reinterpret_cast<void *>(uintptr_t{NT_PRSTATUS}), &to), 0);
        EXPECT_EQ(ptrace(PTRACE_DETACH, pid_, nullptr, nullptr), 0);
        return registers;
    }

private:
    pid_t pid_;
};

std::vector<FaultRecord> RecordsIn(const std::filesystem::path &directory) {
    std::vector<FaultRecord> records;
    const auto found = host::blackbox::List(
        directory, [](const auto &) { return false; }, [](const auto &) { return true; }, [] {});
    for (const auto &place : found.records) {
        records.push_back(host::blackbox::Read(directory, place).value());
    }
    return records;
}

class CoreRecordTest : public CoreTest {
protected:
    std::vector<FaultRecord> Records() const { return RecordsIn(dir_.Path()); }
    CoreHead Head() const {
        CoreHead head;
        head.registers = waiting_.Registers();
        head.cause = {SEGV_MAPERR, 0x1234};
        return head;
    }

    const Waiting waiting_{dir_.Path()};
    host::stacks::Helpers helpers_{TARN_UNWIND};
};

TEST_F(CoreRecordTest, IsWhatAnAgentWouldHaveWritten) {
    const CoreHead head = Head();
    core::Record(CrashOf(waiting_.Words()), head, dir_.Path(), helpers_);
    const std::vector<FaultRecord> records = Records();
    ASSERT_EQ(records.size(), 1);
    const auto &[hasStack, fault, stack] = records[0];
    EXPECT_EQ(fault.kind, host::blackbox::FaultKind::kException);
    EXPECT_EQ(std::to_string(fault.pid), waiting_.Pid());
    EXPECT_EQ(std::to_string(fault.tid), waiting_.Pid());
    EXPECT_EQ(fault.signal, SIGSEGV);
    EXPECT_EQ(fault.code, SEGV_MAPERR);
    EXPECT_EQ(fault.address, 0x1234);
    EXPECT_STREQ(fault.process, "core_test");
    EXPECT_NE(std::string(fault.text).find("core_test"), std::string::npos) << fault.text;
    ASSERT_EQ(fault.registerNum, std::size(core::kRegisters));
    for (size_t i = 0; i < fault.registerNum; ++i) {
        EXPECT_STREQ(fault.registers[i].name, core::kRegisters[i].name);
        EXPECT_EQ(fault.registers[i].value, core::kRegisters[i].In(*head.registers));
    }
    ASSERT_TRUE(hasStack);
    const auto *const end = stack.frames + stack.frameNum;
    const auto *const frame = std::find_if(
        stack.frames, end, [](const auto &one) { return strcmp(one.function, "WaitForTheCoreTest") == 0; });
    ASSERT_NE(frame, end) << "among " << stack.frameNum << " frames";
    EXPECT_STREQ(frame->module, "core_test");
    EXPECT_NE(frame->moduleOffset, 0);
}

// The kernel may not say, for a program of another architecture.
TEST_F(CoreRecordTest, WithoutRegistersHasNoStack) {
    core::Record(CrashOf(waiting_.Words()), CoreHead(), dir_.Path(), helpers_);
    const std::vector<FaultRecord> records = Records();
    ASSERT_EQ(records.size(), 1);
    EXPECT_FALSE(records[0].hasStack);
    EXPECT_EQ(records[0].head.registerNum, 0);
}

TEST_F(CoreRecordTest, IsNotWrittenWhereAnAgentDid) {
    core::Record(CrashOf(waiting_.Words()), CoreHead(), dir_.Path(), helpers_);
    core::Record(CrashOf(waiting_.Words()), CoreHead(), dir_.Path(), helpers_);
    EXPECT_EQ(Records().size(), 1) << "the process's own numbers, its signal, a moment ago";
    Told other = waiting_.Words();
    other['s'] = std::to_string(SIGABRT);
    core::Record(CrashOf(other), CoreHead(), dir_.Path(), helpers_);
    EXPECT_EQ(Records().size(), 2);
}

TEST_F(CoreRecordTest, IsTheUsersOwn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of others take root to make";
    }
    Told told = waiting_.Words();
    told['u'] = told['g'] = std::to_string(kit::Nobody::kId);
    chmod(dir_.Path().c_str(), 0755);
    core::Record(CrashOf(told), CoreHead(), dir_.Path(), helpers_);
    struct stat status {};
    ASSERT_EQ(stat(host::blackbox::FileOf(dir_.Path(), kit::Nobody::kId).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kit::Nobody::kId);
    EXPECT_EQ(status.st_mode & 0777U, 0600);
    told['d'] = "2";
    core::Record(CrashOf(told), CoreHead(), dir_.Path(), helpers_);
    EXPECT_EQ(Records().size(), 1) << "the same crash";
    told['s'] = std::to_string(SIGABRT);
    core::Record(CrashOf(told), CoreHead(), dir_.Path(), helpers_);
    ASSERT_EQ(stat(host::blackbox::FileOf(dir_.Path(), 0).c_str(), &status), 0)
        << "what a program did with rights that its user lacks";
    EXPECT_EQ(status.st_uid, 0);
}

class PassOnTest : public CoreTest {
protected:
    PassOnTest() {
        head_.bytes.resize(1000);
        std::iota(head_.bytes.begin(), head_.bytes.end(), uint8_t{0});
        rest_.resize(3'000'000);
        std::iota(rest_.begin(), rest_.end(), uint8_t{9});
    }

    std::string Core() const { return {head_.bytes.begin(), head_.bytes.end()}; }
    std::string Whole() const { return Core() + std::string(rest_.begin(), rest_.end()); }
    void PassOn(const core::Destination &to, Told told = {}) const {
        told.merge(waiting_.Words());
        const Piped pipe(rest_);
        core::PassOn(to, CrashOf(told), head_, pipe.Fd());
    }
    std::string Made(const std::string &name) const { return kit::TextOfFile(dir_.Path() / name); }

    CoreHead head_;
    std::vector<uint8_t> rest_;
    const Waiting waiting_{dir_.Path()};
};

TEST_F(PassOnTest, WritesAFileWhereTheProcessWorks) {
    PassOn({.file = "core"});
    EXPECT_EQ(Made("core"), Whole());
    struct stat status {};
    ASSERT_EQ(stat((dir_.Path() / "core").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600);
}

TEST_F(PassOnTest, WritesAFileByItsPath) {
    std::filesystem::create_directory(dir_.Path() / "cores");
    PassOn({.file = dir_.Path() / "cores" / "core.7"});
    EXPECT_EQ(Made("cores/core.7"), Whole());
    EXPECT_EQ(ErrorOf([&] { PassOn({.file = dir_.Path() / "none" / "core"}); }), ENOENT);
}

TEST_F(PassOnTest, ObeysTheLimitOfTheProcess) {
    PassOn({.file = "some"}, {{'c', "1500"}});
    EXPECT_EQ(Made("some"), Whole().substr(0, 1500));
    PassOn({.file = "few"}, {{'c', "10"}});
    EXPECT_EQ(Made("few"), Whole().substr(0, 10));
    PassOn({.file = "none"}, {{'c', "0"}});
    PassOn({.file = "with-rights"}, {{'d', "2"}});
    PassOn({.file = ""});
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "none"));
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "with-rights"));
}

// Whoever crashes a process may have put a link there.
TEST_F(PassOnTest, WritesNowhereElse) {
    std::ofstream(dir_.Path() / "precious") << "precious";
    std::filesystem::create_symlink(dir_.Path() / "precious", dir_.Path() / "core");
    std::filesystem::create_hard_link(dir_.Path() / "precious", dir_.Path() / "core.2");
    PassOn({.file = "core"});
    PassOn({.file = "core.2"});
    EXPECT_EQ(Made("precious"), "precious");
    EXPECT_EQ(Made("core"), Whole());
    EXPECT_EQ(Made("core.2"), Whole());
    std::filesystem::create_directory_symlink("/", dir_.Path() / "out");
    EXPECT_EQ(ErrorOf([&] { PassOn({.file = "out/tmp/core"}); }), EXDEV);
    EXPECT_EQ(ErrorOf([&] { PassOn({.file = "../core"}); }), EXDEV);
}

TEST_F(PassOnTest, WritesByTheRightsOfTheUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "the rights of others take root";
    }
    const std::string nobody = std::to_string(kit::Nobody::kId);
    const Told told{{'u', nobody}, {'g', nobody}};
    chmod(dir_.Path().c_str(), 0755);
    EXPECT_EQ(ErrorOf([&] { PassOn({.file = "core"}, told); }), EACCES);
    chmod(dir_.Path().c_str(), 0777);
    PassOn({.file = "core"}, told);
    struct stat status {};
    ASSERT_EQ(stat((dir_.Path() / "core").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kit::Nobody::kId);
    EXPECT_EQ(Made("core"), Whole());
}

TEST_F(PassOnTest, GivesItToAProgramWhole) {
    const std::string file = dir_.Path() / "taken";
    PassOn({.program = {"/bin/dd", "status=none", "of=" + file}}, {{'c', "0"}, {'d', "2"}});
    EXPECT_EQ(Made("taken"), Whole()) << "whose end was awaited";
}

TEST_F(PassOnTest, SaysThatThereIsNoSuchProgram) {
    EXPECT_EQ(ErrorOf([&] { PassOn({.program = {"/no/such/program"}}); }), ENOENT);
}

TEST_F(PassOnTest, GivesNoMoreThanAProgramTakes) {
    PassOn({.program = {"/bin/true"}});
    PassOn({.program = {"/bin/false"}});
}

class CoreSettingsTest : public CoreTest {
protected:
    CoreSettingsTest() {
        for (const char *const place : {"proc/sys/kernel", "etc/sysctl.d"}) {
            std::filesystem::create_directories(dir_.Path() / place);
        }
        Set("core_pattern", "/var/cores/%e.%p");
        Set("core_pipe_limit", "0");
        Set("core_uses_pid", "1");
    }

    std::filesystem::path Kernel(const char *name) const { return dir_.Path() / "proc/sys/kernel" / name; }
    void Set(const char *name, const std::string &value) const { std::ofstream(Kernel(name)) << value << "\n"; }
    std::string Is(const char *name) const { return kit::TextOfFile(Kernel(name)); }
    std::string AtStart() const { return kit::TextOfFile(dir_.Path() / "etc/sysctl.d/60-tarn-core.conf"); }

    const core::Settings settings_{{.kernel = dir_.Path() / "proc/sys/kernel",
                                    .state = dir_.Path() / "var/lib/tarn-core",
                                    .start = dir_.Path() / "etc/sysctl.d/60-tarn-core.conf"}};
};

constexpr char kOurs[] = "|/usr/bin/tarn-core record %P %p %I %i %s %u %g %d %t %c %h %e %f %E";

TEST_F(CoreSettingsTest, AreTheProgramsUntilItIsRemoved) {
    EXPECT_FALSE(settings_.Before().has_value());
    EXPECT_TRUE(settings_.Install("/usr/bin/tarn-core"));
    EXPECT_EQ(Is("core_pattern"), std::string(kOurs) + "\n");
    EXPECT_EQ(Is("core_pipe_limit"), "16\n");
    EXPECT_EQ(AtStart(), "# Made by tarn-core --install; tarn-core --remove takes it back.\nkernel.core_pattern=" +
                             std::string(kOurs) + "\nkernel.core_pipe_limit=16\n");
    EXPECT_EQ(settings_.Before().value().pattern, "/var/cores/%e.%p");
    EXPECT_EQ(settings_.Before().value().pipeLimit, 0);
    EXPECT_TRUE(settings_.UsesPid());
    EXPECT_FALSE(settings_.Install("/usr/bin/tarn-core")) << "again";

    EXPECT_TRUE(settings_.Remove());
    EXPECT_EQ(Is("core_pattern"), "/var/cores/%e.%p\n");
    EXPECT_EQ(Is("core_pipe_limit"), "0\n");
    EXPECT_EQ(AtStart(), "");
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "var/lib/tarn-core"));
    EXPECT_FALSE(settings_.Remove()) << "again";
}

// Another place of the program is no other program: it is not to pass cores on to itself.
TEST_F(CoreSettingsTest, OfAnotherPlaceKeepWhatWasBeforeBoth) {
    settings_.Install("/usr/local/bin/tarn-core");
    EXPECT_TRUE(settings_.Install("/usr/bin/tarn-core"));
    EXPECT_EQ(settings_.Before().value().pattern, "/var/cores/%e.%p");
    EXPECT_EQ(Is("core_pattern"), std::string(kOurs) + "\n");
}

TEST_F(CoreSettingsTest, OfOthersStay) {
    settings_.Install("/usr/bin/tarn-core");
    Set("core_pattern", "|/usr/lib/another %P");
    EXPECT_TRUE(settings_.Remove());
    EXPECT_EQ(Is("core_pattern"), "|/usr/lib/another %P\n");
    EXPECT_EQ(AtStart(), "");
    settings_.Install("/usr/bin/tarn-core");
    EXPECT_EQ(settings_.Before().value().pattern, "|/usr/lib/another %P");
}

TEST_F(CoreSettingsTest, AHigherLimitStays) {
    Set("core_pipe_limit", "64");
    settings_.Install("/usr/bin/tarn-core");
    EXPECT_EQ(Is("core_pipe_limit"), "64\n");
}

TEST_F(CoreSettingsTest, ThatCannotBeKeptChangeNothing) {
    EXPECT_EQ(ErrorOf([&] { settings_.Install("/" + std::string(100, 'a') + "/tarn-core"); }), ENAMETOOLONG);
    EXPECT_EQ(ErrorOf([&] { settings_.Install("/with blank/tarn-core"); }), ENAMETOOLONG);
    std::ofstream(dir_.Path() / "var") << "no directory";
    EXPECT_EQ(ErrorOf([&] { settings_.Install("/usr/bin/tarn-core"); }), ENOTDIR);
    EXPECT_EQ(Is("core_pattern"), "/var/cores/%e.%p\n");
}

TEST_F(CoreSettingsTest, ThatAreDamagedAreNamed) {
    settings_.Install("/usr/bin/tarn-core");
    std::ofstream(dir_.Path() / "var/lib/tarn-core/before.conf") << "core\n";
    EXPECT_EQ(ErrorOf([&] { settings_.Before(); }), EPROTO);
    std::ofstream(dir_.Path() / "var/lib/tarn-core/before.conf")
        << "kernel.core_pattern=core\nkernel.core_pipe_limit=many\n";
    EXPECT_EQ(ErrorOf([&] { settings_.Before(); }), EINVAL);
}

// The program, on the settings of another machine.
class CoreProgramTest : public CoreSettingsTest {
protected:
    CoreProgramTest() { setenv("TARN_CORE_ROOT", dir_.Path().c_str(), 1); }
    ~CoreProgramTest() override { unsetenv("TARN_CORE_ROOT"); }

    struct Ended {
        int code;
        std::string out, err;
    };
    Ended Run(std::vector<std::string> words) const {
        words.insert(words.begin(), TARN_CORE);
        return RunProgram(std::move(words));
    }
    Ended RunProgram(std::vector<std::string> words) const {
        kit::Process process(dir_.Path(), std::move(words));
        const int code = process.Wait();
        return {code, process.Out(), process.Err()};
    }
};

TEST_F(CoreProgramTest, IsInstalledByChoice) {
    EXPECT_EQ(Run({}).out, "kernel.core_pattern is /var/cores/%e.%p\nkernel.core_pipe_limit is 0\n");
    const std::string ours = fmt::format("|{} record", TARN_CORE);
    if (ours.size() > 80) {
        EXPECT_EQ(Run({"--install"}).code, 1) << "the kernel takes no path as long as this tree's";
        return;
    }
    const Ended installed = Run({"--install"});
    EXPECT_EQ(installed.code, 0) << installed.err;
    EXPECT_TRUE(installed.out.starts_with("kernel.core_pattern is " + ours)) << installed.out;
    EXPECT_TRUE(installed.out.ends_with("cores are passed on to /var/cores/%e.%p\n")) << installed.out;
    EXPECT_TRUE(Run({"--install"}).out.starts_with("was installed already\n"));
    EXPECT_EQ(Run({"--remove"}).out, "kernel.core_pattern is /var/cores/%e.%p\nkernel.core_pipe_limit is 0\n");
    EXPECT_TRUE(Run({"--remove"}).out.starts_with("was not installed\n"));
}

TEST_F(CoreProgramTest, SaysWhatWasExpected) {
    EXPECT_EQ(Run({"--install", "--remove"}).err, "tarn-core: --install and --remove: expected one of them\n");
    EXPECT_EQ(Run({"--install", "--remove"}).code, 2);
    EXPECT_EQ(Run({"--nonsense"}).code, 2);
    std::filesystem::remove(Kernel("core_pattern"));
    const Ended ended = Run({});
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(ended.err.starts_with("tarn-core: " + Kernel("core_pattern").string())) << ended.err;
}

// As the kernel starts it, with a core that has registers which are nobody's.
TEST_F(CoreProgramTest, RecordsAndPassesOn) {
    const Waiting waiting(dir_.Path());
    const std::vector<uint8_t> bytes = Core().Bytes();
    std::ofstream(dir_.Path() / "piped", std::ios::binary) << std::string(bytes.begin(), bytes.end());
    std::filesystem::create_directories(dir_.Path() / "var/lib/tarn-core");
    std::ofstream(dir_.Path() / "var/lib/tarn-core/before.conf")
        << "kernel.core_pattern=core-%s\nkernel.core_pipe_limit=0\n";
    std::string line = fmt::format("cd {0}; exec env TARN_FAULT_DIR={0} {1} record", dir_.Path().string(), TARN_CORE);
    for (const std::string &word : WordsOf(waiting.Words())) {
        line += " '" + word + "'";
    }
    const Ended ended = RunProgram({"/bin/sh", "-c", line + " < piped"});
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(kit::TextOfFile(dir_.Path() / fmt::format("core-11.{}", waiting.Pid())),
              std::string(bytes.begin(), bytes.end()));
    const std::vector<FaultRecord> records = RecordsIn(dir_.Path());
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].head.registerNum, std::size(core::kRegisters));
}

TEST_F(CoreProgramTest, LogsWhatItCannotTakeCareOf) {
    const Ended ended = Run({"record", "77"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_NE(ended.err.find("1 words of the kernel's, expected 14"), std::string::npos) << ended.err;
}

} // namespace
