// The agents that the daemon knows, what is brought to them, and what they are asked.
#include <gtest/gtest.h>

#include <latch>

#include "host/daemon/agents/at_once.h"
#include "host/daemon/agents/relay.h"
#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"
#include "tests/host/error_of.h"
#include "tests/host/kept_events.h"
#include "tests/host/refusal.h"
#include "tests/host/simulated_daemon.h"

namespace {

namespace agent_announces = host::meaning::agent_announces;
namespace event = host::meaning::event;
namespace health_level = host::meaning::health_level;
namespace system_health_item = host::meaning::system_health_item;

using namespace std::chrono_literals;

constexpr uint32_t kPid = kit::kFakePid, kOther = kPid + 1;

// ---- The way to an agent ----

class AgentLineTest : public testing::Test {
protected:
    std::system_error ErrorOf(const IdlCallResult &result, uint32_t pid = kPid) {
        peers_.On(TARND_AGENT_METHOD(TarnGetSubscribe), [&](uint32_t, const auto &, auto &) { return result; });
        try {
            line_.Ask(TARND_AGENT_METHOD(TarnGetSubscribe), pid, Tarn_sys_diag_GetSubscribeInfoInput{});
        } catch (const std::system_error &error) {
            return error;
        }
        return {0, std::generic_category()};
    }
    int CodeOfOneThatLeaves(const IdlCallResult &result) {
        peers_.agents = {kPid};
        peers_.On(TARND_AGENT_METHOD(GetTopNHandleInfo), [&](uint32_t, const auto &, auto &) {
            peers_.agents.clear();
            return result;
        });
        const int code =
            kit::ErrorOf([&] { line_.Ask(TARND_AGENT_METHOD(GetTopNHandleInfo), kPid, Tarn_sys_diag_None{}); });
        peers_.agents = {kPid};
        return code;
    }
    int CodeOf(const IdlCallResult &result, uint32_t pid = kPid) { return ErrorOf(result, pid).code().value(); }

    kit::ManualClocks clocks_;
    kit::FakePeers peers_;
    tarnd::AgentLine line_{clocks_, peers_};
};

TEST_F(AgentLineTest, TellsWhyAnAgentDoesNotAnswer) {
    EXPECT_EQ(CodeOf({0, 0}), ESRCH) << "no socket";
    EXPECT_TRUE(peers_.calls.empty());
    peers_.agents = {kPid};
    EXPECT_EQ(CodeOf({0, 0}), 0);
    EXPECT_EQ(CodeOf({0, ECONNREFUSED}), ESRCH);
    EXPECT_EQ(CodeOf({0, ENOENT}), ESRCH);
    EXPECT_EQ(CodeOf({ENOENT, 0}), ENOENT) << "what the method says";
    EXPECT_EQ(CodeOf({0, ECONNRESET}), ECONNRESET) << "the process is still there";
    peers_.ended = {kPid};
    EXPECT_EQ(CodeOf({0, ECONNRESET}), ESRCH);
    EXPECT_EQ(CodeOf({0, ETIMEDOUT}), ETIMEDOUT);
    EXPECT_EQ(CodeOf({0, EINVAL}), EINVAL);
    EXPECT_EQ(CodeOfOneThatLeaves({0, EINVAL}), ESRCH) << "its proxy finds nobody";
    EXPECT_EQ(CodeOfOneThatLeaves({EINVAL, 0}), EINVAL) << "what it said before";
    EXPECT_EQ(CodeOf({EPERM, ETIMEDOUT}), ETIMEDOUT);
    const std::string text = ErrorOf({EPERM, 0}).what();
    EXPECT_NE(text.find("the agent of process 5000000: as the test says"), std::string::npos) << text;
}

TEST_F(AgentLineTest, SendsWithoutWaitingForAnAnswer) {
    peers_.agents = {kPid};
    std::string sent;
    uint32_t result = 0;
    peers_.OnOneway(TarnSysdiagAgent_DBGCmdExecShow_oneway, [&](uint32_t, const auto &request) {
        sent = request.pcCmdStr;
        return result;
    });
    char command[] = "help";
    const Tarn_sys_diag_DbgCmdShowInput request{command};
    line_.Tell(TarnSysdiagAgent_DBGCmdExecShow_oneway, kPid, request);
    EXPECT_EQ(sent, "help");
    result = ECONNREFUSED;
    EXPECT_THROW(line_.Tell(TarnSysdiagAgent_DBGCmdExecShow_oneway, kPid, request), std::system_error);
}

// ---- Agents that do not answer ----

class SilentAgentsTest : public AgentLineTest {
protected:
    SilentAgentsTest() { peers_.agents = {kPid, kOther}; }

    // Asks as often, each with so much time: how often the agent was called.
    size_t Ask(const IdlCallResult &result, int times, uint32_t timeoutMs = 500,
               tarnd::AgentLine::Whom whom = tarnd::AgentLine::Whom::kThatAnswer) {
        peers_.calls.clear();
        peers_.On(TARND_AGENT_METHOD(TarnGetSubscribe), [&](uint32_t, const auto &, auto &) { return result; });
        for (int i = 0; i < times; ++i) {
            kit::ErrorOf([&] {
                line_.Ask(TARND_AGENT_METHOD(TarnGetSubscribe), kPid, Tarn_sys_diag_GetSubscribeInfoInput{}, timeoutMs,
                          whom);
            });
        }
        return peers_.calls.size();
    }
    bool IsSetAside() const { return line_.Silent().IsSetAside(kPid); }

