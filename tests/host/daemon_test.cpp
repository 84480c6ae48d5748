// tarnd, run as a program and asked through the raw client; its answers against other sources.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "types/master.h"
#include "types/tarnd.h"
#include "types/tarnd_agent.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>

#include "host/runtime/catalogue.h"
#include "host/runtime/reply.h"
#include "host/runtime/server.h"
#include "tests/host/kit.h"

namespace {

using namespace std::chrono_literals;

class DaemonTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(logs_);
        StartDaemon();
    }

    void StartDaemon() {
        daemon_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARND, "--run-dir", dir_.Path(), "--log-dir", logs_, "--log-level",
                                                  "debug", "--print-accounting"});
        ASSERT_TRUE(kit::Eventually([&] { return daemon_->Err().find("serving in") != std::string::npos; }))
            << daemon_->Err();
    }

    // Every test ends here: the daemon goes when told to, with nothing left allocated.
    void TearDown() override {
        if (daemon_ != nullptr) {
            EXPECT_EQ(daemon_->Stop(), 0) << daemon_->Err();
            const std::string out = daemon_->Out();
            uint64_t blocks = 1, bytes = 1;
            ASSERT_EQ(
                sscanf(out.c_str() + std::min(out.find("\ntotal "), out.size()), "\ntotal %lu %lu", &blocks, &bytes), 2)
                << out;
            EXPECT_EQ(blocks, 0) << out;
            EXPECT_EQ(bytes, 0) << out;
        }
    }

    template <class Response, class Request>
    kit::Answer<Unit, Response> Call(const char *method, const Request &request) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagTarnd", 0, method, request);
    }

    bool Logged(const std::string &text) {
        return kit::Eventually([&] { return daemon_->Err().find(text) != std::string::npos; });
    }

    const kit::TempDir dir_;
    const std::filesystem::path logs_ = dir_.Path() / "logs";
    host::Client client_{{.runDir = dir_.Path()}};
    std::unique_ptr<kit::Process> daemon_;
};

// The threads that the subject says it has.
class Subject : public kit::Process {
public:
    explicit Subject(const kit::TempDir &dir) : kit::Process(dir.Path(), {SUBJECT}) {
        EXPECT_TRUE(kit::Eventually([this] {
            std::istringstream out(Out());
            std::string name;
            for (uint32_t tid = 0; out >> name >> tid;) {
                tids[name] = tid;
            }
            return tids.size() == 2;
        }));
    }
    std::map<std::string, uint32_t> tids;
};

std::string Comm(uint32_t pid, uint32_t tid) {
    std::string name = kit::TextOfFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/comm");
    name.pop_back(); // the line feed
    return name;
}

std::set<uint32_t> TaskIds(uint32_t pid) {
    std::set<uint32_t> ids;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        ids.insert(static_cast<uint32_t>(std::stoul(entry.path().filename())));
    }
    return ids;
}

// A pid that was a process's and is none's now.
uint32_t EndedPid() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return static_cast<uint32_t>(pid);
}

