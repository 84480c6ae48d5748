// The agent's parts, one by one, on clocks and samples that the test owns.

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "host/agent/app_timers.h"
#include "host/agent/commands.h"
#include "host/agent/dead_loops.h"
#include "host/agent/health.h"
#include "host/agent/message_rules.h"
#include "host/agent/own_health.h"
#include "host/agent/periodic.h"
#include "host/agent/process.h"
#include "host/agent/resources.h"
#include "host/meaning/choices.h"
#include "host/osal/text.h"
#include "tests/host/descriptor_limit.h"
#include "tests/host/error_of.h"
#include "tests/host/eventually.h"
#include "tests/host/manual_clocks.h"
#include "tests/host/refusal.h"
#include "tests/host/temp_dir.h"

namespace {

namespace event = host::meaning::event;
namespace health_level = host::meaning::health_level;
namespace resource = host::meaning::resource;
namespace rule_action = host::meaning::rule_action;

using namespace std::chrono_literals;
using agent::AppTimers;
using agent::CommandQueue;
using agent::CommandResult;
using agent::CommandTable;
using agent::DeadLoops;
using agent::Health;
using agent::MessageRules;
using agent::Resources;
using agent::ThreadSample;
using std::chrono::milliseconds;

// The errno value of what a function throws; 0 when it throws nothing.
using kit::ErrorOf;

TEST(AgentRequests, AreRefusedByWhatTheirMembersMean) {
    namespace methods = host::methods;
    const auto refusalOf = [](const MessageRules::Rule &rule) {
        return kit::Refusal(methods::UpdateMsgCtrlRule, ToRecord(rule));
    };
    Tarn_sys_diag_GetAppMemInfoInput units{}, modules{}, view{};
    units.uiQueryType = 1;
    modules.uiModuleId = 7;
    view.uiQueryType = 3;
    const std::pair<std::string, const char *> refusals[] = {
        {refusalOf({.action = rule_action::kDrop}), "rule (uiValue1) is 0, expected at least 1"},
        {refusalOf({.number = 1, .action = 4}), "action (uiValue3) is 4, expected pass (1), drop (2) or limit (3)"},
        {refusalOf({.number = 1, .action = rule_action::kDrop, .firstType = 5, .lastType = 4}),
         "first-type (uiValue4) is 5, expected at most last-type (uiValue5), which is 4"},
        {refusalOf({.number = 1, .action = rule_action::kLimit}), "rate (uiValue6) is 0, expected at least 1"},
        {refusalOf({.number = 1, .action = rule_action::kDrop}), ""},
        {kit::Refusal(methods::TarnUpdateResourceInfo, {0, 0, 0}),
         "resource (ucResource) is 0, expected cpu (1), memory (2) or descriptors (3)"},
        {kit::Refusal(methods::TarnUpdateResourceInfo, {1, 3, 0}),
         "level (ucLevel) is 3, expected normal (0), near-limit (1) or overloaded (2)"},
        {kit::Refusal(methods::TarnPadsSetProcPadsGlobalSwitch, {2}), "on (ucGlobalSwitch) is 2, expected 0 to 1"},
        {kit::Refusal(methods::TarnPadsSetProcPadsAppFunSwitch, {64, 2, 0}), "on (ucSwitch) is 2, expected 0 to 1"},
        {kit::Refusal(methods::SetNoxTimerDebugSwitch, {2}), "on (uiDebugSwitch) is 2, expected 0 to 1"},
        {kit::Refusal(methods::MemDiag_ma, {6, 0, nullptr}),
         "command (uiMemCmd) is 6, expected summary (1), blocks (2), mark (3), since (4) or look (5)"},
        {kit::Refusal(methods::SetMemDmgScan, {3}), "scan (uiScanSwitch) is 3, expected off (0), on (1) or once (2)"},
        {kit::Refusal(methods::GetMemDmgInfo, {3}),
         "report (uiInfoType) is 3, expected both (0), damages (1) or hostages (2)"},
        {kit::Refusal(methods::TarnGetAppMemUnitInfo, units), "view (uiQueryType) is 1, expected units (0)"},
        {kit::Refusal(methods::TarnGetAppMemUnitInfo, modules), "module (uiModuleId) is 7, expected 0"},
        {kit::Refusal(methods::TarnGetAppMemDetailOrModuleInfo, view),
         "view (uiQueryType) is 3, expected 0 (stands for 1), details (1) or modules (2)"},
    };
    for (const auto &[refusal, expected] : refusals) {
        EXPECT_EQ(refusal, expected);
    }
}

class MessageRulesTest : public testing::Test {
protected:
    static MessageRules::Rule Rule(uint32_t id, uint32_t priority, uint32_t action) {
        return {.number = id, .priority = priority, .action = action};
    }
    static MessageRules::Rule Limit(uint32_t inASecond, uint32_t atOnce) {
        MessageRules::Rule rule = Rule(1, 1, rule_action::kLimit);
        rule.rate = inASecond;
        rule.burst = atOnce;
        return rule;
    }
    bool Passes(uint32_t type = 1, const char *sender = "s", const char *receiver = "r", const char *name = "n") {
        return rules_.Passes({type, sender, receiver, name});
    }
    int PassedOf(int messages) {
        int passed = 0;
        for (int i = 0; i < messages; ++i) {
            passed += Passes() ? 1 : 0;
        }
        return passed;
    }
    std::vector<uint32_t> Ids() {
        std::vector<uint32_t> ids;
        for (const Tarn_sys_diag_MsgRuleInfo &info : rules_.Get(0)) {
            ids.push_back(info.stRule.uiValue1);
        }
        return ids;
    }

