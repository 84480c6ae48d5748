#include "host/web/ask.h"

#include <fmt/format.h>

#include <cstring>

#include "host/describe/named.h"
#include "host/describe/types.h"
#include "host/runtime/status.h"

namespace web {

using namespace host::describe;

namespace {

constexpr char kDaemon[] = "TarnSysdiagTarnd";
constexpr std::chrono::milliseconds kPatience{3000};

Json ErrorOf(const char *method, const host::CallOutcome &outcome) {
    const uint32_t code = outcome.errCode != 0 ? outcome.errCode : outcome.status;
    const std::string text = outcome.text.empty() ? strerror(static_cast<int>(code)) : outcome.text;
    return {{"error", fmt::format("{}: {}", method, text)}};
}

// The result that the reply itself has, where it is a failure.
const Json *FailureIn(const Json &reply, const host::meaning::Record &meaning) {
    for (const host::meaning::Member &member : meaning.members) {
        if (member.value.kind == host::meaning::Kind::kErrno && reply.at(KeyOf(member)) != "ok") {
            return &reply.at(KeyOf(member));
        }
    }
    return nullptr;
}

} // namespace

Json Ask(host::Client &client, const char *name, const Json &request) {
    const Method *const method = FindMethod(name);
    if (method == nullptr || method->response == nullptr) {
        throw std::logic_error(fmt::format("{} is no method that answers", name));
    }
    const std::vector<uint8_t> message =
        Encode(FromJson(*method->request, FromNamed(request, *method->meaning->request)));
    const host::CallOutcome outcome = client.Call({.service = method->service,
                                                   .method = method->name,
                                                   .requestHash = method->request->hash,
                                                   .request = message,
                                                   .deadline = kPatience});
    if (!outcome.Ok()) {
        return ErrorOf(name, outcome);
    }
    const auto record = Decode(*method->response, outcome.bytes);
    if (!record) {
        return {{"error", fmt::format("{}: the reply is no well-formed {}", name, method->response->name)}};
    }
    Json answer{{"reply", ToNamed(ToJson(*record), *method->meaning->response)}, {"note", outcome.explanation}};
    if (const Json *const failure = FailureIn(answer.at("reply"), *method->meaning->response)) {
        const std::string why = outcome.explanation.empty() ? failure->dump() : outcome.explanation;
        answer["error"] = fmt::format("{}: {}", name, why);
    }
    return answer;
}

Json AskOwn(host::Client &client, const char *method, const Json &question) {
    const std::string text = question.dump();
    const host::CallOutcome outcome =
        client.Call({.service = host::kRuntimeService,
                     .method = method,
                     .request = {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                     .deadline = kPatience,
                     .socketOf = kDaemon});
    return outcome.Ok()
               ? Json{{"reply",
                       ParseJson({reinterpret_cast<const char *>(outcome.bytes.data()), outcome.bytes.size()})}}
               : ErrorOf(method, outcome);
}

} // namespace web