    static constexpr IdlCallResult kSilence{0, ETIMEDOUT}, kAnswer{0, 0};
    static constexpr auto kAlsoSilent = tarnd::AgentLine::Whom::kAlsoSilent;
};

TEST_F(SilentAgentsTest, AreSetAsideAfterThreeCalls) {
    EXPECT_EQ(Ask(kSilence, 2), 2);
    EXPECT_EQ(Ask(kAnswer, 1), 1) << "an answer begins anew";
    EXPECT_EQ(Ask(kSilence, 2), 2);
    EXPECT_EQ(Ask({0, ECONNRESET}, 1), 1) << "any";
    EXPECT_EQ(Ask(kSilence, 100), tarnd::SilentAgents::kMost) << "nobody waits for it again";
    EXPECT_TRUE(IsSetAside());
    EXPECT_EQ(ErrorOf(kSilence).code().value(), ETIMEDOUT);
    EXPECT_STREQ(ErrorOf(kSilence).what(), "the agent of process 5000000 has not answered 3 times, and is set aside "
                                           "until it does: Connection timed out");
    EXPECT_EQ(CodeOf(kAnswer, kOther), 0) << "the others are asked";
}

TEST_F(SilentAgentsTest, AreNotThoseWhoseCallersDoNotWait) {
    EXPECT_EQ(Ask(kSilence, 100, 399), 100);
    EXPECT_FALSE(IsSetAside());
}

TEST_F(SilentAgentsTest, AreBackWhenTheyAnswerWhoeverAsks) {
    Ask(kSilence, 3);
    EXPECT_EQ(Ask(kAnswer, 1, 500, kAlsoSilent), 1);
    EXPECT_FALSE(IsSetAside());
    EXPECT_EQ(Ask(kAnswer, 1), 1);
}

TEST_F(SilentAgentsTest, AreAskedMoreAndMoreRarely) {
    Ask(kSilence, 3);
    for (const std::chrono::seconds rest : {2s, 4s, 8s, 16s, 32s, 60s, 60s}) {
        clocks_.Advance(rest - 1ns);
        EXPECT_FALSE(line_.Silent().IsDue(kPid)) << rest.count();
        clocks_.Advance(1ns);
        EXPECT_TRUE(line_.Silent().IsDue(kPid)) << rest.count();
        EXPECT_EQ(Ask(kSilence, 1, 500, kAlsoSilent), 1);
    }
    line_.ForgetProcess(kPid);
    EXPECT_FALSE(IsSetAside()) << "another may have its id";
}

// ---- The courier ----

class CourierTest : public testing::Test {
protected:
    CourierTest() {
        for (const uint32_t pid : {kPid, kOther}) {
            proc_.SetThread(pid, kit::FakeProc::MakeTask(pid, "agent"));
            registry_.Add({pid, 0, 0}, "agent", 1);
        }
    }
    tarnd::Courier::Errand Add(int number) {
        return courier_.Add([this, number](uint32_t pid) {
            ran_.emplace_back(pid, number);
            if (error_ != 0) {
                throw std::system_error(error_, std::generic_category(), "as the test says");
            }
        });
    }
    using Ran = std::vector<std::pair<uint32_t, int>>;
    Ran Take() {
        driver_.RunDue();
        return std::exchange(ran_, {});
    }

