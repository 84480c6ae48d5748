// What the daemon says of memory, against other sources: what a subject has taken, and a second reading of /proc.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <map>

#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;
using kit::EndedPid;

class Subject : public kit::Process {
public:
    Subject(const kit::TempDir &dir, std::vector<std::string> memory) : kit::Process(dir.Path(), Command(memory)) {
        EXPECT_TRUE(kit::Eventually([this] { return Out().ends_with("ready\n"); })) << Err();
        std::istringstream out(Out());
        for (std::string line; std::getline(out, line) && line != "ready";) {
            const size_t blank = line.rfind(' ');
            at_[line.substr(0, blank)] = std::stoull(line.substr(blank + 1), nullptr, 0);
        }
        EXPECT_TRUE(kit::Eventually([this] { // it has said so a moment before it rests
            return kit::TextOfFile("/proc/" + std::to_string(Pid()) + "/stat").find(") S ") != std::string::npos;
        }));
    }
    ~Subject() { Stop(); } // it removes what it has named

    uint64_t At(const std::string &argument) const { return at_.at(argument); }

private:
    static std::vector<std::string> Command(const std::vector<std::string> &memory) {
        std::vector<std::string> command{MEMORY_SUBJECT};
        command.insert(command.end(), memory.begin(), memory.end());
        return command;
    }
    std::map<std::string, uint64_t> at_;
};

// The number behind a key in a file of /proc, and 0 when there is none.
uint64_t InFile(const std::string &path, const std::string &key) {
    std::istringstream lines(kit::TextOfFile(path));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key + ":")) {
            return std::stoull(line.substr(key.size() + 1));
        }
    }
    return 0;
}

std::string ProcFile(uint32_t pid, const std::string &name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// A kernel thread, where the test may see one.
uint32_t KernelThread() {
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        if (isdigit(entry.path().filename().string()[0]) != 0 && InFile(entry.path() / "status", "Tgid") != 0 &&
            InFile(entry.path() / "status", "VmSize") == 0 && InFile(entry.path() / "status", "PPid") == 2) {
            return static_cast<uint32_t>(std::stoul(entry.path().filename()));
        }
    }
    return 0;
}

class MemoryTest : public kit::DaemonTest<Unit> {};

class ProcessMemoryTest : public MemoryTest {
protected:
    kit::Answer<Unit, Tarn_sys_diag_SysMemStatisProResult> Statistics(const std::string &which,
                                                                      const std::string &user = "") {
        Tarn_sys_diag_PositionStr request{};
        kit::Set(request.acPosition1, which);
        kit::Set(request.acPosition2, user);
        return Call<Tarn_sys_diag_SysMemStatisProResult>("GetSysMemStatisPro", request);
    }

    kit::Answer<Unit, Tarn_sys_diag_SysOsMemInfoResult> Details(uint32_t pid) {
        return Call<Tarn_sys_diag_SysOsMemInfoResult>("GetOsProcessMemInfo", Tarn_sys_diag_SysOsMemInfoInput{pid});
    }

    kit::Answer<Unit, Tarn_sys_diag_SysProOsResult> Mappings(uint32_t pid) {
        return Call<Tarn_sys_diag_SysProOsResult>("GetOsProcessMapsInfo", Tarn_sys_diag_SysProOsInput{pid});
    }
};

// The members that both kinds of record take from the status file, by its keys.
template <class Record>
std::map<std::string, uint64_t> StatusOf(const Record &record) {
    return {{"Pid", record.uiPid},         {"PPid", record.uiPpid},         {"Threads", record.uiThreadNum},
            {"VmPeak", record.uiVmPeak},   {"VmSize", record.uiVmSize},     {"VmLck", record.uiVmLck},
            {"VmHWM", record.uiVmHwm},     {"VmRSS", record.uiVmRss},       {"RssAnon", record.uiRssAnon},
            {"RssFile", record.uiRssFile}, {"RssShmem", record.uiRssShmem}, {"VmData", record.uiVmData},
            {"VmStk", record.uiVmStk},     {"VmExe", record.uiVmExe},       {"VmLib", record.uiVmLib},
            {"VmPTE", record.uiVmPte},     {"VmSwap", record.uiVmSwap},     {"HugetlbPages", record.uiHugetlb}};
}

