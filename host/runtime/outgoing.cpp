#include "host/runtime/outgoing.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace host {

std::string Outgoing::Label(const Transport &transport) const {
    return fmt::format("{}.{} at {}", header.service, header.method, transport.Address(socketOf, pid));
}

CallOutcome Failure(uint32_t errCode, std::string text) {
    return {0, errCode, std::move(text), {}};
}

CallOutcome TimedOut(const Outgoing &call, const Transport &transport) {
    return Failure(ETIMEDOUT, fmt::format("{}: no answer within {} ms", call.Label(transport), call.timeout.count()));
}

CallOutcome NotConnected(const Outgoing &call, const Transport &transport, int error) {
    return Failure(static_cast<uint32_t>(error),
                   fmt::format("{}: not connected: {}", call.Label(transport), strerrordesc_np(error)));
}

CallOutcome Disconnected(const Outgoing &call, const Transport &transport) {
    return Failure(ECONNRESET, fmt::format("{}: the connection ended before the answer", call.Label(transport)));
}

CallOutcome OutcomeOf(Frame &&frame) {
    if (frame.header.kind == FrameKind::kReply) {
        return {0, 0, {}, std::move(frame.payload)};
    }
    if (frame.header.kind != FrameKind::kError) {
        return Failure(EBADMSG, "a server sends replies, not requests");
    }
    CallOutcome outcome{frame.header.status, frame.header.errCode, ErrorText(frame.payload), {}};
    if (outcome.Ok()) {
        outcome.errCode = EBADMSG; // an error that names none
    }
    return outcome;
}

} // namespace host
