// The request of a call, as a person states it.
#pragma once

#include <string>
#include <vector>

#include "host/ctl/commands.h"

namespace ctl {

// Of words NAME=VALUE, or of one that is JSON, @FILE or -. What a request must state and doesn't, or states and doesn't
// fit, fails here: none of it is sent.
host::describe::Record ReadRequest(const host::describe::Method &method, const std::vector<std::string> &words);

} // namespace ctl