template <class Record>
void ExpectStatus(const Record &record, uint32_t pid) {
    for (const auto &[key, value] : StatusOf(record)) {
        EXPECT_EQ(value, InFile(ProcFile(pid, "status"), key)) << key;
    }
}

std::string UserName() {
    const passwd *const user = getpwuid(geteuid());
    return user != nullptr ? user->pw_name : std::to_string(geteuid());
}

TEST_F(ProcessMemoryTest, SumsUpAProcess) {
    const time_t before = time(nullptr);
    const Subject subject(dir_, {"anon:8192", "name:counted"});
    const auto answer = Statistics(std::to_string(subject.Pid()));
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    ASSERT_EQ(answer->uiRecordNum, 1);
    const Tarn_sys_diag_SysMemStatisPro &record = answer->pstRecord[0];
    ExpectStatus(record, subject.Pid());
    EXPECT_GE(record.uiRssAnon, 8192);
    EXPECT_EQ(std::string(record.szProcName), "counted");
    EXPECT_EQ(std::string(record.szExeName), std::filesystem::path(MEMORY_SUBJECT).filename());
    EXPECT_EQ(std::string(record.szUserName), UserName());
    tm start{};
    start.tm_year = record.stStartTime.usYear - 1900;
    start.tm_mon = record.stStartTime.ucMonth - 1;
    start.tm_mday = record.stStartTime.ucDay;
    start.tm_hour = record.stStartTime.ucHour;
    start.tm_min = record.stStartTime.ucMinute;
    start.tm_sec = record.stStartTime.ucSecond;
    start.tm_isdst = -1;
    EXPECT_NEAR(static_cast<double>(mktime(&start)), static_cast<double>(before), 5);
    EXPECT_GT(answer->uiMemTotal, 0);
}

TEST_F(ProcessMemoryTest, SelectsProcesses) {
    const Subject small(dir_, {"anon:1024", "name:sel-small"});
    const Subject large(dir_, {"anon:16384", "name:sel-large"});
    const auto both = Statistics("sel-*");
    ASSERT_EQ(both.Status(), 0);
    ASSERT_EQ(both->uiRecordNum, 2);
    EXPECT_EQ(both->pstRecord[0].uiPid, large.Pid()) << "the larger first";
    EXPECT_EQ(both->pstRecord[1].uiPid, small.Pid());
    EXPECT_EQ(Statistics("sel-*", UserName())->uiRecordNum, 2);
    EXPECT_EQ(Statistics("sel-*", std::to_string(geteuid()))->uiRecordNum, 2);
    EXPECT_EQ(Statistics("sel-*", "no-such-user")->uiRecordNum, 0);
    EXPECT_EQ(Statistics("no-such-process")->uiRecordNum, 0);
    const auto all = Statistics("");
    ASSERT_EQ(all.Status(), 0);
    EXPECT_GE(all->uiRecordNum, 4) << "the subjects, the daemon and the test";
    EXPECT_EQ(Statistics(std::to_string(EndedPid())).Status(), ESRCH);
    EXPECT_EQ(Statistics("4294967295").Status(), ESRCH);
    EXPECT_EQ(Statistics("4294967296").Status(), 0) << "a name";
    EXPECT_EQ(Statistics(std::string(50, 'x'), std::string(50, 'y'))->uiRecordNum, 0) << "texts that fill their arrays";
}