    kit::ManualClocks clocks_;
    kit::FakeProc proc_;
    kit::FakePeers peers_;
    tarnd::AgentLine line_{clocks_, peers_};
    tarnd::Timers timers_{clocks_};
    kit::KeptEvents events_;
    tarnd::AgentRegistry registry_{proc_, events_, line_, timers_};
    tarnd::Courier courier_{clocks_, registry_};
    kit::ManualDriver<tarnd::Courier> driver_{courier_, clocks_};
    Ran ran_;
    int error_ = 0;
};

TEST_F(CourierTest, RunsAnErrandOnceHoweverOftenItWasAskedFor) {
    const auto first = Add(1), second = Add(2);
    courier_.Send(first, kPid);
    courier_.Send(first, kPid);
    courier_.Send(second, kOther);
    EXPECT_EQ(Take(), (Ran{{kPid, 1}, {kOther, 2}}));
    EXPECT_EQ(Take(), Ran{});
    courier_.Send(first, kPid);
    EXPECT_EQ(Take(), (Ran{{kPid, 1}}));
}

TEST_F(CourierTest, GoesToAllAgentsAndWithEachErrandToOne) {
    const auto first = Add(1);
    Add(2);
    courier_.SendToAll(first);
    EXPECT_EQ(Take(), (Ran{{kPid, 1}, {kOther, 1}}));
    courier_.SendEach(kOther);
    EXPECT_EQ(Take(), (Ran{{kOther, 1}, {kOther, 2}}));
}

TEST_F(CourierTest, GoesAgainToAnAgentThatWasGoneAndIsBack) {
    const auto errand = Add(1);
    error_ = ESRCH;
    courier_.Send(errand, kPid);
    EXPECT_EQ(Take().size(), 1);
    courier_.Resume(kOther);
    clocks_.Advance(1h);
    EXPECT_EQ(Take(), Ran{}) << "it is gone";
    error_ = 0;
    courier_.Resume(kPid);
    EXPECT_EQ(Take(), (Ran{{kPid, 1}}));
    courier_.Resume(kPid);
    EXPECT_EQ(Take(), Ran{}) << "it missed nothing";
}

TEST_F(CourierTest, GoesAgainAfterAFailureUnlessTheAgentIsGoneOrDoesNotKnowIt) {
    const auto errand = Add(1);
    error_ = ETIMEDOUT;
    courier_.Send(errand, kPid);
    EXPECT_EQ(Take().size(), 1);
    clocks_.Advance(999ms);
    EXPECT_EQ(Take().size(), 0);
    clocks_.Advance(1ms);
    EXPECT_EQ(Take().size(), 1);
    for (const int final : {ESRCH, ENOSYS}) {
        error_ = ETIMEDOUT;
        courier_.Send(errand, kPid);
        EXPECT_EQ(Take().size(), 1);
        error_ = final;
        clocks_.Advance(1s);
        EXPECT_EQ(Take().size(), 1);
        clocks_.Advance(1h);
        EXPECT_EQ(Take().size(), 0) << final;
    }
    EXPECT_TRUE(driver_.Due().empty());
}

TEST_F(CourierTest, HasOneErrandWithAnAgentAtATime) {
    const auto late = Add(2);
    bool inside = false;
    const auto first = courier_.Add([&](uint32_t pid) {
        EXPECT_FALSE(std::exchange(inside, true));
        courier_.Send(late, pid);
        courier_.Send(late, kOther);
        courier_.RunDue(); // as another thread would
        courier_.RunDue();
        EXPECT_EQ(ran_, (Ran{{kOther, 2}})) << "another agent's is not delayed";
        inside = false;
    });
    courier_.Send(first, kPid);
    EXPECT_EQ(Take(), (Ran{{kOther, 2}, {kPid, 2}}));
}

TEST_F(CourierTest, KeepsWhatIsDueForWhoDrivesItNext) {
    const auto errand = Add(1);
    error_ = EBUSY;
    courier_.Send(errand, kPid);
    EXPECT_EQ(Take().size(), 1);
    error_ = 0;
    clocks_.Advance(1s);
    kit::ManualDriver<tarnd::Courier> another(courier_, clocks_);
    EXPECT_EQ(another.RunDue(), 1);
    EXPECT_EQ(ran_.size(), 1);
}

TEST_F(CourierTest, VisitsAsManyAgentsAtATimeAsItHasThreads) {
    constexpr ptrdiff_t kAgents = tarnd::Courier::kMaxThreads;
    host::SystemClocks clocks;
    tarnd::Courier courier(clocks, registry_);
    std::latch inside(kAgents); // an agent that waits for another one delays none
    std::latch done(kAgents);
    const auto errand = courier.Add([&](uint32_t) {
        inside.arrive_and_wait();
        done.count_down();
    });
    const tarnd::Driver<tarnd::Courier> driver("test", courier, kAgents);
    for (uint32_t i = 0; i < kAgents; ++i) {
        courier.Send(errand, kPid + i);
    }
    done.wait();
}

// ---- What their members don't accept ----

TEST(AgentsRequests, AreRefusedByWhatTheirMembersMean) {
    namespace methods = host::methods;
    const Tarn_sys_diag_AgentRegInfoInput withoutName{{}, kPid, 1, 1};
    Tarn_sys_diag_AgentRegInfoInput neither = withoutName;
    neither.szAgentName[0] = 'x';
    neither.ucValue3 = 2;
    const std::pair<std::string, const char *> refusals[] = {
        {kit::Refusal(methods::AgentRegInfo, withoutName), "name (szAgentName) is empty, expected a text"},
        {kit::Refusal(methods::AgentRegInfo, neither), "announces (ucValue3) is 2, expected leaves (0) or runs (1)"},
        {kit::Refusal(methods::TarnAppSubscribe, {kPid, 16}),
         "events (uiValue2) is 16, expected a sum of cpu (2), memory (4) and descriptors (8)"},
        {kit::Refusal(methods::TarnAppSubscribe, {kPid, 14}), ""},
        {kit::Refusal(methods::GetMirelMemPtInfoByTarnd, {1, 0}), "process (uiTargetPid) is 0, expected at least 1"},
        {kit::Refusal(methods::MemDiagMaByTarnd, {0, 0, nullptr, kPid}),
         "command (uiMemCmd) is 0, expected summary (1), blocks (2), mark (3), since (4) or look (5)"},
        {kit::Refusal(methods::TarnGetDlpCfgFromAgent, {0, 0, 0}), "process (uiValue3) is 0, expected at least 1"},
        {kit::Refusal(methods::SetNoxTimerDebugSwitchByTarnd, {2, kPid}), "on (uiDebugSwitch) is 2, expected 0 to 1"},
    };
    for (const auto &[refusal, expected] : refusals) {
        EXPECT_EQ(refusal, expected);
    }
}

// ---- Who is there ----

class AgentsTest : public testing::Test, protected kit::SimulatedDaemon {
protected:
    static uint32_t Register(uint32_t pid, const std::string &name, uint32_t runs = agent_announces::kRuns,
                             uint32_t version = 1) {
        Tarn_sys_diag_AgentRegInfoInput request{};
        host::CopyText(request.szAgentName, name);
        request.uiValue1 = pid;
        request.uiValue2 = version;
        request.ucValue3 = static_cast<uint8_t>(runs);
        const auto answer = kit::CallMethod<Tarn_sys_diag_AgentRegInfoResult>(AgentRegInfo, request);
        EXPECT_EQ(std::string(answer->szAgentName), name);
        EXPECT_EQ(answer->uiValue2, static_cast<uint32_t>(getpid()));
        return answer->uiValue1;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto &[pid, agent] : daemon->registry.Agents()) {
            names.push_back(agent.name);
        }
        return names;
    }
    void SetProcess(uint32_t pid, uint64_t startTicks) {
        host::procfs::Task task = kit::FakeProc::MakeTask(pid, "program");
        task.startTicks = startTicks;
        proc.SetThread(pid, task);
    }
    size_t Brought() {
        peers.calls.clear();
        RunDue();
        return peers.calls.size();
    }
    using Names_ = std::vector<std::string>;
};