    kit::ManualClocks clocks_;
    MessageRules rules_{clocks_};
};

TEST_F(MessageRulesTest, LimitsARate) {
    rules_.Update(Limit(20, 3));
    EXPECT_EQ(PassedOf(10), 3) << "at once";
    clocks_.Advance(49ms);
    EXPECT_EQ(PassedOf(10), 0);
    clocks_.Advance(1ms);
    EXPECT_EQ(PassedOf(10), 1);
    clocks_.Advance(10s);
    EXPECT_EQ(PassedOf(10), 3) << "no more than at once, however long it was quiet";
    const Tarn_sys_diag_MsgRuleInfo info = rules_.Get(1).at(0);
    EXPECT_EQ(info.ullMatchNum, 40);
    EXPECT_EQ(info.ullDropNum, 33);
    EXPECT_EQ(info.uiAgeSec, 10);
}

TEST_F(MessageRulesTest, LimitsARateForAnHour) {
    rules_.Update(Limit(20, 0));
    EXPECT_EQ(PassedOf(30), 20) << "as many at once as in a second";
    int passed = 0;
    for (int i = 0; i < 3600 * 100; ++i) {
        clocks_.Advance(10ms);
        passed += PassedOf(1);
    }
    EXPECT_NEAR(passed, 3600 * 20, 1);
}

TEST_F(MessageRulesTest, EndsInTime) {
    MessageRules::Rule drop = Rule(1, 1, rule_action::kDrop);
    drop.lasts = 2;
    rules_.Update(drop);
    rules_.Update(Rule(2, 2, rule_action::kPass));
    clocks_.Advance(1999ms);
    EXPECT_FALSE(Passes());
    EXPECT_EQ(rules_.Get(1).at(0).uiAgeSec, 1);
    clocks_.Advance(1ms);
    EXPECT_TRUE(Passes());
    EXPECT_EQ(Ids(), std::vector<uint32_t>{2});
    clocks_.Advance(24h);
    EXPECT_EQ(Ids(), std::vector<uint32_t>{2}) << "never, if it doesn't say when";
}

TEST_F(MessageRulesTest, MatchesTypesAndEachName) {
    MessageRules::Rule drop = Rule(1, 1, rule_action::kDrop);
    drop.firstType = 10;
    drop.lastType = 19;
    rules_.Update(drop);
    EXPECT_TRUE(Passes(9));
    EXPECT_FALSE(Passes(10));
    EXPECT_FALSE(Passes(19));
    EXPECT_TRUE(Passes(20));

    drop = Rule(1, 1, rule_action::kDrop);
    drop.sender = "from *";
    drop.receiver = "[ab]?";
    drop.message = "status report";
    rules_.Update(drop);
    EXPECT_FALSE(Passes(77, "from here", "b2", "status report")) << "names and patterns may have blanks";
    EXPECT_TRUE(Passes(77, "from", "b2", "status report"));
    EXPECT_TRUE(Passes(77, "from here", "c2", "status report"));
    EXPECT_TRUE(Passes(77, "from here", "b2", "status"));
    EXPECT_TRUE(Passes(77, nullptr, "b2", "status report"));
    EXPECT_STREQ(rules_.Get(1).at(0).stRule.acRule3, "status report");

    drop = Rule(1, 1, rule_action::kDrop);
    drop.sender = std::string(sizeof(Tarn_sys_diag_UpdateMsgCtrlRuleInput::acRule1), 'x');
    rules_.Update(host::meaning::FromRecord(ToRecord(drop)));
    EXPECT_FALSE(Passes(1, drop.sender.c_str())) << "a full array has no terminating 0";
    EXPECT_TRUE(Passes(1, "x"));
}

TEST_F(MessageRulesTest, TriesThemByPriorityAndThenByAge) {
    rules_.Update(Rule(5, 20, rule_action::kDrop));
    rules_.Update(Rule(6, 10, rule_action::kPass));
    rules_.Update(Rule(7, 20, rule_action::kPass));
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{6, 5, 7}));
    EXPECT_TRUE(Passes());
    rules_.Update(Rule(6, 30, rule_action::kPass));
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{5, 7, 6})) << "replaced";
    EXPECT_FALSE(Passes());
    EXPECT_EQ(rules_.Get(6).at(0).ullMatchNum, 0) << "counts anew";
    EXPECT_EQ(rules_.Get(5).at(0).ullDropNum, 1);
    EXPECT_EQ(rules_.Get(7).at(0).ullMatchNum, 0) << "only the first that matches counts";
    EXPECT_TRUE(rules_.Get(8).empty());
    rules_.Clear();
    EXPECT_TRUE(Passes());
    EXPECT_TRUE(Ids().empty());
}

TEST_F(MessageRulesTest, AreSoManyAtMost) {
    const auto error = [&](const MessageRules::Rule &rule) { return ErrorOf([&] { rules_.Update(rule); }); };
    for (uint32_t id = 1; id <= 256; ++id) {
        EXPECT_EQ(error(Rule(id, 1, rule_action::kPass)), 0);
    }
    EXPECT_EQ(error(Rule(257, 1, rule_action::kPass)), ENOSPC);
    EXPECT_EQ(error(Rule(256, 2, rule_action::kPass)), 0) << "one that is there";
    EXPECT_EQ(Ids().size(), 256);
}

class AppTimersTest : public testing::Test {
protected:
    // What each expiry does, with the timer's id.
    using Function = std::function<void(uint32_t id)>;

    uint32_t Create(const char *name, uint32_t periodMs, bool periodic, Function &function) {
        uint32_t id = 0;
        EXPECT_EQ(timers_.Create(name, periodMs, periodic, Call, &function, id), 0);
        return id;
    }
    static void Call(uint32_t id, void *function) { (*static_cast<Function *>(function))(id); }
    Tarn_sys_diag_TimerInfo Info(uint32_t id) { return timers_.Get(id).at(0); }
    // Drives the timers as a thread of the agent does, for so long.
    void RunFor(milliseconds time) {
        const auto end = clocks_.SteadyNow() + time;
        for (milliseconds next = timers_.ExpireNext(); clocks_.SteadyNow() + next <= end; next = timers_.ExpireNext()) {
            clocks_.Advance(std::max(next, 0ms));
        }
        clocks_.Advance(end - clocks_.SteadyNow());
    }