TEST_F(DaemonTest, KnowsWhetherAProcessIsOnline) {
    const auto online = [&](uint32_t pid) {
        const auto answer = Call<Tarn_sys_diag_PidIsOnlineOuput>("PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{pid});
        EXPECT_EQ(answer.Status(), 0);
        EXPECT_EQ(answer->uiPid, pid);
        return answer->ucIsOnline;
    };
    const Subject subject(dir_);
    EXPECT_EQ(online(subject.Pid()), 1);
    EXPECT_EQ(online(static_cast<uint32_t>(getpid())), 1);
    EXPECT_EQ(online(subject.tids.at("sleeper")), 0) << "a thread's id";
    EXPECT_EQ(online(EndedPid()), 0);
    EXPECT_EQ(online(0), 0);
    EXPECT_EQ(online(UINT32_MAX), 0);

    const pid_t zombie = fork();
    if (zombie == 0) {
        _exit(0);
    }
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
    EXPECT_EQ(online(static_cast<uint32_t>(zombie)), 0);
    waitpid(zombie, nullptr, 0);
}

TEST_F(DaemonTest, TellsAProcesssState) {
    const auto state = [&](uint32_t pid) {
        const auto answer =
            Call<Tarn_sys_diag_ProcessStatusOutput>("GetProcStatByPid", Tarn_sys_diag_ProcessStatusInput{pid});
        return answer.Status() == 0 ? static_cast<char>(answer->ucStatus) : '?';
    };
    const Subject subject(dir_);
    EXPECT_TRUE(kit::Eventually([&] { return state(subject.Pid()) == 'S'; })) << "its first thread waits";
    subject.Signal(SIGSTOP);
    EXPECT_TRUE(kit::Eventually([&] { return state(subject.Pid()) == 'T'; }));
    subject.Signal(SIGCONT);

    const auto gone =
        Call<Tarn_sys_diag_ProcessStatusOutput>("GetProcStatByPid", Tarn_sys_diag_ProcessStatusInput{EndedPid()});
    EXPECT_EQ(gone.Status(), ESRCH);
}

TEST_F(DaemonTest, ListsTheThreadsOfAProcess) {
    const Subject subject(dir_);
    const auto answer = Call<Tarn_sys_diag_Tids>("GetAllTidsByPid", Tarn_sys_diag_Pid{subject.Pid()});
    ASSERT_EQ(answer.Status(), 0);
    const std::set<uint32_t> tids(answer->puiTids, answer->puiTids + answer->uiTidNum);
    EXPECT_EQ(tids, TaskIds(subject.Pid()));
    EXPECT_EQ(tids.count(subject.tids.at("burner")), 1);
    EXPECT_EQ(tids.count(subject.tids.at("sleeper")), 1);
    EXPECT_EQ(Call<Tarn_sys_diag_Tids>("GetAllTidsByPid", Tarn_sys_diag_Pid{EndedPid()}).Status(), ESRCH);
}

using CpuThread = Tarn_sys_diag_OsProcessCpuThread;

TEST_F(DaemonTest, MeasuresTheThreadsOfAProcess) {
    const Subject subject(dir_);
    clockid_t clock;
    ASSERT_EQ(clock_getcpuclockid(static_cast<pid_t>(subject.Pid()), &clock), 0);
    const auto cpuNs = [&] {
        timespec time;
        clock_gettime(clock, &time);
        return time.tv_sec * 1'000'000'000 + time.tv_nsec;
    };
    for (const auto &[method, cpus] : std::map<const char *, long>{
             {"CalculateProcThreadCpuUse", 1}, {"CalculateOsProcCpuUse", sysconf(_SC_NPROCESSORS_ONLN)}}) {
        SCOPED_TRACE(method);
        const int64_t cpuBefore = cpuNs();
        const auto start = std::chrono::steady_clock::now();
        const auto answer =
            Call<Tarn_sys_diag_OsProcessCpuRet>(method, Tarn_sys_diag_OsProcessCpuInput{subject.Pid(), 1000, 0});
        const auto used = static_cast<double>(cpuNs() - cpuBefore);
        const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
        ASSERT_EQ(answer.Status(), 0);
        const double permille = used * 1000 / (elapsed.count() * static_cast<double>(cpus));
        EXPECT_GT(permille, 50) << "the subject hardly ran";
        EXPECT_NEAR(answer->uiValue1, permille, permille * 0.25 + 20);

        ASSERT_EQ(answer->uiThreadNum, TaskIds(subject.Pid()).size());
        const CpuThread &busiest = answer->pstThread[0];
        EXPECT_EQ(std::string(busiest.acName), "burner");
        EXPECT_EQ(busiest.uiValue1, subject.tids.at("burner"));
        EXPECT_NEAR(busiest.uiValue2, answer->uiValue1, 20);
        EXPECT_NEAR(static_cast<double>(busiest.ullValue3), static_cast<double>(cpuNs()) / 1000, 300'000);
        EXPECT_EQ(std::string(busiest.acValue6), "SCHED_OTHER nice 0");
        const auto sleeper = std::find_if(answer->pstThread, answer->pstThread + answer->uiThreadNum,
                                          [&](const CpuThread &t) { return t.uiValue1 == subject.tids.at("sleeper"); });
        ASSERT_NE(sleeper, answer->pstThread + answer->uiThreadNum);
        EXPECT_EQ(std::string(sleeper->acName), "sleeper");
        EXPECT_EQ(sleeper->uiValue2, 0);
        EXPECT_EQ(std::string(sleeper->acValue4), "S (sleeping)");
    }
}

TEST_F(DaemonTest, MeasuresWithinBounds) {
    const Subject subject(dir_);
    const auto one = Call<Tarn_sys_diag_OsProcessCpuRet>("CalculateProcThreadCpuUse",
                                                         Tarn_sys_diag_OsProcessCpuInput{subject.Pid(), 100, 1});
    ASSERT_EQ(one.Status(), 0);
    EXPECT_EQ(one->uiThreadNum, 1);
    const auto status = [&](Tarn_sys_diag_OsProcessCpuInput request) {
        return Call<Tarn_sys_diag_OsProcessCpuRet>("CalculateOsProcCpuUse", request).Status();
    };
    EXPECT_EQ(status({subject.Pid(), 2001, 0}), EINVAL);
    EXPECT_EQ(status({EndedPid(), 10, 0}), ESRCH);
    EXPECT_EQ(status({subject.tids.at("sleeper"), 10, 0}), ESRCH) << "a thread's id";
}

unsigned long DefaultHugePageKb() {
    const std::string text = kit::TextOfFile("/proc/meminfo");
    return std::stoul(text.substr(text.find("Hugepagesize:") + strlen("Hugepagesize:")));
}

TEST_F(DaemonTest, CountsHugePages) {
    const auto answer = Call<Tarn_sys_diag_HugePagesOutput>("GetHugePagesInfo", Tarn_sys_diag_None{});
    ASSERT_EQ(answer.Status(), 0);
    const auto number = [](const std::filesystem::path &path) { return std::stoul(kit::TextOfFile(path)); };
    const unsigned long total = number("/proc/sys/vm/nr_hugepages");
    const std::string kb = std::to_string(DefaultHugePageKb());
    const unsigned long free = number("/sys/kernel/mm/hugepages/hugepages-" + kb + "kB/free_hugepages");
    EXPECT_EQ(answer->uiValue1, total);
    EXPECT_EQ(answer->uiValue2, free);
}

TEST_F(DaemonTest, DescribesTasks) {
    const Subject subject(dir_);
    const auto query = [&](uint32_t tid, std::string name, uint32_t skip, uint32_t limit) {
        return Call<Tarn_sys_diag_GetTaskInfoResult>(
            "GetTaskInfo", Tarn_sys_diag_GetTaskInfoInput{subject.Pid(), tid, name.data(), skip, limit});
    };
    const auto lines = [](const char *text) { return std::count(text, text + strlen(text), '\n') - 1; }; // without head
    const auto all = query(0, "", 0, 0);
    ASSERT_EQ(all.Status(), 0);
    EXPECT_EQ(all->uiTaskValue, TaskIds(subject.Pid()).size());
    EXPECT_EQ(lines(all->pcTaskInfo), all->uiTaskValue);
    EXPECT_EQ(lines(all->pcTaskRecord), all->uiTaskValue);
    for (const uint32_t tid : TaskIds(subject.Pid())) {
        EXPECT_NE(std::string(all->pcTaskInfo).find(std::to_string(tid) + " " + Comm(subject.Pid(), tid)),
                  std::string::npos)
            << all->pcTaskInfo;
    }

    const auto byName = query(0, "burn*", 0, 0);
    ASSERT_EQ(byName.Status(), 0);
    EXPECT_EQ(byName->uiTaskValue, 1);
    EXPECT_NE(std::string(byName->pcTaskInfo).find("R (running)"), std::string::npos) << byName->pcTaskInfo;

    const auto byTid = query(subject.tids.at("sleeper"), "", 0, 0);
    ASSERT_EQ(byTid.Status(), 0);
    EXPECT_NE(std::string(byTid->pcTaskInfo).find("sleeper"), std::string::npos);
    EXPECT_EQ(byTid->uiTaskValue, 1);

    const auto second = query(0, "", 1, 1);
    ASSERT_EQ(second.Status(), 0);
    EXPECT_EQ(second->uiTaskValue, all->uiTaskValue) << "the matches, not the lines";
    EXPECT_EQ(lines(second->pcTaskInfo), 1);

    EXPECT_EQ(query(daemon_->Pid(), "", 0, 0).Status(), ESRCH) << "no thread of the subject";
    const auto everything =
        Call<Tarn_sys_diag_GetTaskInfoResult>("GetTaskInfo", Tarn_sys_diag_GetTaskInfoInput{0, 0, nullptr, 0, 0});
    ASSERT_EQ(everything.Status(), 0);
    EXPECT_NE(std::string(everything->pcTaskInfo).find("burner"), std::string::npos);
    EXPECT_NE(std::string(everything->pcTaskInfo).find("tarnd"), std::string::npos);
}

// The files of an archive and what is in them.
std::map<std::string, std::string> ReadArchive(const std::filesystem::path &path) {
    std::map<std::string, std::string> files;
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(reader.get());
    EXPECT_EQ(archive_read_open_filename(reader.get(), path.c_str(), 4096), ARCHIVE_OK) << path;
    for (archive_entry *entry; archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK;) {
        std::string text(static_cast<size_t>(archive_entry_size(entry)), 0);
        EXPECT_EQ(archive_read_data(reader.get(), text.data(), text.size()), static_cast<la_ssize_t>(text.size()));
        files[archive_entry_pathname(entry)] = text;
    }
    return files;
}

class ArchiveTest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::filesystem::create_directories(logs_ / "app" / "old");
        std::ofstream(logs_ / "app" / "a.log") << "first\n";
        std::ofstream(logs_ / "app" / "old" / "b.log") << big_;
        std::ofstream(logs_ / "system.log") << "system\n";
        std::ofstream(dir_.Path() / "secret") << "secret\n";
        std::filesystem::create_symlink(dir_.Path() / "secret", logs_ / "app" / "link.log");
        std::filesystem::create_directory_symlink(dir_.Path(), logs_ / "out");
        ASSERT_EQ(mkfifo((logs_ / "app" / "fifo").c_str(), 0600), 0);
    }

    uint32_t Zip(const std::string &what, const std::string &where, const std::string &name, uint32_t option = 0) {
        Tarn_sys_diag_ZiploginfoInput request{};
        kit::Set(request.szLogPath, what);
        kit::Set(request.szZipPath, where);
        kit::Set(request.szZipName, name);
        request.uiZipOption = option;
        const auto answer = Call<Tarn_sys_diag_Result>("ZipLogFile", request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }

    std::vector<std::string> Names(const std::filesystem::path &directory) {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const std::string big_ = [] {
        std::string text;
        for (int i = 0; i < 50000; ++i) {
            text += "line " + std::to_string(i) + "\n";
        }
        return text;
    }();
};

TEST_F(ArchiveTest, PacksADirectory) {
    ASSERT_EQ(Zip("app", "", "app.zip"), 0);
    const std::map<std::string, std::string> expected{{"app/a.log", "first\n"}, {"app/old/b.log", big_}};
    EXPECT_EQ(ReadArchive(logs_ / "app.zip"), expected);
    EXPECT_LT(std::filesystem::file_size(logs_ / "app.zip"), big_.size() / 2);

    ASSERT_EQ(Zip("app", "", "stored.zip", 1), 0);
    EXPECT_EQ(ReadArchive(logs_ / "stored.zip"), expected);
    EXPECT_GT(std::filesystem::file_size(logs_ / "stored.zip"), big_.size());
}

TEST_F(ArchiveTest, PacksAFileGivenByItsAbsolutePath) {
    ASSERT_EQ(Zip(logs_ / "system.log", logs_ / "app" / "old", "one.zip"), 0);
    const std::map<std::string, std::string> expected{{"system.log", "system\n"}};
    EXPECT_EQ(ReadArchive(logs_ / "app" / "old" / "one.zip"), expected);
}

TEST_F(ArchiveTest, ReplacesAnOlderArchiveAndLeavesItOut) {
    ASSERT_EQ(Zip("app", "app", "logs.zip"), 0);
    std::ofstream(logs_ / "app" / "a.log") << "second\n";
    ASSERT_EQ(Zip("app", "app", "logs.zip"), 0);
    const std::map<std::string, std::string> expected{{"app/a.log", "second\n"}, {"app/old/b.log", big_}};
    EXPECT_EQ(ReadArchive(logs_ / "app" / "logs.zip"), expected);
}

TEST_F(ArchiveTest, RefusesPathsOutsideTheLogDirectory) {
    for (const char *const path :
         {"..", "../secret", "app/../../secret", "/etc", "/", "app/./../..", "out", "out/logs", "app/link.log"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(Zip(path, "", "x.zip"), EACCES);
        EXPECT_EQ(Zip("system.log", path, "x.zip"), EACCES);
    }
    EXPECT_EQ(Zip(dir_.Path() / "logs-of-another", "", "x.zip"), EACCES) << "a longer name that starts alike";
    for (const char *const name : {"", ".", "..", "../x.zip", "a/b.zip", "/tmp/x.zip"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Zip("app", "", name), EINVAL);
    }
    EXPECT_EQ(Zip("app", "", "x.zip", 2), EINVAL);
    EXPECT_EQ(Zip("none", "", "x.zip"), ENOENT);
    EXPECT_EQ(Zip("app", "system.log", "x.zip"), ENOTDIR);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "x.zip"));
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "x.zip"));
}

