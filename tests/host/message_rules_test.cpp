// Message rules: what is taken, how long they last, and that each agent gets those that are for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/refusal.h"
#include "tests/host/simulated_daemon.h"

namespace {

namespace message_rules = host::meaning::message_rules;
namespace rule_action = host::meaning::rule_action;

using namespace std::chrono_literals;

using Rule = Tarn_sys_diag_UpdateMsgCtrlRuleInput;
using Numbers = std::vector<uint32_t>;

constexpr uint32_t kPid = kit::kFakePid, kOther = kPid + 1;

Rule MakeRule(uint32_t id, uint32_t priority, uint32_t action, const std::string &sender = "") {
    Rule rule{};
    rule.uiValue1 = id;
    rule.uiValue2 = priority;
    rule.uiValue3 = action;
    rule.uiValue6 = action == rule_action::kLimit ? 10 : 0;
    sender.copy(rule.acRule1, sizeof rule.acRule1);
    return rule;
}

// Agents that keep rules, by process.
struct RuleKeepers {
    explicit RuleKeepers(kit::FakePeers &peers) {
        peers.On(TARND_AGENT_METHOD(UpdateMsgCtrlRule), [this](uint32_t pid, const Rule &rule, auto &reply) {
            reply.uiResult = result;
            if (result == 0) {
                rules[pid][rule.uiValue1] = rule;
                ++updates;
            }
            return IdlCallResult{0, 0};
        });
        peers.On(TARND_AGENT_METHOD(ClearMsgCtrlRule), [this](uint32_t pid, const auto &, auto &) {
            rules[pid].clear();
            return IdlCallResult{0, 0};
        });
        peers.On(TARND_AGENT_METHOD(GetMsgCtrlRule), [this](uint32_t pid, const auto &, auto &reply) {
            auto &infos = infosOf[pid];
            infos.clear();
            for (const auto &[id, rule] : rules[pid]) {
                infos.push_back({rule, 40 + id, id, 0});
            }
            reply.uiRuleNum = static_cast<uint32_t>(infos.size());
            reply.pstRule = infos.data();
            return IdlCallResult{0, hangs.count(pid) != 0 ? ETIMEDOUT : 0U};
        });
    }

    std::map<uint32_t, std::map<uint32_t, Rule>> rules;
    std::map<uint32_t, std::vector<Tarn_sys_diag_MsgRuleInfo>> infosOf;
    std::set<uint32_t> hangs;
    uint32_t result = 0; // of an update
    int updates = 0;
};

class MessageRulesTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    MessageRulesTest() : SimulatedDaemon(Kept()) {}

    static uint32_t Set(const Rule &rule) {
        return kit::CallMethod<Tarn_sys_diag_Result>(UpdateMsgCtrlRuleTarnd, rule)->uiResult;
    }
    static uint32_t Clear() {
        return kit::CallMethod<Tarn_sys_diag_Result>(ClearMsgCtrlRuleTarnd, Tarn_sys_diag_None{})->uiResult;
    }
    static auto Get(uint32_t id = 0, uint32_t skip = 0, uint32_t pid = 0) {
        return kit::CallMethod<Tarn_sys_diag_GetMsgRuleInfoResult>(TarnGetMsgRuleInfoTarnd,
                                                                   Tarn_sys_diag_GetMsgRuleInfoInput{id, skip, pid});
    }
    static Numbers Ids(uint32_t id = 0, uint32_t skip = 0) {
        const auto answer = Get(id, skip);
        Numbers ids;
        for (uint32_t i = 0; i < answer->uiRuleNum; ++i) {
            ids.push_back(answer->pstRule[i].stRule.uiValue1);
        }
        return ids;
    }

    RuleKeepers keepers_{peers};
};

