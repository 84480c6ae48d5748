#include "host/ctl/own_service.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>

#include "host/ctl/outcome.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Json;

Json AskOwnService(host::Client &client, std::string_view method, const Json &question,
                   std::chrono::milliseconds wait) {
    constexpr std::string_view kDaemon = "TarnSysdiagTarnd";
    constexpr std::chrono::seconds kAnswer{5}; // that an answer may take
    const std::string text = question.dump();
    const host::CallOutcome outcome =
        client.Call({.service = host::kRuntimeService,
                     .method = method,
                     .request = {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                     .deadline = wait + kAnswer,
                     .socketOf = kDaemon});
    if (outcome.errCode == ENOENT && client.Knows(kDaemon, 0)) {
        std::string subject(method);
        subject.front() = static_cast<char>(std::tolower(subject.front()));
        throw Failure(kRemote, fmt::format("this daemon does not tell its {}: it is older than that", subject));
    }
    if (!outcome.Ok()) {
        throw FailureOf(host::kRuntimeService, method, outcome);
    }
    return Json::parse(outcome.bytes);
}

Json CpuOverloads(host::Client &client) {
    return AskOwnService(client, "Overloads").at("overloads");
}

Json WithThreads(host::Client &client, const Json &overload) {
    const Json question{{"number", overload.at("number")}};
    const Json found = AskOwnService(client, "Overloads", question).at("overloads");
    return found.empty() ? overload : found.front(); // it may just have been dropped
}

} // namespace ctl
