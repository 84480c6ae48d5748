// Calls of a fleet's devices: what the fleet's server takes for a request and an answer of the same size by itself,
// what a local call takes, and what a call over a relay does, which is both. A server of each is on this machine.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <nats/nats.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

#include "bench/fleet_server.h"
#include "bench/roundtrip.h"
#include "host/fleet/caller.h"
#include "host/osal/log.h"
#include "host/relay/relay.h"
#include "host/runtime/client.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/host/reply.h"

namespace {

using namespace std::chrono_literals;

// ---- A daemon with a method whose reply is a text

std::string text;

uint32_t DBGCmdExecResultGetByTarnd(const Tarn_sys_diag_DbgCmdResultGetByTarndInput *, void *replyCtx) {
    Tarn_sys_diag_DiagResult reply{0, 1, text.data()};
    return TarnHost_Reply(replyCtx, &reply);
}

void DBGCmdExecResultGetByTarnd_free(Tarn_sys_diag_DiagResult *) {}

TARN_WRAPPER(DBGCmdExecResultGetByTarnd, DbgCmdResultGetByTarndInput, DiagResult)

const IdlInterfaceEntry intf_tbl_TarnSysdiagTarnd[] = {
    TARN_RESERVED_INTERFACE_ENTRY,
    TARN_INTERFACE_ENTRY(DBGCmdExecResultGetByTarnd, DbgCmdResultGetByTarndInput, DiagResult)};
const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarnd[] = {
    TARN_RESERVED_MESSAGE_ENTRY,
    TARN_MESSAGE_ENTRIES(DBGCmdExecResultGetByTarnd, DbgCmdResultGetByTarndInput, DiagResult)};
const IdlModuleSpec spec = TARN_MODULE_SPEC(TarnSysdiagTarnd);

constexpr char kService[] = "TarnSysdiagTarnd", kMethod[] = "DBGCmdExecResultGetByTarnd", kDevice[] = "press-1";

using RequestCodec = velto::Codec<Unit, Tarn_sys_diag_DbgCmdResultGetByTarndInput>;
using ReplyCodec = velto::Codec<Unit, Tarn_sys_diag_DiagResult>;

std::vector<uint8_t> Question() {
    const Tarn_sys_diag_DbgCmdResultGetByTarndInput input{1};
    std::vector<uint8_t> message(RequestCodec::kPack(nullptr, &input));
    auto capacity = static_cast<uint32_t>(message.size());
    const VeltoOutBuf out{message.data(), &capacity};
    RequestCodec::kPack(&out, &input);
    return message;
}

size_t LengthOf(const host::CallOutcome &outcome) {
    Tarn_sys_diag_DiagResult reply{};
    if (!outcome.Ok() ||
        ReplyCodec::kUnpack(outcome.bytes.data(), static_cast<uint32_t>(outcome.bytes.size()), &reply) == nullptr) {
        throw std::runtime_error(fmt::format("{} {}", outcome.errCode, outcome.text));
    }
    const size_t length = strlen(reply.szText);
    ReplyCodec::kFreeUnpacked(&reply);
    return length;
}

void RunDaemon(const std::string &directory) {
    host::Server server({.runDir = directory, .workers = 8});
    server.AddService(spec);
    server.Start();
    while (true) {
        pause();
    }
}

void Expect(natsStatus status, const char *what) {
    if (status != NATS_OK) {
        throw std::runtime_error(fmt::format("{}: {}", what, natsStatus_GetText(status)));
    }
}

// ---- The systems

constexpr char kSubject[] = "bare";

// That sends at once, as the relay's and its callers' do.
natsConnection *ConnectBare(const std::string &url) {
    natsOptions *options = nullptr;
    natsConnection *connection = nullptr;
    Expect(natsOptions_Create(&options), "options");
    Expect(natsOptions_SetURL(options, url.c_str()), "options");
    Expect(natsOptions_SetSendAsap(options, true), "options");
    Expect(natsConnection_Connect(&connection, options), "connecting");
    natsOptions_Destroy(options);
    return connection;
}

// A request of the client library, with a subject for its answer, and nothing else.
class BareCaller final : public bench::Caller {
public:
    explicit BareCaller(const std::string &url) : connection_(ConnectBare(url)) {}
    ~BareCaller() override { natsConnection_Destroy(connection_); }
    size_t Call() override {
        natsMsg *answer = nullptr;
        Expect(natsConnection_Request(&answer, connection_, kSubject, question_.data(),
                                      static_cast<int>(question_.size()), 5000),
               "a request");
        const auto length = static_cast<size_t>(natsMsg_GetDataLength(answer));
        natsMsg_Destroy(answer);
        return length;
    }

private:
    const std::vector<uint8_t> question_ = Question();
    natsConnection *const connection_;
};

class Bare final : public bench::System {
public:
    const char *Name() const override { return "nats"; }