TEST_F(MessageRulesTest, AreReadBackInTheOrderInWhichTheyAreTried) {
    EXPECT_EQ(Ids(), Numbers{});
    EXPECT_EQ(Set(MakeRule(1, 30, rule_action::kPass, "a*")), 0);
    EXPECT_EQ(Set(MakeRule(2, 10, rule_action::kDrop, "b*")), 0);
    EXPECT_EQ(Set(MakeRule(3, 20, rule_action::kLimit, "c*")), 0);
    EXPECT_EQ(Ids(), (Numbers{2, 3, 1}));
    EXPECT_EQ(Ids(3), Numbers{3});
    EXPECT_EQ(Ids(0, 2), Numbers{1});
    EXPECT_EQ(Ids(0, 9), Numbers{});
    EXPECT_EQ(Set(MakeRule(1, 5, rule_action::kDrop, "d*")), 0);
    EXPECT_EQ(Ids(), (Numbers{1, 2, 3}));
    EXPECT_EQ(Get(1)->pstRule[0].stRule.uiValue3, rule_action::kDrop);
    EXPECT_EQ(std::string(Get(1)->pstRule[0].stRule.acRule1), "d*");
    EXPECT_EQ(Clear(), 0);
    EXPECT_EQ(Ids(), Numbers{});
}

TEST_F(MessageRulesTest, AreRefusedByWhatTheirMembersMean) {
    Rule types = MakeRule(1, 1, rule_action::kPass), rate = MakeRule(1, 1, rule_action::kLimit);
    types.uiValue4 = 5;
    types.uiValue5 = 4;
    rate.uiValue6 = 0;
    const std::pair<Rule, const char *> refusals[] = {
        {MakeRule(0, 1, rule_action::kPass), "rule (uiValue1) is 0, expected at least 1"},
        {MakeRule(1, 1, 0), "action (uiValue3) is 0, expected pass (1), drop (2) or limit (3)"},
        {MakeRule(1, 1, 4), "action (uiValue3) is 4, expected pass (1), drop (2) or limit (3)"},
        {types, "first-type (uiValue4) is 5, expected at most last-type (uiValue5), which is 4"},
        {rate, "rate (uiValue6) is 0, expected at least 1"},
    };
    for (const auto &[rule, expected] : refusals) {
        EXPECT_EQ(Set(rule), EINVAL);
        EXPECT_EQ(kit::Refusal(host::methods::UpdateMsgCtrlRuleTarnd, rule), expected);
    }
    EXPECT_EQ(Ids(), Numbers{});
    types.uiValue5 = 5;
    EXPECT_EQ(Set(types), 0) << "one type";
}

TEST_F(MessageRulesTest, AreForTextsThatCanBeShownAndForAProcessThatThereIs) {
    for (const char *const text : {"a\nb", "a\x7F", "\x80", "\x1F"}) {
        EXPECT_EQ(Set(MakeRule(1, 1, rule_action::kPass, text)), EINVAL);
    }
    Rule rule = MakeRule(1, 1, rule_action::kPass);
    rule.acRule2[0] = '\t';
    EXPECT_EQ(Set(rule), EINVAL);
    rule.acRule2[0] = 'x';
    rule.acRule3[0] = '\x1B';
    const auto refused = kit::CallMethod<Tarn_sys_diag_Result>(UpdateMsgCtrlRuleTarnd, rule);
    EXPECT_EQ(refused->uiResult, EINVAL);
    EXPECT_THAT(refused.Reason(),
                testing::StartsWith("message (acRule3) is \"?\", expected a pattern of printable ASCII characters"));
    rule.acRule3[0] = 0;
    rule.uiValue9 = kPid;
    EXPECT_EQ(Set(rule), ESRCH) << "no such process";
    EXPECT_EQ(Ids(), Numbers{});
    EXPECT_EQ(Set(MakeRule(2, 1, rule_action::kPass, "a b ~!")), 0) << "blanks are text";
}

TEST_F(MessageRulesTest, AreSoManyAtMost) {
    for (uint32_t id = 1; id <= message_rules::kMostInDaemon; ++id) {
        ASSERT_EQ(Set(MakeRule(id, 1, rule_action::kPass, std::string(128, 'x'))), 0);
    }
    EXPECT_EQ(Set(MakeRule(message_rules::kMostInDaemon + 1, 1, rule_action::kPass)), ENOSPC);
    EXPECT_EQ(Set(MakeRule(message_rules::kMostInDaemon, 0, rule_action::kDrop)), 0) << "it replaces one";
    EXPECT_EQ(Ids().size(), message_rules::kMostInDaemon);
}