TEST_F(ArchiveTest, LeavesNothingBehindWhenItFails) {
    std::filesystem::create_directory(logs_ / "taken.zip");
    EXPECT_EQ(Zip("app", "", "taken.zip"), EISDIR);
    for (const std::string &name : Names(logs_)) {
        EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
    }
}

TEST_F(DaemonTest, ChecksAndKeepsTheTimeZone) {
    const auto set = [&](std::string_view name, int32_t minutes) {
        Tarn_sys_diag_SetTimezoneInput request{};
        kit::Set(request.stTimezone.szTimezoneName, name);
        request.stTimezone.uiTimezoneOffset = static_cast<uint32_t>(minutes);
        const auto answer = Call<Tarn_sys_diag_Result>("SetTimezone", request);
        EXPECT_EQ(answer.Status(), 0);
        return answer->uiResult;
    };
    EXPECT_EQ(set("America/St_Johns", -210), 0);
    EXPECT_TRUE(Logged("time zone America/St_Johns (-210 minutes) from a client, before UTC"));
    EXPECT_EQ(set("Pacific/Kiritimati", 840), 0);
    EXPECT_EQ(set("Pacific/Kiritimati", 841), EINVAL);
    EXPECT_EQ(set("Etc/GMT+12", -720), 0);
    EXPECT_EQ(set("Etc/GMT+12", -721), EINVAL);
    EXPECT_EQ(set("", 0), EINVAL);
    EXPECT_EQ(set("Europe/Ber lin", 60), EINVAL);
    EXPECT_EQ(set(std::string(128, 'x'), 0), 0) << "a name that fills its array";
}

