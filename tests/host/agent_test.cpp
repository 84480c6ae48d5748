// The agent, in the example application and in the test's own process, asked directly and through the daemon.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "host/runtime/catalogue.h"
#include "tarn_sysdiag/agent.h"
#include "tests/host/kit.h"

namespace {

using namespace std::chrono_literals;

struct Result {
    uint32_t result;
    uint32_t number;
    std::string text;
};

class AgentTest : public testing::Test {
protected:
    std::unique_ptr<kit::Process> StartDaemon() {
        auto daemon = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARND, "--run-dir", dir_.Path(), "--log-dir", dir_.Path()});
        EXPECT_TRUE(kit::Eventually([&] { return daemon->Err().find("serving in") != std::string::npos; }));
        return daemon;
    }
    std::unique_ptr<kit::Process> StartAgent() {
        auto agent = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "tester", "--run-dir", dir_.Path()});
        EXPECT_TRUE(kit::Eventually([&] { return kit::TakesCalls(client_, "TarnSysdiagAgent", agent->Pid()); }));
        return agent;
    }

    void Show(uint32_t pid, std::string line) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagAgent", pid, "DBGCmdExecShow",
                                    Tarn_sys_diag_DbgCmdShowInput{line.data()}),
                  0);
    }
    Result Get(uint32_t pid) {
        const auto answer = kit::Call<Unit, Tarn_sys_diag_DiagResult>(
            client_, "TarnSysdiagAgent", pid, "DBGCmdExecResultGet", Tarn_sys_diag_DbgCmdResultGetInput{});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return {answer->uiResult, answer->uiValue, answer->szText == nullptr ? "" : answer->szText};
    }
    void Clean(uint32_t pid) {
        EXPECT_EQ(
            kit::Oneway<Unit>(client_, "TarnSysdiagAgent", pid, "DBGCmdExecClean", Tarn_sys_diag_DbgCmdCleanInput{}),
            0);
    }
    // The result of a command, once it is done.
    Result Run(uint32_t pid, const std::string &line) {
        const uint32_t before = Get(pid).number;
        Show(pid, line);
        Result result{};
        EXPECT_TRUE(kit::Eventually([&] {
            result = Get(pid);
            return result.number != before && result.result != EINPROGRESS;
        })) << line;
        return result;
    }

    const kit::TempDir dir_;
    host::Client client_{{.runDir = dir_.Path()}};
};

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST_F(AgentTest, RunsTheCommandsThatEveryAgentHas) {
    setenv("TARN_TEST_VARIABLE", "a value with = and blanks", 1);
    const auto agent = StartAgent();
    const uint32_t pid = agent->Pid();

    const Result help = Run(pid, "help");
    EXPECT_EQ(help.result, 0);
    EXPECT_EQ(help.number, 1);
    for (const char *const name : {"help", "threads", "memory", "fds", "env", "uptime", "counter"}) {
        EXPECT_TRUE(Has(help.text, name)) << help.text;
    }

    const auto hasAll = [pid](const std::string &threads) {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
        return std::all_of(begin(tasks), end(tasks), [&](const std::filesystem::directory_entry &task) {
            std::string name = kit::TextOfFile(task.path() / "comm");
            name.pop_back();
            return Has(threads, task.path().filename().string() + " " + name);
        });
    };
    std::string threads; // which name themselves once they run
    EXPECT_TRUE(kit::Eventually([&] {
        threads = Run(pid, "threads").text;
        return Has(threads, "counting") && hasAll(threads);
    })) << threads;

    const Result memory = Run(pid, "memory");
    const std::string status = kit::TextOfFile("/proc/" + std::to_string(pid) + "/status");
    const auto kb = [](const std::string &text, const std::string &key) {
        return std::stod(text.substr(text.find_first_of("0123456789", text.find(key))));
    };
    EXPECT_NEAR(kb(memory.text, "VmRSS"), kb(status, "VmRSS"), kb(status, "VmRSS") * 0.1);
    EXPECT_GE(kb(status, "VmHWM"), kb(memory.text, "VmHWM"));
    EXPECT_GT(kb(memory.text, "VmHWM"), 0);

    const Result fds = Run(pid, "fds");
    for (const char *const fd : {"1", "2"}) {
        const std::string target = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd).string();
        EXPECT_TRUE(Has(fds.text, std::string(fd) + " " + target)) << fds.text;
    }

    EXPECT_EQ(Run(pid, "env TARN_TEST_VARIABLE").text, "TARN_TEST_VARIABLE=a value with = and blanks\n");
    EXPECT_EQ(Run(pid, "env TARN_NO_SUCH_VARIABLE").result, ENOENT);
    EXPECT_EQ(Run(pid, "env").result, EINVAL);

    const auto systemUptime = [] { return std::stod(kit::TextOfFile("/proc/uptime")); };
    const double before = systemUptime();
    const std::string uptime = Run(pid, "uptime").text;
    double process = 0, system = 0;
    ASSERT_EQ(sscanf(uptime.c_str(), "process %lf s\nsystem %lf s\n", &process, &system), 2) << uptime;
    EXPECT_GE(system, before);
    EXPECT_LE(system, systemUptime());
    EXPECT_GE(process, 0);
    EXPECT_LE(process, system - before + 60) << "it was started by this test";
}

