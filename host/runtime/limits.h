// The limits of the runtime's two sides, in one place.
#pragma once

#include <chrono>
#include <cstdint>

namespace host {

struct Limits {
    uint32_t messageBytes = 16U << 20;              // payload of a request or reply, sent or received
    std::chrono::milliseconds deadline{5000};       // of a call that names none
    std::chrono::milliseconds maxDeadline{3600000}; // a longer one is cut to it
    uint32_t requestsPerConnection = 64;            // in flight; the server reads no further until one is answered
};

} // namespace host
