// What the application registers besides memory: message rules, timers, watched threads, health items, subscriptions.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

#include "host/runtime/status.h"
#include "tarn_sysdiag/agent.h"
#include "tests/host/daemon_kit.h"

namespace {

namespace event = host::meaning::event;
namespace health_level = host::meaning::health_level;
namespace system_health_level = host::meaning::system_health_level;
namespace resource = host::meaning::resource;
namespace rule_action = host::meaning::rule_action;

using namespace std::chrono_literals;

class AgentStateTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(TarnAgent_Init("state", dir_.Path().c_str()), 0); }
    void TearDown() override { TarnAgent_Shutdown(); }

    template <class Response, class Request>
    kit::Answer<Unit, Response> Ask(const char *method, const Request &request) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagAgent", self_, method, request);
    }
    template <class Request>
    uint32_t Set(const char *method, const Request &request) {
        const auto answer = Ask<Tarn_sys_diag_Result>(method, request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }
    template <class Request>
    void Tell(const char *method, const Request &request) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagAgent", self_, method, request), 0);
    }

    const uint32_t self_ = static_cast<uint32_t>(getpid());
    const kit::TempDir dir_;
    host::Client client_{{.runDir = dir_.Path()}};
};

Tarn_sys_diag_UpdateMsgCtrlRuleInput Rule(uint32_t id, uint32_t priority, uint32_t action) {
    Tarn_sys_diag_UpdateMsgCtrlRuleInput rule{};
    rule.uiValue1 = id;
    rule.uiValue2 = priority;
    rule.uiValue3 = action;
    return rule;
}

class RuleTest : public AgentStateTest {
protected:
    void TearDown() override {
        EXPECT_EQ(Set("ClearMsgCtrlRule", Tarn_sys_diag_None{}), 0);
        AgentStateTest::TearDown();
    }
    uint32_t Update(const Tarn_sys_diag_UpdateMsgCtrlRuleInput &rule) { return Set("UpdateMsgCtrlRule", rule); }
    auto Rules(uint32_t id = 0, uint32_t skip = 0) {
        return Ask<Tarn_sys_diag_GetMsgRuleInfoResult>("GetMsgCtrlRule",
                                                       Tarn_sys_diag_GetMsgRuleInfoInput{id, skip, 0});
    }
    static bool Passes(uint32_t type, const char *sender, const char *receiver = nullptr) {
        const TarnAgentMessage message{type, sender, receiver, "name"};
        return TarnAgent_MessagePasses(&message) == 1;
    }
};

TEST_F(RuleTest, DecidesByTheFirstRuleThatMatches) {
    EXPECT_TRUE(Passes(1, "anyone")) << "without rules all pass";
    auto drop = Rule(1, 20, rule_action::kDrop);
    drop.uiValue4 = 10;
    drop.uiValue5 = 19;
    auto pass = Rule(2, 10, rule_action::kPass);
    kit::Set(pass.acRule1, "trusted*");
    EXPECT_EQ(Update(drop), 0);
    EXPECT_EQ(Update(pass), 0);
    EXPECT_TRUE(Passes(9, "someone"));
    EXPECT_FALSE(Passes(10, "someone"));
    EXPECT_FALSE(Passes(19, nullptr));
    EXPECT_TRUE(Passes(20, "someone"));
    EXPECT_TRUE(Passes(15, "trusted.1")) << "tried first";

    const auto rules = Rules();
    ASSERT_EQ(rules->uiRuleNum, 2);
    EXPECT_EQ(rules->pstRule[0].stRule.uiValue1, 2) << "in the order in which they are tried";
    EXPECT_STREQ(rules->pstRule[0].stRule.acRule1, "trusted*");
    EXPECT_EQ(rules->pstRule[0].ullMatchNum, 1);
    EXPECT_EQ(rules->pstRule[1].ullMatchNum, 2);
    EXPECT_EQ(rules->pstRule[1].ullDropNum, 2);
    EXPECT_EQ(Rules(1)->uiRuleNum, 1);
    EXPECT_EQ(Rules(0, 1)->pstRule[0].stRule.uiValue1, 1);

    drop.uiValue3 = rule_action::kPass;
    EXPECT_EQ(Update(drop), 0);
    EXPECT_EQ(Rules()->uiRuleNum, 2) << "replaced";
    EXPECT_TRUE(Passes(10, "someone"));
}

