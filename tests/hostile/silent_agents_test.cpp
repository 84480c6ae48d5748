// Agents that register and then never answer, as many as one user can start.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include <sys/prctl.h>

#include "host/runtime/transport.h"
#include "tests/hostile/hostile.h"

namespace {

class SilentAgents : public kit::HostileTest<Unit> {
protected:
    std::string Policy() const override { return "reading anyone\nagents anyone\n"; }

    mode_t RunDirMode() const override { return kit::kForAll; }

    // One that takes connections, and nothing else: what its registration ended with.
    uint32_t BeSilent() {
        static const auto listener = host::Transport(host::Directory(dir_.Path())).Listen("TarnSysdiagAgent", true);
        Tarn_sys_diag_AgentRegInfoInput request{};
        kit::Set(request.szAgentName, "silent");
        request.uiValue1 = static_cast<uint32_t>(getpid());
        request.ucValue3 = 1;
        host::Client client({.runDir = dir_.Path()});
        return kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(client, "TarnSysdiagTarndAgent", 0, "AgentRegInfo",
                                                                 request)
            ->uiValue1;
    }

    // Starts so many, which stay: how many were refused since there are too many.
    int Start(int count) {
        int refused = 0;
        for (int i = 0; i < count; ++i) {
            int ends[2];
            if (pipe(ends) != 0) {
                return -1;
            }
            if (fork() == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                const uint32_t result = BeSilent();
                const ssize_t written = write(ends[1], &result, sizeof result);
                pause();
                _exit(written == sizeof result ? 0 : 1);
            }
            close(ends[1]);
            uint32_t result = 0;
            if (read(ends[0], &result, sizeof result) != sizeof result || (result != 0 && result != EBUSY)) {
                return -1;
            }
            refused += result == EBUSY ? 1 : 0;
            close(ends[0]);
        }
        return refused;
    }

    bool ListsRules() {
        const auto rules =
            Call<Tarn_sys_diag_GetMsgRuleInfoResult>("TarnGetMsgRuleInfoTarnd", Tarn_sys_diag_GetMsgRuleInfoInput{});
        return rules.Status() == 0 && rules->uiRuleNum == 1;
    }
};

TEST_F(SilentAgents, CostACallNoMoreThanOneTime) {
    Tarn_sys_diag_UpdateMsgCtrlRuleInput rule{};
    rule.uiValue1 = rule.uiValue3 = 1;
    ASSERT_EQ(Call<Tarn_sys_diag_Result>("UpdateMsgCtrlRuleTarnd", rule)->uiResult, 0);
    constexpr int kTried = 300, kTaken = 256;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    kit::Attacker attacker([&] {
        const int refused = Start(kTried);
        const bool told = write(ends[1], &refused, sizeof refused) == sizeof refused;
        pause();
        return told ? 0 : 1;
    });
    int refused = -1;
    ASSERT_EQ(read(ends[0], &refused, sizeof refused), static_cast<ssize_t>(sizeof refused));
    EXPECT_EQ(refused, kTried - kTaken);
    kit::Latencies lists, others;
    lists.Measure(20, [this] { return ListsRules(); });
    others.Measure(200, [this] { return Answers(); });
    EXPECT_EQ(lists.Failed() + others.Failed(), 0);
    EXPECT_LT(lists.Longest(), std::chrono::milliseconds(1500));
    printf("%d silent agents; rule list: median %.0f ms, longest %.0f ms; PidIsOnline: longest %.1f ms\n", kTaken,
           lists.Percentile(0.5).count(), lists.Longest().count(), others.Longest().count());
    close(ends[0]);
    close(ends[1]);
}

} // namespace
