#include "host/agent/platform.h"
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd_agent.h"

#include "host/agent/process.h"
#include "host/agent/registration.h"
#include "host/osal/attempt.h"
#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace agent {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod{2000}; // a restarted daemon knows its agents again after this time
constexpr milliseconds kDeadline{1000};
constexpr uint32_t kInterfaceVersion = 1;

// The request's bytes in the regular form.
template <class Request>
std::vector<uint8_t> Encode(const Request &request) {
    using Codec = velto::Codec<Unit, Request>;
    std::vector<uint8_t> bytes(Codec::kPack(nullptr, &request));
    auto capacity = static_cast<uint32_t>(bytes.size());
    const VeltoOutBuf out{bytes.data(), &capacity};
    bytes.resize(Codec::kPack(&out, &request));
    return bytes;
}

// A method of the service that agents register with; throws what it ended with, and a result that is a failure.
template <class Response, class Request>
Response CallDaemon(host::Client &client, const char *method, const Request &request, uint32_t Response::*result) {
    const host::CallOutcome outcome =
        client.Call("TarnSysdiagTarndAgent", 0, method, velto::kTypeHash<Request>, Encode(request), kDeadline);
    if (!outcome.Ok()) {
        throw std::runtime_error(outcome.text);
    }
    Response reply{};
    if (velto::Codec<Unit, Response>::kUnpack(outcome.bytes.data(), static_cast<uint32_t>(outcome.bytes.size()),
                                              &reply) == nullptr) {
        throw std::runtime_error("the daemon's reply is malformed");
    }
    if (reply.*result != 0) {
        host::Fail(static_cast<int>(reply.*result), outcome.explanation.empty()
                                                        ? "the daemon refuses it"
                                                        : "the daemon refuses it: " + outcome.explanation);
    }
    return reply;
}

} // namespace

Registration::Registration(std::string name, const std::filesystem::path &runDir, const Resources &resources)
    : name_(std::move(name)), resources_(resources), client_({.runDir = runDir}), renewal_("registration", [this] {
          Renew();
          return kPeriod;
      }) {
    renewal_.Start();
}

Registration::~Registration() {
    renewal_.Stop();
    if (daemonPid_ != 0) {
        host::Attempt("AgentRegInfo", [this] { Call(host::meaning::agent_announces::kLeaves); });
    }
}

void Registration::Renew() {
    try {
        const uint32_t daemonPid = Call(host::meaning::agent_announces::kRuns);
        if (daemonPid != daemonPid_) {
            host::Log().info("agent {}: registered with the daemon, process {}", name_, daemonPid);
            events_ = 0;
        }
        daemonPid_ = daemonPid;
        Subscribe();
        failure_.clear();
    } catch (const std::exception &error) {
        if (failure_ != error.what()) {
            host::Log().warn("agent {}: not registered with the daemon: {}", name_, error.what());
        }
        daemonPid_ = 0;
        failure_ = error.what();
    }
}

uint32_t Registration::Call(const host::meaning::Choice &announced) {
    Tarn_sys_diag_AgentRegInfoInput request{};
    auto &[name, process, version, announces] = request;
    host::CopyText(name, name_);
    process = OwnPid();
    version = kInterfaceVersion;
    announces = static_cast<uint8_t>(announced);
    using Reply = Tarn_sys_diag_AgentRegInfoResult;
    const auto &[result, sameName, daemon] = CallDaemon(client_, "AgentRegInfo", request, &Reply::uiValue1);
    return daemon;
}

// Again and again: others may have ended the subscription.
void Registration::Subscribe() {
    const uint32_t events = resources_.Events();
    if (events != 0 || events != events_) {
        const Tarn_sys_diag_AppSubscribeInput request{OwnPid(), events};
        CallDaemon<Tarn_sys_diag_Result>(client_, "TarnAppSubscribe", request, &Tarn_sys_diag_Result::uiResult);
        events_ = events;
    }
}

} // namespace agent
