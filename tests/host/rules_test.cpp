// Message rules, brought to agents in other processes.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"

#include "host/runtime/status.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/fake_agent.h"

namespace {

namespace rule_action = host::meaning::rule_action;

using Rule = Tarn_sys_diag_UpdateMsgCtrlRuleInput;
using RuleInfo = Tarn_sys_diag_MsgRuleInfo;

Rule MakeRule(uint32_t id, uint32_t priority, uint32_t action, const std::string &sender) {
    Rule rule{};
    rule.uiValue1 = id;
    rule.uiValue2 = priority;
    rule.uiValue3 = action;
    rule.uiValue6 = action == rule_action::kLimit ? 10 : 0;
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

private:
    std::mutex mutex_;
    std::map<uint32_t, Rule> rules_;
    std::vector<RuleInfo> infos_;
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
    const uint32_t pid_ = static_cast<uint32_t>(getpid());
};

TEST_F(RulesTest, AreBroughtToTheAgents) {
    FakeAgent agent(dir_.Path());
    RuleKeeper keeper;
    keeper.ServeIn(agent);
    ASSERT_EQ(FakeAgent::Register(client_, "keeper"), 0);
    ASSERT_EQ(Set(MakeRule(1, 1, rule_action::kDrop, "a*")), 0);
    Rule forOther = MakeRule(2, 1, rule_action::kDrop, "");
    forOther.uiValue9 = daemon_->Pid();
    ASSERT_EQ(Set(forOther), 0);
    Rule timed = MakeRule(3, 1, rule_action::kLimit, "");
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
    EXPECT_EQ(Get(0, 0, daemon_->Pid())->uiResult, ESRCH) << "no agent there";

    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(kit::Eventually([&] { return keeper.Rules().empty(); }));
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
    ASSERT_EQ(Set(MakeRule(1, 1, rule_action::kDrop, "a*")), 0);
    ASSERT_EQ(Set(MakeRule(2, 2, rule_action::kLimit, "b*")), 0);
    EXPECT_TRUE(kit::Eventually([&] { return ofAgent() == 2; })) << daemon_->Err();
    daemon_.reset(); // kills it
    StartDaemon();
    EXPECT_EQ(ofAgent(), 2);
    ASSERT_TRUE(Logged("agent tester of process " + std::to_string(agent.Pid()) + " has registered"));
    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(kit::Eventually([&] { return ofAgent() == 0; })) << daemon_->Err();
}

// What is set in an agent through the daemon.
class RelayedSettingsTest : public kit::DaemonTest<Unit> {
protected:
    uint32_t Scan(uint32_t scan) {
        return Call<Tarn_sys_diag_MemDmgScanOut>("SetMemDmgScanTarnd", Tarn_sys_diag_MemDmgScanInTarnd{scan, pid_})
            ->uiResult;
    }
    std::string Settings() {
        const std::string question = R"({"kinds": ["setting"]})";
        const host::CallOutcome outcome =
            client_.Call({.service = host::kRuntimeService,
                          .method = "Events",
                          .request = {reinterpret_cast<const uint8_t *>(question.data()), question.size()},
                          .deadline = std::chrono::seconds(10),
                          .socketOf = "TarnSysdiagTarnd"});
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        return {outcome.bytes.begin(), outcome.bytes.end()};
    }
    const uint32_t pid_ = static_cast<uint32_t>(getpid()); // of the agent
};

TEST_F(RelayedSettingsTest, AreInTheJournalWithWhoSetThem) {
    namespace damage_scan = host::meaning::damage_scan;
    FakeAgent agent(dir_.Path());
    agent.On<Tarn_sys_diag_MemDmgScanIn, Tarn_sys_diag_MemDmgScanOut>(
        "SetMemDmgScan", [](const auto &request, auto &reply) {
            reply.uiResult = request.uiScanSwitch == damage_scan::kOnce ? EBUSY : 0;
        });
    EXPECT_EQ(Scan(damage_scan::kOnce), EBUSY);
    EXPECT_EQ(Scan(damage_scan::kOn), 0);
    ASSERT_TRUE(kit::Eventually([&] { return Settings().find("SetMemDmgScanTarnd") != std::string::npos; }));
    const std::string settings = Settings();
    const std::string text =
        "SetMemDmgScanTarnd scan=on process=" + std::to_string(pid_) + ", by user " + std::to_string(geteuid());
    EXPECT_NE(settings.find(text), std::string::npos) << settings;
    EXPECT_NE(settings.find(R"("process":"rules_test")"), std::string::npos) << settings;
    EXPECT_EQ(settings.find("scan=once"), std::string::npos) << "the agent did not do it: " << settings;
}

} // namespace