TEST_F(DaemonTest, RegistersAgents) {
    Tarn_sys_diag_AgentRegInfoInput request{};
    kit::Set(request.szAgentName, "tester");
    request.uiValue1 = static_cast<uint32_t>(getpid());
    request.uiValue2 = 1;
    request.ucValue3 = 1;
    const auto call = [&] {
        return kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(client_, "TarnSysdiagTarndAgent", 0, "AgentRegInfo",
                                                                 request);
    };
    const auto answer = call();
    ASSERT_EQ(answer.Status(), 0);
    EXPECT_EQ(answer->uiValue1, 0);
    EXPECT_EQ(std::string(answer->szAgentName), "tester");
    EXPECT_EQ(answer->uiValue2, daemon_->Pid());
    EXPECT_TRUE(Logged("agent tester of process " + std::to_string(getpid()) + " has registered"));
    request.ucValue3 = 0;
    EXPECT_EQ(call()->uiValue1, 0);
    EXPECT_TRUE(Logged("agent tester of process " + std::to_string(getpid()) + " has left"));
    request.ucValue3 = 2;
    EXPECT_EQ(call()->uiValue1, EINVAL);
    request.ucValue3 = 1;
    request.uiValue1 = EndedPid();
    EXPECT_EQ(call()->uiValue1, ESRCH);
    request.szAgentName[0] = 0;
    EXPECT_EQ(call()->uiValue1, EINVAL);
}