TEST_F(MessageRulesTest, AreKeptAsTheyWereSet) {
    proc.SetThread(kPid, kit::FakeProc::MakeTask(kPid, "program"));
    Rule rule = MakeRule(1, 2, rule_action::kLimit, "a b*");
    rule.uiValue4 = 4;
    rule.uiValue5 = 5;
    rule.uiValue6 = 6;
    rule.uiValue7 = 7;
    rule.uiValue8 = 8;
    rule.uiValue9 = kPid;
    host::CopyText(rule.acRule2, "second");
    std::string(sizeof rule.acRule3, 'z').copy(rule.acRule3, sizeof rule.acRule3);
    EXPECT_EQ(Set(rule), 0);
    Pass(3s);
    Restart();
    const auto answer = Get();
    ASSERT_EQ(answer->uiRuleNum, 1);
    const Tarn_sys_diag_MsgRuleInfo &kept = answer->pstRule[0];
    EXPECT_EQ(memcmp(&kept.stRule, &rule, sizeof rule), 0);
    EXPECT_EQ(kept.uiAgeSec, 3);
    clocks.SetWall(clocks.WallNow() - 1h);
    EXPECT_EQ(Get()->pstRule[0].uiAgeSec, 0) << "a clock that was set back";
}

TEST_F(MessageRulesTest, EndWhenTheirTimeIsOverAlsoWithoutTheDaemon) {
    Rule soon = MakeRule(1, 1, rule_action::kDrop), late = MakeRule(2, 2, rule_action::kDrop);
    soon.uiValue8 = 2;
    late.uiValue8 = 1000;
    EXPECT_EQ(Set(soon), 0);
    EXPECT_EQ(Set(late), 0);
    Pass(1999ms);
    EXPECT_EQ(Ids(), (Numbers{1, 2}));
    Pass(1ms);
    EXPECT_EQ(Ids(), Numbers{2});
    clocks.Advance(997s);
    Restart();
    EXPECT_EQ(Ids(), Numbers{2});
    EXPECT_EQ(Get()->pstRule[0].uiAgeSec, 999);
    clocks.Advance(1s);
    Restart();
    EXPECT_EQ(Ids(), Numbers{});
}

TEST_F(MessageRulesTest, EndWithTheProcessThatTheyAreFor) {
    host::procfs::Task task = kit::FakeProc::MakeTask(kPid, "program");
    for (const bool another : {false, true}) {
        task.startTicks = 7;
        proc.SetThread(kPid, task);
        Rule rule = MakeRule(1, 1, rule_action::kDrop);
        rule.uiValue9 = kPid;
        EXPECT_EQ(Set(rule), 0);
        EXPECT_EQ(Ids(), Numbers{1});
        proc.RemoveProcess(kPid);
        if (another) {
            task.startTicks = 8;
            proc.SetThread(kPid, task);
        }
        EXPECT_EQ(Ids(), Numbers{});
    }
}

TEST_F(MessageRulesTest, AreBroughtToTheAgentsThatTheyAreFor) {
    AddAgent(kPid, "first");
    AddAgent(kOther, "second");
    Rule ofFirst = MakeRule(2, 1, rule_action::kLimit);
    ofFirst.uiValue8 = 1000;
    ofFirst.uiValue9 = kPid;
    EXPECT_EQ(Set(MakeRule(1, 1, rule_action::kDrop, "a*")), 0);
    EXPECT_EQ(Set(ofFirst), 0);
    Pass(0s);
    EXPECT_EQ(keepers_.rules[kPid].size(), 2);
    EXPECT_EQ(keepers_.rules[kOther].size(), 1);
    EXPECT_EQ(std::string(keepers_.rules[kOther].at(1).acRule1), "a*");
    EXPECT_EQ(keepers_.rules[kPid].at(2).uiValue8, 1000);
    EXPECT_EQ(keepers_.updates, 3);
    Pass(10s);
    EXPECT_EQ(Set(MakeRule(1, 1, rule_action::kDrop, "a*")), 0);
    RunDue();
    EXPECT_EQ(keepers_.updates, 3) << "they have all of it: their counts go on";
    EXPECT_EQ(Set(MakeRule(1, 2, rule_action::kDrop, "a*")), 0);
    RunDue();
    EXPECT_EQ(keepers_.updates, 5);
    Rule forGood = ofFirst;
    forGood.uiValue8 = 0;
    EXPECT_EQ(Set(forGood), 0);
    RunDue();
    EXPECT_EQ(keepers_.rules[kPid].at(2).uiValue8, 0) << "it had an end";
    EXPECT_EQ(Clear(), 0);
    RunDue();
    EXPECT_TRUE(keepers_.rules[kPid].empty());
    EXPECT_TRUE(keepers_.rules[kOther].empty());
}