TEST_F(ProcessMemoryTest, GoesIntoDetail) {
    const Subject subject(dir_, {"anon:8192", "file:" + (dir_.Path() / "mapped").string() + ":2048"});
    const auto answer = Details(subject.Pid());
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    ASSERT_EQ(answer->uiProcNum, 1);
    const Tarn_sys_diag_SysOsMemInfo &record = answer->pstProc[0];
    ExpectStatus(record, subject.Pid());
    const std::string rollup = ProcFile(subject.Pid(), "smaps_rollup");
    EXPECT_NEAR(record.uiPss, static_cast<double>(InFile(rollup, "Pss")), 256) << "others start and end that share it";
    EXPECT_EQ(record.uiPrivateClean + record.uiPrivateDirty + record.uiSharedClean + record.uiSharedDirty,
              InFile(rollup, "Rss"));
    EXPECT_GE(record.uiPrivateDirty, 8192 + 2048);
    EXPECT_EQ(std::string(record.szState), "S (sleeping)");
    EXPECT_EQ(std::string(record.szGroupName).empty(), false);
    EXPECT_EQ(std::string(record.szWaitChannel), kit::TextOfFile(ProcFile(subject.Pid(), "wchan")));
    EXPECT_GE(record.ullMinorFaults, 8192 * 1024 / static_cast<uint64_t>(getpagesize()) / 512)
        << "at worst, huge pages";
    EXPECT_EQ(std::to_string(record.uiOomScore) + "\n", kit::TextOfFile(ProcFile(subject.Pid(), "oom_score")));

    EXPECT_EQ(Details(EndedPid()).Status(), ESRCH);
    EXPECT_EQ(Details(UINT32_MAX).Status(), ESRCH);
    const auto all = Details(0);
    ASSERT_EQ(all.Status(), 0);
    EXPECT_TRUE(std::any_of(all->pstProc, all->pstProc + all->uiProcNum,
                            [&](const auto &one) { return one.uiPid == subject.Pid(); }));
}

TEST_F(ProcessMemoryTest, TellsWhatKernelThreadsAndZombiesHaveNot) {
    const uint32_t thread = KernelThread();
    if (thread != 0) {
        const auto detail = Details(thread);
        ASSERT_EQ(detail.Status(), 0) << detail.Text();
        EXPECT_EQ(detail->pstProc[0].uiVmSize, 0);
        EXPECT_EQ(detail->pstProc[0].uiPpid, 2);
        const auto mappings = Mappings(thread);
        EXPECT_EQ(mappings.Status(), 0) << mappings.Text();
        EXPECT_EQ(mappings->uiMapNum, 0);
        EXPECT_EQ(Statistics(std::to_string(thread))->uiRecordNum, 1);
    }
    const pid_t zombie = fork();
    if (zombie == 0) {
        _exit(0);
    }
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
    const auto detail = Details(static_cast<uint32_t>(zombie));
    ASSERT_EQ(detail.Status(), 0) << detail.Text();
    EXPECT_EQ(std::string(detail->pstProc[0].szState), "Z (zombie)");
    EXPECT_EQ(Mappings(static_cast<uint32_t>(zombie))->uiMapNum, 0);
    waitpid(zombie, nullptr, 0);
}

