// A device in a fleet: the relay between a daemon and the real server.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <atomic>
#include <future>
#include <nats/nats.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/fleet/caller.h"
#include "host/fleet/gateway.h"
#include "host/relay/relay.h"
#include "host/runtime/status.h"
#include "nats_server.h"
#include "served_test.h"
#include "written_journal.h"

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

constexpr char kOperator[] = "anna";

// A daemon, its relay, the server, and an operator.
class RelayTest : public served::ServedTest {
protected:
    void SetUp() override {
        if (*kit::kNatsServer == 0) {
            GTEST_SKIP() << "this machine has no nats-server";
        }
        StartDaemon();
    }
    void TearDown() override {
        caller_.reset();
        operator_.reset();
        relay_.reset();
    }

    // What a fleet has once, and the device.
    void Begin(const std::string &more = "") {
        server_.emplace(more);
        MakeOperator();
        MakeStream();
        StartRelay();
    }
    void StartDaemon() {
        daemon_.reset();
        host::ServerOptions options;
        options.runDir = dir_.Path();
        options.ownMethods = &journal_;
        daemon_.emplace(std::move(options));
        daemon_->AddService(__module_spec_TarnSysdiagTarnd);
        daemon_->Start();
    }
    void MakeOperator() {
        caller_.reset();
        operator_.reset();
        operator_.emplace(fleet::ConnectionOptions{.account = {.url = server_->Url()}, .persists = true, .wait = 20ms});
        EXPECT_TRUE(kit::Await("the operator is connected", [&] { return operator_->IsConnected(); }));
        caller_.emplace(*operator_, kOperator);
    }
    void MakeStream() { operator_->MakeStream({fleet::kEventStream, fleet::SubjectOf("*", "event"), 24h}); }

    relay::Config ConfigOfDevice() const {
        relay::Config config;
        config.account.url = server_->Url();
        config.device = "press-1";
        config.hello = 100ms;
        config.retry = 20ms;
        config.runDir = dir_.Path();
        return config;
    }
    void StartRelay() {
        relay_.reset();
        relay_ = std::make_unique<relay::Relay>(ConfigOfDevice(), [] {});
        EXPECT_TRUE(kit::Await("the relay answers", [&] { return CallOnline().errCode != EHOSTUNREACH; }));
    }

    host::CallOutcome CallOnline(std::chrono::milliseconds deadline = 20s) {
        return caller_->Call("press-1", OnlineRequest(deadline));
    }
    fleet::Request OnlineRequest(std::chrono::milliseconds deadline) const {
        return {.service = served::kTarnd,
                .method = "PidIsOnline",
                .typeHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                .deadline = deadline,
                .message = {reinterpret_cast<const char *>(question_.data()), question_.size()}};
    }
    host::CallOutcome AskEvents(const std::string &question) {
        return caller_->Call(
            "press-1",
            {.service = std::string(host::kRuntimeService), .method = "Events", .deadline = 20s, .message = question});
    }

    // What the stream has of the device, each as "number", or "gap to number".
    std::vector<std::string> Carried() {
        std::vector<std::string> carried;
        operator_->Read(fleet::kEventStream, fleet::SubjectOf("press-1", "event"), {},
                        [&](const fleet::Message &message) {
                            const Json event = Json::parse(message.Payload());
                            carried.push_back((event.at("kind") == "gap" ? "gap to " : "") + event.at("number").dump());
                        });
        return carried;
    }
    static std::vector<std::string> Numbers(uint64_t most) {
        std::vector<std::string> numbers;
        for (uint64_t number = 1; number <= most; ++number) {
            numbers.push_back(std::to_string(number));
        }
        return numbers;
    }
    void AwaitLast(uint64_t number) {
        ASSERT_TRUE(kit::Await("the stream has the last event", [&] {
            try {
                const auto last = operator_->LastOf(fleet::kEventStream, fleet::SubjectOf("press-1", "event"));
                return last != nullptr && Json::parse(last->Payload()).at("number") == number;
            } catch (const fleet::Error &) { // it is away
                return false;
            }
        }));
    }

