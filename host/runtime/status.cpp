#include "host/runtime/status.h"

#include "host/osal/json_writer.h"

namespace host {
namespace {

void Write(JsonWriter &json, const ServerHealth &health) {
    json.Member("state", health.state);
    json.Member("pid", health.pid);
    json.Member("uptime_ms", health.uptime.count());
    json.Member("workers", health.workers);
    json.Member("busy", health.busy);
    json.Member("connections", health.connections);
    json.Member("requests", health.requests);
    json.Member("version", health.version);
    json.Member("timezone", health.timezone);
}

void Write(JsonWriter &json, const NamedValue &value) {
    json.Member("name", value.name);
    json.Member("value", value.value);
    json.Member("meaning", value.meaning);
}

void Write(JsonWriter &json, const MethodStatus &method) {
    json.Member("index", method.index);
    json.Member("name", method.name);
    json.Member("request", method.request);
    json.Member("response", method.response);
    json.Member("request_hash", method.requestHash);
    json.Member("response_hash", method.responseHash);
    json.Member("calls", method.calls);
    json.Member("errors", method.errors);
    json.Member("cancelled", method.cancelled);
    json.Member("p50_ns", method.p50.count());
    json.Member("p99_ns", method.p99.count());
    json.Member("max_ns", method.max.count());
    json.Member("sum_ns", method.sum.count());
    json.Array("below", [&] {
        for (const CallsBelow &below : method.below) {
            json.Object([&] {
                json.Member("ns", below.time.count());
                json.Member("calls", below.calls);
            });
        }
    });
}

void Write(JsonWriter &json, const ServiceStatus &service);

template <class Record>
void WriteAll(JsonWriter &json, std::string_view name, const std::vector<Record> &records) {
    json.Array(name, [&] {
        for (const Record &record : records) {
            json.Object([&] { Write(json, record); });
        }
    });
}

void Write(JsonWriter &json, const ServiceStatus &service) {
    json.Member("name", service.name);
    WriteAll(json, "methods", service.methods);
}

} // namespace

std::string ToJson(const ServerHealth &health) {
    JsonWriter json;
    json.Object([&] { Write(json, health); });
    return json.Text();
}

std::string ToJson(const ServerStatus &status) {
    JsonWriter json;
    json.Object([&] {
        json.Object("health", [&] { Write(json, status.health); });
        json.Array("mistakes", [&] {
            for (const std::string &mistake : status.mistakes) {
                json.Value(mistake);
            }
        });
        WriteAll(json, "limits", status.limits);
        WriteAll(json, "refused", status.refused);
        WriteAll(json, "services", status.services);
    });
    return json.Text();
}

} // namespace host
