// A fleet that is large, and one in which all is killed, against the real server. TARN_DEVICES and TARN_KILLS make it
// more than there is time for among the other tests.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <latch>
#include <list>

#include "host/fleet/caller.h"
#include "host/osal/descriptor.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/relay/relay.h"
#include "host/runtime/server.h"
#include "host/runtime/status.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/nats_server.h"
#include "tests/host/served.h"
#include "tests/host/written_journal.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

constexpr auto kSlack = 10s; // for a machine that is busy with other things

int NumberIn(const char *variable, int otherwise) {
    const char *const text = getenv(variable);
    return text == nullptr ? otherwise : std::stoi(text);
}

double Seconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

// A method with its request.
template <class Record>
fleet::Request RequestOf(const char *method, const std::vector<uint8_t> &message, std::chrono::milliseconds deadline) {
    return {.service = "TarnSysdiagTarnd",
            .method = method,
            .typeHash = velto::kTypeHash<Record>,
            .deadline = deadline,
            .message = {reinterpret_cast<const char *>(message.data()), message.size()}};
}

void MakeEventStream(fleet::Connection &connection) {
    connection.MakeStream({fleet::kEventStream, fleet::SubjectOf("*", "event"), 24h});
}

// ---- Many devices

std::string NameOf(size_t device) {
    return fmt::format("press-{}", device);
}

