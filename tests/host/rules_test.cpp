// Message rules, subscriptions and timers, kept by the daemon and brought to an agent.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/master.h"
#include "types/tarnd.h"

#include <atomic>

#include "host/values/agent.h"
#include "host/values/daemon.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/fake_agent.h"

namespace {

using namespace std::chrono_literals;

using Rule = Tarn_sys_diag_UpdateMsgCtrlRuleInput;
using RuleInfo = Tarn_sys_diag_MsgRuleInfo;

Rule MakeRule(uint32_t id, uint32_t priority, uint32_t action, const std::string &sender) {
    Rule rule{};
    rule.uiValue1 = id;
    rule.uiValue2 = priority;
    rule.uiValue3 = action;
    rule.uiValue6 = action == TARN_AGENT_RULE_LIMIT ? 10 : 0;
    kit::Set(rule.acRule1, sender);
    return rule;
}

// Keeps rules as an agent does.
class RuleKeeper {
public:
    void ServeIn(FakeAgent &agent) {
        agent.On<Rule, Tarn_sys_diag_Result>("UpdateMsgCtrlRule", [this](const Rule &rule, auto &) {
            const std::lock_guard lock(mutex_);
            rules_[rule.uiValue1] = rule;
            ++updates_;
        });
        agent.On<Tarn_sys_diag_None, Tarn_sys_diag_Result>("ClearMsgCtrlRule", [this](const auto &, auto &) {
            const std::lock_guard lock(mutex_);
            rules_.clear();
        });
        agent.On<Tarn_sys_diag_GetMsgRuleInfoInput, Tarn_sys_diag_GetMsgRuleInfoResult>(
            "GetMsgCtrlRule", [this](const auto &, auto &reply) {
                const std::lock_guard lock(mutex_);
                infos_.clear();
                for (const auto &[id, rule] : rules_) {
                    infos_.push_back({rule, 40 + id, id, 0});
                }
                reply.uiRuleNum = static_cast<uint32_t>(infos_.size());
                reply.pstRule = infos_.empty() ? nullptr : infos_.data();
            });
    }
    std::map<uint32_t, Rule> Rules() {
        const std::lock_guard lock(mutex_);
        return rules_;
    }
    uint32_t Updates() {
        const std::lock_guard lock(mutex_);
        return updates_;
    }
    void Put(const Rule &rule) {
        const std::lock_guard lock(mutex_);
        rules_[rule.uiValue1] = rule;
    }

private:
    std::mutex mutex_;
    std::map<uint32_t, Rule> rules_;
    std::vector<RuleInfo> infos_;
    uint32_t updates_ = 0;
};

class RulesTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--state-dir", dir_.Path() / "state"}; }

    uint32_t Set(const Rule &rule) {
        const auto answer = Call<Tarn_sys_diag_Result>("UpdateMsgCtrlRuleTarnd", rule);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }
    uint32_t Clear() { return Call<Tarn_sys_diag_Result>("ClearMsgCtrlRuleTarnd", Tarn_sys_diag_None{})->uiResult; }
    kit::Answer<Unit, Tarn_sys_diag_GetMsgRuleInfoResult> Get(uint32_t id = 0, uint32_t skip = 0, uint32_t pid = 0) {
        return Call<Tarn_sys_diag_GetMsgRuleInfoResult>("TarnGetMsgRuleInfoTarnd",
                                                        Tarn_sys_diag_GetMsgRuleInfoInput{id, skip, pid});
    }
    std::vector<uint32_t> Ids(uint32_t id = 0, uint32_t skip = 0) {
        const auto answer = Get(id, skip);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        std::vector<uint32_t> ids;
        for (uint32_t i = 0; i < answer->uiRuleNum; ++i) {
            ids.push_back(answer->pstRule[i].stRule.uiValue1);
        }
        return ids;
    }

    const uint32_t pid_ = static_cast<uint32_t>(getpid());
};

using Numbers = std::vector<uint32_t>;