TEST_F(DaemonTest, TakesSubscriptions) {
    const auto subscribe = [&](uint32_t pid, uint32_t events) {
        return kit::Call<Unit, Tarn_sys_diag_Result>(client_, "TarnSysdiagTarndAgent", 0, "TarnAppSubscribe",
                                                     Tarn_sys_diag_AppSubscribeInput{pid, events})
            ->uiResult;
    };
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 5), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x5, before to 0x0"));
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 0), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x0, before to 0x5"));
    EXPECT_EQ(subscribe(static_cast<uint32_t>(getpid()), 2), 0);
    EXPECT_TRUE(Logged("subscribes to events 0x2, before to 0x0"));
    EXPECT_EQ(subscribe(EndedPid(), 1), ESRCH);
}

TEST_F(DaemonTest, IsThereForWhoAsks) {
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DetectTarndServerOnline", Tarn_sys_diag_None{}), 0);
    EXPECT_TRUE(Logged("asks whether the daemon is there"));
}

// An empty message is a request of every type.
TEST_F(DaemonTest, SaysOfEveryOtherMethodThatItIsNotImplemented) {
    const std::set<std::string_view> implemented{"PidIsOnline",
                                                 "GetProcStatByPid",
                                                 "CalculateOsProcCpuUse",
                                                 "CalculateProcThreadCpuUse",
                                                 "GetHugePagesInfo",
                                                 "ZipLogFile",
                                                 "SetTimezone",
                                                 "DBGCmdExecShowByTarnd",
                                                 "GetTaskInfo",
                                                 "GetAllTidsByPid",
                                                 "DBGCmdExecResultGetByTarnd",
                                                 "DBGCmdExecCleanByTarnd",
                                                 "AgentRegInfo",
                                                 "TarnAppSubscribe",
                                                 "DetectTarndServerOnline"};
    const std::vector<uint8_t> empty = kit::Encode<Unit>(Tarn_sys_diag_None{});
    size_t asked = 0, refused = 0;
    for (const host::MethodInfo &method : host::Catalogue()) {
        if (!method.service.starts_with("TarnSysdiagTarnd") || !method.Replies()) {
            continue;
        }
        ++asked;
        const host::CallOutcome outcome =
            client_.Call(method.service, 0, method.method, method.requestHash, empty, 20s);
        EXPECT_EQ(outcome.status == ENOSYS, implemented.count(method.method) == 0)
            << method.method << ": " << outcome.status << " " << outcome.text;
        EXPECT_EQ(outcome.errCode, 0) << method.method << ": " << outcome.text;
        refused += outcome.status == ENOSYS;
    }
    EXPECT_EQ(asked, 74);
    EXPECT_EQ(refused, 74 - 12);
}

