// A value of kernel.core_pattern, and where it says that a core goes.
#pragma once

#include <string>
#include <vector>

#include "host/core/crash.h"

namespace core {

struct Destination {
    std::vector<std::string> program{}; // and its arguments: gets the core on standard input
    std::string file{};                 // where it is no program; empty for none
};

// Expands a pattern as the kernel does. `withPid` is kernel.core_uses_pid: a file's name that has no number gets one.
Destination Expand(const std::string &pattern, bool withPid, const Crash &crash);

} // namespace core