TEST_F(RuleTest, TakesNamesWithBlanks) {
    auto drop = Rule(1, 1, rule_action::kDrop);
    kit::Set(drop.acRule1, "worker *");
    kit::Set(drop.acRule2, "main board");
    EXPECT_EQ(Update(drop), 0);
    EXPECT_FALSE(Passes(1, "worker one", "main board"));
    EXPECT_TRUE(Passes(1, "worker one", "main"));
    const auto rules = Rules();
    ASSERT_EQ(rules->uiRuleNum, 1);
    EXPECT_STREQ(rules->pstRule[0].stRule.acRule1, "worker *");
    EXPECT_STREQ(rules->pstRule[0].stRule.acRule2, "main board");
}

TEST_F(RuleTest, RefusesWhatMakesNoSense) {
    EXPECT_EQ(Update(Rule(0, 1, rule_action::kDrop)), EINVAL);
    EXPECT_EQ(
        Ask<Tarn_sys_diag_GetMsgRuleInfoResult>("GetMsgCtrlRule", Tarn_sys_diag_GetMsgRuleInfoInput{0, 0, 1})->uiResult,
        EINVAL)
        << "of another process";
    EXPECT_EQ(TarnAgent_MessagePasses(nullptr), 1);
}

class TimerTest : public AgentStateTest {
protected:
    Tarn_sys_diag_TimerInfo Info(uint32_t id) {
        const auto answer = Ask<Tarn_sys_diag_GetTimerInfoResult>("TarnAgentGetTimerInfo",
                                                                  Tarn_sys_diag_GetTimerInput{id, 0, 0, self_});
        EXPECT_EQ(answer->uiPid, self_);
        EXPECT_EQ(answer->uiTimerNum, 1);
        return answer->uiTimerNum == 1 ? answer->pstTimer[0] : Tarn_sys_diag_TimerInfo{};
    }
    static void Count(uint32_t, void *count) { ++*static_cast<std::atomic<uint32_t> *>(count); }
};

TEST_F(TimerTest, Expires) {
    std::atomic<uint32_t> beats = 0, shots = 0;
    uint32_t periodic = 0, once = 0;
    ASSERT_EQ(TarnAgent_CreateTimer("beat", 10, 1, Count, &beats, &periodic), 0);
    ASSERT_EQ(TarnAgent_CreateTimer("shot", 10, 0, Count, &shots, &once), 0);
    EXPECT_EQ(Info(periodic).ucState, 0);
    EXPECT_EQ(TarnAgent_StartTimer(periodic), 0);
    EXPECT_EQ(TarnAgent_StartTimer(once), 0);
    EXPECT_TRUE(kit::Eventually([&] { return beats >= 2 && shots == 1; }));
    EXPECT_EQ(TarnAgent_StopTimer(periodic), 0);

    const Tarn_sys_diag_TimerInfo shot = Info(once);
    EXPECT_STREQ(shot.szTimerName, "shot");
    EXPECT_EQ(shot.ullExpireNum, 1);
    EXPECT_EQ(shot.ullCallbackAddr, reinterpret_cast<uintptr_t>(&Count));
    Tarn_sys_diag_CallStackInput addresses{0, {shot.ullCallbackAddr}};
    EXPECT_NE(
        std::string(Ask<Tarn_sys_diag_CallStackOutput>("GetCallStackFunction", addresses)->astFuncName[0].szFuncName)
            .find("Count"),
        std::string::npos);

    EXPECT_EQ(TarnAgent_DeleteTimer(periodic), 0);
    EXPECT_EQ(TarnAgent_DeleteTimer(once), 0);
    EXPECT_EQ(TarnAgent_DeleteTimer(once), ENOENT);
    EXPECT_EQ(TarnAgent_StartTimer(once), ENOENT);
    EXPECT_EQ(TarnAgent_StopTimer(once), ENOENT);
    EXPECT_EQ(TarnAgent_CreateTimer("none", 0, 0, Count, nullptr, &once), EINVAL);
    EXPECT_EQ(once, 0);
}