    kit::ManualClocks clocks_;
    int wakes_ = 0;
    AppTimers timers_{clocks_, [this] { ++wakes_; }};
    std::vector<uint32_t> expired_;
    Function note_ = [this](uint32_t id) { expired_.push_back(id); };
};

TEST_F(AppTimersTest, ExpireForAnHour) {
    const uint32_t beat = Create("beat", 100, true, note_), shot = Create("shot", 250, false, note_);
    EXPECT_EQ(timers_.ExpireNext(), 1h) << "none runs";
    EXPECT_EQ(timers_.Start(beat), 0);
    EXPECT_EQ(timers_.Start(shot), 0);
    EXPECT_EQ(wakes_, 2);
    EXPECT_EQ(timers_.ExpireNext(), 100ms);
    EXPECT_EQ(Info(beat).ucState, 1);
    EXPECT_EQ(Info(beat).uiRemainMs, 100);
    RunFor(300ms);
    EXPECT_EQ(expired_, (std::vector<uint32_t>{beat, beat, shot, beat})) << "by time";
    EXPECT_EQ(Info(shot).ucState, 0);
    EXPECT_EQ(Info(shot).uiRemainMs, 0);
    RunFor(1h);
    EXPECT_EQ(Info(beat).ullExpireNum, 3 + 36000);
    EXPECT_EQ(Info(shot).ullExpireNum, 1);
    EXPECT_EQ(Info(beat).uiMaxDelayUs, 0);
    EXPECT_EQ(timers_.Stop(beat), 0);
    RunFor(1h);
    EXPECT_EQ(Info(beat).ullExpireNum, 3 + 36000);
}

