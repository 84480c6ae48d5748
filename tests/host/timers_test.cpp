// Timers, by a clock that the test moves.
#include "host/daemon/time/timers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/manual_driver.h"
#include "tests/host/method_kit.h"
#include "tests/host/simulated_daemon.h"

namespace {

namespace measurement_time = host::meaning::measurement_time;

using namespace std::chrono_literals;
using tarnd::Timers;

class TimersTest : public testing::Test {
protected:
    struct Work {
        Timers &timers;
        kit::ManualClocks &clocks;
        uint32_t id = 0;
        int runs = 0;
        std::chrono::milliseconds takes{0};
        bool fails = false;
        bool sawItself = false;
    };
    static void Run(void *context) {
        auto &work = *static_cast<Work *>(context);
        ++work.runs;
        work.sawItself = work.timers.List().at(work.id - 1).running;
        work.clocks.Advance(work.takes);
        if (work.fails) {
            throw std::runtime_error("as the test says");
        }
    }

    void Add(Work &work, const char *name = "test") { work.id = timers_.Add(name, Run, &work); }
    void Pass(std::chrono::milliseconds time) {
        clocks_.Advance(time);
        driver_.RunDue();
    }
    Timers::Timer Of(const Work &work) const { return timers_.List().at(work.id - 1); }