// Light daemons, each in the run directory of its device: in a process of their own, so that each of the two has
// descriptors enough. As for all that forks, there are no other threads yet.
class LightDaemons {
public:
    LightDaemons(const std::filesystem::path &place, size_t number) {
        int ready[2], end[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(end), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(end[1]);
            Serve(place, number, ready[1], end[0]);
        }
        close(ready[1]);
        close(end[0]);
        end_ = host::Descriptor(end[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the daemons did not start";
        close(ready[0]);
    }
    ~LightDaemons() {
        end_ = host::Descriptor();
        waitpid(pid_, nullptr, 0);
    }
    LightDaemons(const LightDaemons &) = delete;
    LightDaemons &operator=(const LightDaemons &) = delete;

    uint32_t Pid() const { return static_cast<uint32_t>(pid_); }

private:
    [[noreturn]] static void Serve(const std::filesystem::path &place, size_t number, int ready, int end) {
        served::On("GetKpiCpuInfo", [](const void *, void *replyCtx) {
            Tarn_sys_diag_DisOsResourceInfoRet kpi{"cpu", 250, 0, 0, 0};
            return TarnHost_Reply(replyCtx, &kpi);
        });
        kit::WrittenJournal journal;
        std::list<host::Server> daemons;
        for (size_t i = 0; i < number; ++i) {
            daemons.emplace_back(
                host::ServerOptions{.runDir = place / NameOf(i), .workers = 1, .ownMethods = &journal});
            daemons.back().AddService(__module_spec_TarnSysdiagTarnd);
            daemons.back().Start();
        }
        char byte = 1;
        byte = write(ready, &byte, 1) == 1 && read(end, &byte, 1) == 0 ? 0 : 1;
        _exit(byte); // without an end for each
    }

    pid_t pid_;
    host::Descriptor end_;
};

uint64_t StatusOf(uint32_t pid, const char *what) {
    return host::procfs::FieldOf(kit::TextOfFile(fmt::format("/proc/{}/status", pid)), what);
}

class ManyDevices : public testing::Test {
protected:
    ManyDevices() { host::Log().set_level(host::LogLevel::kWarning); }
    ~ManyDevices() override { host::Log().set_level(host::LogLevel::kInfo); }

    // How all ended that were asked at once, and how long that took.
    struct Round {
        host::Mutex mutex;
        size_t answered TARN_GUARDED_BY(mutex) = 0;
        std::string failure TARN_GUARDED_BY(mutex); // of one
        Clock::duration took{};

        void Take(const host::CallOutcome &outcome) {
            const host::MutexLock lock(mutex);
            answered += outcome.Ok() ? 1 : 0;
            failure = outcome.Ok() ? failure : fmt::format("{}: {}", outcome.errCode, outcome.text);
        }
        size_t Answered() {
            const host::MutexLock lock(mutex);
            return answered;
        }
        std::string Failure() {
            const host::MutexLock lock(mutex);
            return failure;
        }
    };
    static void AskAll(fleet::Caller &caller, size_t devices, Round &round) {
        const std::vector<uint8_t> message = kit::Encode<Unit>(Tarn_sys_diag_DisOsResourceInfoInput{});
        std::latch ended(static_cast<std::ptrdiff_t>(devices));
        const Clock::time_point start = Clock::now();
        for (size_t i = 0; i < devices; ++i) {
            caller.Start(NameOf(i), RequestOf<Tarn_sys_diag_DisOsResourceInfoInput>("GetKpiCpuInfo", message, 20s),
                         [&](host::CallOutcome &&outcome) {
                             round.Take(outcome);
                             ended.count_down();
                         });
        }
        ended.wait();
        round.took = Clock::now() - start;
    }
    const kit::TempDir dir_;
};

TEST_F(ManyDevices, AllAnswer) {
    if (*kit::kNatsServer == 0) {
        GTEST_SKIP() << "this machine has no nats-server";
    }
    const auto devices = static_cast<size_t>(NumberIn("TARN_DEVICES", 20));
    const LightDaemons daemons(dir_.Path(), devices);
    kit::NatsServer server;
    fleet::Connection connection({.account = {.url = server.Url()}, .name = "operator"});
    MakeEventStream(connection);
    const auto self = static_cast<uint32_t>(getpid());
    const uint64_t before = StatusOf(self, "VmRSS"), serverBefore = StatusOf(server.Pid(), "VmRSS");
    std::list<relay::Relay> relays;
    for (size_t i = 0; i < devices; ++i) {
        relays.emplace_back(
            relay::Config{.account = {.url = server.Url()}, .device = NameOf(i), .runDir = dir_.Path() / NameOf(i)},
            [] {});
    }
    fleet::Caller caller(connection, "anna");
    std::string failure;
    ASSERT_TRUE(kit::Await("all devices are in the fleet", [&] {
        Round round;
        AskAll(caller, devices, round);
        failure = round.Failure();
        return round.Answered() == devices;
    })) << failure;
    for (int i = 0; i < 5; ++i) {
        Round round;
        AskAll(caller, devices, round);
        EXPECT_EQ(round.Answered(), devices) << round.Failure();
        std::cout << fmt::format("{} devices answered in {:.3f} s\n", round.Answered(), Seconds(round.took));
    }
    std::cout << fmt::format(
        "for each device: {} KiB of its relay, in {} threads; {} KiB of its daemon; {} KiB of the server\n",
        (StatusOf(self, "VmRSS") - before) / devices, StatusOf(self, "Threads") / devices,
        StatusOf(daemons.Pid(), "VmRSS") / devices, (StatusOf(server.Pid(), "VmRSS") - serverBefore) / devices);
}

// ---- All is killed

// A device of processes of its own, and an operator.
class KilledFleet : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override { return {"--state-dir", dir_.Path() / "state"}; }
    const char *LogLevel() const override { return "info"; }

    void SetUp() override {
        if (*kit::kNatsServer == 0) {
            GTEST_SKIP() << "this machine has no nats-server";
        }
        host::Log().set_level(host::LogLevel::kError);
        kit::DaemonTest<Unit>::SetUp();
    }
    void TearDown() override {
        host::Log().set_level(host::LogLevel::kInfo);
        caller_.reset();
        operator_.reset();
        relay_.reset();
        kit::DaemonTest<Unit>::TearDown();
    }

    void Begin(const std::string &more = "") {
        server_.emplace(more);
        operator_.emplace(fleet::ConnectionOptions{.account = {.url = server_->Url()}, .persists = true, .wait = 20ms});
        ASSERT_TRUE(kit::Await("the operator is connected", [&] { return operator_->IsConnected(); }));
        MakeEventStream(*operator_);
        caller_.emplace(*operator_, "anna");
        std::ofstream(Config()) << "server = " << server_->Url() << "\ndevice = press-1\ngroups = reading settings\n";
        StartRelay();
        ASSERT_TRUE(kit::Await("the device answers", [&] { return Ask(2s).Ok(); }));
    }
    std::filesystem::path Config() const { return dir_.Path() / "relay.conf"; }
    void StartRelay() {
        relay_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_RELAY, "--run-dir", dir_.Path(), Config()});
    }
    void KillDaemon() {
        daemon_->Signal(SIGKILL);
        daemon_->Wait();
        StartDaemon();
    }

    host::CallOutcome Ask(std::chrono::milliseconds deadline) {
        const std::vector<uint8_t> message = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
        return caller_->Call("press-1", RequestOf<Tarn_sys_diag_PidIsOnlineInput>("PidIsOnline", message, deadline));
    }
    // Another one each time: an event.
    host::CallOutcome Set(std::chrono::milliseconds deadline) {
        const uint32_t threshold = 700 + ++settings_ % 200;
        const std::vector<uint8_t> message =
            kit::Encode<Unit>(Tarn_sys_diag_SysOvLoadCpuThreshold{threshold, threshold - 100, 10});
        return caller_->Call(
            "press-1", RequestOf<Tarn_sys_diag_SysOvLoadCpuThreshold>("SysOvLoadCpuThresholdSet", message, deadline));
    }

    // The journal, as the daemon itself tells it, and what the stream has: numbers and what is said.
    using Told = std::vector<std::pair<uint64_t, std::string>>;
    Told Journal() {
        Told told;
        uint64_t end = 1;
        for (uint64_t from = 1; from == 1 || from < end;) {
            const std::string question = Json{{"from", from}, {"most", 1000}}.dump();
            const host::CallOutcome outcome =
                client_.Call({.service = host::kRuntimeService,
                              .method = "Events",
                              .request = {reinterpret_cast<const uint8_t *>(question.data()), question.size()},
                              .deadline = 20s,
                              .socketOf = "TarnSysdiagTarnd"});
            if (!outcome.Ok()) {
                ADD_FAILURE() << outcome.text;
                return told;
            }
            const Json page = Json::parse(outcome.bytes);
            for (const Json &event : page.at("events")) {
                told.emplace_back(event.at("number"), event.at("text"));
            }
            from = page.at("next");
            end = page.at("end");
        }
        return told;
    }
    Told Carried() {
        Told carried;
        operator_->Read(fleet::kEventStream, fleet::SubjectOf("press-1", "event"), {},
                        [&](const fleet::Message &message) {
                            const Json event = Json::parse(message.Payload());
                            carried.emplace_back(event.at("number"), event.at("text"));
                        });
        return carried;
    }

    std::atomic<uint32_t> settings_ = 0;
    std::optional<kit::NatsServer> server_;
    std::optional<fleet::Connection> operator_;
    std::optional<fleet::Caller> caller_;
    std::unique_ptr<kit::Process> relay_;
};