TEST_F(AgentsTest, RegisterAndLeave) {
    EXPECT_EQ(Register(kPid, "first"), ESRCH) << "no such process";
    SetProcess(kPid, 7);
    EXPECT_EQ(Register(kPid, ""), EINVAL);
    EXPECT_EQ(Register(kPid, "first", 2), EINVAL);
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(Register(kPid, "first"), 0);
    EXPECT_EQ(Names(), Names_{"first"});
    EXPECT_EQ(daemon->registry.Agents().at(kPid).version, 1);
    EXPECT_EQ(daemon->registry.Agents().at(kPid).process, (tarnd::Registrant{kPid, 7, 0}));
    EXPECT_EQ(Register(kPid, "first", agent_announces::kLeaves), 0);
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(Register(kPid, "first", agent_announces::kLeaves), 0) << "again";
}

TEST_F(AgentsTest, AreToldWhatThereIsWhenTheyComeOrChange) {
    peers.agents = {kPid};
    SetProcess(kPid, 7);
    EXPECT_EQ(Register(kPid, "first"), 0);
    EXPECT_GE(Brought(), 3) << "rules, switches, and how it is";
    EXPECT_EQ(Register(kPid, "first"), 0);
    EXPECT_EQ(Brought(), 0) << "as it was";
    EXPECT_EQ(Register(kPid, "second"), 0);
    EXPECT_GE(Brought(), 3);
    EXPECT_EQ(Register(kPid, "second", agent_announces::kRuns, 2), 0);
    EXPECT_GE(Brought(), 3);
    SetProcess(kPid, 8);
    EXPECT_EQ(Register(kPid, "second", agent_announces::kRuns, 2), 0);
    EXPECT_GE(Brought(), 3) << "another process";
}

TEST_F(AgentsTest, AreDroppedWhenTheirProcessHasGone) {
    for (const uint32_t pid : {kPid, kOther}) {
        SetProcess(pid, 7);
        EXPECT_EQ(Register(pid, std::to_string(pid)), 0);
    }
    Pass(1s);
    EXPECT_EQ(Names().size(), 2);
    proc.RemoveProcess(kPid);
    SetProcess(kOther, 8);
    Pass(999ms);
    EXPECT_EQ(Names().size(), 2);
    peers.forgotten.clear();
    EXPECT_EQ(peers.sweeps, 1) << "what was left before the daemon started";
    Pass(1ms);
    EXPECT_TRUE(Names().empty()) << "one has ended, another has the other's id";
    EXPECT_EQ(peers.sweeps, 2);
    Pass(1min);
    EXPECT_EQ(peers.sweeps, 2) << "nobody has ended";
    EXPECT_NE(std::ranges::count(peers.forgotten, kPid), 0) << "their connections are not used again";
    EXPECT_NE(std::ranges::count(peers.forgotten, kOther), 0);
}

// ---- Who may register ----

class RegistrantsTest : public AgentsTest {
protected:
    static uint32_t RegisterAs(const TarnHost_Peer &peer, uint32_t named, uint32_t runs = agent_announces::kRuns) {
        Tarn_sys_diag_AgentRegInfoInput request{};
        host::CopyText(request.szAgentName, "agent");
        request.uiValue1 = named;
        request.ucValue3 = static_cast<uint8_t>(runs);
        return kit::CallAs<Tarn_sys_diag_AgentRegInfoResult>(peer, AgentRegInfo, request)->uiValue1;
    }
    static uint32_t SubscribeAs(const TarnHost_Peer &peer, uint32_t named, uint32_t events) {
        return kit::CallAs<Tarn_sys_diag_Result>(peer, TarnAppSubscribe, Tarn_sys_diag_AppSubscribeInput{named, events})
            ->uiResult;
    }
    static TarnHost_Peer Of(uint32_t pid, uint32_t user = kUser) { return {pid, user, user, 0}; }
    static constexpr uint32_t kUser = 1000;
};

TEST_F(RegistrantsTest, ActForThemselvesOnly) {
    SetProcess(kPid, 7);
    SetProcess(kOther, 7);
    EXPECT_EQ(RegisterAs(Of(kPid), kPid), 0);
    EXPECT_EQ(SubscribeAs(Of(kPid), kPid, event::kCpu), 0);
    for (const uint32_t named : {kPid, 1U}) {
        EXPECT_EQ(RegisterAs(Of(kOther), named), EPERM) << "another's name";
        EXPECT_EQ(RegisterAs(Of(kOther), named, agent_announces::kLeaves), EPERM);
        EXPECT_EQ(SubscribeAs(Of(kOther), named, 0), EPERM);
    }
    EXPECT_EQ(RegisterAs(Of(0), 0), EPERM) << "a process that has no number here";
    ASSERT_EQ(daemon->registry.Agents().size(), 1);
    EXPECT_EQ(daemon->registry.Agents().at(kPid).process, (tarnd::Registrant{kPid, 7, kUser}));
    EXPECT_EQ(daemon->subscriptions.List().size(), 1);
}