TEST_F(ProcessMemoryTest, ListsMappings) {
    const std::string file = dir_.Path() / "a mapped file";
    const Subject subject(dir_, {"anon:4096", "file:" + file + ":1024"});
    const auto answer = Mappings(subject.Pid());
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    const std::string maps = kit::TextOfFile(ProcFile(subject.Pid(), "maps"));
    ASSERT_EQ(answer->uiMapNum, std::count(maps.begin(), maps.end(), '\n'));
    std::istringstream lines(maps);
    bool fileSeen = false;
    for (uint32_t i = 0; i < answer->uiMapNum; ++i) {
        const Tarn_sys_diag_SysProOs &map = answer->pstMap[i];
        std::string range, perms, offset, device, inode, name;
        lines >> range >> perms >> offset >> device >> inode;
        std::getline(lines, name);
        name.erase(0, name.find_first_not_of(' '));
        EXPECT_EQ(map.uiPid, subject.Pid());
        if (range.size() < sizeof map.szAddrRange) {
            EXPECT_EQ(std::string(map.szAddrRange), range);
        } else {
            EXPECT_EQ(std::string(map.szAddrRange).find(range.substr(0, 16) + "+"), 0) << "start and size";
        }
        EXPECT_EQ(std::string(map.szPerms), perms);
        EXPECT_EQ(std::string(map.szDevInode), device + " " + inode);
        EXPECT_EQ(std::string(map.szMapName),
                  name.substr(name.starts_with('/') ? name.rfind('/') + 1 : 0).substr(0, 31));
        const uint64_t start = std::stoull(range, nullptr, 16);
        const uint64_t end = std::stoull(range.substr(range.find('-') + 1), nullptr, 16);
        EXPECT_EQ(map.uiSize, (end - start) / 1024);
        if (name == file) {
            fileSeen = true;
            EXPECT_EQ(start, subject.At("file:" + file + ":1024"));
            EXPECT_EQ(map.uiRss, 1024);
            EXPECT_EQ(map.uiPss, 1024);
        }
        const uint64_t anonymous = subject.At("anon:4096");
        if (start <= anonymous && anonymous < end) {
            EXPECT_GE(map.uiPrivateDirty, 4096);
        }
    }
    EXPECT_TRUE(fileSeen);
    EXPECT_EQ(Mappings(EndedPid()).Status(), ESRCH);
    EXPECT_EQ(Mappings(0).Status(), ESRCH);
}

TEST_F(ProcessMemoryTest, ListsAsManyMappingsAsTheClientTakes) {
    const Subject subject(dir_, {"pieces:2000"});
    const std::string maps = kit::TextOfFile(ProcFile(subject.Pid(), "maps"));
    ASSERT_GE(std::count(maps.begin(), maps.end(), '\n'), 2000);
    const auto answer = Mappings(subject.Pid());
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiMapNum, std::count(maps.begin(), maps.end(), '\n'));
    host::Client client({.runDir = dir_.Path(), .limits = {.replyBytes = 64U << 10}});
    const auto tooLarge = kit::Call<Unit, Tarn_sys_diag_SysProOsResult>(
        client, "TarnSysdiagTarnd", 0, "GetOsProcessMapsInfo", Tarn_sys_diag_SysProOsInput{subject.Pid()});
    EXPECT_EQ(tooLarge.Status(), 1000 + EMSGSIZE);
}

TEST_F(ProcessMemoryTest, TakesAnyNameOfAProcess) {
    for (const std::string name : {"a\nb: c", ") S 1 2 3", " ", "\xFF\x01", "VmSize:\t1 kB"}) {
        const Subject subject(dir_, {"name:" + name});
        const auto answer = Statistics(std::to_string(subject.Pid()));
        ASSERT_EQ(answer.Status(), 0) << answer.Text();
        EXPECT_EQ(std::string(answer->pstRecord[0].szProcName), name);
        ExpectStatus(answer->pstRecord[0], subject.Pid());
        EXPECT_EQ(Mappings(subject.Pid()).Status(), 0);
    }
}

