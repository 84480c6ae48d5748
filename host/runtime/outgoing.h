// A call on its way out, as both kinds of client connection take it.
#pragma once

#include <chrono>
#include <string>

#include "host/runtime/client.h"
#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"

namespace host {

// Without memory of its own, since there is one for every call.
struct Outgoing {
    FrameHeader header;                   // its length set
    char socketOf[kServiceSize + 1] = {}; // the service whose socket takes it
    uint32_t pid = 0;
    std::chrono::milliseconds timeout;
    std::chrono::steady_clock::time_point begun;
    std::chrono::steady_clock::time_point deadline;

    // What the failure of a call is about: the method and where it is served.
    std::string Label(const Transport &transport) const;
};

CallOutcome Failure(uint32_t errCode, std::string text);
CallOutcome TimedOut(const Outgoing &call, const Transport &transport);
CallOutcome NotConnected(const Outgoing &call, const Transport &transport, const Connected &failed);
CallOutcome Disconnected(const Outgoing &call, const Transport &transport);

// What a reply or error frame says.
CallOutcome OutcomeOf(Frame &&frame);

} // namespace host