TEST_F(DaemonTest, TellsThatThereIsNoAgent) {
    const auto get = [&](uint32_t pid) {
        return Call<Tarn_sys_diag_DiagResult>("DBGCmdExecResultGetByTarnd",
                                              Tarn_sys_diag_DbgCmdResultGetByTarndInput{pid})
            .Status();
    };
    EXPECT_EQ(get(static_cast<uint32_t>(getpid())), ESRCH);
    EXPECT_EQ(get(0), EINVAL);
}

TEST_F(DaemonTest, RefusesASecondDaemonInTheSameDirectory) {
    kit::Process second(dir_.Path(), {TARND, "--run-dir", dir_.Path()});
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_NE(second.Err().find("tarnd:"), std::string::npos);
    const auto answer = Call<Tarn_sys_diag_HugePagesOutput>("GetHugePagesInfo", Tarn_sys_diag_None{});
    EXPECT_EQ(answer.Status(), 0) << "the first goes on";
}

TEST_F(DaemonTest, RunsWithoutAMaster) {
    EXPECT_TRUE(Logged("no master"));
}

TEST(DaemonCommandLine, ExplainsWhatItDoesNotKnow) {
    const kit::TempDir dir;
    kit::Process unknown(dir.Path(), {TARND, "--no-such-option"});
    EXPECT_NE(unknown.Wait(), 0);
    EXPECT_NE(unknown.Err().find("--no-such-option"), std::string::npos) << unknown.Err();
    kit::Process level(dir.Path(), {TARND, "--log-level", "loud"});
    EXPECT_NE(level.Wait(), 0);
    EXPECT_NE(level.Err().find("loud"), std::string::npos) << level.Err();
}