TEST_F(TimerTest, AreToldPageByPage) {
    uint32_t ids[3] = {};
    for (uint32_t &id : ids) {
        ASSERT_EQ(TarnAgent_CreateTimer("idle", 1000, 0, Count, nullptr, &id), 0);
    }
    const auto page =
        Ask<Tarn_sys_diag_GetTimerInfoResult>("TarnAgentGetTimerInfo", Tarn_sys_diag_GetTimerInput{0, 2, 1, 0});
    EXPECT_EQ(page->uiTotalNum, 3);
    ASSERT_EQ(page->uiTimerNum, 1);
    EXPECT_EQ(page->pstTimer[0].uiTimerId, ids[2]);
    const auto foreign =
        Ask<Tarn_sys_diag_GetTimerInfoResult>("TarnAgentGetTimerInfo", Tarn_sys_diag_GetTimerInput{0, 0, 0, 1});
    EXPECT_EQ(foreign->uiResult, EINVAL) << "of another process";
    for (const uint32_t id : ids) {
        EXPECT_EQ(TarnAgent_DeleteTimer(id), 0);
    }
}

TEST_F(TimerTest, TellsWhenItRunsNext) {
    uint32_t id = 0;
    std::atomic<uint32_t> count = 0;
    ASSERT_EQ(TarnAgent_CreateTimer("later", 3600000, 0, Count, &count, &id), 0);
    EXPECT_EQ(TarnAgent_StartTimer(id), 0);
    const Tarn_sys_diag_TimerInfo info = Info(id);
    EXPECT_EQ(info.ucState, 1);
    EXPECT_GT(info.uiRemainMs, 3500000);
    EXPECT_LE(info.uiRemainMs, 3600000);
    EXPECT_EQ(Set("SetNoxTimerDebugSwitch", Tarn_sys_diag_SetNoxTimerDebugSwitchInput{2}), EINVAL);
    EXPECT_EQ(TarnAgent_DeleteTimer(id), 0);
}

class DeadLoopTest : public AgentStateTest {
protected:
    static uint32_t Configure(uint32_t periodMs, uint32_t limitMs) {
        const TarnAgentDeadLoopCfg config{1, periodMs, limitMs, 50, 0, nullptr};
        return TarnAgent_SetDeadLoopCfg(&config);
    }
    void TearDown() override {
        EXPECT_EQ(Configure(1000, 10000), 0);
        AgentStateTest::TearDown();
    }
    auto Config(uint32_t tid = 0, uint32_t onlyLoops = 0) {
        return Ask<Tarn_sys_diag_GetDeadLoopCfgResult>("GetDeadLoopCfg",
                                                       Tarn_sys_diag_GetDeadLoopCfgInput{tid, onlyLoops, self_});
    }
};

