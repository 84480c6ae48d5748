// An agent between the daemon and a real one, which changes bytes of the replies that it passes on.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <atomic>
#include <cinttypes>
#include <random>
#include <set>
#include <thread>

#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"
#include "tests/hostile/hostile.h"
#include "tests/hostile/rounds.h"
#include "tests/load/mix.h"

namespace {

using namespace std::chrono_literals;

// The methods of the daemon that pass on what an agent answers.
const std::set<std::string_view> kRelays{"AppMemInfo",
                                         "DBGCmdExecResultGetByTarnd",
                                         "GetMemDmgInfoTarnd",
                                         "GetMirelMemHandleInfoByTarnd",
                                         "GetMirelMemPtInfoByTarnd",
                                         "GetProcPartitionMemHandleRecodByTarnd",
                                         "MemDiagMaByTarnd",
                                         "SetMemDmgScanTarnd",
                                         "SetNoxTimerDebugSwitchByTarnd",
                                         "TarnGetDlpCfgFromAgent",
                                         "TarnGetMsgRuleInfoTarnd",
                                         "TarnGetSubscribeInfoTarnd",
                                         "TarnGetTimerInfoTarnd",
                                         "TarnPadsGetSystemHealthInfoByTarnd"};

std::vector<kit::Mix::Call> Relayed(const kit::Scene &scene, size_t count) {
    kit::Mix mix(scene, 1);
    std::vector<kit::Mix::Call> calls;
    while (calls.size() < count) {
        kit::Mix::Call call = mix.Next();
        if (kRelays.contains(call.Name()) && call.valid) {
            calls.push_back(std::move(call));
        }
    }
    return calls;
}

// Sees to it that both ends see the other's bytes until one closes, those of the real agent not always as they were.
class Liar {
public:
    Liar(host::Descriptor daemon, host::Descriptor agent, unsigned seed, std::atomic<uint64_t> &lies)
        : daemon_(std::move(daemon)), agent_(std::move(agent)), random_(seed), lies_(lies) {}

    void Run() {
        while (true) {
            pollfd waiting[] = {{daemon_.Fd(), POLLIN, 0}, {agent_.Fd(), POLLIN, 0}};
            if (poll(waiting, 2, -1) < 0) {
                return;
            }
            if (waiting[0].revents != 0 && !Pass(daemon_, agent_, false)) {
                return;
            }
            if (waiting[1].revents != 0 && !Pass(agent_, daemon_, true)) {
                return;
            }
        }
    }

private:
    // False at the end of the connection, which is also when the daemon can't know any more where the next frame
    // begins.
    bool Pass(const host::Descriptor &from, const host::Descriptor &to, bool lie) {
        uint8_t bytes[65536];
        const ssize_t count = read(from.Fd(), bytes, sizeof bytes);
        if (count <= 0) {
            return false;
        }
        size_t size = static_cast<size_t>(count);
        const bool goesOn = !lie || Change(bytes, size);
        return send(to.Fd(), bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size) && goesOn;
    }

    bool Change(uint8_t *bytes, size_t &size) {
        lies_.fetch_add(1);
        const bool header = random_() % 4 == 0 || size <= host::kHeaderSize;
        const size_t from = header ? 0 : host::kHeaderSize;
        for (auto changes = 1 + random_() % 6; changes > 0; --changes) {
            bytes[from + random_() % (size - from)] = static_cast<uint8_t>(random_());
        }
        if (random_() % 16 == 0) {
            size = 1 + random_() % size;
            return false;
        }
        return !header;
    }

    const host::Descriptor daemon_;
    const host::Descriptor agent_;
    std::mt19937 random_;
    std::atomic<uint64_t> &lies_;
};

class LyingAgent : public kit::HostileTest<Unit> {
protected:
    std::string Policy() const override { return "reading anyone\nagents anyone\n"; }

    mode_t RunDirMode() const override { return kit::kForAll; }

