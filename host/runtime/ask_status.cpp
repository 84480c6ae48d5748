#include "host/runtime/status.h"

#include <cerrno>

#include <nlohmann/json.hpp>

namespace host {
namespace {

using Json = nlohmann::json;

void Read(const Json &from, ServerHealth &health) {
    health.state = from.at("state").get<std::string>();
    health.pid = from.at("pid").get<uint32_t>();
    health.uptime = std::chrono::milliseconds(from.at("uptime_ms").get<int64_t>());
    health.workers = from.at("workers").get<uint32_t>();
    health.busy = from.at("busy").get<uint32_t>();
    health.connections = from.at("connections").get<uint64_t>();
    health.requests = from.at("requests").get<uint64_t>();
    health.version = from.value("version", std::string()); // which older servers don't tell, nor the zone
    health.timezone = from.value("timezone", std::string());
}

void Read(const Json &from, std::vector<NamedValue> &values) {
    for (const Json &value : from) {
        values.push_back({value.at("name").get<std::string>(), value.at("value").get<uint64_t>(),
                          value.at("meaning").get<std::string>()});
    }
}

std::chrono::nanoseconds Nanoseconds(const Json &value) {
    return std::chrono::nanoseconds(value.get<int64_t>());
}

MethodStatus MethodOf(const Json &from) {
    MethodStatus method;
    method.index = from.at("index").get<uint32_t>();
    method.name = from.at("name").get<std::string>();
    method.request = from.at("request").get<std::string>();
    method.response = from.at("response").get<std::string>();
    method.requestHash = from.at("request_hash").get<uint32_t>();
    method.responseHash = from.at("response_hash").get<uint32_t>();
    method.calls = from.at("calls").get<uint64_t>();
    method.errors = from.at("errors").get<uint64_t>();
    method.cancelled = from.at("cancelled").get<uint64_t>();
    method.p50 = Nanoseconds(from.at("p50_ns"));
    method.p99 = Nanoseconds(from.at("p99_ns"));
    method.max = Nanoseconds(from.at("max_ns"));
    method.sum = std::chrono::nanoseconds(from.value("sum_ns", int64_t{0})); // which older servers don't tell
    for (const Json &below : from.value("below", Json::array())) {
        method.below.push_back({Nanoseconds(below.at("ns")), below.at("calls").get<uint64_t>()});
    }
    return method;
}

void Read(const Json &from, ServerStatus &status) {
    Read(from.at("health"), status.health);
    status.mistakes = from.value("mistakes", std::vector<std::string>()); // which older servers don't tell
    Read(from.at("limits"), status.limits);
    Read(from.at("refused"), status.refused);
    for (const Json &service : from.at("services")) {
        ServiceStatus &to = status.services.emplace_back();
        to.name = service.at("name").get<std::string>();
        for (const Json &method : service.at("methods")) {
            to.methods.push_back(MethodOf(method));
        }
    }
}

CallRequest RequestOf(std::string_view service, uint32_t pid, std::string_view method,
                      std::chrono::milliseconds deadline) {
    return {.service = kRuntimeService, .pid = pid, .method = method, .deadline = deadline, .socketOf = service};
}

Caller CallerOf(Client &client) {
    return [&client](const CallRequest &request) { return client.Call(request); };
}

template <class Record>
CallOutcome Ask(const Caller &call, const CallRequest &request, Record &record) {
    CallOutcome outcome = call(request);
    if (!outcome.Ok()) {
        return outcome;
    }
    try {
        Record read;
        Read(Json::parse(outcome.bytes), read);
        record = std::move(read);
    } catch (const nlohmann::json::exception &error) {
        outcome.errCode = EBADMSG;
        outcome.text =
            std::string(kRuntimeService) + "." + std::string(request.method) + ": not its answer: " + error.what();
    }
    return outcome;
}

} // namespace

CallOutcome AskHealth(Client &client, std::string_view service, uint32_t pid, ServerHealth &health,
                      std::chrono::milliseconds deadline) {
    return Ask(CallerOf(client), RequestOf(service, pid, "Health", deadline), health);
}

CallOutcome AskHealth(const Caller &call, std::string_view service, uint32_t pid, ServerHealth &health) {
    return Ask(call, RequestOf(service, pid, "Health", {}), health);
}

CallOutcome AskStatus(Client &client, std::string_view service, uint32_t pid, ServerStatus &status,
                      std::chrono::milliseconds deadline) {
    return Ask(CallerOf(client), RequestOf(service, pid, "Status", deadline), status);
}

CallOutcome AskCapture(Client &client, std::string_view service, uint32_t pid, std::chrono::milliseconds deadline) {
    return client.Call(RequestOf(service, pid, "Capture", deadline));
}

CallOutcome AskDescription(Client &client, std::string_view service, uint32_t pid, std::string &description,
                           std::chrono::milliseconds deadline) {
    CallOutcome outcome = client.Call(RequestOf(service, pid, "Describe", deadline));
    if (outcome.Ok()) {
        description.assign(outcome.bytes.begin(), outcome.bytes.end());
    }
    return outcome;
}

} // namespace host
