#include "host/ctl/outcome.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "host/ctl/values.h"
#include "host/describe/explain.h"
#include "host/meaning/meaning.h"

namespace ctl {

using namespace host::describe;

namespace {

ExitCode CodeOf(const host::CallOutcome &outcome) {
    switch (outcome.errCode) {
    case 0: // the method's own status
    case EACCES:
    case EBUSY:
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

bool HasLocalTimes(const host::meaning::Record *record) {
    const auto isTime = [](const host::meaning::Member &member) {
        return member.value.kind == host::meaning::Kind::kLocalTime ||
               member.value.kind == host::meaning::Kind::kUnixTime;
    };
    return record != nullptr &&
           (std::ranges::any_of(record->members, isTime) || std::ranges::any_of(record->inside, HasLocalTimes));
}

} // namespace

Failure FailureOf(std::string_view service, std::string_view method, const host::CallOutcome &outcome) {
    const std::string name = fmt::format("{}.{}", service, method);
    const bool remote = outcome.errCode == 0;
    std::string what = remote && outcome.status == ENOSYS ? "not implemented" : outcome.text;
    if (what.empty()) {
        what = strerror(static_cast<int>(remote ? outcome.status : outcome.errCode));
    }
    if (!what.starts_with(name)) { // else the runtime names the method, and where
        what = name + ": " + what;
    }
    const std::string code =
        remote ? fmt::format("status {}", outcome.status) : fmt::format("error {}", outcome.errCode);
    what += what.find(code) == what.npos ? fmt::format(" ({})", code) : "";
    if (what.find(": not connected: ") != what.npos) {
        what += "; does it run? tarnctl services lists those that do";
    }
    return {CodeOf(outcome), what, remote ? outcome.status : 0};
}

Record DecodeReply(const Method &method, std::span<const uint8_t> reply) {
    const Type &type = *method.response;
    if (const auto refusal = Explain(type, reply, false).refusal) {
        throw Failure(kRefused,
                      fmt::format("{}: the reply is refused as {}: {}", method.name, type.name, refusal->text));
    }
    auto record = host::describe::Decode(type, reply);
    if (!record) {
        throw Failure(kOther, fmt::format("{}: no memory to decode {} bytes", type.name, reply.size()));
    }
    return std::move(*record);
}

void RequireResult(const Method &method, const Record &reply, const std::string &explanation) {
    const host::meaning::Record &meaning = *method.meaning->response;
    for (size_t i = 0; i < meaning.members.size(); ++i) {
        const host::meaning::Member &member = meaning.members[i];
        const Slot &slot = reply.GetType().slots[i];
        if (member.value.kind != host::meaning::Kind::kErrno) {
            continue;
        }
        const uint64_t result = LoadScalar(static_cast<const uint8_t *>(reply.Data()) + slot.offset, slot.width);
        if (result != 0) {
            throw Failure(kRemote,
                          fmt::format("{}.{}: {} ({}) is {}{}{}", method.service, method.name, member.name, member.wire,
                                      ValueText(member.value, result), explanation.empty() ? "" : ": ", explanation),
                          static_cast<uint32_t>(result));
        }
    }
}

bool HasLocalTimes(const Method &method) {
    return HasLocalTimes(method.meaning->request) || HasLocalTimes(method.meaning->response);
}

void UseZone(const std::string &zone) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

void UseZone(const host::Caller &call, std::string_view service, uint32_t agent) {
    host::ServerHealth health;
    if (AskHealth(call, service, agent, health).Ok() && !health.timezone.empty()) {
        UseZone(health.timezone);
    }
}

} // namespace ctl