    void SetUp() override {
        HostileTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(chown(elsewhere_.Path().c_str(), kit::kAttacker, kit::kAttacker), 0);
        // A real agent, where the daemon doesn't look.
        agent_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{"/usr/bin/setpriv", "--reuid", std::to_string(kit::kAttacker),
                                                  "--clear-groups", TARN_AGENT, "--run-dir", elsewhere_.Path()});
        host::Client client({.runDir = elsewhere_.Path()});
        ASSERT_TRUE(kit::Eventually([&] { return kit::TakesCalls(client, "TarnSysdiagAgent", agent_->Pid()); }))
            << agent_->Err();
    }

    // As an attacker: is the agent, for the daemon.
    int Lie() {
        host::Client daemon({.runDir = dir_.Path()});
        const auto listener = host::Transport(host::Directory(dir_.Path())).Listen("TarnSysdiagAgent", true);
        Tarn_sys_diag_AgentRegInfoInput request{};
        kit::Set(request.szAgentName, "liar");
        request.uiValue1 = static_cast<uint32_t>(getpid());
        request.uiValue2 = 1;
        request.ucValue3 = 1;
        if (kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(daemon, "TarnSysdiagTarndAgent", 0, "AgentRegInfo",
                                                              request)
                ->uiValue1 != 0) {
            return kit::kNotTried;
        }
        for (unsigned seed = 1;; ++seed) {
            pollfd waiting{listener->Fd(), POLLIN, 0};
            poll(&waiting, 1, -1);
            host::Descriptor connection(accept4(listener->Fd(), nullptr, nullptr, SOCK_CLOEXEC));
            host::Descriptor toReal =
                host::Transport(host::Directory(elsewhere_.Path()))
                    .Connect("TarnSysdiagAgent", agent_->Pid(), std::chrono::steady_clock::now() + 5s)
                    .socket;
            if (connection && toReal) {
                std::thread([this, seed, connection = std::move(connection), toReal = std::move(toReal)]() mutable {
                    Liar(std::move(connection), std::move(toReal), seed, *lies_).Run();
                }).detach();
            }
        }
    }

    const kit::TempDir elsewhere_;
    std::unique_ptr<kit::Process> agent_;
    std::atomic<uint64_t> *const lies_ =
        new (mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
            std::atomic<uint64_t>(0);
};

TEST_F(LyingAgent, MakesNoneButItsOwnCallsFail) {
    const uint64_t lies = kit::Rounds(2000);
    kit::Attacker attacker([this] { return Lie(); });
    kit::Scene scene;
    scene.daemon = daemon_->Pid();
    scene.agent = scene.subject = scene.thread = attacker.Pid();
    ASSERT_TRUE(kit::Eventually([&] {
        const Tarn_sys_diag_DbgCmdResultGetByTarndInput request{attacker.Pid()};
        Call<Tarn_sys_diag_DiagResult>("DBGCmdExecResultGetByTarnd", request);
        return lies_->load() > 0;
    })) << "the daemon never asked the liar";
    const std::vector<kit::Mix::Call> calls = Relayed(scene, 1000);
    std::vector<std::thread> callers;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        callers.emplace_back([&, seed] {
            for (std::mt19937 random(seed); lies_->load() < lies;) {
                client_.Call(calls[random() % calls.size()].WithDeadline(2s));
            }
        });
    }
    kit::Latencies root;
    while (lies_->load() < lies) {
        root.Measure(20, [this] { return Answers(); });
        std::this_thread::sleep_for(20ms);
    }
    for (std::thread &caller : callers) {
        caller.join();
    }
    EXPECT_EQ(root.Failed(), 0);
    printf("%" PRIu64 " lies; PidIsOnline meanwhile: median %.2f ms, longest %.1f ms\n", lies_->load(),
           root.Percentile(0.5).count(), root.Longest().count());
    EXPECT_TRUE(Answers());
}

} // namespace