TEST_F(RegistrantsTest, OfRootAndTheDaemonsUserMayActForOthers) {
    SetProcess(kPid, 7);
    for (const uint32_t user : {0U, static_cast<uint32_t>(geteuid())}) {
        EXPECT_EQ(RegisterAs(Of(kOther, user), kPid), 0);
        EXPECT_EQ(SubscribeAs(Of(kOther, user), kPid, event::kCpu), 0);
        EXPECT_EQ(RegisterAs(Of(kOther, user), kPid, agent_announces::kLeaves), 0);
    }
}

TEST_F(RegistrantsTest, ThatHaveEndedAreRefused) {
    SetProcess(kPid, 7); // another's by now
    Tarn_sys_diag_AgentRegInfoInput request{};
    host::CopyText(request.szAgentName, "agent");
    request.uiValue1 = kPid;
    request.ucValue3 = 1;
    auto context = std::make_unique<kit::ReplyContext>();
    context->peer = Of(kPid);
    context->peerLives = false;
    const auto answer = kit::CallMethod<Tarn_sys_diag_AgentRegInfoResult>(AgentRegInfo, request, std::move(context));
    EXPECT_EQ(answer->uiValue1, ESRCH);
    EXPECT_EQ(answer.Reason(), "process 5000000, which called, has ended");
    EXPECT_TRUE(daemon->registry.Agents().empty());
}

TEST_F(RegistrantsTest, MayNameThemselvesAsInTheirNamespace) {
    SetProcess(kPid, 7);
    proc.Write(fmt::format("{}/status", kPid), fmt::format("Tgid:\t{0}\nPid:\t{0}\nNStgid:\t{0}\t12\t1\n"
                                                           "NSpid:\t{0}\t12\t1\nNSpgid:\t{0}\t12\t1\n",
                                                           kPid));
    EXPECT_EQ(RegisterAs(Of(kPid), 12), EPERM) << "what one between calls it";
    EXPECT_EQ(RegisterAs(Of(kPid), 1), 0);
    EXPECT_EQ(daemon->registry.Agents().count(kPid), 1) << "it is known as the daemon sees it";
    EXPECT_EQ(RegisterAs(Of(kPid), kPid, agent_announces::kLeaves), 0);
    EXPECT_TRUE(daemon->registry.Agents().empty());
}

TEST_F(RegistrantsTest, AreSoManyOfAUserAndInAll) {
    const auto add = [this](uint32_t index, uint32_t user) {
        SetProcess(kPid + index, 7);
        return RegisterAs(Of(kPid + index, user), kPid + index);
    };
    uint32_t index = 0;
    for (; index < tarnd::kMostRegistrants - tarnd::kRegistrantsReserved; ++index) {
        const auto user = static_cast<uint32_t>(1000 + index / tarnd::kMostRegistrantsOfUser);
        ASSERT_EQ(add(index, user), 0);
        if (index + 1 == tarnd::kMostRegistrantsOfUser) {
            EXPECT_EQ(add(5000, user), EBUSY) << "of the user";
        }
    }
    EXPECT_EQ(add(5000, 2000), EBUSY) << "the rest is reserved";
    EXPECT_EQ(add(0, 1000), 0) << "one of them again";
    for (; index < tarnd::kMostRegistrants; ++index) {
        ASSERT_EQ(add(index, 0), 0);
    }
    EXPECT_EQ(add(5000, 0), EBUSY);
    EXPECT_EQ(daemon->registry.Agents().size(), tarnd::kMostRegistrants);
    EXPECT_EQ(SubscribeAs(Of(kPid, 1000), kPid, event::kCpu), 0) << "subscriptions are counted by themselves";
}

// ---- What is asked of them ----

TEST_F(AgentsTest, AnswerWhatTheyAreAskedThroughTheDaemon) {
    peers.agents = {kPid};
    peers.On(TARND_AGENT_METHOD(GetMirelMemPtInfo), [](uint32_t, const auto &request, auto &) {
        return IdlCallResult{request.uiPtId == 9 ? 0U : EPERM, 0};
    });
    const auto ask = [](uint32_t pid, uint32_t id) {
        Tarn_sys_diag_GetMirelMemPtInfoByTarndInput request{};
        request.uiTargetPid = pid;
        request.uiPtId = id;
        return kit::CallMethod<Tarn_sys_diag_GetMirelMemPtInfoOutput>(GetMirelMemPtInfoByTarnd, request)->uiResult;
    };
    EXPECT_EQ(ask(kPid, 9), 0);
    EXPECT_EQ(ask(kPid, 8), EPERM);
    EXPECT_EQ(ask(kOther, 9), ESRCH);
    EXPECT_EQ(ask(0, 9), EINVAL);
}