// Processes that start and end all the time, until the end of the scope.
class Storm {
public:
    Storm() : pid_(fork()) {
        if (pid_ == 0) {
            setpgid(0, 0);
            Blow();
        }
        setpgid(pid_, pid_);
    }
    ~Storm() {
        kill(-pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

private:
    // Half of them end as what they were, the others as another program.
    [[noreturn]] static void Blow() {
        signal(SIGCHLD, SIG_IGN); // they leave no zombies
        for (unsigned i = 0;; ++i) {
            if (fork() == 0) {
                if (i % 2 == 0) {
                    execl(MEMORY_SUBJECT, "storm", "anon:1024", "end", nullptr);
                }
                _exit(0);
            }
            usleep(1000);
        }
    }
    const pid_t pid_;
};

TEST_F(ProcessMemoryTest, SurvivesProcessesThatComeAndGo) {
    const Storm storm;
    const auto end = std::chrono::steady_clock::now() + 1s;
    for (int calls = 0; calls < 2 || std::chrono::steady_clock::now() < end; ++calls) {
        EXPECT_EQ(Statistics("").Status(), 0);
        EXPECT_EQ(Details(0).Status(), 0);
        EXPECT_EQ(Call<Tarn_sys_diag_SysMemStatisFileResult>("GetSysMemStatisFile", Tarn_sys_diag_None{}).Status(), 0);
        EXPECT_EQ(Call<Tarn_sys_diag_SysMemStatisShareResult>("GetSysMemStatisShare", Tarn_sys_diag_None{}).Status(),
                  0);
    }
}

class DumpTest : public MemoryTest {
protected:
    kit::Answer<Unit, Tarn_sys_diag_DumpOsProcMemValueResult> Dump(uint32_t pid, uint64_t address, uint64_t length) {
        return Call<Tarn_sys_diag_DumpOsProcMemValueResult>(
            "DumpOsProcMemValue", Tarn_sys_diag_DumpOsProcMemValueInput{pid, address, length});
    }
    const uint32_t self_ = static_cast<uint32_t>(getpid());
};

TEST_F(DumpTest, ShowsBytes) {
    // Where the kernel restricts who may look into a process.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    alignas(64) char text[40] = "Bytes to be found\n\x01\xFF"; // within a page
    const auto answer = Dump(self_, reinterpret_cast<uintptr_t>(text), 20);
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiValue1, 20);
    const uint64_t at = reinterpret_cast<uintptr_t>(text);
    char expected[256];
    snprintf(expected, sizeof expected,
             "%" PRIx64 "  42 79 74 65 73 20 74 6f 20 62 65 20 66 6f 75 6e  Bytes to be foun\n"
             "%" PRIx64 "  64 0a 01 ff                                      d...\n",
             at, at + 16);
    EXPECT_EQ(std::string(answer->szValue), expected);
}

TEST_F(DumpTest, NamesWhatCannotBeRead) {
    const Subject subject(dir_, {"closed"});
    const auto page = static_cast<uint64_t>(getpagesize());
    const uint64_t at = subject.At("closed");
    const auto part = Dump(subject.Pid(), at + page - 8, 32);
    ASSERT_EQ(part.Status(), 0) << part.Text();
    EXPECT_EQ(part->uiValue1, 8);
    char expected[256];
    snprintf(expected, sizeof expected,
             "%" PRIx64 "  5a 5a 5a 5a 5a 5a 5a 5a                          ZZZZZZZZ\n%" PRIx64 "-%" PRIx64
             " can't be read\n",
             at + page - 8, at + page, at + page + 24);
    EXPECT_EQ(std::string(part->szValue), expected);
    EXPECT_EQ(Dump(subject.Pid(), at + page, 16).Status(), EFAULT);
    EXPECT_EQ(Dump(subject.Pid(), at, 65536).Status(), 0);
    EXPECT_EQ(Dump(subject.Pid(), 0, 16).Status(), EFAULT);
    EXPECT_EQ(Dump(subject.Pid(), UINT64_C(0xFFFF800000000000), 16).Status(), EFAULT) << "the kernel's";
}

TEST_F(DumpTest, ChecksWhatIsAskedFor) {
    EXPECT_EQ(Dump(self_, 4096, 0).Status(), EINVAL);
    EXPECT_EQ(Dump(self_, 4096, 65537).Status(), EINVAL);
    EXPECT_EQ(Dump(self_, 4096, UINT64_MAX).Status(), EINVAL);
    EXPECT_EQ(Dump(self_, UINT64_MAX, 2).Status(), EINVAL);
    EXPECT_EQ(Dump(EndedPid(), 4096, 16).Status(), ESRCH);
    EXPECT_EQ(Dump(0, 4096, 16).Status(), ESRCH);
    EXPECT_EQ(Dump(UINT32_MAX, 4096, 16).Status(), ESRCH);
    if (const uint32_t thread = KernelThread(); thread != 0) {
        EXPECT_NE(Dump(thread, 4096, 16).Status(), 0);
    }
}

using DeniedTest = kit::Denied<ProcessMemoryTest>;

TEST_F(DeniedTest, TellsWhatMayNotBeSeen) {
    const auto details = Details(1);
    ASSERT_EQ(details.Status(), 0) << details.Text();
    EXPECT_GT(details->pstProc[0].uiVmSize, 0) << "that everybody may see";
    EXPECT_EQ(details->pstProc[0].uiPss, 0);
    EXPECT_EQ(Mappings(1).Status(), EACCES);
    EXPECT_EQ(Call<Tarn_sys_diag_DumpOsProcMemValueResult>("DumpOsProcMemValue",
                                                           Tarn_sys_diag_DumpOsProcMemValueInput{1, 4096, 16})
                  .Status(),
              EACCES);
    const auto first = Statistics("1");
    ASSERT_EQ(first.Status(), 0) << first.Text();
    EXPECT_EQ(std::string(first->pstRecord[0].szExeName), "?");
    EXPECT_GT(first->pstRecord[0].uiVmSize, 0) << "that everybody may see";
    if (const uint32_t thread = KernelThread(); thread != 0) {
        EXPECT_EQ(std::string(Statistics(std::to_string(thread))->pstRecord[0].szExeName), "");
    }
    const auto all = Details(0);
    ASSERT_EQ(all.Status(), 0) << all.Text();
    const auto listed = [&](uint32_t pid) {
        return std::any_of(all->pstProc, all->pstProc + all->uiProcNum,
                           [&](const auto &one) { return one.uiPid == pid; });
    };
    EXPECT_TRUE(listed(daemon_->Pid()));
    EXPECT_TRUE(listed(1));
}

// A name that no other test has.
std::string Unique(const std::string &name) {
    return name + "-" + std::to_string(getpid());
}

class FilesTest : public MemoryTest {
protected:
    template <class Element>
    static const Element *Find(const Element *elements, uint32_t number, const std::string &name,
                               const std::function<std::string(const Element &)> &nameOf) {
        const auto *const end = elements + number;
        const auto *const found = std::find_if(elements, end, [&](const Element &one) { return nameOf(one) == name; });
        return found != end ? found : nullptr;
    }

