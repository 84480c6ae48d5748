// A request or another record, as a person states it: words NAME=VALUE, or one that is JSON, @FILE or -.
#pragma once

#include <string>
#include <vector>

#include "host/ctl/commands.h"

namespace ctl {

// What a request must state and doesn't, or states and doesn't fit, fails here: none of it is sent.
host::describe::Record ReadRequest(const host::describe::Method &method, const std::vector<std::string> &words);

// Of any type: what isn't stated is 0 or absent, and values need not be those that a method accepts.
host::describe::Record ReadRecord(const host::describe::Type &type, const std::vector<std::string> &words);

} // namespace ctl