TEST_F(AgentsTest, AreHandedEachMemberOfARequest) {
    peers.agents = {kPid};
    std::vector<uint32_t> handed;
    peers.On(TARND_AGENT_METHOD(GetProcPartitionMemHandleRecod), [&](uint32_t, const auto &request, auto &) {
        handed = {request.uiPtParam1, request.uiPtParam2, request.uiPtParam3, request.uiPtParam4, request.uiPtParam5};
        return IdlCallResult{0, 0};
    });
    Tarn_sys_diag_ProcPtRecodByTarndInput records{};
    records.uiTargetPid = kPid;
    records.uiPtParam1 = 1;
    records.uiPtParam2 = 2;
    records.uiPtParam3 = 3;
    records.uiPtParam4 = 4;
    records.uiPtParam5 = 5;
    kit::CallMethod<Tarn_sys_diag_ProcPtRecodResult>(GetProcPartitionMemHandleRecodByTarnd, records);
    EXPECT_EQ(handed, (std::vector<uint32_t>{1, 2, 3, 4, 5}));

    peers.On(TARND_AGENT_METHOD(MemDiag_ma), [&](uint32_t, const auto &request, auto &) {
        handed = {request.uiMemCmd, request.uiMemDataLen, request.pucMemData[1]};
        return IdlCallResult{0, 0};
    });
    uint8_t data[] = {8, 9};
    Tarn_sys_diag_mem_RPCIN_input command{};
    command.uiTargetPid = kPid;
    command.uiMemCmd = host::meaning::memory_command::kLook;
    command.uiMemDataLen = 2;
    command.pucMemData = data;
    kit::CallMethod<Tarn_sys_diag_mem_PRCOUT>(MemDiagMaByTarnd, command);
    EXPECT_EQ(handed, (std::vector<uint32_t>{host::meaning::memory_command::kLook, 2, 9}));
}

TEST_F(AgentsTest, ExplainTheirResultsThroughTheDaemon) {
    peers.agents = {kPid};
    peers.On(TARND_AGENT_METHOD(SetMemDmgScan), [](uint32_t, const auto &, auto &reply) {
        reply.uiResult = EBUSY;
        return IdlCallResult{0, 0};
    });
    peers.explanation = "a scan runs already";
    const auto answer =
        kit::CallMethod<Tarn_sys_diag_MemDmgScanOut>(SetMemDmgScanTarnd, Tarn_sys_diag_MemDmgScanInTarnd{2, kPid});
    EXPECT_EQ(answer->uiResult, EBUSY);
    EXPECT_EQ(answer.Reason(), "a scan runs already");
}

TEST_F(AgentsTest, HaveTheirReasonToldWithWhatTheDaemonAsks) {
    peers.agents = {kPid};
    peers.On(TARND_AGENT_METHOD(TarnGetAppMemUnitInfo), [](uint32_t, const auto &, auto &reply) {
        reply.uiResult = EBUSY;
        return IdlCallResult{0, 0};
    });
    const auto reason = [] {
        const auto answer = kit::CallMethod<Tarn_sys_diag_AppMemInfoOutput>(
            AppMemInfo, Tarn_sys_diag_AppMemInfoInput{kPid, host::meaning::app_memory::kUnits});
        EXPECT_EQ(answer.Status(), EBUSY);
        return answer.Reason();
    };
    EXPECT_EQ(reason(), "the agent of process 5000000") << "of one that explains nothing";
    peers.explanation = "its heap is being walked";
    EXPECT_EQ(reason(), "the agent of process 5000000: its heap is being walked");
}

TEST_F(AgentsTest, TellWhoHoldsTheirMemory) {
    peers.agents = {kPid};
    static Tarn_sys_diag_MemHandleUse uses[] = {
        {7, "frames", 3, 700, 900}, {8, "idle", 0, 0, 64}, {9, "gone", 1, 5, 5}};
    peers.On(TARND_AGENT_METHOD(GetTopNHandleInfo), [](uint32_t, const auto &, auto &reply) {
        reply.uiHandleTotal = 12;
        reply.ullTotalBytes = 1000;
        reply.uiHandleNum = static_cast<uint32_t>(std::size(uses));
        reply.pstHandle = uses;
        return IdlCallResult{0, 0};
    });
    peers.On(TARND_AGENT_METHOD(MemHandleCallStack), [](uint32_t, const auto &request, auto &reply) {
        EXPECT_EQ(request.uiStackIndex, 0) << "the site that holds most";
        EXPECT_NE(request.uiHandleId, 8) << "which holds nothing";
        reply.uiResult = request.uiHandleId == 9 ? ENOENT : 0; // given back meanwhile
        reply.uiStackTotal = 4;
        reply.uiBlockNum = 2;
        reply.ullUsedBytes = 600;
        reply.uiAddrNum = 2;
        reply.aullStackAddr[0] = 0x1000;
        reply.aullStackAddr[1] = 0x2000;
        return IdlCallResult{0, 0};
    });
    peers.On(TARND_AGENT_METHOD(GetCallStackFunction), [](uint32_t, const auto &request, auto &reply) {
        EXPECT_EQ(request.aullStackAddr[1], 0x2000);
        host::CopyText(reply.astFuncName[0].szFuncName, "Grow+0x1f");
        host::CopyText(reply.astFuncName[1].szFuncName, "main+0x20");
        return IdlCallResult{0, 0};
    });
    peers.calls.clear();
    const auto answer = kit::CallMethod<Tarn_sys_diag_AppMemInfoOutput>(
        AppMemInfo, Tarn_sys_diag_AppMemInfoInput{kPid, host::meaning::app_memory::kHolders});
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    EXPECT_EQ(std::string(answer->szInfo),
              "    HANDLE NAME                                 BLOCKS     USED bytes     PEAK bytes\n"
              "         7 frames                                    3            700            900\n"
              "           most, 600 bytes in 2 blocks, at the first of 4 sites: Grow+0x1f <- main+0x20\n"
              "         8 idle                                      0              0             64\n"
              "         9 gone                                      1              5              5\n"
              "12 handles are open and hold 1000 bytes\n"
              "0 blocks are held though the threads that allocated them have ended\n");
    EXPECT_EQ(peers.calls.size(), 6) << "the last two look for hostages, and ask which there are";
}