TEST_F(DeadLoopTest, FindsTheThreadThatSpins) {
    ASSERT_EQ(Configure(50, 200), 0);
    std::atomic<bool> stop = false;
    std::atomic<uint32_t> tid = 0, exempt = 0;
    const auto spin = [&](std::atomic<uint32_t> &own) {
        own = static_cast<uint32_t>(gettid());
        while (!stop) {
        }
    };
    std::thread spinning([&] {
        pthread_setname_np(pthread_self(), "spinning");
        EXPECT_EQ(TarnAgent_WatchThread(300), 0);
        spin(tid);
    });
    std::thread left([&] {
        EXPECT_EQ(TarnAgent_ExemptThread(), 0);
        spin(exempt);
    });
    EXPECT_TRUE(kit::Eventually([&] { return tid != 0 && Config(tid, 1)->uiThreadNum == 1; }));
    const auto found = Config(tid);
    EXPECT_EQ(found->uiPeriodMs, 50);
    EXPECT_EQ(found->uiLimitMs, 200);
    EXPECT_EQ(found->uiCpuPercent, 50);
    ASSERT_EQ(found->uiThreadNum, 1);
    EXPECT_STREQ(found->pstThread[0].szThreadName, "spinning");
    EXPECT_EQ(found->pstThread[0].uiLimitMs, 300);
    EXPECT_EQ(found->pstThread[0].ucSwitch, 1);
    EXPECT_GE(found->pstThread[0].uiDetectNum, 1) << "a machine that is busy enough breaks the loop";
    ASSERT_EQ(Config(exempt)->uiThreadNum, 1);
    EXPECT_EQ(Config(exempt)->pstThread[0].ucSwitch, 0);
    EXPECT_EQ(Config(exempt)->pstThread[0].uiDetectNum, 0);

    const auto health =
        Ask<Tarn_sys_diag_PadsSystemHealthResult>("TarnPadsGetProcSystemHealthInfo", Tarn_sys_diag_None{});
    const Tarn_sys_diag_SysHealthInfo *const start = health->pstHealthInfo;
    const auto *const end = start + health->uiHealthInfoNum;
    const auto *const loops = std::find_if(
        start, end, [](const Tarn_sys_diag_SysHealthInfo &info) { return strcmp(info.acValue1, "dead-loops") == 0; });
    ASSERT_NE(loops, end);
    EXPECT_NE(loops->ucValue1, health_level::kGood) << loops->acValue4;
    stop = true;
    spinning.join();
    left.join();
    EXPECT_EQ(Config(tid)->uiResult, ESRCH);
}

TEST_F(DeadLoopTest, ChecksItsConfiguration) {
    EXPECT_EQ(Configure(5, 100), EINVAL);
    EXPECT_EQ(Configure(100, 50), EINVAL);
    EXPECT_EQ(TarnAgent_SetDeadLoopCfg(nullptr), EINVAL);
    const uint32_t cpus[] = {0, 1};
    const TarnAgentDeadLoopCfg config{1, 100, 1000, 80, 2, cpus};
    EXPECT_EQ(TarnAgent_SetDeadLoopCfg(&config), 0);
    const auto answer = Config();
    ASSERT_EQ(answer->uiCpuNum, 2);
    EXPECT_EQ(answer->puiCpu[1], 1);
    EXPECT_EQ(answer->uiPeriodMs, 100);
    EXPECT_EQ(answer->uiLimitMs, 1000);
    EXPECT_EQ(answer->uiCpuPercent, 80);
    EXPECT_EQ(answer->ucSwitch, 1);
    EXPECT_GE(answer->uiThreadNum, 2) << "this thread, and the agent's";
    EXPECT_EQ(Config(static_cast<uint32_t>(gettid()))->uiThreadNum, 1);
    EXPECT_EQ(Config(kit::EndedPid())->uiResult, ESRCH);
}

class HealthTest : public AgentStateTest {
protected:
    auto Health() {
        return Ask<Tarn_sys_diag_PadsSystemHealthResult>("TarnPadsGetProcSystemHealthInfo", Tarn_sys_diag_None{});
    }
    // Of the item of a name; ucValue1 255: there is none.
    Tarn_sys_diag_SysHealthInfo Item(const std::string &name) {
        const auto health = Health();
        for (uint32_t i = 0; i < health->uiHealthInfoNum; ++i) {
            if (health->pstHealthInfo[i].acValue1 == name) {
                return health->pstHealthInfo[i];
            }
        }
        Tarn_sys_diag_SysHealthInfo none{};
        none.ucValue1 = 255;
        return none;
    }
};

