// What a call brought: its reply, or how it failed.
#pragma once

#include <span>
#include <string_view>

#include "host/ctl/commands.h"
#include "host/runtime/client.h"

namespace ctl {

// How a call that failed ends the program.
Failure FailureOf(std::string_view service, std::string_view method, const host::CallOutcome &outcome);

// Throws Failure for a reply that is refused.
host::describe::Record DecodeReply(const host::describe::Method &method, std::span<const uint8_t> reply);

// A call that went well may still bring a failure: the result in its reply, and perhaps why. Throws it.
void RequireResult(const host::describe::Method &method, const host::describe::Record &reply,
                   const std::string &explanation);

// Local times are those of the server's clock: where a method has any, this program takes its zone. A server that
// doesn't tell it has that of this program.
void UseZoneOf(host::Client &client, const host::describe::Method &method, uint32_t agent);

} // namespace ctl
