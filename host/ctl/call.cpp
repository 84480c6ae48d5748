// call: any method, through the runtime's client.
#include <fmt/format.h>

#include <cerrno>
#include <iostream>

#include "host/ctl/commands.h"
#include "host/ctl/print.h"
#include "host/describe/explain.h"
#include "host/runtime/client.h"

namespace ctl {

using namespace host::describe;

namespace {

constexpr std::string_view kAgentService = "TarnSysdiagAgent";

void RequireTarget(const Method &method, const CallOptions &options) {
    const bool agentMethod = method.service == kAgentService;
    if (agentMethod && !options.agent) {
        throw Failure(kUsage, fmt::format("{} is a method of {}: expected --agent PID", method.name, method.service));
    }
    if (!agentMethod && options.agent) {
        throw Failure(kUsage, fmt::format("--agent is for methods of {}; {} is one of {}", kAgentService, method.name,
                                          method.service));
    }
}

ExitCode CodeOf(const host::CallOutcome &outcome) {
    switch (outcome.errCode) {
    case 0: // the method's own status
    case EMSGSIZE:
    case EPROTOTYPE:
    case EBADMSG:
        return kRemote;
    case ETIMEDOUT:
        return kDeadline;
    default:
        return kConnection;
    }
}

void RequireSuccess(const Method &method, const host::CallOutcome &outcome) {
    if (outcome.Ok()) {
        return;
    }
    const std::string name = fmt::format("{}.{}: ", method.service, method.name);
    const bool remote = outcome.errCode == 0;
    std::string what = remote && outcome.status == ENOSYS ? "not implemented" : outcome.text;
    if (what.starts_with(name)) { // the runtime names the method too
        what.erase(0, name.size());
    }
    if (what.empty()) {
        what = strerror(static_cast<int>(remote ? outcome.status : outcome.errCode));
    }
    const std::string code = remote ? fmt::format("status {}", outcome.status) : fmt::format("error {}", outcome.errCode);
    throw Failure(CodeOf(outcome), name + what + (what.find(code) == what.npos ? fmt::format(" ({})", code) : ""));
}

void PrintReply(const Method &method, const std::vector<uint8_t> &reply, bool json) {
    const Type &type = *method.response;
    if (const auto refusal = Explain(type, reply, false).refusal) {
        throw Failure(kRefused,
                      fmt::format("{}: the reply is refused as {}: {}", method.name, type.name, refusal->text));
    }
    const auto record = host::describe::Decode(type, reply);
    if (!record) {
        throw Failure(kOther, fmt::format("{}: no memory to decode {} bytes", type.name, reply.size()));
    }
    if (json) {
        std::cout << ToJson(*record).dump(2) << "\n";
    } else {
        PrintRecord(std::cout, *record);
    }
}

} // namespace

void Call(const CallOptions &options) {
    const Method &method = RequireMethod(options.method);
    RequireTarget(method, options);
    const std::vector<uint8_t> request = options.raw.empty()
                                             ? host::describe::Encode(ReadRecord(*method.request, options.request))
                                             : ReadMessage(options.raw);
    host::Client client;
    const host::CallOutcome outcome = client.Call(method.service, options.agent.value_or(0), method.name,
                                                  method.request->hash, request, options.timeout);
    RequireSuccess(method, outcome);
    if (method.response != nullptr) {
        PrintReply(method, outcome.bytes, options.json);
    } else if (options.json) {
        std::cout << "null\n";
    } else {
        std::cout << method.name << ": sent, the method has no reply\n";
    }
}

} // namespace ctl