TEST_F(RulesTest, AreReadBackInTheOrderInWhichTheyAreTried) {
    EXPECT_EQ(Ids(), Numbers{});
    ASSERT_EQ(Set(MakeRule(1, 30, TARN_AGENT_RULE_PASS, "a*")), 0);
    ASSERT_EQ(Set(MakeRule(2, 10, TARN_AGENT_RULE_DROP, "b*")), 0);
    ASSERT_EQ(Set(MakeRule(3, 20, TARN_AGENT_RULE_LIMIT, "c*")), 0);
    EXPECT_EQ(Ids(), (Numbers{2, 3, 1}));
    EXPECT_EQ(Ids(3), Numbers{3});
    EXPECT_EQ(Ids(0, 2), Numbers{1});
    EXPECT_EQ(Ids(0, 9), Numbers{});
    ASSERT_EQ(Set(MakeRule(1, 5, TARN_AGENT_RULE_DROP, "d*")), 0);
    EXPECT_EQ(Ids(), (Numbers{1, 2, 3}));
    const auto first = Get(1);
    EXPECT_EQ(first->pstRule[0].stRule.uiValue3, TARN_AGENT_RULE_DROP);
    EXPECT_EQ(std::string(first->pstRule[0].stRule.acRule1), "d*");
    EXPECT_EQ(Clear(), 0);
    EXPECT_EQ(Ids(), Numbers{});
}

TEST_F(RulesTest, AreChecked) {
    EXPECT_EQ(Set(MakeRule(0, 1, TARN_AGENT_RULE_PASS, "")), EINVAL);
    EXPECT_EQ(Set(MakeRule(1, 1, 0, "")), EINVAL);
    EXPECT_EQ(Set(MakeRule(1, 1, 4, "")), EINVAL);
    EXPECT_EQ(Set(MakeRule(1, 1, TARN_AGENT_RULE_PASS, "a\nb")), EINVAL);
    Rule rule = MakeRule(1, 1, TARN_AGENT_RULE_LIMIT, "");
    rule.uiValue6 = 0;
    EXPECT_EQ(Set(rule), EINVAL);
    rule = MakeRule(1, 1, TARN_AGENT_RULE_PASS, "");
    rule.uiValue4 = 5;
    rule.uiValue5 = 4;
    EXPECT_EQ(Set(rule), EINVAL);
    rule = MakeRule(1, 1, TARN_AGENT_RULE_PASS, "");
    rule.uiValue9 = kit::EndedPid();
    EXPECT_EQ(Set(rule), ESRCH);
    EXPECT_EQ(Ids(), Numbers{});
    for (uint32_t id = 1; id <= TARND_RULES_MAX; ++id) {
        ASSERT_EQ(Set(MakeRule(id, 1, TARN_AGENT_RULE_PASS, std::string(128, 'x'))), 0);
    }
    EXPECT_EQ(Set(MakeRule(TARND_RULES_MAX + 1, 1, TARN_AGENT_RULE_PASS, "")), ENOSPC);
    EXPECT_EQ(Set(MakeRule(TARND_RULES_MAX, 0, TARN_AGENT_RULE_DROP, "")), 0) << "it replaces one";
    EXPECT_EQ(Ids().size(), TARND_RULES_MAX);
}

TEST_F(RulesTest, OutliveTheDaemonButNotTheirTime) {
    Rule soon = MakeRule(1, 1, TARN_AGENT_RULE_DROP, "");
    soon.uiValue8 = 2;
    Rule late = MakeRule(2, 2, TARN_AGENT_RULE_DROP, "peer");
    late.uiValue8 = 1000;
    ASSERT_EQ(Set(soon), 0);
    ASSERT_EQ(Set(late), 0);
    daemon_.reset(); // kills it
    StartDaemon();
    EXPECT_TRUE(kit::Eventually([&] { return Ids() == Numbers{2}; }));
    const auto kept = Get(2);
    EXPECT_EQ(kept->pstRule[0].stRule.uiValue8, 1000);
    EXPECT_EQ(std::string(kept->pstRule[0].stRule.acRule1), "peer");
    EXPECT_LT(kept->pstRule[0].uiAgeSec, 60);
    EXPECT_TRUE(kit::Eventually([&] { return Get(2)->pstRule[0].uiAgeSec >= 1; }));
}

TEST_F(RulesTest, EndWithTheProcessThatTheyAreFor) {
    auto process = std::make_unique<kit::Process>(dir_.Path(), std::vector<std::string>{"/bin/sleep", "1000"});
    Rule rule = MakeRule(1, 1, TARN_AGENT_RULE_DROP, "");
    rule.uiValue9 = process->Pid();
    ASSERT_EQ(Set(rule), 0);
    EXPECT_EQ(Ids(), Numbers{1});
    process.reset();
    EXPECT_EQ(Ids(), Numbers{});
}