    const std::vector<uint8_t> question_ = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
    kit::WrittenJournal journal_;
    std::optional<host::Server> daemon_;
    std::optional<kit::NatsServer> server_;
    std::optional<fleet::Connection> operator_;
    std::optional<fleet::Caller> caller_;
    std::unique_ptr<relay::Relay> relay_;
};

TEST_F(RelayTest, AnswersWhatTheDaemonAnswers) {
    Begin();
    host::Client local({.runDir = dir_.Path()});
    const auto expected =
        local.Call(served::kTarnd, 0, "PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>, question_, 20s);
    const host::CallOutcome outcome = CallOnline();
    EXPECT_TRUE(outcome.Ok()) << outcome.text;
    EXPECT_EQ(outcome.bytes, expected.bytes);
    served::On("PidIsOnline", [](const void *, void *) { return 38U; });
    EXPECT_EQ(CallOnline().status, 38U);
    EXPECT_EQ(caller_->Call("press-2", OnlineRequest(20s)).errCode, EHOSTUNREACH);
    daemon_.reset();
    EXPECT_EQ(CallOnline().errCode, ENOENT);
}

TEST_F(RelayTest, AnswersInPartsWhatTheServerTakesNotInOne) {
    Begin("max_payload: 65536");
    journal_.Write(1, std::string(1'000'000, 'x'));
    const host::CallOutcome outcome = AskEvents(R"({"from": 1, "journal": "first", "most": 1})");
    ASSERT_TRUE(outcome.Ok()) << outcome.text;
    EXPECT_EQ(Json::parse(outcome.bytes).at("events").at(0).at("text").get<std::string>().size(), 1'000'000U);
}

TEST_F(RelayTest, EndsByTheDeadlineOrWhenTheCallerGivesUp) {
    Begin();
    std::atomic<uint32_t> why = 0;
    std::promise<void> begun;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        begun.set_value();
        kit::Eventually([&] { return (why = TarnHost_Cancelled(replyCtx)) != 0; });
        return 0U;
    });
    EXPECT_EQ(CallOnline(100ms).errCode, ETIMEDOUT);
    EXPECT_TRUE(kit::Eventually([&] { return why == ETIMEDOUT || why == ECANCELED; }));
    why = 0;
    begun = {};
    std::promise<uint32_t> ended;
    const uint64_t call = caller_->Start("press-1", OnlineRequest(20s),
                                         [&](host::CallOutcome &&outcome) { ended.set_value(outcome.errCode); });
    begun.get_future().wait();
    caller_->Cancel(call);
    EXPECT_EQ(ended.get_future().get(), ECANCELED);
    EXPECT_TRUE(kit::Eventually([&] { return why == ECANCELED; })) << why;
}

TEST_F(RelayTest, PassesOnlyItsGroupsOn) {
    Begin();
    fleet::Request request = OnlineRequest(20s);
    for (const char *const method :
         {"SetCpuOvProcThreshold", "DisCpuOvloadCallstackInfo", "Capture", "NobodyKnowsThis"}) {
        request.method = method;
        EXPECT_EQ(caller_->Call("press-1", request).errCode, EACCES) << method;
    }
}

TEST_F(RelayTest, OneNameForTwoDevicesIsNoticedAndNobodyAnswers) {
    Begin();
    auto other = std::make_unique<relay::Relay>(ConfigOfDevice(), [] {});
    EXPECT_TRUE(kit::Eventually([&] { return CallOnline().errCode == ENOTUNIQ; }));
    other.reset();
    EXPECT_TRUE(kit::Eventually([&] { return CallOnline().Ok(); }));
}