TEST_F(AgentTest, RunsTheApplicationsCommands) {
    const auto agent = StartAgent();
    const auto counter = [&] {
        const Result result = Run(agent->Pid(), "counter");
        EXPECT_EQ(result.result, 0);
        return std::stoul(result.text.substr(strlen("counter ")));
    };
    const unsigned long first = counter();
    EXPECT_TRUE(kit::Eventually([&] { return counter() > first; })) << "the application goes on counting";
    const Result wrong = Run(agent->Pid(), "counter please");
    EXPECT_EQ(wrong.result, EINVAL);
    EXPECT_EQ(wrong.text, "expected: counter\n");
}

TEST_F(AgentTest, TellsWhatItCannotRun) {
    const auto agent = StartAgent();
    EXPECT_EQ(Get(agent->Pid()).result, ENODATA);
    const Result unknown = Run(agent->Pid(), "no-such-command");
    EXPECT_EQ(unknown.result, ENOENT);
    EXPECT_TRUE(Has(unknown.text, "no-such-command"));
    EXPECT_EQ(Run(agent->Pid(), "  ").result, EINVAL);
    EXPECT_EQ(Run(agent->Pid(), "").result, EINVAL);
    Clean(agent->Pid());
    EXPECT_TRUE(kit::Eventually([&] { return Get(agent->Pid()).result == ENODATA; }));
    EXPECT_EQ(Get(agent->Pid()).text, "");
}

// An empty message is a request of every type.
TEST_F(AgentTest, ImplementsEveryMethod) {
    const auto agent = StartAgent();
    const std::vector<uint8_t> empty = kit::Encode<Unit>(Tarn_sys_diag_None{});
    size_t asked = 0;
    for (const host::MethodInfo &method : host::Catalogue()) {
        if (method.service == "TarnSysdiagAgent" && method.Replies()) {
            const auto outcome =
                client_.Call(method.service, agent->Pid(), method.method, method.requestHash, empty, 20s);
            EXPECT_EQ(outcome.errCode, 0) << method.method << ": " << outcome.text;
            EXPECT_EQ(outcome.status, 0) << method.method << ": " << outcome.text;
            ++asked;
        }
    }
    EXPECT_GT(asked, 0);
}

TEST_F(AgentTest, ServesThroughTheDaemon) {
    const auto daemon = StartDaemon();
    const auto agent = StartAgent();
    uint32_t pid = agent->Pid();
    std::string line = "counter";
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecShowByTarnd",
                                Tarn_sys_diag_DbgCmdShowByTarndInput{line.data(), pid}),
              0);
    const auto get = [&] {
        return kit::Call<Unit, Tarn_sys_diag_DiagResult>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecResultGetByTarnd",
                                                         Tarn_sys_diag_DbgCmdResultGetByTarndInput{pid});
    };
    EXPECT_TRUE(kit::Eventually([&] { return get()->uiResult == 0; }));
    const auto answer = get();
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiValue, 1);
    EXPECT_EQ(answer.Explanation(), "");
    EXPECT_EQ(std::string(answer->szText).rfind("counter ", 0), 0) << answer->szText;
    EXPECT_EQ(Get(pid).text, answer->szText) << "the same from the agent itself";

    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecCleanByTarnd",
                                Tarn_sys_diag_DbgCmdCleanByTarndInput{pid}),
              0);
    EXPECT_TRUE(kit::Eventually([&] { return get()->uiResult == ENODATA; }));
    EXPECT_EQ(get().Explanation(), "no command has been taken");
    line = "nonsense";
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecShowByTarnd",
                                Tarn_sys_diag_DbgCmdShowByTarndInput{line.data(), pid}),
              0);
    EXPECT_TRUE(kit::Eventually([&] { return get()->uiResult == ENOENT; }));
    EXPECT_EQ(get().Explanation(), "command 2 ended with it");
    EXPECT_EQ(agent->Stop(), 0);
    EXPECT_EQ(get()->uiResult, ESRCH) << "the agent has gone";

    const auto killed = StartAgent();
    pid = killed->Pid();
    EXPECT_EQ(get()->uiResult, ENODATA);
    killed->Signal(SIGKILL);
    killed->Wait();
    EXPECT_EQ(get()->uiResult, ESRCH) << "its socket is still there";
    EXPECT_EQ(daemon->Stop(), 0);
}