    void Serve(const std::string &directory, size_t size) const override {
        text.assign(size, 'x');
        bench::StartFleetServer(directory);
        natsConnection *const connection = ConnectBare(bench::AwaitUrl(directory));
        natsSubscription *subscription = nullptr;
        const auto answer = [](natsConnection *to, natsSubscription *, natsMsg *message, void *) {
            natsConnection_Publish(to, natsMsg_GetReply(message), text.data(), static_cast<int>(text.size()));
            natsMsg_Destroy(message);
        };
        Expect(natsConnection_Subscribe(&subscription, connection, kSubject, answer, nullptr), "subscribing");
        while (true) {
            pause();
        }
    }

    std::unique_ptr<bench::Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<BareCaller>(bench::UrlIn(directory));
    }
};

class LocalCaller final : public bench::Caller {
public:
    explicit LocalCaller(const std::string &directory) : client_({.runDir = directory}) {}
    size_t Call() override {
        return LengthOf(
            client_.Call(kService, 0, kMethod, velto::kTypeHash<Tarn_sys_diag_DbgCmdResultGetByTarndInput>, question_));
    }

private:
    const std::vector<uint8_t> question_ = Question();
    host::Client client_;
};

class Local final : public bench::System {
public:
    const char *Name() const override { return "local"; }
    void Serve(const std::string &directory, size_t size) const override {
        text.assign(size, 'x');
        RunDaemon(directory);
    }
    std::unique_ptr<bench::Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<LocalCaller>(directory);
    }
};

class FleetCaller final : public bench::Caller {
public:
    explicit FleetCaller(const std::string &url)
        : connection_({.account = {.url = url}}), caller_(connection_, "bench") {}
    size_t Call() override {
        return LengthOf(
            caller_.Call(kDevice, {.service = kService,
                                   .method = kMethod,
                                   .typeHash = velto::kTypeHash<Tarn_sys_diag_DbgCmdResultGetByTarndInput>,
                                   .deadline = 5s,
                                   .message = {reinterpret_cast<const char *>(question_.data()), question_.size()}}));
    }

private:
    const std::vector<uint8_t> question_ = Question();
    fleet::Connection connection_;
    fleet::Caller caller_;
};

// The relay in the process that serves, server and daemon in others.
class Fleet final : public bench::System {
public:
    const char *Name() const override { return "fleet"; }

    void Serve(const std::string &directory, size_t size) const override {
        text.assign(size, 'x');
        bench::StartFleetServer(directory);
        bench::StartChild([&] { RunDaemon(directory); });
        host::Log().set_level(host::LogLevel::kError); // there is no stream for events
        const relay::Relay relay(
            {.account = {.url = bench::AwaitUrl(directory)},
             .device = kDevice,
             .groups = {host::Group::kReading, host::Group::kMemory, host::Group::kSettings, host::Group::kCommands},
             .runDir = directory},
            [] {});
        while (true) {
            pause();
        }
    }

    std::unique_ptr<bench::Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<FleetCaller>(bench::UrlIn(directory));
    }
};

} // namespace

namespace bench {

std::vector<const System *> Systems() {
    static const Bare bare;
    static const Local local;
    static const Fleet fleet;
    return {&bare, &local, &fleet};
}

} // namespace bench