    kit::Answer<Unit, Tarn_sys_diag_SysOsMemFileResult> List(uint32_t leastKib) {
        return Call<Tarn_sys_diag_SysOsMemFileResult>("GetSysOsMemFileList", Tarn_sys_diag_SysOsMemFileInput{leastKib});
    }
};

TEST_F(FilesTest, CountsMappedFiles) {
    const std::string path = dir_.Path() / "mapped by two";
    const Subject first(dir_, {"file:" + path + ":3072", "name:mapper"});
    const Subject second(dir_, {"file:" + path + ":3072", "name:mapper"});
    const auto answer = Call<Tarn_sys_diag_SysMemStatisFileResult>("GetSysMemStatisFile", Tarn_sys_diag_None{});
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    const auto *const file = Find<Tarn_sys_diag_SysMemStatisFile>(
        answer->pstFile, answer->uiFileNum, path, [](const auto &one) { return std::string(one.acFileName); });
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->uiValue1, 3072) << "shared, so counted once";
    EXPECT_EQ(file->uiValue2, 2);
    const std::string process = file->acValue3;
    EXPECT_TRUE(process == "mapper (" + std::to_string(first.Pid()) + ")" ||
                process == "mapper (" + std::to_string(second.Pid()) + ")")
        << process;
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(std::string(file->acValue4).ends_with(" " + std::to_string(status.st_ino))) << file->acValue4;
    EXPECT_TRUE(std::is_sorted(answer->pstFile, answer->pstFile + answer->uiFileNum,
                               [](const auto &a, const auto &b) { return a.uiValue1 > b.uiValue1; }));
}

