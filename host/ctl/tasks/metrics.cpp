// metrics: the daemon's figures in Prometheus's text format.
#include "host/metrics/metrics.h"

#include <cerrno>
#include <iostream>

#include "host/ctl/outcome.h"
#include "host/ctl/own_service.h"
#include "host/ctl/server.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

using host::describe::Json;

namespace {

// The last ones, whatever the journal has before.
Json LastEvents(host::Client &client, uint32_t last) {
    return AskOwnService(client, "Events", Json{{"last", last}, {"most", last}}).at("events");
}

std::optional<Json> WireReply(Server &server, const std::string &method) {
    const std::optional<Reply> reply = server.AskUnless({EAGAIN, ENODATA}, method);
    return reply ? std::optional(reply->wire) : std::nullopt;
}

void Metrics(const Globals &globals) {
    Server server(globals);
    host::ServerStatus status;
    const host::CallOutcome outcome = AskStatus(server.GetClient(), "TarnSysdiagTarnd", 0, status);
    if (!outcome.Ok()) {
        throw FailureOf(host::kRuntimeService, "Status", outcome);
    }
    const host::metrics::Source source{.call = [&](const std::string &method) { return WireReply(server, method); },
                                       .events = [&](uint32_t last) { return LastEvents(server.GetClient(), last); }};
    std::cout << MetricsOf(status, source);
}

} // namespace

void AddMetrics(const Command &program, const Globals &globals) {
    const Command task = program.Add("metrics", "Figures for Prometheus: load, memory, health, calls, what was refused",
                                     {"metrics", "metrics >/var/lib/prometheus/node-exporter/tarn.prom.new"});
    task.Run([&globals] { Metrics(globals); });
}

} // namespace ctl