TEST_F(RelayTest, ADeviceIsARunDirectoryOfThisMachineToo) {
    Begin();
    fleet::Gateway gateway(*caller_, "press-1");
    host::Client client({.runDir = gateway.RunDir()});
    const auto call = [&](std::chrono::milliseconds deadline) {
        return client.Call(served::kTarnd, 0, "PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                           question_, deadline);
    };
    EXPECT_EQ(call(20s).bytes, CallOnline().bytes);
    host::ServerHealth health;
    EXPECT_TRUE(AskHealth(client, served::kTarnd, 0, health).Ok());
    EXPECT_EQ(health.state, "serving");
    served::On("PidIsOnline", [](const void *, void *) { return 38U; });
    EXPECT_EQ(call(20s).status, 38U);
    std::atomic<uint32_t> why = 0;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        kit::Eventually([&] { return (why = TarnHost_Cancelled(replyCtx)) != 0; });
        return 0U;
    });
    EXPECT_EQ(call(100ms).errCode, ETIMEDOUT);
    EXPECT_TRUE(kit::Eventually([&] { return why != 0; }));
}

TEST_F(RelayTest, IsFoundByTheServersOwnDiscovery) {
    Begin();
    const std::string inbox = operator_->NewInbox();
    host::Mutex mutex;
    std::vector<Json> answers;
    operator_->Subscribe(inbox, [&](const fleet::Message &message) {
        const host::MutexLock lock(mutex);
        answers.push_back(Json::parse(message.Payload()));
    });
    for (const char *const subject : {"$SRV.PING", "$SRV.INFO.tarn", "$SRV.STATS"}) {
        operator_->Publish(fleet::Message(subject, "", inbox));
    }
    ASSERT_TRUE(kit::Await("three answers", [&] {
        const host::MutexLock lock(mutex);
        return answers.size() == 3;
    }));
    operator_->Unsubscribe(inbox);
    EXPECT_EQ(answers[0].at("type"), "io.nats.micro.v1.ping_response");
    EXPECT_EQ(answers[0].at("metadata").at("device"), "press-1");
    EXPECT_EQ(answers[1].at("endpoints").at(0).at("subject"), "tarn.v1.press-1.call.*.*");
    EXPECT_GE(answers[2].at("endpoints").at(0).at("num_requests"), 1);
}

TEST_F(RelayTest, CarriesEachEventOnceThoughAllIsKilled) {
    Begin();
    constexpr int kRounds = 3;
    constexpr uint64_t kEvents = 50;
    for (int round = 0; round < kRounds; ++round) {
        const uint64_t before = 3 * kEvents * static_cast<uint64_t>(round);
        journal_.Write(kEvents);
        server_->Kill();
        journal_.Write(kEvents);
        server_->Start();
        AwaitLast(before + 2 * kEvents);
        relay_.reset();
        StartDaemon();
        journal_.Write(kEvents);
        StartRelay();
        AwaitLast(before + 3 * kEvents);
    }
    EXPECT_EQ(Carried(), Numbers(3 * kEvents * kRounds));
}

TEST_F(RelayTest, TellsWhatTheJournalKeptNotLongEnough) {
    Begin();
    journal_.Write(2);
    AwaitLast(2);
    relay_.reset();
    journal_.Write(10);
    journal_.ForgetBefore(11);
    StartRelay();
    AwaitLast(12);
    EXPECT_EQ(Carried(), (std::vector<std::string>{"1", "2", "gap to 10", "11", "12"}));
    relay_.reset();
    journal_.BeginAnew("second");
    journal_.Write(1);
    StartRelay();
    AwaitLast(1);
    EXPECT_EQ(Carried(), (std::vector<std::string>{"1", "2", "gap to 10", "11", "12", "gap to 0", "1"}));
}

TEST_F(RelayTest, WithoutAnAccountOfTheServersHasNoPlaceInTheFleet) {
    server_.emplace("authorization { users: [ { user: anna, password: secret } ] }");
    auto end = std::make_shared<std::promise<void>>();
    try {
        const relay::Relay relay(ConfigOfDevice(), [end] { end->set_value(); });
        EXPECT_EQ(end->get_future().wait_for(20s), std::future_status::ready);
    } catch (const fleet::Error &error) { // it was that quick
        EXPECT_NE(std::string(error.what()).find("does not take the account"), std::string::npos) << error.what();
    }
}