// Calls without a pause, and how they ended.
class Callers {
public:
    using Call = std::function<host::CallOutcome(std::chrono::milliseconds deadline)>;

    explicit Callers(std::vector<Call> calls) {
        for (Call &call : calls) {
            threads_.emplace_back([this, call = std::move(call)](const std::stop_token &stop) { Run(call, stop); });
        }
    }
    void Stop() { threads_.clear(); }

    uint64_t Answered() const { return answered_; }
    uint64_t Failed() const { return failed_; }
    Clock::duration Longest() const { return Clock::duration(longest_.load()); }

    static constexpr std::chrono::milliseconds kDeadline{2000};

private:
    void Run(const Call &call, const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            const Clock::time_point start = Clock::now();
            const host::CallOutcome outcome = call(kDeadline);
            const Clock::rep took = (Clock::now() - start).count();
            for (Clock::rep longest = longest_; took > longest && !longest_.compare_exchange_weak(longest, took);) {
            }
            ++(outcome.Ok() ? answered_ : failed_);
            std::this_thread::sleep_for(1ms);
        }
    }

    std::atomic<uint64_t> answered_ = 0, failed_ = 0;
    std::atomic<Clock::rep> longest_ = 0;
    std::vector<std::jthread> threads_;
};

TEST_F(KilledFleet, EveryCallEndsAndEachEventIsCarriedOnce) {
    ASSERT_NO_FATAL_FAILURE(Begin());
    const int kills = NumberIn("TARN_KILLS", 2);
    Callers callers({[this](auto deadline) { return Ask(deadline); }, [this](auto deadline) { return Ask(deadline); },
                     [this](auto deadline) { return Set(deadline); }});
    const auto awaitAnswer = [&] {
        return kit::Await("an answer", [&, before = callers.Answered()] { return callers.Answered() > before; });
    };
    for (int i = 0; i < kills; ++i) {
        server_->Kill();
        server_->Start();
        ASSERT_TRUE(awaitAnswer()) << "after the server was killed";
        relay_.reset();
        StartRelay();
        ASSERT_TRUE(awaitAnswer()) << "after the relay was killed";
        ASSERT_NO_FATAL_FAILURE(KillDaemon());
        ASSERT_TRUE(awaitAnswer()) << "after the daemon was killed";
    }
    callers.Stop();
    EXPECT_LE(callers.Longest(), Callers::kDeadline + kSlack);
    ASSERT_TRUE(kit::Await("the last setting", [&] { return Set(2s).Ok(); }));
    const Told journal = Journal();
    ASSERT_FALSE(journal.empty());
    ASSERT_TRUE(kit::Await("the last event", [&] {
        const auto last = operator_->LastOf(fleet::kEventStream, fleet::SubjectOf("press-1", "event"));
        return last != nullptr && Json::parse(last->Payload()).at("number") == journal.back().first;
    }));
    EXPECT_EQ(Carried(), journal);
    std::cout << fmt::format(
        "{} kills each of server, relay and daemon: {} calls answered, {} ended with an error, the "
        "longest took {:.2f} s; {} events, each carried once\n",
        kills, callers.Answered(), callers.Failed(), Seconds(callers.Longest()), journal.size());
}

// A relay that reads no more costs the server its bound, and its place; it takes it again.
TEST_F(KilledFleet, ASlowReaderIsCutOffAndComesBack) {
    ASSERT_NO_FATAL_FAILURE(Begin("max_pending: 1MB\nwrite_deadline: \"100ms\""));
    relay_->Signal(SIGSTOP);
    const std::string large(256 * 1024, '.');
    const std::string subject = fleet::SubjectOf("press-1", "call.TarnSysdiagTarnd.PidIsOnline");
    ASSERT_TRUE(kit::Await("the server cuts it off", [&] {
        operator_->Publish(subject, large);
        return server_->Log().find("Slow Consumer") != std::string::npos;
    }));
    relay_->Signal(SIGCONT);
    EXPECT_TRUE(kit::Await("the device answers again", [&] { return Ask(2s).Ok(); }));
}

} // namespace