TEST_F(FilesTest, ListsFilesInMemory) {
    const std::string name = "/" + Unique("tarn-list");
    const Subject subject(dir_, {"posix:" + name + ":2048"});
    const std::string path = "/dev/shm" + name;
    const auto before = List(0);
    ASSERT_EQ(before.Status(), 0) << before.Text();
    const auto nameOf = [](const Tarn_sys_diag_SysOsMemFile &one) { return std::string(one.acFileName); };
    const auto *const file = Find<Tarn_sys_diag_SysOsMemFile>(before->pstFile, before->uiFileNum, path, nameOf);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->uiValue4, 2048);
    EXPECT_EQ(std::string(file->acValue3), "-rw-r-----");
    EXPECT_TRUE(std::string(file->acValue2).starts_with(UserName() + ":")) << file->acValue2;
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    tm time;
    localtime_r(&status.st_mtime, &time);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &time);
    EXPECT_EQ(std::string(file->acValue1), text);
    EXPECT_GE(before->uiValue1, 2048) << "what the file systems take";
    EXPECT_NE(List(2048)->uiFileNum, 0);
    const auto larger = List(2049);
    EXPECT_EQ(Find<Tarn_sys_diag_SysOsMemFile>(larger->pstFile, larger->uiFileNum, path, nameOf), nullptr);
    EXPECT_EQ(List(UINT32_MAX).Status(), 0);
}

TEST_F(FilesTest, TellsTimesAsTheDaemonsClockShowsThem) {
    Tarn_sys_diag_SetTimezoneInput request{};
    kit::Set(request.stTimezone.szTimezoneName, "Asia/Kathmandu");
    request.stTimezone.uiTimezoneOffset = 345;
    ASSERT_EQ(Call<Tarn_sys_diag_Result>("SetTimezone", request)->uiResult, 0);
    const std::string name = "/" + Unique("tarn-time");
    const Subject subject(dir_, {"posix:" + name + ":4"});
    struct stat status;
    ASSERT_EQ(stat(("/dev/shm" + name).c_str(), &status), 0);
    const time_t local = status.st_mtime + 345 * 60;
    tm time;
    gmtime_r(&local, &time);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &time);
    const auto list = List(0);
    const auto *const file = Find<Tarn_sys_diag_SysOsMemFile>(
        list->pstFile, list->uiFileNum, "/dev/shm" + name, [](const auto &one) { return std::string(one.acFileName); });
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::string(file->acValue1), text);
}

TEST_F(FilesTest, ListsSharedMemory) {
    const std::string name = "/" + Unique("tarn-share");
    const auto key = 0x54000000U + static_cast<uint32_t>(getpid());
    const std::string segment = "sysv:" + std::to_string(key) + ":1024";
    const Subject subject(dir_, {"posix:" + name + ":512", segment});
    const Subject second(dir_, {"posix:" + name + ":512"});
    const auto answer = Call<Tarn_sys_diag_SysMemStatisShareResult>("GetSysMemStatisShare", Tarn_sys_diag_None{});
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    const auto find = [&](const std::string &wanted) {
        return Find<Tarn_sys_diag_SysMemStatisShare>(answer->pstShare, answer->uiShareNum, wanted,
                                                     [](const auto &one) { return std::string(one.acName); });
    };
    const auto *const posix = find(name);
    ASSERT_NE(posix, nullptr);
    EXPECT_EQ(posix->uiValue2, 512);
    EXPECT_EQ(posix->uiValue3, 512);
    EXPECT_EQ(posix->uiValue4, 2);
    EXPECT_EQ(std::string(posix->acValue5), "posix 0640 " + UserName());
    char keyText[32];
    snprintf(keyText, sizeof keyText, "key 0x%08x", key);
    const auto *const sysv = find(keyText);
    ASSERT_NE(sysv, nullptr);
    EXPECT_EQ(sysv->uiValue1, subject.At(segment));
    EXPECT_EQ(sysv->uiValue2, 1024);
    EXPECT_EQ(sysv->uiValue3, 1024);
    EXPECT_EQ(sysv->uiValue4, 1);
    EXPECT_EQ(std::string(sysv->acValue5), "sysv 0640 " + UserName());
}

