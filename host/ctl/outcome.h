// How a call that failed ends the program.
#pragma once

#include <string_view>

#include "host/ctl/commands.h"
#include "host/runtime/client.h"

namespace ctl {

Failure FailureOf(std::string_view service, std::string_view method, const host::CallOutcome &outcome);

} // namespace ctl