TEST_F(RelayTest, ACallerWithoutTheRoleIsNotHeard) {
    server_.emplace(R"(authorization { users: [
        { user: device, password: a },
        { user: reader, password: b, permissions: { publish: ["tarn.v1.*.call.TarnSysdiagTarnd.PidIsOnline"] } }
        { user: other, password: c, permissions: { publish: ["tarn.v1.press-9.>"] } } ] })");
    const std::string address = server_->Url().substr(7);
    relay::Config config = ConfigOfDevice();
    config.account.url = "nats://device:a@" + address;
    fleet::Connection(fleet::ConnectionOptions{.account = config.account})
        .MakeStream({fleet::kEventStream, fleet::SubjectOf("*", "event"), 24h});
    const relay::Relay relay(std::move(config), [] {});
    const auto ask = [&](const std::string &account) {
        fleet::Connection connection({.account = {.url = "nats://" + account + "@" + address}});
        fleet::Caller caller(connection, account);
        return caller.Call("press-1", OnlineRequest(1s)).errCode;
    };
    EXPECT_TRUE(kit::Eventually([&] { return ask("reader:b") == 0; }));
    EXPECT_EQ(ask("other:c"), ETIMEDOUT);
}

// ---- Without a server

relay::Config ConfigIn(const std::string &text) {
    std::istringstream in(text);
    return relay::ConfigOf(fleet::SettingsFile(in, "relay.conf"), "/dev/null");
}

std::string MistakeIn(const std::string &text) {
    try {
        ConfigIn(text);
        return "none";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

TEST(RelayConfigTest, SaysWhatIsWrongAndWhere) {
    EXPECT_EQ(ConfigIn("server = tls://fleet:4222\ndevice = a-1\ngroups = reading memory\n").groups.size(), 2U);
    EXPECT_EQ(MistakeIn("device = a\n"), "relay.conf: no server, expected e.g. server = tls://fleet.example:4222");
    EXPECT_EQ(MistakeIn("# a\nserver = nats://10.0.0.1:4222\n"),
              "relay.conf:2: server nats://10.0.0.1:4222: not encrypted, expected tls://HOST:PORT, or nats:// with a "
              "loopback address");
    EXPECT_NE(MistakeIn("server = nats://127.0.0.1.evil.example\n").find("not encrypted"), std::string::npos);
    EXPECT_NE(MistakeIn("server = nats://localhost\n").find("device \"\" is no name of a device"), std::string::npos);
    EXPECT_EQ(MistakeIn("server = nats://[::1]:1\ndevice = a\ngroups = agents\n"),
              "relay.conf:3: groups has \"agents\", expected some of: reading memory settings commands");
    EXPECT_NE(MistakeIn("server = nats://localhost\ndevice = a\nrequest = 1\n").find(":3: no key \"request\""),
              std::string::npos);
    EXPECT_NE(MistakeIn("server = nats://localhost\ndevice = a\nrequests = 65\n").find("a number from 1 to 64"),
              std::string::npos);
}

TEST(WireTest, AnAnswerInPartsIsWholeOrDamaged) {
    ASSERT_EQ(nats_Open(-1), NATS_OK); // as the first connection does
    host::CallOutcome outcome;
    outcome.status = 7;
    outcome.text = "two\nlines";
    outcome.bytes.assign(100'000, 'a');
    std::vector<fleet::Message> parts = fleet::ToMessages(outcome, "inbox", 20'000);
    ASSERT_GT(parts.size(), 2U);
    fleet::Answer answer;
    for (size_t part = parts.size() - 1; part > 0; --part) {
        EXPECT_FALSE(answer.Add(parts[part]));
    }
    const auto whole = answer.Add(parts[0]);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->status, 7U);
    EXPECT_EQ(whole->text, "two lines");
    EXPECT_EQ(whole->bytes, outcome.bytes);
    parts[0].SetHeader("Tarn-Digest", "of something else");
    fleet::Answer damaged;
    std::optional<host::CallOutcome> last;
    for (const fleet::Message &part : parts) {
        last = damaged.Add(part);
    }
    ASSERT_TRUE(last);
    EXPECT_EQ(last->errCode, EBADMSG);
}

} // namespace