// A master that knows one time zone.
std::atomic<uint32_t> greetings;
Tarn_sys_diag_GetTimezoneOutput masterReply;
uint32_t GetTimezone(const Tarn_sys_diag_None *, void *replyCtx) {
    return TarnHost_Reply(replyCtx, &masterReply);
}
void GetTimezone_free(Tarn_sys_diag_GetTimezoneOutput *) {}
uint32_t DetectSysdiagServerOnline(const Tarn_sys_diag_None *) {
    ++greetings;
    return 0;
}
TARN_WRAPPER(GetTimezone, None, GetTimezoneOutput)
TARN_WRAPPER_NO_REPLY(DetectSysdiagServerOnline, None)
const IdlInterfaceEntry intf_tbl_TarnSysdiagMaster[] = {
    TARN_RESERVED_INTERFACE_ENTRY, TARN_INTERFACE_ENTRY(GetTimezone, None, GetTimezoneOutput)
                                       TARN_INTERFACE_ENTRY_NO_REPLY(DetectSysdiagServerOnline, None)};
const IdlMessageEntry msgdesc_tbl_TarnSysdiagMaster[] = {
    TARN_RESERVED_MESSAGE_ENTRY, TARN_MESSAGE_ENTRIES(GetTimezone, None, GetTimezoneOutput)
                                     TARN_MESSAGE_ENTRIES_NO_REPLY(DetectSysdiagServerOnline, None)};
const IdlModuleSpec masterSpec = TARN_MODULE_SPEC(TarnSysdiagMaster);

class MasterTest : public DaemonTest {
protected:
    void SetUp() override {
        std::filesystem::create_directory(logs_);
        server_.AddService(masterSpec);
        server_.Start();
        masterReply = {};
        greetings = 0;
    }
    host::Server server_{{.runDir = dir_.Path()}};
};

TEST_F(MasterTest, GreetsTheMasterAndTakesItsTimeZone) {
    kit::Set(masterReply.stTimezone.szTimezoneName, "Asia/Kathmandu");
    masterReply.stTimezone.uiTimezoneOffset = 345;
    StartDaemon();
    EXPECT_TRUE(Logged("time zone Asia/Kathmandu (+345 minutes) from the master"));
    EXPECT_EQ(greetings, 1);
}

TEST_F(MasterTest, DoesNotTakeATimeZoneThatMakesNoSense) {
    kit::Set(masterReply.stTimezone.szTimezoneName, "Asia/Kathmandu");
    masterReply.stTimezone.uiTimezoneOffset = 20000;
    StartDaemon();
    EXPECT_TRUE(Logged("uiTimezoneOffset is 20000"));
    EXPECT_EQ(daemon_->Err().find("from the master"), std::string::npos);
}

} // namespace