TEST_F(RulesTest, AreBroughtToTheAgents) {
    FakeAgent agent(dir_.Path());
    RuleKeeper keeper;
    keeper.ServeIn(agent);
    ASSERT_EQ(FakeAgent::Register(client_, "keeper"), 0);
    ASSERT_EQ(Set(MakeRule(1, 1, TARN_AGENT_RULE_DROP, "a*")), 0);
    Rule forOther = MakeRule(2, 1, TARN_AGENT_RULE_DROP, "");
    forOther.uiValue9 = daemon_->Pid();
    ASSERT_EQ(Set(forOther), 0);
    Rule timed = MakeRule(3, 1, TARN_AGENT_RULE_LIMIT, "");
    timed.uiValue8 = 1000;
    timed.uiValue9 = pid_;
    ASSERT_EQ(Set(timed), 0);
    ASSERT_TRUE(kit::Eventually([&] { return keeper.Rules().size() == 2; }));
    EXPECT_EQ(std::string(keeper.Rules().at(1).acRule1), "a*");
    EXPECT_EQ(keeper.Rules().at(3).uiValue6, 10);
    EXPECT_NEAR(keeper.Rules().at(3).uiValue8, 1000, 20);

    const auto counted = Get(3);
    ASSERT_EQ(counted->uiRuleNum, 1);
    EXPECT_EQ(counted->pstRule[0].ullMatchNum, 43) << "what the agent says";
    EXPECT_EQ(counted->pstRule[0].ullDropNum, 3);
    const auto ofAgent = Get(0, 0, pid_);
    ASSERT_EQ(ofAgent.Status(), 0) << ofAgent.Text();
    EXPECT_EQ(ofAgent->uiRuleNum, 2);
    EXPECT_EQ(Get(0, 0, daemon_->Pid()).Status(), ESRCH) << "no agent there";

    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(kit::Eventually([&] { return keeper.Rules().empty(); }));
}

TEST_F(RulesTest, AreBroughtToAnAgentThatComesLater) {
    ASSERT_EQ(Set(MakeRule(1, 1, TARN_AGENT_RULE_DROP, "a*")), 0);
    ASSERT_EQ(Set(MakeRule(2, 1, TARN_AGENT_RULE_DROP, "b*")), 0);
    FakeAgent agent(dir_.Path());
    RuleKeeper keeper;
    keeper.Put(MakeRule(1, 1, TARN_AGENT_RULE_DROP, "a*")); // as from a daemon before
    keeper.ServeIn(agent);
    ASSERT_EQ(FakeAgent::Register(client_, "keeper"), 0);
    ASSERT_TRUE(kit::Eventually([&] { return keeper.Rules().size() == 2; }));
    EXPECT_EQ(keeper.Updates(), 1) << "its counts go on for the one that it has";

    keeper.Put(MakeRule(7, 1, TARN_AGENT_RULE_PASS, "")); // one that the daemon does not know
    daemon_.reset();
    StartDaemon();
    ASSERT_EQ(FakeAgent::Register(client_, "keeper"), 0);
    EXPECT_TRUE(kit::Eventually([&] { return keeper.Rules().count(7) == 0 && keeper.Rules().size() == 2; }));
}

TEST_F(RulesTest, AreBroughtAgainWhenAnAgentDidNotTakeThem) {
    FakeAgent agent(dir_.Path());
    RuleKeeper keeper;
    keeper.ServeIn(agent);
    std::atomic<bool> busy = true;
    agent.On<Rule, Tarn_sys_diag_Result>("UpdateMsgCtrlRule", [&](const Rule &rule, auto &reply) {
        reply.uiResult = busy ? EBUSY : 0;
        if (!busy) {
            keeper.Put(rule);
        }
    });
    ASSERT_EQ(FakeAgent::Register(client_, "keeper"), 0);
    ASSERT_EQ(Set(MakeRule(1, 1, TARN_AGENT_RULE_DROP, "a*")), 0);
    ASSERT_TRUE(Logged("courier: UpdateMsgCtrlRule of the agent"));
    busy = false;
    EXPECT_TRUE(kit::Eventually([&] { return keeper.Rules().size() == 1; }));
}

TEST_F(RulesTest, DropsAgentsWhoseProcessHasGone) {
    kit::Process agent(dir_.Path(), {TARN_AGENT, "--name", "shortlived", "--run-dir", dir_.Path()});
    const std::string name = "agent shortlived of process " + std::to_string(agent.Pid());
    ASSERT_TRUE(Logged(name + " has registered"));
    agent.Signal(SIGKILL);
    EXPECT_TRUE(Logged(name + " has gone with it"));
}