    kit::ManualClocks clocks_;
    Timers timers_{clocks_};
    kit::ManualDriver<Timers> driver_{timers_, clocks_};
    Work work_{timers_, clocks_}, other_{timers_, clocks_};
};

TEST_F(TimersTest, ExpireEachPeriod) {
    Add(work_);
    EXPECT_TRUE(Of(work_).IsStopped());
    EXPECT_TRUE(driver_.Due().empty());
    timers_.Every(work_.id, 2s);
    Pass(1999ms);
    EXPECT_EQ(work_.runs, 0);
    Pass(1ms);
    EXPECT_EQ(work_.runs, 1);
    EXPECT_TRUE(work_.sawItself);
    EXPECT_FALSE(Of(work_).running);
    for (int i = 0; i < 3600; ++i) {
        Pass(1s);
    }
    EXPECT_EQ(work_.runs, 1801);
    EXPECT_EQ(Of(work_).expiries, 1801);
    EXPECT_EQ(driver_.Due().size(), 1) << "who drives them is told of the next, not of each";
}

TEST_F(TimersTest, ExpireOnceOrNotWhenCancelled) {
    Add(work_);
    Add(other_);
    timers_.Once(work_.id, 50ms);
    timers_.Once(other_.id, 60ms);
    EXPECT_FALSE(Of(work_).periodic);
    timers_.Cancel(other_.id);
    Pass(1h);
    Pass(1h);
    EXPECT_EQ(work_.runs, 1);
    EXPECT_TRUE(Of(work_).IsStopped());
    EXPECT_EQ(other_.runs, 0);
    timers_.Once(work_.id, 0ms);
    Pass(0ms);
    EXPECT_EQ(work_.runs, 2);
}

TEST_F(TimersTest, ExpireInTheOrderInWhichTheyAreDue) {
    std::vector<int> order;
    struct Note {
        std::vector<int> *order;
        int number;
    } first{&order, 1}, second{&order, 2};
    const auto note = [](void *context) {
        const auto &of = *static_cast<Note *>(context);
        of.order->push_back(of.number);
    };
    const uint32_t late = timers_.Add("late", note, &second), early = timers_.Add("early", note, &first);
    timers_.Once(late, 20ms);
    timers_.Once(early, 10ms);
    Pass(1s);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(TimersTest, ThatAreDueAtOneMomentAreToldOfOnce) {
    Add(work_);
    Add(other_);
    timers_.Once(work_.id, 10ms);
    timers_.Once(other_.id, 10ms);
    EXPECT_EQ(driver_.Due().size(), 1);
    Pass(10ms);
    EXPECT_EQ(work_.runs, 1);
    EXPECT_EQ(other_.runs, 1);
}

TEST_F(TimersTest, ExpireOnceAfterAPauseAndGoOn) {
    Add(work_);
    timers_.Every(work_.id, 2s);
    Pass(1h + 500ms);
    EXPECT_EQ(work_.runs, 1);
    EXPECT_EQ(Of(work_).longestDelay, 1h + 500ms - 2s);
    Pass(1999ms);
    EXPECT_EQ(work_.runs, 1);
    Pass(1ms);
    EXPECT_EQ(work_.runs, 2);
    EXPECT_EQ(Of(work_).longestDelay, 1h + 500ms - 2s) << "the longest, not the last";
}

TEST_F(TimersTest, ExpireOnceWhenTheNextIsDueAsWell) {
    Add(work_);
    timers_.Every(work_.id, 2s);
    Pass(4s);
    EXPECT_EQ(work_.runs, 1);
    Pass(2s);
    EXPECT_EQ(work_.runs, 2);
}

TEST_F(TimersTest, GoOnWhenTheirWorkFailsOrTakesLong) {
    work_.fails = true;
    work_.takes = 30ms;
    Add(work_);
    timers_.Every(work_.id, 1s);
    Pass(1s);
    work_.takes = 0ms;
    Pass(1s);
    EXPECT_EQ(work_.runs, 2);
    EXPECT_EQ(Of(work_).longestRun, 30ms);
}

TEST_F(TimersTest, StartAnewAndToldAgain) {
    Add(work_);
    timers_.Every(work_.id, 1h);
    timers_.Every(work_.id, 1s); // sooner than was told
    Pass(1s);
    EXPECT_EQ(work_.runs, 1);
    {
        kit::ManualDriver<Timers> another(timers_, clocks_);
        clocks_.Advance(1s);
        EXPECT_EQ(another.RunDue(), 1) << "it is told of what was due before it came";
    }
    EXPECT_EQ(work_.runs, 2);
    timers_.Once(work_.id, 0ms); // nobody is told, and nothing breaks
}

class TimerMethodsTest : public testing::Test, protected kit::SimulatedDaemon {
protected:
    static auto List(uint32_t id = 0, uint32_t skip = 0, uint32_t most = 0, uint32_t pid = 0) {
        return kit::CallMethod<Tarn_sys_diag_GetTimerInfoResult>(TarnGetTimerInfoTarnd,
                                                                 Tarn_sys_diag_GetTimerInput{id, skip, most, pid});
    }
    static Tarn_sys_diag_TimerInfo Find(const std::string &name) {
        const auto all = List();
        for (uint32_t i = 0; i < all->uiTimerNum; ++i) {
            if (name == all->pstTimer[i].szTimerName) {
                return all->pstTimer[i];
            }
        }
        ADD_FAILURE() << "no timer " << name;
        return {};
    }
};

TEST_F(TimerMethodsTest, TellWhatBecomesOfEach) {
    const Tarn_sys_diag_TimerInfo agents = Find("agents");
    EXPECT_EQ(agents.ucPeriodic, 1);
    EXPECT_EQ(agents.ucState, 1);
    EXPECT_EQ(agents.uiPeriodMs, 1000);
    EXPECT_EQ(agents.uiRemainMs, 1000);
    EXPECT_EQ(agents.ullExpireNum, 0);
    EXPECT_NE(agents.ullCallbackAddr, 0);
    EXPECT_EQ(agents.uiTid, static_cast<uint32_t>(gettid())) << "who made it";
    EXPECT_EQ(Find("agent health").uiPeriodMs, 2000);

    clocks.Advance(1700ms + 300us);
    EXPECT_EQ(Find("agents").uiRemainMs, 0) << "late";
    EXPECT_EQ(Find("agent health").uiRemainMs, 300) << "rounded up";
    RunDue();
    EXPECT_EQ(Find("agents").ullExpireNum, 1);
    EXPECT_EQ(Find("agents").uiMaxDelayUs, 700'300);
    EXPECT_EQ(Find("agents").uiMaxRunUs, 0);

    EXPECT_EQ(Find("measurement").ucState, 0) << "stopped until it has times";
    EXPECT_EQ(Find("measurement").uiRemainMs, 0);
    daemon->measurement.SetTimes({measurement_time::kEveryMinutes, 5});
    EXPECT_EQ(Find("measurement").ucState, 1);
    EXPECT_EQ(Find("measurement").uiPeriodMs, 300'000);
}

TEST_F(TimerMethodsTest, TellWhichIsAtWork) {
    uint8_t state = 0;
    const uint32_t id = daemon->timers.Add(
        "test", [](void *result) { *static_cast<uint8_t *>(result) = Find("test").ucState; }, &state);
    daemon->timers.Once(id, 0ms);
    RunDue();
    EXPECT_EQ(state, 2);
    EXPECT_EQ(Find("test").ucState, 0);
}

TEST_F(TimerMethodsTest, TellOneOrSomeOfThem) {
    const auto all = List();
    ASSERT_GE(all->uiTimerNum, 4);
    EXPECT_EQ(all->uiTotalNum, all->uiTimerNum);
    EXPECT_EQ(all->uiPid, static_cast<uint32_t>(getpid()));
    const auto second = List(0, 1, 1);
    ASSERT_EQ(second->uiTimerNum, 1);
    EXPECT_EQ(second->uiTotalNum, all->uiTimerNum);
    EXPECT_EQ(second->pstTimer[0].uiTimerId, all->pstTimer[1].uiTimerId);
    EXPECT_EQ(List(0, 1)->uiTimerNum, all->uiTimerNum - 1);
    EXPECT_EQ(List(0, 2, 2)->uiTimerNum, 2);
    ASSERT_EQ(List(2)->uiTimerNum, 1);
    EXPECT_EQ(List(2)->pstTimer[0].uiTimerId, 2);
    EXPECT_EQ(List(999)->uiTimerNum, 0);
    EXPECT_EQ(List(0, 0, 0, static_cast<uint32_t>(getpid()))->uiTimerNum, all->uiTimerNum) << "its own process";
}

TEST_F(TimerMethodsTest, OfAllAgentsAreThereToo) {
    const uint32_t own = List()->uiTotalNum;
    for (uint32_t i = 0; i < 3; ++i) {
        AddAgent(kit::kFakePid + i, "agent");
    }
    RunDue();
    Tarn_sys_diag_TimerInfo flush{};
    flush.uiTimerId = 1;
    host::CopyText(flush.szTimerName, "flush");
    peers.On(TARND_AGENT_METHOD(TarnAgentGetTimerInfo), [&](uint32_t pid, const auto &, auto &reply) {
        if (pid == kit::kFakePid + 2) {
            return IdlCallResult{0, ECONNRESET};
        }
        reply.pstTimer = &flush;
        reply.uiTimerNum = 1;
        return IdlCallResult{0, 0};
    });
    const auto all = List();
    ASSERT_EQ(all->uiTotalNum, own + 2);
    EXPECT_EQ(std::string(all->pstTimer[own].szTimerName), "5000000:flush");
    EXPECT_EQ(std::string(all->pstTimer[own + 1].szTimerName), "5000001:flush");
    EXPECT_EQ(all.Reason(), "without the timers of processes 5000002");
    const auto last = List(0, own + 1, 1);
    ASSERT_EQ(last->uiTimerNum, 1);
    EXPECT_EQ(std::string(last->pstTimer[0].szTimerName), "5000001:flush");
    EXPECT_EQ(List(0, 0, 0, static_cast<uint32_t>(getpid()))->uiTotalNum, own) << "those of the daemon alone";
}

TEST_F(TimerMethodsTest, OfAnAgentAreAskedOfIt) {
    EXPECT_EQ(List(77, 0, 0, kit::kFakePid)->uiResult, ESRCH) << "no agent";
    peers.agents.insert(kit::kFakePid);
    peers.On(TARND_AGENT_METHOD(TarnAgentGetTimerInfo), [](uint32_t pid, const auto &request, auto &reply) {
        reply.uiPid = pid;
        reply.uiTotalNum = request.uiValue1;
        return IdlCallResult{0, 0};
    });
    const auto answer = List(77, 0, 0, kit::kFakePid);
    EXPECT_EQ(answer->uiPid, kit::kFakePid);
    EXPECT_EQ(answer->uiTotalNum, 77);
    EXPECT_EQ(peers.calls.back().timeoutMs, tarnd::kRelayTimeoutMs);
}

} // namespace