TEST_F(AppTimersTest, TellWhatTheyAre) {
    const uint32_t beat = Create("beat", 10, true, note_), other = Create("other", 86400000, false, note_);
    const Tarn_sys_diag_TimerInfo info = Info(beat);
    EXPECT_EQ(info.uiTimerId, beat);
    EXPECT_STREQ(info.szTimerName, "beat");
    EXPECT_EQ(info.uiTid, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(info.ucPeriodic, 1);
    EXPECT_EQ(info.uiPeriodMs, 10);
    EXPECT_EQ(info.ullCallbackAddr, reinterpret_cast<uintptr_t>(&Call));
    EXPECT_EQ(Info(other).ucPeriodic, 0);
    EXPECT_EQ(timers_.Get(0).size(), 2);
    EXPECT_TRUE(timers_.Get(4711).empty());
    timers_.Start(other);
    clocks_.Advance(1500us);
    EXPECT_EQ(Info(other).uiRemainMs, 86400000 - 1) << "rounded up";
    EXPECT_EQ(timers_.ExpireNext(), 1h) << "looks again, at the latest";
}

TEST_F(AppTimersTest, KeepTheirBeatAndMeasureDelays) {
    Function late = [this](uint32_t id) {
        expired_.push_back(id);
        clocks_.Advance(25ms);
    };
    const uint32_t beat = Create("beat", 10, true, late);
    timers_.Start(beat);
    clocks_.Advance(13ms);
    EXPECT_EQ(timers_.ExpireNext(), 2ms) << "due at 10, ran from 13 to 38, is due at 40";
    EXPECT_EQ(Info(beat).uiMaxDelayUs, 3000);
    EXPECT_EQ(Info(beat).uiMaxRunUs, 25000);
    clocks_.Advance(2ms);
    timers_.ExpireNext();
    EXPECT_EQ(Info(beat).ullExpireNum, 2) << "those that were missed are left out";
    EXPECT_EQ(Info(beat).uiMaxDelayUs, 3000) << "the longest";
}

TEST_F(AppTimersTest, MayBeChangedByTheirFunction) {
    Function deleteOwn = [this](uint32_t id) { expired_.push_back(timers_.Delete(id)); };
    Function stopOwn = [this](uint32_t id) {
        EXPECT_EQ(Info(id).ucState, 2);
        expired_.push_back(timers_.Stop(id));
    };
    Function startOwn = [this](uint32_t id) {
        clocks_.Advance(1ms);
        expired_.push_back(timers_.Start(id));
    };
    Function fail = [](uint32_t) { throw std::runtime_error("from a timer"); };
    for (Function *function : {&deleteOwn, &stopOwn, &startOwn, &fail}) {
        timers_.Start(Create("own", 10, true, *function));
    }
    clocks_.Advance(10ms);
    for (int i = 0; i < 4; ++i) {
        timers_.ExpireNext();
    }
    EXPECT_EQ(expired_, (std::vector<uint32_t>{0, 0, 0}));
    const auto left = timers_.Get(0);
    ASSERT_EQ(left.size(), 3);
    EXPECT_EQ(left[0].ucState, 0) << "stopped";
    EXPECT_EQ(left[1].ucState, 1);
    EXPECT_EQ(left[1].uiRemainMs, 10) << "started anew";
    EXPECT_EQ(left[2].ucState, 1) << "goes on";
    EXPECT_EQ(left[2].ullExpireNum, 1);
}

TEST_F(AppTimersTest, WaitForTheirFunctionWhenTheyAreDeleted) {
    std::promise<void> begun, mayEnd;
    std::atomic<bool> ended = false;
    Function slow = [&](uint32_t) {
        begun.set_value();
        mayEnd.get_future().wait();
        ended = true;
    };
    const uint32_t id = Create("slow", 1, false, slow), other = Create("other", 1, false, note_);
    timers_.Start(id);
    clocks_.Advance(1ms);
    std::thread driver([&] { timers_.ExpireNext(); });
    begun.get_future().wait();
    EXPECT_EQ(timers_.Delete(other), 0) << "doesn't wait for another's";
    std::thread releaser([&] {
        kit::Await("the timer is gone from the list", [&] { return timers_.Get(id).empty(); });
        mayEnd.set_value();
    });
    EXPECT_EQ(timers_.Delete(id), 0);
    EXPECT_TRUE(ended);
    driver.join();
    releaser.join();
}

TEST_F(AppTimersTest, CheckTheirArguments) {
    uint32_t id = 77;
    EXPECT_EQ(timers_.Create(nullptr, 1, false, Call, nullptr, id), EINVAL);
    EXPECT_EQ(timers_.Create("", 1, false, Call, nullptr, id), EINVAL);
    EXPECT_EQ(timers_.Create(std::string(32, 'x').c_str(), 1, false, Call, nullptr, id), EINVAL);
    EXPECT_EQ(timers_.Create("none", 0, false, Call, nullptr, id), EINVAL);
    EXPECT_EQ(timers_.Create("none", 86400001, false, Call, nullptr, id), EINVAL);
    EXPECT_EQ(timers_.Create("none", 1, false, nullptr, nullptr, id), EINVAL);
    EXPECT_EQ(id, 77);
    EXPECT_EQ(timers_.Create(std::string(31, 'x').c_str(), 1, false, Call, nullptr, id), 0);
    EXPECT_EQ(timers_.Delete(id), 0);
    EXPECT_EQ(timers_.Delete(id), ENOENT);
    EXPECT_EQ(timers_.Start(id), ENOENT);
    EXPECT_EQ(timers_.Stop(id), ENOENT);
    EXPECT_EQ(wakes_, 0);
}

class DeadLoopsTest : public testing::Test {
protected:
    // A second passes in which the threads are busy for so many milliseconds each.
    milliseconds Second(std::map<uint32_t, int> busyMs) {
        clocks_.Advance(1s);
        std::erase_if(busy_, [&](const auto &entry) { return busyMs.count(entry.first) == 0; });
        for (const auto &[tid, ms] : busyMs) {
            busy_[tid] += milliseconds(ms);
        }
        return loops_.Check();
    }
    void Seconds(int number, const std::map<uint32_t, int> &busyMs) {
        for (int i = 0; i < number; ++i) {
            Second(busyMs);
        }
    }
    std::vector<ThreadSample> Sample() {
        if (atSample_) {
            atSample_();
        }
        std::vector<ThreadSample> samples;
        for (const auto &[tid, busy] : busy_) {
            samples.push_back({tid, "thread", cpus_[tid], busy, clocks_.SteadyNow()});
        }
        return samples;
    }
    static TarnAgentDeadLoopCfg Config() { return {1, 1000, 10000, 90, 0, nullptr}; }

    kit::ManualClocks clocks_;
    std::map<uint32_t, std::chrono::nanoseconds> busy_;
    std::map<uint32_t, uint32_t> cpus_;
    std::function<void()> atSample_;
    int wakes_ = 0;
    DeadLoops loops_{[this] { return Sample(); }, [this] { ++wakes_; }};
};

TEST_F(DeadLoopsTest, FindsOneOnceForEachRun) {
    EXPECT_EQ(Second({{1, 1000}, {2, 100}}), 1s);
    Seconds(9, {{1, 1000}, {2, 100}});
    EXPECT_EQ(loops_.LoopNum(), 0) << "nine seconds: the first look only begins to count";
    Second({{1, 1000}, {2, 100}});
    EXPECT_EQ(loops_.LoopNum(), 1);
    EXPECT_EQ(loops_.GetThread(1).detectNum, 1);
    EXPECT_EQ(loops_.GetThread(2).detectNum, 0);
    Seconds(3600, {{1, 1000}, {2, 100}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 1) << "once";
    Second({{1, 0}, {2, 100}});
    EXPECT_EQ(loops_.LoopNum(), 0) << "it took a break";
    Seconds(10, {{1, 1000}, {2, 100}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 2);
}

TEST_F(DeadLoopsTest, TakesTheShareThatCountsAsUnbroken) {
    Seconds(60, {{1, 899}, {2, 900}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 0);
    EXPECT_EQ(loops_.GetThread(2).detectNum, 1);
}

TEST_F(DeadLoopsTest, WatchesAThreadAsItAsks) {
    loops_.Watch(1, 3000);
    loops_.Exempt(2);
    loops_.Watch(3, 0);
    Seconds(4, {{1, 1000}, {2, 1000}, {3, 1000}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 1);
    EXPECT_EQ(loops_.GetThread(1).limit, 3000ms);
    EXPECT_EQ(loops_.GetThread(3).detectNum, 0) << "the common limit";
    EXPECT_FALSE(loops_.GetThread(3).limit);
    Seconds(7, {{1, 1000}, {2, 1000}, {3, 1000}});
    EXPECT_EQ(loops_.GetThread(3).detectNum, 1);
    EXPECT_EQ(loops_.GetThread(2).detectNum, 0) << "exempt";
    EXPECT_FALSE(loops_.GetThread(2).watched);
    loops_.Watch(2, 0);
    Seconds(10, {{1, 1000}, {2, 1000}, {3, 1000}});
    EXPECT_EQ(loops_.GetThread(2).detectNum, 1);
}

TEST_F(DeadLoopsTest, ForgetsThreadsThatHaveEnded) {
    loops_.Watch(1, 3000);
    Second({{1, 1000}, {2, 1000}});
    Second({{2, 1000}});
    EXPECT_FALSE(loops_.GetThread(1).limit);
    atSample_ = [this] { loops_.Watch(3, 4321); }; // it began after the threads were listed
    Second({{2, 1000}});
    EXPECT_EQ(loops_.GetThread(3).limit, 4321ms);
}

TEST_F(DeadLoopsTest, TakesItsConfiguration) {
    const uint32_t cpu = 3;
    TarnAgentDeadLoopCfg config = Config();
    config.uiPeriodMs = 2000;
    config.uiLimitMs = 2000;
    config.uiCpuPercent = 50;
    config.uiCpuNum = 1;
    config.puiCpu = &cpu;
    EXPECT_EQ(loops_.Configure(config), 0);
    EXPECT_EQ(wakes_, 1);
    cpus_ = {{1, 3}, {2, 0}};
    EXPECT_EQ(Second({{1, 500}, {2, 500}}), 2s);
    Seconds(2, {{1, 500}, {2, 500}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 1);
    EXPECT_EQ(loops_.GetThread(2).detectNum, 0) << "not on that CPU";

    EXPECT_EQ(loops_.Configure(config), 0);
    Seconds(2, {{1, 500}, {2, 500}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 1) << "what came before does not count";
    Second({{1, 500}, {2, 500}});
    EXPECT_EQ(loops_.GetThread(1).detectNum, 2);

    config.ucSwitch = 0;
    EXPECT_EQ(loops_.Configure(config), 0);
    EXPECT_EQ(Second({{4, 1000}}), 2s);
    Seconds(10, {{4, 1000}});
    EXPECT_EQ(loops_.GetThread(4).detectNum, 0);
    EXPECT_EQ(loops_.GetConfig().cpus, std::vector<uint32_t>{3});
    EXPECT_FALSE(loops_.GetConfig().on);
}

TEST_F(DeadLoopsTest, ChecksItsConfiguration) {
    const auto result = [&](auto change) {
        TarnAgentDeadLoopCfg config = Config();
        change(config);
        return loops_.Configure(config);
    };
    EXPECT_EQ(result([](auto &config) { config.ucSwitch = 2; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiPeriodMs = 9; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiPeriodMs = 10; }), 0);
    EXPECT_EQ(result([](auto &config) { config.uiPeriodMs = config.uiLimitMs = 60001; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiPeriodMs = config.uiLimitMs = 60000; }), 0);
    EXPECT_EQ(result([](auto &config) { config.uiLimitMs = 999; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiCpuPercent = 0; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiCpuPercent = 101; }), EINVAL);
    EXPECT_EQ(result([](auto &config) { config.uiCpuPercent = 100; }), 0);
    EXPECT_EQ(result([](auto &config) { config.uiCpuNum = 1; }), EINVAL);
}

TEST(ThreadSamples, AreReadFromTheProcess) {
    const kit::TempDir proc;
    const std::filesystem::path own = proc.Path() / std::to_string(agent::OwnPid()), task = own / "task" / "17";
    std::filesystem::create_directories(task);
    std::ofstream(own / "status") << "Tgid:\t" << agent::OwnPid() << "\n";
    std::ofstream(own / "stat") << agent::OwnPid()
                                << " (x) S 1 17 17 0 -1 64 0 0 0 0 5 6 0 0 20 0 1 0 99 0 0 1 0 0 0 0 0 "
                                   "0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
    std::ofstream(task / "stat") << "17 (a b) R 1 17 17 0 -1 64 0 0 0 0 5 6 0 0 20 0 1 0 99 0 0 1 0 0 0 0 0 0 0 0 0 "
                                    "0 0 0 17 7 0 0 0 0 0\n";
    std::ofstream(task / "schedstat") << "3000000 4000000 9\n";
    const kit::ManualClocks clocks;
    const auto samples = agent::SampleThreads(host::procfs::Procfs(proc.Path()), clocks);
    ASSERT_EQ(samples.size(), 1);
    EXPECT_EQ(samples[0].tid, 17);
    EXPECT_EQ(samples[0].name, "a b");
    EXPECT_EQ(samples[0].lastCpu, 7);
    EXPECT_EQ(samples[0].busy, 7ms) << "waiting for a CPU is no break";
    EXPECT_EQ(samples[0].when, clocks.SteadyNow());
}

class ResourcesTest : public testing::Test {
protected:
    struct Told {
        uint8_t resource, level;
        uint16_t usage;
        bool operator==(const Told &) const = default;
    };
    static void Tell(uint8_t resource, uint8_t level, uint16_t usage, void *told) {
        static_cast<std::vector<Told> *>(told)->push_back({resource, level, usage});
    }

    int wakes_ = 0;
    Resources resources_{[this] { ++wakes_; }};
};

TEST_F(ResourcesTest, TellsThoseWhoWantIt) {
    std::vector<Told> memory, both;
    EXPECT_EQ(resources_.Subscribe("memory", event::kMemory, Tell, &memory), 0);
    EXPECT_EQ(resources_.Subscribe("both", event::kMemory | event::kCpu, Tell, &both), 0);
    EXPECT_EQ(resources_.Events(), event::kMemory | event::kCpu);
    resources_.Update({resource::kMemory, 2, 950});
    resources_.Update({resource::kCpu, 1, 800});
    resources_.Update({resource::kDescriptors, 1, 700});
    EXPECT_EQ(wakes_, 3);
    EXPECT_TRUE(memory.empty()) << "on the agent's thread";
    resources_.TellAll();
    const Told ofMemory{resource::kMemory, 2, 950}, ofCpu{resource::kCpu, 1, 800};
    EXPECT_EQ(memory, std::vector<Told>{ofMemory});
    EXPECT_EQ(both, (std::vector<Told>{ofMemory, ofCpu}));
    EXPECT_EQ(resources_.Subscriptions().at("both").toldNum, 2);
    EXPECT_EQ(resources_.Subscriptions().at("memory").toldNum, 1);
    EXPECT_EQ(resources_.LevelOf(resource::kMemory), 2);
    EXPECT_EQ(resources_.LevelOf(resource::kDescriptors), 1);
    EXPECT_EQ(resources_.LevelOf(4), 0);
    resources_.TellAll();
    EXPECT_EQ(both.size(), 2) << "once";
}

TEST_F(ResourcesTest, DropsTheOldestWhileASubscriberHangs) {
    std::vector<Told> told;
    resources_.Subscribe("all", event::kCpu, Tell, &told);
    for (uint16_t usage = 1; usage <= 70; ++usage) {
        resources_.Update({resource::kCpu, 1, usage});
    }
    resources_.TellAll();
    ASSERT_EQ(told.size(), 64);
    EXPECT_EQ(told.front().usage, 7);
    EXPECT_EQ(told.back().usage, 70);
}

TEST_F(ResourcesTest, SurvivesASubscriberThatThrowsAndOneThatLeaves) {
    static Resources *leaving;
    leaving = &resources_;
    const TarnAgentResourceFunction leave = [](uint8_t, uint8_t, uint16_t, void *) { leaving->Unsubscribe("1"); };
    const TarnAgentResourceFunction fail = [](uint8_t, uint8_t, uint16_t, void *) { throw std::runtime_error("no"); };
    std::vector<Told> told;
    resources_.Subscribe("1", event::kCpu, leave, nullptr);
    resources_.Subscribe("2", event::kCpu, fail, nullptr);
    resources_.Subscribe("3", event::kCpu, Tell, &told);
    resources_.Update({resource::kCpu, 1, 1});
    resources_.TellAll();
    EXPECT_EQ(told.size(), 1);
    EXPECT_EQ(resources_.Subscriptions().size(), 2);
    EXPECT_EQ(resources_.Subscriptions().at("2").toldNum, 1);
}

TEST_F(ResourcesTest, ChecksItsArguments) {
    EXPECT_EQ(resources_.Subscribe(nullptr, 2, Tell, nullptr), EINVAL);
    EXPECT_EQ(resources_.Subscribe("", 2, Tell, nullptr), EINVAL);
    EXPECT_EQ(resources_.Subscribe(std::string(32, 'x').c_str(), 2, Tell, nullptr), EINVAL);
    EXPECT_EQ(resources_.Subscribe("x", 0, Tell, nullptr), EINVAL);
    EXPECT_EQ(resources_.Subscribe("x", 1, Tell, nullptr), EINVAL) << "no such event";
    EXPECT_EQ(resources_.Subscribe("x", event::kCpu, nullptr, nullptr), EINVAL);
    EXPECT_EQ(resources_.Subscribe(std::string(31, 'x').c_str(), event::kCpu, Tell, nullptr), 0);
    EXPECT_EQ(resources_.Subscribe(std::string(31, 'x').c_str(), event::kCpu, Tell, nullptr), EEXIST);
    EXPECT_EQ(resources_.Unsubscribe(nullptr), EINVAL);
    EXPECT_EQ(resources_.Unsubscribe("none"), ENOENT);
}

class HealthTest : public testing::Test {
protected:
    // The texts of what is on, by name.
    std::map<std::string, std::string> Texts() {
        std::map<std::string, std::string> texts;
        for (const Health::Result &result : health_.Look()) {
            if (result.level != host::meaning::system_health_level::kUnknown) {
                texts[result.name] = result.text;
            }
        }
        return texts;
    }
    static Health::Finding Limit(uint32_t limit) { return {health_level::kDegraded, std::to_string(limit)}; }

    Health health_{{{1, {"one", 10, Limit}}, {2, {"two", 20, Limit}}}};
};

using Texts = std::map<std::string, std::string>;

TEST_F(HealthTest, LooksAtWhatIsOn) {
    EXPECT_EQ(Texts(), (::Texts{{"one", "10"}, {"two", "20"}}));
    EXPECT_EQ(health_.Look()[0].level, health_level::kDegraded);
    health_.Set(1, false, 0);
    EXPECT_EQ(Texts(), (::Texts{{"two", "20"}}));
    EXPECT_EQ(health_.Look()[0].text, "switched off");
    health_.Set(1, true, 11);
    EXPECT_EQ(Texts(), (::Texts{{"one", "11"}, {"two", "20"}}));
    health_.Set(0, true, 5);
    EXPECT_EQ(Texts(), (::Texts{{"one", "5"}, {"two", "5"}}));
    health_.Set(0, false, 0);
    EXPECT_TRUE(Texts().empty());
    health_.Set(2, true, 0);
    EXPECT_EQ(Texts(), (::Texts{{"two", "5"}})) << "its limit as it was";
    EXPECT_EQ(ErrorOf([&] { health_.Set(3, true, 1); }), ENOENT);
    EXPECT_TRUE(health_.IsOn());
    health_.SetAll(false);
    EXPECT_FALSE(health_.IsOn());
    EXPECT_TRUE(Texts().empty());
    health_.SetAll(true);
    EXPECT_EQ(Texts(), (::Texts{{"two", "5"}}));
}

TEST_F(HealthTest, TakesTheApplicationsItems) {
    const Health::Check fail = [](uint32_t) -> Health::Finding { throw std::runtime_error("no"); };
    EXPECT_EQ(health_.Add(63, "x", 1, Limit), EINVAL);
    EXPECT_EQ(health_.Add(64, nullptr, 1, Limit), EINVAL);
    EXPECT_EQ(health_.Add(64, "", 1, Limit), EINVAL);
    EXPECT_EQ(health_.Add(64, std::string(64, 'x').c_str(), 1, Limit), EINVAL);
    EXPECT_EQ(health_.Add(64, std::string(63, 'x').c_str(), 7, Limit), 0);
    EXPECT_EQ(health_.Add(64, "again", 1, Limit), EEXIST);
    EXPECT_EQ(health_.Add(255, "failing", 1, fail), 0);
    EXPECT_EQ(Texts()[std::string(63, 'x')], "7");
    EXPECT_EQ(Texts()["failing"], "the check failed");
    EXPECT_EQ(health_.Look().back().level, health_level::kBad);
}

TEST(OwnHealth, TellsLevelsByTheirLimits) {
    const kit::TempDir proc;
    const std::filesystem::path own = proc.Path() / std::to_string(agent::OwnPid());
    std::filesystem::create_directories(own);
    std::filesystem::create_directories(proc.Path() / "self" / "fd");
    std::ofstream(proc.Path() / "self" / "status") << "Name:\tx\nVmRSS:\t 2097152 kB\n";
    for (const char *const fd : {"0", "1", "2"}) {
        std::ofstream(proc.Path() / "self" / "fd" / fd) << "";
    }
    std::ofstream(own / "stat") << agent::OwnPid()
                                << " (x) R 1 17 17 0 -1 64 0 0 0 0 5 6 0 0 20 0 512 0 99 0 0 1 0 0 0 0 0 0 0 0 0 0 0 "
                                   "0 17 7 0 0 0 0 0\n";
    std::ofstream(own / "status") << "Tgid:\t" << agent::OwnPid() << "\n";
    const host::procfs::Procfs procfs(proc.Path());
    const kit::ManualClocks clocks;
    const DeadLoops deadLoops([] { return std::vector<ThreadSample>(); }, [] {});
    agent::Memory memory(clocks);
    const auto items = agent::OwnHealthItems(procfs, deadLoops, memory);
    const auto level = [&](uint8_t number, uint32_t limit) { return items.at(number).check(limit).level; };

    EXPECT_EQ(items.at(1).name, "threads");
    EXPECT_EQ(items.at(5).name, "memory-damage");
    EXPECT_EQ(items.at(1).limit, 512);
    EXPECT_EQ(items.at(1).check(512).text, "512 threads, limit 512");
    EXPECT_EQ(level(1, 513), health_level::kGood);
    EXPECT_EQ(level(1, 512), health_level::kDegraded) << "from the limit on";
    EXPECT_EQ(level(1, 257), health_level::kDegraded);
    EXPECT_EQ(level(1, 256), health_level::kBad) << "from twice of it";
    EXPECT_EQ(items.at(2).limit, 800);
    std::optional<kit::DescriptorLimit> sixty(60);
    EXPECT_EQ(items.at(2).check(51).text, "3 of 60 descriptors are open, 5.0 %, limit 5.1 %");
    EXPECT_EQ(level(2, 51), health_level::kGood);
    EXPECT_EQ(level(2, 50), health_level::kDegraded);
    EXPECT_EQ(level(2, 25), health_level::kBad);
    sixty.reset();
    EXPECT_EQ(items.at(3).limit, 1024);
    EXPECT_EQ(items.at(3).check(1024).text, "2048 MiB resident, limit 1024");
    EXPECT_EQ(level(3, 1024), health_level::kBad);
    EXPECT_EQ(items.at(4).check(1).text, "0 threads in a dead loop, limit 1");
    int nothing = 0;
    memory.Free(&nothing);
    EXPECT_EQ(items.at(5).check(1).text, "1 damages found, limit 1");
    EXPECT_EQ(items.at(6).check(1).text, "0 faults recorded, limit 1");
}

class CommandsTest : public testing::Test {
protected:
    static uint32_t Echo(int argc, const char *const *argv, TarnAgentOutput *output, void *) {
        for (int i = 0; i < argc; ++i) {
            TarnAgent_Print(output, "%s|", argv[i]);
        }
        return argv[argc] == nullptr ? 0 : EPROTO;
    }
    void SetUp() override { ASSERT_EQ(table_.Add("echo", "says it again", Echo, nullptr), 0); }
    CommandResult Run(const std::string &line) {
        commands_.Put(line);
        while (commands_.RunNext()) {
        }
        return commands_.Result();
    }

    CommandTable table_;
    int wakes_ = 0;
    CommandQueue commands_{table_, [this] { ++wakes_; }};
};

TEST_F(CommandsTest, RunOneAfterTheOther) {
    EXPECT_EQ(commands_.Result().result, ENODATA);
    EXPECT_EQ(commands_.Result().number, 0);
    commands_.Put("echo first");
    commands_.Put(" echo  second\t2 ");
    EXPECT_EQ(wakes_, 2);
    EXPECT_EQ(commands_.Result().result, EINPROGRESS);
    EXPECT_EQ(commands_.Result().number, 2);
    EXPECT_TRUE(commands_.RunNext());
    EXPECT_EQ(commands_.Result().result, EINPROGRESS) << "the last one that was taken is asked for";
    EXPECT_FALSE(commands_.RunNext());
    EXPECT_EQ(commands_.Result().result, 0);
    EXPECT_EQ(commands_.Result().text, "echo|second|2|");
    EXPECT_FALSE(commands_.RunNext());
    EXPECT_EQ(Run("").result, EINVAL);
    EXPECT_EQ(Run(" \t").result, EINVAL);
    EXPECT_EQ(Run("Echo").result, ENOENT);
    EXPECT_EQ(commands_.Result().text, "no command \"Echo\"; \"help\" lists the commands\n");
    EXPECT_EQ(commands_.Result().number, 5);
    commands_.Reset();
    EXPECT_EQ(commands_.Result().result, ENODATA);
    EXPECT_EQ(Run("echo").number, 1);
}

TEST_F(CommandsTest, WaitUpToALimit) {
    for (uint32_t i = 1; i <= CommandQueue::kMaxWaiting; ++i) {
        commands_.Put("echo " + std::to_string(i));
        EXPECT_EQ(commands_.Result().result, EINPROGRESS) << i;
    }
    commands_.Put("echo more");
    EXPECT_EQ(commands_.Result().result, EBUSY);
    EXPECT_EQ(commands_.Result().number, 9);
    EXPECT_EQ(commands_.Result().text, "8 commands are waiting\n");
    EXPECT_TRUE(commands_.RunNext());
    EXPECT_EQ(commands_.Result().result, EBUSY) << "an older one's result is not kept";
    commands_.Put("echo ninth");
    EXPECT_EQ(commands_.Result().result, EINPROGRESS) << "there is room again";
    for (int i = 0; i < 7; ++i) {
        EXPECT_TRUE(commands_.RunNext());
    }
    EXPECT_FALSE(commands_.RunNext());
    EXPECT_EQ(commands_.Result().text, "echo|ninth|");
    EXPECT_EQ(commands_.Result().number, 10);
}

TEST_F(CommandsTest, DropTheOutputOfOneThatWasCleanedAway) {
    static CommandQueue *queue;
    queue = &commands_;
    const TarnAgentCommand clean = [](int, const char *const *, TarnAgentOutput *output, void *) {
        queue->Clean();
        TarnAgent_Print(output, "cleaned\n");
        return 0U;
    };
    table_.Add("clean", "", clean, nullptr);
    commands_.Put("clean");
    commands_.Put("echo");
    EXPECT_FALSE(commands_.RunNext()) << "what waited is forgotten";
    EXPECT_EQ(commands_.Result().result, ENODATA);
    EXPECT_EQ(commands_.Result().text, "");
    EXPECT_EQ(Run("echo").number, 3);
}

TEST_F(CommandsTest, MayFailAndWriteTooMuch) {
    const TarnAgentCommand fail = [](int, const char *const *, TarnAgentOutput *, void *) -> uint32_t {
        throw std::system_error(EPIPE, std::generic_category(), "from a command");
    };
    const TarnAgentCommand flood = [](int, const char *const *, TarnAgentOutput *output, void *bytes) {
        TarnAgent_Print(output, "%s", std::string(*static_cast<size_t *>(bytes), 'x').c_str());
        TarnAgent_Print(output, "y");
        return 7U;
    };
    table_.Add("fail", nullptr, fail, nullptr);
    size_t bytes = TARN_AGENT_OUTPUT_MAX - strlen("\n[cut]\n") - 1 - 1;
    table_.Add("flood", "", flood, &bytes);
    EXPECT_EQ(Run("fail").result, EPIPE);
    const CommandResult whole = Run("flood");
    EXPECT_EQ(whole.result, 7);
    EXPECT_EQ(whole.text.size(), bytes + 1);
    EXPECT_TRUE(whole.text.ends_with("xy"));
    ++bytes;
    const CommandResult cut = Run("flood");
    EXPECT_EQ(cut.text.size(), TARN_AGENT_OUTPUT_MAX - 1);
    EXPECT_TRUE(cut.text.ends_with("xx\n[cut]\n")) << cut.text.substr(bytes - 10);
}

TEST_F(CommandsTest, CheckTheirNames) {
    EXPECT_EQ(table_.Add(nullptr, "", Echo, nullptr), EINVAL);
    EXPECT_EQ(table_.Add("", "", Echo, nullptr), EINVAL);
    EXPECT_EQ(table_.Add("two words", "", Echo, nullptr), EINVAL);
    EXPECT_EQ(table_.Add("tab\t", "", Echo, nullptr), EINVAL);
    EXPECT_EQ(table_.Add("none", "", nullptr, nullptr), EINVAL);
    EXPECT_EQ(table_.Add("echo", "", Echo, nullptr), EEXIST);
    EXPECT_NE(table_.Help().find("echo         says it again\n"), std::string::npos) << table_.Help();
    EXPECT_NE(table_.Help().find("uptime "), std::string::npos);
}

// Lets a test wait for runs of a thread.
class Runs {
public:
    milliseconds Note() {
        const std::lock_guard lock(mutex_);
        ++number_;
        changed_.notify_all();
        return 1h;
    }
    bool Reach(int number) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 60s, [&] { return number_ >= number; });
    }
    int Number() {
        const std::lock_guard lock(mutex_);
        return number_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int number_ = 0;
};

TEST(Periodic, RunsWhenItIsStartedAndWoken) {
    Runs runs;
    agent::Periodic work("work", [&] { return runs.Note(); });
    work.Wake();
    EXPECT_FALSE(work.IsStarted());
    work.Start();
    work.Start();
    EXPECT_TRUE(work.IsStarted());
    EXPECT_TRUE(runs.Reach(1));
    work.Wake();
    EXPECT_TRUE(runs.Reach(2));
    work.Stop();
    work.Wake();
    EXPECT_EQ(runs.Number(), 2);
    work.Start();
    EXPECT_TRUE(runs.Reach(3));
    { const agent::StoppedAtEnd stopped(work); }
    EXPECT_FALSE(work.IsStarted());
}

TEST(Periodic, RunsOnceMoreWhenItIsWokenMeanwhile) {
    Runs runs;
    agent::Periodic *self = nullptr;
    agent::Periodic work("work", [&] {
        if (runs.Number() == 0) {
            self->Wake();
            self->Wake();
        }
        return runs.Note();
    });
    self = &work;
    const agent::Started started(work);
    EXPECT_TRUE(runs.Reach(2));
}

TEST(Periodic, RunsAgainAfterItsPauseAndAfterAFailure) {
    Runs runs;
    agent::Periodic work("work", [&] {
        runs.Note();
        if (runs.Number() == 3) {
            throw std::runtime_error("once");
        }
        return 1ms;
    });
    const agent::Started started(work);
    EXPECT_TRUE(runs.Reach(4));
}

} // namespace
