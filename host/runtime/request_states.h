// The states of a request on the server's side.
#pragma once

#include "host/runtime/states.h"

namespace host {

enum class RequestState : uint8_t {
    kWaiting,   // for its turn
    kRunning,   // its wrapper runs
    kAbandoned, // the same, and its caller takes no answer any more
    kReturned,  // its wrapper has returned, and the answer is to come
    kAnswered,  // whoever made it so answers
    kDropped,   // over without an answer
};

inline constexpr StateTable<RequestState, 6> kRequestStates = {
    "request",
    {{
        {RequestState::kWaiting, "waiting",
         Next(RequestState::kRunning, RequestState::kAnswered, RequestState::kDropped)},
        {RequestState::kRunning, "running",
         Next(RequestState::kAbandoned, RequestState::kReturned, RequestState::kAnswered)},
        {RequestState::kAbandoned, "abandoned", Next(RequestState::kDropped)},
        {RequestState::kReturned, "returned", Next(RequestState::kAnswered, RequestState::kDropped)},
        {RequestState::kAnswered, "answered", Next()},
        {RequestState::kDropped, "dropped", Next()},
    }}};
static_assert(kRequestStates.IsInOrder());

} // namespace host
