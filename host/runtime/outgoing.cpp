#include "host/runtime/outgoing.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace host {
namespace {

CallOutcome OutcomeOfReply(Frame &&reply) {
    std::optional<std::string> explanation = TakeExplanation(reply);
    if (!explanation) {
        return Failure(EBADMSG, fmt::format("the reply has {} bytes, expected at least the {} of its explanation",
                                            reply.payload.size(), reply.header.explanationSize));
    }
    return {.explanation = std::move(*explanation), .bytes = std::move(reply.payload)};
}

} // namespace

std::string Outgoing::Label(const Transport &transport) const {
    return fmt::format("{}.{} at {}", header.service, header.method, transport.Address(socketOf, pid));
}

CallOutcome Failure(uint32_t errCode, std::string text) {
    return {.errCode = errCode, .text = std::move(text)};
}

CallOutcome TimedOut(const Outgoing &call, const Transport &transport) {
    return Failure(ETIMEDOUT, fmt::format("{}: no answer within {} ms", call.Label(transport), call.timeout.count()));
}

CallOutcome NotConnected(const Outgoing &call, const Transport &transport, const Connected &failed) {
    return Failure(static_cast<uint32_t>(failed.error),
                   fmt::format("{}: not connected: {}", call.Label(transport),
                               failed.reason.empty() ? strerrordesc_np(failed.error) : failed.reason));
}

CallOutcome Disconnected(const Outgoing &call, const Transport &transport) {
    return Failure(ECONNRESET, fmt::format("{}: the connection ended before the answer", call.Label(transport)));
}

CallOutcome OutcomeOf(Frame &&frame) {
    if (frame.header.kind == FrameKind::kReply) {
        return OutcomeOfReply(std::move(frame));
    }
    if (frame.header.kind != FrameKind::kError) {
        return Failure(EBADMSG, "a server sends replies, not requests");
    }
    CallOutcome outcome{
        .status = frame.header.status, .errCode = frame.header.errCode, .text = ErrorText(frame.payload)};
    if (outcome.Ok()) {
        outcome.errCode = EBADMSG; // an error that names none
    }
    return outcome;
}

} // namespace host