TEST_F(HealthTest, LooksAtTheProcessAndTheApplicationsItems) {
    EXPECT_EQ(Health()->uiValue2, 1);
    EXPECT_EQ(Item("threads").ucValue1, health_level::kGood);
    EXPECT_STREQ(Item("threads").acValue2, "state");
    const auto now = [] {
        const time_t seconds = time(nullptr);
        tm local{};
        char text[32];
        return std::string(text, strftime(text, sizeof text, "%Y%m%d%H%M%S", localtime_r(&seconds, &local)));
    };
    const std::string before = now(), looked = Item("threads").acValue3;
    EXPECT_LE(before, looked);
    EXPECT_LE(looked, now());
    EXPECT_NE(std::string(Item("threads").acValue4).find(" threads, limit 512"), std::string::npos);
    Tell("TarnPadsSetProcPadsAppFunSwitch", Tarn_sys_diag_PadsAppFunSwitch{1, 1, 1});
    EXPECT_TRUE(kit::Eventually([&] { return Item("threads").ucValue1 == health_level::kBad; }));
    EXPECT_EQ(Health()->uiValue1, health_level::kBad) << "the worst";
    Tell("TarnPadsSetProcPadsAppFunSwitch", Tarn_sys_diag_PadsAppFunSwitch{1, 0, 512});
    EXPECT_TRUE(kit::Eventually([&] { return Item("threads").ucValue1 == system_health_level::kUnknown; }));
    Tell("TarnPadsSetProcPadsAppFunSwitch", Tarn_sys_diag_PadsAppFunSwitch{1, 1, 0});
    EXPECT_TRUE(kit::Eventually([&] { return Item("threads").ucValue1 == health_level::kGood; }));
    EXPECT_EQ(Health()->uiValue1, health_level::kGood);

    static std::atomic<uint32_t> level;
    const TarnAgentHealthCheck check = [](uint32_t limit, char *text, size_t room, void *) {
        snprintf(text, room, "limit %u", limit);
        return level.load();
    };
    level = 7;
    EXPECT_EQ(TarnAgent_AddHealthItem(200, "queue", 5, check, nullptr), 0);
    EXPECT_EQ(Item("queue").ucValue1, health_level::kBad);
    EXPECT_STREQ(Item("queue").acValue4, "limit 5");
    level = 0;
    EXPECT_EQ(Item("queue").ucValue1, health_level::kGood);
    EXPECT_EQ(TarnAgent_AddHealthItem(200, "queue", 5, check, nullptr), EEXIST);
    EXPECT_EQ(TarnAgent_AddHealthItem(63, "queue", 5, check, nullptr), EINVAL);

    Tell("TarnPadsSetProcPadsGlobalSwitch", Tarn_sys_diag_PadsGlobalSwitch{0});
    EXPECT_TRUE(kit::Eventually([&] { return Health()->uiValue1 == system_health_level::kUnknown; }));
    EXPECT_EQ(Health()->uiValue2, 0);
    EXPECT_GE(Health()->uiHealthInfoNum, 7);
    Tell("TarnPadsSetProcPadsGlobalSwitch", Tarn_sys_diag_PadsGlobalSwitch{1});
    EXPECT_TRUE(kit::Eventually([&] { return Health()->uiValue1 == health_level::kGood; }));
}

// Subscribers of the machine's resources, which the daemon is told of.
class ResourceTest : public kit::DaemonTest<Unit> {
protected:
    // It measures the CPU's use over some seconds, and until the second sample it has none to tell: what the agent
    // hears of the CPU is the test's.
    std::vector<std::string> Options() const override { return {"--sample-interval", "60000"}; }
    void SetUp() override {
        kit::DaemonTest<Unit>::SetUp();
        ASSERT_EQ(TarnAgent_Init("state", dir_.Path().c_str()), 0);
    }
    void TearDown() override {
        TarnAgent_Shutdown();
        kit::DaemonTest<Unit>::TearDown();
    }
    uint32_t Update(uint8_t resource, uint8_t level, uint16_t usage) {
        return kit::Call<Unit, Tarn_sys_diag_Result>(client_, "TarnSysdiagAgent", self_, "TarnUpdateResourceInfo",
                                                     Tarn_sys_diag_UpdateResourceInfoInput{resource, level, usage})
            ->uiResult;
    }
    auto Subscriptions(uint32_t events = 0, uint32_t skip = 0) {
        return kit::Call<Unit, Tarn_sys_diag_GetSubscribeInfoResult>(
            client_, "TarnSysdiagAgent", self_, "TarnGetSubscribe",
            Tarn_sys_diag_GetSubscribeInfoInput{events, skip, self_});
    }
    const uint32_t self_ = static_cast<uint32_t>(getpid());
};

