// call: any method, through the runtime's client.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>
#include <numeric>
#include <span>

#include "host/ctl/outcome.h"
#include "host/ctl/print.h"
#include "host/describe/explain.h"
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

void PrintReply(const Method &method, std::span<const uint8_t> reply, bool json) {
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
    } else if (type.slots.empty()) {
        std::cout << method.name << ": done, the reply has no fields\n";
    } else {
        PrintRecord(std::cout, *record, View::kMeaning);
    }
}

// The calls of --repeat, as they ended.
struct Series {
    std::vector<double> milliseconds; // of every call, in ascending order
    double seconds = 0;               // of all together
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

template <class Send>
Series Measure(const Method &method, uint32_t times, Send send) {
    using Clock = std::chrono::steady_clock;
    Series series;
    const auto start = Clock::now();
    for (uint32_t i = 0; i < times; ++i) {
        const auto sent = Clock::now();
        const host::CallOutcome outcome = send();
        series.milliseconds.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        if (!outcome.Ok()) {
            const Failure failure = FailureOf(method.service, method.name, outcome);
            ++series.failures[failure.what()];
            series.code = series.code == kDone ? failure.Code() : series.code;
        }
    }
    series.seconds = std::chrono::duration<double>(Clock::now() - start).count();
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
        std::cout << fmt::format("{:>8} x {}\n", count, text);
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
    const host::CallRequest call{method.service, options.pid.value_or(0), method.name, method.request->hash,
                                 request,        options.deadline};
    const auto send = [&] { return options.oneway ? client.Oneway(call) : client.Call(call); };
    if (options.repeat != 0) {
        const Series series = Measure(method, options.repeat, send);
        PrintSeries(method, series, options.json);
        if (series.code != kDone) {
            throw Failure(series.code, fmt::format("{} of {} calls failed", series.Failed(), options.repeat));
        }
        return;
    }
    const host::CallOutcome outcome = send();
    if (!outcome.Ok()) {
        throw FailureOf(method.service, method.name, outcome);
    }
    if (method.response != nullptr && !options.oneway) {
        PrintReply(method, outcome.bytes, options.json);
    } else if (options.json) {
        std::cout << "null\n";
    } else {
        std::cout << method.name << (options.oneway ? ": sent one way\n" : ": sent, the method has no reply\n");
    }
}

} // namespace ctl