uint32_t RelayTimeoutOf(uint32_t remainingMs) {
    kit::ReplyContext request;
    request.remainingMs = remainingMs;
    return tarnd::RelayTimeout(&request);
}

TEST_F(AgentsTest, HaveTheRequestsTimeButForWhatTellingTakes) {
    EXPECT_THROW(RelayTimeoutOf(0), std::system_error);
    EXPECT_EQ(RelayTimeoutOf(1), 1);
    EXPECT_EQ(RelayTimeoutOf(500), 450) << "a tenth";
    EXPECT_EQ(RelayTimeoutOf(1000), 900);
    EXPECT_EQ(RelayTimeoutOf(2000), 1900) << "at most 100 ms";
    EXPECT_EQ(RelayTimeoutOf(3100), 3000);
    EXPECT_EQ(RelayTimeoutOf(60'000), 3000) << "shorter than a caller's own";
}

TEST_F(AgentsTest, AreAskedHowTheyAre) {
    AddAgent(kPid, "busy");
    AddAgent(kOther, "well");
    uint32_t level = health_level::kDegraded;
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), [&](uint32_t pid, const auto &, auto &reply) {
        static Tarn_sys_diag_SysHealthInfo items[2];
        host::CopyText(items[0].acValue1, "fine");
        items[1].ucValue1 = static_cast<uint8_t>(level);
        host::CopyText(items[1].acValue1, "queue");
        host::CopyText(items[1].acValue4, "900 of 1000");
        clocks.Advance(7001us);
        reply.uiValue1 = pid == kPid ? level : health_level::kGood;
        reply.uiHealthInfoNum = pid == kPid ? 2 : 0;
        reply.pstHealthInfo = items;
        return IdlCallResult{0, 0};
    });
    EXPECT_TRUE(daemon->agentProbe.Health().empty()) << "not asked yet";
    const host::WallTime asked = clocks.WallNow();
    RunDue();
    std::vector<tarnd::AgentHealth> health = daemon->agentProbe.Health();
    ASSERT_EQ(health.size(), 2);
    EXPECT_EQ(health[0].name, "busy");
    EXPECT_EQ(health[0].lookedAt, asked);
    EXPECT_EQ(health[0].answerMs, 8) << "rounded up";
    EXPECT_EQ(health[0].worstLevel, health_level::kDegraded);
    EXPECT_EQ(health[0].complaint, "queue: 900 of 1000");
    EXPECT_TRUE(health[1].answers);
    EXPECT_EQ(health[1].complaint, "");

    level = health_level::kGood;
    Pass(1s);
    EXPECT_EQ(daemon->agentProbe.Health()[0].complaint, "queue: 900 of 1000");
    Pass(1s);
    EXPECT_EQ(daemon->agentProbe.Health()[0].complaint, "") << "asked again each 2 s";

    proc.RemoveProcess(kOther);
    Pass(1s);
    EXPECT_EQ(daemon->agentProbe.Health().size(), 1);
}

TEST_F(AgentsTest, ThatDoNotAnswerAreFound) {
    AddAgent(kPid, "sleepy");
    IdlCallResult result{0, ETIMEDOUT};
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo),
             [&](uint32_t, const auto &, auto &) { return result; });
    RunDue();
    EXPECT_FALSE(daemon->agentProbe.Health().at(0).answers);
    EXPECT_NE(daemon->agentProbe.Health().at(0).complaint.find("as the test says"), std::string::npos);
    result = {ENOSYS, 0};
    Pass(2s);
    EXPECT_TRUE(daemon->agentProbe.Health().at(0).answers) << "it has nothing to say";
    EXPECT_EQ(daemon->agentProbe.Health().at(0).complaint, "");

    daemon->healthSettings.SwitchFunction({system_health_item::kAgents, 0, 0});
    result = {0, ETIMEDOUT};
    Pass(10s);
    EXPECT_TRUE(daemon->agentProbe.Health().at(0).answers) << "not asked";
    daemon->healthSettings.SwitchFunction({system_health_item::kAgents, 1, 77});
    RunDue();
    peers.calls.clear();
    Pass(2s);
    ASSERT_EQ(peers.calls.size(), 1);
    EXPECT_EQ(peers.calls[0].timeoutMs, 77) << "the limit is its time";
}

TEST_F(AgentsTest, ThatWereSilentAreBroughtWhatTheyMissedWhenTheyAnswer) {
    AddAgent(kPid, "sleepy");
    RunDue();
    IdlCallResult result{0, ETIMEDOUT};
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo),
             [&](uint32_t, const auto &, auto &) { return result; });
    size_t updates = 0;
    peers.On(TARND_AGENT_METHOD(GetMsgCtrlRule), [&](uint32_t, const auto &, auto &) {
        updates += result.uiErrCode == 0 ? 1 : 0;
        return result;
    });
    Pass(2s, 3);
    EXPECT_FALSE(daemon->registry.Answers(kPid));
    daemon->messageRules.Clear();
    Pass(1s);
    peers.calls.clear();
    Pass(100ms, 10);
    EXPECT_LE(peers.calls.size(), 1) << "it is left alone, but for a probe";
    result = {0, 0};
    Pass(4s);
    EXPECT_TRUE(daemon->registry.Answers(kPid));
    EXPECT_EQ(updates, 1);
}

// ---- Several at the same time ----

