// The limits of the runtime's two sides, in one place.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct Limits {
    using Milliseconds = std::chrono::milliseconds;

    // Of both sides.
    uint32_t messageBytes = 16U << 20; // of a request, and of a reply that a server sends
    uint32_t decodedBytes = 64U << 20; // that decoding one message may allocate
    Milliseconds deadline{5000};       // of a call that names none
    Milliseconds maxDeadline{3600000}; // a longer one is cut to it

    // Of a client.
    uint32_t replyBytes = 4U << 20;

    // Of a server: what its users share (quota.h). Privileged users alone may have the last eighth of each.
    uint32_t connections = 512;
    uint32_t requests = 1024;            // in flight: begun and not ended; more are refused
    uint32_t receivedBytes = 128U << 20; // of requests in flight
    uint32_t queuedBytes = 128U << 20;   // of replies that wait until their peers take them

    // Of a server.
    uint32_t requestsPerConnection = 64; // in flight; the server reads no further until one has ended
    Milliseconds writeTime{10000};       // until the peer has taken a reply
    Milliseconds frameTime{10000};       // until the peer has completed a frame that it began
    Milliseconds idleTime{600000};       // without a request
};

struct LimitInfo {
    const char *name;
    uint64_t value;
    const char *meaning;
};
std::vector<LimitInfo> DescribeLimits(const Limits &limits);

// Sets a limit from "name=value", times in ms. Throws std::invalid_argument that says what was expected.
void SetLimit(Limits &limits, std::string_view assignment);

} // namespace host