TEST_F(MessageRulesTest, HaveInAnAgentThatComesLaterWhatIsLeftOfTheirTime) {
    Rule timed = MakeRule(1, 1, rule_action::kDrop);
    timed.uiValue8 = 1000;
    EXPECT_EQ(Set(timed), 0);
    Pass(10s);
    keepers_.rules[kPid][7] = MakeRule(7, 1, rule_action::kPass); // which the daemon does not know
    AddAgent(kPid, "later");
    RunDue();
    ASSERT_EQ(keepers_.rules[kPid].size(), 1);
    EXPECT_EQ(keepers_.rules[kPid].at(1).uiValue8, 990);
    Pass(990s - 1ms);
    AddAgent(kOther, "last");
    RunDue();
    EXPECT_EQ(keepers_.rules[kOther].at(1).uiValue8, 1) << "never 0, which is for good";
}

TEST_F(MessageRulesTest, AreBroughtAgainWhenAnAgentDidNotTakeThem) {
    AddAgent(kPid, "busy");
    keepers_.result = EBUSY;
    EXPECT_EQ(Set(MakeRule(1, 1, rule_action::kDrop)), 0);
    RunDue();
    keepers_.result = 0;
    RunDue();
    EXPECT_EQ(keepers_.updates, 0);
    Pass(1s);
    EXPECT_EQ(keepers_.updates, 1);
}

TEST_F(MessageRulesTest, AreCountedInAllAgentsThatAnswer) {
    for (const uint32_t pid : {kPid, kOther, kOther + 1}) {
        AddAgent(pid, "agent");
    }
    EXPECT_EQ(Set(MakeRule(3, 1, rule_action::kDrop)), 0);
    RunDue();
    keepers_.hangs = {kPid};
    peers.calls.clear();
    const auto answer = Get();
    ASSERT_EQ(answer->uiRuleNum, 1);
    EXPECT_EQ(answer->pstRule[0].ullMatchNum, 86) << "43 of each";
    EXPECT_EQ(answer->pstRule[0].ullDropNum, 6);
    ASSERT_EQ(peers.calls.size(), 3);
    EXPECT_EQ(peers.calls[0].timeoutMs, 500);
    EXPECT_EQ(Get(0, 0, kOther)->uiRuleNum, 1);
    EXPECT_EQ(Get(0, 0, kOther + 9)->uiResult, ESRCH) << "no agent there";
}

TEST_F(MessageRulesTest, AreCountedWithinOneTimeHoweverManyAgentsAreSilent) {
    for (uint32_t i = 0; i < 200; ++i) {
        AddAgent(kPid + i, "agent");
        keepers_.hangs.insert(kPid + i);
    }
    EXPECT_EQ(Set(MakeRule(3, 1, rule_action::kDrop)), 0);
    host::SteadyTime until;
    peers.On(TARND_AGENT_METHOD(GetMsgCtrlRule), [&](uint32_t, const auto &, auto &) {
        clocks.Advance(std::max<std::chrono::nanoseconds>(until - clocks.SteadyNow(), 0ns)); // all wait in vain
        return IdlCallResult{0, ETIMEDOUT};
    });
    for (int i = 0; i < 3; ++i) {
        peers.calls.clear();
        until = clocks.SteadyNow() + std::chrono::milliseconds(tarnd::MessageRules::kCountingMs);
        EXPECT_EQ(Get()->uiRuleNum, 1);
        EXPECT_EQ(clocks.SteadyNow(), until);
        EXPECT_LE(peers.calls.size(), 16) << "those that were asked when the time passed";
    }
}

} // namespace
