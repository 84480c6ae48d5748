// Users who take all that they can of what the daemon has for everybody, while root has it answer.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cinttypes>
#include <deque>
#include <thread>

#include "host/runtime/directory.h"
#include "tests/host/peer.h"
#include "tests/hostile/hostile.h"

namespace {

using namespace std::chrono_literals;
using kit::Attacker;
using kit::Latencies;
using peer::RawPeer;

constexpr size_t kCalls = 1000;

// What an attacker says once, when his attack is under way.
class Word {
public:
    Word() { EXPECT_EQ(pipe(ends_), 0); }
    ~Word() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Word(const Word &) = delete;
    Word &operator=(const Word &) = delete;

    void Say() const { EXPECT_EQ(write(ends_[1], "", 1), 1); }
    bool Comes() const {
        pollfd waiting{ends_[0], POLLIN, 0};
        return poll(&waiting, 1, 60'000) == 1;
    }

private:
    int ends_[2] = {-1, -1};
};

template <class Request>
std::vector<uint8_t> RequestOf(const char *method, const Request &request, uint64_t id = 1) {
    host::FrameHeader header;
    header.id = id;
    header.typeHash = velto::kTypeHash<Request>;
    header.deadlineMs = 10'000;
    strcpy(header.service, "TarnSysdiagTarnd");
    strcpy(header.method, method);
    return host::MakeFrame(header, kit::Encode<Unit>(request));
}

// Takes seconds where many are asked for at a time.
std::vector<uint8_t> HeavyRequest() {
    return RequestOf("GetSysMemStatisShare", Tarn_sys_diag_None{});
}

// Keeps so many requests in flight on each of so many connections.
int Flood(const std::filesystem::path &socket, size_t connections, size_t requests, std::span<const uint8_t> request,
          const Word &underWay) {
    std::vector<uint8_t> all;
    for (size_t i = 0; i < requests; ++i) {
        all.insert(all.end(), request.begin(), request.end());
    }
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < connections; ++i) {
        threads.emplace_back([&, i] {
            const RawPeer peer(socket);
            do {
                peer.TrySend(all);
                if (i == connections - 1) {
                    underWay.Say();
                }
            } while (peer.Read(requests).size() == requests);
        });
    }
    return 0;
}

int HoldConnections(const std::filesystem::path &socket, size_t count, const Word &underWay) {
    std::vector<RawPeer> held;
    for (size_t i = 0; i < count; ++i) {
        held.emplace_back(socket);
    }
    underWay.Say();
    return pause();
}

int ConnectAgainAndAgain(const std::filesystem::path &socket, const Word &underWay) {
    std::deque<RawPeer> held;
    for (size_t i = 0;; ++i) {
        held.emplace_back(socket);
        if (held.size() > 900) {
            held.pop_front();
        }
        if (i == 1000) {
            underWay.Say();
        }
    }
}

// An agent's socket at which nobody answers, and calls to that agent.
int AskAHungAgent(const std::filesystem::path &runDir, const std::filesystem::path &socket, const Word &underWay) {
    const auto pid = static_cast<uint32_t>(getpid());
    const std::string path = host::Directory(runDir).Socket("TarnSysdiagAgent", pid);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const host::Descriptor agent(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (bind(agent.Fd(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(agent.Fd(), 4096) != 0) {
        return kit::kNotTried;
    }
    return Flood(socket, 2, 64, RequestOf("DBGCmdExecResultGetByTarnd", Tarn_sys_diag_DbgCmdResultGetByTarndInput{pid}),
                 underWay);
}

constexpr uint32_t kLargeRequest = 4 << 20;

// All but the last byte of so many large frames.
int SendPartialFrames(const std::filesystem::path &socket, size_t count, const Word &underWay) {
    std::vector<uint8_t> frame = RequestOf("GetTaskInfo", Tarn_sys_diag_GetTaskInfoInput{});
    frame.resize(host::kHeaderSize + kLargeRequest - 1);
    memcpy(&frame[32], &kLargeRequest, sizeof kLargeRequest);
    std::vector<RawPeer> peers;
    for (size_t i = 0; i < count; ++i) {
        peers.emplace_back(socket).TrySend(frame);
    }
    underWay.Say();
    return pause();
}

class Fairness : public kit::HostileTest<Unit> {
protected:
    std::string Policy() const override { return "reading anyone\nmemory anyone\ncommands anyone\n"; }
    const char *LogLevel() const override { return "info"; }

    mode_t RunDirMode() const override { return kit::kForAll; }

    void SetUp() override {
        HostileTest::SetUp();
        if (!IsSkipped()) {
            quiet_.Measure(kCalls, [this] { return Answers(); });
        }
    }

    // All of root's calls are answered, and soon.
    template <class Calling>
    void ExpectServed(const Calling &call, size_t count = kCalls) {
        Latencies root;
        root.Measure(count, call);
        printf("quiet: p50 %.2f, p99 %.2f, longest %.2f ms; meanwhile: p50 %.2f, p99 %.2f, longest %.2f ms, %zu of %zu "
               "failed\n",
               quiet_.Percentile(0.5).count(), quiet_.Percentile(0.99).count(), quiet_.Longest().count(),
               root.Percentile(0.5).count(), root.Percentile(0.99).count(), root.Longest().count(), root.Failed(),
               count);
        EXPECT_EQ(root.Failed(), 0);
        EXPECT_LT(root.Longest(), 1s);
    }
    void ExpectServed() {
        ExpectServed([this] { return Answers(); });
    }

    // With a connection of its own.
    bool AnswersANewClient() {
        host::Client client({.runDir = dir_.Path()});
        const auto answer = kit::Call<Unit, Tarn_sys_diag_PidIsOnlineOuput>(
            client, "TarnSysdiagTarnd", 0, "PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{1});
        return answer.Status() == 0;
    }

    bool HasANewSample() {
        return Call<Tarn_sys_diag_MultiCpuUsageRet>("MultiCpuUsageQuery", Tarn_sys_diag_MultiCpuUsageInput{})
                   .Status() == 0;
    }

    size_t OpenFiles() const {
        return static_cast<size_t>(std::ranges::distance(
            std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_->Pid()) + "/fd")));
    }

    // Of the daemon's memory, in KiB.
    uint64_t Memory(const std::string &what) const {
        std::ifstream status("/proc/" + std::to_string(daemon_->Pid()) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(what + ":")) {
                return std::stoull(line.substr(what.size() + 1));
            }
        }
        ADD_FAILURE() << what;
        return 0;
    }

    Latencies quiet_;
    const Word underWay_;
};

// What to compare with: they ask for nothing, but take the processors that root's program needs too.
TEST_F(Fairness, ProcessesThatOnlyCompute) {
    const auto compute = [this] {
        underWay_.Say();
        for (std::atomic<unsigned> sum = 0;;) {
            ++sum;
        }
        return 0;
    };
    const Attacker first(compute), second(compute, kit::kSecondAttacker);
    ASSERT_TRUE(underWay_.Comes() && underWay_.Comes());
    ExpectServed();
    ExpectServed([this] { return AnswersANewClient(); });
}

TEST_F(Fairness, ConnectionsThatTwoUsersHold) {
    const auto hold = [this] { return HoldConnections(Socket(), 256, underWay_); };
    const Attacker first(hold), second(hold, kit::kSecondAttacker);
    ASSERT_TRUE(underWay_.Comes() && underWay_.Comes());
    ExpectServed([this] { return AnswersANewClient(); });
}

TEST_F(Fairness, RequestsOnManyConnections) {
    const Attacker attacker([this] { return Flood(Socket(), 20, 64, HeavyRequest(), underWay_); });
    ASSERT_TRUE(underWay_.Comes());
    ExpectServed();
}

TEST_F(Fairness, HeavyRequests) {
    const Attacker attacker([this] { return Flood(Socket(), 2, 64, HeavyRequest(), underWay_); });
    ASSERT_TRUE(underWay_.Comes());
    ExpectServed();
}

TEST_F(Fairness, CallsToAnAgentThatHangs) {
    const Attacker attacker([this] { return AskAHungAgent(dir_.Path(), Socket(), underWay_); });
    ASSERT_TRUE(underWay_.Comes());
    ExpectServed();
}

TEST_F(Fairness, AStormOfConnections) {
    const auto storm = [this] { return ConnectAgainAndAgain(Socket(), underWay_); };
    const Attacker first(storm), second(storm, kit::kSecondAttacker);
    ASSERT_TRUE(underWay_.Comes() && underWay_.Comes());
    ExpectServed();
    ExpectServed([this] { return AnswersANewClient(); });
    size_t most = 0;
    for (size_t i = 0; i < kCalls / 10; ++i) {
        most = std::max(most, OpenFiles());
    }
    printf("at most %zu files open\n", most);
    EXPECT_LE(most, 512 + 128);
    EXPECT_TRUE(HasANewSample());
}

class LargeRequests : public Fairness {
protected:
    std::vector<std::string> Options() const override {
        std::vector<std::string> options = Fairness::Options();
        options.insert(options.end(), {"--limit", "received_bytes=100663296", "--limit", "frame_ms=600000"});
        return options;
    }
};

// Memory is bounded meanwhile, and given back afterwards.
TEST_F(LargeRequests, ThatAreNeverWhole) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps what is freed for a while";
#endif
    const uint64_t before = Memory("VmRSS");
    {
        const Attacker attacker([this] { return SendPartialFrames(Socket(), 50, underWay_); });
        ASSERT_TRUE(underWay_.Comes());
        ExpectServed();
    }
    const uint64_t most = Memory("VmHWM");
    EXPECT_LT(most, before + 100 * 1024);
    EXPECT_TRUE(kit::Eventually([&] { return Memory("VmRSS") < before + 24 * 1024; })) << Memory("VmRSS");
    printf("resident: %" PRIu64 " KiB, at most %" PRIu64 ", then %" PRIu64 "\n", before, most, Memory("VmRSS"));
}

// What a user's calls write is bounded, whatever they are.
class LogFlood : public Fairness {
protected:
    void ExpectBounded(const std::vector<uint8_t> &request) {
        const size_t before = daemon_->Err().size();
        {
            const Attacker attacker([&] { return Flood(Socket(), 4, 64, request, underWay_); });
            ASSERT_TRUE(underWay_.Comes());
            ExpectServed();
        }
        const size_t written = daemon_->Err().size() - before;
        printf("%zu bytes of log\n", written);
        EXPECT_LT(written, 64'000);
    }
};

TEST_F(LogFlood, ByCallsThatFail) {
    ExpectBounded(RequestOf("GetProcStatByPid", Tarn_sys_diag_ProcessStatusInput{4'000'000'000}));
}

TEST_F(LogFlood, ByRequestsThatCannotBeDecoded) {
    std::vector<uint8_t> request = RequestOf("GetProcStatByPid", Tarn_sys_diag_ProcessStatusInput{1});
    std::fill(request.begin() + host::kHeaderSize, request.end(), uint8_t{0xFF});
    ExpectBounded(request);
}

// One-way calls of methods that he makes up.
int MakeUpNames(const std::filesystem::path &socket, size_t count) {
    const RawPeer peer(socket);
    for (size_t i = 0; i < count; ++i) {
        std::vector<uint8_t> request = RequestOf(("Made" + std::to_string(i)).c_str(), Tarn_sys_diag_None{});
        request[6] = static_cast<uint8_t>(host::FrameKind::kOneway);
        peer.TrySend(request);
    }
    peer.TrySend(peer::OnlineRequest(1));
    return peer.Read(1).size() == 1 ? 0 : 1;
}

TEST_F(LogFlood, HidesNoOtherUsersDenials) {
    Attacker first([this] { return MakeUpNames(Socket(), 2000); });
    EXPECT_EQ(first.Wait(), 0);
    Attacker second(
        [this] {
            const RawPeer peer(Socket());
            peer.TrySend(RequestOf("SetTimezone", Tarn_sys_diag_SetTimezoneInput{}));
            return peer.Read(1).size() == 1 ? 0 : 1;
        },
        kit::kSecondAttacker);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_TRUE(Logged("SetTimezone: denied to process")) << daemon_->Err();
}

} // namespace