TEST_F(ResourceTest, TellsSubscribers) {
    static std::atomic<uint32_t> told;
    told = 0;
    const TarnAgentResourceFunction function = [](uint8_t resource, uint8_t level, uint16_t usage, void *) {
        told += resource == resource::kCpu ? level * 10000U + usage : 0;
    };
    EXPECT_EQ(TarnAgent_Subscribe("cpu", event::kCpu, function, nullptr), 0);
    EXPECT_EQ(TarnAgent_Subscribe("cpu", event::kCpu, function, nullptr), EEXIST);
    EXPECT_EQ(TarnAgent_Subscribe("all", 0x80, function, nullptr), EINVAL);
    EXPECT_EQ(TarnAgent_Subscribe("both", event::kMemory | event::kCpu, function, nullptr), 0);
    EXPECT_TRUE(Logged("process " + std::to_string(self_) + " subscribes to events 0x6"));

    EXPECT_EQ(Update(resource::kCpu, 2, 950), 0);
    EXPECT_EQ(TarnAgent_ResourceLevel(resource::kCpu), 2);
    EXPECT_EQ(TarnAgent_ResourceLevel(resource::kDescriptors), 0);
    EXPECT_EQ(TarnAgent_ResourceLevel(77), 0);
    EXPECT_TRUE(kit::Eventually([] { return told == 2 * 20950; }));
    EXPECT_EQ(Update(0, 0, 0), EINVAL);
    EXPECT_EQ(Update(resource::kCpu, 3, 0), EINVAL);

    EXPECT_TRUE(kit::Eventually([&] { return Subscriptions()->pstSubscribe[1].uiValue2 == 1; }));
    const auto all = Subscriptions();
    ASSERT_EQ(all->uiSubscribeNum, 2);
    EXPECT_STREQ(all->pstSubscribe[0].szName1, "both");
    EXPECT_STREQ(all->pstSubscribe[0].szName2, "cpu+memory");
    EXPECT_EQ(all->uiValue2, event::kMemory | event::kCpu);
    EXPECT_EQ(all->uiValue3, 2);
    EXPECT_EQ(all->uiValue4, self_);
    EXPECT_EQ(Subscriptions(event::kMemory)->uiSubscribeNum, 1);
    EXPECT_EQ(Subscriptions(0, 1)->uiValue3, 2);
    ASSERT_EQ(Subscriptions(0, 1)->uiSubscribeNum, 1);
    EXPECT_STREQ(Subscriptions(0, 1)->pstSubscribe[0].szName1, "cpu");

    daemon_->Signal(SIGKILL);
    daemon_->Wait();
    StartDaemon();
    EXPECT_TRUE(Logged("process " + std::to_string(self_) + " subscribes to events 0x6")) << "a new daemon is told too";
    EXPECT_EQ(TarnAgent_Unsubscribe("both"), 0);
    EXPECT_EQ(TarnAgent_Unsubscribe("cpu"), 0);
    EXPECT_EQ(TarnAgent_Unsubscribe("cpu"), ENOENT);
    EXPECT_EQ(Subscriptions()->uiSubscribeNum, 0);
    EXPECT_TRUE(Logged("process " + std::to_string(self_) + " subscribes to events 0x0, before to 0x6"));
}