TEST(AskAtOnce, AsksSeveralThoughOneHangs) {
    std::latch others(8);
    std::atomic<int> asked = 0;
    tarnd::AskAtOnce("test", {1, 2, 3, 4, 5, 6, 7, 8, 9}, [&](uint32_t pid) {
        if (pid == 1) {
            others.wait(); // as one would that does not answer
        } else {
            others.count_down();
        }
        ++asked;
        throw std::system_error(EIO, std::generic_category(), "stops no other");
    });
    EXPECT_EQ(asked, 9);
    tarnd::AskAtOnce("test", {}, [&](uint32_t) { ++asked; });
    EXPECT_EQ(asked, 9);
}

// ---- Who wants to be told ----

class SubscriptionsTest : public AgentsTest {
protected:
    static uint32_t Subscribe(uint32_t pid, uint32_t events) {
        return kit::CallMethod<Tarn_sys_diag_Result>(TarnAppSubscribe, Tarn_sys_diag_AppSubscribeInput{pid, events})
            ->uiResult;
    }
    static auto List(uint32_t events = 0, uint32_t skip = 0, uint32_t pid = 0) {
        return kit::CallMethod<Tarn_sys_diag_GetSubscribeInfoResult>(
            TarnGetSubscribeInfoTarnd, Tarn_sys_diag_GetSubscribeInfoInput{events, skip, pid});
    }
};

TEST_F(SubscriptionsTest, AreReadBack) {
    EXPECT_EQ(Subscribe(kPid, event::kCpu), ESRCH) << "no such process";
    SetProcess(kPid, 7);
    SetProcess(kOther, 7);
    for (const uint32_t events : {1U, 16U, UINT32_MAX}) {
        EXPECT_EQ(Subscribe(kPid, events), EINVAL);
    }
    EXPECT_EQ(List()->uiSubscribeNum, 0);
    EXPECT_EQ(Subscribe(kPid, event::kCpu | event::kMemory), 0);
    EXPECT_EQ(Subscribe(kOther, event::kDescriptors), 0);
    const auto all = List();
    ASSERT_EQ(all->uiSubscribeNum, 2);
    EXPECT_EQ(all->uiValue2, 14);
    EXPECT_EQ(all->uiValue3, 2);
    EXPECT_EQ(all->uiValue4, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(std::string(all->pstSubscribe[0].szName1), "program");
    EXPECT_EQ(std::string(all->pstSubscribe[0].szName2), "cpu+memory");
    EXPECT_EQ(std::string(all->pstSubscribe[1].szName2), "descriptors");
    EXPECT_EQ(all->pstSubscribe[0].uiValue1, 6);
    EXPECT_EQ(all->pstSubscribe[0].uiValue2, kPid);
    const auto ofMemory = List(event::kMemory);
    ASSERT_EQ(ofMemory->uiSubscribeNum, 1);
    EXPECT_EQ(ofMemory->pstSubscribe[0].uiValue2, kPid);
    EXPECT_EQ(ofMemory->uiValue2, 14) << "of all";
    EXPECT_EQ(ofMemory->uiValue3, 1);
    const auto second = List(0, 1);
    ASSERT_EQ(second->uiSubscribeNum, 1);
    EXPECT_EQ(second->uiValue3, 2) << "with those that were skipped";
    EXPECT_EQ(second->pstSubscribe[0].uiValue2, kOther);
}

TEST_F(SubscriptionsTest, EndWithTheirProcessAndWhenTheyAreForNothing) {
    SetProcess(kPid, 7);
    SetProcess(kOther, 7);
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    EXPECT_EQ(Subscribe(kOther, event::kCpu), 0);
    SetProcess(kOther, 8);
    EXPECT_EQ(List()->uiSubscribeNum, 1) << "another process has its id";
    EXPECT_EQ(daemon->subscriptions.Set({kPid, 7, 0}, event::kMemory), event::kCpu);
    SetProcess(kPid, 9);
    EXPECT_EQ(daemon->subscriptions.Set({kPid, 9, 0}, event::kCpu), 0) << "it was another's";
    EXPECT_EQ(Subscribe(kPid, 0), 0);
    EXPECT_EQ(List()->uiSubscribeNum, 0);
}

// An agent renews its subscription with its registration, and has nothing new to hear then.
TEST_F(SubscriptionsTest, ThatAreRenewedAreToldNothing) {
    EXPECT_EQ(AddAgent(kPid, "agent"), 0);
    RunDue();
    size_t told = 0;
    peers.On(TARND_AGENT_METHOD(TarnUpdateResourceInfo), [&](uint32_t, const auto &, auto &) {
        ++told;
        return IdlCallResult{0, 0};
    });
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    Pass(1s, 3); // the level is one of 3 s
    const size_t first = std::exchange(told, 0);
    EXPECT_GE(first, 1);
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    RunDue();
    EXPECT_EQ(told, 0);
    EXPECT_EQ(Subscribe(kPid, 0), 0) << "by someone else";
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    RunDue();
    EXPECT_EQ(told, 1);
}

TEST_F(SubscriptionsTest, OfAnAgentAreAskedOfIt) {
    peers.agents = {kPid};
    peers.On(TARND_AGENT_METHOD(TarnGetSubscribe), [](uint32_t, const auto &request, auto &reply) {
        reply.uiValue4 = request.uiValue3;
        return IdlCallResult{0, 0};
    });
    EXPECT_EQ(List(0, 0, kPid)->uiValue4, 0) << "what it calls itself only it knows";
    EXPECT_EQ(List(0, 0, kOther).Status(), ESRCH);
}

} // namespace
