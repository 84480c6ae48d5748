// What a call brought: its reply, or how it failed.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "host/ctl/commands.h"
#include "host/runtime/status.h"

namespace ctl {

// How a call that failed ends the program.
Failure FailureOf(std::string_view service, std::string_view method, const host::CallOutcome &outcome);

// Throws Failure for a reply that is refused.
host::describe::Record DecodeReply(const host::describe::Method &method, std::span<const uint8_t> reply);

// A call that went well may still bring a failure: the result in its reply, and perhaps why. Throws it.
void RequireResult(const host::describe::Method &method, const host::describe::Record &reply,
                   const std::string &explanation);

bool HasLocalTimes(const host::describe::Method &method);

// Local times are those of the server's clock: this program takes its zone. A server that doesn't tell it has that of
// this program.
void UseZone(const std::string &zone);
void UseZone(const host::Caller &call, std::string_view service, uint32_t agent = 0);

} // namespace ctl