bool AllThreadsStopped(uint32_t pid) {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return std::all_of(begin(tasks), end(tasks), [](const std::filesystem::directory_entry &task) {
        return kit::TextOfFile(task.path() / "stat").find(") T ") != std::string::npos;
    });
}

// What the daemon relays of it, and an agent that hangs or goes in mid-call.
class RelayTest : public kit::DaemonTest<Unit> {
protected:
    std::unique_ptr<kit::Process> StartAgent() {
        auto agent = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "example", "--run-dir", dir_.Path()});
        EXPECT_TRUE(kit::Eventually([&] { return kit::TakesCalls(client_, "TarnSysdiagAgent", agent->Pid()); }));
        return agent;
    }
    auto DeadLoopConfig(uint32_t pid) {
        return Call<Tarn_sys_diag_GetDeadLoopCfgResult>("TarnGetDlpCfgFromAgent",
                                                        Tarn_sys_diag_GetDeadLoopCfgInput{0, 0, pid});
    }
    static void Stop(const kit::Process &process) {
        process.Signal(SIGSTOP);
        EXPECT_TRUE(kit::Eventually([&] { return AllThreadsStopped(process.Pid()); }));
    }
    bool DaemonIsBusy() {
        host::ServerHealth health;
        EXPECT_TRUE(host::AskHealth(client_, "TarnSysdiagTarnd", 0, health, 20s).Ok());
        return health.busy != 0;
    }
};

TEST_F(RelayTest, RelaysToTheAgent) {
    const auto agent = StartAgent();
    EXPECT_TRUE(kit::Eventually([&] {
        const auto answer = DeadLoopConfig(agent->Pid());
        return answer.Status() == 0 && std::any_of(answer->pstThread, answer->pstThread + answer->uiThreadNum,
                                                   [](const Tarn_sys_diag_DeadLoopThreadCfg &thread) {
                                                       return strcmp(thread.szThreadName, "counting") == 0 &&
                                                              thread.uiLimitMs == 3000;
                                                   });
    }));
    const auto timers = [&](uint32_t debug) {
        return Call<Tarn_sys_diag_Result>("SetNoxTimerDebugSwitchByTarnd",
                                          Tarn_sys_diag_SetNoxTimerDebugSwitchTarndInput{debug, agent->Pid()});
    };
    EXPECT_EQ(timers(1)->uiResult, 0);
    EXPECT_TRUE(kit::Eventually([&] { return agent->Err().find("\"heartbeat\" expired") != std::string::npos; }));
    EXPECT_EQ(timers(2)->uiResult, EINVAL) << "refused before it reaches the agent";
    EXPECT_EQ(DeadLoopConfig(0)->uiResult, EINVAL);
    EXPECT_EQ(DeadLoopConfig(kit::EndedPid())->uiResult, ESRCH);
    EXPECT_EQ(agent->Stop(), 0);
}

TEST_F(RelayTest, EndsWithAnErrorWhenTheAgentHangs) {
    const auto hanging = StartAgent();
    Stop(*hanging);
    EXPECT_EQ(DeadLoopConfig(hanging->Pid())->uiResult, ETIMEDOUT) << "before the caller's own deadline";
}

TEST_F(RelayTest, EndsWithAnErrorWhenTheAgentIsKilled) {
    const auto killed = StartAgent();
    const uint32_t pid = killed->Pid();
    EXPECT_EQ(DeadLoopConfig(pid).Status(), 0);
    Stop(*killed);
    uint32_t status = 0;
    std::thread caller([&] { status = DeadLoopConfig(pid)->uiResult; });
    EXPECT_TRUE(kit::Eventually([&] { return DaemonIsBusy(); })) << "it waits for the agent";
    killed->Signal(SIGKILL);
    killed->Wait();
    caller.join();
    EXPECT_TRUE(status == ECONNRESET || status == ESRCH) << status;
    EXPECT_EQ(DeadLoopConfig(pid)->uiResult, ESRCH);
    EXPECT_EQ(DeadLoopConfig(StartAgent()->Pid()).Status(), 0) << "the daemon goes on";
}

} // namespace