// Removes what a test has made in a directory that is not its own.
struct Removed {
    ~Removed() { std::filesystem::remove_all(path); }
    const std::filesystem::path path;
};

TEST_F(FilesTest, IsNotImpressedByTenThousandFiles) {
    const Removed many{"/dev/shm/" + Unique("tarn-many")};
    std::filesystem::create_directory(many.path);
    for (int i = 0; i < 10000; ++i) {
        std::ofstream(many.path / (std::string(200, 'x') + std::to_string(i))) << "x";
    }
    const std::string large = many.path / "with\nline feed";
    std::ofstream(large) << std::string(9000, 'x');
    std::filesystem::create_hard_link(large, many.path / "another name");
    std::filesystem::create_symlink("/", many.path / "link");
    const auto answer = List(0);
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiFileNum, 8000) << "the largest";
    const std::string another = many.path / "another name";
    EXPECT_EQ(std::count_if(answer->pstFile, answer->pstFile + answer->uiFileNum,
                            [&](const auto &one) { return one.acFileName == large || one.acFileName == another; }),
              1)
        << "a file of two names counts once";
    const auto share = Call<Tarn_sys_diag_SysMemStatisShareResult>("GetSysMemStatisShare", Tarn_sys_diag_None{});
    ASSERT_EQ(share.Status(), 0) << share.Text();
    EXPECT_EQ(std::count_if(share->pstShare, share->pstShare + share->uiShareNum,
                            [&](const auto &one) {
                                return std::string(one.acName).starts_with("/" + many.path.filename().string() + "/");
                            }),
              10001);
}

TEST_F(MemoryTest, SumsUpNodes) {
    const auto answer = Call<Tarn_sys_diag_SysMemUseInfoResult>("GetSysMemUseInfo", Tarn_sys_diag_None{});
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    ASSERT_GE(answer->uiNodeNum, 1);
    for (uint32_t i = 0; i < answer->uiNodeNum; ++i) {
        const Tarn_sys_diag_SysMemUseInfo &node = answer->pstNode[i];
        EXPECT_EQ(node.uiMemUsed, node.uiMemTotal - node.uiMemFree);
        const std::string directory = "/sys/devices/system/node/" + std::string(node.szNodeName);
        if (std::filesystem::exists(directory)) {
            EXPECT_EQ(std::string(node.szCpuList) + "\n", kit::TextOfFile(directory + "/cpulist"));
            const std::string id = "Node " + std::to_string(node.uiNodeId) + " ";
            const double close = 64 * 1024; // the system goes on meanwhile
            const auto expectClose = [&](uint32_t value, const char *key) {
                EXPECT_NEAR(value, static_cast<double>(InFile(directory + "/meminfo", id + key)), close) << key;
            };
            EXPECT_EQ(node.uiMemTotal, InFile(directory + "/meminfo", id + "MemTotal"));
            expectClose(node.uiActive, "Active");
            expectClose(node.uiInactive, "Inactive");
            expectClose(node.uiFilePages, "FilePages");
            expectClose(node.uiAnonPages, "AnonPages");
            expectClose(node.uiShmem, "Shmem");
            expectClose(node.uiSlabReclaimable, "SReclaimable");
            expectClose(node.uiSlabUnreclaimable, "SUnreclaim");
            expectClose(node.uiKernelStack, "KernelStack");
            expectClose(node.uiPageTables, "PageTables");
        }
    }
}

} // namespace