TEST_F(RulesTest, AreInForceInTheAgentAlsoAfterTheDaemonCameBack) {
    kit::Process agent(dir_.Path(), {TARN_AGENT, "--name", "tester", "--run-dir", dir_.Path()});
    const auto ofAgent = [&] {
        const auto answer = Get(0, 0, agent.Pid());
        return answer.Status() == 0 ? answer->uiRuleNum : UINT32_MAX;
    };
    ASSERT_TRUE(Logged("agent tester of process " + std::to_string(agent.Pid()) + " has registered"));
    ASSERT_EQ(Set(MakeRule(1, 1, TARN_AGENT_RULE_DROP, "a*")), 0);
    ASSERT_EQ(Set(MakeRule(2, 2, TARN_AGENT_RULE_LIMIT, "b*")), 0);
    EXPECT_TRUE(kit::Eventually([&] { return ofAgent() == 2; })) << daemon_->Err();
    daemon_.reset(); // kills it
    StartDaemon();
    EXPECT_EQ(ofAgent(), 2);
    ASSERT_TRUE(Logged("agent tester of process " + std::to_string(agent.Pid()) + " has registered"));
    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(kit::Eventually([&] { return ofAgent() == 0; })) << daemon_->Err();
}

class SubscriptionTest : public RulesTest {
protected:
    uint32_t Subscribe(uint32_t pid, uint32_t events) {
        return kit::Call<Unit, Tarn_sys_diag_Result>(client_, "TarnSysdiagTarndAgent", 0, "TarnAppSubscribe",
                                                     Tarn_sys_diag_AppSubscribeInput{pid, events})
            ->uiResult;
    }
    kit::Answer<Unit, Tarn_sys_diag_GetSubscribeInfoResult> List(uint32_t events = 0, uint32_t skip = 0,
                                                                 uint32_t pid = 0) {
        return Call<Tarn_sys_diag_GetSubscribeInfoResult>("TarnGetSubscribeInfoTarnd",
                                                          Tarn_sys_diag_GetSubscribeInfoInput{events, skip, pid});
    }
};

TEST_F(SubscriptionTest, AreReadBack) {
    EXPECT_EQ(List()->uiSubscribeNum, 0);
    auto other = std::make_unique<kit::Process>(dir_.Path(), std::vector<std::string>{"/bin/sleep", "1000"});
    ASSERT_EQ(Subscribe(pid_, TARN_AGENT_EVENT_CPU | TARN_AGENT_EVENT_MEMORY), 0);
    ASSERT_EQ(Subscribe(other->Pid(), TARN_AGENT_EVENT_DESCRIPTORS), 0);
    const auto all = List();
    ASSERT_EQ(all.Status(), 0) << all.Text();
    ASSERT_EQ(all->uiSubscribeNum, 2);
    EXPECT_EQ(all->uiValue2, TARN_AGENT_EVENT_CPU | TARN_AGENT_EVENT_MEMORY | TARN_AGENT_EVENT_DESCRIPTORS);
    EXPECT_EQ(all->uiValue3, 2);
    EXPECT_EQ(all->uiValue4, daemon_->Pid());
    const auto own = List(TARN_AGENT_EVENT_MEMORY);
    ASSERT_EQ(own->uiSubscribeNum, 1);
    EXPECT_EQ(own->pstSubscribe[0].uiValue2, pid_);
    EXPECT_EQ(own->pstSubscribe[0].uiValue1, TARN_AGENT_EVENT_CPU | TARN_AGENT_EVENT_MEMORY);
    EXPECT_EQ(std::string(own->pstSubscribe[0].szName1), "rules_test");
    EXPECT_EQ(std::string(own->pstSubscribe[0].szName2), "CPU memory");
    EXPECT_EQ(List(0, 1)->uiSubscribeNum, 1);
    other.reset();
    EXPECT_EQ(List()->uiSubscribeNum, 1) << "it has ended with its process";
    ASSERT_EQ(Subscribe(pid_, 0), 0);
    EXPECT_EQ(List()->uiSubscribeNum, 0);
}

TEST_F(SubscriptionTest, OfAnAgentAreAskedOfIt) {
    FakeAgent agent(dir_.Path());
    Tarn_sys_diag_SubscribeInfo info{};
    kit::Set(info.szName1, "within");
    agent.On<Tarn_sys_diag_GetSubscribeInfoInput, Tarn_sys_diag_GetSubscribeInfoResult>(
        "TarnGetSubscribe", [&](const auto &request, auto &reply) {
            reply.uiSubscribeNum = 1;
            reply.pstSubscribe = &info;
            reply.uiValue4 = request.uiValue3;
        });
    const auto answer = List(0, 0, pid_);
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    ASSERT_EQ(answer->uiSubscribeNum, 1);
    EXPECT_EQ(std::string(answer->pstSubscribe[0].szName1), "within");
    EXPECT_EQ(answer->uiValue4, pid_);
}

