// call: any method, through the runtime's client.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>
#include <numeric>

#include "host/ctl/interrupt.h"
#include "host/ctl/outcome.h"
#include "host/ctl/print.h"
#include "host/ctl/remote.h"
#include "host/ctl/request.h"
#include "host/ctl/wait.h"
#include "host/osal/text.h"
#include "host/runtime/client.h"

namespace ctl {

using namespace host::describe;

namespace {

constexpr std::string_view kAgentService = "TarnSysdiagAgent";

void RequireTarget(const Method &method, const CallOptions &options) {
    const bool agentMethod = method.service == kAgentService;
    if (agentMethod && !options.pid) {
        throw Failure(kUsage, fmt::format("{} is a method of {}: expected --pid PID", method.name, method.service));
    }
    if (!agentMethod && options.pid) {
        throw Failure(kUsage, fmt::format("--pid is for methods of {}; {} is one of {}", kAgentService, method.name,
                                          method.service));
    }
}

void PrintReply(const Method &method, const Record &reply, JsonForm json) {
    if (json != JsonForm::kNone) {
        std::cout << JsonOf(reply, method.meaning->response, json).dump(2) << "\n";
    } else if (reply.GetType().slots.empty()) {
        std::cout << method.name << ": done, the reply has no members\n";
    } else {
        const Output output;
        PrintRecord(std::cout, reply, *method.meaning->response, output.GetStyle());
    }
}

// What a call has brought; nothing where nothing comes back.
std::optional<Record> ReplyOf(const Method &method, const host::CallOutcome &outcome, const CallOptions &options) {
    if (!outcome.Ok()) {
        throw FailureOf(method.service, method.name, outcome);
    }
    return method.response == nullptr || options.oneway ? std::nullopt
                                                        : std::optional(DecodeReply(method, outcome.bytes));
}

// The calls of --repeat, as they ended.
struct Series {
    std::vector<double> milliseconds; // of every call, in ascending order
    double seconds = 0;               // of all together, without what tarnctl does between them
    std::map<std::string, uint32_t> failures;
    ExitCode code = kDone; // of the first failure

    // The time that a share of the calls did not exceed.
    double Quantile(double share) const {
        const auto place = static_cast<size_t>(std::ceil(share * static_cast<double>(milliseconds.size())));
        return milliseconds[std::max<size_t>(place, 1) - 1];
    }
    uint32_t Failed() const {
        return std::accumulate(failures.begin(), failures.end(), 0U,
                               [](uint32_t sum, const auto &failure) { return sum + failure.second; });
    }
};

// The first interrupt ends it early, so that what was measured is not lost.
template <class Send>
Series Measure(const Method &method, const CallOptions &options, Send send) {
    using Clock = std::chrono::steady_clock;
    Series series;
    const Interrupts interrupts;
    for (uint32_t i = 0; i < options.repeat && !interrupts.Came(); ++i) {
        const auto sent = Clock::now();
        const host::CallOutcome outcome = send();
        const std::chrono::duration<double> time = Clock::now() - sent;
        series.milliseconds.push_back(time.count() * 1e3);
        series.seconds += time.count();
        try {
            if (const auto reply = ReplyOf(method, outcome, options)) {
                RequireResult(method, *reply, outcome.explanation);
            }
        } catch (const Failure &failure) {
            ++series.failures[failure.what()];
            series.code = series.code == kDone ? failure.Code() : series.code;
        }
    }
    std::sort(series.milliseconds.begin(), series.milliseconds.end());
    return series;
}

void PrintSeries(const Method &method, const Series &series, bool json) {
    const auto times = static_cast<double>(series.milliseconds.size());
    if (json) {
        Json failures = Json::array();
        for (const auto &[text, count] : series.failures) {
            failures.push_back({{"count", count}, {"text", text}});
        }
        const Json latency{{"p50", series.Quantile(0.5)}, {"p99", series.Quantile(0.99)}, {"max", series.Quantile(1)}};
        std::cout << Json{{"method", method.name},     {"calls", series.milliseconds.size()},
                          {"failed", series.Failed()}, {"callsPerSecond", times / series.seconds},
                          {"latencyMs", latency},      {"failures", std::move(failures)}}
                         .dump(2)
                  << "\n";
        return;
    }
    std::cout << fmt::format("{}: {} calls, {} failed, {:.0f} calls/s, p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms\n",
                             method.name, series.milliseconds.size(), series.Failed(), times / series.seconds,
                             series.Quantile(0.5), series.Quantile(0.99), series.Quantile(1));
    for (const auto &[text, count] : series.failures) {
        std::cout << fmt::format("{:>8} x {}\n", count, host::LineOfText(text));
    }
}

host::CallOutcome Await(host::Client &client, const host::CallRequest &call, const CallOptions &options) {
    Progress progress({options.runDir, options.quiet}, fmt::format("waiting for {}", call.method));
    return CallAndShow(client, call, progress);
}

} // namespace

void Call(const CallOptions &options) {
    Remote remote(options.runDir, options.pid);
    const Method &method = RequireMethod(options.method, remote);
    RequireTarget(method, options);
    host::Client client({.runDir = options.runDir});
    if (HasLocalTimes(method)) {
        UseZone([&](const host::CallRequest &call) { return client.Call(call); }, method.service,
                options.pid.value_or(0));
    }
    const std::vector<uint8_t> request =
        options.raw.empty() ? host::describe::Encode(ReadRequest(method, options.request)) : ReadMessage(options.raw);
    const host::CallRequest call{method.service, options.pid.value_or(0), method.name, method.request->hash,
                                 request,        options.deadline};
    const auto send = [&] { return options.oneway ? client.Oneway(call) : client.Call(call); };
    if (options.repeat != 0) {
        const Series series = Measure(method, options, send);
        PrintSeries(method, series, options.json != JsonForm::kNone);
        if (series.code != kDone) {
            throw Failure(series.code,
                          fmt::format("{} of {} calls failed", series.Failed(), series.milliseconds.size()));
        }
        return;
    }
    const host::CallOutcome outcome = options.oneway ? send() : Await(client, call, options);
    if (const auto reply = ReplyOf(method, outcome, options)) {
        PrintReply(method, *reply, options.json);
        RequireResult(method, *reply, outcome.explanation);
        if (!outcome.explanation.empty()) { // of what is not in a reply that went well otherwise
            std::cerr << "tarnctl: " << host::LineOfText(outcome.explanation) << "\n";
        }
    } else if (options.json != JsonForm::kNone) {
        std::cout << "null\n";
    } else {
        std::cout << method.name << (options.oneway ? ": sent one way\n" : ": sent, the method has no reply\n");
    }
}

} // namespace ctl