TEST_F(AgentTest, RegistersWithADaemonThatComesAndGoes) {
    const auto agent = StartAgent();
    const std::string pid = std::to_string(agent->Pid());
    const auto logged = [&](const std::string &text) {
        return kit::Eventually([&] { return Has(agent->Err(), text); });
    };
    EXPECT_TRUE(logged("agent tester: not registered with the daemon"));
    {
        const auto daemon = StartDaemon();
        EXPECT_TRUE(logged("agent tester: registered with the daemon, process " + std::to_string(daemon->Pid())));
        EXPECT_TRUE(Has(daemon->Err(), "agent tester of process " + pid + " has registered"));
        daemon->Signal(SIGKILL);
        daemon->Wait();
    }
    const auto daemon = StartDaemon();
    EXPECT_TRUE(logged("registered with the daemon, process " + std::to_string(daemon->Pid())));
    EXPECT_EQ(agent->Stop(), 0) << agent->Err();
    EXPECT_TRUE(kit::Eventually([&] { return Has(daemon->Err(), "agent tester of process " + pid + " has left"); }));
}

// The C interface, in this process.
class AgentInProcessTest : public AgentTest {
protected:
    void Init() { ASSERT_EQ(TarnAgent_Init("self", dir_.Path().c_str()), 0); }
    void TearDown() override { TarnAgent_Shutdown(); }
    const uint32_t self_ = static_cast<uint32_t>(getpid());
};

uint32_t DoNothing(int, const char *const *, TarnAgentOutput *, void *) {
    return 0;
}

TEST_F(AgentInProcessTest, ChecksItsArguments) {
    EXPECT_EQ(TarnAgent_Init(nullptr, dir_.Path().c_str()), EINVAL);
    EXPECT_EQ(TarnAgent_Init("", dir_.Path().c_str()), EINVAL);
    EXPECT_EQ(TarnAgent_Init(std::string(32, 'x').c_str(), dir_.Path().c_str()), EINVAL);
    EXPECT_EQ(TarnAgent_Shutdown(), EINVAL);
    EXPECT_EQ(TarnAgent_Init(std::string(31, 'x').c_str(), dir_.Path().c_str()), 0);
    EXPECT_EQ(TarnAgent_Shutdown(), 0);
    Init();
    EXPECT_EQ(TarnAgent_Init("again", dir_.Path().c_str()), EALREADY);
    EXPECT_EQ(TarnAgent_RegisterCommand("two words", "", DoNothing, nullptr), EINVAL);
    EXPECT_EQ(TarnAgent_RegisterCommand("", "", DoNothing, nullptr), EINVAL);
    EXPECT_EQ(TarnAgent_RegisterCommand("none", "", nullptr, nullptr), EINVAL);
    EXPECT_EQ(TarnAgent_RegisterCommand("help", "", DoNothing, nullptr), EEXIST);
    EXPECT_EQ(TarnAgent_Shutdown(), 0);
    Init();
    EXPECT_EQ(Get(self_).result, ENODATA) << "a new start";
}

TEST_F(AgentInProcessTest, CutsLongOutput) {
    const TarnAgentCommand flood = [](int, const char *const *, TarnAgentOutput *output, void *) {
        for (int i = 0; i < 20000; ++i) {
            TarnAgent_Print(output, "line %d\n", i);
        }
        return uint32_t{0};
    };
    TarnAgent_RegisterCommand("flood", "writes too much", flood, nullptr);
    Init();
    const Result result = Run(self_, "flood");
    EXPECT_EQ(result.result, 0);
    EXPECT_LE(result.text.size(), TARN_AGENT_OUTPUT_MAX);
    EXPECT_GT(result.text.size(), TARN_AGENT_OUTPUT_MAX - 100);
    EXPECT_TRUE(result.text.starts_with("line 0\nline 1\n"));
    EXPECT_TRUE(result.text.ends_with("\n[cut]\n")) << result.text.substr(result.text.size() - 100);
}

TEST_F(AgentInProcessTest, SurvivesACommandThatThrows) {
    const TarnAgentCommand fail = [](int, const char *const *, TarnAgentOutput *, void *) -> uint32_t {
        throw std::runtime_error("from a command");
    };
    TarnAgent_RegisterCommand("throw", "throws", fail, nullptr);
    Init();
    EXPECT_EQ(Run(self_, "throw").result, EIO);
    EXPECT_EQ(Run(self_, "help").result, 0);
}

TEST_F(AgentInProcessTest, LeavesSignalsToTheApplication) {
    const auto blocked = [](const std::filesystem::path &task) {
        const std::string status = kit::TextOfFile(task / "status");
        return std::stoull(status.substr(status.find("SigBlk:") + strlen("SigBlk:")), nullptr, 16);
    };
    const auto tasks = [] {
        std::set<std::filesystem::path> paths;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
            paths.insert(entry.path());
        }
        return paths;
    };
    const std::set<std::filesystem::path> before = tasks();
    const unsigned long long own = blocked("/proc/thread-self");
    Init();
    EXPECT_EQ(blocked("/proc/thread-self"), own);
    size_t added = 0;
    for (const std::filesystem::path &task : tasks()) {
        if (before.count(task) == 0) {
            ++added;
            EXPECT_TRUE((blocked(task) >> (SIGTERM - 1)) & 1) << task;
            EXPECT_TRUE((blocked(task) >> (SIGUSR1 - 1)) & 1) << task;
        }
    }
    EXPECT_GE(added, 3) << "a worker, the commands' and the registration's thread";
}

} // namespace