class TimerTest : public RulesTest {
protected:
    kit::Answer<Unit, Tarn_sys_diag_GetTimerInfoResult> List(uint32_t id = 0, uint32_t skip = 0, uint32_t most = 0,
                                                             uint32_t pid = 0) {
        return Call<Tarn_sys_diag_GetTimerInfoResult>("TarnGetTimerInfoTarnd",
                                                      Tarn_sys_diag_GetTimerInput{id, skip, most, pid});
    }
    Tarn_sys_diag_TimerInfo Find(const std::string &name) {
        const auto all = List();
        EXPECT_EQ(all.Status(), 0) << all.Text();
        for (uint32_t i = 0; i < all->uiTimerNum; ++i) {
            if (name == all->pstTimer[i].szTimerName) {
                return all->pstTimer[i];
            }
        }
        ADD_FAILURE() << "no timer " << name;
        return {};
    }
};

TEST_F(TimerTest, TellsWhatBecomesOfItsOwn) {
    const Tarn_sys_diag_TimerInfo agents = Find("agents");
    EXPECT_EQ(agents.ucPeriodic, 1);
    EXPECT_NE(agents.ucState, 0);
    EXPECT_GT(agents.uiPeriodMs, 0);
    EXPECT_LE(agents.uiRemainMs, agents.uiPeriodMs);
    EXPECT_NE(agents.ullCallbackAddr, 0);
    EXPECT_EQ(agents.uiTid, daemon_->Pid()) << "its first thread";
    EXPECT_TRUE(kit::Eventually([&] { return Find("agents").ullExpireNum > agents.ullExpireNum; }));

    EXPECT_EQ(Find("measurement").ucState, 0) << "stopped until it has times";
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "TarnSetDimTimeCfgByTarnd",
                                Tarn_sys_diag_DimTimeCfg{TARND_DIM_EVERY_MINUTES, 5}),
              0);
    EXPECT_TRUE(kit::Eventually([&] { return Find("measurement").ucState == 1; }));
    EXPECT_EQ(Find("measurement").uiPeriodMs, 300000);

    const auto all = List();
    const auto second = List(0, 1, 1);
    ASSERT_EQ(second->uiTimerNum, 1);
    EXPECT_EQ(second->uiTotalNum, all->uiTimerNum);
    EXPECT_EQ(second->pstTimer[0].uiTimerId, all->pstTimer[1].uiTimerId);
    EXPECT_EQ(second->uiPid, daemon_->Pid());
    EXPECT_EQ(List(agents.uiTimerId)->uiTimerNum, 1);
    EXPECT_EQ(List(999)->uiTimerNum, 0);
}

TEST_F(TimerTest, OfAnAgentAreAskedOfIt) {
    EXPECT_EQ(List(0, 0, 0, pid_).Status(), ESRCH) << "no agent yet";
    FakeAgent agent(dir_.Path());
    agent.On<Tarn_sys_diag_GetTimerInput, Tarn_sys_diag_GetTimerInfoResult>("TarnAgentGetTimerInfo",
                                                                            [](const auto &request, auto &reply) {
                                                                                reply.uiPid = request.uiValue4;
                                                                                reply.uiTotalNum = request.uiValue1;
                                                                            });
    const auto answer = List(77, 0, 0, pid_);
    ASSERT_EQ(answer.Status(), 0) << answer.Text();
    EXPECT_EQ(answer->uiPid, pid_);
    EXPECT_EQ(answer->uiTotalNum, 77);
}

TEST_F(TimerTest, AreThereWhenTheDayTimeOfAMeasurementComes) {
    time_t now = time(nullptr);
    if (now % 60 > 50) { // else the minute may end on the way
        std::this_thread::sleep_for(std::chrono::seconds(60 - now % 60));
        now = time(nullptr);
    }
    const time_t due = now - now % 60 + 60;
    const tm *const local = localtime(&due);
    EXPECT_EQ(kit::Oneway<Unit>(
                  client_, "TarnSysdiagTarnd", 0, "TarnSetDimTimeCfgByTarnd",
                  Tarn_sys_diag_DimTimeCfg{static_cast<uint8_t>(local->tm_hour), static_cast<uint8_t>(local->tm_min)}),
              0);
    ASSERT_TRUE(kit::Eventually([&] { return Find("measurement").ucState == 1; }));
    const Tarn_sys_diag_TimerInfo timer = Find("measurement");
    EXPECT_EQ(timer.ucPeriodic, 0);
    EXPECT_NEAR(timer.uiRemainMs, static_cast<double>(due - time(nullptr)) * 1000, 2500);
}

} // namespace
